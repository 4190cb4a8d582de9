#pragma once
// The walk of a filespace's source tree, before anything is copied.
#include "session/WalkList.h"

#include <cstdint>
#include <string>

namespace morvane
{

// Lists every folder and file below sFolder into walk: each folder before its content, the
// content of one folder in the order its listing gives it. Junctions and symbolic links are left
// out (the link pass makes them again). uiListers folders are listed at once, the calling thread
// among them: from a share each folder costs round trips of its own, and a file server has tens of
// thousands. A folder is listed whole and closed before its subfolders are, so any depth a path can
// reach is walked with no open listing per level and on any thread's stack. False, with the failing
// folder and error traced, when a folder cannot be listed; an exception in a lister (no memory)
// ends the walk and reaches the caller once every lister has stopped.
bool WalkFilespace(const std::wstring& sFolder, CWalkList& walk, uint32_t uiListers = 1);

} // namespace morvane
