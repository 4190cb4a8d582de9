#include "client/VESKImpl.h"

#include "folders/ParentFolders.h"
#include "platform/WindowsVersion.h"
#include "trace/TraceObjects.h"

#include <cstdarg>

namespace morvane
{

VESKImpl::VESKImpl()
{
    g_VeskTrace.ReadTraceLevel();
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, L"VESKImpl::VESKImpl", L"Constructor");
    m_channel.SetModule(::GetModuleHandleW(L"VESK.DLL"));
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
    m_channel.GetLastErrorMsg(sErrorMsg);
}

void VESKImpl::SetLastErrorMsg(const std::wstring& sErrorMsg)
{
    m_channel.SetLastErrorMsg(sErrorMsg.c_str());
}

void VESKImpl::SetLastErrorMsg(const wchar_t* pwszErrorMsg) noexcept
{
    m_channel.SetLastErrorMsg(pwszErrorMsg);
}

void VESKImpl::SetLogMsgCallbackFn(LogMsgCallbackFn pfnLogMsg, uint64_t ullContext)
{
    m_channel.SetLogMsgCallbackFn(pfnLogMsg, ullContext);
}

void VESKImpl::SetProgMsgCallbackFn(ProgMsgCallbackFn pfnProgMsg, uint64_t ullContext)
{
    m_channel.SetProgMsgCallbackFn(pfnProgMsg, ullContext);
}

int32_t VESKImpl::ReportProgress(const ProgMsg& msg)
{
    return m_channel.ReportProgress(msg);
}

int32_t VESKImpl::LogStdMsg(uint32_t uiSeverity, uint32_t uiMsgId)
{
    return m_channel.LogStdMsg(uiSeverity, uiMsgId);
}

int32_t VESKImpl::LogVarMsg(uint32_t uiSeverity, uint32_t uiMsgId, ...) // NOLINT(cert-dcl50-cpp)
{
    va_list args;
    va_start(args, uiMsgId);
    const int32_t iRc = m_channel.LogVarMsgV(uiSeverity, uiMsgId, args);
    va_end(args);
    return iRc;
}

bool VESKImpl::CreateParentDir(const std::wstring& sPath)
{
    return CreateParentFolders(sPath);
}

} // namespace morvane
