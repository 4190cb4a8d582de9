#pragma once
// The external command runner: starts a command (XCOPY) as a hidden console child whose standard
// output and error go into one anonymous pipe, hands its output to the session line by line, and
// watches the child with a monitor thread that sends the user's abort as a console break and
// evaluates the exit status. The session object owns one runner; its RunCommand, GetLine and
// ReadChar forward here, so the trace names are the session's.
//
// Who closes what:
// - RunCommand closes everything it made when it fails. It keeps the monitor thread's handle, so
//   that the session's end waits until the thread has ended, not only until it let go of the mutex.
// - The monitor thread owns the command mutex while the child runs. Once the child has ended it
//   closes the process handle, the child's main-thread handle and the PIPE WRITE END (the third
//   handle of its parameter block), then releases the mutex. Closing our copy of the write end is
//   what lets the reader see the output end: the child's copy went with the child.
// - The reader (ReadChar) closes the pipe read end and the console input handle when the pipe
//   reports the output end (ERROR_BROKEN_PIPE after the last byte was read).
// - WaitForMonitor (session end) first closes the reader's handles (a child still writing then
//   meets a broken pipe and ends, instead of waiting on a full pipe that nobody reads), then waits
//   for, releases and closes the command mutex, and waits for the monitor thread to end;
//   CloseChildHandles (session end and reset) closes whatever of the run is still open.
// Each handle lives in one owner of platform/UniqueHandle.h, so a handle closed by one of these is
// marked invalid and never closed a second time; the destructor closes what is left.
//
// One command at a time per runner, driven by one session thread. The monitor thread shares the
// process handle, the abort flag and the command mutex with it.
//
// One file a job: CommandRunner.cpp (starting a command, the session's waits),
// CommandMonitor.cpp (the monitor thread), OutputReader.cpp (ReadChar, GetLine).
#include "channel/HostChannel.h"
#include "platform/UniqueHandle.h"

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace morvane
{

class CCommandRunner
{
public:
    // Called after every ten seconds of silence from the child; answering 1 stops the reading.
    using ReadProgressFn = int32_t (*)(uint64_t ullContext);

    // base receives the user messages of the runner.
    explicit CCommandRunner(CHostChannel& channel);
    // Waits for a monitor that is still running (it refers to this object), then closes what is
    // left of the run.
    ~CCommandRunner();
    CCommandRunner(const CCommandRunner&) = delete;
    CCommandRunner& operator=(const CCommandRunner&) = delete;

    // Starts sCmd (program and arguments, as on a command line) and its monitor thread. A run
    // whose monitor was not waited for is waited for and closed first.
    bool RunCommand(const std::wstring& sCmd);
    // The next line of the child's output, without its line end, form feeds and trailing blanks;
    // lines longer than kLineChars come in pieces. False when the output ended (a last line without
    // line feed is lost), on a pipe error, or when the read-progress callback stopped the reading.
    bool GetLine(std::wstring& sLine, bool bTraceLine);
    // The next byte of the child's output; false as for GetLine. Without a read-progress callback
    // it waits as long as the child stays silent.
    bool ReadChar(char& c);

    // The monitor thread's function; pParam is the runner's CMonitorParams.
    static DWORD WINAPI ThreadEndCommand(LPVOID pParam);

    // The user aborted: the monitor sends the child's process group one console break.
    void SetAbort() { m_bAbort.store(true); }
    void SetReadProgressFn(ReadProgressFn pfnReadProgress, uint64_t ullContext);
    // Whether the read-progress callback stopped the reading of the current run.
    bool IsFinished() const { return m_bFinished; }

    // Session reset: closes each handle of the run that is still open. Call it when no monitor
    // runs (after WaitForMonitor, or when the run never started one).
    void CloseChildHandles();
    // Session end: stops reading, and when a monitor runs, waits without time limit until it
    // releases the command mutex and has ended; closes the mutex and the thread's handle.
    void WaitForMonitor();

    static constexpr uint32_t kBufferBytes = 65536;
    static constexpr size_t kLineChars = 1024;
    // Empty polls of the pipe (10 ms apart) before the read-progress callback is asked.
    static constexpr uint32_t kPollsPerPass = 1000;

private:
    // What the monitor thread works on: the slots of the run's handles in this runner, so that what
    // it closes is marked closed here too.
    struct CMonitorParams
    {
        CUniqueHandle* phCommandMutex = nullptr;
        CUniqueHandle* phProcess = nullptr;
        CUniqueHandle* phThread = nullptr;
        CUniqueFile* phPipeWrite = nullptr; // the third handle: closed once the child has ended
        DWORD dwProcessId = 0;              // also the child's process-group id
        std::atomic<bool>* pbAbort = nullptr;
        // Set once the command mutex slot is filled (or the monitor gave up): RunCommand returns
        // only then, so the session never reads the slot while the monitor writes it.
        HANDLE hStarted = nullptr;
    };

    // Hands the started child to a monitor thread and waits until the monitor holds the command
    // mutex; dwThreadId receives the thread's id. False (traced) when no thread starts: the child
    // is then stopped and every handle of the run closed.
    bool StartMonitor(const wchar_t* pwszFunction, DWORD& dwThreadId);
    // Empties the read buffer and the ring buffer.
    void ResetReadState();
    // Moves the unconsumed bytes of the read buffer into the ring buffer.
    void FillRing();

    CHostChannel& m_channel;

    CUniqueFile m_hConsoleIn;      // the child's standard input
    CUniqueFile m_hPipeRead;       // our end of the child's standard output and error
    CUniqueFile m_hPipeWrite;      // the child's end, inherited as its standard output and error
    CUniqueHandle m_hProcess;      // closed by the monitor
    CUniqueHandle m_hThread;       // closed by the monitor
    DWORD m_dwProcessId = 0;       // from CreateProcessW
    DWORD m_dwThreadId = 0;        // from CreateProcessW
    CUniqueHandle m_hCommandMutex; // made by the monitor, owned by it while the child runs
    CUniqueHandle m_hMonitor;      // the monitor thread, waited for by WaitForMonitor
    CMonitorParams m_monitorParams;

    std::atomic<bool> m_bAbort{false};
    ReadProgressFn m_pfnReadProgress = nullptr;
    uint64_t m_ullReadProgressCtx = 0;
    bool m_bFinished = false;

    // ReadFile fills m_readBuffer; its bytes then pass through the ring buffer.
    char m_readBuffer[kBufferBytes] = {};
    uint32_t m_cbReadData = 0; // bytes that ReadFile put into the read buffer
    uint32_t m_uiReadPos = 0;  // the next of them to move into the ring buffer
    char m_ringBuffer[kBufferBytes] = {};
    uint32_t m_uiRingHead = 0; // where the next byte goes in
    uint32_t m_uiRingTail = 0; // where the next byte is taken out
    bool m_bRingFull = false;  // head == tail with the ring holding bytes
};

} // namespace morvane
