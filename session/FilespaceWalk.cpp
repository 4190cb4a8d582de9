#include "session/FilespaceWalk.h"

#include "platform/LongPath.h"
#include "platform/UniqueHandle.h"
#include "trace/TraceObjects.h"
#include "trace/TraceWords.h"

#include <cwchar>
#include <vector>

namespace morvane
{
namespace
{

// The walk's trace lines keep the name they have always had: support tools look for it.
const wchar_t* const kCountFiles = words::kCountFiles;

// One folder being listed: its listing, its entry, and how much of the path buffer is its path.
struct CWalkFrame
{
    CUniqueFind hFind;
    uint32_t uiFolder;
    size_t cchPath;
};

bool IsDotOrDotDot(const wchar_t* pwszName)
{
    return pwszName[0] == L'.' && (pwszName[1] == L'\0' || (pwszName[1] == L'.' && pwszName[2] == L'\0'));
}

// A folder that cannot be listed ends the walk. Every folder whose listing was still open when it
// happened says so too, innermost first, as each level of the walk gives up.
bool EndWalk(const std::wstring& sFolder, DWORD dwLastError, const wchar_t* pwszReason, size_t cOpenLevels)
{
    g_KeflTrace.TraceValue(TRACE_ERROR, kCountFiles, words::kFolder, sFolder);
    TraceLastError(kCountFiles, dwLastError);
    g_KeflTrace.TraceMessage(TRACE_ERROR, kCountFiles, pwszReason);
    for (size_t i = 0; i < cOpenLevels; ++i)
    {
        g_KeflTrace.TraceMessage(TRACE_ERROR, kCountFiles, L"... ending(KEFLImpl::CountFiles failed)");
        g_KeflTrace.TraceMessage(TRACE_ERROR, kCountFiles, L"KEFLImpl::CountFiles failed");
    }
    return false;
}

} // namespace

bool WalkFilespace(const std::wstring& sFolder, CWalkList& walk)
{
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kCountFiles, L"starting ...");
    std::wstring sPath = sFolder; // the folder being listed; then, for a moment, an entry in it
    std::vector<CWalkFrame> vStack;
    WIN32_FIND_DATAW fd;
    // The pattern is built first: freeing a temporary between the call and GetLastError could
    // change the error.
    std::wstring sPattern = LongPath(sPath + L"\\*");
    CUniqueFind hFind(::FindFirstFileW(sPattern.c_str(), &fd));
    if (!hFind)
        return EndWalk(sPath, ::GetLastError(), words::kListingFailed, 0);
    vStack.push_back({std::move(hFind), CWalkEntry::kNoParent, sPath.size()});

    bool bHaveEntry = true; // fd holds an entry that the listing on top of the stack gave
    while (!vStack.empty())
    {
        CWalkFrame& frame = vStack.back();
        if (!bHaveEntry && !::FindNextFileW(frame.hFind.get(), &fd))
        {
            const DWORD dwLastError = ::GetLastError();
            sPath.resize(frame.cchPath);
            if (dwLastError != ERROR_NO_MORE_FILES)
                return EndWalk(sPath, dwLastError, words::kListingCut, vStack.size() - 1);
            g_KeflTrace.TraceMessage(TRACE_VERBOSE, kCountFiles, L"... ending");
            vStack.pop_back();
            continue;
        }
        bHaveEntry = false;
        if (IsDotOrDotDot(fd.cFileName))
            continue;
        sPath.resize(frame.cchPath);
        sPath += L'\\';
        sPath += fd.cFileName;
        // A junction or symbolic link (file or folder) is made again from the link-point files,
        // neither created as a plain folder nor copied through: its target is in the backup in its
        // own place, and a link may lead back up the tree. Other reparse points hold data.
        if ((fd.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) && IsReparseTagNameSurrogate(fd.dwReserved0))
        {
            g_KeflTrace.TraceValue(TRACE_INFO, kCountFiles, L"Reparse point not followed", sPath);
            continue;
        }
        const uint32_t uiEntry = walk.Add(fd, frame.uiFolder);
        if ((fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
        {
            ++walk.ullFiles;
            walk.ullBytes += walk.Entry(uiEntry).ullSize;
            continue;
        }
        ++walk.ullDirectories;
        // The folder's content comes next, before the rest of this listing.
        g_KeflTrace.TraceMessage(TRACE_VERBOSE, kCountFiles, L"starting ...");
        sPattern = LongPath(sPath + L"\\*");
        CUniqueFind hListing(::FindFirstFileW(sPattern.c_str(), &fd));
        if (!hListing)
            return EndWalk(sPath, ::GetLastError(), words::kListingFailed, vStack.size());
        vStack.push_back({std::move(hListing), uiEntry, sPath.size()});
        bHaveEntry = true;
    }
    return true;
}

} // namespace morvane
