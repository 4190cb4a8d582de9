#include "exports/KEFL.h"

#include "session/KEFLImpl.h"
#include "trace/TraceObjects.h"

#include <type_traits>

namespace morvane
{
namespace
{

// The answer and the information-level text of each capability, indexed by its value.
struct CapabilityRow
{
    bool bAnswer;
    const wchar_t* pwszText;
};
const CapabilityRow kCapabilities[] = {
    {false, L"Does not allow multi-machine in same backup"},
    {true, L"Does backup hard-links separately"},
    {false, L"Does not backup SystemState separately"},
    {false, L"Does not support backupsets"},
    {false, L"Does not support backup images"},
    {false, L"Does not support tape backups"},
};

// Every call of the host passes this edge: what its work throws ends the call as the session's
// failure, "function : .. ending(text)" in the trace and the text as the last error, with the
// answer of a failure (false; 1 for a property). The session stays usable: Fini and a new Init
// work afterwards, as after any other failure.
template <typename Work> auto AtEdge(KEFLImpl* pImpl, const wchar_t* pwszFunction, Work work) noexcept
{
    using Answer = decltype(work());
    const CTracesFlushedOnReturn flushed;
    return CatchAtEdge(work,
                       [pImpl, pwszFunction](const CEdgeFailure& failure) -> Answer
                       {
                           TraceFailedAtEdge(pwszFunction, failure);
                           if (pImpl)
                               pImpl->SetLastErrorMsg(failure.Text());
                           if constexpr (std::is_same_v<Answer, uint32_t>)
                               return 1;
                           else if constexpr (!std::is_void_v<Answer>)
                               return Answer{};
                       });
}

// The shape of every forwarded boolean operation: entry, result, exit.
template <typename Call> bool Forward(KEFLImpl* pImpl, const wchar_t* pwszFunction, Call call) noexcept
{
    return AtEdge(pImpl, pwszFunction,
                  [&]
                  {
                      g_KeflTrace.TraceMessage(TRACE_VERBOSE, pwszFunction, L"starting ...");
                      const bool bRc = call();
                      g_KeflTrace.TraceValue(TRACE_INFO, pwszFunction, L"bRc", bRc);
                      g_KeflTrace.TraceMessage(TRACE_VERBOSE, pwszFunction, L"... ending");
                      return bRc;
                  });
}

} // namespace

KEFL::KEFL() : m_pImpl(new KEFLImpl())
{
    // The client's lines wait for the trace's writers until it ends or its session does.
    StartTraceQueues();
}

KEFL::~KEFL()
{
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, L"KEFL::~KEFL", L"Destructor");
    m_pImpl.reset();
    // The host unloads the library next: nothing may wait unwritten, nor a writer hold it loaded.
    StopTraceQueues();
}

void KEFL::GetLastErrorMsg(std::wstring& sErrorMsg)
{
    static const wchar_t kFn[] = L"KEFL::GetLastErrorMsg";
    return AtEdge(m_pImpl.get(), kFn,
                  [&]
                  {
                      g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
                      m_pImpl->GetLastErrorMsg(sErrorMsg);
                      g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
                  });
}

void KEFL::SetLogMsgCallbackFn(LogMsgCallbackFn pfnLogMsg, uint64_t ullContext)
{
    static const wchar_t kFn[] = L"KEFL::SetLogMsgCallbackFn";
    return AtEdge(m_pImpl.get(), kFn,
                  [&]
                  {
                      g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
                      m_pImpl->SetLogMsgCallbackFn(pfnLogMsg, ullContext);
                      g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
                  });
}

void KEFL::SetProgMsgCallbackFn(ProgMsgCallbackFn pfnProgMsg, uint64_t ullContext)
{
    static const wchar_t kFn[] = L"KEFL::SetProgMsgCallbackFn";
    return AtEdge(m_pImpl.get(), kFn,
                  [&]
                  {
                      g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
                      m_pImpl->SetProgMsgCallbackFn(pfnProgMsg, ullContext);
                      g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
                  });
}

bool KEFL::HasCapability(CapabilityType enCapabilityType)
{
    static const wchar_t kFn[] = L"KEFL::HasCapability";
    return AtEdge(m_pImpl.get(), kFn,
                  [&]
                  {
                      g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
                      bool bHasCapability = false;
                      if (enCapabilityType >= CAP_MULTI_MACHINE && enCapabilityType <= CAP_TAPE_BACKUPS)
                      {
                          const CapabilityRow& row = kCapabilities[enCapabilityType - CAP_MULTI_MACHINE];
                          g_KeflTrace.TraceMessage(TRACE_INFO, kFn, row.pwszText);
                          bHasCapability = row.bAnswer;
                      }
                      else
                      {
                          g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"enCapabilityType",
                                                 static_cast<int64_t>(enCapabilityType));
                          g_KeflTrace.TraceMessage(TRACE_INFO, kFn, L"Unknown capability");
                      }
                      g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"bHasCapability", bHasCapability);
                      g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
                      return bHasCapability;
                  });
}

uint32_t KEFL::GetModuleProperty(uint32_t uiPropertyId, std::wstring& sValue)
{
    static const wchar_t kFn[] = L"KEFL::GetModuleProperty";
    return AtEdge(m_pImpl.get(), kFn,
                  [&]
                  {
                      g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
                      const uint32_t uiRc = m_pImpl->GetModuleProperty(uiPropertyId, sValue);
                      g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"uiRc", static_cast<int64_t>(uiRc));
                      g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
                      return uiRc;
                  });
}

bool KEFL::Init(VeskCredentials* pCredentials)
{
    StartTraceQueues(); // again, after a Fini
    return Forward(m_pImpl.get(), L"KEFL::Init", [&] { return m_pImpl->Init(pCredentials); });
}

bool KEFL::Fini()
{
    const bool bRc = Forward(m_pImpl.get(), L"KEFL::Fini", [&] { return m_pImpl->Fini(); });
    // The session is over: the trace's writers end with it, and the host may unload the library.
    StopTraceQueues();
    return bRc;
}

bool KEFL::GetFilespaceList(std::vector<Filespace>& vFilespaces)
{
    return Forward(m_pImpl.get(), L"KEFL::GetFilespaceList",
                   [&] { return m_pImpl->GetFilespaceList(vFilespaces); });
}

bool KEFL::RestoreFilespace(Filespace& fs)
{
    static const wchar_t kFn[] = L"KEFL::RestoreFilespace";
    return Forward(m_pImpl.get(), kFn,
                   [&]
                   {
                       g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"Filespace.wcFsDriveLetter",
                                              fs.wcFsDriveLetter);
                       return m_pImpl->RestoreFilespace(fs);
                   });
}

bool KEFL::RestoreLinks()
{
    return Forward(m_pImpl.get(), L"KEFL::RestoreLinks", [&] { return m_pImpl->RestoreLinks(); });
}

} // namespace morvane
