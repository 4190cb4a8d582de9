#pragma once
// The recovery answer file's section of this product and its keys.
#include <string>

namespace morvane
{
inline const std::wstring g_sAnsSection = L"ZovaBackupLocation";
inline const std::wstring g_sAnsLocationKey = L"Location";
inline const std::wstring g_sAnsPitKey = L"PointInTime";
} // namespace morvane
