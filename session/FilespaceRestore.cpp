// One filespace copied back onto the recovered machine, file by file as backup streams.
#include "session/KEFLImpl.h"

#include "session/CopyWorkers.h"
#include "session/DestinationFile.h"
#include "session/FilespaceWalk.h"
#include "session/RestoreProgress.h"
#include "session/KeptFiles.h"

#include "channel/MessageIds.h"
#include "links/NameInTheWay.h"
#include "platform/CatchAtEdge.h"
#include "platform/LongPath.h"
#include "platform/UniqueHandle.h"
#include "rules/BackupFolders.h"
#include "rules/LeftOutByRule.h"
#include "trace/TraceObjects.h"
#include "trace/TraceWords.h"

#include <algorithm>
#include <cwchar>
#include <new>
#include <vector>

namespace morvane
{
namespace
{

const wchar_t* const kRestoreFilespace = words::kRestoreFilespace;
const wchar_t kCopyFile[] = L"KEFLImpl::CopyFileWithProgress";

// The unit of BackupRead and BackupWrite.
constexpr DWORD kCopyBufferBytes = 65536;

// The source is opened exclusively; a file that something else holds open gets this many tries,
// this far apart.
constexpr int kOpenAttempts = 10;
constexpr DWORD kOpenRetryMs = 30000;


// A copy whose times or attributes could not be set still holds its data: the failure is traced
// and the filespace does not fail for it.
void TraceMetadataFailure(const wchar_t* pwszFunction, const std::wstring& sPath, DWORD dwLastError,
                          const wchar_t* pwszWhat)
{
    g_KeflTrace.TraceValue(TRACE_ERROR, pwszFunction, words::kDst, sPath);
    TraceLastError(pwszFunction, dwLastError);
    g_KeflTrace.TraceMessage(TRACE_ERROR, pwszFunction, pwszWhat);
}

// A real folder, or a volume's mount point: never a link that a folder could not replace, whose
// target would get the times.
bool IsFolder(const std::wstring& sPath)
{
    // The attributes alone for a plain folder, as good as every one: a lookup of a deep path is
    // what a deep tree's restore spends its time on.
    DWORD dwAttributes = ::GetFileAttributesW(sPath.c_str());
    if (dwAttributes == INVALID_FILE_ATTRIBUTES || !(dwAttributes & FILE_ATTRIBUTE_DIRECTORY))
        return false;
    if (!(dwAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
        return true;
    return ExamineName(sPath, dwAttributes) == NameKind::VolumeMountPoint;
}

bool SetTimes(HANDLE hFile, const CWalkEntry& entry)
{
    return ::SetFileTime(hFile, &entry.ftCreation, &entry.ftLastAccess, &entry.ftLastWrite) != FALSE;
}

// Through the handle that is open anyway: setting them by path would look the path up once more,
// which is what a restore of many small files or of a deep tree spends its time on. The
// attributes go last: a read-only file or folder accepts nothing after them.
bool SetAttributes(HANDLE hFile, const CWalkEntry& entry)
{
    FILE_BASIC_INFO info{}; // times of 0 are left as they are
    info.FileAttributes = entry.dwAttributes & kRestoredAttributes;
    if (info.FileAttributes == 0)
        info.FileAttributes = FILE_ATTRIBUTE_NORMAL;
    return ::SetFileInformationByHandle(hFile, FileBasicInfo, &info, sizeof(info)) != FALSE;
}

// A restored file's or folder's times, then its attributes, through hFile.
void RestoreMetadata(const wchar_t* pwszFunction, HANDLE hFile, const std::wstring& sLongDst,
                     const CWalkEntry& entry)
{
    if (!SetTimes(hFile, entry))
        TraceMetadataFailure(pwszFunction, sLongDst, ::GetLastError(), words::kTimesNotSet);
    if (!SetAttributes(hFile, entry))
        TraceMetadataFailure(pwszFunction, sLongDst, ::GetLastError(), words::kAttributesNotSet);
}

// A folder's times and attributes, once everything inside it is restored.
void RestoreFolderMetadata(const wchar_t* pwszFunction, const std::wstring& sLongDst, const CWalkEntry& entry)
{
    CUniqueFile hFolder(::CreateFileW(sLongDst.c_str(), FILE_WRITE_ATTRIBUTES,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                      OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT,
                                      nullptr));
    if (!hFolder)
        TraceMetadataFailure(pwszFunction, sLongDst, ::GetLastError(), words::kTimesNotSet);
    else
        RestoreMetadata(pwszFunction, hFolder.get(), sLongDst, entry);
}

// A folder of the walk, made unless a real folder is there; false, traced, when it cannot be made.
bool CreateFolder(const std::wstring& sDst)
{
    const wchar_t* const kFn = kRestoreFilespace;
    DWORD dwLastError = ERROR_SUCCESS;
    if (MakeDestinationFolder(LongPath(sDst), dwLastError))
        return true;
    g_KeflTrace.TraceValue(TRACE_ERROR, kFn, words::kDst, sDst);
    TraceLastError(kFn, dwLastError);
    g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, words::kFolderFailed);
    return false;
}

// Folders last, deepest first: restoring a folder's content changes its times.
void RestoreFolderTimes(const CWalkList& walk, const std::wstring& sDstFolder)
{
    std::wstring sDst;
    for (uint32_t uiEntry = walk.Size(); uiEntry-- > 0;)
    {
        if (!walk.Entry(uiEntry).IsDirectory())
            continue;
        sDst.assign(sDstFolder);
        walk.AppendPath(uiEntry, sDst);
        if (IsLeftOutByRule(sDst, true))
            continue;
        const std::wstring sLongDst = LongPath(sDst);
        if (IsFolder(sLongDst))
            RestoreFolderMetadata(kRestoreFilespace, sLongDst, walk.Entry(uiEntry));
    }
}

// Exclusive access: a file that another process is still writing is waited for.
CUniqueFile OpenSource(const std::wstring& sSrc, DWORD& dwLastError)
{
    CUniqueFile hSrc;
    for (int iAttempt = 1; iAttempt <= kOpenAttempts; ++iAttempt)
    {
        hSrc.reset(::CreateFileW(sSrc.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                                 FILE_FLAG_BACKUP_SEMANTICS, nullptr));
        if (hSrc)
            break;
        dwLastError = ::GetLastError();
        // Only a file that another process holds becomes readable by waiting.
        if (dwLastError != ERROR_SHARING_VIOLATION && dwLastError != ERROR_LOCK_VIOLATION)
            break;
        if (iAttempt < kOpenAttempts)
            ::Sleep(kOpenRetryMs);
    }
    return hSrc;
}

struct CCopyTotals
{
    uint64_t ullRead = 0;
    uint64_t ullWritten = 0;
};

// The file's backup streams from hSrc to hDst through pBuffer, each read counted into progress.
// Both streams' contexts are ended, also when the copy stopped on a failure. False after a failed
// read or write.
bool CopyStreams(HANDLE hSrc, HANDLE hDst, BYTE* pBuffer, const CWalkEntry& entry, CRestoreProgress& progress,
                 CCopyTotals& totals)
{
    const wchar_t* const kFn = kCopyFile;
    DWORD dwLastError = ERROR_SUCCESS;
    LPVOID pReadContext = nullptr;
    LPVOID pWriteContext = nullptr;
    bool bResult = true;
    bool bCopying = true;
    while (bCopying)
    {
        DWORD dwBytesRead = 0;
        if (!::BackupRead(hSrc, pBuffer, kCopyBufferBytes, &dwBytesRead, FALSE, FALSE, &pReadContext))
        {
            dwLastError = ::GetLastError();
            TraceLastError(kFn, dwLastError);
            g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"Failed to read from source file");
            bResult = false;
            break;
        }
        if (dwBytesRead == 0)
        {
            g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"EOF (source)");
            break;
        }
        // The count knew each file's data only; the stream headers (and a file grown since the
        // count) raise the total as they are read, so that bytes done never pass it.
        totals.ullRead += dwBytesRead;
        progress.Read(dwBytesRead, totals.ullRead > entry.ullSize
                                       ? std::min<uint64_t>(dwBytesRead, totals.ullRead - entry.ullSize)
                                       : 0);

        DWORD dwRemaining = dwBytesRead;
        while (dwRemaining > 0)
        {
            // A partial write is followed by a write of the rest: the bytes it did not take.
            DWORD dwBytesWritten = 0;
            if (!::BackupWrite(hDst, pBuffer + (dwBytesRead - dwRemaining), dwRemaining, &dwBytesWritten,
                               FALSE, FALSE, &pWriteContext))
            {
                dwLastError = ::GetLastError();
                TraceLastError(kFn, dwLastError);
                g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"Failed to write to destination file");
                bResult = false;
                bCopying = false;
                break;
            }
            totals.ullWritten += dwBytesWritten;
            if (dwBytesWritten == 0)
            {
                // Nothing taken while bytes remain: the file would end short.
                g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"EOF (destination)");
                bResult = false;
                bCopying = false;
                break;
            }
            dwRemaining -= dwBytesWritten < dwRemaining ? dwBytesWritten : dwRemaining;
        }
    }

    // Both streams' contexts are ended, also when the copy stopped on a failure.
    DWORD dwIgnored = 0;
    if (pReadContext)
        ::BackupRead(hSrc, nullptr, 0, &dwIgnored, TRUE, FALSE, &pReadContext);
    if (pWriteContext)
        ::BackupWrite(hDst, nullptr, 0, &dwIgnored, TRUE, FALSE, &pWriteContext);
    return bResult;
}

// A copy that failed after its times were set must not pass for whole with a later resume: its
// last-write time becomes now.
void MarkUnfinished(const std::wstring& sDst)
{
    const CUniqueFile hDst(::CreateFileW(sDst.c_str(), FILE_WRITE_ATTRIBUTES,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                         OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT,
                                         nullptr));
    FILETIME ftNow{};
    ::GetSystemTimeAsFileTime(&ftNow);
    if (!hDst || !::SetFileTime(hDst.get(), nullptr, nullptr, &ftNow))
        TraceMetadataFailure(kCopyFile, sDst, ::GetLastError(), words::kTimesNotSet);
}

bool EndRestore(const wchar_t* pwszReason)
{
    g_KeflTrace.TraceMessage(TRACE_ERROR, kRestoreFilespace, pwszReason);
    return false;
}

} // namespace

// The destination of a filespace: the mount point MPoint.dat knows by that folder, or a valid
// drive letter. False, with the host's message, when it is neither.
bool KEFLImpl::CheckDestination(const Filespace& fs, const Point*& pMountPoint)
{
    const wchar_t* const kFn = kRestoreFilespace;
    pMountPoint = nullptr;
    if (!(fs.dwFsFlags & kFsFlagMountPoint))
    {
        g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"Filespace.wcFsDriveLetter", fs.wcFsDriveLetter);
        // wcschr finds the terminator too: a NUL letter is no letter.
        if (fs.wcFsDriveLetter != L'\0' && std::wcschr(kDriveLetters, fs.wcFsDriveLetter))
            return true;
        LogVarMsg(MSG_SEVERITY_ERROR, IDS_INVALID_DRIVE_LETTER, fs.wcFsDriveLetter);
        return EndRestore(L"... ending(Drive letter not valid)");
    }
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"Filespace.sFsMountDir", fs.sFsMountDir);
    for (const Point& point : m_MountPoints)
    {
        if (_wcsicmp(point.sLink.c_str(), fs.sFsMountDir.c_str()) == 0)
        {
            pMountPoint = &point;
            g_KeflTrace.TraceMessage(TRACE_INFO, kFn, L"Valid mount point supplied");
            return true;
        }
    }
    LogVarMsg(MSG_SEVERITY_ERROR, IDS_UNKNOWN_MOUNT_POINT, fs.sFsMountDir.c_str());
    return EndRestore(L"... ending(Mount point unknown)");
}

// Where a filespace's files come from and go to. The backup keeps each drive in a folder named
// after its letter, and a mount point's files inside the folder of the drive that holds the mount
// point, at the mount point's own path: C:\Mount\Data is R:\Backup\C\Mount\Data. The path is taken
// from MPoint.dat's section name rather than from its BackupTarget, which carries the backup
// drive's letter of that time. False, with the host's message, when the destination is unknown,
// the backup cannot be reached or the destination's volume is not there.
bool KEFLImpl::ResolveFolders(const Filespace& fs, CFilespaceFolders& folders)
{
    const wchar_t* const kFn = kRestoreFilespace;
    if (m_sTargetLocation.empty())
    {
        LogStdMsg(MSG_SEVERITY_ERROR, IDS_NO_TARGET_LOCATION);
        return EndRestore(L"... ending(Target location not set)");
    }
    const Point* pMountPoint = nullptr;
    std::wstring sLocalPath;
    if (!CheckDestination(fs, pMountPoint) || !LocalTargetPath(kFn, sLocalPath))
        return false;
    folders.bMountPoint = pMountPoint != nullptr;
    if (pMountPoint)
    {
        folders.sSrc = MountPointBackupFolder(sLocalPath, pMountPoint->sLink);
        folders.sDst = MountPointFolder(fs.sFsMountDir);
    }
    else
    {
        folders.sSrc = DriveBackupFolder(sLocalPath, fs.wcFsDriveLetter);
        // No backslash: the source folder's part of each path is replaced, giving "C:\...".
        folders.sDst = std::wstring(1, fs.wcFsDriveLetter) + L":";
    }
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"sSrcFolder", folders.sSrc);
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"sDstFolder", folders.sDst);

    // The destination volume must be there.
    if (::GetVolumeInformationW(folders.Root().c_str(), nullptr, 0, nullptr, nullptr, nullptr, nullptr, 0))
        return true;
    TraceLastError(kFn, ::GetLastError(), L"GetVolumeInformation failed");
    LogStdMsg(MSG_SEVERITY_ERROR, IDS_RESTORE_DRIVE_FAILED);
    return EndRestore(L"...ending(Destination drive letter / mount directory not found)");
}

// The host hears that the restore starts: the message, then the progress record's start and the
// counting text.
void KEFLImpl::AnnounceRestore(const Filespace& fs, bool bMountPoint, ProgMsg& progress)
{
    if (bMountPoint)
        LogVarMsg(MSG_SEVERITY_INFO, IDS_RESTORING_MOUNT, fs.sFsMountDir.c_str());
    else
        LogVarMsg(MSG_SEVERITY_INFO, IDS_RESTORING_DRIVE, fs.wcFsDriveLetter);
    progress.sPath = fs.sFsPath;
    progress.wcDriveLetter = fs.wcFsDriveLetter;
    progress.uiState = PROG_STATE_STARTING;
    m_channel.ReportProgress(progress);
    if (m_channel.Module())
    {
        progress.sText = m_channel.Text(IDS_COUNTING_OBJECTS);
        progress.uiState = PROG_STATE_TEXT;
        m_channel.ReportProgress(progress);
    }
}

// Parents come before their children in the walk, so each folder exists before its content: the
// folders are made here, in walk order, and each file goes to a worker. A failing entry is noted
// and the walk goes on: as much as possible is restored. The paths are built into two buffers that
// keep their size from entry to entry. Answers whether any entry failed.
bool KEFLImpl::RestoreEntries(const CWalkList& walk, const CFilespaceFolders& folders, uint32_t uiThreads,
                              CCheckpoints& checkpoints, ProgMsg& progress)
{
    const wchar_t* const kFn = kRestoreFilespace;
    CRestoreProgress reporter(progress, m_channel, walk.ullBytes);
    std::wstring sSrc;
    std::wstring sDst;
    int64_t llSkippedFiles = 0;
    int64_t llSkippedFolders = 0;
    {
        // Only what was whole on the disk at the volume's last checkpoint may be kept.
        const std::vector<bool> vKept =
            SkipUnchanged() ? KeptFiles(walk, folders.sDst, CCheckpoints::TrustedBefore(folders.Root()))
                            : std::vector<bool>(walk.Size(), false);
        CCopyWorkers workers(uiThreads,
                             [&reporter, &checkpoints]
                             {
                                 reporter.Report();
                                 checkpoints.Due(reporter.BytesDone());
                             });
        for (uint32_t uiEntry = 0; uiEntry < walk.Size(); ++uiEntry)
        {
            const CWalkEntry& entry = walk.Entry(uiEntry);
            sDst.assign(folders.sDst);
            walk.AppendPath(uiEntry, sDst);
            if (entry.IsDirectory())
            {
                g_KeflTrace.TraceValue(TRACE_INFO, kFn, words::kDst, sDst);
                const bool bSkipped = IsLeftOutByRule(sDst, true);
                llSkippedFolders += bSkipped ? 1 : 0;
                reporter.EntryDone(bSkipped || CreateFolder(sDst));
            }
            else if (IsLeftOutByRule(sDst, false))
            {
                g_KeflTrace.TraceValue(TRACE_INFO, kFn, words::kDst, sDst);
                // Counted, but left out by rule: what will be restored is the total.
                reporter.Skipped(entry.ullSize);
                reporter.EntryDone(true);
                ++llSkippedFiles;
            }
            else
            {
                sSrc.assign(folders.sSrc);
                walk.AppendPath(uiEntry, sSrc);
                workers.Submit([this, &reporter, entry, sSrc, sDst, bKept = vKept[uiEntry]]
                               { RestoreFile(sSrc, sDst, entry, bKept, reporter); });
            }
            checkpoints.Due(reporter.BytesDone());
        }
        workers.Finish();
    }
    // Left out by rule (the recycle bins, System Volume Information, the paging and hibernation
    // files): counted by the walk, not restored, and no failure.
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, words::kWalkSkippedFiles, llSkippedFiles);
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, words::kWalkSkippedFolders, llSkippedFolders);
    return reporter.AnyFailed();
}

bool KEFLImpl::RestoreFilespace(Filespace& fs)
{
    const wchar_t* const kFn = kRestoreFilespace;
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    CFilespaceFolders folders;
    if (!ResolveFolders(fs, folders))
        return false;
    ProgMsg progress{};
    AnnounceRestore(fs, folders.bMountPoint, progress);

    // With these two enabled, backup semantics read files and list folders whose access lists
    // would refuse this account; without them the restore goes on with what it can read.
    for (const wchar_t* pwszPrivilege : {L"SeBackupPrivilege", L"SeRestorePrivilege"})
    {
        if (!SetPrivilege(pwszPrivilege, true))
            g_KeflTrace.TraceValue(TRACE_WARNING, kFn, L"Privilege not enabled", std::wstring(pwszPrivilege));
    }

    // Until the walk has handed over every file, the link pass takes none of this filespace's
    // files as restored: a walk stopped by an exception leaves files neither copied nor failed.
    m_unrestored.WalkBegins(folders.sDst);
    const uint32_t uiThreads = RestoreThreads();
    CWalkList walk;
    if (!WalkFilespace(folders.sSrc, walk, uiThreads))
    {
        progress.uiState = PROG_STATE_FAILED;
        m_channel.ReportProgress(progress);
        LogStdMsg(MSG_SEVERITY_ERROR, IDS_COUNT_OBJECTS_FAILED);
        return EndRestore(L"... ending(CountFiles failed)");
    }
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, words::kWalkFiles, static_cast<int64_t>(walk.ullFiles));
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, words::kWalkFolders, static_cast<int64_t>(walk.ullDirectories));
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"walk.ullBytes", static_cast<int64_t>(walk.ullBytes));
    CCheckpoints checkpoints(folders.Root(), CheckpointPolicy());
    const bool bFailed = RestoreEntries(walk, folders, uiThreads, checkpoints, progress);
    m_unrestored.WalkEnded(folders.sDst);
    RestoreFolderTimes(walk, folders.sDst);
    checkpoints.Final();

    if (bFailed)
    {
        LogStdMsg(MSG_SEVERITY_ERROR, IDS_RESTORE_DRIVE_FAILED);
        return EndRestore(L"... ending(failed to copy one or more files)");
    }
    if (folders.bMountPoint)
        LogVarMsg(MSG_SEVERITY_INFO, IDS_RESTORED_MOUNT, fs.sFsMountDir.c_str());
    else
        LogVarMsg(MSG_SEVERITY_INFO, IDS_RESTORED_DRIVE, fs.wcFsDriveLetter);
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return true;
}

bool KEFLImpl::SkipUnchanged()
{
    const bool bSkipUnchanged = g_KeflTrace.ReadSetting(L"KEFL_SkipUnchanged", 0) == 1;
    g_KeflTrace.TraceValue(TRACE_INFO, kRestoreFilespace, L"bSkipUnchanged", bSkipUnchanged);
    return bSkipUnchanged;
}

uint32_t KEFLImpl::RestoreThreads()
{
    const uint32_t uiSetting = g_KeflTrace.ReadSetting(L"KEFL_RestoreThreads", CCopyWorkers::kDefaultWorkers);
    const uint32_t uiThreads =
        uiSetting >= 1 && uiSetting <= CCopyWorkers::kMaxWorkers ? uiSetting : CCopyWorkers::kDefaultWorkers;
    g_KeflTrace.TraceValue(TRACE_INFO, kRestoreFilespace, L"uiRestoreThreads",
                           static_cast<int64_t>(uiThreads));
    return uiThreads;
}

CCheckpoints::CPolicy KEFLImpl::CheckpointPolicy()
{
    // By default every 30 seconds or every GiB, whichever comes first: after a power cut a resume
    // copies again at most what those took, and a flush that often costs a restore next to nothing.
    const uint32_t uiMB = g_KeflTrace.ReadSetting(L"KEFL_CheckpointMB", 1024);
    const uint32_t uiSeconds = g_KeflTrace.ReadSetting(L"KEFL_CheckpointSeconds", 30);
    const CCheckpoints::CPolicy policy{(uiMB > 0 ? uiMB : 1024) * uint64_t{1} << 20, uiSeconds > 0 ? uiSeconds : 30};
    g_KeflTrace.TraceValue(TRACE_INFO, kRestoreFilespace, L"uiCheckpointMB", static_cast<int64_t>(policy.ullBytes >> 20));
    g_KeflTrace.TraceValue(TRACE_INFO, kRestoreFilespace, L"uiCheckpointSeconds",
                           static_cast<int64_t>(policy.ullSeconds));
    return policy;
}

void KEFLImpl::RestoreFile(const std::wstring& sSrc, const std::wstring& sDst, const CWalkEntry& entry, bool bKept,
                           CRestoreProgress& progress)
{
    const wchar_t* const kFn = kRestoreFilespace;
    if (bKept)
    {
        // Restored already, by an earlier run: its bytes count as done, and the backup's copy is
        // neither opened nor read.
        g_KeflTrace.TraceValue(TRACE_INFO, kFn, words::kKeptUnchanged, sDst);
        m_unrestored.Restored(sDst);
        progress.Read(entry.ullSize, 0);
        progress.EntryDone(true);
        return;
    }
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, words::kDst, sDst);
    // A file that runs out of memory fails alone, recorded as not restored; the walk goes on.
    const bool bCopied = CatchAtEdge(
        [&]
        { return CopyFileWithProgress(LongPath(sSrc), LongPath(sDst), entry, progress); },
        [](const CEdgeFailure& failure)
        {
            TraceFailedAtEdge(kCopyFile, failure);
            return false;
        });
    if (!bCopied)
    {
        g_KeflTrace.TraceValue(TRACE_ERROR, kFn, words::kDst, sDst);
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, words::kFileFailed);
        m_unrestored.Failed(sDst);
    }
    else
        m_unrestored.Restored(sDst);
    progress.EntryDone(bCopied);
}

bool KEFLImpl::CopyFileWithProgress(const std::wstring& sSrc, const std::wstring& sDst,
                                    const CWalkEntry& entry, CRestoreProgress& progress)
{
    const wchar_t* const kFn = kCopyFile;
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    DWORD dwLastError = ERROR_SUCCESS;
    CUniqueFile hSrc = OpenSource(sSrc, dwLastError);
    if (!hSrc)
    {
        TraceLastError(kFn, dwLastError);
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L".. ending(Failed to open source file for reading)");
        return false;
    }
    CUniqueFile hDst = OpenDestination(sDst, dwLastError);
    if (!hDst)
    {
        TraceLastError(kFn, dwLastError);
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L".. ending(Failed to open destination file for writing)");
        return false;
    }

    // One buffer per file copied: an allocation next to two opens and a close is not worth
    // keeping between calls.
    std::vector<BYTE> vBuffer;
    try
    {
        vBuffer.resize(kCopyBufferBytes);
    }
    catch (const std::bad_alloc&)
    {
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L".. ending(Memory allocation error)");
        return false;
    }
    CCopyTotals totals;
    bool bResult = CopyStreams(hSrc.get(), hDst.get(), vBuffer.data(), entry, progress, totals);
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"dwTotalBytesRead", static_cast<int64_t>(totals.ullRead));
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"dwTotalBytesWritten", static_cast<int64_t>(totals.ullWritten));
    if (bResult && totals.ullRead != totals.ullWritten)
    {
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Bytes Read != Bytes Written)");
        bResult = false;
    }
    // Times and attributes through the open handle, after the last write, so that closing it
    // keeps them; only on a whole copy, so that a resume never takes a failed one for restored.
    if (bResult)
        RestoreMetadata(kFn, hDst.get(), sDst, entry);
    if (!CloseDestination(hDst, dwLastError))
    {
        TraceLastError(kFn, dwLastError);
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"Failed to close destination file");
        if (bResult)
            MarkUnfinished(sDst);
        return false;
    }
    if (bResult)
        g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return bResult;
}

} // namespace morvane
