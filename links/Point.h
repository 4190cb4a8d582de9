#pragma once
// One file-system link as the backup recorded it, and the lists of them that a session holds.
#include <windows.h>

#include <string>
#include <vector>

namespace morvane
{

struct Point
{
    std::wstring sLink;         // full path of the link to make
    std::wstring sTarget;       // full path it points to
    std::wstring sBackupTarget; // the target as the backup side recorded it; carried, not used
    DWORD dwAttr = 0;           // attributes to put back on the link; 0 keeps what creation gave
};

using PointList = std::vector<Point>;

} // namespace morvane
