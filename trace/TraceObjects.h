#pragma once
// The module's two trace logs, alive from load to unload: KEFL_trace.log for the client and its
// session, VESK_trace.log for the shared base services.
#include "trace/KEFLTrace.h"

namespace morvane
{

extern KEFLTrace g_KeflTrace;
extern CTrace g_VeskTrace;

} // namespace morvane
