// The console view's last part: the summary at the end of a run.
#include "keflhost/ConsoleView.h"

#include <algorithm>

namespace keflhost
{
namespace
{

// "1 file", "2 files".
std::wstring Count(uint64_t ullCount, const wchar_t* pwszOne, const wchar_t* pwszMany)
{
    return std::to_wstring(ullCount) + L" " + (ullCount == 1 ? pwszOne : pwszMany);
}

uint64_t CountKind(const std::vector<CFailure>& vFailures, FailureKind kind)
{
    return static_cast<uint64_t>(
        std::count_if(vFailures.begin(), vFailures.end(), [kind](const CFailure& f) { return f.kind == kind; }));
}

// "2999 of 3000 files": of those to restore, those that came back.
std::wstring CameBack(uint64_t ullInBackup, uint64_t ullSkipped, uint64_t ullFailed, const wchar_t* pwszOne,
                      const wchar_t* pwszMany)
{
    const uint64_t ullToRestore = ullInBackup - std::min(ullInBackup, ullSkipped);
    return std::to_wstring(ullToRestore - std::min(ullToRestore, ullFailed)) + L" of " +
           Count(ullToRestore, pwszOne, pwszMany);
}

} // namespace

std::wstring DescribeFilespace(const CFilespaceRecord& fs)
{
    if (fs.outcome == FilespaceOutcome::NotInBackup)
        return fs.sName + L"  not in the backup";
    if (fs.outcome == FilespaceOutcome::CutShort) // the files never handed over are neither restored nor failed
        return fs.sName + L"  cut short after " + std::to_wstring(fs.ullDone) + L" of " +
               Count(fs.ullFiles + fs.ullFolders, L"file or folder", L"files and folders") +
               (fs.vFailures.empty() ? L"" : L"; " + Count(fs.vFailures.size(), L"failure", L"failures") + L" before");
    const uint64_t ullFilesFailed = CountKind(fs.vFailures, FailureKind::File);
    const uint64_t ullFoldersFailed = CountKind(fs.vFailures, FailureKind::Folder);
    const uint64_t ullListings = CountKind(fs.vFailures, FailureKind::Listing);
    std::wstring sLine = fs.sName + L"  ";
    if (fs.ullFiles + fs.ullFolders == 0) // no walk counts in the trace (trace level below 3)
        sLine += fs.outcome == FilespaceOutcome::Restored ? L"came back" : L"did not come back whole";
    else
        sLine += CameBack(fs.ullFiles, fs.ullSkippedFiles, ullFilesFailed, L"file", L"files") + L" and " +
                 CameBack(fs.ullFolders, fs.ullSkippedFolders, ullFoldersFailed, L"folder", L"folders") +
                 L" came back";
    if (ullFilesFailed + ullFoldersFailed > 0)
        sLine += L"; " + Count(ullFilesFailed, L"file", L"files") + L" and " +
                 Count(ullFoldersFailed, L"folder", L"folders") + L" did not";
    if (ullListings > 0)
        sLine += L"; " + Count(ullListings, L"backup folder", L"backup folders") + L" could not be listed";
    if (fs.ullKept > 0)
        sLine += L" (" + std::to_wstring(fs.ullKept) + L" of the files kept as an earlier run left them)";
    if (fs.ullSkippedFiles + fs.ullSkippedFolders > 0)
        sLine += L"; " + Count(fs.ullSkippedFiles + fs.ullSkippedFolders, L"left out by rule", L"left out by rule");
    return sLine;
}

std::wstring DescribeLinks(const CLinkPasses& passes)
{
    static const wchar_t* const kNames[] = {L"junctions", L"symbolic links", L"hard links"};
    std::wstring sText;
    for (size_t i = 0; i < passes.size(); ++i)
    {
        const CLinkPass& pass = passes[i];
        const uint64_t ullFailed = std::min(pass.ullFailed, pass.ullDone);
        sText += (i == 0 ? L"" : L", ") + std::wstring(kNames[i]) + L" " +
                 std::to_wstring(pass.ullDone - ullFailed) + L" of " + std::to_wstring(pass.ullTotal);
        if (ullFailed != 0)
            sText += L" (" + std::to_wstring(ullFailed) + L" failed)";
    }
    return sText;
}

void CConsoleView::ShowLinks(const CRunRecord& record)
{
    Line(L"Links: " + DescribeLinks(record.links));
    ShowFailures(L"Links not made (" + std::to_wstring(record.vLinkFailures.size()) + L"):", record.vLinkFailures);
    if (!record.sLinkFailuresIncomplete.empty())
        Line(L"  " + record.sLinkFailuresIncomplete);
    if (record.bLinksFailed && record.vLinkFailures.empty())
        Line(L"  not every link was made");
    for (const auto& link : record.vRecordedLinks)
        Line(L"  recorded, not made (Wine cannot): " + link[0] + L" " + link[1] + L" -> " + link[2]);
}

void CConsoleView::ShowSummary(const CRunRecord& record, bool bVerify)
{
    std::vector<CFailure> vFailures;
    std::vector<CDifference> vDifferences;
    uint64_t ullVerifiedFiles = 0;
    uint64_t ullVerifiedBytes = 0;
    Line(L"Filespaces restored:");
    for (const CFilespaceRecord& fs : record.vFilespaces)
    {
        Line(L"  " + DescribeFilespace(fs));
        vFailures.insert(vFailures.end(), fs.vFailures.begin(), fs.vFailures.end());
        vDifferences.insert(vDifferences.end(), fs.verification.vDifferences.begin(),
                            fs.verification.vDifferences.end());
        ullVerifiedFiles += fs.verification.ullFiles;
        ullVerifiedBytes += fs.verification.ullBytes;
    }
    ShowFailures(L"Files and folders not restored (" + std::to_wstring(vFailures.size()) + L"):", vFailures);
    for (const CFilespaceRecord& fs : record.vFilespaces)
        if (!fs.sFailuresIncomplete.empty())
            Line(L"  " + fs.sName + L" " + fs.sFailuresIncomplete);
    if (record.bLinksRestored)
        ShowLinks(record);
    if (bVerify && record.sCutShort.empty())
    {
        Line(L"Verified " + Count(ullVerifiedFiles, L"file", L"files") + L" (" +
             CProgressDisplay::Bytes(ullVerifiedBytes) + L") against the backup: " +
             (vDifferences.empty() ? std::wstring(L"no differences")
                                   : Count(vDifferences.size(), L"difference", L"differences")));
        ShowDifferences(L"Differences:", vDifferences);
        if (record.bVerifyStopped)
            Line(L"The verification was stopped by the user before its end.");
    }
    if (!record.sCutShort.empty())
        Line(L"The restore was cut short (" + record.sCutShort + L")" +
             (bVerify ? L": nothing was verified." : L"."));
}

} // namespace keflhost
