#include "trace/CTrace.h"

#include "platform/ModulePath.h"
#include "platform/WindowsVersion.h"
#include "trace/TraceText.h"
#include "platform/FormatText.h"
#include "trace/TraceWords.h"
#include "platform/Utf8.h"
#include "rules/TraceFiles.h"

#include <shlwapi.h>
#include <winsock2.h>

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <optional>
#include <vector>

namespace morvane
{
namespace
{

// Another writer holding the log for a whole minute is stuck; its line wins, ours is dropped.
constexpr DWORD kMutexWaitMs = 60000;
// Once a wait has timed out: a line tries the mutex and is dropped when it is taken.
constexpr DWORD kStuckWaitMs = 0;
// Where the host is installed on the recovery system; used when the host's own path is unknown.
constexpr wchar_t kDefaultModuleDir[] = L"X:\\Program Files\\Morvane\\DURN\\";

constexpr uint64_t kMiB = 1024ull * 1024;
// The default size limit: a quarter of the log volume's free space, at most 256 MiB, at least
// 1 MiB (a smaller log would not show even one restore).
constexpr uint64_t kMaxDefaultLimitMiB = 256;
constexpr uint32_t kLinesPerMeasure = 100;
constexpr uint32_t kAllLevels = ~0u;

// The writer writes the queue every quarter of a second, at once when it passes kWakeBytes (a restore
// makes about that much in a tenth of a second); past kMaxQueuedBytes the thread that adds a line
// writes the queue itself, so that a writer that cannot keep up never lets it grow without end.
constexpr DWORD kWriterPeriodMs = 250;
constexpr size_t kWakeBytes = size_t{64} * 1024;
constexpr size_t kMaxQueuedBytes = size_t{1024} * 1024;
// A writer without lines for a second ends, giving the library back.
constexpr DWORD kWriterIdleMs = 1000;
// How long the end of a session waits for the writer to end: it may be waiting for the mutex.
constexpr DWORD kWriterStopWaitMs = 5000;
// At process exit a thread may have been ended holding the queue's lock: the lines are then left.
constexpr DWORD kDyingLockMs = 100;

const wchar_t* MarkerFor(uint32_t uiLevel)
{
    switch (uiLevel)
    {
    case TRACE_ERROR:
        return L":[E]: ";
    case TRACE_WARNING:
        return L":[W]: ";
    case TRACE_INFO:
        return L":[I]: ";
    case TRACE_VERBOSE:
        return L":[V]: ";
    default:
        return L"";
    }
}

uint64_t DefaultSizeLimit(const std::wstring& sLogDir)
{
    ULARGE_INTEGER uliFree;
    if (!::GetDiskFreeSpaceExW(sLogDir.c_str(), &uliFree, nullptr, nullptr))
        return kMaxDefaultLimitMiB * kMiB;
    return std::clamp<uint64_t>(uliFree.QuadPart / 4 / kMiB, 1, kMaxDefaultLimitMiB) * kMiB;
}

// Appends sLine to the open file; answers the bytes written.
uint64_t AppendToFile(HANDLE hFile, const std::string& sLine)
{
    DWORD cbWritten = 0;
    ::WriteFile(hFile, sLine.data(), static_cast<DWORD>(sLine.size()), &cbWritten, nullptr);
    return cbWritten;
}

// A line is made of strings; when there is no memory for them, the line is dropped like one that
// cannot be written; a line below the level is not made at all. Tracing never throws: it is called from
// failure paths, destructors and the command monitor's thread, where an exception would end the process.
template <class MakeLine> void DropUnmadeLine(bool bOn, MakeLine makeLine) noexcept
{
    if (!bOn)
        return;
    try
    {
        makeLine();
    }
    catch (...) // NOLINT(bugprone-empty-catch): the line is given up, nothing else is
    {
    }
}

} // namespace

class CTrace::CQueueLock
{
public:
    explicit CQueueLock(SRWLOCK& lock) : m_pLock(&lock) { ::AcquireSRWLockExclusive(m_pLock); }
    // Tries for up to dwMs: IsHeld says whether it got the lock.
    CQueueLock(SRWLOCK& lock, DWORD dwMs)
    {
        for (DWORD dwWaited = 0; !::TryAcquireSRWLockExclusive(&lock); ++dwWaited)
        {
            if (dwWaited >= dwMs)
                return;
            ::Sleep(1);
        }
        m_pLock = &lock;
    }
    ~CQueueLock()
    {
        if (m_pLock)
            ::ReleaseSRWLockExclusive(m_pLock);
    }
    CQueueLock(const CQueueLock&) = delete;
    CQueueLock& operator=(const CQueueLock&) = delete;

    bool IsHeld() const { return m_pLock != nullptr; }

private:
    SRWLOCK* m_pLock = nullptr;
};

class CTrace::CLock
{
public:
    explicit CLock(CTrace& trace) : m_hMutex(trace.m_hMutex.get())
    {
        if (!m_hMutex)
            return;
        // One stuck writer must not cost every line a minute: after a timeout, lines only try.
        const bool bStuck = trace.m_bLockStuck.load(std::memory_order_relaxed);
        const DWORD dwWait = ::WaitForSingleObject(m_hMutex, bStuck ? kStuckWaitMs : kMutexWaitMs);
        // Abandoned: a writer died holding the mutex, which is now ours. Lines are written whole or
        // not at all, so the log is whole and goes on.
        m_bHeld = dwWait == WAIT_OBJECT_0 || dwWait == WAIT_ABANDONED;
        if (m_bHeld)
            trace.m_bLockStuck.store(false, std::memory_order_relaxed);
        else if (dwWait == WAIT_TIMEOUT)
            trace.m_bLockStuck.store(true, std::memory_order_relaxed);
    }
    ~CLock()
    {
        if (m_bHeld)
            ::ReleaseMutex(m_hMutex);
    }
    CLock(const CLock&) = delete;
    CLock& operator=(const CLock&) = delete;

    bool IsHeld() const { return m_bHeld; }

private:
    HANDLE m_hMutex;
    bool m_bHeld = false;
};

CTrace::CTrace(const wchar_t* pwszFileName, const wchar_t* pwszLevelKey, const wchar_t* pwszMaxMBKey,
               const wchar_t* pwszEachLineKey)
    : m_sFileName(pwszFileName), m_sLevelKey(pwszLevelKey), m_sMaxMBKey(pwszMaxMBKey ? pwszMaxMBKey : L""),
      m_sEachLineKey(pwszEachLineKey ? pwszEachLineKey : L"")
{
    CLastErrorGuard keepError;
    m_hMutex.reset(::CreateMutexW(nullptr, FALSE, m_sFileName.c_str()));
    // Without it no writer runs, and every line is written at once.
    m_hWake.reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));

    // This class's own: no derived class exists yet while it is being made.
    std::wstring sLogDir;
    CTrace::GetLogDirectory(sLogDir);
    m_sFilePath = sLogDir + L"\\" + m_sFileName;
    StartNewGeneration();
    // Measured once, after the previous generation took its space.
    m_cbDefaultLimit = DefaultSizeLimit(sLogDir);
    m_cbLimit.store(m_cbDefaultLimit, std::memory_order_relaxed);

    // Recorded only now: the log directory above is always resolved from the host's folder.
    m_uiOSCode = CWindowsVersion::Instance().GetCode();
}

CTrace::~CTrace()
{
    CLastErrorGuard keepError;
    bool bWriterRuns = false;
    {
        const CQueueLock lock(m_queueLock, kDyingLockMs);
        if (!lock.IsHeld())
            return;
        // From here every line is written at once, and a writer ends.
        m_bClosed = true;
        m_bQueueing = false;
        bWriterRuns = m_bWriterRunning;
    }
    Flush();
    // Only where this object dies with the writer still at work: a test's own trace, or the
    // program's at its exit. In DllMain none can be (a writer holds the library loaded), except the
    // writer itself, ending the library as it ends, and the writers that process exit has ended
    // (their handles are signalled, and a wait that is not is cut short).
    if (bWriterRuns && m_hWriter && m_dwWriterId != ::GetCurrentThreadId())
    {
        ::SetEvent(m_hWake.get());
        ::WaitForSingleObject(m_hWriter.get(), kWriterStopWaitMs);
    }
}

void CTrace::StartNewGeneration()
{
    if (!::PathFileExistsW(m_sFilePath.c_str()))
        return;
    // Under the mutex, so that the previous generation holds every line written before and the new
    // one every line after. A log that stays held for the whole wait is left as it is: this load's
    // lines follow the earlier ones, where emptying it under a writer could lose that writer's lines.
    const CLock lock(*this);
    if (!lock.IsHeld())
        return;
    const size_t posDot = m_sFilePath.rfind(L'.');
    const std::wstring sOldPath =
        (posDot == std::wstring::npos ? m_sFilePath : m_sFilePath.substr(0, posDot)) + L".old";
    // Kept as it is if it could not be copied: its lines are worth more than a fresh start.
    if (!::CopyFileW(m_sFilePath.c_str(), sOldPath.c_str(), FALSE))
        return;
    // Emptied, not deleted: writers open the file before they wait for the mutex, and a line
    // written through a handle of a deleted file would be lost. Appended to the emptied file, it
    // lands at its start.
    const CUniqueFile hFile(::CreateFileW(m_sFilePath.c_str(), GENERIC_WRITE,
                                          FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                          TRUNCATE_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
}

void CTrace::GetModuleDirectory(std::wstring& sModuleDir)
{
    CLastErrorGuard keepError;
    std::wstring sPath;
    DWORD dwLastError = 0;
    if (!GetModulePath(nullptr, sPath, dwLastError))
        sPath = kDefaultModuleDir;
    const size_t posSlash = sPath.rfind(L'\\');
    if (posSlash != std::wstring::npos)
        sPath.resize(posSlash);
    sModuleDir = std::move(sPath);
}

void CTrace::GetLogDirectory(std::wstring& sLogDir)
{
    if (m_sLogDir.empty())
    {
        CLastErrorGuard keepError;
        std::wstring sModuleDir;
        // Also reached from the constructor, where this class's own is the one meant.
        GetModuleDirectory(sModuleDir); // NOLINT(clang-analyzer-optin.cplusplus.VirtualCall)
        m_sLogDir = LogFolder(sModuleDir, m_uiOSCode);
        if (!::PathFileExistsW(m_sLogDir.c_str()))
            ::CreateDirectoryW(m_sLogDir.c_str(), nullptr);
    }
    sLogDir = m_sLogDir;
}

bool CTrace::SetLogDirectory(const std::wstring& sLogDir)
{
    CLastErrorGuard keepError;
    if (!::PathIsDirectoryW(sLogDir.c_str()))
        return false;
    // The lines made so far go to the old file.
    Flush();
    // Held (if it can be) so that no line goes to the new file with the old file's size.
    const CLock lock(*this);
    std::wstring sFilePath = sLogDir + L"\\" + m_sFileName;
    const CQueueLock queueLock(m_queueLock);
    m_sLogDir = sLogDir;
    m_sFilePath.swap(sFilePath);
    RestartSizeLimit();
    return true;
}

void CTrace::SetTraceLevel(uint32_t uiLevel)
{
    // Settings 0 to 4 select a mask; anything else keeps the current one, which is how a
    // missing key (read as 5) keeps the default.
    static const uint32_t kMasks[] = {0, TRACE_ERROR, TRACE_ERROR | TRACE_WARNING,
                                      TRACE_ERROR | TRACE_WARNING | TRACE_INFO,
                                      TRACE_ERROR | TRACE_WARNING | TRACE_INFO | TRACE_VERBOSE};
    if (uiLevel < sizeof(kMasks) / sizeof(kMasks[0]))
        m_uiMask.store(kMasks[uiLevel], std::memory_order_relaxed);
}

std::wstring CTrace::TraceIniPath()
{
    std::wstring sModuleDir;
    if (m_uiOSCode != OSCODE_WINPE_52)
        GetModuleDirectory(sModuleDir);
    return morvane::TraceIniPath(sModuleDir, m_uiOSCode);
}

void CTrace::ReadTraceLevel()
{
    CLastErrorGuard keepError;
    // The lines made before are judged by the limit they were made under.
    Flush();
    const std::wstring sIniPath = TraceIniPath();
    SetTraceLevel(::GetPrivateProfileIntW(L"Main", m_sLevelKey.c_str(), 5, sIniPath.c_str()));
    // A missing key or 0 keeps the default limit.
    const uint64_t uiMaxMB =
        m_sMaxMBKey.empty() ? 0 : ::GetPrivateProfileIntW(L"Main", m_sMaxMBKey.c_str(), 0, sIniPath.c_str());
    m_cbLimit.store(uiMaxMB != 0 ? uiMaxMB * kMiB : m_cbDefaultLimit, std::memory_order_relaxed);
    m_bEachLine.store(!m_sEachLineKey.empty() &&
                          ::GetPrivateProfileIntW(L"Main", m_sEachLineKey.c_str(), 0, sIniPath.c_str()) == 1,
                      std::memory_order_relaxed);
    // Each session starts the limit again: a larger limit lets information lines through again,
    // and a log still past its limit says so once more, in this session's lines. The counts belong
    // to whoever holds the mutex; without it they stay as they are.
    const CLock lock(*this);
    if (lock.IsHeld())
        RestartSizeLimit();
}

void CTrace::SetTraceDirectory(const std::wstring& sTraceDir, uint32_t uiLevel)
{
    if (sTraceDir.empty())
        return;
    CLastErrorGuard keepError;
    SetTraceLevel(uiLevel);
    // The lines made so far go to the old file.
    Flush();
    const CLock lock(*this);
    std::wstring sFilePath = sTraceDir + L"\\" + m_sFileName;
    {
        const CQueueLock queueLock(m_queueLock);
        m_sFilePath.swap(sFilePath);
    }
    ::DeleteFileW(m_sFilePath.c_str());
    RestartSizeLimit();
}

bool CTrace::ResetTraceFile()
{
    CLastErrorGuard keepError;
    const CLock lock(*this);
    if (!lock.IsHeld())
        return false;
    {
        // The lines made before the reset would be emptied with the file: they are dropped.
        const CQueueLock queueLock(m_queueLock);
        m_sQueued.clear();
        m_vQueued.clear();
    }
    CUniqueFile hFile(::CreateFileW(m_sFilePath.c_str(), GENERIC_WRITE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    RestartSizeLimit();
    return true;
}

uint32_t CTrace::GetTraceMask()
{
    return m_uiMask.load(std::memory_order_relaxed);
}

void CTrace::RestartSizeLimit()
{
    m_cbFile = 0;
    m_cLinesToMeasure = 0;
    m_uiLimitMask.store(kAllLevels, std::memory_order_relaxed);
}

void CTrace::MeasureNowAndThen(HANDLE hFile, size_t cLines)
{
    // Other processes append too: the file is asked for its size before a write once this object
    // has written 100 lines since it last asked, and in between this object adds what it writes.
    if (m_cLinesToMeasure == 0)
    {
        LARGE_INTEGER liSize;
        if (::GetFileSizeEx(hFile, &liSize))
            m_cbFile = static_cast<uint64_t>(liSize.QuadPart);
        m_cLinesToMeasure = kLinesPerMeasure;
    }
    m_cLinesToMeasure -= static_cast<uint32_t>(std::min<size_t>(m_cLinesToMeasure, cLines));
}

bool CTrace::WithinSizeLimit(uint32_t uiLimitLevel, std::string& sOut)
{
    const uint64_t cbLimit = m_cbLimit.load(std::memory_order_relaxed);
    if (m_cbFile >= 2 * cbLimit)
    {
        m_uiLimitMask.store(0, std::memory_order_relaxed);
        return false;
    }
    if (m_cbFile >= cbLimit && m_uiLimitMask.load(std::memory_order_relaxed) == kAllLevels)
    {
        m_uiLimitMask.store(TRACE_ERROR | TRACE_WARNING, std::memory_order_relaxed);
        if (!IsOn(TRACE_WARNING))
            return (uiLimitLevel & (TRACE_ERROR | TRACE_WARNING)) != 0;
        std::string sLine;
        AppendPrefix(sLine, TRACE_WARNING);
        std::wstring sText = std::wstring(words::kTraceLimitFunction) + L" : " + words::kTraceLimitReached +
                             std::to_wstring(cbLimit / kMiB) + words::kTraceLimitConsequence;
        sText += kTraceLineEnd;
        sLine += ToUtf8(sText);
        sOut += sLine;
        m_cbFile += sLine.size();
    }
    return (m_uiLimitMask.load(std::memory_order_relaxed) & uiLimitLevel) != 0;
}

void CTrace::AppendPrefix(std::string& sLine, uint32_t uiLevel)
{
    // The prefix is ASCII: its characters are its UTF-8 bytes.
    std::wstring sPrefix;
    SYSTEMTIME st;
    ::GetLocalTime(&st);
    AppendTimestamp(sPrefix, st);
    sPrefix.push_back(L':');
    AppendHex(sPrefix, ::GetCurrentThreadId(), m_bUpperHex.load(std::memory_order_relaxed), 4);
    sPrefix += MarkerFor(uiLevel);
    for (wchar_t wc : sPrefix)
        sLine.push_back(static_cast<char>(wc));
}

void CTrace::WriteLine(uint32_t uiLevel, std::wstring_view sText, bool bRaw)
{
    CLastErrorGuard keepError;
    // A banner (level 0) stops with the information lines. Stopped levels cost no system call.
    const uint32_t uiLimitLevel = uiLevel != 0 ? uiLevel : TRACE_INFO;
    if (!m_hMutex || (m_uiLimitMask.load(std::memory_order_relaxed) & uiLimitLevel) == 0)
        return;
    // Made before any lock; queued in the order of all lines; written by the writer, or now.
    if (QueueLine(uiLevel, ToUtf8(sText), bRaw))
        (void)WriteQueue();
}

bool CTrace::QueueLine(uint32_t uiLevel, std::string_view sBody, bool bRaw)
{
    const uint32_t uiLimitLevel = uiLevel != 0 ? uiLevel : TRACE_INFO;
    bool bNow = false;
    bool bWake = false;
    bool bStart = false;
    {
        const CQueueLock lock(m_queueLock);
        const size_t cbBefore = m_sQueued.size();
        try
        {
            // The prefix is made under the lock, so that the times in the file run in order.
            if (!bRaw)
                AppendPrefix(m_sQueued, uiLevel);
            m_sQueued += sBody;
            m_vQueued.push_back({uiLimitLevel, static_cast<uint32_t>(m_sQueued.size() - cbBefore)});
        }
        catch (...)
        {
            m_sQueued.resize(cbBefore); // no part of a line stays behind
            throw;
        }
        // An error or warning is in the file before its call goes on: the call may be the last
        // the process makes.
        bNow = (uiLevel & (TRACE_ERROR | TRACE_WARNING)) != 0 || !m_bQueueing ||
               m_bEachLine.load(std::memory_order_relaxed) || m_sQueued.size() >= kMaxQueuedBytes;
        bWake = cbBefore < kWakeBytes && m_sQueued.size() >= kWakeBytes;
        bStart = !bNow && !m_bWriterRunning;
        m_bWriterRunning = m_bWriterRunning || bStart;
    }
    if (bWake)
        ::SetEvent(m_hWake.get());
    if (bStart && !StartWriter())
        bNow = true;
    return bNow;
}

void CTrace::Flush() noexcept
{
    CLastErrorGuard keepError;
    (void)WriteQueue();
}

bool CTrace::WriteQueue() noexcept
{
    bool bHadLines = false;
    // Without memory for the path or the output the lines are dropped, as unwritable ones are.
    DropUnmadeLine(true, [&] { bHadLines = TakeAndWriteQueue(); });
    return bHadLines;
}

bool CTrace::TakeAndWriteQueue()
{
    std::wstring sPath;
    {
        const CQueueLock lock(m_queueLock);
        if (m_vQueued.empty())
        {
            // Lines another thread took (the writer) are in the file before a flush returns: its
            // call's lines, an error line among them, may be in that batch.
            const ULONGLONG ullStart = ::GetTickCount64();
            while (m_cBatchesTaken > 0 && ::GetTickCount64() - ullStart < kWriterStopWaitMs)
                ::SleepConditionVariableSRW(&m_cvBatchWritten, &m_queueLock, kWriterStopWaitMs, 0);
            return false;
        }
        sPath = m_sFilePath;
    }
    // Opened before the lock and closed after it (an append lands at the end however long ago the
    // file was opened): other writers wait only for the write.
    const CUniqueFile hFile(::CreateFileW(sPath.c_str(), FILE_APPEND_DATA,
                                          FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                          OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    // A file that cannot be opened, or a mutex that cannot be had (held past the wait, or the wait
    // failed), drops the lines.
    std::optional<CLock> lock;
    if (hFile)
        lock.emplace(*this);
    // Taken under the mutex: whoever writes next in this process writes later lines.
    std::string sQueued;
    std::vector<CQueuedLine> vQueued;
    {
        const CQueueLock queueLock(m_queueLock);
        sQueued.swap(m_sQueued);
        vQueued.swap(m_vQueued);
        ++m_cBatchesTaken;
    }
    const CScopeExit written(
        [this]
        {
            const CQueueLock queueLock(m_queueLock);
            --m_cBatchesTaken;
            ::WakeAllConditionVariable(&m_cvBatchWritten);
        });
    if (lock && lock->IsHeld())
        WriteQueued(hFile.get(), sQueued, vQueued);
    return true;
}

void CTrace::WriteQueued(HANDLE hFile, const std::string& sQueued, const std::vector<CQueuedLine>& vQueued)
{
    // Each line is judged by the size limit as it would be written alone, the lines before it
    // counted as written.
    MeasureNowAndThen(hFile, vQueued.size());
    std::string sOut;
    sOut.reserve(sQueued.size());
    size_t posLine = 0;
    for (const CQueuedLine& line : vQueued)
    {
        if (WithinSizeLimit(line.uiLimitLevel, sOut))
        {
            sOut.append(sQueued, posLine, line.cbLine);
            m_cbFile += line.cbLine;
        }
        posLine += line.cbLine;
    }
    // Counted as written until now; only what was written stays counted.
    m_cbFile -= sOut.size() - AppendToFile(hFile, sOut);
}

bool CTrace::StartWriter() noexcept
{
    const CQueueLock life(m_writerLifeLock);
    // The previous writer has let go of the queue and is ending.
    if (m_hWriter)
        ::WaitForSingleObject(m_hWriter.get(), kWriterStopWaitMs);
    m_hWriter.reset();
    // The writer holds the library loaded with a reference of its own, given back as it ends, so
    // that a host's FreeLibrary never takes away the code it runs.
    HMODULE hModule = nullptr;
    DWORD dwWriterId = 0;
    if (::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&WriterMain),
                             &hModule))
    {
        m_hWriterModule = hModule;
        m_hWriter.reset(::CreateThread(nullptr, 0, &WriterMain, this, 0, &dwWriterId));
        if (!m_hWriter)
            ::FreeLibrary(hModule);
    }
    m_dwWriterId = dwWriterId;
    if (m_hWriter)
        return true;
    const CQueueLock lock(m_queueLock);
    m_bWriterRunning = false;
    return false;
}

DWORD WINAPI CTrace::WriterMain(void* pvTrace)
{
    auto* pTrace = static_cast<CTrace*>(pvTrace);
    const HMODULE hModule = pTrace->m_hWriterModule;
    pTrace->RunWriter();
    // The trace may be gone from here on. The library is given back and the thread ends in one
    // call: its last reference may go here, and no code of the library runs after it.
    ::FreeLibraryAndExitThread(hModule, 0);
    return 0;
}

void CTrace::RunWriter() noexcept
{
    DWORD dwIdleMs = 0;
    for (;;)
    {
        ::WaitForSingleObject(m_hWake.get(), kWriterPeriodMs);
        dwIdleMs = WriteQueue() ? 0 : dwIdleMs + kWriterPeriodMs;
        const CQueueLock lock(m_queueLock);
        // A line queued since keeps it going; once it is marked ended, the next line starts another.
        if (m_vQueued.empty() && (!m_bQueueing || dwIdleMs >= kWriterIdleMs))
        {
            m_bWriterRunning = false;
            return;
        }
    }
}

void CTrace::StartQueue() noexcept
{
    const CQueueLock lock(m_queueLock);
    // Without a way to wake the writer, none runs.
    m_bQueueing = !m_bClosed && m_hWake;
}

void CTrace::StopQueue() noexcept
{
    CLastErrorGuard keepError;
    {
        const CQueueLock lock(m_queueLock);
        m_bQueueing = false;
    }
    Flush();
    const CQueueLock life(m_writerLifeLock);
    if (m_hWriter && m_dwWriterId != ::GetCurrentThreadId())
    {
        ::SetEvent(m_hWake.get());
        // One waiting for a stuck writer's mutex is left to end by itself.
        if (::WaitForSingleObject(m_hWriter.get(), kWriterStopWaitMs) == WAIT_OBJECT_0)
            m_hWriter.reset();
    }
}

std::wstring CTrace::NameText(const wchar_t* pwszFunction, const wchar_t* pwszName)
{
    std::wstring sText(pwszFunction);
    sText += L" : ";
    sText += pwszName;
    return sText;
}

void CTrace::WriteValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                        std::wstring_view sValue)
{
    std::wstring sText = NameText(pwszFunction, pwszName);
    sText += L" = ";
    sText += sValue;
    sText += kTraceLineEnd;
    WriteLine(uiLevel, sText);
}

void CTrace::WriteQuoted(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                         std::wstring_view sValue)
{
    std::wstring sQuoted;
    sQuoted.reserve(sValue.size() + 2);
    sQuoted.push_back(L'"');
    sQuoted += sValue;
    sQuoted.push_back(L'"');
    WriteValue(uiLevel, pwszFunction, pwszName, sQuoted);
}

void CTrace::TraceMessage(uint32_t uiLevel, const wchar_t* pwszFunction, std::wstring_view sMessage) noexcept
{
    DropUnmadeLine(IsOn(uiLevel),
                   [&]
                   {
                       std::wstring sText(pwszFunction);
                       sText += L" : ";
                       sText += sMessage;
                       sText += kTraceLineEnd;
                       WriteLine(uiLevel, sText);
                   });
}

void CTrace::TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                        wchar_t wcValue) noexcept
{
    DropUnmadeLine(IsOn(uiLevel),
                   [&]
                   {
                       std::wstring sValue(L"'");
                       AppendCharEscape(sValue, wcValue);
                       sValue.push_back(L'\'');
                       WriteValue(uiLevel, pwszFunction, pwszName, sValue);
                   });
}

void CTrace::TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                        char cValue) noexcept
{
    DropUnmadeLine(IsOn(uiLevel),
                   [&]
                   {
                       wchar_t wc = L'\0';
                       if (std::mbtowc(&wc, &cValue, 1) < 0)
                           wc = L'?';
                       TraceValue(uiLevel, pwszFunction, pwszName, wc);
                   });
}

void CTrace::TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                        const wchar_t* pwszValue) noexcept
{
    DropUnmadeLine(IsOn(uiLevel),
                   [&] { WriteQuoted(uiLevel, pwszFunction, pwszName, pwszValue ? pwszValue : L"<null>"); });
}

void CTrace::TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                        const char* pszValue) noexcept
{
    DropUnmadeLine(IsOn(uiLevel),
                   [&]
                   {
                       WriteQuoted(uiLevel, pwszFunction, pwszName,
                                   pszValue ? WidenNarrow(pszValue) : std::wstring(L"<null>"));
                   });
}

void CTrace::TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                        const std::wstring& sValue) noexcept
{
    DropUnmadeLine(true, [&] { TraceValue(uiLevel, pwszFunction, pwszName, sValue.c_str()); });
}

void CTrace::TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                        const std::string& sValue) noexcept
{
    DropUnmadeLine(true, [&] { TraceValue(uiLevel, pwszFunction, pwszName, sValue.c_str()); });
}

void CTrace::TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                        std::wstring_view sValue) noexcept
{
    DropUnmadeLine(IsOn(uiLevel), [&] { WriteQuoted(uiLevel, pwszFunction, pwszName, sValue); });
}

void CTrace::TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                        int64_t llValue) noexcept
{
    DropUnmadeLine(IsOn(uiLevel),
                   [&] { WriteValue(uiLevel, pwszFunction, pwszName, std::to_wstring(llValue)); });
}

void CTrace::TraceHex(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                      uint64_t ullValue) noexcept
{
    DropUnmadeLine(IsOn(uiLevel),
                   [&]
                   {
                       std::wstring sValue(L"0x");
                       AppendHex(sValue, ullValue, true);
                       m_bUpperHex.store(true, std::memory_order_relaxed);
                       WriteValue(uiLevel, pwszFunction, pwszName, sValue);
                   });
}

void CTrace::TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                        CTraceBool32 bValue) noexcept
{
    DropUnmadeLine(true, [&] { TraceValue(uiLevel, pwszFunction, pwszName, bValue.bValue != FALSE); });
}

void CTrace::TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                        bool bValue) noexcept
{
    DropUnmadeLine(IsOn(uiLevel),
                   [&] { WriteValue(uiLevel, pwszFunction, pwszName, bValue ? L"true" : L"false"); });
}

void CTrace::TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                        double dValue) noexcept
{
    DropUnmadeLine(IsOn(uiLevel),
                   [&]
                   {
                       wchar_t wszValue[64];
                       (void)FormatInto(wszValue, L"%g",
                                        dValue * 10000.0 /
                                            10000.0); // six significant digits and an exponent fit
                       WriteValue(uiLevel, pwszFunction, pwszName, wszValue);
                   });
}

void CTrace::TraceBytes(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                        const uint8_t* pbData, uint32_t cbData) noexcept
{
    DropUnmadeLine(IsOn(uiLevel),
                   [&]
                   {
                       std::wstring sText = NameText(pwszFunction, pwszName);
                       sText += L" = ";
                       if (pbData)
                           AppendByteDump(sText, pbData, cbData, m_bUpperHex.load(std::memory_order_relaxed));
                       else
                           sText += kTraceLineEnd;
                       WriteLine(uiLevel, sText);
                   });
}

void CTrace::TraceBanner(const std::wstring& sText) noexcept
{
    DropUnmadeLine(true,
                   [&]
                   {
                       if (GetTraceMask() == 0)
                           return;
                       const std::wstring sMiddle = L"** " + sText + L" **";
                       const std::wstring sStars(sMiddle.size(), L'*');
                       std::wstring sBanner(kTraceLineEnd);
                       sBanner += sStars;
                       sBanner += kTraceLineEnd;
                       sBanner += sMiddle;
                       sBanner += kTraceLineEnd;
                       sBanner += sStars;
                       sBanner += kTraceLineEnd;
                       sBanner += kTraceLineEnd;
                       WriteLine(0, sBanner, true);
                   });
}

void CTrace::TraceIPv4(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                       uint32_t uiAddress, bool bHostOrder) noexcept
{
    DropUnmadeLine(IsOn(uiLevel),
                   [&]
                   {
                       in_addr addr;
                       addr.s_addr = bHostOrder ? ::htonl(uiAddress) : uiAddress;
                       const char* pszDotted = ::inet_ntoa(addr);
                       WriteValue(uiLevel, pwszFunction, pwszName,
                                  pszDotted ? WidenNarrow(pszDotted) : std::wstring(L"<invalid>"));
                   });
}

void CTrace::TraceIPv6(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                       const wchar_t* pwszAddress) noexcept
{
    DropUnmadeLine(IsOn(uiLevel),
                   [&]
                   {
                       WriteValue(uiLevel, pwszFunction, pwszName,
                                  NormaliseIPv6(std::wstring_view(pwszAddress ? pwszAddress : L"")));
                   });
}

void CTrace::TraceIPv6(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                       const char* pszAddress) noexcept
{
    DropUnmadeLine(IsOn(uiLevel),
                   [&]
                   {
                       WriteValue(uiLevel, pwszFunction, pwszName,
                                  NormaliseIPv6(std::string_view(pszAddress ? pszAddress : "")));
                   });
}

void CTrace::TraceGuid(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                       const GUID& guid) noexcept
{
    DropUnmadeLine(IsOn(uiLevel),
                   [&]
                   {
                       wchar_t wszGuid[40];
                       // A GUID is 36 characters, always.
                       (void)FormatInto(wszGuid,
                                        L"%8.8X-%4.4X-%4.4X-%2.2X%2.2X-%2.2X%2.2X%2.2X%2.2X%2.2X%2.2X",
                                        static_cast<unsigned>(guid.Data1), guid.Data2, guid.Data3,
                                        guid.Data4[0], guid.Data4[1], guid.Data4[2], guid.Data4[3],
                                        guid.Data4[4], guid.Data4[5], guid.Data4[6], guid.Data4[7]);
                       WriteValue(uiLevel, pwszFunction, pwszName, std::wstring(L"{ ") + wszGuid + L" }");
                   });
}

void CTrace::TraceTime(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                       const SYSTEMTIME& st) noexcept
{
    DropUnmadeLine(IsOn(uiLevel),
                   [&]
                   {
                       wchar_t wszTime[32];
                       // Five-digit fields at most: 29 characters fit.
                       (void)FormatInto(wszTime, L"%2.2u/%2.2u/%4.4u %2.2u:%2.2u:%2.2u", st.wDay, st.wMonth,
                                        st.wYear, st.wHour, st.wMinute, st.wSecond);
                       WriteValue(uiLevel, pwszFunction, pwszName, wszTime);
                   });
}

} // namespace morvane
