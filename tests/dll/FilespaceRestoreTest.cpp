// Restoring a filespace: a drive folder of the backup copied back onto its drive, file by file as
// backup streams, with progress; refusals and failures as the host sees them.
#include "dll/SessionFixture.h"

#include "platform/UniqueHandle.h"
#include "support/BackupStreams.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

using namespace kefltest;

namespace
{

// The backup's folder of drive E:, restored onto the restore-target drive E:.
const std::wstring kSourceE = std::wstring(L"R:\\Backup") + L"\\E";
constexpr DWORD kStreamHeaderBytes = 20;

void MakeDir(const std::wstring& sPath)
{
    ::CreateDirectoryW(LongPath(sPath).c_str(), nullptr);
}

// Everything below sDir, files and folders alike, by path relative to sDir ("" for folders).
void ListTree(const std::wstring& sDir, const std::wstring& sRel, std::map<std::wstring, bool>& tree)
{
    WIN32_FIND_DATAW fd;
    morvane::CUniqueFind hFind(::FindFirstFileW(LongPath(sDir + L"\\*").c_str(), &fd));
    if (!hFind)
        return;
    do
    {
        const std::wstring sName = fd.cFileName;
        if (sName == L"." || sName == L"..")
            continue;
        const bool bDir = (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        tree[sRel + L"\\" + sName] = bDir;
        if (bDir)
            ListTree(sDir + L"\\" + sName, sRel + L"\\" + sName, tree);
    } while (::FindNextFileW(hFind.get(), &fd));
}

// Windows' CreateFileW on a file that another process holds open without sharing: error 32.
// Every other open goes to the real call.
using CreateFileFn = HANDLE(WINAPI*)(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE);
CreateFileFn g_pfnRealCreateFile = nullptr;
int g_iLockedOpens = 0;
HANDLE WINAPI CreateFileOfALockedFile(LPCWSTR pwszPath, DWORD dwAccess, DWORD dwShare,
                                      LPSECURITY_ATTRIBUTES pSa, DWORD dwDisposition, DWORD dwFlags,
                                      HANDLE hTemplate)
{
    const std::wstring sPath = pwszPath;
    const std::wstring sLocked = L"\\locked.bin";
    if (sPath.size() > sLocked.size() &&
        sPath.compare(sPath.size() - sLocked.size(), sLocked.size(), sLocked) == 0 &&
        sPath.find(L"R:\\Backup") != std::wstring::npos)
    {
        ++g_iLockedOpens;
        ::SetLastError(ERROR_SHARING_VIOLATION);
        return INVALID_HANDLE_VALUE;
    }
    return g_pfnRealCreateFile(pwszPath, dwAccess, dwShare, pSa, dwDisposition, dwFlags, hTemplate);
}

// Windows' Sleep waits; here the waits of 30 s between open attempts return at once and are
// counted. Other waits go to the real call.
using SleepFn = VOID(WINAPI*)(DWORD);
SleepFn g_pfnRealSleep = nullptr;
int g_iRetryWaits = 0;
VOID WINAPI SleepCounted(DWORD dwMs)
{
    if (dwMs == 30000)
    {
        ++g_iRetryWaits;
        return;
    }
    g_pfnRealSleep(dwMs);
}

// Windows' GetVolumeInformationW on a folder where a volume is mounted answers for that volume;
// Wine has no mount points in folders, so the test's mount folder answers as the volume E:.
using GetVolumeInformationFn = BOOL(WINAPI*)(LPCWSTR, LPWSTR, DWORD, LPDWORD, LPDWORD, LPDWORD, LPWSTR,
                                             DWORD);
GetVolumeInformationFn g_pfnRealGetVolumeInformation = nullptr;
BOOL WINAPI GetVolumeInformationOfAMountPoint(LPCWSTR pwszRoot, LPWSTR pwszName, DWORD cchName,
                                              LPDWORD pdwSerial, LPDWORD pcchComponent, LPDWORD pdwFlags,
                                              LPWSTR pwszFs, DWORD cchFs)
{
    const bool bMountFolder = _wcsicmp(pwszRoot, L"E:\\Mount\\Data\\") == 0;
    return g_pfnRealGetVolumeInformation(bMountFolder ? L"E:\\" : pwszRoot, pwszName, cchName, pdwSerial,
                                         pcchComponent, pdwFlags, pwszFs, cchFs);
}

class FilespaceRestoreTest : public SessionFixture
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
        m_pStreams = std::make_unique<CBackupStreamPatches>(m_pLibrary->Module());
        ASSERT_TRUE(m_pStreams->IsApplied());
        m_pClient->SetProgMsgCallbackFn(&RecordProgress, 0);
    }

    void TearDown() override
    {
        m_pStreams.reset();
        RemoveTree(kSourceE, false);
        RemoveTree(L"E:", true);
        RemoveTree(L"F:", true);
        SessionFixture::TearDown();
    }

    void Init()
    {
        ASSERT_TRUE(m_pClient->Init(Credentials(kBackup).get())) << testing::PrintToString(ErrorText());
        g_vMessages.clear();
    }

    static morvane::Filespace Drive(wchar_t wcLetter)
    {
        morvane::Filespace fs{};
        fs.sFsName = std::wstring(1, wcLetter) + L":";
        fs.sFsPath = fs.sFsName + L"\\";
        fs.wcFsDriveLetter = wcLetter;
        return fs;
    }

    // Files below the backup's folder E that a restore must bring back, by relative path.
    std::map<std::wstring, bool> RestoredPartOfSource() const
    {
        std::map<std::wstring, bool> tree;
        ListTree(kSourceE, L"", tree);
        for (auto it = tree.begin(); it != tree.end();)
        {
            const std::wstring& s = it->first;
            const bool bSkipped = s == L"\\pagefile.sys" || s == L"\\hiberfil.sys" ||
                                  s.rfind(L"\\RECYCLER2", 0) == 0 || s.rfind(L"\\$Recycle.Bin", 0) == 0 ||
                                  s.rfind(L"\\System Volume Information", 0) == 0;
            it = bSkipped ? tree.erase(it) : std::next(it);
        }
        return tree;
    }

    // Every folder and file of the source's restored part is on E:, every file byte for byte.
    void ExpectRestored(const std::map<std::wstring, bool>& source)
    {
        for (const auto& [sRel, bDir] : source)
        {
            if (bDir)
                EXPECT_TRUE(FileExists(L"E:" + sRel)) << testing::PrintToString(sRel);
            else
                EXPECT_TRUE(ReadBytes(L"E:" + sRel) == ReadBytes(kSourceE + sRel))
                    << testing::PrintToString(sRel);
        }
    }

    std::unique_ptr<CBackupStreamPatches> m_pStreams;
};

// The tree used by most tests: an empty file, one of several buffers, non-ASCII names, a path of
// more than MAX_PATH characters, and what Windows keeps for itself at a volume's root.
std::wstring MakeSourceTree()
{
    MakeDir(kSourceE);
    WriteBytes(kSourceE + L"\\empty.txt", "");
    WriteBytes(kSourceE + L"\\small.txt", "Hello, restore.\r\n");
    MakeDir(kSourceE + L"\\Data");
    WriteBytes(kSourceE + L"\\Data\\big.bin", Pattern(3 * 1024 * 1024 + 4321, 1));
    WriteBytes(kSourceE + L"\\Data\\one buffer.bin", Pattern(65536, 2));
    MakeDir(kSourceE + L"\\Gr\u00FC\u00DFe \u65E5\u672C");
    WriteBytes(kSourceE + L"\\Gr\u00FC\u00DFe \u65E5\u672C\\\u0436\u00E9\u20AC.txt", "non-ASCII");
    std::wstring sDeep = kSourceE;
    for (wchar_t wc : {L'a', L'b', L'c'})
    {
        sDeep += L"\\" + std::wstring(90, wc);
        MakeDir(sDeep);
    }
    const std::wstring sDeepFile = sDeep + L"\\deep file.txt";
    WriteBytes(sDeepFile, Pattern(70000, 3));
    WriteBytes(kSourceE + L"\\pagefile.sys", Pattern(1000, 4));
    WriteBytes(kSourceE + L"\\hiberfil.sys", Pattern(1000, 5));
    MakeDir(kSourceE + L"\\Old");
    WriteBytes(kSourceE + L"\\Old\\pagefile.sys", Pattern(1000, 6));
    MakeDir(kSourceE + L"\\RECYCLER2");
    MakeDir(kSourceE + L"\\$Recycle.Bin");
    WriteBytes(kSourceE + L"\\$Recycle.Bin\\deleted.txt", "deleted");
    MakeDir(kSourceE + L"\\System Volume Information");
    WriteBytes(kSourceE + L"\\System Volume Information\\tracking.log", "tracking");
    return sDeepFile;
}

} // namespace

TEST_F(FilespaceRestoreTest, RestoresADriveFileByFileWithProgress)
{
    const std::wstring sDeepFile = MakeSourceTree();
    ASSERT_GT(sDeepFile.size(), 260u);
    Init();
    std::map<std::wstring, bool> all;
    ListTree(kSourceE, L"", all);
    const auto source = RestoredPartOfSource();

    morvane::Filespace fs = Drive(L'E');
    ASSERT_TRUE(m_pClient->RestoreFilespace(fs)) << testing::PrintToString(ErrorText());

    ExpectRestored(source);
    EXPECT_TRUE(ReadBytes(L"E:\\Data\\big.bin") == Pattern(3 * 1024 * 1024 + 4321, 1));
    EXPECT_EQ("", ReadBytes(L"E:\\empty.txt"));
    EXPECT_EQ("non-ASCII", ReadBytes(L"E:\\Gr\u00FC\u00DFe \u65E5\u672C\\\u0436\u00E9\u20AC.txt"));
    EXPECT_TRUE(ReadBytes(L"E:" + sDeepFile.substr(kSourceE.size())) == Pattern(70000, 3));
    EXPECT_TRUE(FileExists(L"E:\\Old\\pagefile.sys")) << "kept: not at the root";
    for (const wchar_t* pwszSkipped : {L"E:\\pagefile.sys", L"E:\\hiberfil.sys", L"E:\\RECYCLER2",
                                       L"E:\\$Recycle.Bin", L"E:\\System Volume Information"})
        EXPECT_FALSE(FileExists(pwszSkipped)) << testing::PrintToString(std::wstring(pwszSkipped));
    EXPECT_EQ(0, LiveBackupContexts()) << "every stream context ended";

    EXPECT_TRUE(HasMessage(1, L"Restoring drive letter E: from target location"));
    EXPECT_TRUE(HasMessage(1, L"Successfully restored drive letter E: from target location"));
    EXPECT_EQ(L"No error", ErrorText());

    // Progress: starting, the counting text, then every read and every entry walked.
    uint64_t ullCounted = 0;
    uint64_t ullCopied = 0;
    uint64_t ullFilesCopied = 0;
    for (const auto& [sRel, bDir] : all)
        if (!bDir)
            ullCounted += ReadBytes(kSourceE + sRel).size();
    for (const auto& [sRel, bDir] : source)
        if (!bDir)
        {
            ullCopied += ReadBytes(kSourceE + sRel).size();
            ++ullFilesCopied;
        }
    ASSERT_GE(g_vProgress.size(), 3u);
    EXPECT_EQ(1u, g_vProgress[0].uiState);
    EXPECT_EQ(L"E:\\", g_vProgress[0].sPath);
    EXPECT_EQ(L'E', g_vProgress[0].wcDriveLetter);
    EXPECT_EQ(7u, g_vProgress[1].uiState);
    EXPECT_EQ(L"Counting objects to be restored ...", g_vProgress[1].sText);
    uint64_t ullLast = 0;
    for (size_t i = 2; i < g_vProgress.size(); ++i)
    {
        EXPECT_EQ(7u, g_vProgress[i].uiState);
        EXPECT_EQ(ullCounted, g_vProgress[i].ullTotal);
        EXPECT_GE(g_vProgress[i].ullBytesDone, ullLast);
        ullLast = g_vProgress[i].ullBytesDone;
    }
    // The bytes read from the backup: each file's data and its stream header.
    EXPECT_EQ(ullCopied + kStreamHeaderBytes * ullFilesCopied, g_vProgress.back().ullBytesDone);
    EXPECT_EQ(all.size(), g_vProgress.back().ullDone) << "every entry walked, skipped ones included";
    // A file of several buffers shows its reads one by one.
    EXPECT_GT(g_vProgress.size(), 2 + all.size() + 3 * 1024 / 64);
}

TEST_F(FilespaceRestoreTest, OverwritesAnOlderCopyAndCanRestoreTwice)
{
    MakeSourceTree();
    Init();
    // What an interrupted earlier restore left: a longer old file, a cut one, a file of its own.
    MakeDir(L"E:\\Data");
    WriteBytes(L"E:\\small.txt", Pattern(200000, 7));
    WriteBytes(L"E:\\Data\\big.bin", Pattern(100000, 1));
    WriteBytes(L"E:\\Data\\mine.txt", "not in the backup");
    const auto source = RestoredPartOfSource();

    morvane::Filespace fs = Drive(L'E');
    ASSERT_TRUE(m_pClient->RestoreFilespace(fs)) << testing::PrintToString(ErrorText());
    ExpectRestored(source);
    EXPECT_EQ("not in the backup", ReadBytes(L"E:\\Data\\mine.txt")) << "nothing of the target lost";

    ASSERT_TRUE(m_pClient->RestoreFilespace(fs)) << testing::PrintToString(ErrorText());
    ExpectRestored(source);
    EXPECT_EQ(0, LiveBackupContexts());
}

TEST_F(FilespaceRestoreTest, RestoresAMountPointFromItsDrivesFolder)
{
    WriteTextFile(std::wstring(kBackup) + L"\\#\\MPoint.dat",
                  "[E:\\Mount\\Data]\r\nTarget=\\\\?\\Volume{00000000-0000-0000-0000-000000000001}\\\r\n"
                  "BackupTarget=S:\\Backup\\E\\Mount\\Data\r\n");
    MakeDir(kSourceE);
    MakeDir(kSourceE + L"\\Mount");
    MakeDir(kSourceE + L"\\Mount\\Data");
    MakeDir(kSourceE + L"\\Mount\\Data\\Sub");
    WriteBytes(kSourceE + L"\\Mount\\Data\\Sub\\file.bin", Pattern(100000, 8));
    WriteBytes(kSourceE + L"\\outside.txt", "not part of the mount point");
    MakeDir(L"E:\\Mount");
    MakeDir(L"E:\\Mount\\Data");
    Init();
    m_vPatches.push_back(
        std::make_unique<CIatPatch>(m_pLibrary->Module(), "KERNEL32.dll", "GetVolumeInformationW",
                                    reinterpret_cast<const void*>(&GetVolumeInformationOfAMountPoint)));
    ASSERT_TRUE(m_vPatches.back()->IsApplied());
    g_pfnRealGetVolumeInformation = reinterpret_cast<GetVolumeInformationFn>(m_vPatches.back()->Original());

    morvane::Filespace fs{};
    fs.sFsPath = L"E:\\Mount\\Data";
    fs.sFsMountDir = L"e:\\mount\\data"; // matched without regard to case
    fs.dwFsFlags = 0x8;
    ASSERT_TRUE(m_pClient->RestoreFilespace(fs)) << testing::PrintToString(ErrorText());
    EXPECT_TRUE(ReadBytes(L"E:\\Mount\\Data\\Sub\\file.bin") == Pattern(100000, 8));
    EXPECT_FALSE(FileExists(L"E:\\outside.txt"));
    EXPECT_TRUE(HasMessage(1, L"Restoring mount point 'e:\\mount\\data' from target location"));
    EXPECT_TRUE(HasMessage(1, L"Successfully restored mount point 'e:\\mount\\data' from target location"));
    EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::RestoreFilespace : Valid mount point supplied"));
}

TEST_F(FilespaceRestoreTest, RefusesWhatItCannotRestore)
{
    morvane::Filespace fs = Drive(L'E');
    EXPECT_FALSE(m_pClient->RestoreFilespace(fs)) << "no session";
    EXPECT_TRUE(HasMessage(3, L"No target location has been set"));
    Init();

    morvane::Filespace mount{};
    mount.sFsMountDir = L"E:\\Mount\\Data";
    mount.dwFsFlags = 0x8;
    EXPECT_FALSE(m_pClient->RestoreFilespace(mount));
    EXPECT_TRUE(HasMessage(3, L"The supplied mount point 'E:\\Mount\\Data' is unknown"));
    EXPECT_EQ(L"The supplied mount point 'E:\\Mount\\Data' is unknown", ErrorText());

    for (wchar_t wcLetter : {L'1', L'e', L'\0'})
    {
        g_vMessages.clear();
        morvane::Filespace bad = Drive(wcLetter);
        EXPECT_FALSE(m_pClient->RestoreFilespace(bad));
        ASSERT_EQ(1u, g_vMessages.size());
        EXPECT_EQ(3u, g_vMessages[0].uiSeverity);
        EXPECT_EQ(0u, g_vMessages[0].sText.rfind(L"The supplied drive letter '", 0));
        if (wcLetter == L'1')
        {
            EXPECT_TRUE(HasMessage(3, L"The supplied drive letter '1:' is invalid"));
        }
    }

    morvane::Filespace noVolume = Drive(L'Q');
    MakeDir(kBackup + std::wstring(L"\\Q"));
    EXPECT_FALSE(m_pClient->RestoreFilespace(noVolume));
    EXPECT_EQ(L"Failed to restore drive letter from target location", ErrorText());

    // No folder F in the backup: the count fails.
    g_vProgress.clear();
    g_vMessages.clear();
    morvane::Filespace noSource = Drive(L'F');
    EXPECT_FALSE(m_pClient->RestoreFilespace(noSource));
    EXPECT_TRUE(HasMessage(3, L"Couldn't count objects to be restored"));
    ASSERT_FALSE(g_vProgress.empty());
    EXPECT_EQ(3u, g_vProgress.back().uiState);

    const auto vLines = KeflLog();
    for (const wchar_t* pwszLine : {
             L"KEFLImpl::RestoreFilespace : ... ending(Target location not set)",
             L"KEFLImpl::RestoreFilespace : ... ending(Mount point unknown)",
             L"KEFLImpl::RestoreFilespace : ... ending(Drive letter not valid)",
             L"KEFLImpl::RestoreFilespace : GetVolumeInformation failed",
             L"KEFLImpl::RestoreFilespace : ...ending(Destination drive letter / mount directory not found)",
             L"KEFLImpl::CountFiles : ... ending(FindFirstFile failed)",
             L"KEFLImpl::RestoreFilespace : ... ending(CountFiles failed)",
         })
        EXPECT_TRUE(HasText(vLines, pwszLine)) << testing::PrintToString(std::wstring(pwszLine));
}

TEST_F(FilespaceRestoreTest, NotesEachFailedFileAndRestoresTheRest)
{
    MakeDir(kSourceE);
    WriteBytes(kSourceE + L"\\good.txt", "good");
    WriteBytes(kSourceE + L"\\locked.bin", "held open by another process");
    WriteBytes(kSourceE + L"\\blocked.txt", "its destination is a folder");
    WriteBytes(kSourceE + L"\\unreadable.bin", Pattern(200000, 9));
    WriteBytes(kSourceE + L"\\unwritable.bin", Pattern(200000, 10));
    WriteBytes(kSourceE + L"\\short.bin", Pattern(5000, 11));
    MakeDir(kSourceE + L"\\Later");
    WriteBytes(kSourceE + L"\\Later\\after.txt", "after the failures");
    MakeDir(L"E:\\blocked.txt");
    Init();

    const HMODULE hKefl = m_pLibrary->Module();
    m_vPatches.push_back(std::make_unique<CIatPatch>(
        hKefl, "KERNEL32.dll", "CreateFileW", reinterpret_cast<const void*>(&CreateFileOfALockedFile)));
    g_pfnRealCreateFile = reinterpret_cast<CreateFileFn>(m_vPatches.back()->Original());
    m_vPatches.push_back(std::make_unique<CIatPatch>(hKefl, "KERNEL32.dll", "Sleep",
                                                     reinterpret_cast<const void*>(&SleepCounted)));
    g_pfnRealSleep = reinterpret_cast<SleepFn>(m_vPatches.back()->Original());
    for (const auto& pPatch : m_vPatches)
        ASSERT_TRUE(pPatch->IsApplied());
    g_iLockedOpens = 0;
    g_iRetryWaits = 0;
    BackupStreamFaults().sReadFailFile = L"unreadable.bin";
    BackupStreamFaults().sWriteFailFile = L"unwritable.bin";
    BackupStreamFaults().sShortWriteFile = L"short.bin";

    morvane::Filespace fs = Drive(L'E');
    EXPECT_FALSE(m_pClient->RestoreFilespace(fs));
    EXPECT_EQ(10, g_iLockedOpens);
    EXPECT_EQ(9, g_iRetryWaits);
    EXPECT_EQ("good", ReadBytes(L"E:\\good.txt"));
    EXPECT_EQ("after the failures", ReadBytes(L"E:\\Later\\after.txt")) << "the walk went on";
    EXPECT_FALSE(FileExists(L"E:\\locked.bin"));
    EXPECT_EQ(0, LiveBackupContexts()) << "contexts ended after failures too";
    EXPECT_TRUE(HasMessage(3, L"Failed to restore drive letter from target location"));
    EXPECT_EQ(L"Failed to restore drive letter from target location", ErrorText());

    const auto vLines = KeflLog();
    for (const wchar_t* pwszLine : {
             L"KEFLImpl::CopyFileWithProgress : dwLastError = 32",
             L"KEFLImpl::CopyFileWithProgress : .. ending(Failed to open source file for reading)",
             L"KEFLImpl::CopyFileWithProgress : .. ending(Failed to open destination file for writing)",
             L"KEFLImpl::CopyFileWithProgress : dwLastError = 23",
             L"KEFLImpl::CopyFileWithProgress : Failed to read from source file",
             L"KEFLImpl::CopyFileWithProgress : dwLastError = 112",
             L"KEFLImpl::CopyFileWithProgress : Failed to write to destination file",
             L"KEFLImpl::CopyFileWithProgress : EOF (destination)",
             L"KEFLImpl::CopyFileWithProgress : ... ending(Bytes Read != Bytes Written)",
             L"KEFLImpl::RestoreFilespace : sDst = \"E:\\locked.bin\"",
             L"KEFLImpl::RestoreFilespace : Failed to copy file",
             L"KEFLImpl::RestoreFilespace : ... ending(failed to copy one or more files)",
         })
        EXPECT_TRUE(HasText(vLines, pwszLine)) << testing::PrintToString(std::wstring(pwszLine));
    EXPECT_EQ(
        5, std::count_if(vLines.begin(), vLines.end(),
                         [](const std::wstring& s)
                         { return s.find(L"RestoreFilespace : Failed to copy file") != std::wstring::npos; }))
        << "locked, blocked, unreadable, unwritable, short";
}
