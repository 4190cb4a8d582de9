#include "host/RestoreDriver.h"

#include "host/HostOutput.h"
#include "host/ProgressDisplay.h"
#include "host/LibraryTrace.h"
#include "host/RestoreVerify.h"
#include "winecompat/LinkStandIns.h"
#include "platform/FormatText.h"

#include <algorithm>
#include <cstdio>
#include <cwctype>

namespace keflhost
{
namespace
{

// Filespace flags: BOOT is 0x3, SYSTEM 0x5, the configuration drive 0x2, a mount point 0x8.
constexpr uint32_t kFlagBootOrSystem = 0x1;
constexpr uint32_t kFlagBoot = 0x2;
constexpr uint32_t kFlagSystem = 0x4;
constexpr uint32_t kFlagMount = 0x8;

std::wstring LastError(morvane::VESK& client)
{
    std::wstring sError;
    client.GetLastErrorMsg(sError);
    return sError;
}

std::wstring Time(const morvane::Filespace& fs)
{
    if (!fs.bFsTimeValid)
        return L"-";
    wchar_t wsz[32];
    (void)morvane::FormatInto(wsz, L"%04u-%02u-%02u %02u:%02u:%02u UTC", fs.stFsTime.wYear,
                              fs.stFsTime.wMonth, fs.stFsTime.wDay, fs.stFsTime.wHour, fs.stFsTime.wMinute,
                              fs.stFsTime.wSecond); // 31 characters at most
    return wsz;
}

std::wstring Name(const morvane::Filespace& fs)
{
    return (fs.dwFsFlags & kFlagMount) ? fs.sFsMountDir : std::wstring(1, fs.wcFsDriveLetter) + L":";
}

bool IsSelected(const morvane::Filespace& fs, const CRestoreRequest& request)
{
    if (request.vSelected.empty())
        return true;
    for (const std::wstring& sWanted : request.vSelected)
    {
        if (fs.dwFsFlags & kFlagMount)
        {
            if (_wcsicmp(sWanted.c_str(), fs.sFsMountDir.c_str()) == 0)
                return true;
        }
        else if ((sWanted.size() == 1 || (sWanted.size() == 2 && sWanted[1] == L':')) &&
                 towupper(sWanted[0]) == fs.wcFsDriveLetter)
        {
            return true;
        }
    }
    return false;
}

void PrintList(const std::vector<morvane::Filespace>& vFilespaces)
{
    PrintLine(L"Filespaces:");
    for (const morvane::Filespace& fs : vFilespaces)
        PrintLine(L"  " + Name(fs) + L"   " + fs.sFsPath + L"   [" + DescribeFlags(fs.dwFsFlags) + L"]   " +
                  Time(fs));
}

// The screen shows this many failures or differences in each list; the report has them all.
constexpr size_t kShownOnScreen = 20;

template <typename T, typename Describe>
void PrintSome(const std::wstring& sHeading, const std::vector<T>& vItems, Describe describe, bool bReport)
{
    if (vItems.empty())
        return;
    PrintLine(sHeading);
    for (size_t i = 0; i < vItems.size() && i < kShownOnScreen; ++i)
        PrintLine(L"    " + describe(vItems[i]));
    if (vItems.size() > kShownOnScreen)
        PrintLine(L"    ... and " + std::to_wstring(vItems.size() - kShownOnScreen) + L" more" +
                  (bReport ? L", all of them in the report" : L" (--report FILE lists them all)"));
}

void PrintFailures(const std::wstring& sHeading, const std::vector<CFailure>& vFailures, bool bReport)
{
    PrintSome(sHeading, vFailures, DescribeFailure, bReport);
}

void PrintDifferences(const std::wstring& sHeading, const std::vector<CDifference>& vDifferences,
                      bool bReport)
{
    PrintSome(
        sHeading, vDifferences, [](const CDifference& d) { return d.sPath + L": " + d.sWhat; }, bReport);
}

// Where a filespace's files are in the backup, as the restore takes them: a drive's in the folder
// named after its letter, a mount point's inside the folder of the drive that holds it.
std::wstring BackupFolder(const std::wstring& sLocation, const morvane::Filespace& fs)
{
    std::wstring sFolder = sLocation;
    while (!sFolder.empty() && sFolder.back() == L'\\')
        sFolder.pop_back();
    if (!(fs.dwFsFlags & kFlagMount))
        return sFolder + L"\\" + fs.wcFsDriveLetter;
    std::wstring sMount = fs.sFsMountDir;
    while (sMount.size() > 3 && sMount.back() == L'\\')
        sMount.pop_back();
    return sFolder + L"\\" + sMount.substr(0, 1) + (sMount.size() > 2 ? sMount.substr(2) : L"");
}

std::wstring RestoredFolder(const morvane::Filespace& fs)
{
    if (!(fs.dwFsFlags & kFlagMount))
        return std::wstring(1, fs.wcFsDriveLetter) + L":";
    std::wstring sMount = fs.sFsMountDir;
    while (sMount.size() > 3 && sMount.back() == L'\\')
        sMount.pop_back();
    return sMount;
}

// A session that could not start or list: the library's message, and what its trace says of why.
int EndSession(morvane::VESK& client, CHostOutput& output, CRunRecord& record, const std::wstring& sWhy,
               const CLibraryTrace& trace, const CTraceMark& sessionMark)
{
    const std::wstring sError = LastError(client);
    client.Fini();
    output.Reclaim();
    record.sNotStarted = sWhy + (sError.empty() ? L"" : L": " + sError);
    PrintLine(L"keflhost: " + record.sNotStarted);
    record.vNotStartedTrace = trace.ReadFrom(sessionMark).vGaveUp;
    PrintSome(
        L"  the library's trace (" + trace.Path() + L") says:", record.vNotStartedTrace,
        [](const std::wstring& sLine) { return sLine; }, false);
    return record.iExitStatus = kExitNotStarted;
}

// One filespace restored, and what the trace says failed in it. sSizeLimit keeps the trace's
// size-limit warning once seen: the steps after it are past the limit too.
CFilespaceRecord RestoreOne(morvane::VESK& client, morvane::Filespace& fs, const CLibraryTrace& trace,
                            CProgressDisplay& display, std::wstring& sSizeLimit, bool bReport)
{
    const CTraceMark mark = trace.Mark();
    const bool bRestored = client.RestoreFilespace(fs);
    const CProgressDisplay::CTaskTotals totals = display.Finish();
    const CTraceFindings findings = trace.ReadFrom(mark);
    CFilespaceRecord entry;
    entry.sName = Name(fs);
    entry.sPath = fs.sFsPath;
    entry.sResult = bRestored ? L"restored" : L"failed";
    entry.ullFiles = findings.ullFiles;
    entry.ullFolders = findings.ullFolders;
    entry.ullBytes = totals.ullBytes;
    entry.dSeconds = totals.dSeconds;
    entry.vFailures = findings.vFailures;
    if (!bRestored)
    {
        entry.sFailuresIncomplete = WhyIncomplete(findings, sSizeLimit);
        PrintLine(L"keflhost: " + entry.sName + L" was not restored completely: " + LastError(client));
        if (entry.vFailures.empty() && entry.sFailuresIncomplete.empty())
            PrintLine(L"  the library's trace (" + trace.Path() +
                      L") names no file that failed: is its trace level 0?");
    }
    PrintFailures(L"  not restored in " + entry.sName + L":", entry.vFailures, bReport);
    if (!entry.sFailuresIncomplete.empty())
        PrintLine(L"  " + entry.sFailuresIncomplete);
    if (!findings.sSizeLimit.empty())
        sSizeLimit = findings.sSizeLimit;
    return entry;
}

// The links go last: their targets are among the restored files.
void MakeLinks(morvane::VESK& client, const CLibraryTrace& trace, CProgressDisplay& display,
                  const CRestoreRequest& request, CRunRecord& record, const std::wstring& sSizeLimit)
{
    const CTraceMark mark = trace.Mark();
    client.RestoreLinks();
    record.bLinksRestored = true;
    record.bLinksRecordedOnly = request.bLinksRecordedOnly;
    const CTraceFindings findings = trace.ReadFrom(mark);
    record.vLinkFailures = findings.vFailures;
    CLinkPasses& passes = display.LinkPasses();
    for (const CFailure& failure : record.vLinkFailures)
    {
        const size_t iPass = failure.kind == FailureKind::Junction       ? 0
                             : failure.kind == FailureKind::SymbolicLink ? 1
                                                                         : 2;
        ++passes[iPass].ullFailed;
    }
    record.links = passes;
    record.bLinksFailed = display.LinksFailed() || !record.vLinkFailures.empty();
    if (record.bLinksFailed)
        record.sLinkFailuresIncomplete = WhyIncomplete(findings, sSizeLimit);
}

// The exit status's bits for what the record knows to have failed so far.
int KnownStatus(const CRunRecord& record) noexcept
{
    int iStatus = kExitOk;
    for (const CFilespaceRecord& fs : record.vFilespaces)
    {
        if (fs.sResult != L"restored")
            iStatus |= kExitFilesFailed;
        if (!fs.verification.vDifferences.empty())
            iStatus |= kExitDifferences;
    }
    if (record.bLinksFailed)
        iStatus |= kExitLinksFailed;
    return iStatus;
}

// The end of the run: what was restored, made and verified, and the exit status that says so.
int Summarise(CRunRecord& record, const CRestoreRequest& request)
{
    const bool bReport = !request.sReportFile.empty();
    size_t cRestored = 0;
    std::vector<CFailure> vFailures;
    std::vector<CDifference> vDifferences;
    uint64_t ullVerifiedFiles = 0;
    uint64_t ullVerifiedBytes = 0;
    for (const CFilespaceRecord& fs : record.vFilespaces)
    {
        cRestored += fs.sResult == L"restored" ? 1 : 0;
        vFailures.insert(vFailures.end(), fs.vFailures.begin(), fs.vFailures.end());
        vDifferences.insert(vDifferences.end(), fs.verification.vDifferences.begin(),
                            fs.verification.vDifferences.end());
        ullVerifiedFiles += fs.verification.ullFiles;
        ullVerifiedBytes += fs.verification.ullBytes;
    }
    PrintLine(L"Restored " + std::to_wstring(cRestored) + L" of " +
              std::to_wstring(record.vFilespaces.size()) + L" filespaces.");
    for (const CFilespaceRecord& fs : record.vFilespaces)
        if (fs.sResult != L"restored")
            PrintLine(L"  not restored: " + fs.sName +
                      (fs.sResult == L"failed" ? L"" : L" (" + fs.sResult + L")"));
    PrintFailures(L"Files and folders not restored (" + std::to_wstring(vFailures.size()) + L"):", vFailures,
                  bReport);
    for (const CFilespaceRecord& fs : record.vFilespaces)
        if (!fs.sFailuresIncomplete.empty())
            PrintLine(L"  " + fs.sName + L": " + fs.sFailuresIncomplete);
    PrintLine(L"Links: " + CProgressDisplay::DescribeLinks(record.links));
    PrintFailures(L"Links not made (" + std::to_wstring(record.vLinkFailures.size()) + L"):",
                  record.vLinkFailures, bReport);
    if (!record.sLinkFailuresIncomplete.empty())
        PrintLine(L"  " + record.sLinkFailuresIncomplete);
    if (record.bLinksFailed && record.vLinkFailures.empty())
        PrintLine(L"  not every link was made");
    if (request.bLinksRecordedOnly)
        for (const winecompat::CRecordedLink& link : winecompat::CLinkPatches::RecordedLinks())
            PrintLine(L"  recorded, not made (Wine cannot): " + link.sKind + L" " + link.sLink + L" -> " +
                      link.sTarget);
    if (request.bVerify)
    {
        PrintLine(L"Verified " + std::to_wstring(ullVerifiedFiles) + L" files (" +
                  CProgressDisplay::Bytes(ullVerifiedBytes) + L") against the backup: " +
                  (vDifferences.empty() ? std::wstring(L"no differences")
                                        : std::to_wstring(vDifferences.size()) + L" differences"));
        PrintDifferences(L"Differences:", vDifferences, bReport);
    }
    return record.iExitStatus = KnownStatus(record);
}

// Each restored filespace compared with the backup; vRestored are the first of the record's.
void Verify(const std::vector<morvane::Filespace>& vRestored, CProgressDisplay& display, CRunRecord& record,
            bool bReport)
{
    for (size_t i = 0; i < vRestored.size(); ++i)
    {
        CFilespaceRecord& entry = record.vFilespaces[i];
        display.Begin(L"Verifying " + entry.sName + L" against the backup");
        entry.verification = VerifyFilespace(
            BackupFolder(record.sLocation, vRestored[i]), RestoredFolder(vRestored[i]),
            [&](uint64_t ullDone, uint64_t ullTotal) { display.Update(ullDone, ullTotal); });
        display.Finish();
        entry.bVerified = true;
        PrintDifferences(L"  differences in " + entry.sName + L":", entry.verification.vDifferences, bReport);
    }
}

} // namespace

int StoppedStatus(const CRunRecord& record) noexcept
{
    return record.bRestoreBegan ? kExitFilesFailed | KnownStatus(record) : kExitNotStarted;
}

std::wstring DescribeFlags(uint32_t dwFsFlags)
{
    std::wstring sFlags;
    auto add = [&](const wchar_t* pwsz) { sFlags += (sFlags.empty() ? L"" : L" ") + std::wstring(pwsz); };
    const bool bBoot = (dwFsFlags & (kFlagBootOrSystem | kFlagBoot)) == (kFlagBootOrSystem | kFlagBoot);
    const bool bSystem = (dwFsFlags & (kFlagBootOrSystem | kFlagSystem)) == (kFlagBootOrSystem | kFlagSystem);
    if (bBoot)
        add(L"BOOT");
    if (bSystem)
        add(L"SYSTEM");
    // 0x2 alone marks the drive that carried the configuration; on BOOT it cannot be told apart.
    if ((dwFsFlags & kFlagBoot) && !bBoot)
        add(L"CONFIG");
    if (dwFsFlags & kFlagMount)
        add(L"MOUNT");
    return sFlags;
}

int RunRestore(morvane::VESK& client, morvane::VeskCredentials& credentials, const CRestoreRequest& request,
               CProgressDisplay& display, CHostOutput& output, CRunRecord& record)
{
    const CLibraryTrace trace;
    const CTraceMark sessionMark = trace.Mark();
    const bool bInitialised = client.Init(&credentials);
    // Init leaves the process in a hidden console of the library's: our output goes back to the user's.
    output.Reclaim();
    if (!bInitialised)
        return EndSession(client, output, record, L"the restore session could not start", trace, sessionMark);
    std::vector<morvane::Filespace> vFilespaces;
    if (!client.GetFilespaceList(vFilespaces))
        return EndSession(client, output, record, L"the backup's filespaces could not be listed", trace,
                          sessionMark);
    if (vFilespaces.empty())
    {
        // A backup folder with its data folder and nothing else: there is nothing to restore.
        client.Fini();
        output.Reclaim();
        record.sNotStarted = L"the backup holds no filespaces (no drive folder, no mount point)";
        PrintLine(L"keflhost: " + record.sNotStarted);
        return record.iExitStatus = kExitNotStarted;
    }
    PrintList(vFilespaces);
    if (request.bListOnly)
    {
        client.Fini();
        output.Reclaim();
        return record.iExitStatus = kExitOk;
    }

    const bool bReport = !request.sReportFile.empty();
    std::wstring sSizeLimit;
    std::vector<morvane::Filespace> vRestored;
    for (morvane::Filespace& fs : vFilespaces)
    {
        if (!IsSelected(fs, request))
            continue;
        record.bRestoreBegan = true;
        record.vFilespaces.push_back(RestoreOne(client, fs, trace, display, sSizeLimit, bReport));
        vRestored.push_back(fs);
    }
    for (const std::wstring& sWanted : request.vSelected)
    {
        CRestoreRequest one;
        one.vSelected = {sWanted};
        if (std::none_of(vFilespaces.begin(), vFilespaces.end(),
                         [&](const morvane::Filespace& fs) { return IsSelected(fs, one); }))
        {
            PrintLine(L"keflhost: the backup holds no filespace " + sWanted);
            CFilespaceRecord entry;
            entry.sName = sWanted;
            entry.sResult = L"not in the backup";
            record.vFilespaces.push_back(std::move(entry));
        }
    }

    MakeLinks(client, trace, display, request, record, sSizeLimit);
    client.Fini();
    output.Reclaim();

    if (request.bVerify)
        Verify(vRestored, display, record, bReport);
    return Summarise(record, request);
}

} // namespace keflhost
