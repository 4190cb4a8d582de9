#pragma once
// The restore process's side of the pipe: it sends keflhost the events, and the lines it would
// have printed as events too. A keflhost that is gone (the pipe is broken) leaves nobody to tell
// what the restore does: the process ends.
#include "protocol/Events.h"

#include <windows.h>

#include <string>

namespace keflhost
{

class CEventSender
{
public:
    explicit CEventSender(HANDLE hEvents) : m_hEvents(hEvents) {}
    void Send(const CEvent& event) const;
    // A line for keflhost to print.
    void Say(const std::wstring& sText) const { Send(LineEvent{sText}); }

private:
    HANDLE m_hEvents; // the process's own duplicate of its standard output; main owns it
};

} // namespace keflhost
