#pragma once
// The names of one file: whether two names are one file, how many names a file has, and moving one
// name out of the way or removing it while the file's other names keep it. The restore uses them
// on a destination that an earlier run linked to other names, the link pass on the restored copy
// that stands where a link goes. Nothing here traces: the callers say what a failure means.
#include <windows.h>

#include <string>

namespace morvane
{

// Both names lead to one file (same volume, same file id); false when either cannot be opened.
bool IsSameFile(const std::wstring& sPath1, const std::wstring& sPath2);

// How many names the file sPath names has; 0 when it cannot be asked (no such file, refused) or
// sPath is a folder.
DWORD FileNameCount(const std::wstring& sPath);

// Moves the file at sPath to a free name beside it ("<name>.kefl~N"): a name left from an earlier
// run is never replaced, the next number is taken. True with sAside empty when nothing is to be
// moved (no file there, or a folder); true with sAside set when moved; false, with the error,
// when a file is there and stays.
bool MoveAside(const std::wstring& sPath, std::wstring& sAside, DWORD& dwLastError);

// Removes the name sPath, a read-only file's too, through one handle: the bit is cleared for the
// removal and put back, so that the file's other names, if any, keep their attributes. False,
// with the error, when the name stays.
bool RemoveName(const std::wstring& sPath, DWORD& dwLastError);

} // namespace morvane
