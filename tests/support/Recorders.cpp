#include "support/Recorders.h"

#include <algorithm>

namespace kefltest
{

std::vector<CMessage> g_vMessages;
std::vector<morvane::ProgMsg> g_vProgress;
std::set<DWORD> g_progressThreads;

int32_t RecordMessage(uint32_t uiSeverity, std::wstring sMessage, uint64_t ullContext)
{
    g_vMessages.push_back({uiSeverity, std::move(sMessage), ullContext});
    return 0;
}

bool HasMessage(uint32_t uiSeverity, const std::wstring& sText)
{
    return std::ranges::any_of(g_vMessages, [&](const CMessage& message)
                               { return message.uiSeverity == uiSeverity && message.sText == sText; });
}

int32_t RecordProgress(const morvane::ProgMsg* pMsg, uint64_t)
{
    g_vProgress.push_back(*pMsg);
    g_progressThreads.insert(::GetCurrentThreadId());
    return 0;
}

} // namespace kefltest
