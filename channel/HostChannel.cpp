#include "channel/HostChannel.h"

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

void CHostChannel::GetLastErrorMsg(std::wstring& sErrorMsg) const
{
    sErrorMsg = m_wszErrorMsg[0] != L'\0' ? m_wszErrorMsg : L"No error";
}

void CHostChannel::SetLastErrorMsg(const wchar_t* pwszErrorMsg) noexcept
{
    const size_t cch = std::min(std::wcslen(pwszErrorMsg), kErrorMsgChars - 1);
    std::wmemcpy(m_wszErrorMsg, pwszErrorMsg, cch);
    m_wszErrorMsg[cch] = L'\0';
    g_VeskTrace.TraceValue(TRACE_INFO, L"VESKImpl::SetLastErrorMsg", L"sErrorMsg", m_wszErrorMsg);
}

void CHostChannel::SetLogMsgCallbackFn(LogMsgCallbackFn pfnLogMsg, uint64_t ullContext)
{
    StoreCallback(L"VESKImpl::SetLogMsgCallbackFn", L"pfnLogMsg", L"pLogMsgCtx", pfnLogMsg, ullContext,
                  m_pfnLogMsg, m_pLogMsgCtx);
}

void CHostChannel::SetProgMsgCallbackFn(ProgMsgCallbackFn pfnProgMsg, uint64_t ullContext)
{
    StoreCallback(L"VESKImpl::SetProgMsgCallbackFn", L"pfnProgMsg", L"pProgMsgCtx", pfnProgMsg, ullContext,
                  m_pfnProgMsg, m_pProgMsgCtx);
}

int32_t CHostChannel::ReportProgress(const ProgMsg& msg) const
{
    return m_pfnProgMsg ? m_pfnProgMsg(&msg, m_pProgMsgCtx) : 0;
}

std::wstring CHostChannel::Text(uint32_t uiMsgId) const
{
    wchar_t wszText[1024] = {};
    if (!m_hModule || ::LoadStringW(m_hModule, uiMsgId, wszText, 1024) <= 0)
        return {};
    return wszText;
}

} // namespace morvane
