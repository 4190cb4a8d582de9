#include "client/KEFL.h"

#include "session/KEFLImpl.h"
#include "trace/TraceObjects.h"

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

// The shape of every forwarded boolean operation: entry, result, exit.
template <typename Call> bool Forward(const wchar_t* pwszFunction, Call call)
{
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, pwszFunction, L"starting ...");
    const bool bRc = call();
    g_KeflTrace.TraceValue(TRACE_INFO, pwszFunction, L"bRc", bRc);
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, pwszFunction, L"... ending");
    return bRc;
}

} // namespace

KEFL::KEFL() : m_pImpl(new KEFLImpl()) {}

KEFL::~KEFL()
{
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, L"KEFL::~KEFL", L"Destructor");
}

void KEFL::GetLastErrorMsg(std::wstring& sErrorMsg)
{
    static const wchar_t kFn[] = L"KEFL::GetLastErrorMsg";
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    m_pImpl->GetLastErrorMsg(sErrorMsg);
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
}

void KEFL::SetLogMsgCallbackFn(LogMsgCallbackFn pfnLogMsg, uint64_t ullContext)
{
    static const wchar_t kFn[] = L"KEFL::SetLogMsgCallbackFn";
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    m_pImpl->SetLogMsgCallbackFn(pfnLogMsg, ullContext);
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
}

void KEFL::SetProgMsgCallbackFn(ProgMsgCallbackFn pfnProgMsg, uint64_t ullContext)
{
    static const wchar_t kFn[] = L"KEFL::SetProgMsgCallbackFn";
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    m_pImpl->SetProgMsgCallbackFn(pfnProgMsg, ullContext);
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
}

bool KEFL::HasCapability(CapabilityType enCapabilityType)
{
    static const wchar_t kFn[] = L"KEFL::HasCapability";
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
        g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"enCapabilityType", static_cast<int64_t>(enCapabilityType));
        g_KeflTrace.TraceMessage(TRACE_INFO, kFn, L"Unknown capability");
    }
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"bHasCapability", bHasCapability);
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return bHasCapability;
}

uint32_t KEFL::GetModuleProperty(uint32_t uiPropertyId, std::wstring& sValue)
{
    static const wchar_t kFn[] = L"KEFL::GetModuleProperty";
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    const uint32_t uiRc = m_pImpl->GetModuleProperty(uiPropertyId, sValue);
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"uiRc", static_cast<int64_t>(uiRc));
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return uiRc;
}

bool KEFL::Init(VeskCredentials* pCredentials)
{
    return Forward(L"KEFL::Init", [&] { return m_pImpl->Init(pCredentials); });
}

bool KEFL::Fini()
{
    return Forward(L"KEFL::Fini", [&] { return m_pImpl->Fini(); });
}

bool KEFL::GetFilespaceList(std::vector<Filespace>& vFilespaces)
{
    return Forward(L"KEFL::GetFilespaceList", [&] { return m_pImpl->GetFilespaceList(vFilespaces); });
}

bool KEFL::RestoreFilespace(Filespace& fs)
{
    static const wchar_t kFn[] = L"KEFL::RestoreFilespace";
    return Forward(kFn,
                   [&]
                   {
                       g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"Filespace.wcFsDriveLetter",
                                              fs.wcFsDriveLetter);
                       return m_pImpl->RestoreFilespace(fs);
                   });
}

bool KEFL::RestoreLinks()
{
    return Forward(L"KEFL::RestoreLinks", [&] { return m_pImpl->RestoreLinks(); });
}

} // namespace morvane
