#include "keflhost/RestoreProcess.h"

#include "platform/ErrorText.h"
#include "platform/FormatText.h"
#include "platform/Utf8.h"

#include <chrono>

#include <vector>

namespace keflhost
{
namespace
{

// A process that closed its stream ends within moments; one that does not is ended.
constexpr DWORD kEndWaitMs = 10000;

morvane::CUniqueFile OpenNul()
{
    SECURITY_ATTRIBUTES sa{sizeof(sa), nullptr, TRUE};
    return morvane::CUniqueFile(::CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                              &sa, OPEN_EXISTING, 0, nullptr));
}

// The attribute list that names the only handles a child inherits.
class CInheritedHandles
{
public:
    explicit CInheritedHandles(std::vector<HANDLE> vHandles) : m_vHandles(std::move(vHandles))
    {
        SIZE_T cbList = 0;
        ::InitializeProcThreadAttributeList(nullptr, 1, 0, &cbList);
        m_vList.resize(cbList);
        auto* pList = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(m_vList.data());
        m_bInitialised = ::InitializeProcThreadAttributeList(pList, 1, 0, &cbList) != FALSE;
        m_bReady = m_bInitialised && ::UpdateProcThreadAttribute(pList, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST,
                                                                 m_vHandles.data(),
                                                                 m_vHandles.size() * sizeof(HANDLE), nullptr, nullptr);
    }
    ~CInheritedHandles()
    {
        if (m_bInitialised) // only a list that was made is deleted
            ::DeleteProcThreadAttributeList(reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(m_vList.data()));
    }
    CInheritedHandles(const CInheritedHandles&) = delete;
    CInheritedHandles& operator=(const CInheritedHandles&) = delete;
    // Null when the list could not be made: the error is the thread's last.
    LPPROC_THREAD_ATTRIBUTE_LIST List()
    {
        return m_bReady ? reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(m_vList.data()) : nullptr;
    }

private:
    std::vector<HANDLE> m_vHandles; // the list points into it
    std::vector<BYTE> m_vList;
    bool m_bInitialised = false;
    bool m_bReady = false;
};

// A job that ends every process in it when its last handle closes: keflhost's, however keflhost
// ends (killed, crashed, a second Ctrl+C), so its restore process never outlives it.
morvane::CUniqueHandle KillOnCloseJob()
{
    morvane::CUniqueHandle hJob(::CreateJobObjectW(nullptr, nullptr));
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    if (hJob && !::SetInformationJobObject(hJob.get(), JobObjectExtendedLimitInformation, &limits, sizeof(limits)))
        hJob.reset();
    return hJob;
}

} // namespace

bool CRestoreProcess::Start(const std::wstring& sProgram, const std::wstring& sArguments, std::wstring& sError)
{
    SECURITY_ATTRIBUTES sa{sizeof(sa), nullptr, TRUE};
    HANDLE hRead = nullptr;
    HANDLE hWrite = nullptr;
    if (!::CreatePipe(&hRead, &hWrite, &sa, 0))
    {
        const DWORD dwLastError = ::GetLastError();
        sError = L"cannot make the pipe for the restore process: " + morvane::ErrorText(dwLastError);
        return false;
    }
    m_hEvents.reset(hRead);
    const morvane::CUniqueFile hChildEnd(hWrite);
    ::SetHandleInformation(hRead, HANDLE_FLAG_INHERIT, 0); // ours alone: the stream ends with the process
    const morvane::CUniqueFile hNul = OpenNul();
    m_hJob = KillOnCloseJob();
    if (!m_hJob)
    {
        const DWORD dwLastError = ::GetLastError();
        sError = L"cannot make the job that ends the restore process with keflhost: " + morvane::ErrorText(dwLastError);
        return false;
    }
    // The pipe's end and NUL, and nothing else keflhost holds, reach the restore process.
    CInheritedHandles inherited({hChildEnd.get(), hNul.get()});
    STARTUPINFOEXW si{};
    si.StartupInfo.cb = sizeof(si);
    si.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    si.StartupInfo.hStdInput = hNul.get();
    si.StartupInfo.hStdOutput = hChildEnd.get();
    si.StartupInfo.hStdError = hNul.get();
    si.lpAttributeList = inherited.List();
    if (!si.lpAttributeList)
    {
        const DWORD dwLastError = ::GetLastError();
        sError = L"cannot name the handles the restore process inherits: " + morvane::ErrorText(dwLastError);
        return false;
    }
    std::wstring sCommand = L"\"" + sProgram + L"\"" + sArguments;
    morvane::CUniqueProcessInformation pi;
    // A console of its own, without a window: what the library does with it touches nothing of
    // the administrator's, and the administrator's Ctrl+C reaches keflhost alone. Suspended until
    // it is in the job, so that not one of its instructions runs outside it.
    if (!::CreateProcessW(sProgram.c_str(), sCommand.data(), nullptr, nullptr, TRUE,
                          CREATE_NO_WINDOW | CREATE_NEW_PROCESS_GROUP | CREATE_SUSPENDED | EXTENDED_STARTUPINFO_PRESENT,
                          nullptr, nullptr, &si.StartupInfo, pi.put()))
    {
        const DWORD dwLastError = ::GetLastError();
        sError = L"cannot start " + sProgram + L": " + morvane::ErrorText(dwLastError);
        return false;
    }
    if (!::AssignProcessToJobObject(m_hJob.get(), pi.get().hProcess))
    {
        const DWORD dwLastError = ::GetLastError();
        ::TerminateProcess(pi.get().hProcess, ERROR_ACCESS_DENIED);
        sError = L"cannot put the restore process into keflhost's job: " + morvane::ErrorText(dwLastError);
        return false;
    }
    ::ResumeThread(pi.get().hThread);
    m_hProcess.reset(pi.ReleaseProcess());
    m_readerThread = std::thread([this] { ReadEvents(); });
    return true;
}

CRestoreProcess::~CRestoreProcess()
{
    if (m_readerThread.joinable())
    {
        // The stream ends with the process: its end of the pipe closes.
        if (m_hProcess && ::WaitForSingleObject(m_hProcess.get(), 0) == WAIT_TIMEOUT)
            ::TerminateProcess(m_hProcess.get(), ERROR_OPERATION_ABORTED);
        m_readerThread.join();
    }
}

void CRestoreProcess::EndStream(const std::wstring& sProtocolError)
{
    const std::lock_guard lock(m_lock);
    m_sProtocolError = sProtocolError;
    m_bStreamEnded = true;
    m_cvQueued.notify_all();
}

void CRestoreProcess::ReadEvents() noexcept
{
    try
    {
        std::vector<char> vBuffer(65536);
        std::vector<CEvent> vEvents;
        std::wstring sError;
        DWORD cbRead = 0;
        while (::ReadFile(m_hEvents.get(), vBuffer.data(), static_cast<DWORD>(vBuffer.size()), &cbRead, nullptr) &&
               cbRead > 0)
        {
            const bool bFits = m_reader.Feed(std::string_view(vBuffer.data(), cbRead), vEvents, sError);
            {
                const std::lock_guard lock(m_lock);
                m_vQueued.insert(m_vQueued.end(), vEvents.begin(), vEvents.end());
                m_cvQueued.notify_all();
            }
            vEvents.clear();
            if (!bFits)
                return EndStream(sError);
        }
        m_reader.End(sError); // closed (109) or broken: a line cut off is the stream's fault
        EndStream(sError);
    }
    catch (const std::exception& e) // no memory for an event: keflhost cannot follow the stream
    {
        EndStream(L"keflhost could not read the restore process's events: " + morvane::FromUtf8(e.what()));
    }
}

CRestoreProcess::Wait CRestoreProcess::Read(DWORD dwMs, std::vector<CEvent>& vEvents)
{
    vEvents.clear();
    std::unique_lock lock(m_lock);
    if (!m_readerThread.joinable())
        return Wait::Ended;
    m_cvQueued.wait_for(lock, std::chrono::milliseconds(dwMs), [this] { return !m_vQueued.empty() || m_bStreamEnded; });
    vEvents.swap(m_vQueued);
    if (!vEvents.empty())
        return Wait::Events;
    return m_bStreamEnded ? Wait::Ended : Wait::Idle;
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
