#pragma once
// The run as JSON, for scripts: --report FILE.
#include "keflhost/RunRecord.h"

#include <string>

namespace keflhost
{

std::string ReportJson(const CRunRecord& record);
// False (with the reason printed) when the file cannot be written.
bool WriteReport(const std::wstring& sFile, const CRunRecord& record);

} // namespace keflhost
