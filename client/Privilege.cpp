// Enabling a privilege of the process's token (backup, restore, ownership for the restore).
#include "client/VESKImpl.h"

#include "platform/UniqueHandle.h"
#include "trace/TraceObjects.h"

namespace morvane
{

bool VESKImpl::SetPrivilege(const std::wstring& sPrivilege, bool bEnable)
{
    static const wchar_t kFn[] = L"VESKImpl::SetPrivilege";
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    g_VeskTrace.TraceValue(TRACE_INFO, kFn, L"sPrivilege", sPrivilege);
    g_VeskTrace.TraceValue(TRACE_INFO, kFn, L"bEnable", bEnable);
    auto fail = [](const wchar_t* pwszReason, DWORD dwLastError)
    {
        g_VeskTrace.TraceMessage(TRACE_ERROR, kFn, pwszReason);
        g_VeskTrace.TraceValue(TRACE_ERROR, kFn, L"dwLastError", static_cast<int64_t>(dwLastError));
        return false;
    };
    if (sPrivilege.empty())
        return fail(L"... ending(Invalid privilege)", ERROR_INVALID_PARAMETER);

    CUniqueHandle hToken;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, hToken.put()))
        return fail(L"... ending(OpenProcessToken failed)", ::GetLastError());

    TOKEN_PRIVILEGES tp = {};
    if (!::LookupPrivilegeValueW(nullptr, sPrivilege.c_str(), &tp.Privileges[0].Luid))
        return fail(L"... ending(LookupPrivilegeValue failed)", ::GetLastError());
    tp.PrivilegeCount = 1;
    tp.Privileges[0].Attributes = bEnable ? SE_PRIVILEGE_ENABLED : 0;

    const BOOL bAdjusted = ::AdjustTokenPrivileges(hToken.get(), FALSE, &tp, sizeof(tp), nullptr, nullptr);
    const DWORD dwLastError = ::GetLastError();
    if (!bAdjusted)
        return fail(L"... ending(AdjustTokenPrivileges failed)", dwLastError);
    // Success with this error means the token does not hold the privilege at all.
    if (dwLastError == ERROR_NOT_ALL_ASSIGNED)
        return fail(L"... ending(AdjustTokenPrivileges failed - ERROR_NOT_ALL_ASSIGNED)", dwLastError);
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return true;
}

} // namespace morvane
