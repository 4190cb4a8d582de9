// What tracing at the default level costs a restore. KEFL.dll restores small files with 8 workers,
// from the local drive (2,000 files) and from a share (1,000 files, a 2 ms round trip on every open,
// read and listing of the backup drive, as kefl_share_bench stands it in), in three ways taken in
// turns within each round, so that the machine's noise falls on all of them alike:
//
//   off     trace levels 0: nothing is written;
//   before  the default level, every line written on its own as the trace did before its queue
//           (trace.ini's KEFL_TraceEachLine and VESK_TraceEachLine);
//   after   the default level as it is: lines queued and written many to one open.
//
// A restore that is not timed comes first: the copies of every timed one replace an earlier copy's.
// Each round prints milliseconds per file of each, the ratios to "off", and for "before" and
// "after" the lines written, the lines per open of a log, the time of the trace's own system calls
// per line (its opens, mutex waits, writes, releases and closes, counted at KEFL.dll's import table,
// over all threads) and the restore's time per line beyond "off". Target: "after" within 1.10 x
// "off" in both rows, the median of the rounds' ratios. Every copy is counted; it exits 2 when it
// could not measure, else 0 (MISS included).
//
//   kefl_trace_cost_bench [--rounds N] [--local-files N] [--share-files N] [--round-trip-ms N]
#include "bench/BenchKefl.h"
#include "platform/UniqueHandle.h"
#include "winecompat/IatPatch.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

using namespace morvane;
using namespace benchfiles;
using namespace benchkefl;
using namespace sharestandin;

namespace
{

const std::wstring kRoot = L"R:\\TraceCostBench";
const wchar_t kTraceIniSaved[] = L"Z:\\DURN\\trace.ini.tracecostbench";
constexpr unsigned kWorkers = 8;
constexpr double kTarget = 1.10;

enum Mode
{
    Off,
    Before,
    After,
    kModes
};
const wchar_t* const kModeNames[kModes] = {L"off", L"before", L"after"};

// The trace's system calls, counted at KEFL.dll's import table: a thread between the open of a log
// and its close is writing the trace, and its mutex wait and release in between are the trace's.
struct CTraceCalls
{
    std::atomic<uint64_t> ullOpens{0}, ullLines{0}, ullTicks{0};
    void Clear() { ullOpens = ullLines = ullTicks = 0; }
};
CTraceCalls g_calls;
thread_local HANDLE t_hTraceFile = nullptr;

uint64_t Ticks()
{
    LARGE_INTEGER li;
    ::QueryPerformanceCounter(&li);
    return static_cast<uint64_t>(li.QuadPart);
}

// Times fn and adds the time to the trace's when bTrace.
template <typename Fn> auto Timed(bool bTrace, Fn fn)
{
    const uint64_t ullStart = bTrace ? Ticks() : 0;
    auto result = fn();
    if (bTrace)
        g_calls.ullTicks += Ticks() - ullStart;
    return result;
}

void* g_pfnCountedCreateFile = nullptr;
void* g_pfnWriteFile = nullptr;
void* g_pfnCountedCloseHandle = nullptr;
void* g_pfnWait = nullptr;
void* g_pfnRelease = nullptr;

HANDLE WINAPI CountedCreateFileW(LPCWSTR pwsz, DWORD dwAccess, DWORD dwShare, LPSECURITY_ATTRIBUTES psa,
                                 DWORD dwDisp, DWORD dwFlags, HANDLE hTemplate)
{
    const size_t cch = pwsz ? std::wcslen(pwsz) : 0;
    const bool bTrace = cch >= 10 && _wcsicmp(pwsz + cch - 10, L"_trace.log") == 0;
    const HANDLE h = Timed(bTrace,
                           [&]
                           {
                               return Real<decltype(&::CreateFileW)>(g_pfnCountedCreateFile)(
                                   pwsz, dwAccess, dwShare, psa, dwDisp, dwFlags, hTemplate);
                           });
    if (bTrace && h != INVALID_HANDLE_VALUE)
    {
        ++g_calls.ullOpens;
        t_hTraceFile = h;
    }
    return h;
}
BOOL WINAPI CountedWriteFile(HANDLE h, LPCVOID pv, DWORD cb, LPDWORD pcb, LPOVERLAPPED po)
{
    const bool bTrace = h != nullptr && h == t_hTraceFile;
    if (bTrace)
        g_calls.ullLines += std::count(static_cast<const char*>(pv), static_cast<const char*>(pv) + cb, '\n');
    return Timed(bTrace, [&] { return Real<decltype(&::WriteFile)>(g_pfnWriteFile)(h, pv, cb, pcb, po); });
}
BOOL WINAPI CountedCloseHandle(HANDLE h)
{
    const bool bTrace = h != nullptr && h == t_hTraceFile;
    if (bTrace)
        t_hTraceFile = nullptr;
    return Timed(bTrace, [&] { return Real<decltype(&::CloseHandle)>(g_pfnCountedCloseHandle)(h); });
}
DWORD WINAPI CountedWaitForSingleObject(HANDLE h, DWORD dwMs)
{
    return Timed(t_hTraceFile != nullptr,
                 [&] { return Real<decltype(&::WaitForSingleObject)>(g_pfnWait)(h, dwMs); });
}
BOOL WINAPI CountedReleaseMutex(HANDLE h)
{
    return Timed(t_hTraceFile != nullptr, [&] { return Real<decltype(&::ReleaseMutex)>(g_pfnRelease)(h); });
}

// KEFL.dll with the Wine stand-ins, the share over them and the counters over the share.
struct CCountedKefl : CKefl
{
    std::vector<std::unique_ptr<winecompat::CIatPatch>> vCounters;

    template <typename Fn> void Count(const char* pszFunction, Fn pfn, void*& pfnReal)
    {
        vCounters.push_back(std::make_unique<winecompat::CIatPatch>(
            hModule.get(), "KERNEL32.dll", pszFunction, reinterpret_cast<void*>(pfn)));
        pfnReal = vCounters.back()->Original();
    }
    bool Load()
    {
        if (!CKefl::Load())
            return false;
        Count("CreateFileW", &CountedCreateFileW, g_pfnCountedCreateFile);
        Count("WriteFile", &CountedWriteFile, g_pfnWriteFile);
        Count("CloseHandle", &CountedCloseHandle, g_pfnCountedCloseHandle);
        Count("WaitForSingleObject", &CountedWaitForSingleObject, g_pfnWait);
        Count("ReleaseMutex", &CountedReleaseMutex, g_pfnRelease);
        return std::all_of(vCounters.begin(), vCounters.end(), [](const auto& p) { return p->IsApplied(); });
    }
    ~CCountedKefl()
    {
        while (!vCounters.empty()) // the last patch first: each put back what was there before it
            vCounters.pop_back();
    }
};

// trace.ini for a way.
void WriteTraceIniFor(Mode mode)
{
    const char* pszLevel = mode == Off ? "0" : "3";
    const char* pszEachLine = mode == Before ? "1" : "0";
    WriteTraceIni(std::string("[Main]\r\nKEFL_TraceLevel=") + pszLevel + "\r\nVESK_TraceLevel=" + pszLevel +
                  "\r\nKEFL_TraceEachLine=" + pszEachLine + "\r\nVESK_TraceEachLine=" + pszEachLine +
                  "\r\nKEFL_RestoreThreads=" + std::to_string(kWorkers) + "\r\n");
}

struct CRun
{
    double dSeconds = -1.0; // < 0: failed
    uint64_t ullLines = 0, ullOpens = 0;
    double dTraceSeconds = 0.0;
};

// One restore of drive E of sBackup in the given way; the logs emptied first, so that every run
// appends to a file of the same size.
CRun Restore(const CCountedKefl& kefl, const std::wstring& sBackup, Mode mode)
{
    WriteTraceIniFor(mode);
    // The logs are beside the program, in the host's folder.
    static const std::wstring s_sLogDir = []
    {
        wchar_t wszExe[MAX_PATH] = {};
        ::GetModuleFileNameW(nullptr, wszExe, MAX_PATH);
        const std::wstring sExe = wszExe;
        return sExe.substr(0, sExe.rfind(L'\\')) + L"\\Logfiles";
    }();
    for (const wchar_t* pwszLog : {L"\\KEFL_trace.log", L"\\VESK_trace.log"})
        WriteBytes(s_sLogDir + pwszLog, "", 0);
    CRun run;
    const auto atEnd = [&run]
    {
        run.ullLines = g_calls.ullLines;
        run.ullOpens = g_calls.ullOpens;
        LARGE_INTEGER liFrequency;
        ::QueryPerformanceFrequency(&liFrequency);
        run.dTraceSeconds = static_cast<double>(g_calls.ullTicks) / static_cast<double>(liFrequency.QuadPart);
    };
    run.dSeconds = RestoreDriveE(kefl, sBackup, [] { g_calls.Clear(); }, atEnd);
    return run;
}

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0.0 : v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

struct CRow
{
    const wchar_t* pwszName;
    std::wstring sBackup;
    size_t nFiles;
    DWORD dwRoundTripMs;
};

// "lines/open us/line added-us/line" of a way against "off".
void PrintCosts(const CRun& run, const CRun& off)
{
    const double dLines = static_cast<double>(std::max<uint64_t>(run.ullLines, 1));
    std::wprintf(L"  %6llu %7.1f %7.1f %7.1f", static_cast<unsigned long long>(run.ullLines),
                 dLines / static_cast<double>(std::max<uint64_t>(run.ullOpens, 1)),
                 run.dTraceSeconds * 1e6 / dLines, (run.dSeconds - off.dSeconds) * 1e6 / dLines);
}

// The rounds of one row; answers whether it could measure, and adds its verdict to bPass.
bool MeasureRow(const CCountedKefl& kefl, const CRow& row, int cRounds, bool& bPass)
{
    g_dwRoundTripMs = row.dwRoundTripMs;
    std::wprintf(L"\n%ls: %zu files, %lu ms round trip, %u workers (ms/file; for before and after: lines "
                 L"written, lines per open, us in the trace's calls per line summed over all threads, us of "
                 L"restore per line beyond off)\n",
                 row.pwszName, row.nFiles, row.dwRoundTripMs, kWorkers);
    std::wprintf(L"%5ls %8ls %8ls %8ls %7ls %7ls  %6ls %7ls %7ls %7ls  %6ls %7ls %7ls %7ls\n", L"round",
                 L"off", L"before", L"after", L"bef/off", L"aft/off", L"lines", L"l/open", L"us/l", L"+us/l",
                 L"lines", L"l/open", L"us/l", L"+us/l");
    // Not timed: a restore after the removal of an earlier copy pays more for its destination's opens
    // than the first, and every timed restore comes after one.
    if (Restore(kefl, row.sBackup, After).dSeconds < 0)
        return std::wprintf(L"  could not measure: the first restore failed\n"), false;
    RemoveTree(L"E:\\Tree");
    std::vector<double> vBefore, vAfter, vMs[kModes];
    for (int iRound = 0; iRound < cRounds; ++iRound)
    {
        CRun aRuns[kModes];
        for (int i = 0; i < kModes; ++i) // each round starts with another way
        {
            const Mode mode = static_cast<Mode>((iRound + i) % kModes);
            aRuns[mode] = Restore(kefl, row.sBackup, mode);
            const size_t nCopied = CountFiles(L"E:\\Tree");
            RemoveTree(L"E:\\Tree");
            if (aRuns[mode].dSeconds < 0 || nCopied != row.nFiles)
                return std::wprintf(L"  could not measure: %ls, %zu files copied\n", kModeNames[mode],
                                    nCopied),
                       false;
        }
        const double dBefore = aRuns[Before].dSeconds / aRuns[Off].dSeconds;
        const double dAfter = aRuns[After].dSeconds / aRuns[Off].dSeconds;
        vBefore.push_back(dBefore);
        vAfter.push_back(dAfter);
        std::wprintf(L"%5d", iRound + 1);
        for (int mode = 0; mode < kModes; ++mode)
        {
            vMs[mode].push_back(aRuns[mode].dSeconds * 1000 / static_cast<double>(row.nFiles));
            std::wprintf(L" %8.3f", vMs[mode].back());
        }
        std::wprintf(L" %7.2f %7.2f", dBefore, dAfter);
        PrintCosts(aRuns[Before], aRuns[Off]);
        PrintCosts(aRuns[After], aRuns[Off]);
        std::wprintf(L"\n");
        std::fflush(stdout);
    }
    const double dMedian = Median(vAfter);
    std::wprintf(
        L"%5ls %8.3f %8.3f %8.3f %7.2f %7.2f  after / off (target <= %.2f): %ls, rounds %.2f to %.2f\n",
        L"med", Median(vMs[Off]), Median(vMs[Before]), Median(vMs[After]), Median(vBefore), dMedian, kTarget,
        dMedian <= kTarget ? L"PASS" : L"MISS", *std::min_element(vAfter.begin(), vAfter.end()),
        *std::max_element(vAfter.begin(), vAfter.end()));
    bPass = bPass && dMedian <= kTarget;
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    int cRounds = 9; // each way first in three rounds
    size_t nLocal = 2000, nShare = 1000;
    DWORD dwRoundTripMs = 2;
    for (int i = 1; i + 1 < argc; i += 2)
    {
        if (std::strcmp(argv[i], "--rounds") == 0)
            cRounds = std::max(1, std::atoi(argv[i + 1]));
        else if (std::strcmp(argv[i], "--local-files") == 0)
            nLocal = std::strtoull(argv[i + 1], nullptr, 10);
        else if (std::strcmp(argv[i], "--share-files") == 0)
            nShare = std::strtoull(argv[i + 1], nullptr, 10);
        else if (std::strcmp(argv[i], "--round-trip-ms") == 0)
            dwRoundTripMs = static_cast<DWORD>(std::strtoul(argv[i + 1], nullptr, 10));
    }
    CCountedKefl kefl;
    if (!kefl.Load())
        return std::wprintf(L"Cannot load KEFL.dll with the stand-ins in its imports\n"), 2;
    const CRow aRows[] = {{L"local drive", kRoot + L"\\Local", nLocal, 0},
                          {L"share", kRoot + L"\\Share", nShare, dwRoundTripMs}};
    RemoveTree(kRoot);
    RemoveTree(L"E:\\Tree");
    ::CreateDirectoryW(kRoot.c_str(), nullptr);
    for (const CRow& row : aRows)
        if (!MakeSmallFiles(row.sBackup, row.nFiles))
            return std::wprintf(L"Cannot make the tree\n"), 2;
    const bool bSavedIni = ::MoveFileExW(kTraceIni, kTraceIniSaved, MOVEFILE_REPLACE_EXISTING) != FALSE;
    bool bPass = true;
    int iRc = 0;
    for (const CRow& row : aRows)
        if (!MeasureRow(kefl, row, cRounds, bPass))
            iRc = 2;
    std::wprintf(L"\nafter / off within %.2f in both rows: %ls\n", kTarget,
                 iRc == 0 && bPass ? L"PASS" : L"MISS");
    RemoveTree(kRoot);
    ::DeleteFileW(kTraceIni);
    if (bSavedIni)
        ::MoveFileExW(kTraceIniSaved, kTraceIni, MOVEFILE_REPLACE_EXISTING);
    return iRc;
}
