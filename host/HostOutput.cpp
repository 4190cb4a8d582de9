#include "host/HostOutput.h"

#include "platform/Utf8.h"

namespace keflhost
{

CHostOutput::CHostOutput()
{
    const HANDLE hStdOut = ::GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD dwMode = 0;
    m_bConsole = hStdOut != nullptr && hStdOut != INVALID_HANDLE_VALUE && ::GetConsoleMode(hStdOut, &dwMode);
    m_hwndConsole = ::GetConsoleWindow();
    HANDLE hDuplicate = nullptr;
    if (hStdOut != nullptr && hStdOut != INVALID_HANDLE_VALUE &&
        ::DuplicateHandle(::GetCurrentProcess(), hStdOut, ::GetCurrentProcess(), &hDuplicate, 0, FALSE,
                          DUPLICATE_SAME_ACCESS))
        m_hOut.reset(hDuplicate);
}

void CHostOutput::OpenConsoleOutput()
{
    m_hOut.reset(::CreateFileW(L"CONOUT$", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                               nullptr, OPEN_EXISTING, 0, nullptr));
}

void CHostOutput::Reclaim()
{
    // A pipe or file is still ours through the duplicate. A console is the user's only while the
    // process is attached to it: Init detached it and attached a hidden one.
    CONSOLE_SCREEN_BUFFER_INFO info = {};
    if (m_bConsole &&
        !(::GetConsoleWindow() == m_hwndConsole && ::GetConsoleScreenBufferInfo(m_hOut.get(), &info)))
        Reattach();
    for (const std::wstring& sPending : m_vPending)
        Write(sPending + L"\n");
    m_vPending.clear();
}

void CHostOutput::Reattach()
{
    ::FreeConsole();
    if (::AttachConsole(ATTACH_PARENT_PROCESS))
    {
        m_hwndConsole = ::GetConsoleWindow();
    }
    else
    {
        // Started with a console of its own, which Init freed: a visible one is better than
        // output nobody sees.
        ::AllocConsole();
        m_hwndConsole = ::GetConsoleWindow();
        if (m_hwndConsole)
            ::ShowWindow(m_hwndConsole, SW_SHOW);
    }
    OpenConsoleOutput();
    // The library's child processes inherit these.
    ::SetStdHandle(STD_OUTPUT_HANDLE, m_hOut.get());
    ::SetStdHandle(STD_ERROR_HANDLE, m_hOut.get());
    m_cchStatus = 0;
}

void CHostOutput::Write(const std::wstring& sText)
{
    if (!m_hOut)
        return;
    DWORD dwWritten = 0;
    if (m_bConsole)
    {
        ::WriteConsoleW(m_hOut.get(), sText.data(), static_cast<DWORD>(sText.size()), &dwWritten, nullptr);
        return;
    }
    const std::string sUtf8 = morvane::ToUtf8(sText);
    ::WriteFile(m_hOut.get(), sUtf8.data(), static_cast<DWORD>(sUtf8.size()), &dwWritten, nullptr);
}

void CHostOutput::Line(const std::wstring& sText)
{
    // The library's messages at the end of Init come while the process is in its hidden console:
    // they wait for the console the user looks at.
    if (m_bConsole && ::GetConsoleWindow() != m_hwndConsole)
    {
        m_vPending.push_back(sText);
        return;
    }
    if (m_cchStatus != 0)
    {
        // Clears the bar; the next progress report draws it again below this line.
        Write(L"\r" + std::wstring(m_cchStatus, L' ') + L"\r");
        m_cchStatus = 0;
    }
    Write(sText + L"\n");
}

void CHostOutput::Status(const std::wstring& sText)
{
    // Narrower than the window: a status line that wraps cannot be redrawn with a carriage return.
    size_t cchWidth = 80;
    CONSOLE_SCREEN_BUFFER_INFO info = {};
    if (::GetConsoleScreenBufferInfo(m_hOut.get(), &info) && info.dwSize.X > 1)
        cchWidth = static_cast<size_t>(info.dwSize.X);
    std::wstring sLine = sText.substr(0, cchWidth - 1);
    const size_t cchShown = sLine.size();
    if (cchShown < m_cchStatus)
        sLine.append(m_cchStatus - cchShown, L' ');
    Write(L"\r" + sLine);
    m_cchStatus = cchShown;
}

CHostOutput& Output()
{
    static CHostOutput output;
    return output;
}

void PrintLine(const std::wstring& sText)
{
    Output().Line(sText);
}

// The message comes by value because the library's callback type has it so.
int32_t LogMsg(uint32_t uiSeverity, std::wstring sMessage, // NOLINT(performance-unnecessary-value-param)
               uint64_t /*ullContext*/)
{
    const wchar_t* pwszSeverity = uiSeverity == morvane::MSG_SEVERITY_ERROR     ? L"error"
                                  : uiSeverity == morvane::MSG_SEVERITY_WARNING ? L"warning"
                                                                                : L"info";
    PrintLine(std::wstring(L"[") + pwszSeverity + L"] " + sMessage);
    return 0;
}

} // namespace keflhost
