// Restoring a filespace: a drive folder of the backup copied back onto its drive, file by file as
// backup streams, with progress; refusals and failed files as the host sees them.
#include "dll/SessionFixture.h"
#include "support/PowerCut.h"

#include "winecompat/BackupStreams.h"
#include "winecompat/LinkStandIns.h"

#include <algorithm>
#include <stdexcept>
#include <tuple>

using namespace kefltest;
using winecompat::BackupStreamFaults;
using winecompat::LiveBackupContexts;

namespace
{

// The backup's folder of drive E:, restored onto the restore-target drive E:.
const std::wstring kSourceE = L"R:\\Backup\\E";

// Windows' CreateFileW: a backup file that another process holds open (error 32, counted), one whose access
// list refuses this account (error 5), and CREATE_ALWAYS on a read-only, hidden or system file refused (Wine,
// run as root, replaces it). The opens of drive E's backup copies are counted.
decltype(&::CreateFileW) g_pfnRealCreateFile = nullptr;
int g_iLockedOpens = 0;
int g_iBackupOpens = 0;
HANDLE WINAPI CreateFileAsWindows(LPCWSTR pwszPath, DWORD dwAccess, DWORD dwShare, LPSECURITY_ATTRIBUTES pSa,
                                  DWORD dwDisposition, DWORD dwFlags, HANDLE hTemplate)
{
    const std::wstring sPath = pwszPath;
    const DWORD dwAttributes = ::GetFileAttributesW(pwszPath);
    if (sPath.find(L"\\Backup\\E\\") != std::wstring::npos)
        ++g_iBackupOpens;
    if (sPath.ends_with(L"\\E\\locked.bin"))
    {
        ++g_iLockedOpens;
        return WithLastError(ERROR_SHARING_VIOLATION, INVALID_HANDLE_VALUE);
    }
    if (sPath.ends_with(L"\\E\\denied.bin") ||
        (dwDisposition == CREATE_ALWAYS && dwAttributes != INVALID_FILE_ATTRIBUTES &&
         (dwAttributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM))))
        return WithLastError(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE);
    return g_pfnRealCreateFile(pwszPath, dwAccess, dwShare, pSa, dwDisposition, dwFlags, hTemplate);
}

// The waits of 30 s between open attempts return at once and are counted; where a test sets
// g_hOthersDone, the first one lasts until the test signals it (at most 10 s).
decltype(&::Sleep) g_pfnRealSleep = nullptr;
decltype(&::FindFirstFileW) g_pfnRealFindFirst = nullptr;
decltype(&::FindNextFileW) g_pfnRealFindNext = nullptr;
int g_iRetryWaits = 0;
HANDLE g_hOthersDone = nullptr;
bool g_bOthersDoneMeanwhile = false;

// Restored: an empty file, one of several 64 KiB buffers, a non-ASCII name, a path beyond MAX_PATH,
// a page file below the root, a mount point's folder, a reparse point that holds data.
const std::wstring kDeep = L"\\" + std::wstring(90, L'a') + L"\\" + std::wstring(90, L'b') + L"\\" +
                           std::wstring(90, L'c') + L"\\deep file.txt";
const std::map<std::wstring, std::string> kRestored = {
    {L"\\empty.txt", ""},
    {L"\\Data\\big.bin", Pattern(200000, 1)},
    {kDeep, Pattern(70000, 3)},
    {L"\\Gr\u00FC\u00DFe \u65E5\u672C\\\u0436\u00E9\u20AC.txt", "non-ASCII"},
    {L"\\Old\\pagefile.sys", "p"},
    {L"\\Mount\\Data\\Sub\\file.bin", Pattern(100000, 8)},
    {L"\\Deduplicated.bin", "a reparse point, but not a link: copied as data"}};
// Skipped: what Windows keeps for itself at the root.
const std::map<std::wstring, std::string> kSkipped = {
    {L"\\pagefile.sys", Pattern(1000, 4)}, {L"\\hiberfil.sys", "h"}, {L"\\$Recycle.Bin\\deleted.txt", "d"},
    {L"\\System Volume Information\\tracking.log", "t"}};

// A session on the fixture backup, its progress recorded, E: emptied, backup streams stood in.
class FilespaceRestoreTest : public SessionFixture
{
protected:
    void SetUp() override
    {
        SessionFixture::SetUp();
        ASSERT_FALSE(HasFatalFailure());
        // Links recorded and mount folders answered for as their volumes (Wine has neither); the
        // client made anew, as it looks its link entry points up when it is made.
        m_pLinks = std::make_unique<winecompat::CLinkPatches>(m_pLibrary->Module());
        m_pClient = m_pLibrary->Factory();
        m_pClient->SetLogMsgCallbackFn(&RecordMessage, 0);
        RemoveTree(L"E:", true);
        MakeFolders(kSourceE);
        g_vProgress.clear();
        m_pClient->SetProgMsgCallbackFn(&RecordProgress, 0);
        m_pStreams = std::make_unique<winecompat::CBackupStreamPatches>(m_pLibrary->Module());
        ASSERT_TRUE(m_pStreams->IsApplied());
        const HMODULE hKefl = m_pLibrary->Module();
        g_pfnRealCreateFile = m_patches.Patch(hKefl, "KERNEL32.dll", "CreateFileW", &CreateFileAsWindows);
        g_pfnRealSleep = m_patches.Patch(
            hKefl, "KERNEL32.dll", "Sleep",
            +[](DWORD dwMs)
            {
                if (dwMs != 30000)
                    return g_pfnRealSleep(dwMs);
                if (++g_iRetryWaits == 1 && g_hOthersDone)
                    g_bOthersDoneMeanwhile = ::WaitForSingleObject(g_hOthersDone, 10000) == WAIT_OBJECT_0;
            });
        ShowReparsePoints(m_patches, hKefl);
        WriteTextFile(L"R:\\Backup\\#\\MPoint.dat",
                      "[E:\\Mount\\Data]\r\nTarget=\\\\?\\Volume{1}\\\r\nBackupTarget=R:\\x\r\n");
        WriteTextFile(L"R:\\Backup\\#\\JPoint.dat",
                      "[E:\\Junction]\r\nTarget=E:\\Data\r\nBackupTarget=R:\\x\r\n");
        WriteTextFile(L"R:\\Backup\\#\\SPoint.dat",
                      "[E:\\DirLink]\r\nTarget=E:\\Data\r\nBackupTarget=R:\\x\r\n");
        ASSERT_TRUE(m_pClient->Init(Credentials(kBackup).get())) << testing::PrintToString(ErrorText());
        g_vMessages.clear();
    }
    void TearDown() override
    {
        m_pStreams.reset();
        m_pLinks.reset();
        RemoveTree(L"E:", true);
        SessionFixture::TearDown();
    }

    // Drive E:'s folder in the backup: the files restored and skipped, an empty folder whose name
    // only begins like the old recycle bin's, and a junction and links to a folder and to a file,
    // left to the link pass (not walked into).
    static void WriteSourceE()
    {
        for (const auto* pFiles : {&kRestored, &kSkipped})
            for (const auto& [sRel, sBytes] : *pFiles)
            {
                MakeFolders(kSourceE + sRel.substr(0, sRel.rfind(L'\\')));
                WriteBytes(kSourceE + sRel, sBytes);
            }
        for (const wchar_t* pwszFolder : {L"\\RECYCLER2", L"\\Junction", L"\\DirLink"})
            MakeFolders(kSourceE + pwszFolder);
        for (const wchar_t* pwszBehindLink : {L"\\Junction\\in.txt", L"\\DirLink\\in.txt", L"\\FileLink.txt"})
            WriteBytes(kSourceE + pwszBehindLink, "behind a link");
    }
    // Drive E: restored with that many files in flight (1: one at a time on the calling thread), and
    // KEFL_SkipUnchanged and KEFL_CheckpointMB as given. No checkpoint comes by the clock: a slow
    // machine's restore must flush as often as a fast one's.
    bool RestoreE(const wchar_t* pwszThreads, const wchar_t* pwszSkipUnchanged = L"0",
                  const wchar_t* pwszCheckpointMB = L"1024")
    {
        auto traceIni = Verbose();
        traceIni.insert({{L"KEFL_RestoreThreads", pwszThreads},
                         {L"KEFL_SkipUnchanged", pwszSkipUnchanged},
                         {L"KEFL_CheckpointMB", pwszCheckpointMB},
                         {L"KEFL_CheckpointSeconds", L"86400"}});
        WriteTraceIni(traceIni);
        morvane::Filespace fs{};
        fs.sFsPath = L"E:\\";
        fs.wcFsDriveLetter = L'E';
        return m_pClient->RestoreFilespace(fs);
    }

    std::unique_ptr<winecompat::CLinkPatches> m_pLinks;
    std::unique_ptr<winecompat::CBackupStreamPatches> m_pStreams;
};

} // namespace

TEST_F(FilespaceRestoreTest, RestoresEachFileByteForByteOverAnOlderTreeThenOverItsOwn)
{
    WriteSourceE();
    // What an interrupted earlier restore left: a longer old file, a cut one, a file of its own.
    MakeFolders(L"E:\\Data");
    WriteBytes(L"E:\\empty.txt", Pattern(200000, 7));
    WriteBytes(L"E:\\Data\\big.bin", Pattern(100000, 1));
    WriteBytes(L"E:\\Data\\mine.txt", "not in the backup");
    for (const wchar_t* pwszThreads : {L"1", L"8"})
    {
        SCOPED_TRACE(pwszThreads);
        g_vMessages.clear();
        ASSERT_TRUE(RestoreE(pwszThreads)) << testing::PrintToString(ErrorText());
        for (const auto& [sRel, sBytes] : kRestored)
            EXPECT_TRUE(ReadBytes(L"E:" + sRel) == sBytes) << testing::PrintToString(sRel);
        EXPECT_EQ("not in the backup", ReadBytes(L"E:\\Data\\mine.txt"));
        EXPECT_EQ(0, LiveBackupContexts());
        EXPECT_TRUE(HasMessage(1, L"Successfully restored drive letter E: from target location"));
    }
}

TEST_F(FilespaceRestoreTest, LeavesWhatWindowsKeepsForItselfOutOfTheDriveAndItsTotalAndLinksToTheLinkPass)
{
    WriteSourceE();
    ASSERT_TRUE(RestoreE(L"8")) << testing::PrintToString(ErrorText());
    for (const wchar_t* pwszSkipped :
         {L"E:\\pagefile.sys", L"E:\\hiberfil.sys", L"E:\\RECYCLER2", L"E:\\$Recycle.Bin",
          L"E:\\System Volume Information\\tracking.log", L"E:\\Junction", L"E:\\DirLink", L"E:\\FileLink.txt"})
        EXPECT_FALSE(FileExists(pwszSkipped)) << testing::PrintToString(std::wstring(pwszSkipped));
    uint64_t ullRead = 0; // each restored file's bytes and its 20-byte stream header
    for (const auto& [sRel, sBytes] : kRestored)
        ullRead += sBytes.size() + 20;
    EXPECT_EQ(ullRead, g_vProgress.back().ullBytesDone);
    EXPECT_EQ(ullRead, g_vProgress.back().ullTotal);
    ASSERT_TRUE(m_pClient->RestoreLinks());
    std::wstring sLinks; // the tree's junction and folder link come from the link pass
    for (const auto& link : winecompat::CLinkPatches::RecordedLinks())
        sLinks += link.sKind + L" " + link.sLink + L";";
    EXPECT_EQ(L"junction E:\\Junction;symbolic link E:\\DirLink;", sLinks);
}

TEST_F(FilespaceRestoreTest, RestoresTimesAndAttributesAlsoOverItsOwnReadOnlyFiles)
{
    // Times and attributes of their own for every file and folder: read-only, hidden, system, none,
    // archive and not content-indexed, offline; from 5 Nov 2015 on, ten hours apart.
    WriteSourceE();
    std::map<std::wstring, CMetadata> written;
    const DWORD kAttributes[] = {0x1, 0x2, 0x4, 0, 0x2020, 0x1000};
    for (const auto& [sRel, metadata] : ReadMetadata(kSourceE))
    {
        const uint64_t ullTime = 130915281890000000ULL + written.size() * 36000000000ULL;
        written[sRel] = {metadata.dwAttributes | kAttributes[written.size() % 6],
                         {ullTime, ullTime + 1, ullTime + 2}};
        WriteMetadata(kSourceE + sRel, written[sRel]);
    }
    // Compared where the file system keeps them as written (Wine keeps no creation time and not
    // every attribute): the attributes kept of files and of folders, and whether creation times are.
    DWORD dwKept[2] = {~DWORD(0), ~DWORD(0)};
    bool bCreationKept = true;
    for (const auto& [sRel, metadata] : ReadMetadata(kSourceE))
    {
        dwKept[metadata.dwAttributes >> 4 & 1] &= ~(metadata.dwAttributes ^ written[sRel].dwAttributes);
        bCreationKept = bCreationKept && metadata.times[0] == written[sRel].times[0];
    }
    const auto Kept = [&](CMetadata metadata)
    {
        metadata.dwAttributes &= dwKept[metadata.dwAttributes >> 4 & 1];
        if (!bCreationKept)
            metadata.times[0] = 0;
        return metadata;
    };
    for (const wchar_t* pwszThreads : {L"1", L"8"}) // the second over the first's read-only files
    {
        SCOPED_TRACE(pwszThreads);
        const auto source = ReadMetadata(kSourceE); // as the walk sees it: a read may move last access
        ASSERT_TRUE(RestoreE(pwszThreads)) << testing::PrintToString(ErrorText());
        const auto target = ReadMetadata(L"E:");
        for (const auto& [sRel, metadata] : source) // links and skipped files are not on E:
            EXPECT_TRUE((!target.contains(sRel) && !kRestored.contains(sRel)) ||
                        Kept(metadata) == Kept(target.at(sRel)))
                << testing::PrintToString(sRel);
    }
}

// One file at a time on the calling thread, or eight in flight on workers; either way the host hears
// on its own thread: starting, the counting text, then reads with bytes rising, never past the total.
TEST_F(FilespaceRestoreTest, CopiesOnTheHostsThreadOrOnWorkersAndCallsTheHostOnItsOwnThread)
{
    WriteSourceE();
    for (const wchar_t* pwszThreads : {L"1", L"8"})
    {
        SCOPED_TRACE(pwszThreads);
        g_vProgress.clear();
        g_progressThreads.clear();
        const size_t cLinesBefore = KeflLog().size();
        ASSERT_TRUE(RestoreE(pwszThreads)) << testing::PrintToString(ErrorText());
        std::set<uint32_t> copiers; // the threads that traced copies in this restore
        const auto vLog = KeflLog();
        for (size_t i = cLinesBefore; i < vLog.size(); ++i)
            if (const auto line = ParseTraceLine(vLog[i]);
                line && line->sText.starts_with(L"KEFLImpl::CopyFile"))
                copiers.insert(line->uiThreadId);
        ASSERT_FALSE(copiers.empty());
        EXPECT_EQ(pwszThreads == std::wstring(L"1"), copiers.contains(::GetCurrentThreadId()));
        EXPECT_EQ(std::set<DWORD>{::GetCurrentThreadId()}, g_progressThreads) << "the host's own thread only";
        ASSERT_GE(g_vProgress.size(), 6u);
        EXPECT_EQ(1u, g_vProgress[0].uiState);
        EXPECT_EQ(L"Counting objects to be restored ...", g_vProgress[1].sText);
        for (size_t i = 1; i < g_vProgress.size(); ++i)
        {
            EXPECT_EQ(7u, g_vProgress[i].uiState) << "record " << i;
            EXPECT_LE(g_vProgress[i].ullBytesDone, g_vProgress[i].ullTotal) << "record " << i;
            EXPECT_GE(g_vProgress[i].ullBytesDone, g_vProgress[i - 1].ullBytesDone) << "record " << i;
        }
    }
}

TEST_F(FilespaceRestoreTest, RestoresAMountPointAloneFromItsDrivesFolder)
{
    // E:\Mount\Data (in MPoint.dat), named without regard to case.
    WriteSourceE();
    MakeFolders(L"E:\\Mount\\Data");
    morvane::Filespace fs{};
    fs.sFsPath = L"E:\\Mount\\Data";
    fs.sFsMountDir = L"e:\\mount\\data";
    fs.dwFsFlags = 0x8;
    ASSERT_TRUE(m_pClient->RestoreFilespace(fs)) << testing::PrintToString(ErrorText());
    EXPECT_TRUE(ReadBytes(L"E:\\Mount\\Data\\Sub\\file.bin") == Pattern(100000, 8));
    EXPECT_FALSE(FileExists(L"E:\\empty.txt")) << "nothing outside the mount point";
    EXPECT_TRUE(HasMessage(1, L"Successfully restored mount point 'e:\\mount\\data' from target location"));
}

// A close that fails may have lost the file's last bytes (a full disk, a volume gone): the restored
// copy of unclosed.bin, not the backup's, fails its close.
decltype(&::CloseHandle) g_pfnRealClose = nullptr;
BOOL WINAPI CloseHandleAsAFullDisk(HANDLE h)
{
    wchar_t wszPath[MAX_PATH] = {};
    ::GetFinalPathNameByHandleW(h, wszPath, MAX_PATH, 0);
    const bool bRestoredCopy = std::wcsstr(wszPath, L"unclosed.bin") != nullptr &&
                               std::wcsstr(wszPath, L"\\E\\unclosed.bin") == nullptr;
    const BOOL bClosed = g_pfnRealClose(h);
    return bClosed && bRestoredCopy ? WithLastError(ERROR_DISK_FULL, FALSE) : bClosed;
}

TEST_F(FilespaceRestoreTest, NotesEachFailureAndRestoresTheRest)
{
    MakeFolders(kSourceE + L"\\z");
    uint32_t uiSeed = 0;
    for (const wchar_t* pwszName : {L"good.txt", L"locked.bin", L"blocked.txt", L"unreadable.bin",
                                    L"unwritable.bin", L"short.bin", L"z\\after.txt", L"denied.bin",
                                    L"unclosed.bin"})
        WriteBytes(kSourceE + L"\\" + pwszName, Pattern(200000, ++uiSeed));
    g_pfnRealClose =
        m_patches.Patch(m_pLibrary->Module(), "KERNEL32.dll", "CloseHandle", &CloseHandleAsAFullDisk);
    MakeFolders(L"E:\\blocked.txt");
    // A token that holds neither backup nor restore privilege: the restore goes on without them.
    m_patches.Patch(m_pLibrary->Module(), "ADVAPI32.dll", "AdjustTokenPrivileges",
                    +[](HANDLE, BOOL, PTOKEN_PRIVILEGES, DWORD, PTOKEN_PRIVILEGES, PDWORD) -> BOOL
                    { return WithLastError(ERROR_ACCESS_DENIED, FALSE); });
    g_iLockedOpens = 0;
    g_iRetryWaits = 0;
    // Eight files in flight: while the locked file waits out its retries, every other entry (the
    // folder and eight files) is done on the other workers.
    const morvane::CUniqueHandle hOthersDone(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    g_hOthersDone = hOthersDone.get();
    m_pClient->SetProgMsgCallbackFn(
        +[](const morvane::ProgMsg* pMsg, uint64_t)
        {
            if (pMsg->ullDone == 9)
                ::SetEvent(g_hOthersDone);
            return RecordProgress(pMsg, 0);
        },
        0);
    BackupStreamFaults().sReadFailFile = L"unreadable.bin";
    BackupStreamFaults().sWriteFailFile = L"unwritable.bin";
    BackupStreamFaults().sShortWriteFile = L"short.bin";

    EXPECT_FALSE(RestoreE(L"8"));
    EXPECT_EQ(10, g_iLockedOpens);
    EXPECT_EQ(9, g_iRetryWaits);
    EXPECT_TRUE(g_bOthersDoneMeanwhile) << "a locked file holds one worker, not the restore";
    g_hOthersDone = nullptr;
    EXPECT_TRUE(ReadBytes(L"E:\\good.txt") == Pattern(200000, 1));
    EXPECT_TRUE(ReadBytes(L"E:\\z\\after.txt") == Pattern(200000, 7)) << "the walk went on";
    EXPECT_EQ(0, LiveBackupContexts()) << "contexts ended after failures too";
    const auto backup = ReadMetadata(kSourceE);
    const auto restored = ReadMetadata(L"E:");
    for (const wchar_t* pwszFailed : {L"\\unreadable.bin", L"\\unwritable.bin", L"\\short.bin", L"\\unclosed.bin"})
        EXPECT_NE(backup.at(pwszFailed).times[2], restored.at(pwszFailed).times[2])
            << testing::PrintToString(std::wstring(pwszFailed)) << " carries the time of a whole copy";
    EXPECT_EQ(L"Failed to restore drive letter from target location", ErrorText());
    // What a support engineer reads in the errors: the error value, each failed file and its path.
    const auto vErrors = TextsWithMarker(KeflLog(), L":[E]: ");
    const auto Count = [&](const wchar_t* pwszText) { return std::ranges::count(vErrors, pwszText); };
    EXPECT_NE(0, Count(L"KEFLImpl::CopyFileWithProgress : dwLastError = 32"));
    EXPECT_EQ(1, Count(L"KEFLImpl::RestoreFilespace : sDst = \"E:\\blocked.txt\""));
    EXPECT_EQ(7, Count(L"KEFLImpl::RestoreFilespace : Failed to copy file"))
        << "locked, blocked, unreadable, unwritable, short, denied, unclosed";
    for (const wchar_t* pwszPrivilege : {L"SeBackupPrivilege", L"SeRestorePrivilege"})
        EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::RestoreFilespace : Privilege not enabled = \"" +
                                           std::wstring(pwszPrivilege) + L"\""));

    MakeFolders(kBackup + std::wstring(L"\\F\\a\\b")); // not listed: the count fails, each level says so
    g_pfnRealFindFirst = m_patches.Patch(
        m_pLibrary->Module(), "KERNEL32.dll", "FindFirstFileW",
        +[](LPCWSTR pwsz, LPWIN32_FIND_DATAW pfd)
        {
            return std::wcsstr(pwsz, L"\\F\\a\\b\\*")
                       ? WithLastError(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE)
                       : g_pfnRealFindFirst(pwsz, pfd);
        });
    morvane::Filespace fs{};
    fs.wcFsDriveLetter = L'F';
    EXPECT_FALSE(m_pClient->RestoreFilespace(fs));
    EXPECT_EQ(L"Couldn't count objects to be restored", ErrorText());
    EXPECT_EQ(3u, g_vProgress.back().uiState);
    EXPECT_EQ(2, std::ranges::count(TextsWithMarker(KeflLog(), L":[E]: "),
                                    L"KEFLImpl::CountFiles : ... ending(KEFLImpl::CountFiles failed)"));
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
    // Times that cannot be set are traced; the data is there and the filespace restored.
    WriteBytes(kSourceE + L"\\one.txt", "one");
    m_patches.Patch(m_pLibrary->Module(), "KERNEL32.dll", "SetFileTime",
                    +[](HANDLE, const FILETIME*, const FILETIME*, const FILETIME*) -> BOOL
                    { return WithLastError(ERROR_ACCESS_DENIED, FALSE); });
    EXPECT_TRUE(RestoreE(L"8"));
    EXPECT_EQ("one", ReadBytes(L"E:\\one.txt"));
    EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::CopyFileWithProgress : Failed to set times"));
}

TEST_F(FilespaceRestoreTest, NamesAnEarlierRestoreLinkedGetFilesOfTheirOwnAndWritesLoseNoBytes)
{
    // Pairs of names that the last restore's link pass made one file: backup copies that differ,
    // and large equal ones that keep two of the eight workers busy for seconds. Every file's
    // BackupWrite takes half of one large buffer, as a write may.
    const std::string sLarge = Pattern(160u << 20, 5);
    const std::map<std::wstring, std::string> kCopies = {{L"\\a1.txt", Pattern(70000, 1)},
                                                         {L"\\Sub\\a2.txt", Pattern(90000, 2)},
                                                         {L"\\big1.bin", sLarge},
                                                         {L"\\big2.bin", sLarge}};
    MakeFolders(kSourceE + L"\\Sub");
    MakeFolders(L"E:\\Sub");
    for (const auto& [sName, sBytes] : kCopies)
        WriteBytes(kSourceE + sName, sBytes);
    for (const auto& [pwszName, pwszLink] :
         {std::pair{L"E:\\a1.txt", L"E:\\Sub\\a2.txt"}, {L"E:\\big1.bin", L"E:\\big2.bin"}})
    {
        WriteBytes(pwszName, "the earlier restore's bytes");
        ASSERT_TRUE(::CreateHardLinkW(pwszLink, pwszName, nullptr));
    }
    ::SetFileAttributesW(L"E:\\a1.txt", FILE_ATTRIBUTE_READONLY);
    BackupStreamFaults().bHalfOfOneLargeWrite = true;
    ASSERT_TRUE(RestoreE(L"8")) << testing::PrintToString(ErrorText());
    for (const auto& [sName, sBytes] : kCopies)
    {
        EXPECT_TRUE(ReadBytes(L"E:" + sName) == sBytes) << testing::PrintToString(sName);
        EXPECT_EQ(1u, FileIdentity(L"E:" + sName).dwLinks) << testing::PrintToString(sName);
    }
    EXPECT_EQ(5u, ReadMetadata(L"E:").size()) << "no name of the old files is left beside them";
    EXPECT_EQ(1, winecompat::VolumeFlushes()) << "the volume once, not each file";
}

TEST_F(FilespaceRestoreTest, AResumeGivesEachNameOfAFileThatTwoNamesShareAFileOfItsOwn)
{
    // Two backup copies alike in bytes, time and attributes; on E: one file under both names, linked
    // before the volume's last checkpoint (the mount point's restore records one on E:'s volume here).
    for (const wchar_t* pwszName : {L"\\one.bin", L"\\two.bin"})
    {
        WriteBytes(kSourceE + pwszName, Pattern(5000, 1));
        WriteMetadata(kSourceE + pwszName, {FILE_ATTRIBUTE_ARCHIVE, {130915281890000000ULL, 0, 130915281890000000ULL}});
    }
    MakeFolders(kSourceE + L"\\Mount\\Data");
    ASSERT_TRUE(RestoreE(L"8"));
    RemoveFile(L"E:\\two.bin");
    ASSERT_TRUE(::CreateHardLinkW(L"E:\\two.bin", L"E:\\one.bin", nullptr));
    morvane::Filespace fs{};
    fs.sFsPath = fs.sFsMountDir = L"E:\\Mount\\Data";
    fs.dwFsFlags = 0x8;
    ASSERT_TRUE(m_pClient->RestoreFilespace(fs));
    ASSERT_TRUE(RestoreE(L"8", L"1"));
    for (const wchar_t* pwszName : {L"E:\\one.bin", L"E:\\two.bin"})
        EXPECT_EQ(1u, FileIdentity(pwszName).dwLinks) << testing::PrintToString(std::wstring(pwszName));
}

TEST_F(FilespaceRestoreTest, AWalkStoppedByAnExceptionLeavesTheLinksToItsFilesUnmade)
{
    // Stopped by the host's callback or a listing with no memory: the file not taken is neither copied
    // nor failed, and a link made now would put a stale file under the link's name. So would a link to
    // a copy that failed.
    WriteBytes(kSourceE + L"\\link.txt", "the link's copy");
    WriteBytes(kSourceE + L"\\target.txt", "the target's copy");
    WriteTextFile(L"R:\\Backup\\#\\HPoint.dat", "[1]\r\nH1=E:\\target.txt\r\nH2=E:\\link.txt\r\n");
    for (const char* pszStop : {"the target's copy fails", "the host's callback throws", "the listing throws"})
    {
        SCOPED_TRACE(pszStop);
        WriteBytes(L"E:\\target.txt", "stale");
        ASSERT_TRUE(m_pClient->Init(Credentials(kBackup).get()));
        // A read error from the backup: a copy that failed is no more restored than one never taken.
        BackupStreamFaults().sReadFailFile = pszStop[4] == 't' ? L"target.txt" : L"";
        if (pszStop[4] == 'l')
            g_pfnRealFindNext = m_patches.Patch(
                m_pLibrary->Module(), "KERNEL32.dll", "FindNextFileW",
                +[](HANDLE h, LPWIN32_FIND_DATAW pfd) -> BOOL {
                    return std::wcsstr(pfd->cFileName, L".txt") ? throw std::bad_alloc()
                                                                : g_pfnRealFindNext(h, pfd);
                });
        else if (pszStop[4] == 'h')
            m_pClient->SetProgMsgCallbackFn(
                +[](const morvane::ProgMsg* pMsg, uint64_t) -> int
                { return pMsg->ullDone == 1 ? throw std::runtime_error("gives up") : 0; },
                0);
        EXPECT_FALSE(RestoreE(L"1"));
        const std::string sLinkBefore = ReadBytes(L"E:\\link.txt");
        m_pClient->SetProgMsgCallbackFn(&RecordProgress, 0);
        EXPECT_TRUE(m_pClient->RestoreLinks());
        EXPECT_EQ(sLinkBefore, ReadBytes(L"E:\\link.txt"));
        EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::CreateHardLinkW : ... ending(Target was not restored)"));
    }
}

// Run again after an interruption with KEFL_SkipUnchanged=1: only what differs is read again.
TEST_F(FilespaceRestoreTest, ASecondRestoreWithSkipUnchangedReadsOnlyWhatDiffers)
{
    enum class Change
    {
        None,      // kept
        Deleted,   // copied again
        Cut,       // shorter, with the time of the interruption: copied again
        Rewritten, // the backup's copy of the same size and a later time (another point in time): copied again
    };
    const std::pair<const wchar_t*, Change> kFiles[] = {
        {L"kept.bin", Change::None},           {L"Sub\\kept.bin", Change::None},
        {L"deleted.bin", Change::Deleted},     {L"Sub\\cut.bin", Change::Cut},
        {L"rewritten.bin", Change::Rewritten}, {L"empty.bin", Change::None}};
    MakeFolders(kSourceE + L"\\Sub");
    uint32_t uiSeed = 0;
    for (const auto& [pwszName, change] : kFiles)
        WriteBytes(kSourceE + L"\\" + pwszName,
                   Pattern(std::wcsstr(pwszName, L"empty") ? 0 : 100000, ++uiSeed));
    const auto Restore = [&](const wchar_t* pwszSkip)
    {
        g_iBackupOpens = 0;
        g_vProgress.clear();
        EXPECT_TRUE(RestoreE(L"8", pwszSkip)) << testing::PrintToString(ErrorText());
        EXPECT_EQ(g_vProgress.back().ullTotal, g_vProgress.back().ullBytesDone) << "at its total";
        return g_iBackupOpens;
    };
    EXPECT_EQ(6, Restore(L"1")) << "a first restore finds nothing to keep";
    for (const auto& [pwszName, change] : kFiles)
    {
        const std::wstring sRestored = std::wstring(L"E:\\") + pwszName;
        if (change == Change::Deleted)
            RemoveFile(sRestored);
        if (change == Change::Cut)
            WriteBytes(sRestored, ReadBytes(sRestored).substr(0, 5000));
        if (change == Change::Rewritten)
            WriteBytes(kSourceE + L"\\" + pwszName, Pattern(100000, 99));
    }
    EXPECT_EQ(3, Restore(L"1")) << "the deleted, the cut and the rewritten file";
    const auto backup = ReadMetadata(kSourceE);
    const auto restored = ReadMetadata(L"E:");
    for (const auto& [pwszName, change] : kFiles)
    {
        const std::wstring sRel = std::wstring(L"\\") + pwszName;
        EXPECT_TRUE(ReadBytes(L"E:" + sRel) == ReadBytes(kSourceE + sRel)) << testing::PrintToString(sRel);
        EXPECT_EQ(backup.at(sRel).times[2], restored.at(sRel).times[2]) << testing::PrintToString(sRel);
    }
    EXPECT_EQ(6, Restore(L"0")) << "without the setting, every file is copied";
}

TEST_F(FilespaceRestoreTest, AResumeAfterAPowerCutCopiesAgainWhatTheLastCheckpointLeftUnflushed)
{
    // 24 files of four writes each, a checkpoint every MiB (about five files); the power fails at
    // the 60th write, with checkpoints behind it and the last of them lost.
    for (uint32_t ui = 0; ui < 24; ++ui)
        WriteBytes(kSourceE + L"\\f" + std::to_wstring(ui) + L".bin", Pattern(200000, ui));
    CPowerCut power(m_patches, m_pLibrary->Module(), 60);
    RestoreE(L"1", L"0", L"1");
    const size_t cLost = power.Restart();
    g_iBackupOpens = 0;
    ASSERT_TRUE(RestoreE(L"8", L"1")) << testing::PrintToString(ErrorText());
    for (uint32_t ui = 0; ui < 24; ++ui)
        EXPECT_TRUE(ReadBytes(L"E:\\f" + std::to_wstring(ui) + L".bin") == Pattern(200000, ui)) << ui;
    EXPECT_EQ(static_cast<int>(cLost), g_iBackupOpens) << "exactly what the last checkpoint did not cover";
    EXPECT_LT(cLost, 24u);
}

TEST_F(FilespaceRestoreTest, ReplacesALinkInTheWayAndLeavesWhatItPointsToAsItWas)
{
    // An earlier state's links where the backup has the folder Data\Current and the file Linked.txt.
    // Wine flags a Linux link to a folder, not one to a file: Windows' find data flags it here.
    MakeFolders(kSourceE + L"\\Data\\Current");
    for (int i = 0; i < 50; ++i)
        WriteBytes(kSourceE + L"\\Data\\Current\\f" + std::to_wstring(i) + L".txt", "the backup's");
    WriteBytes(kSourceE + L"\\Linked.txt", "the backup's");
    MakeFolders(L"E:\\Elsewhere");
    MakeFolders(L"E:\\Data");
    WriteBytes(L"E:\\Elsewhere\\f0.txt", "another folder's");
    WriteBytes(L"E:\\Elsewhere.txt", "another file's");
    ASSERT_TRUE(winecompat::MakeLinuxSymbolicLink(L"E:\\Data\\Current", L"E:\\Elsewhere"));
    ASSERT_TRUE(winecompat::MakeLinuxSymbolicLink(L"E:\\Linked.txt", L"E:\\Elsewhere.txt"));
    g_pfnRealFindFirst = m_patches.Patch(m_pLibrary->Module(), "KERNEL32.dll", "FindFirstFileW",
                                         +[](LPCWSTR pwsz, LPWIN32_FIND_DATAW pfd)
                                         {
                                             const HANDLE hFind = g_pfnRealFindFirst(pwsz, pfd);
                                             if (std::wcscmp(pwsz, L"\\\\?\\E:\\Linked.txt") == 0)
                                                 pfd->dwFileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
                                             return hFind;
                                         });
    ASSERT_TRUE(RestoreE(L"8")) << testing::PrintToString(ErrorText());
    EXPECT_EQ(1u, ReadMetadata(L"E:\\Elsewhere").size());
    EXPECT_EQ("another folder's", ReadBytes(L"E:\\Elsewhere\\f0.txt"));
    EXPECT_EQ("another file's", ReadBytes(L"E:\\Elsewhere.txt"));
    EXPECT_EQ(50u, ReadMetadata(L"E:\\Data\\Current").size());
    EXPECT_EQ("the backup's", ReadBytes(L"E:\\Linked.txt"));
    for (const auto& [pwszFunction, pwszLink] : {std::pair{L"RestoreFilespace", L"E:\\Data\\Current"},
                                                  {L"CopyFileWithProgress", L"E:\\Linked.txt"}})
    {
        EXPECT_FALSE(::GetFileAttributesW(pwszLink) & FILE_ATTRIBUTE_REPARSE_POINT);
        EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::" + std::wstring(pwszFunction) +
                                           L" : Link in the way removed = \"\\\\?\\" + pwszLink + L"\""));
    }
}

// The restore on a thread of the host with a 64 KiB stack. Wine gives every thread at least 1 MiB,
// so the stack below the thread's start is painted and the depth it reached is measured afterwards.
struct CSmallStackRestore
{
    morvane::VESK* pClient;
    morvane::Filespace fs;
    bool bResult = false;
    size_t cbStackUsed = 0;
};
DWORD WINAPI RestoreOnSmallStack(void* pContext)
{
    auto& restore = *static_cast<CSmallStackRestore*>(pContext);
    MEMORY_BASIC_INFORMATION stack{}; // its reservation's base is the stack's lowest address
    ::VirtualQuery(&stack, &stack, sizeof(stack));
    const auto ullStart = reinterpret_cast<uintptr_t>(&stack) - 256;
    const auto ullEnd = reinterpret_cast<uintptr_t>(stack.AllocationBase) + 16384; // guard pages
    for (uintptr_t ull = ullStart; ull > ullEnd; --ull) // downwards, as the stack grows
        *reinterpret_cast<volatile unsigned char*>(ull) = 0xA5;
    restore.bResult = restore.pClient->RestoreFilespace(restore.fs);
    uintptr_t ullLowest = ullEnd + 1;
    while (ullLowest < ullStart && *reinterpret_cast<volatile unsigned char*>(ullLowest) == 0xA5)
        ++ullLowest;
    restore.cbStackUsed = ullStart - ullLowest;
    return 0;
}

// Drive E: restored on a thread of its own with a 64 KiB stack.
CSmallStackRestore RestoreEOnASmallStack(morvane::VESK* pClient)
{
    CSmallStackRestore restore{pClient, {}};
    restore.fs.wcFsDriveLetter = L'E';
    const morvane::CUniqueHandle hThread(::CreateThread(nullptr, 65536, &RestoreOnSmallStack, &restore,
                                                        STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr));
    EXPECT_TRUE(hThread);
    ::WaitForSingleObject(hThread.get(), INFINITE);
    return restore;
}

// A chain of folders named sLevel ("\d") under sRoot with a file of that name at its bottom, grown
// and taken down at its top by renames: every call names a short path (Wine looks a long path up
// slowly, one folder at a time).
bool MoveChain(const std::wstring& sFrom, const std::wstring& sTo)
{
    return ::MoveFileW(sFrom.c_str(), sTo.c_str()) != FALSE;
}
void RemoveChain(const std::wstring& sRoot, const std::wstring& sLevel)
{
    while (!::DeleteFileW((sRoot + sLevel).c_str()) && MoveChain(sRoot + sLevel + sLevel, sRoot + L"\\n") &&
           ::RemoveDirectoryW((sRoot + sLevel).c_str()) && MoveChain(sRoot + L"\\n", sRoot + sLevel))
    {
    }
}

TEST_F(FilespaceRestoreTest, RestoresATreeAsDeepAsPathsGoOnASmallStack)
{
    // KEFL_TESTS_FULL_DEPTH (CI): as deep as paths go, 1,900 levels under Wine, minutes. Otherwise 100
    // levels of 12 letters: paths 5 x MAX_PATH, twice the stack a recursive walk may take.
    const bool bFullDepth = ::GetEnvironmentVariableW(L"KEFL_TESTS_FULL_DEPTH", nullptr, 0) != 0;
    const std::wstring sLevel = bFullDepth ? L"\\d" : L"\\" + std::wstring(12, L'd');
    const size_t cchDeepest = bFullDepth ? 32000 : 100 * sLevel.size();
    // Taken down on every way out: the recursive removal after each test would need a deep stack.
    struct CChains
    {
        const std::wstring& sLevel;
        ~CChains()
        {
            RemoveChain(L"E:", sLevel);
            RemoveChain(kSourceE, sLevel);
        }
    } chains{sLevel};
    WriteBytes(kSourceE + sLevel, "the deepest file");
    std::wstring sRel = sLevel;
    while (sRel.size() < cchDeepest && ::CreateDirectoryW((kSourceE + L"\\n").c_str(), nullptr) &&
           MoveChain(kSourceE + sLevel, kSourceE + L"\\n" + sLevel) &&
           MoveChain(kSourceE + L"\\n", kSourceE + sLevel))
    {
        sRel += sLevel;
        if (::GetFileAttributesW(LongPath(kSourceE + sRel).c_str()) != INVALID_FILE_ATTRIBUTES)
            continue;
        sRel.resize(sRel.size() - sLevel.size()); // one level too many: back up
        ASSERT_TRUE(MoveChain(kSourceE + sLevel, kSourceE + L"\\n") &&
                    MoveChain(kSourceE + L"\\n" + sLevel, kSourceE + sLevel) &&
                    ::RemoveDirectoryW((kSourceE + L"\\n").c_str()));
        break;
    }

    const CSmallStackRestore restore = RestoreEOnASmallStack(m_pClient.get());
    EXPECT_TRUE(restore.bResult) << testing::PrintToString(ErrorText());
    EXPECT_EQ("the deepest file", ReadBytes(L"E:" + sRel)) << sRel.size() / sLevel.size() << " levels";
    EXPECT_LT(restore.cbStackUsed, 48u * 1024) << "bytes of stack; 64 KiB hold the thread";
}
