#pragma once
#include <string>

namespace morvane
{
// "Morvane Rekon for Plainsafe created on <date> at <time>", from this build's date and time,
// cut to 259 characters.
std::wstring BuildModuleDescription();
} // namespace morvane
