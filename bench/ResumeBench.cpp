// A restore run again after an interruption: KEFL.dll restores a tree of 10,000 small files (folders
// of 100, 1 byte to 4 kB) with 8 workers at the default trace level, then restores it again over its
// own result with trace.ini's KEFL_SkipUnchanged=1, locally and from a share (a 2 ms round trip on
// every open, read and listing of the backup drive, as kefl_share_bench stands it in). The listing
// of the backup still costs its round trips; the copies it keeps cost none. Each round prints both
// restores and their ratio. Targets (the median of the rounds' ratios): 0.2 locally, 0.3 at 2 ms.
// The again restore's opens and closes are timed at the import table and given per file (summed
// over the workers) and as a share of that restore: a kept file costs none, the destination's
// folders are listed once each (a link count would cost an open of every file).
// Checkpoints: the first restore is run once more with a checkpoint every second instead of every
// 30 (a flush of the volume and its record, some ten of them here), and the median ratio of the two
// gives the cost of that many; the default's thirty seconds spread it thirty times thinner.
// Every file is counted after each restore; it exits 2 when it could not measure, else 0.
//
//   kefl_resume_bench [--rounds N] [--files N]
#include "bench/BenchKefl.h"
#include "winecompat/IatPatch.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace benchfiles;
using namespace benchkefl;

namespace
{

const std::wstring kRoot = L"R:\\ResumeBench";
const std::wstring kBackup = kRoot + L"\\Backup";
const wchar_t kTraceIniSaved[] = L"Z:\\DURN\\trace.ini.resumebench";

// The restore that runs, timed at the import table: its opens and closes.
std::atomic<int64_t> g_llOpenCloseTicks{0};
template <typename Call> auto Timed(std::atomic<int64_t>& llTicks, Call call)
{
    LARGE_INTEGER liStart{};
    LARGE_INTEGER liEnd{};
    ::QueryPerformanceCounter(&liStart);
    const auto result = call();
    ::QueryPerformanceCounter(&liEnd);
    llTicks += liEnd.QuadPart - liStart.QuadPart;
    return result;
}
decltype(&::CreateFileW) g_pfnRealCreate = nullptr;
HANDLE WINAPI TimedCreate(LPCWSTR pwsz, DWORD dwAccess, DWORD dwShare, LPSECURITY_ATTRIBUTES pSa, DWORD dwDisposition,
                          DWORD dwFlags, HANDLE hTemplate)
{
    return Timed(g_llOpenCloseTicks,
                 [&] { return g_pfnRealCreate(pwsz, dwAccess, dwShare, pSa, dwDisposition, dwFlags, hTemplate); });
}
decltype(&::CloseHandle) g_pfnRealClose = nullptr;
BOOL WINAPI TimedClose(HANDLE h)
{
    return Timed(g_llOpenCloseTicks, [&] { return g_pfnRealClose(h); });
}

double TicksToSeconds(int64_t llTicks)
{
    LARGE_INTEGER liFrequency{};
    ::QueryPerformanceFrequency(&liFrequency);
    return static_cast<double>(llTicks) / static_cast<double>(liFrequency.QuadPart);
}

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0.0 : v[v.size() / 2];
}

// One restore of drive E; its seconds, < 0 when it failed or left a file out.
double Restore(const CKefl& kefl, bool bSkipUnchanged, size_t nFiles, const char* pszCheckpointSeconds = "30")
{
    WriteTraceIni(std::string("[Main]\r\nKEFL_RestoreThreads=8\r\nKEFL_SkipUnchanged=") +
                  (bSkipUnchanged ? "1" : "0") + "\r\nKEFL_CheckpointSeconds=" + pszCheckpointSeconds + "\r\n");
    g_llOpenCloseTicks = 0;
    const double dSeconds = RestoreDriveE(kefl, kBackup);
    return dSeconds >= 0 && CountFiles(L"E:\\Tree") == nFiles ? dSeconds : -1.0;
}

} // namespace

int main(int argc, char** argv)
{
    size_t nFiles = 10000;
    int iRounds = 3;
    for (int i = 1; i + 1 < argc; i += 2)
    {
        if (std::strcmp(argv[i], "--files") == 0)
            nFiles = static_cast<size_t>(std::strtoull(argv[i + 1], nullptr, 10));
        else if (std::strcmp(argv[i], "--rounds") == 0)
            iRounds = std::max(1, std::atoi(argv[i + 1]));
    }
    CKefl kefl;
    if (!kefl.Load())
        return std::wprintf(L"Cannot load KEFL.dll with its stand-ins\n"), 2;
    const bool bSavedIni = ::MoveFileExW(kTraceIni, kTraceIniSaved, MOVEFILE_REPLACE_EXISTING) != FALSE;
    RemoveTree(kRoot);
    ::CreateDirectoryW(kRoot.c_str(), nullptr);
    if (!MakeSmallFiles(kBackup, nFiles))
        return std::wprintf(L"Cannot make the tree\n"), 2;
    const winecompat::CIatPatch timingOpens(kefl.hModule.get(), "KERNEL32.dll", "CreateFileW",
                                            reinterpret_cast<const void*>(&TimedCreate));
    g_pfnRealCreate = reinterpret_cast<decltype(g_pfnRealCreate)>(timingOpens.Original());
    const winecompat::CIatPatch timingCloses(kefl.hModule.get(), "KERNEL32.dll", "CloseHandle",
                                             reinterpret_cast<const void*>(&TimedClose));
    g_pfnRealClose = reinterpret_cast<decltype(g_pfnRealClose)>(timingCloses.Original());
    int iRc = 0;
    std::wprintf(L"%8ls %6ls %6ls  %12ls %12ls  %8ls  %14ls  %12ls %10ls\n", L"files", L"trip", L"round", L"first",
                 L"again", L"again/first", L"opens/file", L"first (1 s)", L"1 s/30 s");
    for (const DWORD dwMs : {0UL, 2UL})
    {
        sharestandin::g_dwRoundTripMs = dwMs;
        std::vector<double> vRatios;
        std::vector<double> vCheckpointRatios;
        for (int iRound = 1; iRound <= iRounds; ++iRound)
        {
            RemoveTree(L"E:\\Tree");
            const double dFirst = Restore(kefl, false, nFiles);
            const double dAgain = Restore(kefl, true, nFiles);
            const double dOpenSeconds = TicksToSeconds(g_llOpenCloseTicks);
            RemoveTree(L"E:\\Tree");
            const double dEverySecond = Restore(kefl, false, nFiles, "1");
            if (dFirst < 0 || dAgain < 0 || dEverySecond < 0)
            {
                std::wprintf(L"  could not measure: a restore failed or left files out\n");
                iRc = 2;
                continue;
            }
            vRatios.push_back(dAgain / dFirst);
            vCheckpointRatios.push_back(dEverySecond / dFirst);
            const double dFiles = static_cast<double>(nFiles);
            std::wprintf(L"%8zu %4lums %6d  %9.3f ms %9.3f ms  %8.2f  %8.1f us %3.0f%%  %9.3f ms %10.3f\n", nFiles,
                         dwMs, iRound, dFirst * 1000 / dFiles, dAgain * 1000 / dFiles, vRatios.back(),
                         dOpenSeconds * 1e6 / dFiles, dOpenSeconds / dAgain * 100, dEverySecond * 1000 / dFiles,
                         vCheckpointRatios.back());
            std::fflush(stdout);
        }
        if (vRatios.empty())
            continue;
        const double dMedian = Median(vRatios);
        const double dTarget = dwMs == 0 ? 0.2 : 0.3;
        std::wprintf(L"  %lu ms: median again/first %.2f, target %.1f: %ls; checkpoints every second %.3f of every "
                     L"30 s\n",
                     dwMs, dMedian, dTarget, dMedian <= dTarget ? L"PASS" : L"MISS", Median(vCheckpointRatios));
    }
    RemoveTree(L"E:\\Tree");
    RemoveTree(kRoot);
    if (bSavedIni)
        ::MoveFileExW(kTraceIniSaved, kTraceIni, MOVEFILE_REPLACE_EXISTING);
    return iRc;
}
