#pragma once
// The trace log. One object per log file; lines are written under a system-wide mutex named after
// the file, with the file opened for append and closed again around each write, so that any number
// of threads and processes can share one log without losing or splitting lines. Nothing here ever
// reports an error or throws: a line that cannot be made or written is dropped.
//
// An open, a write and a close cost about 165 microseconds under Wine, more than a small file's
// copy. While a client lives (StartQueue to StopQueue), information and verbose lines therefore
// wait in a queue, in the order they were made, and a writer thread of the object's own writes the
// queue with one open and one write every quarter of a second, or sooner when it grows. An error
// or warning line is written, with everything queued before it, before its call returns; so is
// every line of a host's call when the call returns (FlushTraces). The writer holds the library
// loaded while it runs and ends after a second without lines, or with StopQueue. Outside a client,
// and with trace.ini's each-line setting, every line is written at once, as it always was.
//
// Each file has a size limit, because the log folder may lie on a small RAM disk that the restore
// needs too. At the limit one warning line says so and information and verbose lines stop; error
// and warning lines go on up to twice the limit, and then nothing is written. The size is taken
// from the file itself (other processes append to it too), measured every 100 lines. Reading
// the settings (each client and each session does) starts the limit again.
//
// A writer that holds the mutex for a whole minute is taken to be stuck: after one wait has timed
// out, lines try the mutex without waiting until one of them gets it.
#include "platform/UniqueHandle.h"

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace morvane
{

// Severity levels of a line; the mask holds the levels that are written.
enum : uint32_t
{
    TRACE_ERROR = 1,
    TRACE_WARNING = 2,
    TRACE_INFO = 4,
    TRACE_VERBOSE = 8,
};

// A 32-bit Windows boolean value; a type of its own so that a plain int is never printed as
// "true" or "false" by accident.
struct CTraceBool32
{
    explicit CTraceBool32(BOOL b) : bValue(b) {}
    BOOL bValue;
};

class CTrace
{
public:
    // pwszMaxMBKey names trace.ini's setting of the size limit in MiB; without it the default holds.
    // pwszEachLineKey names the setting that writes every line at once (1); without it lines queue.
    CTrace(const wchar_t* pwszFileName, const wchar_t* pwszLevelKey, const wchar_t* pwszMaxMBKey = nullptr,
           const wchar_t* pwszEachLineKey = nullptr);
    virtual ~CTrace();
    CTrace(const CTrace&) = delete;
    CTrace& operator=(const CTrace&) = delete;

    virtual void GetLogDirectory(std::wstring& sLogDir);
    virtual bool SetLogDirectory(const std::wstring& sLogDir);
    virtual void GetModuleDirectory(std::wstring& sModuleDir);
    virtual void SetTraceLevel(uint32_t uiLevel);
    virtual void ReadTraceLevel();
    virtual void SetTraceDirectory(const std::wstring& sTraceDir, uint32_t uiLevel);
    virtual bool ResetTraceFile();
    virtual uint32_t GetTraceMask();

    virtual void TraceMessage(uint32_t uiLevel, const wchar_t* pwszFunction,
                              std::wstring_view sMessage) noexcept;
    virtual void TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                            wchar_t wcValue) noexcept;
    virtual void TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                            char cValue) noexcept;
    virtual void TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                            const wchar_t* pwszValue) noexcept;
    virtual void TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                            const char* pszValue) noexcept;
    virtual void TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                            const std::wstring& sValue) noexcept;
    virtual void TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                            const std::string& sValue) noexcept;
    virtual void TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                            std::wstring_view sValue) noexcept;
    virtual void TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                            int64_t llValue) noexcept;
    virtual void TraceHex(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                          uint64_t ullValue) noexcept;
    virtual void TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                            CTraceBool32 bValue) noexcept;
    virtual void TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                            bool bValue) noexcept;
    virtual void TraceValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                            double dValue) noexcept;
    virtual void TraceBytes(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                            const uint8_t* pbData, uint32_t cbData) noexcept;
    virtual void TraceBanner(const std::wstring& sText) noexcept;
    virtual void TraceIPv4(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                           uint32_t uiAddress, bool bHostOrder) noexcept;
    virtual void TraceIPv6(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                           const wchar_t* pwszAddress) noexcept;
    virtual void TraceIPv6(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                           const char* pszAddress) noexcept;
    virtual void TraceGuid(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                           const GUID& guid) noexcept;
    virtual void TraceTime(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                           const SYSTEMTIME& st) noexcept;

    // The test that callers make before they build a function or value text; it includes the levels
    // that the size limit has stopped.
    bool IsOn(uint32_t uiLevel) const
    {
        return (m_uiMask.load(std::memory_order_relaxed) & m_uiLimitMask.load(std::memory_order_relaxed) &
                uiLevel) != 0;
    }

    const std::wstring& GetFilePath() const { return m_sFilePath; }

    // From StartQueue to StopQueue, information and verbose lines wait in a queue for the writer
    // thread; otherwise every line is written at once.
    void StartQueue() noexcept;
    // Writes what waits and ends the writer thread, waiting for it, so that it no longer holds the
    // library loaded. Not from DllMain, where no thread can end.
    void StopQueue() noexcept;
    // Writes the queued lines now, on the calling thread.
    void Flush() noexcept;

protected:
    // "trace.ini": in the host's configuration folder on the recovery system, else beside the host.
    std::wstring TraceIniPath();

private:
    // The mutex, held for a scope when it could be had.
    class CLock;
    // The queue's own lock, held only to add a line or take the queue.
    class CQueueLock;
    // A queued line: the level the size limit judges it by and its length in the queue's bytes.
    struct CQueuedLine
    {
        uint32_t uiLimitLevel;
        uint32_t cbLine;
    };

    // Every load starts a new log and keeps one previous generation.
    void StartNewGeneration();
    // Starts "function : name" for a value line.
    static std::wstring NameText(const wchar_t* pwszFunction, const wchar_t* pwszName);
    // Writes the line prefix (unless bRaw) and sText, which carries its own line end(s).
    void WriteLine(uint32_t uiLevel, std::wstring_view sText, bool bRaw = false);
    void AppendPrefix(std::string& sLine, uint32_t uiLevel);
    // Adds a line to the queue; answers whether the caller must write the queue now.
    bool QueueLine(uint32_t uiLevel, std::string_view sBody, bool bRaw);
    // Writes the queued lines with one open and one write; answers whether there were any.
    bool WriteQueue() noexcept;
    bool TakeAndWriteQueue();
    // With the mutex held and the file open: the queued lines that the size limit lets through, in
    // one write.
    void WriteQueued(HANDLE hFile, const std::string& sQueued, const std::vector<CQueuedLine>& vQueued);
    // With the mutex held and the file open: takes the file's size when it is time to, before
    // cLines are written.
    void MeasureNowAndThen(HANDLE hFile, size_t cLines);
    // With the mutex held: whether a line of uiLimitLevel may still be written, sOut being what goes
    // into the file before it (already counted); adds the warning to sOut when the file has just
    // reached its limit.
    bool WithinSizeLimit(uint32_t uiLimitLevel, std::string& sOut);
    // With the mutex held: the file starts again, so its size is measured before the next write.
    void RestartSizeLimit();
    void WriteValue(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                    std::wstring_view sValue);
    void WriteQuoted(uint32_t uiLevel, const wchar_t* pwszFunction, const wchar_t* pwszName,
                     std::wstring_view sValue);

    // The writer thread: started for a queued line when none runs (false when none could be: the
    // caller then writes the queue itself); ends after a second without lines, or with StopQueue.
    bool StartWriter() noexcept;
    static DWORD WINAPI WriterMain(void* pvTrace);
    void RunWriter() noexcept;

    std::atomic<uint32_t> m_uiMask{TRACE_ERROR | TRACE_WARNING | TRACE_INFO};
    CUniqueHandle m_hMutex;
    // Set when a wait for the mutex timed out, cleared when a line gets it again.
    std::atomic<bool> m_bLockStuck{false};
    uint32_t m_uiOSCode = 0;
    std::wstring m_sFileName;
    std::wstring m_sLevelKey;
    std::wstring m_sMaxMBKey;
    std::wstring m_sEachLineKey;
    // Changed and copied for a write under the queue's lock: the writer thread reads it too.
    std::wstring m_sFilePath;
    std::wstring m_sLogDir;
    // Hexadecimal digits of later prefixes turn upper case once a hexadecimal value was written,
    // as they did when the log was a formatted stream; support tools match either case.
    std::atomic<bool> m_bUpperHex{false};

    // The size limit in bytes: the default is set at construction, trace.ini may replace it.
    uint64_t m_cbDefaultLimit = 0;
    std::atomic<uint64_t> m_cbLimit{0};
    // The levels the size limit lets through: all, then errors and warnings only, then none.
    std::atomic<uint32_t> m_uiLimitMask{~0u};
    // Under the mutex: the file's size as last measured plus what this object wrote since, and the
    // lines to write before it is measured again.
    uint64_t m_cbFile = 0;
    uint32_t m_cLinesToMeasure = 0;
    // Under the queue's lock: batches taken from the queue and not yet written.
    uint32_t m_cBatchesTaken = 0;

    // The queue: the lines' bytes in the order they were made, and each line's level and length.
    SRWLOCK m_queueLock = SRWLOCK_INIT;
    // Signalled, under the queue's lock, as a batch taken is written.
    CONDITION_VARIABLE m_cvBatchWritten = CONDITION_VARIABLE_INIT;
    std::string m_sQueued;
    std::vector<CQueuedLine> m_vQueued;
    // Under the queue's lock: lines are queued (StartQueue), a writer runs (or is being started),
    // the object is being destroyed (lines are then written at once).
    bool m_bQueueing = false;
    bool m_bWriterRunning = false;

    bool m_bClosed = false;
    // trace.ini's each-line setting: every line written at once, no writer.
    std::atomic<bool> m_bEachLine{false};
    // Starting the writer and waiting for its end, one at a time; never taken by the writer itself.
    SRWLOCK m_writerLifeLock = SRWLOCK_INIT;
    CUniqueHandle m_hWriter;
    DWORD m_dwWriterId = 0;
    // The writer's reference to the library (the program, where the trace is linked into one).
    HMODULE m_hWriterModule = nullptr;
    // Wakes the writer: the queue has grown, or it is to stop.
    CUniqueHandle m_hWake;
};

} // namespace morvane
