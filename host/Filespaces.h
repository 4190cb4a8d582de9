#pragma once
// The backup's filespaces as both of keflhost's processes see them: their names, which ones the
// administrator asked for, where their files are in the backup and on the machine, and their form
// in the events between the two.
#include "VESK.h"
#include "host/RestoreEvents.h"

#include <string>
#include <vector>

namespace keflhost
{

// "E:" or the mount point's folder.
std::wstring Name(const morvane::Filespace& fs);
// "BOOT SYSTEM" and the like, from a filespace's flags.
std::wstring DescribeFlags(uint32_t dwFsFlags);
// "2015-11-05 14:03:09 UTC", or "-" without a time.
std::wstring Time(const morvane::Filespace& fs);
// vSelected: drive letters ("C", "C:") or mount-point folders; empty selects all.
bool IsSelected(const morvane::Filespace& fs, const std::vector<std::wstring>& vSelected);
// Where a filespace's files are in the backup, as the restore takes them, and where they go.
std::wstring BackupFolder(const std::wstring& sLocation, const morvane::Filespace& fs);
std::wstring RestoredFolder(const morvane::Filespace& fs);

CEvent FilespaceEvent(const morvane::Filespace& fs);
morvane::Filespace FilespaceFromEvent(const CEvent& event);

} // namespace keflhost
