// What the backup holds: one filespace per drive folder and per mount point, BOOT and SYSTEM
// marked from the restored configuration.
#include "session/KEFLImpl.h"

namespace morvane
{

bool KEFLImpl::GetFilespaceList(std::vector<Filespace>& /*vFilespaces*/)
{
    return NotAvailable(L"KEFLImpl::GetFilespaceList");
}

bool KEFLImpl::GetBOOTandSYSTEM()
{
    return false;
}

bool KEFLImpl::Convert_FILETIME(FILETIME& /*ft*/, SYSTEMTIME& /*st*/)
{
    return false;
}

} // namespace morvane
