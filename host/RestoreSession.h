#pragma once
// The restore process: the one process of keflhost's that loads KEFL.dll. It runs the recovery
// host's whole sequence through the library (credentials, Init, GetFilespaceList,
// RestoreFilespace for each filespace, RestoreLinks, Fini) and tells keflhost what happens as
// events on its standard output (RestoreEvents.h). Whatever the library does to this process (its
// console, a crash) touches nothing of the administrator's: keflhost draws, lists and reports.
#include "host/RestoreEvents.h"

#include <windows.h>

#include <string>
#include <vector>

namespace keflhost
{

// What keflhost asks of the restore process, from its own command line.
struct CSessionRequest
{
    std::wstring sAnsFile;
    std::wstring sLocation;
    std::wstring sPit;
    bool bListOnly = false;
    // Drive letters ("C") or mount-point folders ("C:\Mount\Data"); empty: every filespace.
    std::vector<std::wstring> vSelected;
};

// The restore process's arguments for a request, and back; false for arguments it does not know.
std::wstring SessionArguments(const CSessionRequest& request);
bool ParseSessionArguments(int argc, wchar_t** argv, CSessionRequest& request);

// Sends events to keflhost through hEvents. A keflhost that is gone (the pipe is broken) leaves
// nobody to tell what the restore does: the process ends.
class CEventSender
{
public:
    explicit CEventSender(HANDLE hEvents) : m_hEvents(hEvents) {}
    void Send(const CEvent& event) const;

private:
    HANDLE m_hEvents;
};

// Runs the session and answers the process's exit code: 0 when it ran to its end (whatever the
// restore's results), 1 when the library could not be loaded.
int RunSession(const CSessionRequest& request, const CEventSender& events);

} // namespace keflhost
