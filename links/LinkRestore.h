#pragma once
// Re-creating the backup's junctions, symbolic links and hard links on the restored volumes:
// KEFLImpl's RestoreLinks, CreateJunction, CreateSymbolicLink and CreateHardLinkW, which trace
// under those names.
#include "VESK.h"
#include "channel/HostChannel.h"
#include "links/Point.h"
#include "links/UnrestoredFiles.h"

#include <windows.h>

#include <string>

namespace morvane
{

using CreateSymbolicLinkFn = BOOLEAN(WINAPI*)(LPCWSTR, LPCWSTR, DWORD);
using CreateHardLinkFn = BOOL(WINAPI*)(LPCWSTR, LPCWSTR, LPSECURITY_ATTRIBUTES);

class CLinkRestorer
{
public:
    // channel: progress and string resources; the two entry points as looked up at the session's
    // construction (null where the system lacks them); the files the session's restores could
    // not copy, which no hard link is made to.
    CLinkRestorer(CHostChannel& channel, CreateSymbolicLinkFn pfnCreateSymbolicLinkW,
                  CreateHardLinkFn pfnCreateHardLinkW, const CUnrestoredFiles& unrestored);

    bool RestoreLinks(const PointList& junctionPoints, const PointList& symbolicLinks,
                      const PointList& hardLinks);
    bool CreateJunction(const std::wstring& sLink, const std::wstring& sTarget, DWORD dwAttr);
    bool CreateSymbolicLink(const std::wstring& sLink, const std::wstring& sTarget, DWORD dwAttr);
    bool CreateHardLink(const std::wstring& sLink, const std::wstring& sTarget);

private:
    enum class LinkKind
    {
        Junction,
        Symbolic,
        Hard,
    };
    // One pass of RestoreLinks over one list, with its own progress record. bFailed is the
    // failure flag of the whole call: set by a failing link, never cleared here.
    void RestorePass(LinkKind kind, const PointList& points, bool& bFailed);
    // Hands the record to the host's progress callback with the given state.
    void SendProgress(ProgMsg& progress, uint32_t uiState);
    // The common start of the symbolic and hard link makers: entry traces, the entry point, the
    // NTFS test, the link's parent folders. False (traced) when the link cannot be made.
    bool PrepareLink(const wchar_t* pwszFunction, bool bAvailable, const wchar_t* pwszUnavailable,
                     const std::wstring& sLink, const std::wstring& sTarget);

    CHostChannel& m_channel;
    CreateSymbolicLinkFn m_pfnCreateSymbolicLinkW;
    CreateHardLinkFn m_pfnCreateHardLinkW;
    const CUnrestoredFiles& m_unrestored;
};

} // namespace morvane
