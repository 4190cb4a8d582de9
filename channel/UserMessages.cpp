// User messages: texts of KEFL.DLL's string table handed to the host's log callback.
#include "channel/HostChannel.h"

#include "trace/TraceObjects.h"

#include <cstdarg>
#include <cstdio>

namespace morvane
{
namespace
{

// Loads a message; on failure traces the error (183 is not a loading failure) and answers false.
bool LoadMessage(HMODULE hModule, uint32_t uiMsgId, wchar_t* pwszBuf, int cchBuf, const wchar_t* pwszFunction)
{
    pwszBuf[0] = L'\0';
    if (::LoadStringW(hModule, uiMsgId, pwszBuf, cchBuf) > 0)
        return true;
    const DWORD dwLastError = ::GetLastError();
    if (dwLastError != ERROR_ALREADY_EXISTS)
    {
        g_VeskTrace.TraceMessage(TRACE_ERROR, pwszFunction, L"LoadString failed");
        g_VeskTrace.TraceValue(TRACE_ERROR, pwszFunction, L"dwLastError", static_cast<int64_t>(dwLastError));
    }
    return false;
}

void TraceEntry(const wchar_t* pwszFunction, uint32_t uiSeverity, uint32_t uiMsgId)
{
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, pwszFunction, L"starting ...");
    g_VeskTrace.TraceValue(TRACE_INFO, pwszFunction, L"uiSeverity", static_cast<int64_t>(uiSeverity));
    g_VeskTrace.TraceValue(TRACE_INFO, pwszFunction, L"uiMsgId", static_cast<int64_t>(uiMsgId));
}

} // namespace

int32_t CHostChannel::LogStdMsg(uint32_t uiSeverity, uint32_t uiMsgId)
{
    static const wchar_t kFn[] = L"VESKImpl::LogStdMsg";
    TraceEntry(kFn, uiSeverity, uiMsgId);
    int32_t iRc = uiSeverity == MSG_SEVERITY_ERROR ? 1 : 0;
    wchar_t wszMsg[1024];
    const bool bLoaded = LoadMessage(m_hModule, uiMsgId, wszMsg, 1024, kFn);
    if (m_pfnLogMsg && bLoaded)
        iRc = m_pfnLogMsg(uiSeverity, wszMsg, m_pLogMsgCtx);
    // Also when loading failed: the error text then becomes empty rather than stay stale.
    if (uiSeverity == MSG_SEVERITY_ERROR)
        SetLastErrorMsg(wszMsg);
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return iRc;
}

// A string-table text takes its values printf-style, as every client of the recovery host formats them.
int32_t CHostChannel::LogVarMsg(uint32_t uiSeverity, uint32_t uiMsgId, ...) // NOLINT(cert-dcl50-cpp)
{
    va_list args;
    va_start(args, uiMsgId);
    const int32_t iRc = LogVarMsgV(uiSeverity, uiMsgId, args);
    va_end(args);
    return iRc;
}

int32_t CHostChannel::LogVarMsgV(uint32_t uiSeverity, uint32_t uiMsgId, va_list args)
{
    static const wchar_t kFn[] = L"VESKImpl::LogVarMsg";
    TraceEntry(kFn, uiSeverity, uiMsgId);
    int32_t iRc = uiSeverity == MSG_SEVERITY_ERROR ? 1 : 0;
    wchar_t wszFormat[200];
    const bool bLoaded = LoadMessage(m_hModule, uiMsgId, wszFormat, 200, kFn);

    // The C runtime's own formatting, not the C99 one: the table's texts follow the Windows
    // convention (%s wide, %S narrow, %c a wide character).
    constexpr size_t kMsgChars = 2048;
    wchar_t wszMsgBuf[kMsgChars];
    _vsnwprintf(wszMsgBuf, kMsgChars - 1, wszFormat, args);
    wszMsgBuf[kMsgChars - 1] = L'\0';

    if (bLoaded)
    {
        if (m_pfnLogMsg)
            iRc = m_pfnLogMsg(uiSeverity, wszMsgBuf, m_pLogMsgCtx);
        else
            g_VeskTrace.TraceValue(TRACE_VERBOSE, kFn, L"wszMsgBuf", wszMsgBuf);
    }
    if (uiSeverity == MSG_SEVERITY_ERROR)
        SetLastErrorMsg(wszMsgBuf);
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return iRc;
}

} // namespace morvane
