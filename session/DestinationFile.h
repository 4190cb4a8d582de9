#pragma once
// The file that one copy writes: made new, or what an earlier restore left under the name
// replaced. A name that an earlier restore's link pass made one of several names of a file is
// taken off that file first: writing through it would change every name's bytes (and two copies
// in flight would share one file). The name gets a file of its own, the other names keep theirs,
// and the link pass links them again as the backup recorded.
#include "platform/UniqueHandle.h"

#include <windows.h>

#include <string>

namespace morvane
{

// sDst in its long-path form. A link at the name is removed, never written through. An invalid handle, with the error, when it cannot be opened.
CUniqueFile OpenDestination(const std::wstring& sDst, DWORD& dwLastError);

// Makes the folder sDst (long-path form) unless a real folder or a volume mount point is there: a
// link at the name is removed first. False, with the error, when it cannot be made, and when a
// file stands there (ERROR_ALREADY_EXISTS).
bool MakeDestinationFolder(const std::wstring& sDst, DWORD& dwLastError);

// Closes a restored file: a close that fails may have lost the last bytes written, so the file is
// not restored. False, with the error, then.
bool CloseDestination(CUniqueFile& hDst, DWORD& dwLastError);

} // namespace morvane
