#pragma once
// Which files of a filespace a resume may keep as an earlier run left them. Only what can be shown
// to be whole is kept: a regular file (no reparse point), the backup copy's size, last-write time
// and restored attributes, finished before the last checkpoint recorded on its volume, and a file
// that no other name in the folders the restore lists shares: a name that shares its file with
// another is copied anew, so that the link pass can link what the backup's hard-link list says
// and nothing more. Two files alike in all of that but not in bytes pass for the same, as with any
// copy tool.
//
// Every destination folder of the walk is listed once, before the copy, in one call a folder for
// its entries' sizes, times, attributes, change times and file ids: a file kept costs no call of
// its own. The link count would cost an open of every file; the file ids of the listings tell
// the same of every name in those folders, whether the backup has it or not. A name in a folder
// the backup does not have is not seen.
#include "session/WalkList.h"

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace morvane
{

// What a restored file or folder takes over from its copy in the backup, beside its times.
inline constexpr DWORD kRestoredAttributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM |
                                             FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_NOT_CONTENT_INDEXED |
                                             FILE_ATTRIBUTE_OFFLINE;

// One flag a walk entry: true for a file whose destination under sDstFolder ("E:" or a mount
// point's folder) may be kept. ullTrustedBefore is the volume's checkpoint; 0 keeps nothing.
std::vector<bool> KeptFiles(const CWalkList& walk, const std::wstring& sDstFolder, uint64_t ullTrustedBefore);

} // namespace morvane
