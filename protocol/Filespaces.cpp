#include "protocol/Filespaces.h"

#include "rules/BackupFolders.h"

#include <cwctype>

namespace keflhost
{

std::wstring FilespaceName(const morvane::Filespace& fs)
{
    return (fs.dwFsFlags & morvane::kFsFlagMountPoint) ? fs.sFsMountDir : std::wstring(1, fs.wcFsDriveLetter) + L":";
}

bool IsSelected(const morvane::Filespace& fs, const std::vector<std::wstring>& vSelected)
{
    if (vSelected.empty())
        return true;
    for (const std::wstring& sWanted : vSelected)
    {
        if (fs.dwFsFlags & morvane::kFsFlagMountPoint)
        {
            if (_wcsicmp(sWanted.c_str(), fs.sFsMountDir.c_str()) == 0)
                return true;
        }
        else if ((sWanted.size() == 1 || (sWanted.size() == 2 && sWanted[1] == L':')) &&
                 towupper(sWanted[0]) == fs.wcFsDriveLetter)
        {
            return true;
        }
    }
    return false;
}

std::wstring BackupFolder(const std::wstring& sLocation, const morvane::Filespace& fs)
{
    return (fs.dwFsFlags & morvane::kFsFlagMountPoint) ? morvane::MountPointBackupFolder(sLocation, fs.sFsMountDir)
                                                       : morvane::DriveBackupFolder(sLocation, fs.wcFsDriveLetter);
}

std::wstring RestoredFolder(const morvane::Filespace& fs)
{
    return (fs.dwFsFlags & morvane::kFsFlagMountPoint) ? morvane::MountPointFolder(fs.sFsMountDir)
                                                       : std::wstring(1, fs.wcFsDriveLetter) + L":";
}

} // namespace keflhost
