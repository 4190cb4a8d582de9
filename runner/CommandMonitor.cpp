// The monitor thread: holds the command mutex while the child runs, sends the user's abort as one
// console break, evaluates the exit status the way XCOPY defines it, and closes the child's
// handles and our copy of the pipe's write end once the child has ended.
#include "runner/CommandRunner.h"

#include "trace/TraceObjects.h"

namespace morvane
{
namespace
{

bool IsUsable(HANDLE h)
{
    return h != nullptr && h != INVALID_HANDLE_VALUE;
}

// Polls between two pauses of a second.
constexpr uint32_t kPollsPerPause = 10;

void TraceExitStatus(const wchar_t* pwszFunction, DWORD dwExitStatus)
{
    const wchar_t* pwszText = nullptr;
    switch (dwExitStatus)
    {
    case 0: // the files were copied
    case 3: // 3 and 5 have always counted as success here
    case 5:
        return;
    case 1:
        pwszText = L"XCOPY exited - No files were found to copy";
        break;
    case 2:
        pwszText = L"XCOPY exited - The user pressed CTRL+C to terminate XCOPY";
        break;
    case 4:
        pwszText = L"XCOPY exited - Initialization error occurred";
        break;
    default:
        pwszText = L"Unknown XCOPY exit status";
        break;
    }
    g_KeflTrace.TraceMessage(TRACE_WARNING, pwszFunction, pwszText);
    g_KeflTrace.TraceValue(TRACE_WARNING, pwszFunction, L"dwExitStatus", static_cast<int64_t>(dwExitStatus));
}

// Polls the child hProcess until it has ended, sending its process group one console break once
// bAbort is set. True with the child's exit status; false (traced) when the status cannot be read.
bool WaitForExit(const wchar_t* pwszFunction, HANDLE hProcess, DWORD dwProcessId,
                 const std::atomic<bool>& bAbort, DWORD& dwExitStatus)
{
    bool bBreakSent = false;
    uint32_t uiPolls = 0;
    for (;;)
    {
        if (!::GetExitCodeProcess(hProcess, &dwExitStatus))
        {
            const DWORD dwLastError = ::GetLastError();
            g_KeflTrace.TraceMessage(TRACE_ERROR, pwszFunction, L"GetExitCodeProcess failed");
            g_KeflTrace.TraceValue(TRACE_ERROR, pwszFunction, L"dwLastError",
                                   static_cast<int64_t>(dwLastError));
            return false;
        }
        if (dwExitStatus != STILL_ACTIVE)
            return true;
        if (bAbort.load() && !bBreakSent)
        {
            g_KeflTrace.TraceMessage(TRACE_INFO, pwszFunction, L"ABORT");
            g_KeflTrace.TraceValue(TRACE_INFO, pwszFunction, L"dwThreadId",
                                   static_cast<int64_t>(::GetCurrentThreadId()));
            // The child has a process group of its own, whose id is the child's process id.
            ::GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, dwProcessId);
            bBreakSent = true;
        }
        // Nine polls in quick succession, then a second's pause, which ends when the child does:
        // the listing waits for the configuration copy, not for the rest of a second.
        if (++uiPolls % kPollsPerPause == 0)
            ::WaitForSingleObject(hProcess, 1000);
    }
}

} // namespace

DWORD WINAPI CCommandRunner::ThreadEndCommand(LPVOID pParam)
{
    static const wchar_t kFn[] = L"KEFLImpl::ThreadEndCommand";
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");

    auto* pParams = static_cast<CMonitorParams*>(pParam);
    // RunCommand waits for this signal; it comes once the mutex slot is filled or the monitor
    // gave up.
    const HANDLE hStarted = pParams ? pParams->hStarted : nullptr;
    CScopeExit signalStarted(
        [hStarted]
        {
            if (hStarted)
                ::SetEvent(hStarted);
        });
    if (!pParams || !pParams->phCommandMutex || !pParams->phProcess || !pParams->phThread ||
        !pParams->phPipeWrite || !pParams->pbAbort || !IsUsable(pParams->phProcess->get()) ||
        !IsUsable(pParams->phThread->get()) || !IsUsable(pParams->phPipeWrite->get()))
    {
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Invalid argument)");
        return 1;
    }

    // Owned by this thread until the child has ended and its handles are closed.
    *pParams->phCommandMutex = CUniqueHandle(::CreateMutexW(nullptr, TRUE, nullptr));
    if (!*pParams->phCommandMutex)
    {
        const DWORD dwLastError = ::GetLastError();
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"CreateMutex failed");
        g_KeflTrace.TraceValue(TRACE_ERROR, kFn, L"dwLastError", static_cast<int64_t>(dwLastError));
    }
    signalStarted.Dismiss();
    if (hStarted)
        ::SetEvent(hStarted);

    DWORD dwExitStatus = STILL_ACTIVE;
    if (WaitForExit(kFn, pParams->phProcess->get(), pParams->dwProcessId, *pParams->pbAbort, dwExitStatus))
        TraceExitStatus(kFn, dwExitStatus);

    pParams->phProcess->reset();
    pParams->phThread->reset();
    // With the child gone this was the last write end: the reader now sees the output end.
    pParams->phPipeWrite->reset();
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    // The last touch of the runner: once released, the session may end and the runner go.
    ::ReleaseMutex(pParams->phCommandMutex->get());
    return 0;
}

} // namespace morvane
