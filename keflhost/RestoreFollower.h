#pragma once
// The restore as keflhost follows it from outside: the events of the started restore process
// read as they come and handed to the run's model, and to the view; the clock kept for a stall
// and the user's Ctrl+C acted on; the stream's end put to the model; then the verification when
// asked, and the summary.
#include "keflhost/ConsoleView.h"
#include "keflhost/RestoreProcess.h"
#include "keflhost/RunModel.h"

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
// bStop set (by the user's Ctrl+C) ends the restore process, and the verification.
int FollowRestore(CRestoreProcess& process, const CRestoreRequest& request, const std::atomic<bool>& bStop,
                  CConsoleView& view, CRunRecord& record);

} // namespace keflhost
