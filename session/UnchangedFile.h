#pragma once
// Whether a resume may keep what an earlier run left at a file's name. Only what can be shown to
// be whole is kept: a regular file (no reparse point) with exactly one name, the backup copy's
// size, last-write time and restored attributes, finished before the last checkpoint recorded on
// its volume. Two files alike in all of that but not in bytes pass for the same, as with any copy
// tool; a name that shares its file with another is copied anew, so that the link pass can link
// what the backup's hard-link list says and nothing more.
#include "session/WalkList.h"

#include <windows.h>

#include <cstdint>
#include <string>

namespace morvane
{

// What a restored file or folder takes over from its copy in the backup, beside its times.
inline constexpr DWORD kRestoredAttributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM |
                                             FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_NOT_CONTENT_INDEXED |
                                             FILE_ATTRIBUTE_OFFLINE;

// sLongDst may be kept for entry; ullTrustedBefore is the volume's checkpoint (0: none, nothing kept).
bool IsUnchanged(const std::wstring& sLongDst, const CWalkEntry& entry, uint64_t ullTrustedBefore);

} // namespace morvane
