#pragma once
// The restore as the host drives it: start the session with the credentials, list what the
// backup holds, restore all filespaces or the ones asked for, make the links, verify when asked,
// and sum up what failed and why.
#include "VESK.h"
#include "VeskCredentials.h"
#include "host/HostOutput.h"
#include "host/LibraryTrace.h"
#include "host/ProgressDisplay.h"
#include "host/RunRecord.h"

#include <string>
#include <vector>

namespace keflhost
{

struct CRestoreRequest
{
    bool bListOnly = false;
    bool bVerify = false;
    std::wstring sReportFile; // empty: no report
    // Under Wine: junctions and symbolic links are recorded by stand-ins, not made.
    bool bLinksRecordedOnly = false;
    // Drive letters ("C") or mount-point folders ("C:\Mount\Data"); empty: every filespace.
    std::vector<std::wstring> vSelected;
};

// The display must be the one registered as the client's progress callback. Fills the record and
// returns the exit status.
int RunRestore(morvane::VESK& client, morvane::VeskCredentials& credentials, const CRestoreRequest& request,
               CProgressDisplay& display, CHostOutput& output, CRunRecord& record);

// The exit status of a run that an error of the host's own ended: 1 (nothing could start) before
// the first filespace's restore began; after that 2 (what was not done is not restored) with the
// bits of what the record already knows to have failed.
int StoppedStatus(const CRunRecord& record) noexcept;

// "BOOT SYSTEM" and the like, from a filespace's flags.
std::wstring DescribeFlags(uint32_t dwFsFlags);

} // namespace keflhost
