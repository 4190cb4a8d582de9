#include "session/DestinationFile.h"

#include "links/FileNames.h"
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

CUniqueFile Create(const std::wstring& sDst, DWORD dwDisposition, DWORD& dwLastError)
{
    CUniqueFile hDst(::CreateFileW(sDst.c_str(), GENERIC_WRITE, 0, nullptr, dwDisposition,
                                   FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    dwLastError = hDst ? ERROR_SUCCESS : ::GetLastError();
    return hDst;
}

// Takes sDst off the file it shares with other names. The name is first moved aside, which takes
// effect at once whoever holds the file open, and then removed. True when sDst names a file of
// its own now or nothing at all.
bool DetachSharedName(const std::wstring& sDst, DWORD& dwLastError)
{
    if (FileNameCount(sDst) <= 1)
        return true;
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"Destination shared with other names", sDst);
    std::wstring sAside;
    if (!MoveAside(sDst, sAside, dwLastError))
    {
        g_KeflTrace.TraceValue(TRACE_ERROR, kFn, words::kDst, sDst);
        TraceLastError(kFn, dwLastError, L"Failed to move shared destination aside");
        return false;
    }
    DWORD dwRemoveError = ERROR_SUCCESS;
    if (!sAside.empty() && !RemoveName(sAside, dwRemoveError))
    {
        // The other names keep their file; only a spare name of it is left behind.
        g_KeflTrace.TraceValue(TRACE_WARNING, kFn, L"sAside", sAside);
        TraceLastError(kFn, dwRemoveError, TRACE_WARNING);
    }
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
    if (!DetachSharedName(sDst, dwLastError))
        return hDst;
    return Replace(sDst, dwLastError);
}

bool CloseDestination(CUniqueFile& hDst, DWORD& dwLastError)
{
    if (::CloseHandle(hDst.release()))
        return true;
    dwLastError = ::GetLastError();
    return false;
}

} // namespace morvane
