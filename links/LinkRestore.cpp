#include "links/LinkRestore.h"

namespace morvane
{

CLinkRestorer::CLinkRestorer(VESKImpl& base, HMODULE hModule, CreateSymbolicLinkFn pfnCreateSymbolicLinkW,
                             CreateHardLinkFn pfnCreateHardLinkW)
    : m_base(base), m_hModule(hModule), m_pfnCreateSymbolicLinkW(pfnCreateSymbolicLinkW),
      m_pfnCreateHardLinkW(pfnCreateHardLinkW)
{
}

bool CLinkRestorer::RestoreLinks(const PointList&, const PointList&, const PointList&)
{
    return false;
}

bool CLinkRestorer::CreateJunction(const std::wstring&, const std::wstring&, DWORD)
{
    return false;
}

bool CLinkRestorer::CreateSymbolicLink(const std::wstring&, const std::wstring&, DWORD)
{
    return false;
}

bool CLinkRestorer::CreateHardLink(const std::wstring&, const std::wstring&)
{
    return false;
}

} // namespace morvane
