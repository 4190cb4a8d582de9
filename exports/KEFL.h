#pragma once
// This library's client object: a thin facade that traces every call of the host and forwards
// the work to its KEFLImpl, except the capability query, which it answers itself.
#include "VESK.h"

#include <memory>

namespace morvane
{

class KEFLImpl;

class KEFL : public VESK
{
public:
    KEFL();
    ~KEFL() override;

    void GetLastErrorMsg(std::wstring& sErrorMsg) override;
    void SetLogMsgCallbackFn(LogMsgCallbackFn pfnLogMsg, uint64_t ullContext) override;
    void SetProgMsgCallbackFn(ProgMsgCallbackFn pfnProgMsg, uint64_t ullContext) override;
    bool HasCapability(CapabilityType enCapabilityType) override;
    uint32_t GetModuleProperty(uint32_t uiPropertyId, std::wstring& sValue) override;
    bool Init(VeskCredentials* pCredentials) override;
    bool Fini() override;
    bool GetFilespaceList(std::vector<Filespace>& vFilespaces) override;
    bool Reserved9() override { return Unimplemented(); }
    bool Reserved10() override { return Unimplemented(); }
    bool Reserved11() override { return Unimplemented(); }
    bool Reserved12() override { return Unimplemented(); }
    bool Reserved13() override { return Unimplemented(); }
    bool Reserved14() override { return Unimplemented(); }
    bool RestoreFilespace(Filespace& fs) override;
    bool Reserved16() override { return Unimplemented(); }
    bool Reserved17() override { return Unimplemented(); }
    bool Reserved18() override { return Unimplemented(); }
    bool Reserved19() override { return Unimplemented(); }
    bool RestoreLinks() override;
    bool Reserved21() override { return Unimplemented(); }
    bool Reserved22() override { return Unimplemented(); }

private:
    // Slots of other kinds of client. Reads nothing, so it suits any parameter list a host
    // declares for them.
    static bool Unimplemented() { return true; }

    std::unique_ptr<KEFLImpl> m_pImpl;
};

} // namespace morvane
