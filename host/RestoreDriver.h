#pragma once
// The restore as the host drives it: start the session with the credentials, list what the
// backup holds, restore all filespaces or the ones asked for, and sum up.
#include "VESK.h"
#include "VeskCredentials.h"
#include "host/ProgressDisplay.h"

#include <string>
#include <vector>

namespace keflhost
{

struct CRestoreRequest
{
    bool bListOnly = false;
    // Under Wine: junctions and symbolic links are recorded by stand-ins, not made.
    bool bLinksRecordedOnly = false;
    // Drive letters ("C") or mount-point folders ("C:\Mount\Data"); empty: every filespace.
    std::vector<std::wstring> vSelected;
};

// Exit codes of a restore run.
constexpr int kRestoreOk = 0;
constexpr int kRestoreSessionFailed = 4;
constexpr int kRestoreIncomplete = 5;

// The display must be the one registered as the client's progress callback.
int RunRestore(morvane::VESK& client, morvane::VeskCredentials& credentials, const CRestoreRequest& request,
               CProgressDisplay& display);

// "BOOT SYSTEM" and the like, from a filespace's flags.
std::wstring DescribeFlags(uint32_t dwFsFlags);

} // namespace keflhost
