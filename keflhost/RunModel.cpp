#include "keflhost/RunModel.h"

#include "protocol/Filespaces.h"

#include <type_traits>

namespace keflhost
{

void CRunModel::Apply(const CEvent& event, uint64_t ullNowMs)
{
    std::visit(
        [&](const auto& e)
        {
            using T = std::decay_t<decltype(e)>;
            if constexpr (std::is_same_v<T, HelloEvent>)
                Hello(e);
            else if constexpr (std::is_same_v<T, CredentialsEvent>)
            {
                m_record.sLocation = e.sLocation;
                m_record.sPointInTime = e.sPointInTime;
            }
            else if constexpr (std::is_same_v<T, NotStartedEvent>)
                NotStarted(e);
            else if constexpr (std::is_same_v<T, FilespacesEvent>)
            {
                // A backup folder with its data folder and nothing else: there is nothing to restore.
                if (e.vFilespaces.empty())
                {
                    m_record.bNotStarted = true;
                    m_record.sNotStarted = L"the backup holds no filespaces (no drive folder, no mount point)";
                }
            }
            else if constexpr (std::is_same_v<T, BeginEvent>)
                Begin(e, ullNowMs);
            else if constexpr (std::is_same_v<T, ProgressEvent>)
                Progress(e.progress, ullNowMs);
            else if constexpr (std::is_same_v<T, RestoredEvent>)
                FilespaceEnded(e.bRestored ? FilespaceOutcome::Restored : FilespaceOutcome::Failed, e.trace, ullNowMs);
            else if constexpr (std::is_same_v<T, NotInBackupEvent>)
            {
                CFilespaceRecord& entry = m_record.vFilespaces.emplace_back();
                entry.sName = e.sName;
                entry.outcome = FilespaceOutcome::NotInBackup;
            }
            else if constexpr (std::is_same_v<T, LinksEvent>)
            {
                m_mark = e.trace.value_or(CTraceMark{});
                m_bInLinks = true;
            }
            else if constexpr (std::is_same_v<T, LinksDoneEvent>)
                LinksDone(e);
            else if constexpr (std::is_same_v<T, EndEvent>)
                m_bEnded = true;
            // A line or a message of the library's changes nothing of the run.
        },
        event);
}

void CRunModel::Hello(const HelloEvent& hello)
{
    m_record.sDescription = hello.sDescription.value_or(L"");
    m_record.sVersion = hello.sVersion.value_or(L"");
    m_record.bLinksRecordedOnly = hello.bWine;
}

void CRunModel::NotStarted(const NotStartedEvent& notStarted)
{
    m_record.bNotStarted = true;
    // "No error" is what the library says while it has no message: its trace says why.
    const bool bNoText = notStarted.sError.empty() || notStarted.sError == L"No error";
    m_record.sNotStarted = notStarted.sWhy + (bNoText ? L"" : L": " + notStarted.sError);
    if (notStarted.trace)
        m_record.vNotStartedTrace = m_trace.ReadFrom(*notStarted.trace, {}).vGaveUp;
}

void CRunModel::Begin(const BeginEvent& begin, uint64_t ullNowMs)
{
    m_current = begin.filespace;
    m_mark = begin.trace.value_or(CTraceMark{});
    m_bInFilespace = true;
    m_record.bRestoreBegan = true;
    m_lastProgress = morvane::ProgMsg{};
    m_ullBeganMs = m_ullLastProgressMs = ullNowMs;
    m_bStallSaid = false;
}

void CRunModel::Progress(const morvane::ProgMsg& msg, uint64_t ullNowMs)
{
    m_ullLastProgressMs = ullNowMs;
    m_bStallSaid = false;
    if (msg.sTitle.empty()) // a filespace's restore
    {
        m_lastProgress = msg;
        return;
    }
    // A link pass: a title, a detail, counts instead of bytes.
    CLinkPasses& passes = m_record.links;
    if (msg.uiState == morvane::PROG_STATE_STARTING && m_cLinkPassesStarted < passes.size())
        passes[m_cLinkPassesStarted++] = CLinkPass{msg.ullTotal, 0, 0};
    else if (msg.uiState == morvane::PROG_STATE_FAILED)
        m_bLinkPassFailed = true;
    if (m_cLinkPassesStarted > 0)
        passes[m_cLinkPassesStarted - 1].ullDone = msg.ullDone;
}

// A filespace's restore ended (or was cut short): its record, from what the trace says failed.
void CRunModel::FilespaceEnded(FilespaceOutcome outcome, const std::optional<CTraceMark>& end, uint64_t ullNowMs)
{
    m_bInFilespace = false;
    const CTraceFindings findings = m_trace.ReadFrom(m_mark, end.value_or(CTraceMark{}));
    CFilespaceRecord& entry = m_record.vFilespaces.emplace_back();
    entry.sName = FilespaceName(m_current);
    entry.sPath = m_current.sFsPath;
    entry.outcome = outcome;
    entry.ullFiles = findings.ullFiles;
    entry.ullFolders = findings.ullFolders;
    entry.ullSkippedFiles = findings.ullSkippedFiles;
    entry.ullSkippedFolders = findings.ullSkippedFolders;
    entry.ullKept = findings.ullKept;
    entry.ullBytes = m_lastProgress.ullBytesDone;
    entry.dSeconds = static_cast<double>(ullNowMs - m_ullBeganMs) / 1000.0;
    entry.vFailures = findings.vFailures;
    if (outcome != FilespaceOutcome::Restored)
        entry.sFailuresIncomplete = WhyIncomplete(findings, m_sSizeLimit);
    if (outcome == FilespaceOutcome::CutShort)
        entry.ullDone = m_lastProgress.ullDone;
    if (!findings.sSizeLimit.empty())
        m_sSizeLimit = findings.sSizeLimit;
    m_vRestored.push_back(m_current);
}

void CRunModel::LinksDone(const LinksDoneEvent& linksDone)
{
    m_bInLinks = false;
    m_record.bLinksRestored = true;
    for (const CRecordedLink& link : linksDone.vRecorded)
        m_record.vRecordedLinks.push_back({link.sKind, link.sLink, link.sTarget});
    const CTraceFindings findings = m_trace.ReadFrom(m_mark, linksDone.trace.value_or(CTraceMark{}));
    m_record.vLinkFailures = findings.vFailures;
    for (const CFailure& failure : m_record.vLinkFailures)
    {
        const size_t iPass = failure.kind == FailureKind::Junction       ? 0
                             : failure.kind == FailureKind::SymbolicLink ? 1
                                                                         : 2;
        ++m_record.links[iPass].ullFailed;
    }
    m_record.bLinksFailed = m_bLinkPassFailed || !m_record.vLinkFailures.empty();
    if (m_record.bLinksFailed)
        m_record.sLinkFailuresIncomplete = WhyIncomplete(findings, m_sSizeLimit);
}

std::optional<CStall> CRunModel::CheckStall(uint64_t ullNowMs, uint64_t ullStallMs)
{
    if (!m_bInFilespace || m_bStallSaid || ullNowMs - m_ullLastProgressMs < ullStallMs)
        return std::nullopt;
    m_bStallSaid = true;
    return CStall{FilespaceName(m_current), (ullNowMs - m_ullLastProgressMs) / 1000, m_trace.ReadFrom(m_mark, {}).sLastNamed};
}

RunEnd CRunModel::End(const CStreamEnd& how, uint64_t ullNowMs)
{
    // Whatever came after the end (garbage, say) changes nothing of the run.
    const std::wstring sBroken = m_bEnded ? std::wstring() : how.sProtocolError;
    // A process that ends badly once the link pass is done (in Fini, or as the library unloads)
    // did all its work: that is said, and the run goes on to its verification.
    if (m_record.bLinksRestored && !m_bInFilespace && !how.bStoppedByUser && sBroken.empty() &&
        (!m_bEnded || how.dwExitCode != 0))
    {
        m_record.sEndedAfterWork = how.sExitCode;
        return RunEnd::EndedAfterWork;
    }
    if (!m_bEnded)
    {
        CutShort(how.bStoppedByUser ? L"stopped by the user"
                 : sBroken.empty()  ? L"the restore process ended early, " + how.sExitCode
                                    : sBroken + L"; " + how.sExitCode,
                 ullNowMs);
        return RunEnd::CutShort;
    }
    return m_record.bNotStarted ? RunEnd::NotStarted : RunEnd::Finished;
}

void CRunModel::CutShort(const std::wstring& sHow, uint64_t ullNowMs)
{
    m_record.sCutShort = sHow;
    m_cutShortAt.lastProgress = m_lastProgress;
    m_cutShortAt.sFilespace = FilespaceName(m_current);
    if (m_bInFilespace)
    {
        m_cutShortAt.step = CCutShortAt::Step::Filespace;
        FilespaceEnded(FilespaceOutcome::CutShort, std::nullopt, ullNowMs);
    }
    else if (m_bInLinks)
    {
        m_cutShortAt.step = CCutShortAt::Step::Links;
        LinksDone({});
        m_record.bLinksFailed = true;
    }
    else
        m_cutShortAt.step =
            m_record.bRestoreBegan ? CCutShortAt::Step::BetweenSteps : CCutShortAt::Step::BeforeFirstFilespace;
}

int CRunModel::Status(RunEnd end) const
{
    if (end == RunEnd::CutShort && !m_record.bRestoreBegan)
        return kExitCutShort | kExitNotStarted;
    if (end == RunEnd::NotStarted)
        return kExitNotStarted;
    return KnownStatus(m_record);
}

} // namespace keflhost
