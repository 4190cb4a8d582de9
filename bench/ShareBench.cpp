// A restore from a share: every open, read and folder listing on the backup drive waits out a
// network round trip. A stand-in in KEFL.dll's import table adds the wait (R: only: the restore's
// own drive and its trace stay local), and the same wait is added to a baseline that lists the
// tree first and then copies it on 8 threads, which is what a multi-threaded copy tool does.
//
// For 1,000 and 10,000 small files (folders of 100, 1 byte to 4 kB), at 0 and 2 ms: KEFL.dll with
// 1 and with 8 workers (trace.ini's KEFL_RestoreThreads, the default trace level) against the
// baseline. Targets: at 2 ms, 8 workers within 1.25x of the baseline; at 0 ms, 8 workers no slower
// than 1. Every copy is counted afterwards. Exits 2 when it could not measure, else 0.
//
//   kefl_share_bench [--round-trip-ms N] [--trace-level N] [FILES ...]
#include "bench/BenchKefl.h"
#include "platform/UniqueHandle.h"

#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace morvane;
using namespace benchfiles;
using namespace benchkefl;
using namespace sharestandin;

namespace
{

const std::wstring kRoot = L"R:\\ShareBench";
const std::wstring kBackup = kRoot + L"\\Backup";
const std::wstring kTree = kBackup + L"\\E\\Tree";
const wchar_t kTraceIniSaved[] = L"Z:\\DURN\\trace.ini.sharebench";
constexpr unsigned kBaselineThreads = 8;

int g_iTraceLevel = 3; // the default level: errors, warnings and values

// The files below sDir, listed as a copy tool lists them, each with its wait on the share.
void List(const std::wstring& sDir, std::vector<std::wstring>& vFiles, std::vector<std::wstring>& vDirs)
{
    WIN32_FIND_DATAW fd;
    const bool bShare = OnShare(sDir.c_str());
    if (bShare)
        RoundTrip();
    CUniqueFind hFind(::FindFirstFileW((sDir + L"\\*").c_str(), &fd));
    while (hFind)
    {
        const std::wstring sName = fd.cFileName;
        if (sName != L"." && sName != L"..")
        {
            const std::wstring sPath = sDir + L"\\" + sName;
            if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                vDirs.push_back(sPath), List(sPath, vFiles, vDirs);
            else
                vFiles.push_back(sPath);
        }
        if (bShare)
            RoundTrip();
        if (!::FindNextFileW(hFind.get(), &fd))
            break;
    }
}

// The baseline: the tree listed, its folders made, then its files copied on 8 threads, a round
// trip for each open and each read of the source.
bool ListThenCopy(const std::wstring& sSrc, const std::wstring& sDst)
{
    std::vector<std::wstring> vFiles;
    std::vector<std::wstring> vDirs;
    List(sSrc, vFiles, vDirs);
    ::CreateDirectoryW(sDst.c_str(), nullptr);
    for (const std::wstring& sDir : vDirs)
        ::CreateDirectoryW((sDst + sDir.substr(sSrc.size())).c_str(), nullptr);
    std::atomic<size_t> next{0};
    std::atomic<bool> bOk{true};
    auto copy = [&]
    {
        std::vector<char> vBuffer(65536);
        for (size_t i = next++; i < vFiles.size(); i = next++)
        {
            RoundTrip();
            CUniqueFile hSrc(::CreateFileW(vFiles[i].c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                           OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
            CUniqueFile hDst(::CreateFileW((sDst + vFiles[i].substr(sSrc.size())).c_str(), GENERIC_WRITE, 0,
                                           nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
            DWORD cbRead = 0;
            DWORD cbWritten = 0;
            do
            {
                RoundTrip();
                if (!hSrc || !hDst || !::ReadFile(hSrc.get(), vBuffer.data(), 65536, &cbRead, nullptr) ||
                    (cbRead && !::WriteFile(hDst.get(), vBuffer.data(), cbRead, &cbWritten, nullptr)))
                {
                    bOk = false;
                    break;
                }
            } while (cbRead != 0);
        }
    };
    std::vector<std::thread> vThreads;
    for (unsigned i = 0; i < kBaselineThreads; ++i)
        vThreads.emplace_back(copy);
    for (std::thread& thread : vThreads)
        thread.join();
    return bOk;
}

// One restore of drive E with uiWorkers; its seconds, < 0 on failure.
double RestoreWith(const CKefl& kefl, unsigned uiWorkers)
{
    const std::string sLevel = std::to_string(g_iTraceLevel);
    WriteTraceIni("[Main]\r\nKEFL_TraceLevel=" + sLevel + "\r\nVESK_TraceLevel=" + sLevel +
                  "\r\nKEFL_RestoreThreads=" + std::to_string(uiWorkers) + "\r\n");
    return RestoreDriveE(kefl, kBackup);
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<DWORD> vRoundTrips = {0, 2};
    std::vector<size_t> vSizes;
    for (int i = 1; i < argc; ++i)
    {
        if (std::strcmp(argv[i], "--round-trip-ms") == 0 && i + 1 < argc)
            vRoundTrips = {static_cast<DWORD>(std::strtoul(argv[++i], nullptr, 10))};
        else if (std::strcmp(argv[i], "--trace-level") == 0 && i + 1 < argc)
            g_iTraceLevel = std::atoi(argv[++i]);
        else
            vSizes.push_back(static_cast<size_t>(std::strtoull(argv[i], nullptr, 10)));
    }
    if (vSizes.empty())
        vSizes = {1000, 10000};

    CKefl kefl;
    if (!kefl.Load())
        return std::wprintf(L"Cannot load KEFL.dll with its stand-ins\n"), 2;
    const bool bSavedIni = ::MoveFileExW(kTraceIni, kTraceIniSaved, MOVEFILE_REPLACE_EXISTING) != FALSE;

    int iRc = 0;
    std::wprintf(L"%8ls %6ls  %10ls %10ls %10ls  %12ls %12ls\n", L"files", L"trip", L"1 worker", L"8 workers",
                 L"baseline", L"8w/baseline", L"8w/1w");
    for (size_t nFiles : vSizes)
    {
        RemoveTree(kRoot);
        RemoveTree(L"E:\\Tree");
        RemoveTree(L"F:\\ShareTree");
        ::CreateDirectoryW(kRoot.c_str(), nullptr);
        if (!MakeSmallFiles(kBackup, nFiles))
            return std::wprintf(L"Cannot make the tree\n"), 2;
        for (DWORD dwMs : vRoundTrips)
        {
            g_dwRoundTripMs = dwMs;
            double adSeconds[2] = {};
            size_t anCopied[2] = {};
            for (int i = 0; i < 2; ++i)
            {
                adSeconds[i] = RestoreWith(kefl, i == 0 ? 1 : 8);
                anCopied[i] = CountFiles(L"E:\\Tree");
                RemoveTree(L"E:\\Tree");
            }
            double dStart = Seconds();
            const bool bBaseline = ListThenCopy(kTree, L"F:\\ShareTree");
            const double dBaseline = Seconds() - dStart;
            const size_t nBaseline = CountFiles(L"F:\\ShareTree");
            RemoveTree(L"F:\\ShareTree");
            if (adSeconds[0] < 0 || adSeconds[1] < 0 || !bBaseline || anCopied[0] != nFiles ||
                anCopied[1] != nFiles || nBaseline != nFiles)
            {
                std::wprintf(
                    L"  could not measure: %.2f s %zu files, %.2f s %zu files, baseline %d %zu files\n",
                    adSeconds[0], anCopied[0], adSeconds[1], anCopied[1], bBaseline ? 1 : 0, nBaseline);
                iRc = 2;
                continue;
            }
            const double dToBaseline = adSeconds[1] / dBaseline;
            const double dToOne = adSeconds[1] / adSeconds[0];
            std::wprintf(L"%8zu %4lums  %8.3fms %8.3fms %8.3fms  %6.2f %-5ls %6.2f %ls\n", nFiles, dwMs,
                         adSeconds[0] * 1000 / nFiles, adSeconds[1] * 1000 / nFiles,
                         dBaseline * 1000 / nFiles, dToBaseline,
                         dwMs == 0             ? L""
                         : dToBaseline <= 1.25 ? L"PASS"
                                               : L"MISS",
                         dToOne,
                         dwMs != 0       ? L""
                         : dToOne <= 1.0 ? L"PASS"
                                         : L"MISS");
            std::fflush(stdout);
        }
    }
    RemoveTree(kRoot);
    if (bSavedIni)
        ::MoveFileExW(kTraceIniSaved, kTraceIni, MOVEFILE_REPLACE_EXISTING);
    return iRc;
}
