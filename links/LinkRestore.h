#pragma once
// Re-creating the backup's junctions, symbolic links and hard links on the restored volumes:
// KEFLImpl's RestoreLinks, CreateJunction, CreateSymbolicLink and CreateHardLinkW, which trace
// under those names.
#include "client/VESKImpl.h"
#include "links/Point.h"

#include <windows.h>

#include <string>

namespace morvane
{

using CreateSymbolicLinkFn = BOOLEAN(WINAPI*)(LPCWSTR, LPCWSTR, DWORD);
using CreateHardLinkFn = BOOL(WINAPI*)(LPCWSTR, LPCWSTR, LPSECURITY_ATTRIBUTES);

class CLinkRestorer
{
public:
    // base: parent folders, progress and string resources; the two entry points as looked up at
    // the session's construction (null where the system lacks them).
    CLinkRestorer(VESKImpl& base, HMODULE hModule, CreateSymbolicLinkFn pfnCreateSymbolicLinkW,
                  CreateHardLinkFn pfnCreateHardLinkW);

    bool RestoreLinks(const PointList& junctionPoints, const PointList& symbolicLinks,
                      const PointList& hardLinks);
    bool CreateJunction(const std::wstring& sLink, const std::wstring& sTarget, DWORD dwAttr);
    bool CreateSymbolicLink(const std::wstring& sLink, const std::wstring& sTarget, DWORD dwAttr);
    bool CreateHardLink(const std::wstring& sLink, const std::wstring& sTarget);

private:
    VESKImpl& m_base;
    HMODULE m_hModule;
    CreateSymbolicLinkFn m_pfnCreateSymbolicLinkW;
    CreateHardLinkFn m_pfnCreateHardLinkW;
};

} // namespace morvane
