#include "trace/KEFLTrace.h"

#include <cwchar>

namespace morvane
{

KEFLTrace::KEFLTrace(const wchar_t* pwszFileName, const wchar_t* pwszLevelKey, const wchar_t* pwszPsfLevelKey,
                     const wchar_t* pwszMaxMBKey, const wchar_t* pwszEachLineKey)
    : CTrace(pwszFileName, pwszLevelKey, pwszMaxMBKey, pwszEachLineKey), m_sPsfLevelKey(pwszPsfLevelKey)
{
}

void KEFLTrace::ReadPsfTraceLevel()
{
    CLastErrorGuard keepError;
    const std::wstring sIniPath = TraceIniPath();
    m_uiPsfFlags.store(::GetPrivateProfileIntW(L"Main", m_sPsfLevelKey.c_str(), 18, sIniPath.c_str()),
                       std::memory_order_relaxed);
}

uint32_t KEFLTrace::ReadSetting(const wchar_t* pwszKey, uint32_t uiDefault)
{
    CLastErrorGuard keepError;
    // The process's environment first: a host sets a setting there for its own run, and no file
    // that outlives the run keeps it.
    wchar_t wszValue[16] = {};
    const DWORD cchValue = ::GetEnvironmentVariableW(pwszKey, wszValue, 16);
    wchar_t* pwszEnd = wszValue;
    const unsigned long ulValue = cchValue > 0 && cchValue < 16 ? std::wcstoul(wszValue, &pwszEnd, 10) : 0;
    if (pwszEnd != wszValue && *pwszEnd == L'\0')
        return static_cast<uint32_t>(ulValue);
    return ::GetPrivateProfileIntW(L"Main", pwszKey, static_cast<INT>(uiDefault), TraceIniPath().c_str());
}

} // namespace morvane
