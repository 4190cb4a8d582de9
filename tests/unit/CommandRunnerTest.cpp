// The command runner with our test child (tests/child) as the command; no test leaves a handle open.
// (x64 has one calling convention: the replacements of system functions may be lambdas.)
#include "runner/CommandRunner.h"
#include "unit/BaseServicesFixture.h"

#include <map>

using namespace kefltest;

namespace
{

decltype(&::Sleep) s_pfnSleep = nullptr;        // the real one; the monitor's pauses of 1 s take 1 ms
std::vector<std::pair<DWORD, DWORD>> s_vBreaks; // console event, process group
decltype(&::TerminateProcess) s_pfnTerminate = nullptr;
int s_cTerminated = 0;

class CommandRunnerTest : public BaseServicesFixture
{
protected:
    void SetUp() override
    {
        BaseServicesFixture::SetUp();
        // Under Wine "CONIN$" opens only in a console of our own, as the session makes one.
        ::FreeConsole();
        ASSERT_TRUE(::AllocConsole()) << "error " << ::GetLastError();
        s_pfnSleep = m_patches.Patch(
            m_hExe, "KERNEL32.dll", "Sleep", +[](DWORD) { s_pfnSleep(1); });
        m_cHandles = HandleCount();
    }
    void TearDown() override
    {
        EXPECT_EQ(m_cHandles, HandleCount()) << "every handle of the test's runs closed";
        BaseServicesFixture::TearDown();
    }

    // Every line of a run of our child up to the output's end, and the monitor done.
    std::vector<std::wstring> RunChild(const std::wstring& sSteps)
    {
        EXPECT_TRUE(m_runner.RunCommand(L"\"" + HostDir() + L"\\kefl_test_child.exe\" " + sSteps));
        std::vector<std::wstring> vLines;
        for (std::wstring sLine; m_runner.GetLine(sLine, false);)
            vLines.push_back(sLine);
        m_runner.WaitForMonitor();
        return vLines;
    }

    // Our handles in the system's extended handle list (class 64; GetProcessHandleCount answers 0 under
    // Wine): a count and a reserved word, then entries of five words, the second the owner's process id.
    static size_t HandleCount()
    {
        const auto pfnQuery =
            reinterpret_cast<LONG(WINAPI*)(ULONG, PVOID, ULONG, PULONG)>(reinterpret_cast<void*>(
                ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
        std::vector<ULONG_PTR> vList(1 << 16);
        LONG lStatus = 0;
        while ((lStatus = pfnQuery(64, vList.data(), static_cast<ULONG>(vList.size() * sizeof(ULONG_PTR)),
                                   nullptr)) == static_cast<LONG>(0xC0000004)) // the list did not fit
            vList.resize(vList.size() * 4);
        EXPECT_EQ(0, lStatus);
        size_t cHandles = 0;
        for (ULONG_PTR i = 0; lStatus == 0 && i < vList[0]; ++i)
            cHandles += vList[2 + 5 * i + 1] == ::GetCurrentProcessId() ? 1 : 0;
        return cHandles;
    }

    size_t m_cHandles = 0;
    morvane::CCommandRunner m_runner{m_impl.Channel()};
};

} // namespace

TEST_F(CommandRunnerTest, OutputComesAsCleanLinesOfAtMost1024Characters)
{
    const std::vector<std::wstring> vExpected = {
        std::wstring(1024, L'x'), std::wstring(476, L'x'), // the rest of a long line comes as the next
        L"page one",   // form feeds dropped, trailing blanks and carriage return stripped
        L"", L"last"}; // the last line without its line feed is lost
    EXPECT_EQ(vExpected, RunChild(L"\"" + std::wstring(1500, L'x') +
                                  L"\n\fpage\f one  \r\n  \r\nlast\npartial without line feed\""));
}

TEST_F(CommandRunnerTest, ExitStatusesAreTracedAsXcopyDefinesThem)
{
    // The warning each exit status traces beside its value; none for 0, 3 and 5.
    const std::map<int, std::wstring> mapTexts = {
        {1, L"XCOPY exited - No files were found to copy"},
        {2, L"XCOPY exited - The user pressed CTRL+C to terminate XCOPY"},
        {4, L"XCOPY exited - Initialization error occurred"},
        {6, L"Unknown XCOPY exit status"}};
    const std::wstring sFn = L"KEFLImpl::ThreadEndCommand : ";
    for (int iStatus = 0; iStatus <= 6; ++iStatus)
    {
        morvane::g_KeflTrace.ResetTraceFile();
        RunChild(L"--exit " + std::to_wstring(iStatus));
        std::vector<std::wstring> vExpected;
        if (mapTexts.count(iStatus))
            vExpected = {sFn + mapTexts.at(iStatus), sFn + L"dwExitStatus = " + std::to_wstring(iStatus)};
        EXPECT_EQ(vExpected, TextsWithMarker(Log(L"KEFL"), L":[W]: ")) << "exit status " << iStatus;
    }
}

TEST_F(CommandRunnerTest, AbortSendsTheChildOneBreakHoweverLongItRuns)
{
    // The break noted and answered with success, the child not reacting: a command that ignores it
    // and takes its time, while the monitor polls thousands of times with the abort flag set.
    m_patches.Patch(m_hExe, "KERNEL32.dll", "GenerateConsoleCtrlEvent",
                    +[](DWORD dwEvent, DWORD dwGroup) -> BOOL
                    {
                        s_vBreaks.emplace_back(dwEvent, dwGroup);
                        return TRUE;
                    });
    s_vBreaks.clear();
    m_runner.SetAbort();
    const auto vLines = RunChild(L"--pid --sleep 1500");
    const std::vector<std::pair<DWORD, DWORD>> vExpected = {{CTRL_BREAK_EVENT, std::stoul(vLines.at(0))}};
    EXPECT_EQ(vExpected, s_vBreaks) << "one break, to the child's own process group";
}

TEST_F(CommandRunnerTest, CommandThatCannotStartTracesWhy)
{
    EXPECT_FALSE(m_runner.RunCommand(L"R:\\no-such-program.exe /x"));
    // No monitor thread for want of memory: the child is stopped and every handle of the run closed.
    m_patches.Patch(
        m_hExe, "KERNEL32.dll", "CreateThread",
        +[](LPSECURITY_ATTRIBUTES, SIZE_T, LPTHREAD_START_ROUTINE, LPVOID, DWORD, LPDWORD) -> HANDLE
        { return WithLastError(ERROR_NOT_ENOUGH_MEMORY, HANDLE(nullptr)); });
    s_cTerminated = 0;
    s_pfnTerminate = m_patches.Patch(m_hExe, "KERNEL32.dll", "TerminateProcess",
                                     +[](HANDLE hProcess, UINT uiCode)
                                     {
                                         ++s_cTerminated;
                                         return s_pfnTerminate(hProcess, uiCode);
                                     });
    const bool bStarted = m_runner.RunCommand(L"\"" + HostDir() + L"\\kefl_test_child.exe\" --sleep 4000");
    m_patches.Clear(); // before any check: a failing one starts a thread of the test framework
    EXPECT_FALSE(bStarted);
    EXPECT_EQ(1, s_cTerminated) << "the unwatched child stopped";
    for (const std::wstring sText : {L"... ending(CreateProcess failed)", L"dwLastError = 2",
                                     L"... ending(Failed to create monitoring thread)", L"dwLastError = 8"})
        EXPECT_TRUE(HasText(Log(L"KEFL"), L"KEFLImpl::RunCommand : " + sText)) << "not traced: " << sText;
}
