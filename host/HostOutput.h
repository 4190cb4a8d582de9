#pragma once
// Where our host prints: the console or the pipe or file that standard output was when the
// program started, whatever the library does to the process's console later. Lines go out as
// UTF-16 to a console and as UTF-8 to a pipe or file. On a console one status line (the progress
// bar) can be redrawn in place; any other line first clears it.
#include "VESK.h"
#include "platform/UniqueHandle.h"

#include <windows.h>

#include <string>
#include <vector>

namespace keflhost
{

// What the progress display writes to; the host's output is one, a test's recorder another.
class COutputSink
{
public:
    virtual ~COutputSink() = default;
    virtual void Line(const std::wstring& sText) = 0;
    // Redraws the status line in place; only called when IsConsole().
    virtual void Status(const std::wstring& sText) = 0;
    virtual bool IsConsole() const = 0;
};

class CHostOutput final : public COutputSink
{
public:
    // Takes standard output as it is now: before the library is loaded.
    CHostOutput();

    void Line(const std::wstring& sText) override;
    void Status(const std::wstring& sText) override;
    bool IsConsole() const override { return m_bConsole; }

    // After the library's Init and Fini, which free the process's console (Init then makes a
    // hidden one of its own): brings the output back to the console the user is looking at.
    void Reclaim();

private:
    void Write(const std::wstring& sText);
    void OpenConsoleOutput();
    void Reattach();

    bool m_bConsole = false;
    HWND m_hwndConsole = nullptr;
    // A pipe or file: our own duplicate, which no FreeConsole closes. A console: "CONOUT$".
    morvane::CUniqueFile m_hOut;
    size_t m_cchStatus = 0;
    std::vector<std::wstring> m_vPending;
};

// The process's output, made on first use.
CHostOutput& Output();
void PrintLine(const std::wstring& sText);

// The library's log callback: every user message with its severity.
int32_t LogMsg(uint32_t uiSeverity, std::wstring sMessage, uint64_t ullContext);

} // namespace keflhost
