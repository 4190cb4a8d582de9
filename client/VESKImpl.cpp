#include "client/VESKImpl.h"

#include "client/ModuleName.h"
#include "platform/WindowsVersion.h"
#include "trace/TraceObjects.h"

#include <cwchar>

namespace morvane
{

VESKImpl::VESKImpl()
{
    g_VeskTrace.ReadTraceLevel();
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, L"VESKImpl::VESKImpl", L"Constructor");
    m_hModule = ::GetModuleHandleW(L"VESK.DLL");
    m_uiOSVersion = CWindowsVersion::Instance().GetCode();
}

VESKImpl::VESKImpl(const VESKImpl& other) = default;

VESKImpl& VESKImpl::operator=(const VESKImpl& other) = default;

VESKImpl::~VESKImpl()
{
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, L"VESKImpl::~VESKImpl", L"Destructor");
}

void VESKImpl::GetLastErrorMsg(std::wstring& sErrorMsg)
{
    sErrorMsg = m_wszErrorMsg[0] != L'\0' ? m_wszErrorMsg : L"No error";
}

void VESKImpl::SetLastErrorMsg(const std::wstring& sErrorMsg)
{
    // Cut, never rejected: the host shows what fits.
    const size_t cch = sErrorMsg.size() < kErrorMsgChars - 1 ? sErrorMsg.size() : kErrorMsgChars - 1;
    std::wmemcpy(m_wszErrorMsg, sErrorMsg.c_str(), cch);
    m_wszErrorMsg[cch] = L'\0';
    g_VeskTrace.TraceValue(TRACE_INFO, L"VESKImpl::SetLastErrorMsg", L"sErrorMsg", m_wszErrorMsg);
}

void VESKImpl::SetLogMsgCallbackFn(LogMsgCallbackFn pfnLogMsg, uint64_t ullContext)
{
    static const wchar_t kFn[] = L"VESKImpl::SetLogMsgCallbackFn";
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    g_VeskTrace.TraceHex(TRACE_INFO, kFn, L"pfnLogMsg", reinterpret_cast<uintptr_t>(pfnLogMsg));
    g_VeskTrace.TraceHex(TRACE_INFO, kFn, L"pLogMsgCtx", ullContext);
    if (!pfnLogMsg)
    {
        m_pfnLogMsg = nullptr;
        m_pLogMsgCtx = 0;
        g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending(NULL)");
        return;
    }
    m_pfnLogMsg = pfnLogMsg;
    m_pLogMsgCtx = ullContext;
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
}

void VESKImpl::SetProgMsgCallbackFn(ProgMsgCallbackFn pfnProgMsg, uint64_t ullContext)
{
    static const wchar_t kFn[] = L"VESKImpl::SetProgMsgCallbackFn";
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    g_VeskTrace.TraceHex(TRACE_INFO, kFn, L"pfnProgMsg", reinterpret_cast<uintptr_t>(pfnProgMsg));
    g_VeskTrace.TraceHex(TRACE_INFO, kFn, L"pProgMsgCtx", ullContext);
    if (!pfnProgMsg)
    {
        m_pfnProgMsg = nullptr;
        m_pProgMsgCtx = 0;
        g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending(NULL)");
        return;
    }
    m_pfnProgMsg = pfnProgMsg;
    m_pProgMsgCtx = ullContext;
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
}

void VESKImpl::GetResourceVersionStr(std::wstring& sVersion)
{
    // Reading the version resource arrives with the base services; until then the lookup
    // answers as a failed one does.
    sVersion = L"Error";
    g_VeskTrace.TraceMessage(TRACE_ERROR, L"VESKImpl::GetResourceVersionStr",
                             L"... ending(No version resource available)");
}

} // namespace morvane
