#include "links/FileNames.h"

#include "platform/UniqueHandle.h"

namespace morvane
{
namespace
{

constexpr wchar_t kAsideSuffix[] = L".kefl~";
constexpr int kAsideNames = 100;

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

bool SetAttributes(HANDLE hFile, DWORD dwAttributes)
{
    FILE_BASIC_INFO basic{}; // times of 0 are left as they are
    basic.FileAttributes = dwAttributes != 0 ? dwAttributes : FILE_ATTRIBUTE_NORMAL;
    return ::SetFileInformationByHandle(hFile, FileBasicInfo, &basic, sizeof(basic)) != FALSE;
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

bool MoveAside(const std::wstring& sPath, std::wstring& sAside, DWORD& dwLastError)
{
    sAside.clear();
    const DWORD dwAttributes = ::GetFileAttributesW(sPath.c_str());
    if (dwAttributes == INVALID_FILE_ATTRIBUTES)
    {
        dwLastError = ::GetLastError();
        return dwLastError == ERROR_FILE_NOT_FOUND || dwLastError == ERROR_PATH_NOT_FOUND;
    }
    if (dwAttributes & FILE_ATTRIBUTE_DIRECTORY)
        return true;
    for (int iName = 0; iName < kAsideNames; ++iName)
    {
        std::wstring sCandidate = sPath + kAsideSuffix + std::to_wstring(iName);
        if (::MoveFileExW(sPath.c_str(), sCandidate.c_str(), 0))
        {
            sAside = std::move(sCandidate);
            return true;
        }
        dwLastError = ::GetLastError();
        if (dwLastError == ERROR_FILE_NOT_FOUND)
            return true; // gone meanwhile: nothing stands in the way
        if (dwLastError != ERROR_ALREADY_EXISTS && dwLastError != ERROR_FILE_EXISTS)
            return false;
    }
    return false; // every free name taken: the file stays where it is
}

bool RemoveName(const std::wstring& sPath, DWORD& dwLastError)
{
    const CUniqueFile hFile = OpenName(sPath, DELETE | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES);
    FILE_BASIC_INFO basic{};
    if (!hFile || !::GetFileInformationByHandleEx(hFile.get(), FileBasicInfo, &basic, sizeof(basic)))
    {
        dwLastError = ::GetLastError();
        return false;
    }
    const DWORD dwAttributes = basic.FileAttributes;
    const bool bReadOnly = (dwAttributes & FILE_ATTRIBUTE_READONLY) != 0;
    if (bReadOnly && !SetAttributes(hFile.get(), dwAttributes & ~FILE_ATTRIBUTE_READONLY))
    {
        dwLastError = ::GetLastError();
        return false;
    }
    FILE_DISPOSITION_INFO disposition{TRUE};
    const bool bRemoved =
        ::SetFileInformationByHandle(hFile.get(), FileDispositionInfo, &disposition, sizeof(disposition)) != FALSE;
    dwLastError = bRemoved ? ERROR_SUCCESS : ::GetLastError();
    if (bReadOnly)
        SetAttributes(hFile.get(), dwAttributes); // the other names' bit; a failure here loses no data
    return bRemoved;
}

} // namespace morvane
