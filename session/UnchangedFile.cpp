#include "session/UnchangedFile.h"

#include "platform/UniqueHandle.h"

namespace morvane
{

bool IsUnchanged(const std::wstring& sLongDst, const CWalkEntry& entry, uint64_t ullTrustedBefore)
{
    if (ullTrustedBefore == 0)
        return false;
    // One open for all of it; the name's own reparse point, if any, is opened, not followed.
    const CUniqueFile hDst(::CreateFileW(sLongDst.c_str(), FILE_READ_ATTRIBUTES,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                         OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT,
                                         nullptr));
    FILE_BASIC_INFO basic{};
    FILE_STANDARD_INFO standard{};
    if (!hDst || !::GetFileInformationByHandleEx(hDst.get(), FileBasicInfo, &basic, sizeof(basic)) ||
        !::GetFileInformationByHandleEx(hDst.get(), FileStandardInfo, &standard, sizeof(standard)))
        return false;
    const uint64_t ullLastWrite = (static_cast<uint64_t>(entry.ftLastWrite.dwHighDateTime) << 32) |
                                  entry.ftLastWrite.dwLowDateTime;
    return !(basic.FileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) &&
           standard.NumberOfLinks == 1 && static_cast<uint64_t>(standard.EndOfFile.QuadPart) == entry.ullSize &&
           static_cast<uint64_t>(basic.LastWriteTime.QuadPart) == ullLastWrite &&
           (basic.FileAttributes & kRestoredAttributes) == (entry.dwAttributes & kRestoredAttributes) &&
           static_cast<uint64_t>(basic.ChangeTime.QuadPart) <= ullTrustedBefore;
}

} // namespace morvane
