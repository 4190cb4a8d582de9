#pragma once
// What a client hands its host through the two callbacks, recorded for a test to read.
#include "VESK.h"

#include <set>
#include <string>
#include <vector>

namespace kefltest
{

struct CMessage
{
    uint32_t uiSeverity;
    std::wstring sText;
    uint64_t ullContext;
};
// The user messages, kept by RecordMessage (the log-message callback, which answers 0).
extern std::vector<CMessage> g_vMessages;
int32_t RecordMessage(uint32_t uiSeverity, std::wstring sMessage, uint64_t ullContext);
bool HasMessage(uint32_t uiSeverity, const std::wstring& sText);

// The progress records, kept by RecordProgress (the progress callback), and the threads it ran on.
extern std::vector<morvane::ProgMsg> g_vProgress;
extern std::set<DWORD> g_progressThreads;
int32_t RecordProgress(const morvane::ProgMsg* pMsg, uint64_t ullContext);

} // namespace kefltest
