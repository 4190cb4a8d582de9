// Re-creating the backup's links after the drives are restored: junctions, symbolic links and
// hard links from the link-point files, on the restore-target drives E: and F:, with progress.
#include "dll/SessionFixture.h"

#include "platform/UniqueHandle.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

using namespace kefltest;

namespace
{

void WriteFileText(const std::wstring& sPath, const std::string& sText, DWORD dwAttributes = 0)
{
    MakeFolders(sPath.substr(0, sPath.rfind(L'\\')));
    WriteTextFile(LongPath(sPath), sText);
    if (dwAttributes != 0)
        ::SetFileAttributesW(LongPath(sPath).c_str(), dwAttributes);
}

// An INI-form link-point file (JPoint.dat, SPoint.dat) in UTF-16 with a byte-order mark, so that
// sections and values may hold any character.
struct CIniPoint
{
    std::wstring sLink;
    std::wstring sTarget;
    DWORD dwAttr = 0;
};
std::string IniFile(const std::vector<CIniPoint>& vPoints)
{
    std::wstring sText;
    for (const CIniPoint& point : vPoints)
    {
        sText += L"[" + point.sLink + L"]\r\nTarget=" + point.sTarget + L"\r\nBackupTarget=R:\\Backup\\" +
                 point.sTarget.substr(0, 1) + point.sTarget.substr(2) + L"\r\n";
        if (point.dwAttr != 0)
            sText += L"Attr=" + std::to_wstring(point.dwAttr) + L"\r\n";
    }
    std::string sBytes = "\xFF\xFE";
    for (wchar_t wc : sText)
    {
        sBytes += static_cast<char>(wc & 0xFF);
        sBytes += static_cast<char>(wc >> 8);
    }
    return sBytes;
}

const std::wstring kJunctionTitle = L"Junction Points, Soft-Links & Hard-Links";
const std::wstring kSymbolicTitle = L"Symbolic Links";
const std::wstring kHardTitle = L"Restoring Hard-Links";

// The states of the records of one pass, in order.
std::vector<uint32_t> States(const std::wstring& sTitle)
{
    std::vector<uint32_t> vStates;
    for (const morvane::ProgMsg& msg : g_vProgress)
        if (msg.sTitle == sTitle)
            vStates.push_back(msg.uiState);
    return vStates;
}

// Windows sets a junction's reparse data with FSCTL_SET_REPARSE_POINT; Wine 8 answers error 50.
// The stand-in keeps what it was handed and answers as Windows does.
using DeviceIoControlFn = BOOL(WINAPI*)(HANDLE, DWORD, LPVOID, DWORD, LPVOID, DWORD, LPDWORD, LPOVERLAPPED);
struct CIoCall
{
    DWORD dwCode;
    std::vector<BYTE> vInput;
    bool bOutput;
};
std::vector<CIoCall> g_vIoCalls;
BOOL WINAPI SetReparsePointAsWindows(HANDLE, DWORD dwCode, LPVOID pIn, DWORD cbIn, LPVOID pOut, DWORD,
                                     LPDWORD pcbReturned, LPOVERLAPPED)
{
    const BYTE* pb = static_cast<const BYTE*>(pIn);
    g_vIoCalls.push_back({dwCode, std::vector<BYTE>(pb, pb + cbIn), pOut != nullptr});
    if (pcbReturned)
        *pcbReturned = 0;
    return TRUE;
}

// Wine 8's CreateSymbolicLinkW answers TRUE and makes nothing; Windows makes the link. The
// stand-in that GetProcAddress hands out records the call and answers as told: success, or an
// error (183 for a link that is there already).
struct CSymbolicCall
{
    std::wstring sLink;
    std::wstring sTarget;
    DWORD dwFlags;
};
std::vector<CSymbolicCall> g_vSymbolicCalls;
std::vector<DWORD> g_vSymbolicErrors; // per call in order; 0 or missing: success
BOOLEAN WINAPI RecordSymbolicLink(LPCWSTR pwszLink, LPCWSTR pwszTarget, DWORD dwFlags)
{
    g_vSymbolicCalls.push_back({pwszLink, pwszTarget, dwFlags});
    const size_t i = g_vSymbolicCalls.size() - 1;
    if (i < g_vSymbolicErrors.size() && g_vSymbolicErrors[i] != 0)
    {
        ::SetLastError(g_vSymbolicErrors[i]);
        return FALSE;
    }
    return TRUE;
}

// GetProcAddress as KEFL.dll looks its link entry points up: the recording CreateSymbolicLinkW
// above, or, standing for a Windows whose kernel32 lacks them (before Vista), none of the two.
using GetProcAddressFn = FARPROC(WINAPI*)(HMODULE, LPCSTR);
GetProcAddressFn g_pfnRealGetProcAddress = nullptr;
bool g_bNoLinkEntryPoints = false;
FARPROC WINAPI GetProcAddressForLinks(HMODULE hModule, LPCSTR pszName)
{
    if (reinterpret_cast<ULONG_PTR>(pszName) > 0xFFFF)
    {
        const bool bSymbolic = std::strcmp(pszName, "CreateSymbolicLinkW") == 0;
        if (g_bNoLinkEntryPoints && (bSymbolic || std::strcmp(pszName, "CreateHardLinkW") == 0))
        {
            ::SetLastError(ERROR_PROC_NOT_FOUND);
            return nullptr;
        }
        if (bSymbolic)
            return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&RecordSymbolicLink));
    }
    return g_pfnRealGetProcAddress(hModule, pszName);
}

// GetVolumeInformationW on a drive formatted FAT32 (every Wine drive says NTFS), or on a drive
// that is not ready (error 21).
using GetVolumeInformationFn = BOOL(WINAPI*)(LPCWSTR, LPWSTR, DWORD, LPDWORD, LPDWORD, LPDWORD, LPWSTR,
                                             DWORD);
GetVolumeInformationFn g_pfnRealGetVolumeInformation = nullptr;
bool g_bVolumeNotReady = false;
BOOL WINAPI GetVolumeInformationOfAFatDrive(LPCWSTR pwszRoot, LPWSTR pwszName, DWORD cchName,
                                            LPDWORD pdwSerial, LPDWORD pcchComponent, LPDWORD pdwFlags,
                                            LPWSTR pwszFs, DWORD cchFs)
{
    if (g_bVolumeNotReady)
    {
        ::SetLastError(ERROR_NOT_READY);
        return FALSE;
    }
    if (!g_pfnRealGetVolumeInformation(pwszRoot, pwszName, cchName, pdwSerial, pcchComponent, pdwFlags,
                                       pwszFs, cchFs))
        return FALSE;
    if (pwszFs && cchFs > 5)
        wcscpy_s(pwszFs, cchFs, L"FAT32");
    return TRUE;
}

// The reparse data a junction to sTarget must carry, built field by field.
std::vector<BYTE> ExpectedReparseData(const std::wstring& sTarget)
{
    const uint16_t cbSubstitute = static_cast<uint16_t>((sTarget.size() + 4) * 2);
    const uint16_t cbPrint = static_cast<uint16_t>(sTarget.size() * 2);
    std::vector<BYTE> v = {0x03, 0x00, 0x00, 0xA0}; // the mount-point tag
    auto put16 = [&](uint16_t us)
    {
        v.push_back(static_cast<BYTE>(us & 0xFF));
        v.push_back(static_cast<BYTE>(us >> 8));
    };
    put16(static_cast<uint16_t>(cbSubstitute + cbPrint + 12));
    put16(0);
    put16(0);
    put16(cbSubstitute);
    put16(static_cast<uint16_t>(cbSubstitute + 2));
    put16(cbPrint);
    for (wchar_t wc : L"\\??\\" + sTarget + L'\0' + sTarget + L'\0')
        put16(static_cast<uint16_t>(wc));
    return v;
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
        g_vSymbolicErrors.clear();
        g_bNoLinkEntryPoints = false;
        g_bVolumeNotReady = false;
        m_pClient->SetProgMsgCallbackFn(&RecordProgress, 0);
    }

    void TearDown() override
    {
        SessionFixture::TearDown();
        RemoveTree(L"E:", true);
        RemoveTree(L"F:", true);
    }

    // The backup's link-point files; MPoint.dat stays empty.
    static void WriteLinkPoints(const std::vector<CIniPoint>& vJunctions,
                                const std::vector<CIniPoint>& vSymbolic, const std::string& sHPoint)
    {
        const std::wstring sData = std::wstring(kBackup) + L"\\#\\";
        WriteTextFile(sData + L"JPoint.dat", IniFile(vJunctions));
        WriteTextFile(sData + L"SPoint.dat", IniFile(vSymbolic));
        WriteTextFile(sData + L"HPoint.dat", sHPoint);
    }

    // The function that was there before.
    void* Patch(const char* pszFunction, const void* pfnStandIn)
    {
        auto pPatch =
            std::make_unique<CIatPatch>(m_pLibrary->Module(), "KERNEL32.dll", pszFunction, pfnStandIn);
        EXPECT_TRUE(pPatch->IsApplied()) << pszFunction;
        void* pOriginal = pPatch->Original();
        m_vPatches.push_back(std::move(pPatch));
        return pOriginal;
    }
    // The link entry points are looked up when the client is made: a client made afresh.
    void PatchGetProcAddress()
    {
        m_pClient.reset();
        g_pfnRealGetProcAddress = reinterpret_cast<GetProcAddressFn>(
            Patch("GetProcAddress", reinterpret_cast<const void*>(&GetProcAddressForLinks)));
        m_pClient = m_pLibrary->Factory();
        m_pClient->SetLogMsgCallbackFn(&RecordMessage, 0);
        m_pClient->SetProgMsgCallbackFn(&RecordProgress, 0);
    }
    void PatchDeviceIoControl()
    {
        Patch("DeviceIoControl", reinterpret_cast<const void*>(&SetReparsePointAsWindows));
    }

    void InitAndRestore()
    {
        ASSERT_TRUE(m_pClient->Init(Credentials(kBackup).get())) << testing::PrintToString(ErrorText());
        g_vMessages.clear();
        EXPECT_TRUE(m_pClient->RestoreLinks());
    }
};

// One group of names of one file: the first is the target, each further one a link to make.
std::string HardLinkGroup(int iGroup, const std::vector<std::string>& vNames)
{
    std::string s = "[" + std::to_string(iGroup) + "]\r\nB=R:\\Backup\\x\r\n";
    for (size_t i = 0; i < vNames.size(); ++i)
        s += "H" + std::to_string(i + 1) + "=" + vNames[i] + "\r\n";
    return s;
}

} // namespace

TEST_F(LinkRestoreTest, HardLinksJoinTheRestoredFileAndReplaceItsCopies)
{
    WriteFileText(L"E:\\Data\\file.txt", "content");
    // The restore brought back a read-only copy where a link goes, and a folder stands in the way
    // of another.
    WriteFileText(L"E:\\Data\\copy.txt", "copy", FILE_ATTRIBUTE_READONLY);
    MakeFolders(L"E:\\Data\\folder name\\inside");
    MakeFolders(L"E:\\Dir");
    WriteLinkPoints({}, {},
                    HardLinkGroup(1, {"E:\\Data\\file.txt", "E:\\New\\Deep\\link.txt", "E:\\Data\\copy.txt",
                                      "E:\\Data\\folder name"}) +
                        HardLinkGroup(2, {"E:\\Dir", "E:\\Data\\dirlink"}));
    InitAndRestore();

    const CFileIdentity file = FileIdentity(L"E:\\Data\\file.txt");
    EXPECT_EQ(3u, file.dwLinks);
    for (const wchar_t* pwszLink : {L"E:\\New\\Deep\\link.txt", L"E:\\Data\\copy.txt"})
    {
        const CFileIdentity link = FileIdentity(pwszLink);
        EXPECT_EQ(file.ullIndex, link.ullIndex) << testing::PrintToString(pwszLink);
        EXPECT_EQ(3u, link.dwLinks);
    }
    EXPECT_TRUE(IsFolder(L"E:\\Data\\folder name\\inside")) << "a folder in the way stays";
    EXPECT_FALSE(FileExists(L"E:\\Data\\dirlink"));

    const auto vLines = KeflLog();
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::RestoreLinks : HardLinks.size() = 4"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::CreateHardLinkW : ... ending(Target is a directory)"));
    // The read-only copy went without a word, and the folder in the way answered 183: made.
    EXPECT_EQ((std::vector<std::wstring>{L"KEFLImpl::CreateHardLinkW : ... ending(Target is a directory)",
                                         L"KEFLImpl::RestoreLinks : KEFLImpl::CreateHardLink failed"}),
              TextsWithMarker(vLines, L":[E]: "));
    EXPECT_FALSE(HasText(vLines, L"KEFLImpl::RestoreLinks : Restored hard links successfully"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::RestoreLinks : Restored junctions successfully"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::RestoreLinks : Restored symbolic links successfully"));

    // Empty lists start and succeed; the hard-link pass counts every name, the failed one too.
    EXPECT_EQ((std::vector<uint32_t>{1, 7, 4}), States(kJunctionTitle));
    EXPECT_EQ((std::vector<uint32_t>{1, 4}), States(kSymbolicTitle));
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 2, 2, 2, 3}), States(kHardTitle));
    ASSERT_EQ(11u, g_vProgress.size());
    EXPECT_EQ(L"Restoring hard-links ...", g_vProgress[1].sText);
    EXPECT_EQ(0u, g_vProgress[3].ullTotal);
    EXPECT_EQ(L"", g_vProgress[3].sText) << "each pass has a record of its own";
    for (size_t i = 5; i < 11; ++i)
    {
        EXPECT_EQ(4u, g_vProgress[i].ullTotal);
        EXPECT_EQ(std::min<uint64_t>(i - 5, 4), g_vProgress[i].ullDone);
    }
    EXPECT_EQ(L"No error", ErrorText());
}

TEST_F(LinkRestoreTest, AHardLinkWithoutItsTargetKeepsTheRestoredCopy)
{
    // The group's first name was not restored (its drive left out): the copy under the second
    // name is all there is of the file, and stays.
    WriteFileText(L"E:\\Data\\only copy.txt", "the only copy");
    WriteLinkPoints({}, {}, HardLinkGroup(1, {"E:\\Missing\\first.txt", "E:\\Data\\only copy.txt"}));
    InitAndRestore();

    EXPECT_EQ("the only copy", ReadFileBytes(LongPath(L"E:\\Data\\only copy.txt")));
    EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::RestoreLinks : KEFLImpl::CreateHardLink failed"));
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 3}), States(kHardTitle));
}

TEST_F(LinkRestoreTest, JunctionsCarryTheTargetInTheirReparseData)
{
    PatchDeviceIoControl();
    const std::wstring sLongTarget =
        L"F:\\" + std::wstring(100, L'a') + L"\\" + std::wstring(100, L'b') + L"\\" + std::wstring(100, L'c');
    const std::wstring sWideTarget = L"F:\\Gr\u00FC\u00DFe \u65E5\u672C\\\u0436\u00E9\u20AC";
    MakeFolders(L"F:\\T");
    MakeFolders(L"E:\\Links\\Short"); // a folder restored where a junction goes is made the junction
    WriteLinkPoints({{L"E:\\Links\\Short", L"F:\\T"},
                     {L"E:\\Links\\Long", sLongTarget, FILE_ATTRIBUTE_HIDDEN},
                     {L"E:\\Neue Ordner\\\u65E5\u672C", sWideTarget}},
                    {}, "");
    InitAndRestore();

    ASSERT_EQ(3u, g_vIoCalls.size());
    size_t i = 0;
    for (const std::wstring& sTarget : {std::wstring(L"F:\\T"), sLongTarget, sWideTarget})
    {
        const CIoCall& call = g_vIoCalls[i++];
        EXPECT_EQ(0x900A4u, call.dwCode);
        EXPECT_FALSE(call.bOutput);
        EXPECT_TRUE(ExpectedReparseData(sTarget) == call.vInput) << testing::PrintToString(sTarget);
    }
    EXPECT_TRUE(IsFolder(L"E:\\Links\\Short"));
    EXPECT_TRUE(IsFolder(L"E:\\Links\\Long"));
    EXPECT_NE(0u, ::GetFileAttributesW(LongPath(L"E:\\Links\\Long").c_str()) & FILE_ATTRIBUTE_HIDDEN)
        << "the recorded attributes are put back";
    EXPECT_TRUE(IsFolder(L"E:\\Neue Ordner\\\u65E5\u672C"));
    // Only the folders above a missing target are made.
    EXPECT_TRUE(IsFolder(sLongTarget.substr(0, sLongTarget.rfind(L'\\'))));
    EXPECT_FALSE(FileExists(sLongTarget));
    EXPECT_TRUE(IsFolder(L"F:\\Gr\u00FC\u00DFe \u65E5\u672C"));
    EXPECT_FALSE(FileExists(sWideTarget));

    const auto vLines = KeflLog();
    EXPECT_TRUE(TextsWithMarker(vLines, L":[E]: ").empty());
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::RestoreLinks : JunctionPoints.size() = 3"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::CreateJunction : Target folder absent, creating it ..."));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::RestoreLinks : Restored junctions successfully"));
    EXPECT_EQ((std::vector<uint32_t>{1, 7, 2, 2, 2, 4}), States(kJunctionTitle));
    EXPECT_EQ(3u, g_vProgress[0].ullTotal);
    EXPECT_EQ(3u, g_vProgress[4].ullDone);
    EXPECT_EQ((std::vector<uint32_t>{1, 4}), States(kSymbolicTitle));
    EXPECT_EQ((std::vector<uint32_t>{1, 4}), States(kHardTitle));
}

TEST_F(LinkRestoreTest, AFailedJunctionIsRemovedAndLaterPassesEndFailed)
{
    // Wine's own DeviceIoControl: FSCTL_SET_REPARSE_POINT fails with error 50.
    MakeFolders(L"F:\\T");
    WriteFileText(L"E:\\file.txt", "content");
    WriteLinkPoints({{L"E:\\J", L"F:\\T"}}, {{L"E:\\S", L"F:\\T"}},
                    HardLinkGroup(1, {"E:\\file.txt", "E:\\hard.txt"}));
    InitAndRestore();

    EXPECT_FALSE(FileExists(L"E:\\J"));
    EXPECT_EQ(2u, FileIdentity(L"E:\\hard.txt").dwLinks) << "the later passes still make their links";
    const auto vErrors = TextsWithMarker(KeflLog(), L":[E]: ");
    EXPECT_EQ((std::vector<std::wstring>{
                  L"KEFLImpl::CreateJunction : ... ending(DeviceIoControl(FSCTL_SET_REPARSE_POINT) failed)",
                  L"KEFLImpl::CreateJunction : dwLastError = 50",
                  L"KEFLImpl::RestoreLinks : KEFLImpl::CreateJunction failed"}),
              vErrors);
    const auto vLines = KeflLog();
    EXPECT_FALSE(HasText(vLines, L"KEFLImpl::RestoreLinks : Restored junctions successfully"));
    EXPECT_FALSE(HasText(vLines, L"KEFLImpl::RestoreLinks : Restored symbolic links successfully"));
    EXPECT_FALSE(HasText(vLines, L"KEFLImpl::RestoreLinks : Restored hard links successfully"));
    EXPECT_EQ((std::vector<uint32_t>{1, 7, 2, 3}), States(kJunctionTitle));
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 3}), States(kSymbolicTitle));
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 3}), States(kHardTitle));
    EXPECT_EQ(L"No error", ErrorText());
}

TEST_F(LinkRestoreTest, SymbolicLinksPointAtFoldersOrFiles)
{
    PatchGetProcAddress();
    MakeFolders(L"F:\\Dir");
    WriteFileText(L"F:\\file.txt", "content");
    g_vSymbolicErrors = {0, 0, 0, ERROR_ALREADY_EXISTS, ERROR_ACCESS_DENIED};
    WriteLinkPoints({},
                    {{L"E:\\Sym\\Deep\\dir", L"F:\\Dir"},
                     {L"E:\\Sym\\file", L"F:\\file.txt"},
                     {L"E:\\Sym\\missing", L"F:\\Missing"},
                     {L"E:\\Sym\\there", L"F:\\Dir"},
                     {L"E:\\Sym\\refused", L"F:\\file.txt"}},
                    "");
    InitAndRestore();

    ASSERT_EQ(5u, g_vSymbolicCalls.size());
    EXPECT_EQ(L"\\\\?\\E:\\Sym\\Deep\\dir", g_vSymbolicCalls[0].sLink);
    EXPECT_EQ(L"\\\\?\\F:\\Dir", g_vSymbolicCalls[0].sTarget);
    EXPECT_EQ(1u, g_vSymbolicCalls[0].dwFlags);
    EXPECT_EQ(0u, g_vSymbolicCalls[1].dwFlags);
    EXPECT_EQ(L"\\\\?\\F:\\file.txt", g_vSymbolicCalls[1].sTarget);
    EXPECT_EQ(0u, g_vSymbolicCalls[2].dwFlags) << "a missing target gives a link to a file";
    EXPECT_FALSE(FileExists(L"F:\\Missing"));
    EXPECT_TRUE(IsFolder(L"E:\\Sym\\Deep")) << "the link's folder is made";

    // 183 counts as made; any other error fails the link.
    const auto vErrors = TextsWithMarker(KeflLog(), L":[E]: ");
    EXPECT_EQ(
        (std::vector<std::wstring>{L"KEFLImpl::CreateSymbolicLink : sJumboLink = \"\\\\?\\E:\\Sym\\refused\"",
                                   L"KEFLImpl::CreateSymbolicLink : sJumboTarget = \"\\\\?\\F:\\file.txt\"",
                                   L"KEFLImpl::CreateSymbolicLink : dwLastError = 5",
                                   L"KEFLImpl::RestoreLinks : KEFLImpl::CreateSymbolicLink failed"}),
        vErrors);
    EXPECT_EQ((std::vector<uint32_t>{1, 7, 4}), States(kJunctionTitle));
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 2, 2, 2, 2, 3}), States(kSymbolicTitle));
    EXPECT_EQ((std::vector<uint32_t>{1, 3}), States(kHardTitle)) << "the failure carries over";
}

TEST_F(LinkRestoreTest, LinksAreMadeOnNtfsOnly)
{
    PatchDeviceIoControl();
    g_pfnRealGetVolumeInformation = reinterpret_cast<GetVolumeInformationFn>(
        Patch("GetVolumeInformationW", reinterpret_cast<const void*>(&GetVolumeInformationOfAFatDrive)));
    WriteFileText(L"E:\\file.txt", "content");
    WriteLinkPoints({{L"E:\\J\\j", L"F:\\T"}}, {{L"E:\\S\\s", L"F:\\T"}},
                    HardLinkGroup(1, {"E:\\file.txt", "E:\\H\\h.txt"}));
    ASSERT_TRUE(m_pClient->Init(Credentials(kBackup).get())) << testing::PrintToString(ErrorText());

    for (bool bNotReady : {false, true})
    {
        g_bVolumeNotReady = bNotReady;
        g_vProgress.clear();
        EXPECT_TRUE(m_pClient->RestoreLinks());
        const auto vLines = KeflLog();
        for (const wchar_t* pwszFn :
             {L"KEFLImpl::CreateJunction", L"KEFLImpl::CreateSymbolicLink", L"KEFLImpl::CreateHardLinkW"})
            EXPECT_TRUE(
                HasText(vLines, std::wstring(pwszFn) + L" : ... ending(Link is not on an NTFS filesystem)"))
                << testing::PrintToString(pwszFn);
        EXPECT_TRUE(g_vIoCalls.empty());
        for (const wchar_t* pwszDir : {L"E:\\J", L"E:\\S", L"E:\\H", L"F:\\T"})
            EXPECT_FALSE(FileExists(pwszDir)) << testing::PrintToString(pwszDir);
        EXPECT_EQ((std::vector<uint32_t>{1, 7, 2, 3}), States(kJunctionTitle));
        EXPECT_EQ((std::vector<uint32_t>{1, 2, 3}), States(kSymbolicTitle));
        EXPECT_EQ((std::vector<uint32_t>{1, 2, 3}), States(kHardTitle));
        ::DeleteFileW(KeflLogPath().c_str());
    }
}

TEST_F(LinkRestoreTest, WithoutTheEntryPointsOnlyJunctionsAreMade)
{
    g_bNoLinkEntryPoints = true;
    PatchGetProcAddress();
    PatchDeviceIoControl();
    WriteFileText(L"E:\\file.txt", "content");
    WriteLinkPoints({{L"E:\\J", L"F:\\T"}}, {{L"E:\\S", L"F:\\T"}},
                    HardLinkGroup(1, {"E:\\file.txt", "E:\\hard.txt"}));
    InitAndRestore();

    const auto vLines = KeflLog();
    EXPECT_TRUE(
        HasText(vLines, L"KEFLImpl::CreateSymbolicLink : ... ending(CreateSymbolicLink is not available)"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::CreateHardLinkW : ... ending(CreateHardLink is not available)"));
    EXPECT_EQ(1u, g_vIoCalls.size());
    EXPECT_EQ(1u, FileIdentity(L"E:\\file.txt").dwLinks);
    EXPECT_EQ((std::vector<uint32_t>{1, 7, 2, 4}), States(kJunctionTitle));
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 3}), States(kSymbolicTitle));
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 3}), States(kHardTitle));
}

TEST_F(LinkRestoreTest, NoLinksStillReportEachPass)
{
    WriteLinkPoints({}, {}, "");
    InitAndRestore();
    const std::vector<std::pair<std::wstring, uint32_t>> vExpected = {
        {kJunctionTitle, 1}, {kJunctionTitle, 7}, {kJunctionTitle, 4}, {kSymbolicTitle, 1},
        {kSymbolicTitle, 4}, {kHardTitle, 1},     {kHardTitle, 4}};
    std::vector<std::pair<std::wstring, uint32_t>> vSeen;
    for (const morvane::ProgMsg& msg : g_vProgress)
        vSeen.emplace_back(msg.sTitle, msg.uiState);
    EXPECT_EQ(vExpected, vSeen);
    const auto vInfo = TextsWithMarker(KeflLog(), L":[I]: ");
    auto indexOf = [&](const std::wstring& s)
    { return std::find(vInfo.begin(), vInfo.end(), s) - vInfo.begin(); };
    EXPECT_LT(indexOf(L"KEFLImpl::RestoreLinks : Restoring junctions ..."),
              indexOf(L"KEFLImpl::RestoreLinks : JunctionPoints.size() = 0"));
    EXPECT_LT(indexOf(L"KEFLImpl::RestoreLinks : Restored junctions successfully"),
              indexOf(L"KEFLImpl::RestoreLinks : Restoring symbolic links ..."));
    EXPECT_LT(indexOf(L"KEFLImpl::RestoreLinks : SymbolicLinks.size() = 0"),
              indexOf(L"KEFLImpl::RestoreLinks : Restored symbolic links successfully"));
    EXPECT_LT(indexOf(L"KEFLImpl::RestoreLinks : HardLinks.size() = 0"),
              indexOf(L"KEFLImpl::RestoreLinks : Restored hard links successfully"));
    EXPECT_LT(indexOf(L"KEFLImpl::RestoreLinks : Restored hard links successfully"),
              static_cast<std::ptrdiff_t>(vInfo.size()));
}
