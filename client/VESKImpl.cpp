#include "client/VESKImpl.h"

#include "platform/WindowsVersion.h"
#include "trace/TraceObjects.h"

#include <algorithm>
#include <cwchar>

namespace morvane
{
namespace
{

// Both callback setters: a null function clears the context with it.
template <typename Fn>
void StoreCallback(const wchar_t* pwszFunction, const wchar_t* pwszFnName, const wchar_t* pwszCtxName,
                   Fn pfnNew, uint64_t ullContext, Fn& pfnStored, uint64_t& ullStored)
{
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, pwszFunction, L"starting ...");
    g_VeskTrace.TraceHex(TRACE_INFO, pwszFunction, pwszFnName, reinterpret_cast<uintptr_t>(pfnNew));
    g_VeskTrace.TraceHex(TRACE_INFO, pwszFunction, pwszCtxName, ullContext);
    pfnStored = pfnNew;
    ullStored = pfnNew ? ullContext : 0;
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, pwszFunction, pfnNew ? L"... ending" : L"... ending(NULL)");
}

} // namespace

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
    SetLastErrorMsg(sErrorMsg.c_str());
}

void VESKImpl::SetLastErrorMsg(const wchar_t* pwszErrorMsg) noexcept
{
    // Cut, never rejected: the host shows what fits.
    const size_t cch = std::min(std::wcslen(pwszErrorMsg), kErrorMsgChars - 1);
    std::wmemcpy(m_wszErrorMsg, pwszErrorMsg, cch);
    m_wszErrorMsg[cch] = L'\0';
    g_VeskTrace.TraceValue(TRACE_INFO, L"VESKImpl::SetLastErrorMsg", L"sErrorMsg", m_wszErrorMsg);
}

void VESKImpl::SetLogMsgCallbackFn(LogMsgCallbackFn pfnLogMsg, uint64_t ullContext)
{
    StoreCallback(L"VESKImpl::SetLogMsgCallbackFn", L"pfnLogMsg", L"pLogMsgCtx", pfnLogMsg, ullContext,
                  m_pfnLogMsg, m_pLogMsgCtx);
}

void VESKImpl::SetProgMsgCallbackFn(ProgMsgCallbackFn pfnProgMsg, uint64_t ullContext)
{
    StoreCallback(L"VESKImpl::SetProgMsgCallbackFn", L"pfnProgMsg", L"pProgMsgCtx", pfnProgMsg, ullContext,
                  m_pfnProgMsg, m_pProgMsgCtx);
}

int32_t VESKImpl::ReportProgress(const ProgMsg& msg)
{
    return m_pfnProgMsg ? m_pfnProgMsg(&msg, m_pProgMsgCtx) : 0;
}

} // namespace morvane
