#include "session/ModuleDescription.h"

#include <cstdio>
#include <cwchar>

namespace morvane
{

std::wstring BuildModuleDescription()
{
    constexpr size_t kChars = 260;
    wchar_t wszDescription[kChars] = {};
    // Windows convention: %S takes the narrow date and time texts (the C runtime's own function,
    // not the C99 one, which reads %S as wide).
    _snwprintf(wszDescription, kChars - 1, L"Morvane Rekon for Plainsafe created on %S at %S", __DATE__,
               __TIME__);
    wszDescription[kChars - 1] = L'\0';
    return wszDescription;
}

} // namespace morvane
