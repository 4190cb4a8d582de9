#pragma once
// Making the missing folders above a path before a file, folder or link is made there: the
// client's base service CreateParentDir, which the link restore needs too. It traces under that
// service's name, to VESK_trace.log.
#include <string>

namespace morvane
{

// Makes every missing folder above sPath (which may carry "\\?\" and be long); false, traced, when
// one cannot be made.
bool CreateParentFolders(const std::wstring& sPath);

} // namespace morvane
