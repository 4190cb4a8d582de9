// keflhost's run model, driven from recorded streams of the restore process: no library, no
// child process, no recovery system. The library's trace is a stand-in that answers what a test
// says it holds.
#include "keflhost/ConsoleView.h"
#include "keflhost/RunModel.h"
#include "protocol/EventReader.h"

#include <gtest/gtest.h>

using namespace keflhost;

namespace
{

class CTraceStandIn final : public ITraceReading
{
public:
    CTraceFindings ReadFrom(const CTraceMark&, const CTraceMark&) const override { return findings; }
    CTraceFindings findings;
};

morvane::Filespace DriveF()
{
    morvane::Filespace fs{};
    fs.sFsPath = L"F:\\";
    fs.wcFsDriveLetter = L'F';
    fs.dwFsFlags = morvane::kFsFlagConfig;
    return fs;
}

ProgressEvent Progress(uint32_t uiState, uint64_t ullDone, uint64_t ullBytes, uint64_t ullTotal,
                       const wchar_t* pwszTitle = L"")
{
    ProgressEvent e{};
    e.progress.uiState = uiState;
    e.progress.sTitle = pwszTitle;
    e.progress.ullDone = ullDone;
    e.progress.ullBytesDone = ullBytes;
    e.progress.ullTotal = ullTotal;
    return e;
}

std::string Stream(std::initializer_list<CEvent> events)
{
    std::string sStream;
    for (const CEvent& event : events)
        sStream += EncodeEvent(event);
    return sStream;
}

// The stream up to the middle of F:'s restore: 3 files and folders, 2 KiB of 4 KiB.
const std::string kBegun = Stream({HelloEvent{}, CredentialsEvent{L"R:\\Backup", L""}, FilespacesEvent{{DriveF()}},
                                   BeginEvent{DriveF(), CTraceMark{}},
                                   Progress(morvane::PROG_STATE_STEP, 3, 2048, 4096)});
// The library's three link passes, the last of them failed.
const std::string kLinksMade =
    Stream({LinksEvent{}, Progress(morvane::PROG_STATE_STARTING, 0, 0, 3, L"Junction Points"),
            Progress(morvane::PROG_STATE_DONE, 3, 0, 3, L"Junction Points"),
            Progress(morvane::PROG_STATE_STARTING, 0, 0, 1, L"Symbolic Links"),
            Progress(morvane::PROG_STATE_DONE, 1, 0, 1, L"Symbolic Links"),
            Progress(morvane::PROG_STATE_STARTING, 0, 0, 2, L"Restoring Hard-Links"),
            Progress(morvane::PROG_STATE_FAILED, 2, 0, 2, L"Restoring Hard-Links"), LinksDoneEvent{}});
const std::string kRestored = Stream({RestoredEvent{L"F:", true, L"", CTraceMark{}}});

// One run: the stream read as the pipe gives it, the model fed each event a second apart.
struct CRecordedRun
{
    CRunRecord record;
    CTraceStandIn trace;
    CRunModel model{record, trace};
    uint64_t ullNowMs = 0;
    std::wstring sProtocolError;

    void Play(const std::string& sStream)
    {
        CEventReader reader;
        std::vector<CEvent> vEvents;
        if (reader.Feed(sStream, vEvents, sProtocolError))
            reader.End(sProtocolError);
        for (const CEvent& event : vEvents)
            model.Apply(event, ullNowMs += 1000);
    }
    RunEnd End(uint32_t dwExitCode, bool bStoppedByUser = false)
    {
        return model.End({bStoppedByUser, sProtocolError, dwExitCode, L"exit code " + std::to_wstring(dwExitCode)},
                         ullNowMs);
    }
};

} // namespace

TEST(RunModelTest, EachWayAStreamEndsGivesItsOutcomeAndStatus)
{
    const struct
    {
        const char* pszCase;
        std::string sStream;
        uint32_t dwExitCode;
        bool bStoppedByUser;
        RunEnd end;
        int iStatus;
        const wchar_t* pwszSaid; // in the record's sCutShort, sEndedAfterWork or sNotStarted
    } kCases[] = {
        {"a finished run", kBegun + kRestored + Stream({EndEvent{}}), 0, false, RunEnd::Finished, 0, L""},
        {"a crash mid-filespace", kBegun, 0xC0000005, false, RunEnd::CutShort, 16 | 2,
         L"the restore process ended early, exit code 3221225477"},
        {"the user's Ctrl+C", kBegun, 0xC000013A, true, RunEnd::CutShort, 16 | 2, L"stopped by the user"},
        {"garbage", Stream({HelloEvent{}}) + "not an event\n", 13, false, RunEnd::CutShort, 16 | 1,
         L"line 2 from the restore process: not a JSON object: not an event; exit code 13"},
        {"a cut line", Stream({HelloEvent{}}) + R"({"event":"line","te)", 0, false, RunEnd::CutShort, 16 | 1,
         L"line 2 from the restore process: cut off"},
        {"a field missing", kBegun + "{\"event\":\"restored\",\"name\":\"F:\"}\n", 13, false, RunEnd::CutShort,
         16 | 2, L"line 6 from the restore process: an event keflhost cannot read"},
        {"another protocol", "{\"event\":\"hello\",\"protocol\":2}\n", 13, false, RunEnd::CutShort, 16 | 1,
         L"line 1 from the restore process: not a hello of protocol 1"},
        {"garbage after the end, then a crash as the library unloads",
         kBegun + kRestored + kLinksMade + Stream({EndEvent{}}) + "not an event\n", 0xC0000005, false,
         RunEnd::EndedAfterWork, 4, L"exit code 3221225477"},
        {"a crash in Fini", kBegun + kRestored + kLinksMade, 0xC0000005, false, RunEnd::EndedAfterWork, 4,
         L"exit code 3221225477"},
        {"a crash between two steps", kBegun + kRestored, 0xC0000005, false, RunEnd::CutShort, 16,
         L"ended early"},
        {"a session that could not start",
         Stream({HelloEvent{}, NotStartedEvent{L"the restore session could not start", L"No error", CTraceMark{}},
                 EndEvent{}}),
         0, false, RunEnd::NotStarted, 1, L"the restore session could not start"},
        {"a backup without filespaces", Stream({HelloEvent{}, FilespacesEvent{}, EndEvent{}}), 0, false,
         RunEnd::NotStarted, 1, L"the backup holds no filespaces"},
    };
    for (const auto& c : kCases)
    {
        CRecordedRun run;
        run.Play(c.sStream);
        EXPECT_EQ(c.end, run.End(c.dwExitCode, c.bStoppedByUser)) << c.pszCase;
        EXPECT_EQ(c.iStatus, run.model.Status(c.end)) << c.pszCase;
        const std::wstring sSaid = run.record.sCutShort + run.record.sEndedAfterWork + run.record.sNotStarted;
        EXPECT_EQ(std::wstring(c.pwszSaid).empty(), sSaid.empty()) << c.pszCase << ": " << testing::PrintToString(sSaid);
        EXPECT_NE(std::wstring::npos, sSaid.find(c.pwszSaid)) << c.pszCase << ": " << testing::PrintToString(sSaid);
        EXPECT_EQ(std::wstring::npos, sSaid.find(L"No error")) << c.pszCase << ": the library's text for none";
    }
}

TEST(RunModelTest, AFilespaceRecordsWhatTheTraceSaysFailedAndWhereARestoreWasCutShort)
{
    CRecordedRun run;
    run.trace.findings.ullFiles = 5;
    run.trace.findings.vFailures = {{FailureKind::File, L"F:\\a.txt", 32, L""},
                                    {FailureKind::HardLink, L"F:\\b.txt", 5, L""}};
    run.trace.findings.sSizeLimit = L"Trace file reached its size limit";
    run.Play(kBegun + Stream({RestoredEvent{L"F:", false, L"No error", CTraceMark{}}}) + kLinksMade + kBegun);
    ASSERT_EQ(RunEnd::CutShort, run.End(0xC0000005));
    ASSERT_EQ(2u, run.record.vFilespaces.size());
    const CFilespaceRecord& failed = run.record.vFilespaces[0];
    EXPECT_EQ(FilespaceOutcome::Failed, failed.outcome);
    EXPECT_EQ(L"R:\\Backup", run.record.sLocation);
    EXPECT_EQ(5u, failed.ullFiles);
    EXPECT_EQ(2048u, failed.ullBytes);
    EXPECT_EQ(2.0, failed.dSeconds) << "from its begin to its end, a second after its progress";
    EXPECT_NE(std::wstring::npos, failed.sFailuresIncomplete.find(L"size limit"));
    // The link passes: what the trace names counted in its pass (here the file's failure too).
    EXPECT_TRUE(run.record.bLinksFailed);
    EXPECT_EQ(L"junctions 3 of 3, symbolic links 1 of 1, hard links 0 of 2 (2 failed)",
              DescribeLinks(run.record.links));
    // The second restore of F: was cut short after 3 of its files and folders.
    const CFilespaceRecord& cut = run.record.vFilespaces[1];
    EXPECT_EQ(FilespaceOutcome::CutShort, cut.outcome);
    EXPECT_EQ(3u, cut.ullDone);
    EXPECT_EQ(CCutShortAt::Step::Filespace, run.model.CutShortAt().step);
    EXPECT_EQ(L"F:", run.model.CutShortAt().sFilespace);
    EXPECT_EQ(16 | 4 | 2, KnownStatus(run.record));
}

TEST(RunModelTest, AStallIsSaidOnceUntilProgressComesAgain)
{
    CRecordedRun run;
    run.trace.findings.sLastNamed = L"F:\\held.bin";
    run.Play(kBegun); // its progress came at 5 s
    const uint64_t ullStallMs = 60000;
    EXPECT_FALSE(run.model.CheckStall(5000 + ullStallMs - 1, ullStallMs));
    const std::optional<CStall> stall = run.model.CheckStall(5000 + ullStallMs, ullStallMs);
    ASSERT_TRUE(stall);
    EXPECT_EQ(60u, stall->ullSeconds);
    EXPECT_EQ(L"F:", stall->sFilespace);
    EXPECT_EQ(L"F:\\held.bin", stall->sLastNamed);
    EXPECT_FALSE(run.model.CheckStall(5000 + 2 * ullStallMs, ullStallMs)) << "said once";
    run.model.Apply(Progress(morvane::PROG_STATE_STEP, 4, 3072, 4096), 200000);
    EXPECT_FALSE(run.model.CheckStall(200000 + ullStallMs - 1, ullStallMs));
    EXPECT_TRUE(run.model.CheckStall(200000 + ullStallMs, ullStallMs)) << "a new stall";
    run.Play(kRestored);
    EXPECT_FALSE(run.model.CheckStall(UINT64_MAX, ullStallMs)) << "no stall between filespaces";
}

TEST(RunModelTest, AnErrorOfTheHostsOwnKeepsWhatIsKnownOnceARestoreBegan)
{
    // Began, a filespace restored (with a difference found), links failed: the status.
    for (const auto& [bBegan, bRestored, bDifferences, bLinksFailed, iStatus] :
         {std::tuple{false, false, false, false, 1}, {true, false, false, false, 2},
          {true, true, false, true, 2 | 4}, {true, true, true, false, 2 | 8}})
    {
        CRunRecord record;
        record.bRestoreBegan = bBegan;
        if (bRestored)
            record.vFilespaces.emplace_back().outcome = FilespaceOutcome::Restored;
        if (bDifferences)
            record.vFilespaces.back().verification.vDifferences.push_back({L"F:\\a", L"missing"});
        record.bLinksFailed = bLinksFailed;
        EXPECT_EQ(iStatus, StoppedStatus(record)) << bBegan << bRestored << bDifferences << bLinksFailed;
    }
}
