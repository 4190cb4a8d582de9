#include "host/RestoreProcess.h"

#include "host/LibraryTrace.h"
#include "platform/FormatText.h"

namespace keflhost
{
namespace
{

constexpr DWORD kPollMs = 50;
// A process that closed its stream ends within moments; one that does not is ended.
constexpr DWORD kEndWaitMs = 10000;

morvane::CUniqueFile OpenNul()
{
    SECURITY_ATTRIBUTES sa{sizeof(sa), nullptr, TRUE};
    return morvane::CUniqueFile(::CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                              &sa, OPEN_EXISTING, 0, nullptr));
}

} // namespace

bool CRestoreProcess::Start(const std::wstring& sProgram, const std::wstring& sArguments, std::wstring& sError)
{
    SECURITY_ATTRIBUTES sa{sizeof(sa), nullptr, TRUE};
    HANDLE hRead = nullptr;
    HANDLE hWrite = nullptr;
    if (!::CreatePipe(&hRead, &hWrite, &sa, 0))
    {
        sError = L"cannot make the pipe for the restore process: " + ErrorText(::GetLastError());
        return false;
    }
    m_hEvents.reset(hRead);
    const morvane::CUniqueFile hChildEnd(hWrite);
    ::SetHandleInformation(hRead, HANDLE_FLAG_INHERIT, 0); // ours alone: the stream ends with the process
    const morvane::CUniqueFile hNul = OpenNul();

    STARTUPINFOW si{};
    si.cb = sizeof(si);
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = hNul.get();
    si.hStdOutput = hChildEnd.get();
    si.hStdError = hNul.get();
    std::wstring sCommand = L"\"" + sProgram + L"\"" + sArguments;
    PROCESS_INFORMATION pi{};
    // A console of its own, without a window: what the library does with it touches nothing of
    // the administrator's, and the administrator's Ctrl+C reaches keflhost alone.
    if (!::CreateProcessW(sProgram.c_str(), sCommand.data(), nullptr, nullptr, TRUE,
                          CREATE_NO_WINDOW | CREATE_NEW_PROCESS_GROUP, nullptr, nullptr, &si, &pi))
    {
        sError = L"cannot start " + sProgram + L": " + ErrorText(::GetLastError());
        return false;
    }
    ::CloseHandle(pi.hThread);
    m_hProcess.reset(pi.hProcess);
    return true;
}

CRestoreProcess::Wait CRestoreProcess::Read(DWORD dwMs, std::vector<CEvent>& vEvents)
{
    vEvents.clear();
    if (!m_hEvents)
        return Wait::Ended;
    for (DWORD dwWaited = 0;; dwWaited += kPollMs)
    {
        DWORD cbAvailable = 0;
        if (!::PeekNamedPipe(m_hEvents.get(), nullptr, 0, nullptr, &cbAvailable, nullptr))
            break; // closed (109) and drained, or broken
        if (cbAvailable > 0)
        {
            std::string sBytes(cbAvailable, '\0');
            DWORD cbRead = 0;
            if (!::ReadFile(m_hEvents.get(), sBytes.data(), cbAvailable, &cbRead, nullptr))
                break;
            sBytes.resize(cbRead);
            if (!m_reader.Feed(sBytes, vEvents, m_sProtocolError))
                break;
            return Wait::Events;
        }
        if (dwWaited >= dwMs)
            return Wait::Idle;
        ::Sleep(kPollMs);
    }
    if (m_sProtocolError.empty())
        m_reader.End(m_sProtocolError);
    m_hEvents.reset();
    return vEvents.empty() ? Wait::Ended : Wait::Events;
}

void CRestoreProcess::Terminate(DWORD dwExitCode)
{
    if (m_hProcess)
        ::TerminateProcess(m_hProcess.get(), dwExitCode);
}

DWORD CRestoreProcess::ExitCode()
{
    if (!m_hProcess)
        return 0;
    if (::WaitForSingleObject(m_hProcess.get(), kEndWaitMs) != WAIT_OBJECT_0)
    {
        ::TerminateProcess(m_hProcess.get(), ERROR_TIMEOUT);
        ::WaitForSingleObject(m_hProcess.get(), kEndWaitMs);
    }
    DWORD dwExitCode = 0;
    ::GetExitCodeProcess(m_hProcess.get(), &dwExitCode);
    return dwExitCode;
}

std::wstring DescribeExitCode(DWORD dwExitCode)
{
    static const struct
    {
        DWORD dwCode;
        const wchar_t* pwszWords;
    } kKnown[] = {
        {0xC0000005, L"an access violation"},
        {0xC00000FD, L"a stack overflow"},
        {0xC0000017, L"out of memory"},
        {0xC0000409, L"a fail-fast exit (a broken stack or a failed check)"},
        {0xC000001D, L"an illegal instruction"},
        {0xC0000094, L"an integer division by zero"},
        {0xC0000374, L"a corrupted heap"},
        {kStoppedByUser, L"stopped by the user"},
        {3, L"an abort (an unhandled exception or a failed assertion)"},
    };
    wchar_t wszHex[16];
    (void)morvane::FormatInto(wszHex, L"0x%08lX", static_cast<unsigned long>(dwExitCode));
    std::wstring sText = L"exit code " + std::wstring(wszHex);
    for (const auto& known : kKnown)
        if (known.dwCode == dwExitCode)
            return sText + L": " + known.pwszWords;
    return sText;
}

} // namespace keflhost
