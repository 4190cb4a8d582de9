#pragma once
// What a restore leaves out, whatever the backup holds: the folders Windows makes for itself on
// every volume (the recycle bins, System Volume Information) with everything in them, and the
// hibernation and paging files at a volume's root. The restore skips them; a verification of what
// it restored must skip the same.
#include <string>

namespace morvane
{

// sDstPath is a restored path ("C:\pagefile.sys", "C:\Mount\Data\$Recycle.Bin").
bool IsLeftOutByRule(const std::wstring& sDstPath, bool bFolder);

} // namespace morvane
