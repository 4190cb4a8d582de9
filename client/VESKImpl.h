#pragma once
// The shared base of every client implementation: the last error text, the host's two callbacks,
// and the services that restore code calls everywhere. It traces to VESK_trace.log.
#include "VESK.h"

#include <windows.h>

#include <cstdint>
#include <string>

namespace morvane
{

class VESKImpl
{
public:
    VESKImpl();
    VESKImpl(const VESKImpl& other);
    VESKImpl& operator=(const VESKImpl& other);
    virtual ~VESKImpl();

    virtual void GetLastErrorMsg(std::wstring& sErrorMsg);
    virtual void SetLastErrorMsg(const std::wstring& sErrorMsg);
    virtual void SetLogMsgCallbackFn(LogMsgCallbackFn pfnLogMsg, uint64_t ullContext);
    virtual void SetProgMsgCallbackFn(ProgMsgCallbackFn pfnProgMsg, uint64_t ullContext);

    // The module's version text; "Error" when the version resource cannot be read.
    void GetResourceVersionStr(std::wstring& sVersion);

protected:
    static constexpr size_t kErrorMsgChars = 1024;

    uint32_t m_uiOSVersion = 0;
    LogMsgCallbackFn m_pfnLogMsg = nullptr;
    ProgMsgCallbackFn m_pfnProgMsg = nullptr;
    uint64_t m_pLogMsgCtx = 0;
    uint64_t m_pProgMsgCtx = 0;
    HMODULE m_hModule = nullptr; // holds the string table of user messages; not owned
    wchar_t m_wszErrorMsg[kErrorMsgChars] = {};
};

} // namespace morvane
