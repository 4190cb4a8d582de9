#include "session/DestinationFile.h"

#include "links/FileNames.h"
#include "links/NameAside.h"
#include "links/NameInTheWay.h"
#include "trace/TraceObjects.h"
#include "trace/TraceWords.h"

namespace morvane
{
namespace
{

const wchar_t kFn[] = L"KEFLImpl::CopyFileWithProgress";

// Attributes that keep an existing file from being replaced (CREATE_ALWAYS is refused).
constexpr DWORD kReplaceRefusingAttributes =
    FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;

// Opened so that a reparse point at the name is opened itself, and seen, rather than followed.
CUniqueFile Create(const std::wstring& sDst, DWORD dwDisposition, DWORD& dwLastError)
{
    CUniqueFile hDst(::CreateFileW(sDst.c_str(), GENERIC_WRITE, 0, nullptr, dwDisposition,
                                   FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    dwLastError = hDst ? ERROR_SUCCESS : ::GetLastError();
    return hDst;
}

// Takes sDst off the file it shares with other names: the name is moved aside and removed through
// one handle, which takes effect at once whoever holds the file open. True when sDst names a file
// of its own now or nothing at all.
bool DetachSharedName(const std::wstring& sDst, DWORD& dwLastError)
{
    if (FileNameCount(sDst) <= 1)
        return true;
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"Destination shared with other names", sDst);
    if (RemoveName(sDst, dwLastError) || dwLastError == ERROR_FILE_NOT_FOUND)
        return true;
    g_KeflTrace.TraceValue(TRACE_ERROR, kFn, words::kDst, sDst);
    TraceLastError(kFn, dwLastError, L"Failed to move shared destination aside");
    return false;
}

// Removes the link that stands where the backup has a folder or file, and says so.
bool RemoveLinkInTheWay(const wchar_t* pwszFunction, const std::wstring& sDst, DWORD dwAttributes,
                        DWORD& dwLastError)
{
    if (!RemoveLink(sDst, dwAttributes, dwLastError))
        return false;
    g_KeflTrace.TraceValue(TRACE_INFO, pwszFunction, words::kLinkRemoved, sDst);
    return true;
}

// What an earlier restore left: replaced, a read-only, hidden or system file too, which refuses
// to be replaced until it loses those attributes (they come back with the copy's own).
CUniqueFile Replace(const std::wstring& sDst, DWORD& dwLastError)
{
    CUniqueFile hDst = Create(sDst, CREATE_ALWAYS, dwLastError);
    if (hDst || dwLastError != ERROR_ACCESS_DENIED)
        return hDst;
    const DWORD dwOld = ::GetFileAttributesW(sDst.c_str());
    if (dwOld == INVALID_FILE_ATTRIBUTES || (dwOld & FILE_ATTRIBUTE_DIRECTORY) ||
        (dwOld & kReplaceRefusingAttributes) == 0)
        return hDst;
    const DWORD dwCleared = dwOld & ~kReplaceRefusingAttributes;
    if (!::SetFileAttributesW(sDst.c_str(), dwCleared != 0 ? dwCleared : FILE_ATTRIBUTE_NORMAL))
        return hDst;
    return Create(sDst, CREATE_ALWAYS, dwLastError);
}

} // namespace

CUniqueFile OpenDestination(const std::wstring& sDst, DWORD& dwLastError)
{
    // A first restore finds no file there and pays for nothing more than the create.
    CUniqueFile hDst = Create(sDst, CREATE_NEW, dwLastError);
    if (hDst || (dwLastError != ERROR_FILE_EXISTS && dwLastError != ERROR_ALREADY_EXISTS))
        return hDst;
    DWORD dwAttributes = 0;
    if (ExamineName(sDst, dwAttributes) == NameKind::Link)
    {
        if (!RemoveLinkInTheWay(kFn, sDst, dwAttributes, dwLastError))
            return hDst;
        return Create(sDst, CREATE_NEW, dwLastError);
    }
    if (!DetachSharedName(sDst, dwLastError))
        return hDst;
    return Replace(sDst, dwLastError);
}

bool MakeDestinationFolder(const std::wstring& sDst, DWORD& dwLastError)
{
    if (::CreateDirectoryW(sDst.c_str(), nullptr))
        return true;
    dwLastError = ::GetLastError();
    if (dwLastError != ERROR_ALREADY_EXISTS)
        return false;
    // Already there counts only for a real folder, or a volume mounted here: its own filespace is
    // restored through it.
    DWORD dwAttributes = 0;
    const NameKind kind = ExamineName(sDst, dwAttributes);
    if (kind == NameKind::Folder || kind == NameKind::VolumeMountPoint)
        return true;
    // A file stays, and the folder fails with ERROR_ALREADY_EXISTS: what holds data is not removed
    // for a folder's sake.
    if (kind == NameKind::File || (kind == NameKind::Link &&
                                    !RemoveLinkInTheWay(words::kRestoreFilespace, sDst, dwAttributes, dwLastError)))
        return false;
    if (::CreateDirectoryW(sDst.c_str(), nullptr))
        return true;
    dwLastError = ::GetLastError();
    return false;
}

bool CloseDestination(CUniqueFile& hDst, DWORD& dwLastError)
{
    if (::CloseHandle(hDst.release()))
        return true;
    dwLastError = ::GetLastError();
    return false;
}

} // namespace morvane
