#pragma once
// The walk of a filespace's source tree, before anything is copied.
#include "session/WalkList.h"

#include <string>

namespace morvane
{

// Lists every folder and file below sFolder into walk: each folder before its content, the
// content in the order the folder listing gives it. Junctions and symbolic links are left out
// (the link pass makes them again). The walk keeps its own stack of open folder listings rather
// than recursing, so any depth a path can reach is walked on any thread's stack. False, with the
// failing folder and error traced, when a folder cannot be listed.
bool WalkFilespace(const std::wstring& sFolder, CWalkList& walk);

} // namespace morvane
