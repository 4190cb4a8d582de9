#pragma once
// What our host prints: UTF-8 on standard output, whatever the console or pipe behind it.
#include "VESK.h"

#include <string>

namespace keflhost
{

void PrintLine(const std::wstring& sText);

// The library's log callback: every user message with its severity.
int32_t LogMsg(uint32_t uiSeverity, std::wstring sMessage, uint64_t ullContext);

} // namespace keflhost
