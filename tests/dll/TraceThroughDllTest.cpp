// KEFL_trace.log as support staff read it: several writers at once, and a trace mutex that
// cannot be had.
#include "dll/KeflFixture.h"
#include "support/IatPatch.h"

#include <cstdlib>
#include <set>
#include <thread>

using namespace kefltest;

namespace
{

constexpr int kCallsEach = 100;
const wchar_t kHardLinkText[] = L"KEFL::HasCapability : Does backup hard-links separately";
const wchar_t kChildReadyEvent[] = L"KeflTestChildReady";
const wchar_t kChildGoEvent[] = L"KeflTestChildGo";

int CountText(const std::vector<std::wstring>& vLines, const std::wstring& sText)
{
    int iCount = 0;
    for (const auto& sLine : vLines)
    {
        const auto line = ParseTraceLine(sLine);
        EXPECT_TRUE(line) << "a split or damaged line: " << testing::PrintToString(sLine);
        if (line && line->sText == sText)
            ++iCount;
    }
    return iCount;
}

std::set<uint32_t> ThreadsWriting(const std::vector<std::wstring>& vLines, const std::wstring& sText)
{
    std::set<uint32_t> threads;
    for (const auto& sLine : vLines)
        if (const auto line = ParseTraceLine(sLine); line && line->sText == sText)
            threads.insert(line->uiThreadId);
    return threads;
}

// Another writer (any process) that holds the trace mutex for longer than the 60-second wait.
DWORD WINAPI WaitTimesOut(HANDLE, DWORD)
{
    return WAIT_TIMEOUT;
}
int g_iReleases = 0;
BOOL(WINAPI* g_pfnRealReleaseMutex)(HANDLE) = nullptr;
BOOL WINAPI CountingReleaseMutex(HANDLE hMutex)
{
    ++g_iReleases;
    return g_pfnRealReleaseMutex(hMutex);
}

} // namespace

TEST_F(KeflFixture, DropsLinesSilentlyWhileTheTraceMutexCannotBeHad)
{
    Load(Verbose());
    auto pClient = m_pLibrary->Factory();
    {
        CIatPatch wait(m_pLibrary->Module(), "KERNEL32.dll", "WaitForSingleObject",
                       reinterpret_cast<const void*>(&WaitTimesOut));
        CIatPatch release(m_pLibrary->Module(), "KERNEL32.dll", "ReleaseMutex",
                          reinterpret_cast<const void*>(&CountingReleaseMutex));
        ASSERT_TRUE(wait.IsApplied() && release.IsApplied());
        g_pfnRealReleaseMutex = reinterpret_cast<BOOL(WINAPI*)(HANDLE)>(release.Original());
        g_iReleases = 0;

        ::SetLastError(0xBEEF);
        EXPECT_TRUE(pClient->HasCapability(morvane::CAP_SEPARATE_HARD_LINKS));
        EXPECT_EQ(0xBEEFu, ::GetLastError()) << "a dropped line leaves the caller's last error alone";
        EXPECT_EQ(4, g_iReleases) << "each of the four lines gives the mutex back after the failed wait";
    }
    EXPECT_FALSE(pClient->HasCapability(morvane::CAP_TAPE_BACKUPS));

    const auto vLines = KeflLog();
    EXPECT_EQ(0, CountText(vLines, kHardLinkText));
    EXPECT_EQ(1, CountText(vLines, L"KEFL::HasCapability : Does not support tape backups"));
}

TEST_F(KeflFixture, ThreadsCallingAtOnceLoseOrSplitNoLine)
{
    Load(Verbose());
    auto pClient = m_pLibrary->Factory();
    std::vector<std::thread> vThreads;
    for (int t = 0; t < 3; ++t)
        vThreads.emplace_back(
            [&]
            {
                for (int i = 0; i < kCallsEach; ++i)
                    pClient->HasCapability(morvane::CAP_SEPARATE_HARD_LINKS);
            });
    for (auto& thread : vThreads)
        thread.join();

    const auto vLines = KeflLog();
    EXPECT_EQ(3 * kCallsEach, CountText(vLines, kHardLinkText));
    EXPECT_EQ(3 * kCallsEach, CountText(vLines, L"KEFL::HasCapability : starting ..."));
    EXPECT_EQ(3u, ThreadsWriting(vLines, kHardLinkText).size());
}

// The second process of the test below: loads the library, says it is ready, and writes on the
// signal. Run only by that test.
TEST_F(KeflFixture, DISABLED_ChildProcessWriter)
{
    morvane::CUniqueHandle hReady(::OpenEventW(EVENT_MODIFY_STATE, FALSE, kChildReadyEvent));
    morvane::CUniqueHandle hGo(::OpenEventW(SYNCHRONIZE, FALSE, kChildGoEvent));
    ASSERT_TRUE(hReady && hGo);
    Load();
    auto pClient = m_pLibrary->Factory();
    ::SetEvent(hReady.get());
    ASSERT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(hGo.get(), 60000));
    for (int i = 0; i < kCallsEach; ++i)
        pClient->HasCapability(morvane::CAP_SEPARATE_HARD_LINKS);
}

TEST_F(KeflFixture, TwoProcessesWritingAtOnceLoseOrSplitNoLine)
{
    WriteTraceIni(Verbose());
    morvane::CUniqueHandle hReady(::CreateEventW(nullptr, TRUE, FALSE, kChildReadyEvent));
    morvane::CUniqueHandle hGo(::CreateEventW(nullptr, TRUE, FALSE, kChildGoEvent));
    ASSERT_TRUE(hReady && hGo);

    wchar_t wszExe[MAX_PATH];
    ::GetModuleFileNameW(nullptr, wszExe, MAX_PATH);
    std::wstring sCommand =
        std::wstring(L"\"") + wszExe +
        L"\" --gtest_filter=KeflFixture.DISABLED_ChildProcessWriter --gtest_also_run_disabled_tests";
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    PROCESS_INFORMATION pi = {};
    ASSERT_TRUE(
        ::CreateProcessW(nullptr, sCommand.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi))
        << "error " << ::GetLastError();
    morvane::CUniqueHandle hProcess(pi.hProcess);
    morvane::CUniqueHandle hThread(pi.hThread);
    HANDLE ahReadyOrExit[] = {hReady.get(), hProcess.get()};
    ASSERT_EQ(WAIT_OBJECT_0, ::WaitForMultipleObjects(2, ahReadyOrExit, FALSE, 60000))
        << "the child did not start";

    // Loaded after the child, so that this load's fresh log is the one both write.
    Load(Verbose());
    auto pClient = m_pLibrary->Factory();
    ::SetEvent(hGo.get());
    for (int i = 0; i < kCallsEach; ++i)
        pClient->HasCapability(morvane::CAP_SEPARATE_HARD_LINKS);
    ASSERT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(hProcess.get(), 60000));
    DWORD dwExit = 1;
    ::GetExitCodeProcess(hProcess.get(), &dwExit);
    EXPECT_EQ(0u, dwExit) << "the child's own test failed";

    const auto vLines = KeflLog();
    EXPECT_EQ(2 * kCallsEach, CountText(vLines, kHardLinkText));
    EXPECT_EQ(2u, ThreadsWriting(vLines, kHardLinkText).size());
}
