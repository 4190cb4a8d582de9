#include "platform/LongPath.h"

#include "platform/UniqueHandle.h"

namespace morvane
{

std::wstring LongPath(const std::wstring& sPath)
{
    if (sPath.rfind(L"\\\\?\\", 0) == 0)
        return sPath;
    if (sPath.rfind(L"\\\\", 0) == 0)
        return L"\\\\?\\UNC\\" + sPath.substr(2);
    return L"\\\\?\\" + sPath;
}

bool SetTimesByPath(const std::wstring& sPath, const FILETIME& ftCreation, const FILETIME& ftLastAccess,
                    const FILETIME& ftLastWrite)
{
    CUniqueFile hFile(::CreateFileW(sPath.c_str(), FILE_WRITE_ATTRIBUTES,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    // The handle's owner keeps the last error when it closes.
    return hFile && ::SetFileTime(hFile.get(), &ftCreation, &ftLastAccess, &ftLastWrite);
}

} // namespace morvane
