#pragma once
// keflhost's side of its restore process (keflrestore.exe beside it): started in a job that ends
// it with keflhost, with a pipe for its events, the pipe's end and NUL its only inherited handles,
// and a console of its own that nobody sees. A thread of its own reads the pipe; keflhost waits
// for the events it queued with a timeout, so that it keeps the clock (a stall to say, Ctrl+C to
// act on), ended when asked, and its
// exit code put in words when it ends before its last event.
#include "protocol/EventReader.h"
#include "platform/UniqueHandle.h"

#include <windows.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace keflhost
{

class CRestoreProcess
{
public:
    CRestoreProcess() = default;
    // Ends a process still running, and waits for the thread that reads its events.
    ~CRestoreProcess();
    CRestoreProcess(const CRestoreProcess&) = delete;
    CRestoreProcess& operator=(const CRestoreProcess&) = delete;

    // False, with the reason, when the program cannot be started.
    bool Start(const std::wstring& sProgram, const std::wstring& sArguments, std::wstring& sError);

    enum class Wait
    {
        Events, // vEvents has the events that came
        Idle,   // nothing came within the time
        Ended,  // the stream is over: the process closed it or ended, or it broke the protocol
    };
    // Waits up to dwMs for what the process sends. After Ended, ProtocolError() says whether the
    // stream itself was at fault.
    Wait Read(DWORD dwMs, std::vector<CEvent>& vEvents);
    const std::wstring& ProtocolError() const { return m_sProtocolError; }
    // Ends the process now; its exit code is dwExitCode.
    void Terminate(DWORD dwExitCode);
    // The job the process runs in: ending it ends the process at once.
    HANDLE Job() const { return m_hJob.get(); }
    // Waits for the process to end (after its stream did) and answers its exit code.
    DWORD ExitCode();

private:
    // The reader's thread: blocks on the pipe and queues each event as its line ends, until the
    // stream ends or breaks the protocol. Nothing keflhost does (a selection held in its console,
    // a slow screen) keeps the pipe from being drained.
    void ReadEvents() noexcept;
    void EndStream(const std::wstring& sProtocolError);

    morvane::CUniqueHandle m_hJob; // kills the process when keflhost's last handle to it closes
    morvane::CUniqueHandle m_hProcess;
    morvane::CUniqueFile m_hEvents;
    CEventReader m_reader; // the reader's thread's alone
    std::mutex m_lock;
    std::condition_variable m_cvQueued; // an event was queued, or the stream ended
    std::vector<CEvent> m_vQueued;
    bool m_bStreamEnded = false;
    std::wstring m_sProtocolError; // set before m_bStreamEnded
    std::thread m_readerThread;
};

// "exit code 0xC0000005: an access violation" and the like.
std::wstring DescribeExitCode(DWORD dwExitCode);
// The exit code keflhost gives a restore process it ends for the user's Ctrl+C.
constexpr DWORD kStoppedByUser = 0xC000013A;

} // namespace keflhost
