#include "keflhost/RestoreFollower.h"

#include "keflhost/RestoreVerify.h"
#include "protocol/Filespaces.h"

namespace keflhost
{
namespace
{

// How often keflhost looks at the clock while the restore process says nothing.
constexpr DWORD kWaitMs = 250;

// The events to the stream's end, each applied and shown as it comes; the user's Ctrl+C ends the
// restore process, whose stream then ends too.
void FollowEvents(CRestoreProcess& process, const CRestoreRequest& request, const std::atomic<bool>& bStop,
                  CRunModel& model, CConsoleView& view)
{
    std::vector<CEvent> vEvents;
    bool bStopped = false;
    for (;;)
    {
        if (bStop && !bStopped)
        {
            bStopped = true;
            process.Terminate(kStoppedByUser);
        }
        const CRestoreProcess::Wait wait = process.Read(kWaitMs, vEvents);
        for (const CEvent& event : vEvents)
        {
            model.Apply(event, ::GetTickCount64());
            view.Show(event, model.Record());
        }
        if (wait == CRestoreProcess::Wait::Ended)
            return;
        if (const std::optional<CStall> stall = model.CheckStall(::GetTickCount64(), request.ullStallMs))
            view.ShowStall(*stall);
    }
}

// Each restored filespace compared with the backup.
void Verify(const std::vector<morvane::Filespace>& vRestored, CConsoleView& view, CRunRecord& record,
            const std::atomic<bool>& bStop)
{
    for (const morvane::Filespace& fs : vRestored)
    {
        if (bStop)
            break;
        CFilespaceRecord* pEntry = nullptr;
        for (CFilespaceRecord& entry : record.vFilespaces)
            if (entry.sName == FilespaceName(fs) && entry.outcome != FilespaceOutcome::NotInBackup && !entry.bVerified)
            {
                pEntry = &entry;
                break;
            }
        if (!pEntry)
            continue;
        view.BeginVerifying(pEntry->sName);
        pEntry->verification = VerifyFilespace(
            BackupFolder(record.sLocation, fs), RestoredFolder(fs),
            [&](uint64_t ullDone, uint64_t ullTotal) { view.VerifyProgress(ullDone, ullTotal); }, bStop);
        pEntry->bVerified = true;
        record.bVerifyStopped = record.bVerifyStopped || pEntry->verification.bStopped;
        view.ShowVerified(*pEntry);
    }
}

} // namespace

int FollowRestore(CRestoreProcess& process, const CRestoreRequest& request, const std::atomic<bool>& bStop,
                  CConsoleView& view, CRunRecord& record)
{
    const CLibraryTrace trace;
    CRunModel model(record, trace);
    FollowEvents(process, request, bStop, model, view);
    if (!process.ProtocolError().empty() && !model.SawEnd())
        process.Terminate(ERROR_INVALID_DATA);
    CStreamEnd how;
    how.bStoppedByUser = bStop;
    how.sProtocolError = process.ProtocolError();
    how.dwExitCode = process.ExitCode();
    how.sExitCode = DescribeExitCode(how.dwExitCode);
    const RunEnd end = model.End(how, ::GetTickCount64());
    if (end == RunEnd::EndedAfterWork)
        view.ShowEndedAfterWork(record);
    else if (end == RunEnd::CutShort)
        view.ShowCutShort(model.CutShortAt(), record);
    record.iExitStatus = model.Status(end);
    if (end == RunEnd::NotStarted || (end == RunEnd::CutShort && !record.bRestoreBegan) || request.bListOnly ||
        record.vFilespaces.empty())
        return record.iExitStatus;
    if (request.bVerify && record.sCutShort.empty())
    {
        Verify(model.Restored(), view, record, bStop);
        record.bVerifyStopped = record.bVerifyStopped || bStop;
    }
    view.ShowSummary(record, request.bVerify);
    return record.iExitStatus = KnownStatus(record);
}

} // namespace keflhost
