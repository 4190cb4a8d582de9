#pragma once
// A value of an INI file, however long: a path longer than a fixed buffer is not cut.
#include <string>

namespace morvane
{

// Reads the value (or the default); the buffer grows until the value fits.
std::wstring ReadProfileString(const wchar_t* pwszSection, const wchar_t* pwszKey, const wchar_t* pwszDefault,
                               const wchar_t* pwszFile);

} // namespace morvane
