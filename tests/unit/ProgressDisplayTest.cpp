// The host's progress display, driven with a clock of the test's own: what a person sees on a
// console and what a log file gets, at what pace.
#include "keflhost/ProgressDisplay.h"

#include <gtest/gtest.h>

using keflhost::CProgressDisplay;

namespace
{

struct CRecordingSink final : keflhost::COutputSink
{
    explicit CRecordingSink(bool bConsole) : m_bConsole(bConsole) {}
    void Line(const std::wstring& sText) override { vLines.push_back(sText); }
    void Status(const std::wstring& sText) override { vStatus.push_back(sText); }
    bool IsConsole() const override { return m_bConsole; }
    bool m_bConsole;
    std::vector<std::wstring> vLines, vStatus;
};

morvane::ProgMsg Message(uint32_t uiState, uint64_t ullDone, uint64_t ullTotal, const wchar_t* pwszText = L"")
{
    morvane::ProgMsg msg{};
    msg.uiState = uiState;
    msg.sPath = L"E:\\";
    msg.sText = pwszText;
    msg.ullBytesDone = ullDone;
    msg.ullTotal = ullTotal;
    return msg;
}

} // namespace

// A 30-second restore reported every 100 ms: a log gets a line each 10 seconds and one at the end;
// a console gets its one line redrawn a few times a second and the last state as a line.
TEST(ProgressDisplayTest, DrawsInPlaceOnAConsoleAndEveryTenSecondsIntoALog)
{
    for (const bool bConsole : {false, true})
    {
        SCOPED_TRACE(bConsole ? "console" : "log");
        CRecordingSink sink(bConsole);
        uint64_t ullNowMs = 5000;
        CProgressDisplay display(sink, [&] { return ullNowMs; });
        display.Show(Message(morvane::PROG_STATE_STARTING, 0, 0));
        display.Show(Message(morvane::PROG_STATE_TEXT, 0, 0, L"Counting objects to be restored ..."));
        for (uint64_t ullMs = 100; ullMs <= 30000; ullMs += 100)
        {
            ullNowMs = 5000 + ullMs;
            display.Show(Message(morvane::PROG_STATE_TEXT, ullMs * 1000, 40000000,
                                 L"Counting objects to be restored ..."));
        }
        display.Finish();
        const std::vector<std::wstring> vLog = {
            L"Restoring E:\\", L"  Counting objects to be restored ...",
            L"  [#####...............]  25%  9.5 MiB of 38.1 MiB  976.6 KiB/s  0:10 elapsed  0:30 left",
            L"  [##########..........]  50%  19.1 MiB of 38.1 MiB  976.6 KiB/s  0:20 elapsed  0:20 left",
            L"  [###############.....]  75%  28.6 MiB of 38.1 MiB  976.6 KiB/s  0:30 elapsed  0:10 left"};
        EXPECT_EQ((bConsole ? std::vector{vLog[0], vLog[1], vLog[4]} : vLog), sink.vLines);
        // Redrawn at least 250 ms apart, over 30 s of reports 100 ms apart.
        ASSERT_EQ(bConsole ? 100u : 0u, sink.vStatus.size());
        EXPECT_TRUE(!bConsole || vLog.back() == sink.vStatus.back()) << "the last state drawn";
    }
}

TEST(ProgressDisplayTest, NeverShowsMoreDoneThanThereIs)
{
    EXPECT_EQ(L"[####################] 100%  30 B of 30 B  15 B/s  0:02 elapsed",
              CProgressDisplay::Bar(30, 10, 2000));
    EXPECT_EQ(L"[....................]   0%  0 B of 1.0 KiB  0:00 elapsed",
              CProgressDisplay::Bar(0, 1024, 0));
    EXPECT_EQ(L"1:01:01", CProgressDisplay::Duration(3661));
}
