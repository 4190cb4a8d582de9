#pragma once
// The module's own trace: a CTrace that also reads the PSF feature flags, a bit set that selects
// optional behaviour (it is not a severity mask).
#include "trace/CTrace.h"

namespace morvane
{

class KEFLTrace : public CTrace
{
public:
    KEFLTrace(const wchar_t* pwszFileName, const wchar_t* pwszLevelKey, const wchar_t* pwszPsfLevelKey,
              const wchar_t* pwszMaxMBKey = nullptr, const wchar_t* pwszEachLineKey = nullptr);

    void ReadPsfTraceLevel();
    // Another number of trace.ini's [Main] section, where the recovery system is tuned (the
    // restore's threads); a variable of that name in the process's environment comes first;
    // uiDefault when neither has it.
    uint32_t ReadSetting(const wchar_t* pwszKey, uint32_t uiDefault);
    uint32_t GetPsfTraceLevel() const { return m_uiPsfFlags.load(std::memory_order_relaxed); }
    // True when every bit of uiFlags is set.
    bool IsPsfTraceFlagSet(uint32_t uiFlags) const { return (GetPsfTraceLevel() & uiFlags) == uiFlags; }

private:
    std::wstring m_sPsfLevelKey;
    std::atomic<uint32_t> m_uiPsfFlags{18};
};

} // namespace morvane
