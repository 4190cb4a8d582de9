// The external command runner: XCOPY and our test child as commands, their output line by line,
// the monitor's exit statuses and abort, the read-progress callback, and the failures of starting.
#include "support/IatPatch.h"
#include "unit/CommandRunnerFixture.h"

#include <algorithm>
#include <atomic>

using namespace kefltest;

namespace
{

const wchar_t kRunFn[] = L"KEFLImpl::RunCommand";

std::wstring Text(const wchar_t* pwszFunction, const std::wstring& sText)
{
    return std::wstring(pwszFunction) + L" : " + sText;
}

// Sleep(1000) between the monitor's polls, shortened to a millisecond: stands for a machine on
// which each of the monitor's seconds has already passed, so it sees the child's end at once.
using SleepFn = VOID(WINAPI*)(DWORD);
SleepFn s_pfnRealSleep = nullptr;
VOID WINAPI ShortSleep(DWORD /*dwMilliseconds*/)
{
    s_pfnRealSleep(1);
}
class CShortMonitorPause
{
public:
    CShortMonitorPause() { s_pfnRealSleep = reinterpret_cast<SleepFn>(m_patch.Original()); }
    bool IsApplied() const { return m_patch.IsApplied(); }

private:
    CIatPatch m_patch{::GetModuleHandleW(nullptr), "KERNEL32.dll", "Sleep",
                      reinterpret_cast<const void*>(&ShortSleep)};
};

} // namespace

TEST_F(CommandRunnerFixture, XcopyCopiesAFolderAndItsLinesAreRead)
{
    RemoveTree(L"R:\\RunnerSrc");
    RemoveTree(L"E:\\RunnerDst");
    ASSERT_TRUE(::CreateDirectoryW(L"R:\\RunnerSrc", nullptr));
    ASSERT_TRUE(::CreateDirectoryW(L"R:\\RunnerSrc\\sub", nullptr));
    WriteTextFile(L"R:\\RunnerSrc\\a.txt", "first");
    WriteTextFile(L"R:\\RunnerSrc\\sub\\b.txt", "second");
    WriteTextFile(L"R:\\RunnerSrc\\hidden.txt", "third");
    ::SetFileAttributesW(L"R:\\RunnerSrc\\hidden.txt", FILE_ATTRIBUTE_HIDDEN);
    // XCOPY asks whether a missing destination is a file or a folder, and waits for the answer.
    ASSERT_TRUE(::CreateDirectoryW(L"E:\\RunnerDst", nullptr));

    const CShortMonitorPause shortPause;
    ASSERT_TRUE(shortPause.IsApplied());
    const size_t cHandles = HandleCount();
    ASSERT_TRUE(m_runner.RunCommand(L"xcopy /e /h /r /y R:\\RunnerSrc E:\\RunnerDst\\"));
    const auto vLines = ReadAllLines(true);
    m_runner.WaitForMonitor();

    // XCOPY names each file it copies; the summary's wording differs between systems.
    EXPECT_TRUE(std::find(vLines.begin(), vLines.end(), L"R:\\RunnerSrc\\sub\\b.txt") != vLines.end())
        << testing::PrintToString(vLines);
    EXPECT_EQ("first", ReadFileBytes(L"E:\\RunnerDst\\a.txt"));
    EXPECT_EQ("second", ReadFileBytes(L"E:\\RunnerDst\\sub\\b.txt"));
    EXPECT_EQ("third", ReadFileBytes(L"E:\\RunnerDst\\hidden.txt"));
    const auto vLog = KeflLog();
    EXPECT_TRUE(HasText(vLog, Text(kRunFn, L"sCmd = \"xcopy /e /h /r /y R:\\RunnerSrc E:\\RunnerDst\\\"")));
    for (const auto& sLine : vLines)
        EXPECT_TRUE(HasText(vLog, Text(L"KEFLImpl::GetLine", L"wszLine = \"" + sLine + L"\"")))
            << testing::PrintToString(sLine);
    EXPECT_TRUE(TextsWithMarker(vLog, L":[W]: ").empty()) << "XCOPY succeeded: no exit status traced";
    EXPECT_EQ(cHandles, HandleCount()) << "every handle of the run closed";

    RemoveTree(L"R:\\RunnerSrc");
    RemoveTree(L"E:\\RunnerDst");
}

TEST_F(CommandRunnerFixture, LinesAreCutAtTheLineLimitAndCleanedOfControlCharacters)
{
    morvane::g_KeflTrace.SetTraceLevel(4); // the verbose lines too
    const CShortMonitorPause shortPause;
    const auto vLines =
        RunChild(L"--repeat 1500 x --raw \"\\fpage\\f one  \\r\\n\" --line \"   \" --line last");
    ASSERT_EQ(5u, vLines.size());
    EXPECT_EQ(std::wstring(1024, L'x'), vLines[0]);
    EXPECT_EQ(std::wstring(476, L'x'), vLines[1]) << "the rest of the long line";
    EXPECT_EQ(L"page one", vLines[2]) << "form feeds dropped, trailing blanks and carriage return stripped";
    EXPECT_EQ(L"", vLines[3]);
    EXPECT_EQ(L"last", vLines[4]);

    const auto vLog = KeflLog();
    EXPECT_TRUE(HasText(vLog, L"KEFLImpl::GetLine : Long Line"));
    EXPECT_TRUE(HasText(vLog, L"KEFLImpl::ReadChar : PeekNamedPipe[STDOUT] input finished"));
    EXPECT_TRUE(HasText(vLog, Text(kRunFn, L"... ending")));
    EXPECT_FALSE(HasText(vLog, L"KEFLImpl::GetLine : wszLine = \"last\"")) << "not asked to trace lines";
}

TEST_F(CommandRunnerFixture, LastLineWithoutLineFeedIsLost)
{
    const CShortMonitorPause shortPause;
    ASSERT_TRUE(m_runner.RunCommand(ChildCommand(L"--line first --raw partial")));
    std::wstring sLine;
    ASSERT_TRUE(m_runner.GetLine(sLine, false));
    EXPECT_EQ(L"first", sLine);
    EXPECT_FALSE(m_runner.GetLine(sLine, false));
    EXPECT_FALSE(m_runner.IsFinished()) << "the output ended; the callback did not stop it";
}

TEST_F(CommandRunnerFixture, ExitStatusesAreTracedAsXcopyDefinesThem)
{
    const CShortMonitorPause shortPause;
    ASSERT_TRUE(shortPause.IsApplied());
    const size_t cHandles = HandleCount();
    const struct
    {
        int iStatus;
        const wchar_t* pwszText; // null: a success, nothing traced
    } kCases[] = {
        {0, nullptr},
        {1, L"XCOPY exited - No files were found to copy"},
        {2, L"XCOPY exited - The user pressed CTRL+C to terminate XCOPY"},
        {3, nullptr},
        {4, L"XCOPY exited - Initialization error occurred"},
        {5, nullptr},
        {7, L"Unknown XCOPY exit status"},
    };
    for (const auto& c : kCases)
    {
        morvane::g_KeflTrace.ResetTraceFile();
        const auto vLines = RunChild(L"--line out --exit " + std::to_wstring(c.iStatus));
        EXPECT_EQ(std::vector<std::wstring>{L"out"}, vLines) << "status " << c.iStatus;
        const auto vWarnings = TextsWithMarker(KeflLog(), L":[W]: ");
        if (!c.pwszText)
        {
            EXPECT_TRUE(vWarnings.empty())
                << "status " << c.iStatus << ": " << testing::PrintToString(vWarnings);
            continue;
        }
        const std::vector<std::wstring> vExpected = {
            Text(L"KEFLImpl::ThreadEndCommand", c.pwszText),
            Text(L"KEFLImpl::ThreadEndCommand", L"dwExitStatus = " + std::to_wstring(c.iStatus))};
        EXPECT_EQ(vExpected, vWarnings) << "status " << c.iStatus;
    }
    EXPECT_EQ(cHandles, HandleCount()) << "every handle of the seven runs closed";
}

namespace
{

// GenerateConsoleCtrlEvent counted and answered with success, the child not reacting: stands for
// a command that ignores the break and takes its time, so the monitor keeps polling while the
// abort flag stays set.
std::atomic<int> s_iBreaks{0};
std::atomic<DWORD> s_dwBreakEvent{0xFFFFFFFF};
std::atomic<DWORD> s_dwBreakGroup{0};
BOOL WINAPI CountingCtrlEvent(DWORD dwCtrlEvent, DWORD dwProcessGroupId)
{
    ++s_iBreaks;
    s_dwBreakEvent = dwCtrlEvent;
    s_dwBreakGroup = dwProcessGroupId;
    return TRUE;
}

} // namespace

TEST_F(CommandRunnerFixture, AbortSendsTheChildOneBreakHoweverLongItRuns)
{
    const CShortMonitorPause shortPause; // thousands of polls while the child sleeps
    CIatPatch breaks(::GetModuleHandleW(nullptr), "KERNEL32.dll", "GenerateConsoleCtrlEvent",
                     reinterpret_cast<const void*>(&CountingCtrlEvent));
    ASSERT_TRUE(breaks.IsApplied());

    ASSERT_TRUE(m_runner.RunCommand(ChildCommand(L"--pid --sleep 1500 --line done")));
    m_runner.SetAbort();
    const auto vLines = ReadAllLines();
    m_runner.WaitForMonitor();

    ASSERT_EQ(2u, vLines.size());
    EXPECT_EQ(L"done", vLines[1]);
    EXPECT_EQ(1, s_iBreaks.load());
    EXPECT_EQ(static_cast<DWORD>(CTRL_BREAK_EVENT), s_dwBreakEvent.load());
    EXPECT_EQ(vLines[0], std::to_wstring(s_dwBreakGroup.load())) << "the child's own process group";
    EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::ThreadEndCommand : ABORT"));
}

namespace
{

// SleepEx returning at once: stands for ten seconds of silence from the child passing in no
// time, so the read-progress callback is asked after the 1000 empty polls right away.
std::atomic<int> s_iPolls{0};
DWORD WINAPI CountingSleepEx(DWORD dwMilliseconds, BOOL bAlertable)
{
    if (dwMilliseconds == 10 && bAlertable)
        ++s_iPolls;
    return 0;
}

int s_iProgressCalls = 0;
uint64_t s_ullProgressContext = 0;
// Waits once more, then ends the reading.
int32_t ProgressTwice(uint64_t ullContext)
{
    s_ullProgressContext = ullContext;
    return ++s_iProgressCalls == 2 ? 1 : 0;
}

} // namespace

TEST_F(CommandRunnerFixture, ReadProgressCallbackEndsTheReadingAfterTheSilence)
{
    const CShortMonitorPause shortPause;
    CIatPatch noWait(::GetModuleHandleW(nullptr), "KERNEL32.dll", "SleepEx",
                     reinterpret_cast<const void*>(&CountingSleepEx));
    ASSERT_TRUE(noWait.IsApplied());
    const size_t cHandles = HandleCount();

    m_runner.SetReadProgressFn(&ProgressTwice, 0x5EC0DE);
    ASSERT_TRUE(m_runner.RunCommand(ChildCommand(L"--sleep 1000")));
    std::wstring sLine;
    EXPECT_FALSE(m_runner.GetLine(sLine, false));
    EXPECT_TRUE(m_runner.IsFinished());
    EXPECT_EQ(2, s_iProgressCalls);
    EXPECT_EQ(0x5EC0DEu, s_ullProgressContext);
    EXPECT_EQ(2000, s_iPolls.load()) << "1000 empty polls before each question";

    // The reader's handles stay open when the reading was stopped: the session's reset closes them.
    m_runner.WaitForMonitor();
    EXPECT_NE(cHandles, HandleCount());
    m_runner.CloseChildHandles();
    EXPECT_EQ(cHandles, HandleCount());

    // The next command reads afresh.
    m_runner.SetReadProgressFn(nullptr, 0);
    ASSERT_TRUE(m_runner.RunCommand(ChildCommand(L"--line again")));
    EXPECT_FALSE(m_runner.IsFinished());
    EXPECT_TRUE(m_runner.GetLine(sLine, false));
    EXPECT_EQ(L"again", sLine);
    EXPECT_FALSE(m_runner.GetLine(sLine, false));
    m_runner.WaitForMonitor();
}

TEST_F(CommandRunnerFixture, EmptyCommandOrMissingProgramLeavesNoHandle)
{
    const size_t cHandles = HandleCount();
    EXPECT_FALSE(m_runner.RunCommand(L""));
    EXPECT_EQ(cHandles, HandleCount());
    EXPECT_FALSE(m_runner.RunCommand(L"R:\\no-such-program.exe /x"));
    EXPECT_EQ(cHandles, HandleCount());
    const auto vLog = KeflLog();
    EXPECT_TRUE(HasText(vLog, Text(kRunFn, L"... ending(Invalid command)")));
    EXPECT_TRUE(HasText(vLog, Text(kRunFn, L"... ending(CreateProcess failed)")));
    EXPECT_TRUE(HasText(vLog, Text(kRunFn, L"dwLastError = 2")));
}

TEST_F(CommandRunnerFixture, ConsoleInputMissingLogsTheCreateFileMessage)
{
    ::FreeConsole(); // no console: "CONIN$" cannot be opened
    m_impl.SetLogMsgCallbackFn(&RecordingLogMsg, 7);
    const size_t cHandles = HandleCount();
    EXPECT_FALSE(m_runner.RunCommand(ChildCommand(L"--line never")));
    EXPECT_EQ(cHandles, HandleCount());
    ASSERT_EQ(1u, s_vCalls.size());
    EXPECT_EQ(3u, s_vCalls[0].uiSeverity);
    EXPECT_EQ(L"CreateFile() failed with error %u", s_vCalls[0].sMessage) << "logged as it is, unformatted";
    EXPECT_EQ(L"CreateFile() failed with error %u", ErrorText());
    EXPECT_TRUE(HasText(KeflLog(), Text(kRunFn, L"CreateFile(CONIN) failed")));
}

namespace
{

// CreateThread failing for want of memory: stands for a system that cannot start the monitor.
HANDLE WINAPI FailingCreateThread(LPSECURITY_ATTRIBUTES, SIZE_T, LPTHREAD_START_ROUTINE, LPVOID, DWORD,
                                  LPDWORD)
{
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
}

// CreateProcessA passed on, with the new process's id noted.
using CreateProcessAFn = BOOL(WINAPI*)(LPCSTR, LPSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL,
                                       DWORD, LPVOID, LPCSTR, LPSTARTUPINFOA, LPPROCESS_INFORMATION);
CreateProcessAFn s_pfnRealCreateProcessA = nullptr;
DWORD s_dwStartedProcessId = 0;
BOOL WINAPI NotingCreateProcessA(LPCSTR pszApplication, LPSTR pszCommandLine,
                                 LPSECURITY_ATTRIBUTES psaProcess, LPSECURITY_ATTRIBUTES psaThread,
                                 BOOL bInheritHandles, DWORD dwFlags, LPVOID pEnvironment,
                                 LPCSTR pszDirectory, LPSTARTUPINFOA psi, LPPROCESS_INFORMATION ppi)
{
    const BOOL bOk = s_pfnRealCreateProcessA(pszApplication, pszCommandLine, psaProcess, psaThread,
                                             bInheritHandles, dwFlags, pEnvironment, pszDirectory, psi, ppi);
    if (bOk)
        s_dwStartedProcessId = ppi->dwProcessId;
    return bOk;
}

} // namespace

TEST_F(CommandRunnerFixture, MonitorThatCannotStartStopsTheChild)
{
    CIatPatch noting(::GetModuleHandleW(nullptr), "KERNEL32.dll", "CreateProcessA",
                     reinterpret_cast<const void*>(&NotingCreateProcessA));
    s_pfnRealCreateProcessA = reinterpret_cast<CreateProcessAFn>(noting.Original());
    CIatPatch noThread(::GetModuleHandleW(nullptr), "KERNEL32.dll", "CreateThread",
                       reinterpret_cast<const void*>(&FailingCreateThread));
    ASSERT_TRUE(noting.IsApplied() && noThread.IsApplied());
    const size_t cHandles = HandleCount();

    EXPECT_FALSE(m_runner.RunCommand(ChildCommand(L"--sleep 4000")));
    EXPECT_EQ(cHandles, HandleCount());
    const auto vLog = KeflLog();
    EXPECT_TRUE(HasText(vLog, Text(kRunFn, L"... ending(Failed to create monitoring thread)")));
    EXPECT_TRUE(HasText(vLog, Text(kRunFn, L"dwLastError = 8")));

    // The child was stopped rather than left to sleep.
    ASSERT_NE(0u, s_dwStartedProcessId);
    morvane::CUniqueHandle hChild(
        ::OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, s_dwStartedProcessId));
    if (hChild)
    {
        ASSERT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(hChild.get(), 10000));
        DWORD dwExitStatus = 0;
        ASSERT_TRUE(::GetExitCodeProcess(hChild.get(), &dwExitStatus));
        EXPECT_EQ(1u, dwExitStatus);
    }
}
