#pragma once
// A Windows error as a line tells it to the administrator.
#include <windows.h>

#include <string>

namespace morvane
{

// "error 32: The process cannot access the file because it is being used by another process.";
// empty for 0.
std::wstring ErrorText(DWORD dwError);

} // namespace morvane
