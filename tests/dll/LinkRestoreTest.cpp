// Re-creating the backup's junctions, symbolic and hard links on the restored drives E: and F:.
#include "dll/SessionFixture.h"

#include <algorithm>

using namespace kefltest;

namespace
{

std::wstring Ini(const std::wstring& sLink, const std::wstring& sTarget)
{
    return L"[" + sLink + L"]\r\nTarget=" + sTarget + L"\r\nBackupTarget=R:\\x\r\n";
}

// The progress states of the passes "Junction ...", "Symbolic ..." and "Restoring Hard-Links".
using PassStates = std::vector<std::vector<uint32_t>>;
PassStates States()
{
    PassStates v(3);
    for (const morvane::ProgMsg& msg : g_vProgress)
        v.at(std::wstring(L"JSR").find(msg.sTitle.at(0))).push_back(msg.uiState);
    return v;
}

// Wine 8 refuses FSCTL_SET_REPARSE_POINT; this records and succeeds, but for a target "Refused".
std::vector<std::pair<DWORD, std::wstring>> g_vIoCalls;
BOOL WINAPI SetReparsePointAsWindows(HANDLE, DWORD dwCode, LPVOID pIn, DWORD cbIn, LPVOID, DWORD, LPDWORD,
                                     LPOVERLAPPED)
{
    g_vIoCalls.emplace_back(dwCode, std::wstring(static_cast<const wchar_t*>(pIn), cbIn / 2));
    ::SetLastError(ERROR_NOT_SUPPORTED);
    return g_vIoCalls.back().second.find(L"Refused") == std::wstring::npos;
}

// Wine 8's CreateSymbolicLinkW makes nothing; this stand-in, handed out by GetProcAddress, records.
std::vector<std::wstring> g_vSymbolicCalls;
BOOLEAN WINAPI RecordSymbolicLink(LPCWSTR pwszLink, LPCWSTR pwszTarget, DWORD dwFlags)
{
    g_vSymbolicCalls.push_back(std::wstring(pwszLink) + L" -> " + pwszTarget + L" " +
                               std::to_wstring(dwFlags));
    return TRUE;
}

// Windows refuses another name for a file that has 1023 (ERROR_TOO_MANY_LINKS); Wine never does.
// This stand-in answers so for a link whose name holds "Refused", says that one whose name holds
// "Taken" is there already (another program made the name meanwhile), and makes the others.
BOOL WINAPI HardLinkAsWindows(LPCWSTR pwszLink, LPCWSTR pwszTarget, LPSECURITY_ATTRIBUTES pSecurity)
{
    if (std::wcsstr(pwszLink, L"Refused"))
        return WithLastError(ERROR_TOO_MANY_LINKS, FALSE);
    if (std::wcsstr(pwszLink, L"Taken"))
        return WithLastError(ERROR_ALREADY_EXISTS, FALSE);
    return ::CreateHardLinkW(pwszLink, pwszTarget, pSecurity);
}

// KEFL.dll's link entry points: the two stand-ins above, or (a kernel32 before Vista) none.
decltype(&::GetProcAddress) g_pfnRealGetProcAddress = nullptr;
bool g_bNoLinkEntryPoints = false;
FARPROC WINAPI GetProcAddressForLinks(HMODULE hModule, LPCSTR pszName)
{
    const std::string sName = reinterpret_cast<ULONG_PTR>(pszName) > 0xFFFF ? pszName : "";
    if (g_bNoLinkEntryPoints && (sName == "CreateSymbolicLinkW" || sName == "CreateHardLinkW"))
        return nullptr;
    if (sName == "CreateSymbolicLinkW")
        return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&RecordSymbolicLink));
    if (sName == "CreateHardLinkW")
        return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&HardLinkAsWindows));
    return g_pfnRealGetProcAddress(hModule, pszName);
}

// Every Wine drive says NTFS; G: here says FAT32 (and needs no folder behind it).
decltype(&::GetVolumeInformationW) g_pfnRealVolumeInformation = nullptr;
BOOL WINAPI VolumeInformation(LPCWSTR pwszRoot, LPWSTR pwszName, DWORD cchName, LPDWORD pdwSerial,
                              LPDWORD pcchMax, LPDWORD pdwFlags, LPWSTR pwszFs, DWORD cchFs)
{
    return pwszRoot[0] == L'G' ? wcscpy_s(pwszFs, cchFs, L"FAT32") == 0
                               : g_pfnRealVolumeInformation(pwszRoot, pwszName, cchName, pdwSerial, pcchMax,
                                                            pdwFlags, pwszFs, cchFs);
}

class LinkRestoreTest : public SessionFixture
{
protected:
    void SetUp() override
    {
        SessionFixture::SetUp();
        if (HasFatalFailure())
            return;
        RemoveTree(L"E:", true);
        RemoveTree(L"F:", true);
        g_vProgress.clear();
        g_vIoCalls.clear();
        g_vSymbolicCalls.clear();
        g_bNoLinkEntryPoints = false;
        g_pfnRealGetProcAddress = Patch("GetProcAddress", &GetProcAddressForLinks);
        g_pfnRealVolumeInformation = Patch("GetVolumeInformationW", &VolumeInformation);
        Patch("DeviceIoControl", &SetReparsePointAsWindows);
        m_pClient = m_pLibrary->Factory(); // one that finds the stand-ins
        m_pClient->SetProgMsgCallbackFn(&RecordProgress, 0);
    }
    template <class Fn> Fn Patch(const char* pszFunction, Fn pfnStandIn)
    {
        return m_patches.Patch(m_pLibrary->Module(), "KERNEL32.dll", pszFunction, pfnStandIn);
    }
    void Restore(const std::wstring& sJunctions, const std::wstring& sSymbolic, const std::string& sHPoint)
    {
        WriteUtf16File(std::wstring(kBackup) + L"\\#\\JPoint.dat", sJunctions);
        WriteUtf16File(std::wstring(kBackup) + L"\\#\\SPoint.dat", sSymbolic);
        WriteTextFile(std::wstring(kBackup) + L"\\#\\HPoint.dat", sHPoint);
        ASSERT_TRUE(m_pClient->Init(Credentials(kBackup).get())) << testing::PrintToString(ErrorText());
        EXPECT_TRUE(m_pClient->RestoreLinks());
    }
};

} // namespace

TEST_F(LinkRestoreTest, LinksAreMadeAsRecordedAndAFailureFailsTheLaterPassesToo)
{
    MakeFolders(L"F:\\T");
    WriteTextFile(L"F:\\f", "content");
    WriteTextFile(L"E:\\file.txt", "content");
    WriteTextFile(L"E:\\copy.txt", "copy"); // a restored copy, read-only, where a link goes
    ::SetFileAttributesW(L"E:\\copy.txt", FILE_ATTRIBUTE_READONLY);
    // The first name of this file was not restored: the copy under its other name is all there is.
    WriteTextFile(L"E:\\only.txt", "the only copy");
    const std::wstring sTarget = L"F:\\Gr\u00FC\u00DFe \u65E5\u672C\\\u0436\u00E9"; // comes with its drive
    Restore(Ini(L"E:\\\u65E5\u672C", sTarget) + Ini(L"E:\\J", L"F:\\Refused") + Ini(L"G:\\J", L"F:\\T"),
            Ini(L"E:\\S\\dir", L"F:\\T") + Ini(L"E:\\S\\file", L"F:\\f") + Ini(L"E:\\S\\none", L"F:\\None") +
                Ini(L"E:\\S\\unc", L"\\\\srv\\share\\d") + Ini(L"E:\\S\\long", L"\\\\?\\F:\\f"),
            "[1]\r\nH1=E:\\file.txt\r\nH2=E:\\New\\Deep\\link.txt\r\nH3=E:\\copy.txt\r\nH4=G:\\H\r\n"
            "[2]\r\nH1=E:\\Missing\\first.txt\r\nH2=E:\\only.txt\r\n");

    ASSERT_EQ(2u, g_vIoCalls.size());
    EXPECT_EQ(0x900A4u, g_vIoCalls[0].first);
    // Mount-point tag, data length, reserved, offset and length of "\??\<target>", then of "<target>".
    const wchar_t cb = wchar_t(sTarget.size() * 2);
    EXPECT_EQ((std::wstring{3, 0xA000, wchar_t(2 * cb + 20), 0, 0, wchar_t(cb + 8), wchar_t(cb + 10), cb} +
               L"\\??\\" + sTarget + L'\0' + sTarget + L'\0'),
              g_vIoCalls[0].second);
    EXPECT_FALSE(FileExists(L"E:\\J")) << "a failed junction is removed";
    // A folder target asks for a directory link, a file or a missing target for none.
    EXPECT_EQ((std::vector<std::wstring>{L"\\\\?\\E:\\S\\dir -> \\\\?\\F:\\T 1",
                                         L"\\\\?\\E:\\S\\file -> \\\\?\\F:\\f 0",
                                         L"\\\\?\\E:\\S\\none -> \\\\?\\F:\\None 0",
                                         L"\\\\?\\E:\\S\\unc -> \\\\?\\UNC\\srv\\share\\d 0",
                                         L"\\\\?\\E:\\S\\long -> \\\\?\\F:\\f 0"}),
              g_vSymbolicCalls);
    const CFileIdentity file = FileIdentity(L"E:\\file.txt");
    EXPECT_EQ(3u, file.dwLinks);
    for (const wchar_t* pwszLink : {L"E:\\New\\Deep\\link.txt", L"E:\\copy.txt"})
        EXPECT_EQ(file.ullIndex, FileIdentity(pwszLink).ullIndex) << testing::PrintToString(pwszLink);
    EXPECT_EQ("the only copy", ReadBytes(L"E:\\only.txt"));

    const auto vLines = KeflLog();
    for (const wchar_t* pwszText :
         {L"CreateJunction : ... ending(DeviceIoControl(FSCTL_SET_REPARSE_POINT) failed)",
          L"CreateJunction : dwLastError = 50",
          L"CreateJunction : ... ending(Link is not on an NTFS filesystem)",
          L"CreateHardLinkW : ... ending(Link is not on an NTFS filesystem)"})
        EXPECT_TRUE(HasText(vLines, L"KEFLImpl::" + std::wstring(pwszText)))
            << testing::PrintToString(pwszText);
    // The symbolic links were all made, yet their pass ends failed, as the junction pass did.
    EXPECT_FALSE(HasText(vLines, L"KEFLImpl::RestoreLinks : Restored symbolic links successfully"));
    EXPECT_EQ((PassStates{{1, 7, 2, 2, 2, 3}, {1, 2, 2, 2, 2, 2, 3}, {1, 2, 2, 2, 2, 3}}), States());
    EXPECT_EQ(L"Restoring hard-links ...", g_vProgress.at(1).sText) << "message 133 with state 7";
}

TEST_F(LinkRestoreTest, WithoutTheEntryPointsOnlyJunctionsAreMade)
{
    g_bNoLinkEntryPoints = true;
    m_pClient = m_pLibrary->Factory();
    m_pClient->SetProgMsgCallbackFn(&RecordProgress, 0);
    Restore(Ini(L"E:\\J", L"F:\\T"), Ini(L"E:\\S", L"F:\\T"), "[1]\r\nH1=E:\\f\r\nH2=E:\\h\r\n");

    const auto vLines = KeflLog();
    EXPECT_TRUE(
        HasText(vLines, L"KEFLImpl::CreateSymbolicLink : ... ending(CreateSymbolicLink is not available)"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::CreateHardLinkW : ... ending(CreateHardLink is not available)"));
    EXPECT_EQ((PassStates{{1, 7, 2, 4}, {1, 2, 3}, {1, 2, 3}}), States());
}

TEST_F(LinkRestoreTest, AHardLinkCountsAsMadeOnlyWhenItsNameIsTheTargetsFile)
{
    // A copy that another program holds open on Windows cannot be moved aside (error 32 here).
    static decltype(&::CreateFileW) s_pfnRealCreate = nullptr;
    s_pfnRealCreate = Patch("CreateFileW",
                            +[](LPCWSTR pwszPath, DWORD dwAccess, DWORD dwShare, LPSECURITY_ATTRIBUTES pSa,
                                DWORD dwDisposition, DWORD dwFlags, HANDLE hTemplate) -> HANDLE
                            {
                                if ((dwAccess & DELETE) && std::wcsstr(pwszPath, L"Held"))
                                    return WithLastError(ERROR_SHARING_VIOLATION, INVALID_HANDLE_VALUE);
                                return s_pfnRealCreate(pwszPath, dwAccess, dwShare, pSa, dwDisposition, dwFlags,
                                                       hTemplate);
                            });
    WriteTextFile(L"E:\\file.txt", "content");
    // Each failed link leaves the restored copy under its name: one held, one taken, one refused.
    const wchar_t* const kKept[] = {L"E:\\Held.txt", L"E:\\Taken.txt", L"E:\\Refused.txt"};
    // The restored copy where the link goes has a name as long as a folder takes: its aside name fits too.
    const std::string sCopy = std::string(251, 'c') + ".txt";
    const std::wstring sCopyPath = L"E:\\" + std::wstring(sCopy.begin(), sCopy.end());
    WriteTextFile(sCopyPath, "its own copy");
    for (const wchar_t* pwszCopy : kKept)
        WriteTextFile(pwszCopy, "its own copy");
    const std::string sHPoint = "[1]\r\nH1=E:\\file.txt\r\nH2=E:\\" + sCopy + "\r\nH3=E:\\Held.txt\r\n"
                                "H4=E:\\Taken.txt\r\nH5=E:\\Refused.txt\r\n";
    // The second pass runs over a tree that the first one linked.
    for (int iPass = 1; iPass <= 2; ++iPass)
    {
        SCOPED_TRACE("link pass " + std::to_string(iPass));
        const size_t cLinesBefore = KeflLog().size();
        g_vProgress.clear();
        Restore(L"", L"", sHPoint);
        const auto vLines = KeflLog();
        const std::vector<std::wstring> vNew(vLines.begin() + static_cast<ptrdiff_t>(cLinesBefore),
                                             vLines.end());
        const auto vErrors = TextsWithMarker(vNew, L":[E]: ");
        const auto Failed = [&](const wchar_t* pwszLink)
        {
            return std::ranges::count(vErrors, L"KEFLImpl::RestoreLinks : sLink = \"" +
                                                   std::wstring(pwszLink) + L"\"");
        };
        EXPECT_EQ(0, Failed(sCopyPath.c_str()));
        EXPECT_EQ(FileIdentity(L"E:\\file.txt").ullIndex, FileIdentity(sCopyPath).ullIndex);
        for (const wchar_t* pwszKept : kKept)
        {
            EXPECT_EQ(1, Failed(pwszKept)) << testing::PrintToString(std::wstring(pwszKept));
            EXPECT_EQ("its own copy", ReadBytes(pwszKept)) << testing::PrintToString(std::wstring(pwszKept));
        }
        EXPECT_TRUE(
            HasText(vNew, L"KEFLImpl::CreateHardLinkW : ... ending(Existing file could not be moved aside)"));
        EXPECT_TRUE(HasText(vNew, L"KEFLImpl::CreateHardLinkW : dwLastError = 32"));
        EXPECT_EQ(5u, ReadMetadata(L"E:").size()) << "no copy moved aside is left in the folder";
        EXPECT_EQ((PassStates{{1, 7, 4}, {1, 4}, {1, 2, 2, 2, 2, 3}}), States());
    }
}
