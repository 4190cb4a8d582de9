#pragma once
// Where keflhost prints: the console, pipe or file that standard output is. Lines go out as
// UTF-16 to a console and as UTF-8 to a pipe or file. On a console one status line (the progress
// bar) can be redrawn in place; any other line first clears it. The library never runs in this
// process, so nothing takes the console away.
#include "VESK.h"
#include "platform/UniqueHandle.h"

#include <windows.h>

#include <string>

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
    CHostOutput();

    void Line(const std::wstring& sText) override;
    void Status(const std::wstring& sText) override;
    bool IsConsole() const override { return m_bConsole; }

private:
    void Write(const std::wstring& sText);

    bool m_bConsole = false;
    morvane::CUniqueFile m_hOut; // our own duplicate of standard output
    size_t m_cchStatus = 0;
};

// The process's output, made on first use.
CHostOutput& Output();
void PrintLine(const std::wstring& sText);

} // namespace keflhost
