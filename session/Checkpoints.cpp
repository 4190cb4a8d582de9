#include "session/Checkpoints.h"

#include "session/VolumeFlush.h"

#include "platform/UniqueHandle.h"
#include "trace/TraceObjects.h"

#include <windows.h>

#include <cstring>

namespace morvane
{
namespace
{

const wchar_t kFn[] = L"KEFLImpl::RestoreFilespace";
constexpr wchar_t kRecordFolder[] = L"System Volume Information";
constexpr wchar_t kRecordName[] = L"KEFL restore checkpoint";
constexpr char kMagic[8] = {'K', 'E', 'F', 'L', 'C', 'K', 'P', '1'};
constexpr uint64_t kCheckKey = 0x9E3779B97F4A7C15ULL;
// How long the file system's clock is waited for to move on: it moves every tick (15.6 ms on
// Windows, a few ms on Linux), so this is never reached unless the clock stands still.
constexpr int kClockWaitMs = 1000;

struct CRecord
{
    char magic[8];
    uint64_t ullTime;
    uint64_t ullCheck;
};
static_assert(sizeof(CRecord) == 24);

std::wstring RecordPath(const std::wstring& sFolder)
{
    return VolumeRoot(sFolder) + kRecordFolder + L"\\" + kRecordName;
}

CUniqueFile OpenRecord(const std::wstring& sFolder)
{
    const std::wstring sRecordFolder = VolumeRoot(sFolder) + kRecordFolder;
    if (::CreateDirectoryW(sRecordFolder.c_str(), nullptr))
        ::SetFileAttributesW(sRecordFolder.c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
    return CUniqueFile(::CreateFileW(RecordPath(sFolder).c_str(), GENERIC_WRITE | FILE_READ_ATTRIBUTES, 0, nullptr,
                                     OPEN_ALWAYS,
                                     FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_FLAG_BACKUP_SEMANTICS |
                                         FILE_FLAG_OPEN_REPARSE_POINT,
                                     nullptr));
}

// The file system's own clock, the one its change times come from: the record is touched and its
// change time read back. 0 when it cannot be.
uint64_t TouchedAt(HANDLE hRecord)
{
    FILETIME ftNow{};
    ::GetSystemTimeAsFileTime(&ftNow);
    FILE_BASIC_INFO basic{};
    if (!::SetFileTime(hRecord, nullptr, nullptr, &ftNow) ||
        !::GetFileInformationByHandleEx(hRecord, FileBasicInfo, &basic, sizeof(basic)))
        return 0;
    return static_cast<uint64_t>(basic.ChangeTime.QuadPart);
}

// A time T such that every file whose change time is at most T was finished before this returned,
// and every file finished after it gets a later change time: the clock is read, then waited for
// until it has moved on. 0 when the clock cannot be read or stands still.
uint64_t CheckpointTime(HANDLE hRecord)
{
    const uint64_t ullTime = TouchedAt(hRecord);
    for (int iWait = 0; ullTime != 0 && iWait < kClockWaitMs; ++iWait)
    {
        if (TouchedAt(hRecord) > ullTime)
            return ullTime;
        ::Sleep(1);
    }
    return 0;
}

// Writes the record in place, without truncating first, and waits for the disk to have it.
bool WriteRecord(HANDLE hRecord, uint64_t ullTime)
{
    CRecord record{};
    std::memcpy(record.magic, kMagic, sizeof(kMagic));
    record.ullTime = ullTime;
    record.ullCheck = ullTime ^ kCheckKey;
    DWORD cbWritten = 0;
    return ::SetFilePointer(hRecord, 0, nullptr, FILE_BEGIN) == 0 &&
           ::WriteFile(hRecord, &record, sizeof(record), &cbWritten, nullptr) && cbWritten == sizeof(record) &&
           ::FlushFileBuffers(hRecord);
}

} // namespace

CCheckpoints::CCheckpoints(const std::wstring& sFolder, const CPolicy& policy)
    : m_sFolder(sFolder), m_policy(policy), m_ullTickAtLast(::GetTickCount64())
{
}

void CCheckpoints::Due(uint64_t ullBytesDone)
{
    if (ullBytesDone - m_ullBytesAtLast < m_policy.ullBytes &&
        ::GetTickCount64() - m_ullTickAtLast < m_policy.ullSeconds * 1000)
        return;
    m_ullBytesAtLast = ullBytesDone;
    Take();
}

void CCheckpoints::Final()
{
    Take();
}

void CCheckpoints::Take()
{
    m_ullTickAtLast = ::GetTickCount64();
    // The time is taken before the flush: a file finished by then is in the cache the flush writes.
    const CUniqueFile hRecord = OpenRecord(m_sFolder);
    const uint64_t ullTime = hRecord ? CheckpointTime(hRecord.get()) : 0;
    const DWORD dwLastError = ::GetLastError();
    if (ullTime == 0)
    {
        g_KeflTrace.TraceValue(TRACE_WARNING, kFn, L"Checkpoint not recorded", RecordPath(m_sFolder));
        TraceLastError(kFn, dwLastError, TRACE_WARNING);
        return;
    }
    if (!FlushVolume(m_sFolder))
        return; // not on the disk: the last record stays the one to trust
    if (WriteRecord(hRecord.get(), ullTime))
    {
        g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"Checkpoint recorded", RecordPath(m_sFolder));
        return;
    }
    const DWORD dwWriteError = ::GetLastError();
    g_KeflTrace.TraceValue(TRACE_WARNING, kFn, L"Checkpoint not recorded", RecordPath(m_sFolder));
    TraceLastError(kFn, dwWriteError, TRACE_WARNING);
}

uint64_t CCheckpoints::TrustedBefore(const std::wstring& sFolder)
{
    const std::wstring sRecord = RecordPath(sFolder);
    const CUniqueFile hRecord(::CreateFileW(sRecord.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                            FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    CRecord record{};
    DWORD cbRead = 0;
    const bool bValid = hRecord && ::ReadFile(hRecord.get(), &record, sizeof(record), &cbRead, nullptr) &&
                        cbRead == sizeof(record) && std::memcmp(record.magic, kMagic, sizeof(kMagic)) == 0 &&
                        record.ullCheck == (record.ullTime ^ kCheckKey);
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, bValid ? L"Checkpoint found" : L"No checkpoint found", sRecord);
    return bValid ? record.ullTime : 0;
}

} // namespace morvane
