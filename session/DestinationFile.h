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

// sDst in its long-path form. An invalid handle, with the error, when it cannot be opened.
CUniqueFile OpenDestination(const std::wstring& sDst, DWORD& dwLastError);

// Closes a restored file: a close that fails may have lost the last bytes written, so the file is
// not restored. False, with the error, then.
bool CloseDestination(CUniqueFile& hDst, DWORD& dwLastError);

} // namespace morvane
