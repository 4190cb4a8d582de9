#pragma once
// The backup's filespaces as both of keflhost's processes name them: their names, which ones the
// administrator asked for, and where their files are in the backup and on the machine.
#include "VESK.h"

#include <string>
#include <vector>

namespace keflhost
{

// "E:" or the mount point's folder.
std::wstring FilespaceName(const morvane::Filespace& fs);
// vSelected: drive letters ("C", "C:") or mount-point folders; empty selects all.
bool IsSelected(const morvane::Filespace& fs, const std::vector<std::wstring>& vSelected);
// Where a filespace's files are in the backup, as the restore takes them, and where they go.
std::wstring BackupFolder(const std::wstring& sLocation, const morvane::Filespace& fs);
std::wstring RestoredFolder(const morvane::Filespace& fs);

} // namespace keflhost
