// What a trace line costs, set against the system calls that a line shared safely between
// processes cannot do without:
//   written line   CTrace::TraceMessage at a level in the mask
//   masked line    CTrace::TraceMessage at a level not in the mask (must cost next to nothing)
//   bare calls (a) wait on a named mutex, open for append, one write, close, release
//   open file (b)  one write appended to a file that stays open
// The written line and its bare calls are timed in alternating blocks within each round, so that
// whatever else the machine does falls on both alike; each figure is the median over the rounds.
#include "platform/UniqueHandle.h"
#include "trace/CTrace.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

using namespace morvane;

namespace
{

constexpr int kRounds = 5;
// Lines of each kind per round, timed in blocks that take turns.
constexpr int kBlocksPerRound = 10;
constexpr int kLinesPerBlock = 200;
constexpr int kLinesPerRound = kBlocksPerRound * kLinesPerBlock;
// Opens the files, fills Wine's and the file system's caches, and gives the line to copy.
constexpr int kWarmUpLines = 200;
constexpr long long kMaskedCallsPerRound = 10000000;
constexpr DWORD kMutexWaitMs = 60000;

constexpr double kTargetWrittenRatio = 1.10;
constexpr double kTargetMaskedNs = 100.0;

constexpr wchar_t kTraceFile[] = L"BENCH_trace.log";
constexpr wchar_t kTraceOldFile[] = L"BENCH_trace.old";
constexpr wchar_t kLevelKey[] = L"BENCH_TraceLevel";
constexpr wchar_t kBareFile[] = L"BENCH_bare.log";
constexpr wchar_t kOpenFile[] = L"BENCH_open.log";

constexpr wchar_t kFunction[] = L"CBench::Run";
// Sixty characters, the length of a typical line's text.
constexpr wchar_t kMessage[] = L"copying the restore set to the target volume, 420 files done";

// The trace is reached only through this pointer: the compiler can neither tell which class the
// object is nor drop the calls made through it, so every masked-out call is a real virtual call.
CTrace* volatile g_pTrace = nullptr;

double g_dTicksPerSecond = 0.0;

double SecondsSince(const LARGE_INTEGER& liStart)
{
    LARGE_INTEGER liNow;
    ::QueryPerformanceCounter(&liNow);
    return static_cast<double>(liNow.QuadPart - liStart.QuadPart) / g_dTicksPerSecond;
}

LARGE_INTEGER Now()
{
    LARGE_INTEGER li;
    ::QueryPerformanceCounter(&li);
    return li;
}

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 != 0 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2.0;
}

std::wstring JoinPath(const std::wstring& sDir, const wchar_t* pwszName)
{
    return sDir + L"\\" + pwszName;
}

long long FileSize(const std::wstring& sPath)
{
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!::GetFileAttributesExW(sPath.c_str(), GetFileExInfoStandard, &data))
        return -1;
    return (static_cast<long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

// The first line of the trace log, line end included, exactly as the trace wrote it.
std::string ReadFirstLine(const std::wstring& sPath)
{
    CUniqueFile hFile(::CreateFileW(sPath.c_str(), GENERIC_READ,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!hFile)
        return std::string();
    char buf[4096];
    DWORD cbRead = 0;
    if (!::ReadFile(hFile.get(), buf, sizeof(buf), &cbRead, nullptr))
        return std::string();
    const std::string sBytes(buf, cbRead);
    const size_t posEnd = sBytes.find('\n');
    return posEnd == std::string::npos ? std::string() : sBytes.substr(0, posEnd + 1);
}

// The bare calls of one shared trace line, on a file and mutex of their own, in the order the
// trace makes them.
class CBareLog
{
public:
    explicit CBareLog(const std::wstring& sPath)
        : m_hMutex(::CreateMutexW(nullptr, FALSE, kBareFile)), m_sPath(sPath)
    {
    }

    bool IsReady() const { return m_hMutex.is_valid(); }

    bool WriteLine(const std::string& sLine)
    {
        if (::WaitForSingleObject(m_hMutex.get(), kMutexWaitMs) != WAIT_OBJECT_0)
            return false;
        bool bWritten = false;
        {
            CUniqueFile hFile(::CreateFileW(m_sPath.c_str(), FILE_APPEND_DATA,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                            OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
            if (hFile)
            {
                DWORD cbWritten = 0;
                bWritten = ::WriteFile(hFile.get(), sLine.data(), static_cast<DWORD>(sLine.size()),
                                       &cbWritten, nullptr) &&
                           cbWritten == sLine.size();
            }
        } // closed before the mutex is given back, as the trace does
        ::ReleaseMutex(m_hMutex.get());
        return bWritten;
    }

private:
    CUniqueHandle m_hMutex;
    std::wstring m_sPath;
};

// Seconds for cLines written trace lines.
double TimeWrittenLines(int cLines)
{
    const LARGE_INTEGER liStart = Now();
    for (int i = 0; i < cLines; ++i)
        g_pTrace->TraceMessage(TRACE_INFO, kFunction, kMessage);
    return SecondsSince(liStart);
}

// Seconds for cCalls masked-out trace lines.
double TimeMaskedLines(long long cCalls)
{
    const LARGE_INTEGER liStart = Now();
    for (long long i = 0; i < cCalls; ++i)
        g_pTrace->TraceMessage(TRACE_VERBOSE, kFunction, kMessage);
    return SecondsSince(liStart);
}

// Seconds for cLines bare shared lines; counts the lines that failed.
double TimeBareLines(CBareLog& log, const std::string& sLine, int cLines, int& cFailed)
{
    const LARGE_INTEGER liStart = Now();
    for (int i = 0; i < cLines; ++i)
    {
        if (!log.WriteLine(sLine))
            ++cFailed;
    }
    return SecondsSince(liStart);
}

// Seconds for cLines appends to the open file; counts the lines that failed.
double TimeOpenFileLines(HANDLE hFile, const std::string& sLine, int cLines, int& cFailed)
{
    const LARGE_INTEGER liStart = Now();
    for (int i = 0; i < cLines; ++i)
    {
        DWORD cbWritten = 0;
        if (!::WriteFile(hFile, sLine.data(), static_cast<DWORD>(sLine.size()), &cbWritten, nullptr) ||
            cbWritten != sLine.size())
            ++cFailed;
    }
    return SecondsSince(liStart);
}

const char* Verdict(bool bMet)
{
    return bMet ? "PASS" : "MISS";
}

// Reports whether a file holds the expected number of lines of cbLine bytes.
bool CheckLineCount(const char* pszWhat, const std::wstring& sPath, size_t cbLine, long long cExpected)
{
    const long long cbFile = FileSize(sPath);
    const long long cbExpected = cExpected * static_cast<long long>(cbLine);
    std::printf("  %-16s %lld bytes, %lld expected%s\n", pszWhat, cbFile, cbExpected,
                cbFile == cbExpected ? "" : "  <-- lines were lost or differ in length");
    return cbFile == cbExpected;
}

int RunBench()
{
    LARGE_INTEGER liFrequency;
    ::QueryPerformanceFrequency(&liFrequency);
    g_dTicksPerSecond = static_cast<double>(liFrequency.QuadPart);

    auto pTrace = std::make_unique<CTrace>(kTraceFile, kLevelKey);
    g_pTrace = pTrace.get();
    const std::wstring sTracePath = pTrace->GetFilePath();
    const std::wstring sLogDir = sTracePath.substr(0, sTracePath.rfind(L'\\'));
    const std::wstring sBarePath = JoinPath(sLogDir, kBareFile);
    const std::wstring sOpenPath = JoinPath(sLogDir, kOpenFile);
    // Left over by a run that did not finish: the line counts below start from empty files.
    ::DeleteFileW(sBarePath.c_str());
    ::DeleteFileW(sOpenPath.c_str());

    std::printf("KEFL trace benchmark\n");
    std::printf("  log folder       %ls\n", sLogDir.c_str());
    std::printf("  trace mask       0x%X (info written, verbose masked out)\n", pTrace->GetTraceMask());
    std::printf(
        "  rounds           %d; each %d lines a kind in %d alternating blocks, %lld masked-out calls\n",
        kRounds, kLinesPerRound, kBlocksPerRound, kMaskedCallsPerRound);
    if (!pTrace->IsOn(TRACE_INFO) || pTrace->IsOn(TRACE_VERBOSE))
    {
        std::printf("error: the trace mask is not the default one (is there a trace.ini?)\n");
        return 2;
    }

    CBareLog bareLog(sBarePath);
    CUniqueFile hOpenFile(::CreateFileW(sOpenPath.c_str(), FILE_APPEND_DATA,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                        OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!bareLog.IsReady() || !hOpenFile)
    {
        std::printf("error: cannot create the baseline mutex or file (%lu)\n", ::GetLastError());
        return 2;
    }

    // The baselines write the very bytes of a trace line, so both sides move the same amount.
    TimeWrittenLines(kWarmUpLines);
    const std::string sLine = ReadFirstLine(sTracePath);
    if (sLine.empty())
    {
        std::printf("error: the trace wrote no line to %ls\n", sTracePath.c_str());
        return 2;
    }
    std::printf("  line             %zu bytes: %.*s\n", sLine.size(), static_cast<int>(sLine.size()) - 2,
                sLine.c_str());

    int cFailed = 0;
    TimeBareLines(bareLog, sLine, kWarmUpLines, cFailed);
    TimeOpenFileLines(hOpenFile.get(), sLine, kWarmUpLines, cFailed);
    TimeMaskedLines(kMaskedCallsPerRound / 10);

    std::vector<double> vWrittenUs, vBareUs, vOpenUs, vMaskedNs, vRatioBare, vRatioOpen;
    std::printf("\n  round  written line  bare calls (a)  open file (b)  masked-out line  written/(a)\n");
    for (int iRound = 0; iRound < kRounds; ++iRound)
    {
        double dWritten = 0.0, dBare = 0.0, dOpen = 0.0;
        for (int iBlock = 0; iBlock < kBlocksPerRound; ++iBlock)
        {
            // Each kind takes each place in the order in turn.
            switch ((iRound * kBlocksPerRound + iBlock) % 3)
            {
            case 0:
                dWritten += TimeWrittenLines(kLinesPerBlock);
                dBare += TimeBareLines(bareLog, sLine, kLinesPerBlock, cFailed);
                dOpen += TimeOpenFileLines(hOpenFile.get(), sLine, kLinesPerBlock, cFailed);
                break;
            case 1:
                dBare += TimeBareLines(bareLog, sLine, kLinesPerBlock, cFailed);
                dOpen += TimeOpenFileLines(hOpenFile.get(), sLine, kLinesPerBlock, cFailed);
                dWritten += TimeWrittenLines(kLinesPerBlock);
                break;
            default:
                dOpen += TimeOpenFileLines(hOpenFile.get(), sLine, kLinesPerBlock, cFailed);
                dWritten += TimeWrittenLines(kLinesPerBlock);
                dBare += TimeBareLines(bareLog, sLine, kLinesPerBlock, cFailed);
                break;
            }
        }
        const double dMasked = TimeMaskedLines(kMaskedCallsPerRound);
        vWrittenUs.push_back(dWritten * 1e6 / kLinesPerRound);
        vBareUs.push_back(dBare * 1e6 / kLinesPerRound);
        vOpenUs.push_back(dOpen * 1e6 / kLinesPerRound);
        vMaskedNs.push_back(dMasked * 1e9 / static_cast<double>(kMaskedCallsPerRound));
        vRatioBare.push_back(dWritten / dBare);
        vRatioOpen.push_back(dWritten / dOpen);
        std::printf("  %5d  %9.2f us  %11.2f us  %10.2f us  %12.2f ns  %11.3f\n", iRound + 1,
                    vWrittenUs.back(), vBareUs.back(), vOpenUs.back(), vMaskedNs.back(), vRatioBare.back());
    }

    const double dWrittenUs = Median(vWrittenUs);
    const double dBareUs = Median(vBareUs);
    const double dOpenUs = Median(vOpenUs);
    const double dMaskedNs = Median(vMaskedNs);
    // A round's two sides share that round's noise, so the ratios are taken round by round.
    const double dRatioBare = Median(vRatioBare);
    const double dRatioOpen = Median(vRatioOpen);
    std::printf(" median  %9.2f us  %11.2f us  %10.2f us  %12.2f ns  %11.3f\n", dWrittenUs, dBareUs, dOpenUs,
                dMaskedNs, dRatioBare);

    std::printf("\n  written line / bare calls (a)   %8.3f   target <= %.2f   %s\n", dRatioBare,
                kTargetWrittenRatio, Verdict(dRatioBare <= kTargetWrittenRatio));
    std::printf("  written line / open file (b)    %8.1f   (information)\n", dRatioOpen);
    std::printf("  masked-out line                 %8.2f ns   target < %.0f ns   %s\n", dMaskedNs,
                kTargetMaskedNs, Verdict(dMaskedNs < kTargetMaskedNs));

    // A line that was dropped would have been timed as a very cheap one: the figures above count
    // only if every line reached its file.
    std::printf("\n  files\n");
    const long long cExpected = kWarmUpLines + static_cast<long long>(kRounds) * kLinesPerRound;
    bool bComplete = CheckLineCount("trace", sTracePath, sLine.size(), cExpected);
    bComplete = CheckLineCount("bare calls (a)", sBarePath, sLine.size(), cExpected) && bComplete;
    bComplete = CheckLineCount("open file (b)", sOpenPath, sLine.size(), cExpected) && bComplete;
    if (cFailed != 0)
        std::printf("  %d baseline lines failed\n", cFailed);

    hOpenFile.reset();
    g_pTrace = nullptr;
    pTrace.reset();
    ::DeleteFileW(sTracePath.c_str());
    ::DeleteFileW(JoinPath(sLogDir, kTraceOldFile).c_str());
    ::DeleteFileW(sBarePath.c_str());
    ::DeleteFileW(sOpenPath.c_str());

    if (!bComplete || cFailed != 0)
    {
        std::printf("error: not every line was written; the figures do not count\n");
        return 2;
    }
    return 0;
}

} // namespace

int main()
{
    return RunBench();
}
