#pragma once
// What goes to the host: its log and progress callbacks with their context values, the user
// messages of KEFL.dll's string table (ids in MessageIds.h), and the last error text that the
// host asks for. The client's base services keep their slots and forward here; link restore and
// the command runner tell the host through this alone. It traces under the base services' names,
// to VESK_trace.log.
#include "VESK.h"

#include <windows.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

namespace morvane
{

class CHostChannel
{
public:
    void GetLastErrorMsg(std::wstring& sErrorMsg) const;
    // Cut, never refused: the host shows what fits. Never allocates, so that the text of a failed
    // allocation reaches the host too.
    void SetLastErrorMsg(const wchar_t* pwszErrorMsg) noexcept;
    void SetLogMsgCallbackFn(LogMsgCallbackFn pfnLogMsg, uint64_t ullContext);
    void SetProgMsgCallbackFn(ProgMsgCallbackFn pfnProgMsg, uint64_t ullContext);

    // Hands a progress record to the host's progress callback, if one is set; its answer, else 0.
    int32_t ReportProgress(const ProgMsg& msg) const;
    bool HasProgressCallback() const { return m_pfnProgMsg != nullptr; }

    // Hands message uiMsgId of the string table to the host's log callback and returns the
    // callback's answer (without a callback: 1 for an error, else 0). An error also becomes the
    // last error text.
    int32_t LogStdMsg(uint32_t uiSeverity, uint32_t uiMsgId);
    // The same with the message's printf placeholders filled (Windows convention: %s a wide
    // string, %c a wide character, %u an unsigned number).
    int32_t LogVarMsg(uint32_t uiSeverity, uint32_t uiMsgId, ...);
    int32_t LogVarMsgV(uint32_t uiSeverity, uint32_t uiMsgId, va_list args);
    // A text of the string table ("" when it cannot be loaded), for a progress record.
    std::wstring Text(uint32_t uiMsgId) const;

    // The module that holds the string table; not owned.
    void SetModule(HMODULE hModule) { m_hModule = hModule; }
    HMODULE Module() const { return m_hModule; }

private:
    static constexpr size_t kErrorMsgChars = 1024;

    LogMsgCallbackFn m_pfnLogMsg = nullptr;
    ProgMsgCallbackFn m_pfnProgMsg = nullptr;
    uint64_t m_pLogMsgCtx = 0;
    uint64_t m_pProgMsgCtx = 0;
    HMODULE m_hModule = nullptr;
    wchar_t m_wszErrorMsg[kErrorMsgChars] = {};
};

} // namespace morvane
