#pragma once
// The names of one file: whether two names are one file, and how many names a file has. The
// restore asks them of a destination that an earlier run may have linked to other names, the link
// pass of the restored copy that stands where a link goes.
#include <windows.h>

#include <string>

namespace morvane
{

// Both names lead to one file (same volume, same file id); false when either cannot be opened.
bool IsSameFile(const std::wstring& sPath1, const std::wstring& sPath2);

// How many names the file sPath names has; 0 when it cannot be asked (no such file, refused) or
// sPath is a folder.
DWORD FileNameCount(const std::wstring& sPath);

} // namespace morvane
