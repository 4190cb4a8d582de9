// KEFL_trace.log as the loaded library writes it: a fresh log and one previous generation per
// load, threads and loads writing at once without losing, splitting or reordering a line, each line
// in the file in time, nothing left unwritten at the client's end, and a size limit that each
// session starts again.
#include "dll/SessionFixture.h"

#include <atomic>
#include <map>
#include <numeric>
#include <thread>
#include <vector>

using namespace kefltest;

namespace
{

constexpr int kCallsEach = 100;
// The capabilities asked for, each unknown: a line of its own, "enCapabilityType = 1000" and on.
constexpr int kFirstUnknown = 1000;
const std::wstring kUnknownLine = L"KEFL::HasCapability : enCapabilityType = ";

void WriteLines(morvane::VESK& client)
{
    for (int i = 0; i < kCallsEach; ++i)
        client.HasCapability(static_cast<morvane::CapabilityType>(kFirstUnknown + i));
}

} // namespace

// Another load of the library (a copy: a second load of the same file only counts up) while four
// threads write through this one, again and again: each load starts a new, empty log and keeps one
// previous generation, and every line is whole and either in that generation or in the new log.
TEST_F(KeflFixture, AnotherLoadStartsANewLogWhileThreadsWriteAndNoLineIsLostOrSplit)
{
    const std::wstring sOther = HostDir() + L"\\KEFL_other.dll", sOldPath = LogDir() + L"\\KEFL_trace.old";
    ASSERT_TRUE(::CopyFileW((HostDir() + L"\\KEFL.dll").c_str(), sOther.c_str(), FALSE));
    auto lines = [](const std::wstring& sPath)
    {
        int cLines = 0;
        for (const auto& sLine : ReadLogLines(sPath))
        {
            if (IsBannerLine(sLine))
                continue;
            const auto line = ParseTraceLine(sLine);
            EXPECT_TRUE(line) << "a split or damaged line: " << testing::PrintToString(sLine);
            cLines += line && line->sText == L"KEFL::HasCapability : Does backup hard-links separately";
        }
        return cLines;
    };
    auto pClient = Load(Verbose()).Factory();
    std::atomic<int> cCalls = 0;
    std::atomic<bool> bWrite = true;
    auto callsReach = [&](int cWanted)
    {
        while (cCalls < cWanted)
            ::Sleep(1);
    };
    // A line lost in a load's short moment is seen in one load of four or so.
    for (int iLoad = 0; iLoad < 20; ++iLoad)
    {
        const int cBefore = lines(KeflLogPath());
        cCalls = 0;
        bWrite = true;
        std::vector<std::thread> vWriters;
        for (int i = 0; i < 4; ++i)
            vWriters.emplace_back(
                [&]
                {
                    for (; bWrite; ++cCalls)
                        pClient->HasCapability(morvane::CAP_SEPARATE_HARD_LINKS);
                });
        callsReach(10);
        morvane::CUniqueLibrary hOther(::LoadLibraryW(sOther.c_str()));
        EXPECT_TRUE(hOther) << ::GetLastError();
        callsReach(cCalls + 10);
        bWrite = false;
        for (auto& writer : vWriters)
            writer.join();
        EXPECT_EQ(cBefore + cCalls, lines(sOldPath) + lines(KeflLogPath())) << "lines lost at load " << iLoad;
    }
    RemoveFile(sOther);
}

// A session that met a small limit ends, and another begins: it reads the limit again and starts
// it over, so a larger limit brings information lines back and the same limit is said once more.
TEST_F(SessionFixture, EachSessionStartsTheTraceSizeLimitAgain)
{
    const auto pCredentials = Credentials(kBackup);
    auto session = [&](const wchar_t* pwszMaxMB)
    {
        CIni ini = Verbose();
        ini[L"KEFL_TraceMaxMB"] = pwszMaxMB;
        WriteTraceIni(ini);
        EXPECT_TRUE(m_pClient->Init(pCredentials.get()));
        for (int i = 0; i < 200; ++i)
            m_pClient->HasCapability(morvane::CAP_SEPARATE_HARD_LINKS);
        m_pClient->Fini();
    };
    // The second session's limit in MiB, the size-limit warnings in the log, whether information
    // lines follow the first.
    const std::tuple<const wchar_t*, int, bool> aRows[] = {{L"8", 1, true}, {L"1", 2, false}};
    for (const auto& [pwszMaxMB, iWarnings, bInfoAgain] : aRows)
    {
        SCOPED_TRACE(testing::PrintToString(pwszMaxMB));
        WriteBytes(KeflLogPath(), std::string(1024 * 1024, '#') + "\r\n"); // past 1 MiB
        session(L"1");
        session(pwszMaxMB);
        int iWarned = 0, iInfoAfter = 0;
        for (const auto& sLine : KeflLog())
        {
            const auto line = ParseTraceLine(sLine);
            if (line && line->sText.starts_with(L"CTrace::WriteLine : Trace file reached its size limit of "))
                ++iWarned;
            else if (line && iWarned > 0)
                iInfoAfter += line->sMarker == L":[I]: ";
        }
        EXPECT_EQ(iWarnings, iWarned);
        EXPECT_EQ(bInfoAgain, iInfoAfter > 0);
    }
}

// Two threads of this load and one of another, as another process has it (a copy of the library: a
// second load of the same file only counts up), write at once.
TEST_F(KeflFixture, ThreadsAndLoadsWritingAtOnceLoseOrSplitNoLine)
{
    const std::wstring sOther = HostDir() + L"\\KEFL_other.dll";
    ASSERT_TRUE(::CopyFileW((HostDir() + L"\\KEFL.dll").c_str(), sOther.c_str(), FALSE));
    morvane::CUniqueLibrary hOther(::LoadLibraryW(sOther.c_str()));
    ASSERT_TRUE(hOther) << ::GetLastError();
    CVeskPtr pOther(reinterpret_cast<morvane::FactoryFn>(
        reinterpret_cast<void*>(::GetProcAddress(hOther.get(), "Factory")))()); // at the default level
    // Loaded after the other, so that this load's fresh log is the one all write; verbose here only.
    auto pClient = Load(Verbose()).Factory();
    std::thread otherLoad([&] { WriteLines(*pOther); });
    std::thread other([&] { WriteLines(*pClient); });
    WriteLines(*pClient);
    other.join();
    otherLoad.join();

    std::map<uint32_t, std::vector<int>> capabilitiesByThread;
    std::vector<int> vInOrder(kCallsEach);
    std::iota(vInOrder.begin(), vInOrder.end(), kFirstUnknown);
    int iVerbose = 0;
    for (const auto& sLine : KeflLog())
    {
        const auto line = ParseTraceLine(sLine);
        if (!line && !IsBannerLine(sLine))
            ADD_FAILURE() << "a split or damaged line: " << testing::PrintToString(sLine);
        else if (line->sText.starts_with(kUnknownLine))
            capabilitiesByThread[line->uiThreadId].push_back(
                std::stoi(line->sText.substr(kUnknownLine.size())));
        else
            iVerbose += line->sText == L"KEFL::HasCapability : starting ...";
    }
    EXPECT_EQ(3u, capabilitiesByThread.size()) << "two threads of this load, one of the other";
    for (const auto& [uiThread, vCapabilities] : capabilitiesByThread)
        EXPECT_EQ(vInOrder, vCapabilities) << "thread " << uiThread << ": each line once, in its order";
    EXPECT_EQ(2 * kCallsEach, iVerbose) << "the verbose level that trace.ini gave this load";
    pOther.reset();
    hOther.reset();
    RemoveFile(sOther);
}

// A call's lines reach the log while it runs: an error line before the call goes on (here, before
// the host hears of the error), any other line within a second (two allowed: the machine is busy).
TEST_F(SessionFixture, ErrorLinesReachTheLogBeforeTheirCallGoesOnAndOtherLinesWithinASecond)
{
    const auto pCredentials = Credentials(kBackup);
    ASSERT_TRUE(m_pClient->Init(pCredentials.get()));
    // The drive restored, the line the restore makes before its first message, whether at once.
    const std::tuple<wchar_t, std::wstring, bool> aRows[] = {
        {L'Q', L"KEFLImpl::RestoreFilespace : GetVolumeInformation failed", true}, // no such drive
        {L'C', L"KEFLImpl::RestoreFilespace : sDstFolder = \"C:\"", false}};
    for (const auto& [wcDrive, sLine, bAtOnce] : aRows)
    {
        SCOPED_TRACE(testing::PrintToString(sLine));
        struct CSeen
        {
            const std::wstring& sLine;
            bool bHeard = false; // the restore's first message came
            int iMs = -1;        // the line was then in the log after so many milliseconds: 0 at once
        } seen{sLine};
        m_pClient->SetLogMsgCallbackFn(
            +[](uint32_t, std::wstring, uint64_t ullSeen) -> int32_t
            {
                auto& seen = *reinterpret_cast<CSeen*>(ullSeen);
                const ULONGLONG ullFirst = ::GetTickCount64();
                for (int iMs = 0; !seen.bHeard && iMs <= 2000; iMs = int(::GetTickCount64() - ullFirst))
                {
                    if (HasText(KeflLog(), seen.sLine))
                    {
                        seen.iMs = iMs;
                        break;
                    }
                    ::Sleep(10);
                }
                seen.bHeard = true;
                return 0;
            },
            reinterpret_cast<uint64_t>(&seen));
        morvane::Filespace fs = {};
        fs.wcFsDriveLetter = wcDrive;
        m_pClient->RestoreFilespace(fs);
        EXPECT_GE(seen.iMs, 0) << "not in the log within two seconds";
        EXPECT_TRUE(!bAtOnce || seen.iMs == 0) << "in the log after " << seen.iMs << " ms";
    }
    m_pClient->SetLogMsgCallbackFn(&RecordMessage, 0);
}

// The client's end writes its last lines and ends the writer threads with it: the library unloads as
// the host lets it go.
TEST_F(KeflFixture, TheClientsEndLeavesNoLineUnwrittenAndTheLibraryFreeToUnload)
{
    auto pClient = Load(Verbose()).Factory();
    pClient->HasCapability(morvane::CAP_SEPARATE_HARD_LINKS); // information lines: a writer starts
    pClient.reset();
    EXPECT_TRUE(HasText(KeflLog(), L"KEFL::~KEFL : Destructor"));
    m_pLibrary->Unload();
    EXPECT_EQ(nullptr, ::GetModuleHandleW(L"KEFL.dll")) << "still loaded by a trace writer";
}

// On a small disk: at the size limit (1 MiB here) one warning, then errors only, and nothing past
// twice the limit. The filler stands for another process's lines in the same file.
TEST_F(KeflFixture, AFileAtItsSizeLimitKeepsOnlyErrorsThenStopsAtTwiceTheLimit)
{
    constexpr size_t kMiB = 1024 * 1024;
    auto pClient = Load({{L"KEFL_TraceMaxMB", L"1"}}).Factory();
    morvane::Filespace fs = {};
    fs.wcFsDriveLetter = L'C';
    for (size_t cbFilled : {kMiB - 16 * 1024, 2 * kMiB - 32 * 1024})
    {
        std::string sLog = ReadBytes(KeflLogPath());
        sLog.resize(cbFilled - 2, '#');
        WriteBytes(KeflLogPath(), sLog + "\r\n");
        for (int i = 0; i < 1000; ++i) // information lines, and an error line each
        {
            pClient->HasCapability(morvane::CAP_SEPARATE_HARD_LINKS);
            pClient->RestoreFilespace(fs);
        }
    }
    int iWarnings = 0, iInfoAfter = 0, iErrorsAfter = 0;
    for (const auto& sLine : KeflLog())
    {
        const auto line = ParseTraceLine(sLine);
        if (line && line->sMarker == L":[W]: ")
            iWarnings += line->sText == L"CTrace::WriteLine : Trace file reached its size limit of 1 MiB: "
                                        L"information and verbose lines are no longer written";
        else if (line && iWarnings > 0)
            (line->sMarker == L":[I]: " ? iInfoAfter : iErrorsAfter) += 1;
    }
    EXPECT_EQ(1, iWarnings);
    EXPECT_EQ(0, iInfoAfter);
    EXPECT_GT(iErrorsAfter, 100);
    EXPECT_LE(ReadBytes(KeflLogPath()).size(), 2 * kMiB + 200) << "written past twice the limit";
}
