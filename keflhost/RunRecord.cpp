#include "keflhost/RunRecord.h"

namespace keflhost
{

const wchar_t* OutcomeName(FilespaceOutcome outcome)
{
    switch (outcome)
    {
    case FilespaceOutcome::Restored:
        return L"restored";
    case FilespaceOutcome::Failed:
        return L"failed";
    case FilespaceOutcome::CutShort:
        return L"cut short";
    case FilespaceOutcome::NotInBackup:
        return L"not in the backup";
    }
    return L"";
}

int KnownStatus(const CRunRecord& record) noexcept
{
    int iStatus = kExitOk;
    for (const CFilespaceRecord& fs : record.vFilespaces)
    {
        if (fs.outcome != FilespaceOutcome::Restored)
            iStatus |= kExitFilesFailed;
        if (!fs.verification.vDifferences.empty())
            iStatus |= kExitDifferences;
    }
    if (record.bLinksFailed)
        iStatus |= kExitLinksFailed;
    if (!record.sCutShort.empty() || record.bVerifyStopped)
        iStatus |= kExitCutShort;
    return iStatus;
}

int StoppedStatus(const CRunRecord& record) noexcept
{
    return record.bRestoreBegan ? kExitFilesFailed | KnownStatus(record) : kExitNotStarted;
}

} // namespace keflhost
