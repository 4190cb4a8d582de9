#pragma once
// Paths beyond MAX_PATH characters, and a folder's times set by its path.
#include <windows.h>

#include <string>

namespace morvane
{

// The "\\?\" form of a full path: "\\server\share\..." becomes "\\?\UNC\server\share\...", a
// path already in that form stays as it is, a drive path gets the prefix.
std::wstring LongPath(const std::wstring& sPath);

// Sets the three times of a file or folder given by its path (a folder is opened with backup
// semantics). On failure returns false with the error in GetLastError.
bool SetTimesByPath(const std::wstring& sPath, const FILETIME& ftCreation, const FILETIME& ftLastAccess,
                    const FILETIME& ftLastWrite);

} // namespace morvane
