#pragma once
// The restore process: the one process of keflhost's that loads KEFL.dll. It runs the recovery
// host's whole sequence through the library (credentials, Init, GetFilespaceList,
// RestoreFilespace for each filespace, RestoreLinks, Fini) and tells keflhost what happens as
// events on its standard output. Whatever the library does to this process (its console, a
// crash) touches nothing of the administrator's: keflhost draws, lists and reports.
#include "keflrestore/EventSender.h"
#include "protocol/SessionRequest.h"

namespace keflhost
{

// Runs the session and answers the process's exit code: 0 when it ran to its end (whatever the
// restore's results), 1 when the library could not be loaded.
int RunSession(const CSessionRequest& request, const CEventSender& events);

} // namespace keflhost
