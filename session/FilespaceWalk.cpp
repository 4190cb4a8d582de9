#include "session/FilespaceWalk.h"

#include "platform/LongPath.h"
#include "platform/UniqueHandle.h"
#include "trace/TraceObjects.h"
#include "trace/TraceWords.h"

#include <cassert>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace morvane
{
namespace
{

// The walk's trace lines keep the name they have always had: support tools look for it.
const wchar_t* const kCountFiles = words::kCountFiles;

bool IsDotOrDotDot(const wchar_t* pwszName)
{
    return pwszName[0] == L'.' && (pwszName[1] == L'\0' || (pwszName[1] == L'.' && pwszName[2] == L'\0'));
}

// A folder that cannot be listed ends the walk. Every folder above it says so too, innermost
// first, as each level of the walk gives up: cLevels is how many there are.
bool EndWalk(const std::wstring& sFolder, DWORD dwLastError, const wchar_t* pwszReason, size_t cLevels)
{
    g_KeflTrace.TraceValue(TRACE_ERROR, kCountFiles, words::kFolder, sFolder);
    TraceLastError(kCountFiles, dwLastError);
    g_KeflTrace.TraceMessage(TRACE_ERROR, kCountFiles, pwszReason);
    for (size_t i = 0; i < cLevels; ++i)
    {
        g_KeflTrace.TraceMessage(TRACE_ERROR, kCountFiles, L"... ending(KEFLImpl::CountFiles failed)");
        g_KeflTrace.TraceMessage(TRACE_ERROR, kCountFiles, L"KEFLImpl::CountFiles failed");
    }
    return false;
}

// The folders found and not yet listed, and the listers that take them. The walk list is shared:
// every use of it holds the lock. Folders are taken last found first, so the walk goes down before
// it goes wide and the folders waiting stay few.
class CParallelWalk
{
public:
    CParallelWalk(const std::wstring& sRoot, CWalkList& walk) : m_sRoot(sRoot), m_walk(walk) {}

    // Lists the whole tree on uiListers threads, this one among them.
    bool Run(uint32_t uiListers)
    {
        std::vector<std::jthread> vListers;
        vListers.reserve(uiListers);
        for (uint32_t ui = 1; ui < uiListers; ++ui)
        {
            try
            {
                vListers.emplace_back([this] { Work(); });
            }
            catch (const std::system_error&) // no thread left to make: fewer listers walk it
            {
                break;
            }
        }
        Work();
        for (std::jthread& lister : vListers)
            lister.join();
        if (m_pException)
            std::rethrow_exception(m_pException);
        return !m_bFailed;
    }

private:
    // Takes folders until every folder is listed or the walk has ended.
    void Work() noexcept
    {
        std::unique_lock lock(m_lock);
        for (;;)
        {
            m_cvChanged.wait(lock, [this] { return m_bEnded || !m_vWaiting.empty() || m_uiListing == 0; });
            if (m_bEnded || m_vWaiting.empty())
                break;
            const uint32_t uiFolder = m_vWaiting.back();
            m_vWaiting.pop_back();
            ++m_uiListing;
            lock.unlock();
            bool bListed = false;
            std::exception_ptr pException;
            try
            {
                bListed = ListFolder(uiFolder);
            }
            catch (...)
            {
                pException = std::current_exception();
            }
            lock.lock();
            --m_uiListing;
            if (!bListed && !m_bEnded)
            {
                m_bEnded = true;
                m_bFailed = !pException;
                m_pException = pException;
            }
            m_cvChanged.notify_all();
        }
        m_cvChanged.notify_all();
    }

    // How many folders hold uiFolder, the walked folder among them: the levels a failure ends.
    size_t Depth(uint32_t uiFolder)
    {
        const std::lock_guard lock(m_lock);
        size_t cLevels = 0;
        for (uint32_t ui = uiFolder; ui != CWalkEntry::kNoParent; ui = m_walk.Entry(ui).uiParent)
            ++cLevels;
        return cLevels;
    }

    // Lists one folder whole into the walk list; its subfolders wait for a lister.
    bool ListFolder(uint32_t uiFolder)
    {
        std::wstring sPath = m_sRoot;
        if (uiFolder != CWalkEntry::kNoParent)
        {
            const std::lock_guard lock(m_lock);
            m_walk.AppendPath(uiFolder, sPath);
        }
        g_KeflTrace.TraceMessage(TRACE_VERBOSE, kCountFiles, L"starting ...");
        // The pattern is built first: freeing a temporary between the call and GetLastError could
        // change the error.
        const std::wstring sPattern = LongPath(sPath + L"\\*");
        WIN32_FIND_DATAW fd;
        const CUniqueFind hFind(::FindFirstFileW(sPattern.c_str(), &fd));
        if (!hFind)
        {
            const DWORD dwLastError = ::GetLastError();
            return EndWalk(sPath, dwLastError, words::kListingFailed, Depth(uiFolder));
        }
        do
        {
            if (!IsDotOrDotDot(fd.cFileName) && !Take(fd, uiFolder, sPath))
                return false; // the walk ended elsewhere
        } while (::FindNextFileW(hFind.get(), &fd));
        const DWORD dwLastError = ::GetLastError();
        if (dwLastError != ERROR_NO_MORE_FILES)
            return EndWalk(sPath, dwLastError, words::kListingCut, Depth(uiFolder));
        g_KeflTrace.TraceMessage(TRACE_VERBOSE, kCountFiles, L"... ending");
        return true;
    }

    // One entry of uiFolder's listing into the walk list. False when the walk has ended.
    bool Take(const WIN32_FIND_DATAW& fd, uint32_t uiFolder, const std::wstring& sFolder)
    {
        // A junction or symbolic link (file or folder) is made again from the link-point files,
        // neither created as a plain folder nor copied through: its target is in the backup in its
        // own place, and a link may lead back up the tree. Other reparse points hold data.
        if ((fd.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) && IsReparseTagNameSurrogate(fd.dwReserved0))
        {
            g_KeflTrace.TraceValue(TRACE_INFO, kCountFiles, L"Reparse point not followed",
                                   sFolder + L'\\' + fd.cFileName);
            return true;
        }
        const std::lock_guard lock(m_lock);
        if (m_bEnded)
            return false;
        const uint32_t uiEntry = m_walk.Add(fd, uiFolder);
        if ((fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
        {
            ++m_walk.ullFiles;
            m_walk.ullBytes += m_walk.Entry(uiEntry).ullSize;
            return true;
        }
        ++m_walk.ullDirectories;
        m_vWaiting.push_back(uiEntry);
        m_cvChanged.notify_one();
        return true;
    }

    const std::wstring& m_sRoot;
    CWalkList& m_walk;
    std::mutex m_lock;
    std::condition_variable m_cvChanged; // a folder waits, one was listed, or the walk ended
    std::vector<uint32_t> m_vWaiting{CWalkEntry::kNoParent}; // the walked folder comes first
    uint32_t m_uiListing = 0; // folders being listed now
    bool m_bEnded = false;    // a folder failed, or a lister threw
    bool m_bFailed = false;   // a folder could not be listed (traced)
    std::exception_ptr m_pException;
};

} // namespace

bool WalkFilespace(const std::wstring& sFolder, CWalkList& walk, uint32_t uiListers)
{
    assert(uiListers >= 1);
    CParallelWalk parallelWalk(sFolder, walk);
    return parallelWalk.Run(uiListers);
}

} // namespace morvane
