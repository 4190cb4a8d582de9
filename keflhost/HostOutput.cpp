#include "keflhost/HostOutput.h"

#include "platform/Utf8.h"

namespace keflhost
{

CHostOutput::CHostOutput()
{
    const HANDLE hStdOut = ::GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD dwMode = 0;
    m_bConsole = hStdOut != nullptr && hStdOut != INVALID_HANDLE_VALUE && ::GetConsoleMode(hStdOut, &dwMode);
    HANDLE hDuplicate = nullptr;
    if (hStdOut != nullptr && hStdOut != INVALID_HANDLE_VALUE &&
        ::DuplicateHandle(::GetCurrentProcess(), hStdOut, ::GetCurrentProcess(), &hDuplicate, 0, FALSE,
                          DUPLICATE_SAME_ACCESS))
        m_hOut.reset(hDuplicate);
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

} // namespace keflhost
