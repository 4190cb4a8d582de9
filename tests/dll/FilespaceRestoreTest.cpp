// Restoring a filespace: a drive folder of the backup copied back onto its drive, file by file as
// backup streams, with progress; refusals and failed files as the host sees them.
#include "dll/SessionFixture.h"

#include "support/BackupStreams.h"
#include "support/Patches.h"

#include <algorithm>
#include <tuple>

using namespace kefltest;

namespace
{

// The backup's folder of drive E:, restored onto the restore-target drive E:.
const std::wstring kSourceE = L"R:\\Backup\\E";

// Windows' CreateFileW on a backup file that another process holds open without sharing: error 32.
decltype(&::CreateFileW) g_pfnRealCreateFile = nullptr;
int g_iLockedOpens = 0;
HANDLE WINAPI CreateFileOfALockedFile(LPCWSTR pwszPath, DWORD dwAccess, DWORD dwShare,
                                      LPSECURITY_ATTRIBUTES pSa, DWORD dwDisposition, DWORD dwFlags,
                                      HANDLE hTemplate)
{
    if (!std::wstring(pwszPath).ends_with(L"R:\\Backup\\E\\locked.bin"))
        return g_pfnRealCreateFile(pwszPath, dwAccess, dwShare, pSa, dwDisposition, dwFlags, hTemplate);
    ++g_iLockedOpens;
    ::SetLastError(ERROR_SHARING_VIOLATION);
    return INVALID_HANDLE_VALUE;
}

// The waits of 30 s between open attempts return at once and are counted.
decltype(&::Sleep) g_pfnRealSleep = nullptr;
int g_iRetryWaits = 0;
VOID WINAPI SleepCounted(DWORD dwMs)
{
    if (dwMs != 30000)
        return g_pfnRealSleep(dwMs);
    ++g_iRetryWaits;
}

// Windows answers GetVolumeInformationW on a mount folder for the volume mounted there; Wine has
// no mount points in folders, so the test's mount folder answers as the volume E:.
decltype(&::GetVolumeInformationW) g_pfnRealGetVolumeInformation = nullptr;
BOOL WINAPI GetVolumeInformationOfAMountPoint(LPCWSTR pwszRoot, LPWSTR pwszName, DWORD cchName,
                                              LPDWORD pdwSerial, LPDWORD pcchComponent, LPDWORD pdwFlags,
                                              LPWSTR pwszFs, DWORD cchFs)
{
    const bool bMountFolder = _wcsicmp(pwszRoot, L"E:\\Mount\\Data\\") == 0;
    return g_pfnRealGetVolumeInformation(bMountFolder ? L"E:\\" : pwszRoot, pwszName, cchName, pdwSerial,
                                         pcchComponent, pdwFlags, pwszFs, cchFs);
}

// A session on the fixture backup, its progress recorded, E: emptied, backup streams stood in.
class FilespaceRestoreTest : public SessionFixture
{
protected:
    void SetUp() override
    {
        SessionFixture::SetUp();
        ASSERT_FALSE(HasFatalFailure());
        RemoveTree(L"E:", true);
        MakeFolders(kSourceE);
        g_vProgress.clear();
        m_pClient->SetProgMsgCallbackFn(&RecordProgress, 0);
        m_pStreams = std::make_unique<CBackupStreamPatches>(m_pLibrary->Module());
        ASSERT_TRUE(m_pStreams->IsApplied());
        WriteTextFile(L"R:\\Backup\\#\\MPoint.dat",
                      "[E:\\Mount\\Data]\r\nTarget=\\\\?\\Volume{1}\\\r\nBackupTarget=R:\\x\r\n");
        ASSERT_TRUE(m_pClient->Init(Credentials(kBackup).get())) << testing::PrintToString(ErrorText());
        g_vMessages.clear();
    }
    void TearDown() override
    {
        m_pStreams.reset();
        RemoveTree(L"E:", true);
        SessionFixture::TearDown();
    }

    std::unique_ptr<CBackupStreamPatches> m_pStreams;
};

} // namespace

TEST_F(FilespaceRestoreTest, RestoresADriveByteForByteOverAnOlderTreeTwiceThenAMountPoint)
{
    // Restored: an empty file, one of several 64 KiB buffers, a non-ASCII name, a path beyond
    // MAX_PATH, a page file below the root, a mount point's folder. Skipped: what Windows keeps
    // for itself at the root.
    const std::wstring sDeep = L"\\" + std::wstring(90, L'a') + L"\\" + std::wstring(90, L'b') + L"\\" +
                               std::wstring(90, L'c') + L"\\deep file.txt";
    const std::map<std::wstring, std::string> restored = {
        {L"\\empty.txt", ""},
        {L"\\Data\\big.bin", Pattern(200000, 1)},
        {sDeep, Pattern(70000, 3)},
        {L"\\Gr\u00FC\u00DFe \u65E5\u672C\\\u0436\u00E9\u20AC.txt", "non-ASCII"},
        {L"\\Old\\pagefile.sys", "p"},
        {L"\\Mount\\Data\\Sub\\file.bin", Pattern(100000, 8)}};
    const std::map<std::wstring, std::string> skipped = {{L"\\pagefile.sys", Pattern(1000, 4)},
                                                         {L"\\hiberfil.sys", "h"},
                                                         {L"\\$Recycle.Bin\\deleted.txt", "d"},
                                                         {L"\\System Volume Information\\tracking.log", "t"}};
    uint64_t ullTotal = 0, ullRead = 0; // ullRead: each restored file's data and its 20-byte stream header
    for (const auto* pFiles : {&restored, &skipped})
        for (const auto& [sRel, sBytes] : *pFiles)
        {
            MakeFolders(kSourceE + sRel.substr(0, sRel.rfind(L'\\')));
            WriteBytes(kSourceE + sRel, sBytes);
            ullTotal += sBytes.size();
            ullRead += pFiles == &restored ? sBytes.size() + 20 : 0;
        }
    MakeFolders(kSourceE + L"\\RECYCLER2");
    // What an interrupted earlier restore left: a longer old file, a cut one, a file of its own.
    MakeFolders(L"E:\\Data");
    WriteBytes(L"E:\\empty.txt", Pattern(200000, 7));
    WriteBytes(L"E:\\Data\\big.bin", Pattern(100000, 1));
    WriteBytes(L"E:\\Data\\mine.txt", "not in the backup");

    morvane::Filespace fs{};
    fs.sFsPath = L"E:\\";
    fs.wcFsDriveLetter = L'E';
    for (int iRun = 1; iRun <= 2; ++iRun)
    {
        SCOPED_TRACE("restore " + std::to_string(iRun));
        g_vProgress.clear();
        ASSERT_TRUE(m_pClient->RestoreFilespace(fs)) << testing::PrintToString(ErrorText());
        for (const auto& [sRel, sBytes] : restored)
            EXPECT_TRUE(ReadBytes(L"E:" + sRel) == sBytes) << testing::PrintToString(sRel);
        for (const wchar_t* pwszSkipped : {L"E:\\pagefile.sys", L"E:\\hiberfil.sys", L"E:\\RECYCLER2",
                                           L"E:\\$Recycle.Bin", L"E:\\System Volume Information"})
            EXPECT_FALSE(FileExists(pwszSkipped)) << testing::PrintToString(std::wstring(pwszSkipped));
        EXPECT_EQ("not in the backup", ReadBytes(L"E:\\Data\\mine.txt"));
        EXPECT_EQ(0, LiveBackupContexts());
        EXPECT_TRUE(HasMessage(1, L"Successfully restored drive letter E: from target location"));
        // Progress: starting, the counting text, then reads with bytes rising to what the restored
        // files hold, against the total counted (skipped files included).
        ASSERT_GE(g_vProgress.size(), 6u);
        EXPECT_EQ(1u, g_vProgress[0].uiState);
        EXPECT_EQ(L"Counting objects to be restored ...", g_vProgress[1].sText);
        EXPECT_EQ(7u, g_vProgress[1].uiState);
        for (size_t i = 2; i < g_vProgress.size(); ++i)
        {
            EXPECT_EQ(7u, g_vProgress[i].uiState) << "record " << i;
            EXPECT_EQ(ullTotal, g_vProgress[i].ullTotal) << "record " << i;
            EXPECT_GE(g_vProgress[i].ullBytesDone, g_vProgress[i - 1].ullBytesDone) << "record " << i;
        }
        EXPECT_EQ(ullRead, g_vProgress.back().ullBytesDone);
    }

    // The mount point E:\Mount\Data (in MPoint.dat), restored alone from the same drive folder.
    RemoveTree(L"E:", true);
    MakeFolders(L"E:\\Mount\\Data");
    g_pfnRealGetVolumeInformation = m_patches.Patch(
        m_pLibrary->Module(), "KERNEL32.dll", "GetVolumeInformationW", &GetVolumeInformationOfAMountPoint);
    fs.sFsPath = L"E:\\Mount\\Data";
    fs.sFsMountDir = L"e:\\mount\\data"; // matched without regard to case
    fs.dwFsFlags = 0x8;
    ASSERT_TRUE(m_pClient->RestoreFilespace(fs)) << testing::PrintToString(ErrorText());
    EXPECT_TRUE(ReadBytes(L"E:\\Mount\\Data\\Sub\\file.bin") == Pattern(100000, 8));
    EXPECT_FALSE(FileExists(L"E:\\empty.txt")) << "nothing outside the mount point";
}

TEST_F(FilespaceRestoreTest, NotesEachFailureAndRestoresTheRest)
{
    MakeFolders(kSourceE + L"\\z");
    uint32_t uiSeed = 0;
    for (const wchar_t* pwszName : {L"good.txt", L"locked.bin", L"blocked.txt", L"unreadable.bin",
                                    L"unwritable.bin", L"short.bin", L"z\\after.txt"})
        WriteBytes(kSourceE + L"\\" + pwszName, Pattern(200000, ++uiSeed));
    MakeFolders(L"E:\\blocked.txt");
    g_pfnRealCreateFile =
        m_patches.Patch(m_pLibrary->Module(), "KERNEL32.dll", "CreateFileW", &CreateFileOfALockedFile);
    g_pfnRealSleep = m_patches.Patch(m_pLibrary->Module(), "KERNEL32.dll", "Sleep", &SleepCounted);
    g_iLockedOpens = g_iRetryWaits = 0;
    BackupStreamFaults().sReadFailFile = L"unreadable.bin";
    BackupStreamFaults().sWriteFailFile = L"unwritable.bin";
    BackupStreamFaults().sShortWriteFile = L"short.bin";

    morvane::Filespace fs{};
    fs.wcFsDriveLetter = L'E';
    EXPECT_FALSE(m_pClient->RestoreFilespace(fs));
    EXPECT_EQ(10, g_iLockedOpens);
    EXPECT_EQ(9, g_iRetryWaits);
    EXPECT_TRUE(ReadBytes(L"E:\\good.txt") == Pattern(200000, 1));
    EXPECT_TRUE(ReadBytes(L"E:\\z\\after.txt") == Pattern(200000, 7)) << "the walk went on";
    EXPECT_EQ(0, LiveBackupContexts()) << "contexts ended after failures too";
    EXPECT_EQ(L"Failed to restore drive letter from target location", ErrorText());
    // What a support engineer reads in the errors: the error value, each failed file and its path.
    const auto vErrors = TextsWithMarker(KeflLog(), L":[E]: ");
    const auto Count = [&](const wchar_t* pwszText) { return std::ranges::count(vErrors, pwszText); };
    EXPECT_NE(0, Count(L"KEFLImpl::CopyFileWithProgress : dwLastError = 32"));
    EXPECT_EQ(1, Count(L"KEFLImpl::RestoreFilespace : sDst = \"E:\\blocked.txt\""));
    EXPECT_EQ(5, Count(L"KEFLImpl::RestoreFilespace : Failed to copy file"))
        << "locked, blocked, unreadable, unwritable, short";

    fs.wcFsDriveLetter = L'F'; // no folder F in the backup: the count fails
    EXPECT_FALSE(m_pClient->RestoreFilespace(fs));
    EXPECT_EQ(L"Couldn't count objects to be restored", ErrorText());
    EXPECT_EQ(3u, g_vProgress.back().uiState);
}

TEST_F(FilespaceRestoreTest, RefusesWhatItCannotRestoreWithTheMessageTheHostShows)
{
    morvane::Filespace unknownMount{}, badLetter{}, noVolume{}, drive{};
    unknownMount.sFsMountDir = L"E:\\Other";
    unknownMount.dwFsFlags = 0x8;
    badLetter.wcFsDriveLetter = L'1';
    noVolume.wcFsDriveLetter = L'Q';
    drive.wcFsDriveLetter = L'E';
    const kefltest::CVeskPtr pNoSession = m_pLibrary->Factory();
    pNoSession->SetLogMsgCallbackFn(&RecordMessage, 0);
    const std::tuple<morvane::VESK*, morvane::Filespace*, const wchar_t*> kCases[] = {
        {m_pClient.get(), &unknownMount, L"The supplied mount point 'E:\\Other' is unknown"},
        {m_pClient.get(), &badLetter, L"The supplied drive letter '1:' is invalid"},
        {m_pClient.get(), &noVolume, L"Failed to restore drive letter from target location"},
        {pNoSession.get(), &drive, L"No target location has been set"}};
    for (const auto& [pClient, pFs, pwszMessage] : kCases)
    {
        g_vMessages.clear();
        EXPECT_FALSE(pClient->RestoreFilespace(*pFs)) << testing::PrintToString(std::wstring(pwszMessage));
        EXPECT_TRUE(HasMessage(3, pwszMessage)) << testing::PrintToString(std::wstring(pwszMessage));
    }
}
