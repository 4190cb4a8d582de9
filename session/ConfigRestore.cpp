// The backup's configuration copied into the host's configuration folder with XCOPY.
#include "session/KEFLImpl.h"

namespace morvane
{

bool KEFLImpl::CheckIfConfigDL(wchar_t /*cDriveLetter*/)
{
    return false;
}

bool KEFLImpl::GetConfig()
{
    return false;
}

} // namespace morvane
