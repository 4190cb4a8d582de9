#pragma once
// The restore as keflhost drives it from outside: it starts the restore process, which runs the
// library's sequence, and follows the events it sends. keflhost shows the library's messages and
// the progress, lists what failed in each filespace and in the link passes (read from the
// library's trace), says when the restore stalls and when the restore process ends before the
// restore does (a crash, a kill, the user's Ctrl+C), verifies when asked, and sums up.
#include "host/ProgressDisplay.h"
#include "host/RestoreProcess.h"
#include "host/RunRecord.h"

#include <atomic>
#include <string>
#include <vector>

namespace keflhost
{

struct CRestoreRequest
{
    bool bListOnly = false;
    bool bVerify = false;
    std::wstring sReportFile; // empty: no report
    // Drive letters ("C") or mount-point folders ("C:\Mount\Data"); empty: every filespace.
    std::vector<std::wstring> vSelected;
    // Files an earlier run restored whole are kept (--resume).
    bool bResume = false;
    // No progress for this long is said, with what the restore is at.
    uint64_t ullStallMs = 10ull * 60 * 1000;
};

// Follows the started restore process to its end, fills the record and returns the exit status.
// bStop set (by the user's Ctrl+C) ends the restore process.
int FollowRestore(CRestoreProcess& process, const CRestoreRequest& request, const std::atomic<bool>& bStop,
                  CProgressDisplay& display, CRunRecord& record);

// The exit status of a run that an error of the host's own ended: 1 (nothing could start) before
// the first filespace's restore began; after that 2 (what was not done is not restored) with the
// bits of what the record already knows to have failed.
int StoppedStatus(const CRunRecord& record) noexcept;

} // namespace keflhost
