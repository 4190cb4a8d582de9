#include "links/NameInTheWay.h"

#include "platform/UniqueHandle.h"

#include <winioctl.h>

#include <cstring>
#include <vector>

namespace morvane
{
namespace
{

// A mount point's reparse data: the tag, then (at 8) the substitute name's offset and length in
// bytes, the print name's, and the names from 16 on.
constexpr DWORD kReparseHeaderBytes = 16;
constexpr wchar_t kVolumeTarget[] = L"\\??\\Volume{";

// The substitute name of the mount point at sPath, empty when it has none or cannot be read.
std::wstring MountPointTarget(const std::wstring& sPath)
{
    const CUniqueFile hLink(::CreateFileW(sPath.c_str(), FILE_READ_ATTRIBUTES,
                                          FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                          OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT,
                                          nullptr));
    std::vector<BYTE> vData(MAXIMUM_REPARSE_DATA_BUFFER_SIZE);
    DWORD cbData = 0;
    if (!hLink || !::DeviceIoControl(hLink.get(), FSCTL_GET_REPARSE_POINT, nullptr, 0, vData.data(),
                                     static_cast<DWORD>(vData.size()), &cbData, nullptr))
        return {};
    DWORD dwTag = 0;
    WORD wOffset = 0;
    WORD wLength = 0;
    std::memcpy(&dwTag, vData.data(), sizeof(dwTag));
    std::memcpy(&wOffset, vData.data() + 8, sizeof(wOffset));
    std::memcpy(&wLength, vData.data() + 10, sizeof(wLength));
    if (dwTag != IO_REPARSE_TAG_MOUNT_POINT || kReparseHeaderBytes + wOffset + wLength > cbData)
        return {};
    return std::wstring(reinterpret_cast<const wchar_t*>(vData.data() + kReparseHeaderBytes + wOffset),
                        wLength / sizeof(wchar_t));
}

// A volume is mounted on the folder sPath. Where its reparse data cannot be read, the volume
// manager is asked: it knows a mount point and knows no junction.
bool IsVolumeMountPoint(const std::wstring& sPath)
{
    const std::wstring sTarget = MountPointTarget(sPath);
    if (!sTarget.empty())
        return sTarget.rfind(kVolumeTarget, 0) == 0;
    wchar_t wszVolume[64] = {};
    return ::GetVolumeNameForVolumeMountPointW((sPath + L"\\").c_str(), wszVolume, 64) != FALSE;
}

} // namespace

NameKind ExamineName(const std::wstring& sPath, DWORD& dwAttributes)
{
    // The find data tells a reparse point by its attribute and tag, without opening what is there:
    // an open would follow a link that the file system does not flag as one.
    WIN32_FIND_DATAW fd{};
    const CUniqueFind hFind(::FindFirstFileW(sPath.c_str(), &fd));
    if (!hFind)
    {
        dwAttributes = INVALID_FILE_ATTRIBUTES;
        return NameKind::Nothing;
    }
    dwAttributes = fd.dwFileAttributes;
    const bool bFolder = (dwAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    if (!(dwAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
        return bFolder ? NameKind::Folder : NameKind::File;
    const bool bMountTag = fd.dwReserved0 == IO_REPARSE_TAG_MOUNT_POINT || fd.dwReserved0 == 0;
    return bFolder && bMountTag && IsVolumeMountPoint(sPath) ? NameKind::VolumeMountPoint : NameKind::Link;
}

bool RemoveLink(const std::wstring& sPath, DWORD dwAttributes, DWORD& dwLastError)
{
    // Both remove the reparse point's own name: a link to a folder is removed as a folder is, and
    // its target's content is never listed.
    const BOOL bRemoved = (dwAttributes & FILE_ATTRIBUTE_DIRECTORY) ? ::RemoveDirectoryW(sPath.c_str())
                                                                     : ::DeleteFileW(sPath.c_str());
    dwLastError = bRemoved ? ERROR_SUCCESS : ::GetLastError();
    return bRemoved != FALSE;
}

} // namespace morvane
