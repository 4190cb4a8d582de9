#pragma once
// Where a filespace's files are in the backup and where they go back to. The backup keeps each
// drive in a folder named after its letter, and a mount point's files inside the folder of the
// drive that holds the mount point, at the mount point's own path: C:\Mount\Data is
// R:\Backup\C\Mount\Data.
#include <string>

namespace morvane
{

// sBackupRoot: the backup's folder (R:\Backup); sMountDir: the mount point's folder on the machine.
std::wstring DriveBackupFolder(const std::wstring& sBackupRoot, wchar_t wcDriveLetter);
std::wstring MountPointBackupFolder(const std::wstring& sBackupRoot, const std::wstring& sMountDir);
// The mount point's folder as the restore writes to it: without closing backslashes ("C:\" stays).
std::wstring MountPointFolder(const std::wstring& sMountDir);

} // namespace morvane
