// Starting a command with piped output and its monitor thread; the session's waits and resets.
#include "runner/CommandRunner.h"

#include "channel/MessageIds.h"
#include "trace/TraceObjects.h"

#include <vector>

namespace morvane
{
namespace
{

// A descriptor with a null DACL: the pipe and the child's handles are open to anyone.
bool InitNullDacl(SECURITY_DESCRIPTOR& sd, const wchar_t* pwszFunction)
{
    if (!::InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION))
    {
        const DWORD dwLastError = ::GetLastError();
        g_KeflTrace.TraceMessage(TRACE_ERROR, pwszFunction,
                                 L"... ending(InitializeSecurityDescriptor failed)");
        TraceLastError(pwszFunction, dwLastError, TRACE_ERROR);
        return false;
    }
    if (!::SetSecurityDescriptorDacl(&sd, TRUE, nullptr, FALSE))
    {
        const DWORD dwLastError = ::GetLastError();
        g_KeflTrace.TraceMessage(TRACE_ERROR, pwszFunction, L"... ending(SetSecurityDescriptorDacl failed)");
        TraceLastError(pwszFunction, dwLastError, TRACE_ERROR);
        return false;
    }
    return true;
}

// The command line for CreateProcessW, which may write to it: a null-terminated copy. Wide, so
// that a folder name outside the ANSI code page reaches the child as it is.
std::vector<wchar_t> WritableCommandLine(const std::wstring& sCmd)
{
    std::vector<wchar_t> vCmd(sCmd.begin(), sCmd.end());
    vCmd.push_back(L'\0');
    return vCmd;
}

// The child's standard input: this process's console, inheritable. False (traced, and the user
// told) when there is no console to open.
bool OpenConsoleInput(const wchar_t* pwszFunction, CHostChannel& channel, CUniqueFile& hConsoleIn)
{
    SECURITY_ATTRIBUTES saConsole = {sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    hConsoleIn.reset(::CreateFileW(L"CONIN$", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, &saConsole,
                                   OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!hConsoleIn)
    {
        const DWORD dwLastError = ::GetLastError();
        g_KeflTrace.TraceMessage(TRACE_ERROR, pwszFunction, L"CreateFile(CONIN) failed");
        TraceLastError(pwszFunction, dwLastError, TRACE_ERROR);
        // The message as the product has always logged it: unformatted.
        channel.LogStdMsg(MSG_SEVERITY_ERROR, IDS_CREATEFILE_FAILED);
        return false;
    }
    return true;
}

// One pipe for the child's standard output and error, both ends made with sa. False (traced)
// when it cannot be made; the owners then hold nothing.
bool CreateOutputPipe(const wchar_t* pwszFunction, SECURITY_ATTRIBUTES& sa, CUniqueFile& hPipeRead,
                      CUniqueFile& hPipeWrite)
{
    if (!::CreatePipe(hPipeRead.put(), hPipeWrite.put(), &sa, CCommandRunner::kBufferBytes))
    {
        const DWORD dwLastError = ::GetLastError();
        // Nothing was created; what the call left in the slots is no handle.
        hPipeRead.release();
        hPipeWrite.release();
        g_KeflTrace.TraceMessage(TRACE_ERROR, pwszFunction, L"... ending(Create STDOUT pipe failed)");
        TraceLastError(pwszFunction, dwLastError, TRACE_ERROR);
        return false;
    }
    return true;
}

// Starts sCmd hidden, reading hConsoleIn and writing both its output and its errors into
// hPipeWrite; pi receives the child's handles, which the caller then owns. False (traced) when
// the process cannot be started.
bool StartHiddenChild(const wchar_t* pwszFunction, const std::wstring& sCmd, SECURITY_ATTRIBUTES& sa,
                      const CUniqueFile& hConsoleIn, const CUniqueFile& hPipeWrite, PROCESS_INFORMATION& pi)
{
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    si.dwFlags = STARTF_USESHOWWINDOW | STARTF_USESTDHANDLES;
    si.wShowWindow = SW_HIDE;
    si.hStdInput = hConsoleIn.get();
    si.hStdOutput = hPipeWrite.get();
    si.hStdError = hPipeWrite.get();
    std::vector<wchar_t> vCmdLine = WritableCommandLine(sCmd);
    // A process group of its own, so that a console break reaches the child and not us.
    if (!::CreateProcessW(nullptr, vCmdLine.data(), &sa, &sa, TRUE, CREATE_NEW_PROCESS_GROUP, nullptr,
                          nullptr, &si, &pi))
    {
        const DWORD dwLastError = ::GetLastError();
        g_KeflTrace.TraceMessage(TRACE_ERROR, pwszFunction, L"... ending(CreateProcess failed)");
        TraceLastError(pwszFunction, dwLastError, TRACE_ERROR);
        return false;
    }
    return true;
}

} // namespace

CCommandRunner::CCommandRunner(CHostChannel& channel) : m_channel(channel) {}

CCommandRunner::~CCommandRunner()
{
    // A running monitor refers to this object's handle slots.
    WaitForMonitor();
}

void CCommandRunner::SetReadProgressFn(ReadProgressFn pfnReadProgress, uint64_t ullContext)
{
    m_pfnReadProgress = pfnReadProgress;
    m_ullReadProgressCtx = ullContext;
}

bool CCommandRunner::RunCommand(const std::wstring& sCmd)
{
    static const wchar_t kFn[] = L"KEFLImpl::RunCommand";
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    if (sCmd.empty())
    {
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Invalid command)");
        return false;
    }

    // The previous run's monitor must be done with the handle slots before they are reused.
    WaitForMonitor();
    CloseChildHandles();
    ResetReadState();
    m_bFinished = false;

    SECURITY_DESCRIPTOR sd;
    if (!InitNullDacl(sd, kFn))
        return false;
    CUniqueFile hConsoleIn;
    if (!OpenConsoleInput(kFn, m_channel, hConsoleIn))
        return false;

    // Both pipe ends and the child's process and thread handles are inheritable, open to anyone.
    if (!InitNullDacl(sd, kFn))
        return false;
    SECURITY_ATTRIBUTES sa = {sizeof(SECURITY_ATTRIBUTES), &sd, TRUE};
    CUniqueFile hPipeRead;
    CUniqueFile hPipeWrite;
    if (!CreateOutputPipe(kFn, sa, hPipeRead, hPipeWrite))
        return false;

    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"sCmd", sCmd);

    PROCESS_INFORMATION pi = {};
    if (!StartHiddenChild(kFn, sCmd, sa, hConsoleIn, hPipeWrite, pi))
        return false; // closes the console input and both pipe ends

    m_hConsoleIn = std::move(hConsoleIn);
    m_hPipeRead = std::move(hPipeRead);
    m_hPipeWrite = std::move(hPipeWrite);
    m_hProcess.reset(pi.hProcess);
    m_hThread.reset(pi.hThread);
    m_dwProcessId = pi.dwProcessId;
    m_dwThreadId = pi.dwThreadId;

    DWORD dwThreadId = 0;
    if (!StartMonitor(kFn, dwThreadId))
        return false;

    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"dwThreadId", static_cast<int64_t>(dwThreadId));
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return true;
}

bool CCommandRunner::StartMonitor(const wchar_t* pwszFunction, DWORD& dwThreadId)
{
    m_monitorParams.phCommandMutex = &m_hCommandMutex;
    m_monitorParams.phProcess = &m_hProcess;
    m_monitorParams.phThread = &m_hThread;
    m_monitorParams.phPipeWrite = &m_hPipeWrite;
    m_monitorParams.dwProcessId = m_dwProcessId;
    m_monitorParams.pbAbort = &m_bAbort;

    CUniqueHandle hStarted(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
    m_monitorParams.hStarted = hStarted.get();

    CUniqueHandle hMonitor(::CreateThread(nullptr, 0, &ThreadEndCommand, &m_monitorParams, 0, &dwThreadId));
    if (!hMonitor)
    {
        const DWORD dwLastError = ::GetLastError();
        g_KeflTrace.TraceMessage(TRACE_ERROR, pwszFunction,
                                 L"... ending(Failed to create monitoring thread)");
        TraceLastError(pwszFunction, dwLastError, TRACE_ERROR);
        // Nobody would close our copy of the pipe's write end after the child, so its output would
        // never end: the unwatched child is stopped and every handle of the run closed.
        ::TerminateProcess(m_hProcess.get(), 1);
        CloseChildHandles();
        return false;
    }
    // The session waits for the monitor through the command mutex, which the monitor has made once
    // it signals its start, and through its thread handle.
    if (hStarted)
        ::WaitForSingleObject(hStarted.get(), INFINITE);
    m_monitorParams.hStarted = nullptr;
    m_hMonitor = std::move(hMonitor);
    return true;
}

void CCommandRunner::CloseChildHandles()
{
    // The command mutex is not the run's but the monitor's: WaitForMonitor closes it.
    m_hConsoleIn.reset();
    m_hPipeRead.reset();
    m_hPipeWrite.reset();
    m_hProcess.reset();
    m_hThread.reset();
    m_dwProcessId = 0;
    m_dwThreadId = 0;
}

void CCommandRunner::WaitForMonitor()
{
    // Nobody reads the run's output any more. The monitor never touches these two.
    m_hPipeRead.reset();
    m_hConsoleIn.reset();
    if (m_hCommandMutex)
    {
        // Abandoned (the monitor ended without releasing it) gives us ownership as well.
        ::WaitForSingleObject(m_hCommandMutex.get(), INFINITE);
        ::ReleaseMutex(m_hCommandMutex.get());
        m_hCommandMutex.reset();
    }
    // The thread's last steps follow the release; the library may be unloaded after the session.
    if (m_hMonitor)
    {
        ::WaitForSingleObject(m_hMonitor.get(), INFINITE);
        m_hMonitor.reset();
    }
}

} // namespace morvane
