#pragma once
// Readers of the link-point files: ParsePoint for the INI-form JPoint.dat, MPoint.dat and
// SPoint.dat, ParseHPoint for the line-form HPoint.dat. They are KEFLImpl's operations of the same
// names and trace under "KEFLImpl::ParsePoint" and "KEFLImpl::ParseHPoint".
#include "links/Point.h"

#include <string>

namespace morvane
{

// Appends one Point per complete section; true also for a missing file or one without sections.
bool ParsePoint(const std::wstring& sPath, PointList& list);
// Appends one Point per hard-link name after a group's first; false when the file cannot be read.
bool ParseHPoint(const std::wstring& sPath, PointList& list);

} // namespace morvane
