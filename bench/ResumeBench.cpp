// A restore run again after an interruption: KEFL.dll restores a tree of 10,000 small files (folders
// of 100, 1 byte to 4 kB) with 8 workers at the default trace level, then restores it again over its
// own result with trace.ini's KEFL_SkipUnchanged=1, locally and from a share (a 2 ms round trip on
// every open, read and listing of the backup drive, as kefl_share_bench stands it in). The listing
// of the backup still costs its round trips; the copies it keeps cost none. Each round prints both
// restores and their ratio. Targets (the median of the rounds' ratios): 0.2 locally, 0.3 at 2 ms.
// Every file is counted after each restore; it exits 2 when it could not measure, else 0.
//
//   kefl_resume_bench [--rounds N] [--files N]
#include "bench/BenchKefl.h"

#include <windows.h>

#include <algorithm>
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

// One restore of drive E; its seconds, < 0 when it failed or left a file out.
double Restore(const CKefl& kefl, bool bSkipUnchanged, size_t nFiles)
{
    WriteTraceIni(std::string("[Main]\r\nKEFL_RestoreThreads=8\r\nKEFL_SkipUnchanged=") +
                  (bSkipUnchanged ? "1" : "0") + "\r\n");
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
    int iRc = 0;
    std::wprintf(L"%8ls %6ls %6ls  %12ls %12ls  %8ls\n", L"files", L"trip", L"round", L"first", L"again",
                 L"again/first");
    for (const DWORD dwMs : {0UL, 2UL})
    {
        sharestandin::g_dwRoundTripMs = dwMs;
        std::vector<double> vRatios;
        for (int iRound = 1; iRound <= iRounds; ++iRound)
        {
            RemoveTree(L"E:\\Tree");
            const double dFirst = Restore(kefl, false, nFiles);
            const double dAgain = Restore(kefl, true, nFiles);
            if (dFirst < 0 || dAgain < 0)
            {
                std::wprintf(L"  could not measure: a restore failed or left files out\n");
                iRc = 2;
                continue;
            }
            vRatios.push_back(dAgain / dFirst);
            std::wprintf(L"%8zu %4lums %6d  %9.3f ms %9.3f ms  %8.2f\n", nFiles, dwMs, iRound,
                         dFirst * 1000 / static_cast<double>(nFiles), dAgain * 1000 / static_cast<double>(nFiles),
                         vRatios.back());
            std::fflush(stdout);
        }
        if (vRatios.empty())
            continue;
        std::sort(vRatios.begin(), vRatios.end());
        const double dMedian = vRatios[vRatios.size() / 2];
        const double dTarget = dwMs == 0 ? 0.2 : 0.3;
        std::wprintf(L"  %lu ms: median again/first %.2f, target %.1f: %ls\n", dwMs, dMedian, dTarget,
                     dMedian <= dTarget ? L"PASS" : L"MISS");
    }
    RemoveTree(L"E:\\Tree");
    RemoveTree(kRoot);
    if (bSavedIni)
        ::MoveFileExW(kTraceIniSaved, kTraceIni, MOVEFILE_REPLACE_EXISTING);
    return iRc;
}
