#include "rules/BackupFolders.h"

namespace morvane
{
namespace
{

std::wstring WithoutClosingBackslashes(std::wstring sFolder, size_t cchKept)
{
    while (sFolder.size() > cchKept && sFolder.back() == L'\\')
        sFolder.pop_back();
    return sFolder;
}

} // namespace

std::wstring DriveBackupFolder(const std::wstring& sBackupRoot, wchar_t wcDriveLetter)
{
    return WithoutClosingBackslashes(sBackupRoot, 0) + L"\\" + wcDriveLetter;
}

std::wstring MountPointBackupFolder(const std::wstring& sBackupRoot, const std::wstring& sMountDir)
{
    const std::wstring sMount = MountPointFolder(sMountDir);
    const std::wstring sDirPart = sMount.size() >= 2 && sMount[1] == L':' ? sMount.substr(2) : sMount;
    return WithoutClosingBackslashes(WithoutClosingBackslashes(sBackupRoot, 0) + L"\\" + sMount.substr(0, 1) + sDirPart, 3);
}

std::wstring MountPointFolder(const std::wstring& sMountDir)
{
    return WithoutClosingBackslashes(sMountDir, 3);
}

} // namespace morvane
