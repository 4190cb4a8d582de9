#pragma once
// This library's file name: the module that holds the user messages and the version resource,
// and the section name of its "Version.log" record.
namespace morvane
{
inline constexpr wchar_t kModuleFileName[] = L"KEFL.DLL";
} // namespace morvane
