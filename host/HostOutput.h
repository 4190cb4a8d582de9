#pragma once
// What our host prints: UTF-8 on standard output, whatever the console or pipe behind it.
#include "VESK.h"

#include <string>

namespace keflhost
{

void PrintLine(const std::wstring& sText);

// The library's callbacks: every user message with its severity, every progress report.
int32_t LogMsg(uint32_t uiSeverity, std::wstring sMessage, uint64_t ullContext);
int32_t ProgMsg(const morvane::ProgMsg* pMsg, uint64_t ullContext);

} // namespace keflhost
