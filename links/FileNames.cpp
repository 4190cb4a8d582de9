#include "links/FileNames.h"

#include "platform/UniqueHandle.h"

namespace morvane
{
namespace
{

// Opened to be asked about, not read: no sharing refused, no reparse point followed.
CUniqueFile OpenName(const std::wstring& sPath, DWORD dwAccess)
{
    return CUniqueFile(::CreateFileW(sPath.c_str(), dwAccess, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                     nullptr, OPEN_EXISTING,
                                     FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

bool FileInformation(const std::wstring& sPath, BY_HANDLE_FILE_INFORMATION& info)
{
    const CUniqueFile hFile = OpenName(sPath, FILE_READ_ATTRIBUTES);
    return hFile && ::GetFileInformationByHandle(hFile.get(), &info) != FALSE;
}

} // namespace

bool IsSameFile(const std::wstring& sPath1, const std::wstring& sPath2)
{
    BY_HANDLE_FILE_INFORMATION info1{};
    BY_HANDLE_FILE_INFORMATION info2{};
    return FileInformation(sPath1, info1) && FileInformation(sPath2, info2) &&
           info1.dwVolumeSerialNumber == info2.dwVolumeSerialNumber &&
           info1.nFileIndexHigh == info2.nFileIndexHigh && info1.nFileIndexLow == info2.nFileIndexLow;
}

DWORD FileNameCount(const std::wstring& sPath)
{
    BY_HANDLE_FILE_INFORMATION info{};
    if (!FileInformation(sPath, info) || (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
        return 0;
    return info.nNumberOfLinks;
}

} // namespace morvane
