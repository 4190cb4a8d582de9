#pragma once
// The run as keflhost understands it: each event of the restore process applied to the run's
// record, and what the end of the stream means. It prints nothing, starts nothing and reads no
// clock: the follower hands it the events with the time they came, and the view shows what it
// made of them. The library's trace, which names what failed, is read through an interface so
// that the model can be driven from recorded events alone.
#include "keflhost/LibraryTrace.h"
#include "keflhost/RunRecord.h"
#include "protocol/Events.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace keflhost
{

// No progress for a while during a filespace's restore.
struct CStall
{
    std::wstring sFilespace;
    uint64_t ullSeconds = 0;
    std::wstring sLastNamed; // the last file the trace names; empty when it names none yet
};

// How the restore process's stream ended.
struct CStreamEnd
{
    bool bStoppedByUser = false; // keflhost ended the process for the user's Ctrl+C
    std::wstring sProtocolError; // the stream broke the protocol; keflhost ended the process
    uint32_t dwExitCode = 0;
    std::wstring sExitCode; // the exit code in words
};

enum class RunEnd
{
    Finished,       // the stream came to its end: the restore ran (or listed) as far as it could
    NotStarted,     // the session could not start or list, or the backup has no filespaces
    CutShort,       // the process ended (or was ended) before its work was done
    EndedAfterWork, // the process ended badly after the link pass (in Fini, as the library unloads)
};

// Where a cut-short restore was.
struct CCutShortAt
{
    enum class Step
    {
        BeforeFirstFilespace,
        Filespace,
        Links,
        BetweenSteps,
    };
    Step step = Step::BeforeFirstFilespace;
    std::wstring sFilespace;
    morvane::ProgMsg lastProgress{};
};

class CRunModel
{
public:
    CRunModel(CRunRecord& record, const ITraceReading& trace) : m_record(record), m_trace(trace) {}

    void Apply(const CEvent& event, uint64_t ullNowMs);
    // Said once a stall lasts ullStallMs; a locked file may hold a restore for minutes by design,
    // so a stall is said, never acted on.
    std::optional<CStall> CheckStall(uint64_t ullNowMs, uint64_t ullStallMs);
    // The stream is over: what that means, in the record too.
    RunEnd End(const CStreamEnd& how, uint64_t ullNowMs);
    // The exit status for a run that ended so (before any verification).
    int Status(RunEnd end) const;

    // The filespaces the library restored (or tried to), in order: what a verification compares.
    const std::vector<morvane::Filespace>& Restored() const { return m_vRestored; }
    // The stream's last event came.
    bool SawEnd() const { return m_bEnded; }
    const CCutShortAt& CutShortAt() const { return m_cutShortAt; }
    const CRunRecord& Record() const { return m_record; }

private:
    void Hello(const HelloEvent& hello);
    void NotStarted(const NotStartedEvent& notStarted);
    void Begin(const BeginEvent& begin, uint64_t ullNowMs);
    void Progress(const morvane::ProgMsg& msg, uint64_t ullNowMs);
    void FilespaceEnded(FilespaceOutcome outcome, const std::optional<CTraceMark>& end, uint64_t ullNowMs);
    void LinksDone(const LinksDoneEvent& linksDone);
    void CutShort(const std::wstring& sHow, uint64_t ullNowMs);

    CRunRecord& m_record;
    const ITraceReading& m_trace;
    bool m_bEnded = false;
    std::wstring m_sSizeLimit; // the trace's size-limit warning, once seen
    // The step under way: a filespace's restore (its record not yet made) or the link passes.
    bool m_bInFilespace = false;
    bool m_bInLinks = false;
    morvane::Filespace m_current{};
    CTraceMark m_mark;
    uint64_t m_ullBeganMs = 0;
    morvane::ProgMsg m_lastProgress{};
    uint64_t m_ullLastProgressMs = 0;
    bool m_bStallSaid = false;
    size_t m_cLinkPassesStarted = 0;
    bool m_bLinkPassFailed = false; // a link pass ended with links not made
    std::vector<morvane::Filespace> m_vRestored;
    CCutShortAt m_cutShortAt;
};

} // namespace keflhost
