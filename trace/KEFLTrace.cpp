#include "trace/KEFLTrace.h"

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
    return ::GetPrivateProfileIntW(L"Main", pwszKey, static_cast<INT>(uiDefault), TraceIniPath().c_str());
}

} // namespace morvane
