#include "trace/TraceObjects.h"

#include "rules/TraceFiles.h"

namespace morvane
{

// Both in one file so that their construction order at load is fixed.
KEFLTrace g_KeflTrace(kClientTraceFileName, L"KEFL_TraceLevel", L"PSF_TraceLevel", L"KEFL_TraceMaxMB",
                      L"KEFL_TraceEachLine");
CTrace g_VeskTrace(L"VESK_trace.log", L"VESK_TraceLevel", L"VESK_TraceMaxMB", L"VESK_TraceEachLine");

} // namespace morvane
