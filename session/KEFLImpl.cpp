#include "session/KEFLImpl.h"

#include "channel/MessageIds.h"
#include "client/ModuleName.h"
#include "links/LinkPointFiles.h"
#include "session/ModuleDescription.h"
#include "trace/TraceObjects.h"
#include "volumes/LocationTranslation.h"

namespace morvane
{

KEFLImpl::KEFLImpl()
{
    static const wchar_t kFn[] = L"KEFLImpl::KEFLImpl";
    // User messages come from this library's string table, not the shared base's module.
    m_channel.SetModule(::GetModuleHandleW(kModuleFileName));
    ReadTraceLevels(kFn);

    HMODULE hKernel32 = ::GetModuleHandleW(L"KERNEL32.DLL");
    if (!hKernel32)
    {
        const DWORD dwLastError = ::GetLastError();
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"GetModuleHandle failed");
        g_KeflTrace.TraceValue(TRACE_ERROR, kFn, L"dwLastError", static_cast<int64_t>(dwLastError));
    }
    else
    {
        // Looked up rather than imported: systems without them still load the library.
        m_pfnCreateSymbolicLinkW = reinterpret_cast<CreateSymbolicLinkFn>(
            reinterpret_cast<void*>(::GetProcAddress(hKernel32, "CreateSymbolicLinkW")));
        m_pfnCreateHardLinkW = reinterpret_cast<CreateHardLinkFn>(
            reinterpret_cast<void*>(::GetProcAddress(hKernel32, "CreateHardLinkW")));
        g_KeflTrace.TraceMessage(TRACE_INFO, kFn,
                                 m_pfnCreateSymbolicLinkW ? L"CreateSymbolicLink() available"
                                                          : L"CreateSymbolicLink() is not available");
        g_KeflTrace.TraceMessage(TRACE_INFO, kFn,
                                 m_pfnCreateHardLinkW ? L"CreateHardLink() available"
                                                      : L"CreateHardLink() is not available");
    }

    GetResourceVersionStr(m_sVersion);
    m_sDescription = BuildModuleDescription();
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"sVersion", m_sVersion);
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"sDescription", m_sDescription);
    // Support staff see which build wrote a trace at the top of each client's lines.
    g_KeflTrace.TraceBanner(L"KEFL.DLL " + m_sVersion);
}

KEFLImpl::~KEFLImpl()
{
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, L"KEFLImpl::~KEFLImpl", L"Destructor");
}

void KEFLImpl::ReadTraceLevels(const wchar_t* pwszFunction)
{
    g_KeflTrace.ReadTraceLevel();
    g_KeflTrace.ReadPsfTraceLevel();
    m_uiTraceLevel = g_KeflTrace.GetTraceMask();
    m_uiPsfTraceLevel = g_KeflTrace.GetPsfTraceLevel();
    g_KeflTrace.TraceHex(TRACE_INFO, pwszFunction, L"uiTraceLevel", m_uiTraceLevel);
    g_KeflTrace.TraceHex(TRACE_INFO, pwszFunction, L"uiPsfTraceLevel", m_uiPsfTraceLevel);
}

bool KEFLImpl::NotAvailable(const wchar_t* pwszFunction)
{
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, pwszFunction, L"starting ...");
    SetLastErrorMsg(std::wstring(pwszFunction) + L" is not available in this build of KEFL.DLL");
    g_KeflTrace.TraceMessage(TRACE_ERROR, pwszFunction, L"... ending(Not available in this build)");
    return false;
}

CLinkRestorer KEFLImpl::LinkRestorer()
{
    return CLinkRestorer(m_channel, m_pfnCreateSymbolicLinkW, m_pfnCreateHardLinkW, m_unrestored);
}

bool KEFLImpl::RestoreLinks()
{
    return LinkRestorer().RestoreLinks(m_JunctionPoints, m_SymbolicLinks, m_HardLinks);
}

bool KEFLImpl::CreateJunction(const std::wstring& sLink, const std::wstring& sTarget, DWORD dwAttr)
{
    return LinkRestorer().CreateJunction(sLink, sTarget, dwAttr);
}

bool KEFLImpl::CreateSymbolicLink(const std::wstring& sLink, const std::wstring& sTarget, DWORD dwAttr)
{
    return LinkRestorer().CreateSymbolicLink(sLink, sTarget, dwAttr);
}

bool KEFLImpl::CreateHardLinkW(const std::wstring& sLink, const std::wstring& sTarget)
{
    return LinkRestorer().CreateHardLink(sLink, sTarget);
}

uint32_t KEFLImpl::GetModuleProperty(uint32_t uiPropertyId, std::wstring& sValue)
{
    static const wchar_t kFn[] = L"KEFLImpl::GetModuleProperty";
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"uiPropertyId", static_cast<int64_t>(uiPropertyId));
    uint32_t uiRc = 0;
    switch (uiPropertyId)
    {
    case PROP_DESCRIPTION:
        sValue = m_sDescription;
        break;
    case PROP_VERSION:
        sValue = m_sVersion; // answered also when the version lookup failed ("Error")
        break;
    default:
        uiRc = 1;
        break;
    }
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"uiRc", static_cast<int64_t>(uiRc));
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return uiRc;
}

bool KEFLImpl::LocalTargetPath(const wchar_t* pwszFunction, std::wstring& sPath,
                               const wchar_t* pwszConvertFailure)
{
    const wchar_t* pwszFailure = nullptr;
    if (m_sTargetLocation.empty())
        pwszFailure = L"... ending(Target location not set)";
    else if (!ConvertVOLtoDL(m_sTargetLocation, sPath))
        pwszFailure = pwszConvertFailure;
    else
        return true;
    // The same text for both: the host's user can only check the backup location.
    LogStdMsg(MSG_SEVERITY_ERROR, IDS_NO_TARGET_LOCATION);
    g_KeflTrace.TraceMessage(TRACE_ERROR, pwszFunction, pwszFailure);
    return false;
}

bool KEFLImpl::ConvertDLtoVOL(const std::wstring& sPathIn, std::wstring& sPathOut)
{
    return ::morvane::ConvertDLtoVOL(sPathIn, sPathOut);
}

bool KEFLImpl::ConvertVOLtoDL(const std::wstring& sPathIn, std::wstring& sPathOut)
{
    return ::morvane::ConvertVOLtoDL(sPathIn, sPathOut);
}

bool KEFLImpl::CheckIfWebDAV(const std::wstring& sPath, bool& bIsWebDAV)
{
    return ::morvane::CheckIfWebDAV(sPath, bIsWebDAV);
}

bool KEFLImpl::ParsePoint(const std::wstring& sPath, PointList& list)
{
    return ::morvane::ParsePoint(sPath, list);
}

bool KEFLImpl::ParseHPoint(const std::wstring& sPath, PointList& list)
{
    return ::morvane::ParseHPoint(sPath, list);
}

bool KEFLImpl::RunCommand(const std::wstring& sCmd)
{
    return m_CommandRunner.RunCommand(sCmd);
}

bool KEFLImpl::GetLine(std::wstring& sLine, bool bTraceLine)
{
    return m_CommandRunner.GetLine(sLine, bTraceLine);
}

bool KEFLImpl::ReadChar(char& c)
{
    return m_CommandRunner.ReadChar(c);
}

} // namespace morvane
