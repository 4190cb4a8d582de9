// The trace log as support staff read it: each line's prefix and level marker in UTF-8, the levels
// trace.ini selects, and failures that drop a line without disturbing the caller.
#include "trace/KEFLTrace.h"
#include "unit/BaseServicesFixture.h"

#include <atomic>
#include <optional>
#include <thread>

using namespace morvane;
using namespace kefltest;

namespace
{

// A trace object of the tests' own, starting from an empty log in the module's log folder, its
// lines queued as while a client lives.
std::unique_ptr<KEFLTrace> NewTrace(const wchar_t* pwszFile = L"UNIT_trace.log")
{
    RemoveFile(LogDir() + L"\\" + pwszFile);
    auto pTrace = std::make_unique<KEFLTrace>(pwszFile, L"UNIT_TraceLevel", L"UNIT_PsfLevel", nullptr,
                                              L"UNIT_TraceEachLine");
    pTrace->StartQueue();
    return pTrace;
}

using TraceLog = BaseServicesFixture;

} // namespace

TEST_F(TraceLog, WritesTheLevelsTraceIniSelectsWithPrefixAndMarkerInUtf8)
{
    const std::wstring sPath = L"C:\\Zo\x00eb \x2713 \xd834\xdd1e";
    // The object's setting in trace.ini (none: only another log's key), and the markers then written.
    const std::pair<const wchar_t*, std::wstring> aRows[] = {
        {nullptr, L"EWI"}, {L"0", L""},     {L"1", L"E"},  {L"2", L"EW"},
        {L"3", L"EWI"},    {L"4", L"EWIV"}, {L"9", L"EWI"}};
    for (const auto& [pwszSetting, sExpected] : aRows)
    {
        SCOPED_TRACE(testing::Message() << "setting " << (pwszSetting ? pwszSetting : L"none"));
        WriteTraceIni(
            {{pwszSetting ? L"UNIT_TraceLevel" : L"OTHER_TraceLevel", pwszSetting ? pwszSetting : L"4"}});
        auto pTrace = NewTrace();
        pTrace->ReadTraceLevel();
        for (uint32_t uiLevel : {TRACE_ERROR, TRACE_WARNING, TRACE_INFO, TRACE_VERBOSE})
            pTrace->TraceValue(uiLevel, L"F", L"sPath", sPath);
        const std::wstring sLogPath = pTrace->GetFilePath();
        pTrace.reset(); // what waits is written as the trace ends
        std::wstring sMarkers;
        for (const auto& sLine : ReadLogLines(sLogPath))
        {
            const auto line = ParseTraceLine(sLine);
            ASSERT_TRUE(line) << "no time and thread prefix: " << testing::PrintToString(sLine);
            EXPECT_EQ(::GetCurrentThreadId(), line->uiThreadId);
            EXPECT_EQ(L"F : sPath = \"" + sPath + L"\"", line->sText);
            sMarkers += line->sMarker.empty() ? L'-' : line->sMarker[2]; // ":[E]: " and the like
        }
        EXPECT_EQ(sExpected, sMarkers);
        EXPECT_NE('\xEF', ReadBytes(sLogPath)[0]) << "no byte-order mark";
    }

    // The PSF flags, a bit set of their own, are taken from trace.ini unchanged. The each-line
    // setting writes an information line before its call returns.
    WriteTraceIni({{L"UNIT_PsfLevel", L"34"}, {L"UNIT_TraceEachLine", L"1"}});
    auto pTrace = NewTrace();
    pTrace->ReadPsfTraceLevel();
    EXPECT_EQ(34u, pTrace->GetPsfTraceLevel());
    pTrace->ReadTraceLevel();
    pTrace->TraceValue(TRACE_INFO, L"F", L"sPath", sPath);
    EXPECT_TRUE(HasText(ReadLogLines(pTrace->GetFilePath()), L"F : sPath = \"" + sPath + L"\""));
}

TEST_F(TraceLog, FailuresDropTheLineSilentlyAndKeepTheCallersLastError)
{
    auto pTrace = NewTrace();
    auto pBlocked = NewTrace(L"UNIT2_trace.log");
    MakeFolders(std::wstring(kWorkDir) + L"\\UNIT2_trace.log"); // a folder where the log should be
    ASSERT_TRUE(pBlocked->SetLogDirectory(kWorkDir));
    // The case, its trace, whether the line is written.
    const std::tuple<const wchar_t*, CTrace*, bool> aRows[] = {
        {L"an ordinary line", pTrace.get(), true}, {L"the log file cannot be opened", pBlocked.get(), false}};
    for (const auto& [pwszCase, pRowTrace, bWritten] : aRows)
    {
        SCOPED_TRACE(testing::Message() << pwszCase);
        ::SetLastError(0xBEEF);
        pRowTrace->TraceMessage(TRACE_ERROR, L"F", pwszCase);
        EXPECT_EQ(0xBEEFu, ::GetLastError());
        EXPECT_EQ(bWritten,
                  HasText(ReadLogLines(pRowTrace->GetFilePath()), std::wstring(L"F : ") + pwszCase));
    }
}

TEST_F(TraceLog, AfterAWaitTimesOutLinesOnlyTryTheLogUntilOneGetsIt)
{
    auto pTrace = NewTrace();
    // This thread's waits while it writes a line, with the time each asks for; a minute is cut short.
    static std::atomic<DWORD> s_dwWriter{0};
    static std::vector<DWORD> s_vWaits;
    static decltype(&::WaitForSingleObject) s_pfnWait = nullptr;
    s_pfnWait = m_patches.Patch(m_hExe, "KERNEL32.dll", "WaitForSingleObject",
                                +[](HANDLE h, DWORD dwMs) -> DWORD
                                {
                                    if (::GetCurrentThreadId() != s_dwWriter)
                                        return s_pfnWait(h, dwMs);
                                    s_vWaits.push_back(dwMs);
                                    return s_pfnWait(h, std::min<DWORD>(dwMs, 100));
                                });
    // What the other writer does before the line, the wait the line asks for, whether it is written.
    enum { Goes, Sticks, Lets, Dies };
    const std::tuple<const wchar_t*, int, DWORD, bool> aRows[] = {
        {L"another writer is stuck", Sticks, 60000, false}, {L"the next line only tries", Goes, 0, false},
        {L"and the one after", Goes, 0, false},             {L"until one gets the log", Lets, 0, true},
        {L"then lines wait again", Goes, 60000, true},      {L"a writer died holding it", Dies, 60000, true}};
    std::optional<CLogHolder> other;
    for (const auto& [pwszCase, iOther, dwWait, bWritten] : aRows)
    {
        SCOPED_TRACE(testing::PrintToString(pwszCase));
        if (iOther == Lets)
            other.reset();
        else if (iOther != Goes)
            other.emplace(L"UNIT_trace.log", iOther == Dies);
        s_vWaits.clear();
        s_dwWriter = ::GetCurrentThreadId();
        pTrace->TraceMessage(TRACE_ERROR, L"F", pwszCase);
        s_dwWriter = 0;
        EXPECT_EQ(std::vector<DWORD>{dwWait}, s_vWaits);
        EXPECT_EQ(bWritten, HasText(ReadLogLines(pTrace->GetFilePath()), std::wstring(L"F : ") + pwszCase));
    }
}

// A thread's lines keep their order when another thread, writing the queue, is held up at the log's
// mutex: the queue is taken only once the mutex is had, so a later write cannot overtake it.
TEST_F(TraceLog, AWriterHeldUpAtTheMutexLetsNoLineOvertakeAnEarlierOne)
{
    auto pTrace = NewTrace();
    static std::atomic<DWORD> s_dwHeldUp{0};
    static HANDLE s_hWaiting = nullptr, s_hGoOn = nullptr;
    static decltype(&::WaitForSingleObject) s_pfnWait = nullptr;
    const CUniqueHandle hWaiting(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
    const CUniqueHandle hGoOn(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
    s_hWaiting = hWaiting.get();
    s_hGoOn = hGoOn.get();
    s_pfnWait = m_patches.Patch(
        m_hExe, "KERNEL32.dll", "WaitForSingleObject",
        +[](HANDLE h, DWORD dwMs) -> DWORD
        {
            if (DWORD dwThread = ::GetCurrentThreadId(); s_dwHeldUp.compare_exchange_strong(dwThread, 0))
                ::SignalObjectAndWait(s_hWaiting, s_hGoOn, INFINITE, FALSE); // once
            return s_pfnWait(h, dwMs);
        });
    pTrace->TraceMessage(TRACE_INFO, L"F", L"1"); // queued
    std::thread heldUp(
        [&]
        {
            s_dwHeldUp = ::GetCurrentThreadId();
            pTrace->TraceMessage(TRACE_ERROR, L"H", L"x"); // writes the queue, held up at the mutex
        });
    ASSERT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(hWaiting.get(), 60000));
    pTrace->TraceMessage(TRACE_ERROR, L"F", L"2"); // written meanwhile
    ::SetEvent(hGoOn.get());
    heldUp.join();
    m_patches.Clear();
    std::vector<std::wstring> vMine; // this thread's lines in the log's order
    for (const auto& sLine : ReadLogLines(pTrace->GetFilePath()))
        if (const auto line = ParseTraceLine(sLine); line && line->uiThreadId == ::GetCurrentThreadId())
            vMine.push_back(line->sText);
    EXPECT_EQ((std::vector<std::wstring>{L"F : 1", L"F : 2"}), vMine);
}

// A flush waits for lines that the writer thread took and has not yet written: a host's call returns
// with its lines in the log, and an error line is there before its call goes on.
TEST_F(TraceLog, AFlushWaitsForTheLinesTheWriterTookAndHasNotWritten)
{
    auto pTrace = NewTrace();
    static DWORD s_dwCaller = 0;
    static HANDLE s_hTaken = nullptr;
    static decltype(&::WriteFile) s_pfnWrite = nullptr;
    const CUniqueHandle hTaken(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    s_hTaken = hTaken.get();
    s_dwCaller = ::GetCurrentThreadId();
    s_pfnWrite = m_patches.Patch(m_hExe, "KERNEL32.dll", "WriteFile",
                                 +[](HANDLE h, LPCVOID pv, DWORD cb, LPDWORD pcbWritten, LPOVERLAPPED pOverlapped)
                                 {
                                     if (::GetCurrentThreadId() != s_dwCaller) // the writer, slow to write
                                     {
                                         ::SetEvent(s_hTaken);
                                         ::Sleep(300);
                                     }
                                     return s_pfnWrite(h, pv, cb, pcbWritten, pOverlapped);
                                 });
    pTrace->TraceMessage(TRACE_INFO, L"F", L"1"); // queued, taken by the writer
    ASSERT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(hTaken.get(), 60000));
    pTrace->Flush();
    EXPECT_TRUE(HasText(ReadLogLines(pTrace->GetFilePath()), L"F : 1"));
    m_patches.Clear();
}
