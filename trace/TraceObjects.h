#pragma once
// The module's two trace logs, alive from load to unload: KEFL_trace.log for the client and its
// session, VESK_trace.log for the shared base services.
#include "platform/CatchAtEdge.h"
#include "platform/FormatText.h"
#include "trace/KEFLTrace.h"
#include "trace/TraceWords.h"

namespace morvane
{

extern KEFLTrace g_KeflTrace;
extern CTrace g_VeskTrace;

// Both logs' queued lines written now.
inline void FlushTraces() noexcept
{
    g_KeflTrace.Flush();
    g_VeskTrace.Flush();
}

// Every call of the host ends with this in scope: what the call traced, on any thread, is in the
// files when it returns, where the host looks for it.
class CTracesFlushedOnReturn
{
public:
    CTracesFlushedOnReturn() = default;
    ~CTracesFlushedOnReturn() { FlushTraces(); }
    CTracesFlushedOnReturn(const CTracesFlushedOnReturn&) = delete;
    CTracesFlushedOnReturn& operator=(const CTracesFlushedOnReturn&) = delete;
};

// A client's life and its sessions queue both logs' lines for their writer threads: the lines of
// a restore's files go many to an open. The end of a session or of the client writes them and ends
// the writers, so that the host's FreeLibrary unloads the library at once (a writer holds it
// loaded). Never from DllMain.
inline void StartTraceQueues() noexcept
{
    g_KeflTrace.StartQueue();
    g_VeskTrace.StartQueue();
}
inline void StopTraceQueues() noexcept
{
    g_KeflTrace.StopQueue();
    g_VeskTrace.StopQueue();
}

// The module log's commonest lines. TraceFailed writes a failed exit, "function : ... ending(reason)"
// at the error level (with dwLastError after it, where given) and answers false, for the caller to
// return. TraceLastError writes "function : dwLastError = n"; given a text, that text follows it.
inline bool TraceFailed(const wchar_t* pwszFunction, const wchar_t* pwszReason)
{
    g_KeflTrace.TraceMessage(TRACE_ERROR, pwszFunction, pwszReason);
    return false;
}

inline void TraceLastError(const wchar_t* pwszFunction, DWORD dwLastError, uint32_t uiLevel = TRACE_ERROR)
{
    g_KeflTrace.TraceValue(uiLevel, pwszFunction, words::kLastError, static_cast<int64_t>(dwLastError));
}

inline void TraceLastError(const wchar_t* pwszFunction, DWORD dwLastError, const wchar_t* pwszWhat)
{
    TraceLastError(pwszFunction, dwLastError);
    g_KeflTrace.TraceMessage(TRACE_ERROR, pwszFunction, pwszWhat);
}

inline bool TraceFailed(const wchar_t* pwszFunction, const wchar_t* pwszReason, DWORD dwLastError)
{
    g_KeflTrace.TraceMessage(TRACE_ERROR, pwszFunction, pwszReason);
    TraceLastError(pwszFunction, dwLastError);
    return false;
}

// What ended an entry point at its edge: "function : .. ending(text)", made without allocating.
inline void TraceFailedAtEdge(const wchar_t* pwszFunction, const CEdgeFailure& failure) noexcept
{
    wchar_t wszReason[256];
    (void)FormatInto(wszReason, L".. ending(%ls)", failure.Text()); // a cut text still says it
    g_KeflTrace.TraceMessage(TRACE_ERROR, pwszFunction, wszReason);
}

} // namespace morvane
