// Re-creating the backup's links after the drives are restored: junctions, symbolic links and
// hard links from the link-point files, on the restore-target drives E: and F:, with progress.
#include "dll/SessionFixture.h"
#include "support/Patches.h"

using namespace kefltest;

namespace
{

// One section of an INI-form link-point file (JPoint.dat, SPoint.dat).
std::wstring Ini(const std::wstring& sLink, const std::wstring& sTarget, DWORD dwAttr = 0)
{
    return L"[" + sLink + L"]\r\nTarget=" + sTarget + L"\r\nBackupTarget=R:\\x\r\nAttr=" +
           std::to_wstring(dwAttr) + L"\r\n";
}

// The progress states of the three passes (junctions, symbolic links, hard links), in order.
using PassStates = std::vector<std::vector<uint32_t>>;
PassStates States()
{
    PassStates v(3);
    for (const morvane::ProgMsg& msg : g_vProgress)
        v[msg.sTitle.starts_with(L"Junction") ? 0
          : msg.sTitle == L"Symbolic Links"   ? 1
                                              : 2]
            .push_back(msg.uiState);
    return v;
}

// Wine 8 refuses FSCTL_SET_REPARSE_POINT (error 50); the stand-in keeps what it gets and succeeds.
std::vector<std::pair<DWORD, std::wstring>> g_vIoCalls;
BOOL WINAPI SetReparsePointAsWindows(HANDLE, DWORD dwCode, LPVOID pIn, DWORD cbIn, LPVOID, DWORD, LPDWORD,
                                     LPOVERLAPPED)
{
    g_vIoCalls.emplace_back(dwCode, std::wstring(static_cast<const wchar_t*>(pIn), cbIn / 2));
    return TRUE;
}

// A junction's reparse data: tag, data length, reserved, substitute name offset and length, print
// name offset and length, then "\??\<target>" and "<target>", each with a NUL.
std::wstring ExpectedReparseData(const std::wstring& sTarget)
{
    const wchar_t cbSub = wchar_t((sTarget.size() + 4) * 2), cbPr = wchar_t(sTarget.size() * 2);
    return std::wstring{3, 0xA000, wchar_t(cbSub + cbPr + 12), 0, 0, cbSub, wchar_t(cbSub + 2), cbPr} +
           L"\\??\\" + sTarget + L'\0' + sTarget + L'\0';
}

// Wine 8's CreateSymbolicLinkW makes nothing; this stand-in, handed out by GetProcAddress, records.
std::vector<std::wstring> g_vSymbolicCalls;
BOOLEAN WINAPI RecordSymbolicLink(LPCWSTR pwszLink, LPCWSTR pwszTarget, DWORD dwFlags)
{
    g_vSymbolicCalls.push_back(std::wstring(pwszLink) + L" -> " + pwszTarget + L" " +
                               std::to_wstring(dwFlags));
    return TRUE;
}

// KEFL.dll's link entry points: the recording CreateSymbolicLinkW, or (a kernel32 before Vista) none.
FARPROC(WINAPI* g_pfnRealGetProcAddress)(HMODULE, LPCSTR) = nullptr;
bool g_bNoLinkEntryPoints = false;
FARPROC WINAPI GetProcAddressForLinks(HMODULE hModule, LPCSTR pszName)
{
    const std::string sName = reinterpret_cast<ULONG_PTR>(pszName) > 0xFFFF ? pszName : "";
    if (g_bNoLinkEntryPoints && (sName == "CreateSymbolicLinkW" || sName == "CreateHardLinkW"))
        return nullptr;
    if (sName == "CreateSymbolicLinkW")
        return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&RecordSymbolicLink));
    return g_pfnRealGetProcAddress(hModule, pszName);
}

// GetVolumeInformationW on a drive formatted FAT32 (every Wine drive says NTFS).
BOOL WINAPI FatVolumeInformation(LPCWSTR, LPWSTR, DWORD, LPDWORD, LPDWORD, LPDWORD, LPWSTR pwszFs,
                                 DWORD cchFs)
{
    return wcscpy_s(pwszFs, cchFs, L"FAT32") == 0;
}

class LinkRestoreTest : public SessionFixture
{
protected:
    void TearDown() override
    {
        m_patches.Clear();
        SessionFixture::TearDown();
        RemoveTree(L"E:", true);
        RemoveTree(L"F:", true);
    }

    // Empty target drives and a fresh client, its link entry points from GetProcAddressForLinks.
    void Restart(bool bNoEntryPoints, bool bRecordReparse)
    {
        if (m_pClient)
            m_pClient->Fini();
        m_pClient.reset();
        m_patches.Clear();
        RemoveTree(L"E:", true);
        RemoveTree(L"F:", true);
        ::DeleteFileW(KeflLogPath().c_str());
        g_vProgress.clear();
        g_vIoCalls.clear();
        g_vSymbolicCalls.clear();
        g_bNoLinkEntryPoints = bNoEntryPoints;
        g_pfnRealGetProcAddress = Patch("GetProcAddress", &GetProcAddressForLinks);
        if (bRecordReparse)
            Patch("DeviceIoControl", &SetReparsePointAsWindows);
        m_pClient = m_pLibrary->Factory();
        m_pClient->SetProgMsgCallbackFn(&RecordProgress, 0);
    }
    template <class Fn> Fn Patch(const char* pszFunction, Fn pfnStandIn)
    {
        return m_patches.Patch(m_pLibrary->Module(), "KERNEL32.dll", pszFunction, pfnStandIn);
    }
    // Writes the backup's link-point files (MPoint.dat stays empty) and starts the session.
    void Init(const std::wstring& sJunctions, const std::wstring& sSymbolic, const std::string& sHPoint)
    {
        WriteUtf16File(std::wstring(kBackup) + L"\\#\\JPoint.dat", sJunctions);
        WriteUtf16File(std::wstring(kBackup) + L"\\#\\SPoint.dat", sSymbolic);
        WriteTextFile(std::wstring(kBackup) + L"\\#\\HPoint.dat", sHPoint);
        ASSERT_TRUE(m_pClient->Init(Credentials(kBackup).get())) << testing::PrintToString(ErrorText());
    }

    CPatches m_patches;
};

} // namespace

TEST_F(LinkRestoreTest, LinksAreMadeAsTheBackupRecordedThem)
{
    Restart(false, true);
    MakeFolders(L"F:\\T");
    MakeFolders(L"E:\\Data");
    WriteTextFile(L"F:\\file.txt", "content");
    WriteTextFile(L"E:\\Data\\file.txt", "content");
    WriteTextFile(L"E:\\Data\\copy.txt", "copy"); // a restored copy, read-only, where a link goes
    ::SetFileAttributesW(L"E:\\Data\\copy.txt", FILE_ATTRIBUTE_READONLY);
    // The first name of this file was not restored: the copy under its other name is all there is.
    WriteTextFile(L"E:\\Data\\only.txt", "the only copy");
    const std::wstring sTarget =
        L"F:\\Gr\u00FC\u00DFe \u65E5\u672C\\\u0436\u00E9"; // made by its own drive's restore
    Init(Ini(L"E:\\Neue Ordner\\\u65E5\u672C", sTarget),
         Ini(L"E:\\Sym\\dir", L"F:\\T") + Ini(L"E:\\Sym\\file", L"F:\\file.txt") +
             Ini(L"E:\\Sym\\missing", L"F:\\Missing"),
         "[1]\r\nH1=E:\\Data\\file.txt\r\nH2=E:\\New\\Deep\\link.txt\r\nH3=E:\\Data\\copy.txt\r\n"
         "[2]\r\nH1=E:\\Missing\\first.txt\r\nH2=E:\\Data\\only.txt\r\n");
    EXPECT_TRUE(m_pClient->RestoreLinks());

    ASSERT_EQ(1u, g_vIoCalls.size());
    EXPECT_EQ(0x900A4u, g_vIoCalls[0].first);
    EXPECT_EQ(ExpectedReparseData(sTarget), g_vIoCalls[0].second);
    // A folder target asks for a directory link, a file or a missing target for none.
    EXPECT_EQ((std::vector<std::wstring>{L"\\\\?\\E:\\Sym\\dir -> \\\\?\\F:\\T 1",
                                         L"\\\\?\\E:\\Sym\\file -> \\\\?\\F:\\file.txt 0",
                                         L"\\\\?\\E:\\Sym\\missing -> \\\\?\\F:\\Missing 0"}),
              g_vSymbolicCalls);
    const CFileIdentity file = FileIdentity(L"E:\\Data\\file.txt");
    EXPECT_EQ(3u, file.dwLinks);
    for (const wchar_t* pwszLink : {L"E:\\New\\Deep\\link.txt", L"E:\\Data\\copy.txt"})
        EXPECT_EQ(file.ullIndex, FileIdentity(pwszLink).ullIndex) << testing::PrintToString(pwszLink);
    EXPECT_EQ("the only copy", ReadBytes(L"E:\\Data\\only.txt"));

    EXPECT_EQ((PassStates{{1, 7, 2, 4}, {1, 2, 2, 2, 4}, {1, 2, 2, 2, 3}}), States());
    EXPECT_EQ(L"Restoring hard-links ...", g_vProgress.at(1).sText) << "message 133 with state 7";
}

TEST_F(LinkRestoreTest, ALinkThatCannotBeMadeFailsItsPassAndTheLaterOnes)
{
    enum Setup
    {
        WineReparse, // Wine's own DeviceIoControl refuses FSCTL_SET_REPARSE_POINT with error 50
        FatVolume,
        NoEntryPoints
    };
    const struct
    {
        const char* pszName;
        Setup setup;
        std::vector<std::wstring> vTexts; // lines the trace must hold, after "KEFLImpl::"
        PassStates states;
    } rows[] = {
        {"the reparse data refused",
         WineReparse,
         {L"CreateJunction : ... ending(DeviceIoControl(FSCTL_SET_REPARSE_POINT) failed)",
          L"CreateJunction : dwLastError = 50"},
         {{1, 7, 2, 3}, {1, 2, 3}, {1, 2, 3}}},
        {"a FAT volume",
         FatVolume,
         {L"CreateJunction : ... ending(Link is not on an NTFS filesystem)",
          L"CreateSymbolicLink : ... ending(Link is not on an NTFS filesystem)",
          L"CreateHardLinkW : ... ending(Link is not on an NTFS filesystem)"},
         {{1, 7, 2, 3}, {1, 2, 3}, {1, 2, 3}}},
        {"no CreateSymbolicLinkW and CreateHardLinkW",
         NoEntryPoints,
         {L"CreateSymbolicLink : ... ending(CreateSymbolicLink is not available)",
          L"CreateHardLinkW : ... ending(CreateHardLink is not available)"},
         {{1, 7, 2, 4}, {1, 2, 3}, {1, 2, 3}}},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.pszName);
        Restart(row.setup == NoEntryPoints, row.setup != WineReparse);
        MakeFolders(L"F:\\T");
        WriteTextFile(L"E:\\file.txt", "content");
        Init(Ini(L"E:\\J", L"F:\\T"), Ini(L"E:\\S", L"F:\\T"),
             "[1]\r\nH1=E:\\file.txt\r\nH2=E:\\F\\hard.txt\r\n");
        if (row.setup == FatVolume)
            Patch("GetVolumeInformationW", &FatVolumeInformation);
        EXPECT_TRUE(m_pClient->RestoreLinks());

        const auto vLines = KeflLog();
        for (const std::wstring& sText : row.vTexts)
            EXPECT_TRUE(HasText(vLines, L"KEFLImpl::" + sText)) << testing::PrintToString(sText);
        EXPECT_EQ(row.states, States());
        // A pass traces its success where it ends in 4 only.
        const wchar_t* const passes[] = {L"junctions", L"symbolic links", L"hard links"};
        for (size_t i = 0; i < 3; ++i)
            EXPECT_EQ(row.states[i].back() == 4,
                      HasText(vLines, L"KEFLImpl::RestoreLinks : Restored " + std::wstring(passes[i]) +
                                          L" successfully"))
                << testing::PrintToString(passes[i]);
        EXPECT_EQ(row.setup == NoEntryPoints, IsFolder(L"E:\\J")) << "a failed junction is removed";
        EXPECT_EQ(row.setup == WineReparse ? "content" : "<missing>", ReadBytes(L"E:\\F\\hard.txt"))
            << "later passes still make their links";
    }
}
