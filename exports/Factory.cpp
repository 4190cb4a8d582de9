// The library's two exports. A factory that cannot make its object (no memory for it) answers
// null, with the reason in the trace, rather than throw into a host that may not catch.
#include "VESK.h"
#include "VeskCredentials.h"
#include "exports/KEFL.h"
#include "trace/TraceObjects.h"

namespace
{

template <class Make> auto MadeOrNull(const wchar_t* pwszFunction, Make make) noexcept
{
    const morvane::CTracesFlushedOnReturn flushed;
    return morvane::CatchAtEdge(make,
                                [pwszFunction](const morvane::CEdgeFailure& failure) -> decltype(make())
                                {
                                    morvane::TraceFailedAtEdge(pwszFunction, failure);
                                    return nullptr;
                                });
}

} // namespace

extern "C" morvane::VESK* Factory()
{
    return MadeOrNull(L"Factory", []() -> morvane::VESK* { return new morvane::KEFL(); });
}

extern "C" morvane::VeskCredentials* CredentialsFactory()
{
    return MadeOrNull(L"CredentialsFactory",
                      []() -> morvane::VeskCredentials* { return new morvane::KeflCredentials(); });
}
