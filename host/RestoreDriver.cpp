#include "host/RestoreDriver.h"

#include "host/Filespaces.h"
#include "host/HostOutput.h"
#include "host/LibraryTrace.h"
#include "host/RestoreVerify.h"
#include "platform/Utf8.h"

#include <algorithm>

#include <functional>
#include <map>

namespace keflhost
{
namespace
{

// The screen shows this many failures or differences in each list; the report has them all.
constexpr size_t kShownOnScreen = 20;
// How often keflhost looks at the clock while the restore process says nothing.
constexpr DWORD kWaitMs = 250;

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

// The trace mark the restore process took before a step; null when it took none.
CTraceMark MarkFromEvent(const CEvent& mark)
{
    CTraceMark traceMark;
    if (mark.is_null())
        return traceMark;
    traceMark.ullOffset = mark.at("offset").get<uint64_t>();
    const std::string sHex = mark.at("head").get<std::string>();
    for (size_t i = 0; i + 1 < sHex.size(); i += 2)
        traceMark.sHead.push_back(static_cast<char>(std::stoi(sHex.substr(i, 2), nullptr, 16)));
    return traceMark;
}

morvane::ProgMsg ProgressFromEvent(const CEvent& event)
{
    morvane::ProgMsg msg{};
    msg.uiState = event.at("state").get<uint32_t>();
    msg.sTitle = Wide(event, "title");
    msg.sText = Wide(event, "text");
    msg.sPath = Wide(event, "path");
    const std::wstring sDrive = Wide(event, "drive");
    msg.wcDriveLetter = sDrive.empty() ? L'\0' : sDrive[0];
    msg.ullBytesDone = event.at("bytesDone").get<uint64_t>();
    msg.ullTotal = event.at("total").get<uint64_t>();
    msg.ullDone = event.at("done").get<uint64_t>();
    return msg;
}

void PrintMessage(const CEvent& event)
{
    const uint32_t uiSeverity = event.at("severity").get<uint32_t>();
    const wchar_t* pwszSeverity = uiSeverity == morvane::MSG_SEVERITY_ERROR     ? L"error"
                                  : uiSeverity == morvane::MSG_SEVERITY_WARNING ? L"warning"
                                                                                : L"info";
    PrintLine(std::wstring(L"[") + pwszSeverity + L"] " + Wide(event, "text"));
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
    if (!record.sCutShort.empty() || record.bVerifyStopped)
        iStatus |= kExitCutShort;
    return iStatus;
}

// Follows the events of one restore process.
class CRestoreFollower
{
public:
    CRestoreFollower(const CRestoreRequest& request, CProgressDisplay& display, CRunRecord& record)
        : m_request(request), m_display(display), m_record(record), m_bReport(!request.sReportFile.empty())
    {
    }
    // Until the stream ends; false when it ended before its last event.
    bool Follow(CRestoreProcess& process, const std::atomic<bool>& bStop);
    // The restore process ended early: what keflhost knows of the step it was at.
    void CutShort(const std::wstring& sHow);
    bool NotStarted() const { return m_bNotStarted; }
    const std::vector<morvane::Filespace>& Restored() const { return m_vRestored; }

private:
    void Dispatch(const CEvent& event);
    void Hello(const CEvent& event);
    void NotStartedEvent(const CEvent& event);
    void FilespacesEvent(const CEvent& event);
    void Begin(const CEvent& event);
    // end: where its lines end in the trace; none for a restore cut short.
    void Restored(const std::wstring& sResult, const std::wstring& sError, const CTraceMark& end);
    void LinksDone(const CEvent& event);
    void CheckStall(uint64_t ullNowMs);

    const CRestoreRequest& m_request;
    CProgressDisplay& m_display;
    CRunRecord& m_record;
    const bool m_bReport;
    const CLibraryTrace m_trace;
    bool m_bEnded = false;
    bool m_bNotStarted = false;
    std::wstring m_sSizeLimit; // the trace's size-limit warning, once seen
    // The step under way: a filespace's restore (its record not yet made) or the link passes.
    bool m_bInFilespace = false;
    bool m_bInLinks = false;
    morvane::Filespace m_current{};
    CTraceMark m_mark;
    morvane::ProgMsg m_lastProgress{};
    uint64_t m_ullLastProgressMs = 0;
    bool m_bStallSaid = false;
    std::vector<morvane::Filespace> m_vRestored;
};

bool CRestoreFollower::Follow(CRestoreProcess& process, const std::atomic<bool>& bStop)
{
    std::vector<CEvent> vEvents;
    m_ullLastProgressMs = ::GetTickCount64();
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
            try
            {
                Dispatch(event);
            }
            catch (const nlohmann::json::exception& e) // a field missing or of the wrong kind
            {
                const std::string sEvent =
                    event.dump(-1, ' ', false, CEvent::error_handler_t::replace).substr(0, 120);
                m_record.sCutShort = L"the restore process sent an event keflhost cannot read (" +
                                     morvane::FromUtf8(sEvent) + L"): " + morvane::FromUtf8(e.what());
                process.Terminate(ERROR_INVALID_DATA);
                return false;
            }
        }
        if (wait == CRestoreProcess::Wait::Ended)
            break;
        CheckStall(::GetTickCount64());
    }
    if (!process.ProtocolError().empty() && !m_bEnded)
    {
        m_record.sCutShort = process.ProtocolError();
        process.Terminate(ERROR_INVALID_DATA);
    }
    return m_bEnded;
}

void CRestoreFollower::Dispatch(const CEvent& event)
{
    const std::string sName = event.at("event").get<std::string>();
    if (sName == "hello")
        Hello(event);
    else if (sName == "line")
        PrintLine(Wide(event, "text"));
    else if (sName == "message")
        PrintMessage(event);
    else if (sName == "credentials")
    {
        m_record.sLocation = Wide(event, "location");
        m_record.sPointInTime = Wide(event, "pointInTime");
    }
    else if (sName == "notStarted")
        NotStartedEvent(event);
    else if (sName == "filespaces")
        FilespacesEvent(event);
    else if (sName == "begin")
        Begin(event);
    else if (sName == "progress")
    {
        m_lastProgress = ProgressFromEvent(event);
        m_ullLastProgressMs = ::GetTickCount64();
        m_bStallSaid = false;
        m_display.Show(m_lastProgress);
    }
    else if (sName == "restored")
        Restored(Wide(event, "result"), Wide(event, "error"), MarkFromEvent(event.at("trace")));
    else if (sName == "notInBackup")
    {
        const std::wstring sWanted = Wide(event, "name");
        PrintLine(L"keflhost: the backup holds no filespace " + sWanted);
        CFilespaceRecord entry;
        entry.sName = sWanted;
        entry.sResult = L"not in the backup";
        m_record.vFilespaces.push_back(std::move(entry));
    }
    else if (sName == "links")
    {
        m_mark = MarkFromEvent(event.at("trace"));
        m_bInLinks = true;
    }
    else if (sName == "linksDone")
        LinksDone(event);
    else if (sName == "end")
        m_bEnded = true;
    // An event of a later version of the protocol is passed over.
}

void CRestoreFollower::Hello(const CEvent& event)
{
    const CEvent& description = event.at("description");
    const CEvent& version = event.at("version");
    if (!description.is_null())
        PrintLine(L"Description:   " + (m_record.sDescription = Wide(event, "description")));
    if (!version.is_null())
        PrintLine(L"Version:       " + (m_record.sVersion = Wide(event, "version")));
    const CEvent& capabilities = event.at("capabilities");
    if (!capabilities.empty())
        PrintLine(L"Capabilities:");
    for (const CEvent& capability : capabilities)
        PrintLine(std::wstring(L"  ") + (capability.at("yes").get<bool>() ? L"yes  " : L"no   ") +
                  Wide(capability, "name"));
    m_record.bLinksRecordedOnly = event.at("wine").get<bool>();
    if (m_record.bLinksRecordedOnly)
        PrintLine(L"Running under Wine: backup streams, volume paths, the network provider and a console are "
                  L"stood in; junctions and symbolic links are recorded, not made.");
}

// A session that could not start or list: the library's message, and what its trace says of why.
void CRestoreFollower::NotStartedEvent(const CEvent& event)
{
    m_bNotStarted = true;
    // "No error" is what the library says while it has no message: the trace below says why.
    const std::wstring sError = Wide(event, "error");
    const bool bNoText = sError.empty() || sError == L"No error";
    m_record.sNotStarted = Wide(event, "why") + (bNoText ? L"" : L": " + sError);
    PrintLine(L"keflhost: " + m_record.sNotStarted);
    if (event.at("trace").is_null())
        return;
    m_record.vNotStartedTrace = m_trace.ReadFrom(MarkFromEvent(event.at("trace"))).vGaveUp;
    PrintSome(
        L"  the library's trace (" + m_trace.Path() + L") says:", m_record.vNotStartedTrace,
        [](const std::wstring& sLine) { return sLine; }, false);
}

void CRestoreFollower::FilespacesEvent(const CEvent& event)
{
    const CEvent& list = event.at("list");
    if (list.empty())
    {
        // A backup folder with its data folder and nothing else: there is nothing to restore.
        m_bNotStarted = true;
        m_record.sNotStarted = L"the backup holds no filespaces (no drive folder, no mount point)";
        PrintLine(L"keflhost: " + m_record.sNotStarted);
        return;
    }
    PrintLine(L"Filespaces:");
    for (const CEvent& item : list)
    {
        const morvane::Filespace fs = FilespaceFromEvent(item);
        PrintLine(L"  " + Name(fs) + L"   " + fs.sFsPath + L"   [" + DescribeFlags(fs.dwFsFlags) + L"]   " + Time(fs));
    }
}

void CRestoreFollower::Begin(const CEvent& event)
{
    m_current = FilespaceFromEvent(event.at("filespace"));
    m_mark = MarkFromEvent(event.at("trace"));
    m_bInFilespace = true;
    m_record.bRestoreBegan = true;
    m_lastProgress = morvane::ProgMsg{};
    m_ullLastProgressMs = ::GetTickCount64();
}

// A filespace's restore ended (or was cut short): its record, from what the trace says failed.
void CRestoreFollower::Restored(const std::wstring& sResult, const std::wstring& sError, const CTraceMark& end)
{
    m_bInFilespace = false;
    const CProgressDisplay::CTaskTotals totals = m_display.Finish();
    const CTraceFindings findings = m_trace.ReadFrom(m_mark, end);
    CFilespaceRecord entry;
    entry.sName = Name(m_current);
    entry.sPath = m_current.sFsPath;
    entry.sResult = sResult;
    entry.ullFiles = findings.ullFiles;
    entry.ullFolders = findings.ullFolders;
    entry.ullSkippedFiles = findings.ullSkippedFiles;
    entry.ullSkippedFolders = findings.ullSkippedFolders;
    entry.ullKept = findings.ullKept;
    entry.ullBytes = totals.ullBytes;
    entry.dSeconds = totals.dSeconds;
    entry.vFailures = findings.vFailures;
    if (sResult != L"restored")
    {
        entry.sFailuresIncomplete = WhyIncomplete(findings, m_sSizeLimit);
        if (!sError.empty())
            PrintLine(L"keflhost: " + entry.sName + L" was not restored completely: " + sError);
        if (entry.vFailures.empty() && entry.sFailuresIncomplete.empty() && sResult == L"failed")
            PrintLine(L"  the library's trace (" + m_trace.Path() + L") names no file that failed: is its trace level 0?");
    }
    PrintFailures(L"  files and folders not restored on " + entry.sName + L" (" +
                      std::to_wstring(entry.vFailures.size()) + L")",
                  entry.vFailures, m_bReport);
    if (!entry.sFailuresIncomplete.empty())
        PrintLine(L"  " + entry.sFailuresIncomplete);
    if (!findings.sSizeLimit.empty())
        m_sSizeLimit = findings.sSizeLimit;
    m_record.vFilespaces.push_back(std::move(entry));
    m_vRestored.push_back(m_current);
}

void CRestoreFollower::LinksDone(const CEvent& event)
{
    m_bInLinks = false;
    m_record.bLinksRestored = true;
    for (const CEvent& link : event.at("recorded"))
        m_record.vRecordedLinks.push_back({Wide(link, "kind"), Wide(link, "link"), Wide(link, "target")});
    const CTraceFindings findings = m_trace.ReadFrom(m_mark, MarkFromEvent(event.at("trace")));
    m_record.vLinkFailures = findings.vFailures;
    CLinkPasses& passes = m_display.LinkPasses();
    for (const CFailure& failure : m_record.vLinkFailures)
    {
        const size_t iPass = failure.kind == FailureKind::Junction       ? 0
                             : failure.kind == FailureKind::SymbolicLink ? 1
                                                                         : 2;
        ++passes[iPass].ullFailed;
    }
    m_record.links = passes;
    m_record.bLinksFailed = m_display.LinksFailed() || !m_record.vLinkFailures.empty();
    if (m_record.bLinksFailed)
        m_record.sLinkFailuresIncomplete = WhyIncomplete(findings, m_sSizeLimit);
}

// A locked file may hold the restore for minutes by design: a stall is said, never acted on.
void CRestoreFollower::CheckStall(uint64_t ullNowMs)
{
    if (!m_bInFilespace || m_bStallSaid || ullNowMs - m_ullLastProgressMs < m_request.ullStallMs)
        return;
    m_bStallSaid = true;
    const std::wstring sLast = m_trace.ReadFrom(m_mark).sLastNamed;
    const uint64_t ullSeconds = (ullNowMs - m_ullLastProgressMs) / 1000;
    PrintLine(L"keflhost: no progress for " +
              (ullSeconds < 60 ? Count(ullSeconds, L"second", L"seconds") : Count(ullSeconds / 60, L"minute", L"minutes")) +
              L" while restoring " + Name(m_current) +
              (sLast.empty() ? L"; the trace names no file yet" : L"; the last file the trace names: " + sLast));
}

void CRestoreFollower::CutShort(const std::wstring& sHow)
{
    m_record.sCutShort = sHow;
    std::wstring sAt = L"before its first filespace";
    if (m_bInFilespace)
    {
        sAt = L"while restoring " + Name(m_current) + L", after " +
              Count(m_lastProgress.ullDone, L"file or folder", L"files and folders") + L" and " +
              CProgressDisplay::Bytes(m_lastProgress.ullBytesDone) + L" of " +
              CProgressDisplay::Bytes(m_lastProgress.ullTotal);
        Restored(L"cut short", L"", {});
        m_record.vFilespaces.back().ullDone = m_lastProgress.ullDone;
    }
    else if (m_bInLinks)
    {
        sAt = L"while making the links";
        LinksDone({{"recorded", CEvent::array()}, {"trace", nullptr}});
        m_record.bLinksFailed = true;
    }
    else if (m_record.bRestoreBegan)
        sAt = L"between two steps";
    PrintLine(L"keflhost: the restore was cut short " + sAt + L": " + sHow);
    PrintLine(L"  running keflhost again over the same target restores what is missing");
}

// Each restored filespace compared with the backup; vRestored are the first of the record's.
void Verify(const std::vector<morvane::Filespace>& vRestored, CProgressDisplay& display, CRunRecord& record,
            bool bReport, const std::atomic<bool>& bStop)
{
    size_t iEntry = 0;
    for (const morvane::Filespace& fs : vRestored)
    {
        if (bStop)
            break;
        while (record.vFilespaces[iEntry].sName != Name(fs))
            ++iEntry;
        CFilespaceRecord& entry = record.vFilespaces[iEntry];
        display.Begin(L"Verifying " + entry.sName + L" against the backup");
        entry.verification = VerifyFilespace(
            BackupFolder(record.sLocation, fs), RestoredFolder(fs),
            [&](uint64_t ullDone, uint64_t ullTotal) { display.Update(ullDone, ullTotal); }, bStop);
        display.Finish();
        entry.bVerified = true;
        record.bVerifyStopped = record.bVerifyStopped || entry.verification.bStopped;
        PrintDifferences(L"  differences on " + entry.sName + L" (" +
                             std::to_wstring(entry.verification.vDifferences.size()) + L")",
                         entry.verification.vDifferences, bReport);
    }
}

// "2999 of 3000 files": of those to restore, those that came back.
std::wstring CameBack(uint64_t ullInBackup, uint64_t ullSkipped, uint64_t ullFailed, const wchar_t* pwszOne,
                      const wchar_t* pwszMany)
{
    const uint64_t ullToRestore = ullInBackup - std::min(ullInBackup, ullSkipped);
    return std::to_wstring(ullToRestore - std::min(ullToRestore, ullFailed)) + L" of " +
           Count(ullToRestore, pwszOne, pwszMany);
}

// "E:  2999 of 3000 files and 12 of 12 folders came back; 1 file and 0 folders did not".
std::wstring DescribeFilespace(const CFilespaceRecord& fs)
{
    if (fs.sResult == L"not in the backup")
        return fs.sName + L"  not in the backup";
    if (fs.sResult == L"cut short") // the files never handed over are neither restored nor failed
        return fs.sName + L"  cut short after " + std::to_wstring(fs.ullDone) + L" of " +
               Count(fs.ullFiles + fs.ullFolders, L"file or folder", L"files and folders") +
               (fs.vFailures.empty() ? L"" : L"; " + Count(fs.vFailures.size(), L"failure", L"failures") + L" before");
    const uint64_t ullFilesFailed = CountKind(fs.vFailures, FailureKind::File);
    const uint64_t ullFoldersFailed = CountKind(fs.vFailures, FailureKind::Folder);
    const uint64_t ullListings = CountKind(fs.vFailures, FailureKind::Listing);
    std::wstring sLine = fs.sName + L"  ";
    if (fs.ullFiles + fs.ullFolders == 0) // no walk counts in the trace (trace level below 3)
        sLine += fs.sResult == L"restored" ? L"came back" : L"did not come back whole";
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
    return fs.sResult == L"restored" || fs.sResult == L"failed" ? sLine : sLine + L" (" + fs.sResult + L")";
}

void SummariseLinks(const CRunRecord& record, bool bReport)
{
    PrintLine(L"Links: " + CProgressDisplay::DescribeLinks(record.links));
    PrintFailures(L"Links not made (" + std::to_wstring(record.vLinkFailures.size()) + L"):", record.vLinkFailures,
                  bReport);
    if (!record.sLinkFailuresIncomplete.empty())
        PrintLine(L"  " + record.sLinkFailuresIncomplete);
    if (record.bLinksFailed && record.vLinkFailures.empty())
        PrintLine(L"  not every link was made");
    for (const auto& link : record.vRecordedLinks)
        PrintLine(L"  recorded, not made (Wine cannot): " + link[0] + L" " + link[1] + L" -> " + link[2]);
}

// The end of the run: what was restored, made and verified, and the exit status that says so.
int Summarise(CRunRecord& record, const CRestoreRequest& request)
{
    const bool bReport = !request.sReportFile.empty();
    std::vector<CFailure> vFailures;
    std::vector<CDifference> vDifferences;
    uint64_t ullVerifiedFiles = 0;
    uint64_t ullVerifiedBytes = 0;
    PrintLine(L"Filespaces restored:");
    for (const CFilespaceRecord& fs : record.vFilespaces)
    {
        PrintLine(L"  " + DescribeFilespace(fs));
        vFailures.insert(vFailures.end(), fs.vFailures.begin(), fs.vFailures.end());
        vDifferences.insert(vDifferences.end(), fs.verification.vDifferences.begin(),
                            fs.verification.vDifferences.end());
        ullVerifiedFiles += fs.verification.ullFiles;
        ullVerifiedBytes += fs.verification.ullBytes;
    }
    PrintFailures(L"Files and folders not restored (" + std::to_wstring(vFailures.size()) + L"):", vFailures,
                  bReport);
    for (const CFilespaceRecord& fs : record.vFilespaces)
        if (!fs.sFailuresIncomplete.empty())
            PrintLine(L"  " + fs.sName + L" " + fs.sFailuresIncomplete);
    if (record.bLinksRestored)
        SummariseLinks(record, bReport);
    if (request.bVerify && record.sCutShort.empty())
    {
        PrintLine(L"Verified " + Count(ullVerifiedFiles, L"file", L"files") + L" (" +
                  CProgressDisplay::Bytes(ullVerifiedBytes) + L") against the backup: " +
                  (vDifferences.empty() ? std::wstring(L"no differences")
                                        : Count(vDifferences.size(), L"difference", L"differences")));
        PrintDifferences(L"Differences:", vDifferences, bReport);
        if (record.bVerifyStopped)
            PrintLine(L"The verification was stopped by the user before its end.");
    }
    if (!record.sCutShort.empty())
        PrintLine(L"The restore was cut short (" + record.sCutShort + L")" +
                  (request.bVerify ? L": nothing was verified." : L"."));
    return record.iExitStatus = KnownStatus(record);
}

} // namespace

int StoppedStatus(const CRunRecord& record) noexcept
{
    return record.bRestoreBegan ? kExitFilesFailed | KnownStatus(record) : kExitNotStarted;
}

int FollowRestore(CRestoreProcess& process, const CRestoreRequest& request, const std::atomic<bool>& bStop,
                  CProgressDisplay& display, CRunRecord& record)
{
    CRestoreFollower follower(request, display, record);
    const bool bEnded = follower.Follow(process, bStop);
    const DWORD dwExitCode = process.ExitCode();
    // A process that ends badly once the link pass is done (in Fini, or as the library unloads)
    // did all its work: that is said, and the run goes on to its verification.
    if (record.bLinksRestored && !bStop && (!bEnded || dwExitCode != 0) && record.sCutShort.empty())
    {
        record.sEndedAfterWork = DescribeExitCode(dwExitCode);
        PrintLine(L"keflhost: the restore process ended after its work: " + record.sEndedAfterWork);
    }
    else if (!bEnded)
    {
        const std::wstring sHow = bStop ? L"stopped by the user"
                                  : record.sCutShort.empty()
                                      ? L"the restore process ended early, " + DescribeExitCode(dwExitCode)
                                      : record.sCutShort + L"; " + DescribeExitCode(dwExitCode);
        follower.CutShort(sHow);
        if (!record.bRestoreBegan)
            return record.iExitStatus = kExitCutShort | kExitNotStarted;
    }
    else if (follower.NotStarted())
        return record.iExitStatus = kExitNotStarted;
    else if (request.bListOnly || record.vFilespaces.empty())
        return record.iExitStatus = kExitOk;
    if (request.bVerify && record.sCutShort.empty())
    {
        Verify(follower.Restored(), display, record, !request.sReportFile.empty(), bStop);
        record.bVerifyStopped = record.bVerifyStopped || bStop;
    }
    return Summarise(record, request);
}

} // namespace keflhost
