#pragma once
// The full path of a loaded module (null: the program), however long it is.
#include <windows.h>

#include <string>

namespace morvane
{

// Grows the buffer by 260 characters while the path does not fit. On failure returns false and
// leaves the error in dwLastError.
bool GetModulePath(HMODULE hModule, std::wstring& sPath, DWORD& dwLastError);
// The folder of the running program, without a closing backslash; "." when it cannot be known.
std::wstring ProgramFolder();

} // namespace morvane
