#include "session/KeptFiles.h"

#include "platform/LongPath.h"
#include "platform/UniqueHandle.h"

#include <algorithm>
#include <cwctype>
#include <unordered_map>

namespace morvane
{
namespace
{

constexpr DWORD kListingBytes = 65536;

struct CListed
{
    uint64_t ullSize;
    uint64_t ullLastWrite;
    uint64_t ullChange;
    uint64_t ullFileId;
    DWORD dwAttributes;
};

// A name as the file system compares it: without regard to case.
std::wstring Folded(const wchar_t* pwszName, size_t cchName)
{
    std::wstring sName(pwszName, cchName);
    for (wchar_t& wc : sName)
        wc = static_cast<wchar_t>(std::towupper(wc));
    return sName;
}

// The files of one destination folder by name; nothing when it cannot be listed (a folder that
// is not there yet keeps nothing).
std::unordered_map<std::wstring, CListed> ListFolder(const std::wstring& sFolder)
{
    std::unordered_map<std::wstring, CListed> listed;
    const CUniqueFile hFolder(::CreateFileW(LongPath(sFolder + L"\\").c_str(), FILE_LIST_DIRECTORY,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                            OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (!hFolder)
        return listed;
    std::vector<ULONGLONG> vBuffer(kListingBytes / sizeof(ULONGLONG));
    for (FILE_INFO_BY_HANDLE_CLASS infoClass = FileIdBothDirectoryRestartInfo;
         ::GetFileInformationByHandleEx(hFolder.get(), infoClass, vBuffer.data(), kListingBytes);
         infoClass = FileIdBothDirectoryInfo)
    {
        const BYTE* pb = reinterpret_cast<const BYTE*>(vBuffer.data());
        for (;;)
        {
            const auto* pInfo = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(pb);
            if (!(pInfo->FileAttributes & FILE_ATTRIBUTE_DIRECTORY))
                listed.emplace(Folded(pInfo->FileName, pInfo->FileNameLength / sizeof(wchar_t)),
                               CListed{static_cast<uint64_t>(pInfo->EndOfFile.QuadPart),
                                       static_cast<uint64_t>(pInfo->LastWriteTime.QuadPart),
                                       static_cast<uint64_t>(pInfo->ChangeTime.QuadPart),
                                       static_cast<uint64_t>(pInfo->FileId.QuadPart), pInfo->FileAttributes});
            if (pInfo->NextEntryOffset == 0)
                break;
            pb += pInfo->NextEntryOffset;
        }
    }
    return listed;
}

// Everything but the other names: a regular file like the backup's copy, finished before the
// checkpoint.
bool IsWhole(const CListed& listed, const CWalkEntry& entry, uint64_t ullTrustedBefore)
{
    const uint64_t ullLastWrite = (static_cast<uint64_t>(entry.ftLastWrite.dwHighDateTime) << 32) |
                                  entry.ftLastWrite.dwLowDateTime;
    return !(listed.dwAttributes & FILE_ATTRIBUTE_REPARSE_POINT) && listed.ullSize == entry.ullSize &&
           listed.ullLastWrite == ullLastWrite &&
           (listed.dwAttributes & kRestoredAttributes) == (entry.dwAttributes & kRestoredAttributes) &&
           listed.ullChange <= ullTrustedBefore;
}

} // namespace

std::vector<bool> KeptFiles(const CWalkList& walk, const std::wstring& sDstFolder, uint64_t ullTrustedBefore)
{
    std::vector<bool> vKept(walk.Size(), false);
    if (ullTrustedBefore == 0)
        return vKept;
    // The walk's files by folder, each folder's listing once.
    std::vector<uint32_t> vFiles;
    for (uint32_t ui = 0; ui < walk.Size(); ++ui)
        if (!walk.Entry(ui).IsDirectory())
            vFiles.push_back(ui);
    std::stable_sort(vFiles.begin(), vFiles.end(), [&walk](uint32_t a, uint32_t b)
                     { return walk.Entry(a).uiParent + 1 < walk.Entry(b).uiParent + 1; });
    std::vector<uint64_t> vIds;                         // every file listed, by its id
    std::vector<std::pair<uint64_t, uint32_t>> vWhole; // the walk's files found whole, by id
    std::wstring sFolder;
    for (size_t iFirst = 0; iFirst < vFiles.size();)
    {
        const uint32_t uiParent = walk.Entry(vFiles[iFirst]).uiParent;
        sFolder.assign(sDstFolder);
        if (uiParent != CWalkEntry::kNoParent)
            walk.AppendPath(uiParent, sFolder);
        const auto listed = ListFolder(sFolder);
        for (const auto& [sName, file] : listed)
            vIds.push_back(file.ullFileId);
        for (; iFirst < vFiles.size() && walk.Entry(vFiles[iFirst]).uiParent == uiParent; ++iFirst)
        {
            const CWalkEntry& entry = walk.Entry(vFiles[iFirst]);
            const auto it = listed.find(Folded(walk.Name(entry), entry.cchName));
            if (it != listed.end() && IsWhole(it->second, entry, ullTrustedBefore))
                vWhole.emplace_back(it->second.ullFileId, vFiles[iFirst]);
        }
    }
    // One name for its file among all the names listed.
    std::sort(vIds.begin(), vIds.end());
    for (const auto& [ullId, uiEntry] : vWhole)
        vKept[uiEntry] = std::upper_bound(vIds.begin(), vIds.end(), ullId) -
                             std::lower_bound(vIds.begin(), vIds.end(), ullId) == 1;
    return vKept;
}

} // namespace morvane
