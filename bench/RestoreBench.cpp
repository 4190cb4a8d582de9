// What a filespace restore costs: a generated backup tree of 1,000 and 10,000 files restored
// through KEFL.dll (RestoreFilespace, as the host calls it), beside the same tree copied by the
// system's XCOPY (/e /h) and by a plain CopyFileW walk, in the same run on the same drives.
//
// The backup is R:\RestoreBench\Backup, its drive folder E holds the tree; the library restores
// it onto E:\Tree, XCOPY copies it to F:\XcopyTree, the walk to F:\CopyTree. The library runs
// twice: with the default trace mask (errors, warnings, values: several lines a file) and with
// errors only, since the trace's cost per line is known to be large. Where the system lacks
// BackupRead/BackupWrite (Wine) the tests' stand-ins are put into KEFL.dll's import table, as are
// the stand-ins that Init needs there.
//
// Prints files/s and MiB/s of each, the ratios to XCOPY and to the walk, the peak working set of
// each library restore (sampled while it runs: the process's own peak only ever grows, so after
// the first size it would say nothing of the next), and XCOPY's own peak. It also prints where
// each library restore's time went: the system calls KEFL.dll made, counted and timed at its
// import table (calls per file, microseconds each and per file; with several workers their times
// overlap). Every copy is counted afterwards:
// a method that drops files would look fast. Exits 2 when it could not measure, else 0.
#include "bench/BenchKefl.h"
#include "platform/UniqueHandle.h"
#include "winecompat/IatPatch.h"

#include <windows.h>
#include <psapi.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

using namespace morvane;
using namespace benchfiles;
using namespace benchkefl;

namespace
{

// Tree sizes when none are given on the command line (kefl_restore_bench 1000 10000 100000).
const std::vector<size_t> kDefaultFileCounts = {1000, 10000};
constexpr size_t kFilesPerFolder = 100;
const std::wstring kBenchRoot = L"R:\\RestoreBench";
const std::wstring kBackup = kBenchRoot + L"\\Backup";
const std::wstring kSourceTree = kBackup + L"\\E\\Tree";
const wchar_t kTraceIniSaved[] = L"Z:\\DURN\\trace.ini.restorebench";

// The tree: folders of 100 files, sizes 1 byte to 39 kB (about 19.5 kB on average). Answers the
// bytes written, 0 on failure.
uint64_t MakeTree(size_t nFiles)
{
    ::CreateDirectoryW(kBenchRoot.c_str(), nullptr);
    ::CreateDirectoryW(kBackup.c_str(), nullptr);
    ::CreateDirectoryW((kBackup + L"\\#").c_str(), nullptr);
    ::CreateDirectoryW((kBackup + L"\\E").c_str(), nullptr);
    ::CreateDirectoryW(kSourceTree.c_str(), nullptr);
    if (!WriteBytes(kBackup + L"\\#\\HPoint.dat", "", 0))
        return 0;
    std::vector<char> vData(40000);
    for (size_t i = 0; i < vData.size(); ++i)
        vData[i] = static_cast<char>(i * 31 + 7);
    uint64_t ullBytes = 0;
    for (size_t i = 0; i < nFiles; ++i)
    {
        wchar_t wszDir[32];
        wchar_t wszFile[32];
        _snwprintf(wszDir, 32, L"\\D%04u", static_cast<unsigned>(i / kFilesPerFolder));
        _snwprintf(wszFile, 32, L"\\f%06u.bin", static_cast<unsigned>(i));
        const std::wstring sDir = kSourceTree + wszDir;
        if (i % kFilesPerFolder == 0)
            ::CreateDirectoryW(sDir.c_str(), nullptr);
        const DWORD cb = static_cast<DWORD>(1 + (i * 7919) % 39000);
        if (!WriteBytes(sDir + wszFile, vData.data(), cb))
            return 0;
        ullBytes += cb;
    }
    return ullBytes;
}

bool CopyWalk(const std::wstring& sSrc, const std::wstring& sDst)
{
    if (!::CreateDirectoryW(sDst.c_str(), nullptr) && ::GetLastError() != ERROR_ALREADY_EXISTS)
        return false;
    WIN32_FIND_DATAW fd;
    CUniqueFind hFind(::FindFirstFileW((sSrc + L"\\*").c_str(), &fd));
    if (!hFind)
        return false;
    do
    {
        const std::wstring sName = fd.cFileName;
        if (sName == L"." || sName == L"..")
            continue;
        const bool bOk =
            (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                ? CopyWalk(sSrc + L"\\" + sName, sDst + L"\\" + sName)
                : ::CopyFileW((sSrc + L"\\" + sName).c_str(), (sDst + L"\\" + sName).c_str(), FALSE);
        if (!bOk)
            return false;
    } while (::FindNextFileW(hFind.get(), &fd));
    return true;
}

// Runs XCOPY with its output to NUL; answers its exit code (-1 when it could not run) and its
// peak working set.
int RunXcopy(const std::wstring& sSrc, const std::wstring& sDst, SIZE_T& cbPeak)
{
    ::CreateDirectoryW(sDst.c_str(), nullptr); // else XCOPY asks whether the target is a file
    SECURITY_ATTRIBUTES sa = {sizeof(sa), nullptr, TRUE};
    CUniqueFile hNul(::CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                   &sa, OPEN_EXISTING, 0, nullptr));
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = si.hStdOutput = si.hStdError = hNul.get();
    std::wstring sCmd = L"xcopy.exe \"" + sSrc + L"\" \"" + sDst + L"\" /e /h /r /y /q";
    PROCESS_INFORMATION pi = {};
    if (!::CreateProcessW(nullptr, sCmd.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi))
        return -1;
    CUniqueHandle hProcess(pi.hProcess);
    CUniqueHandle hThread(pi.hThread);
    ::WaitForSingleObject(hProcess.get(), INFINITE);
    DWORD dwExit = 0;
    ::GetExitCodeProcess(hProcess.get(), &dwExit);
    PROCESS_MEMORY_COUNTERS pmc = {};
    cbPeak = ::GetProcessMemoryInfo(hProcess.get(), &pmc, sizeof(pmc)) ? pmc.PeakWorkingSetSize : 0;
    return static_cast<int>(dwExit);
}

SIZE_T OwnPeakWorkingSet()
{
    PROCESS_MEMORY_COUNTERS pmc = {};
    return ::GetProcessMemoryInfo(::GetCurrentProcess(), &pmc, sizeof(pmc)) ? pmc.PeakWorkingSetSize : 0;
}

// The highest working set seen while it runs, sampled every few milliseconds on a thread of its
// own: a restore's peak, whatever ran before it in this process.
class CPeakSampler
{
public:
    CPeakSampler()
        : m_hStop(::CreateEventW(nullptr, TRUE, FALSE, nullptr)),
          m_hThread(::CreateThread(nullptr, 0, &CPeakSampler::Run, this, 0, nullptr))
    {
    }
    ~CPeakSampler() { Stop(); }
    // Ends the sampling; answers the peak in bytes.
    SIZE_T Stop()
    {
        if (m_hThread)
        {
            ::SetEvent(m_hStop.get());
            ::WaitForSingleObject(m_hThread.get(), INFINITE);
            m_hThread.reset();
        }
        return m_cbPeak;
    }

private:
    static DWORD WINAPI Run(void* pv)
    {
        auto* pThis = static_cast<CPeakSampler*>(pv);
        do
        {
            PROCESS_MEMORY_COUNTERS pmc = {};
            if (::GetProcessMemoryInfo(::GetCurrentProcess(), &pmc, sizeof(pmc)) &&
                pmc.WorkingSetSize > pThis->m_cbPeak)
                pThis->m_cbPeak = pmc.WorkingSetSize;
        } while (::WaitForSingleObject(pThis->m_hStop.get(), 5) == WAIT_TIMEOUT);
        return 0;
    }

    CUniqueHandle m_hStop;
    CUniqueHandle m_hThread;
    SIZE_T m_cbPeak = 0;
};

// The system calls that a restore makes for each file and folder, counted and timed where KEFL.dll
// imports them. The opens of a copy's source, of its destination and of the trace's appends
// (FILE_APPEND_DATA) are counted apart. Timing a call adds two performance-counter reads, well under a
// microsecond.
enum ECall
{
    kCreateFileSource,
    kCreateFileDestination,
    kCreateFileTrace,
    kCloseHandle,
    kWriteFile,
    kWaitForSingleObject,
    kReleaseMutex,
    kGetLocalTime,
    kBackupRead,
    kBackupWrite,
    kSetFileTime,
    kSetFileAttributes,
    kGetFileAttributes,
    kCreateDirectory,
    kFindFirstFile,
    kFindNextFile,
    kCallKinds
};

const wchar_t* const kCallNames[kCallKinds] = {
    L"CreateFileW (source)", L"CreateFileW (dest.)", L"CreateFileW (trace)",
    L"CloseHandle",          L"WriteFile",           L"WaitForSingleObject",
    L"ReleaseMutex",         L"GetLocalTime",        L"BackupRead",
    L"BackupWrite",          L"SetFileTime",         L"SetFileAttributesW",
    L"GetFileAttributesW",   L"CreateDirectoryW",    L"FindFirstFileW",
    L"FindNextFileW"};

struct CCallCounts
{
    std::array<uint64_t, kCallKinds> aCalls = {};
    std::array<double, kCallKinds> aSeconds = {};
};

// The restore's workers call at the same time: their times add up beyond the wall time.
CCallCounts g_Counts;
std::mutex g_countsLock;
std::array<void*, kCallKinds> g_apfnOriginal = {};

// Times one call into g_Counts.
class CCallTimer
{
public:
    explicit CCallTimer(ECall e) : m_e(e), m_dStart(Seconds()) {}
    ~CCallTimer()
    {
        const double dSeconds = Seconds() - m_dStart;
        const std::lock_guard lock(g_countsLock);
        g_Counts.aSeconds[m_e] += dSeconds;
        ++g_Counts.aCalls[m_e];
    }

private:
    ECall m_e;
    double m_dStart;
};

template <typename Fn> Fn Original(ECall e)
{
    return reinterpret_cast<Fn>(g_apfnOriginal[e]);
}

HANDLE WINAPI CountedCreateFileW(LPCWSTR pwszName, DWORD dwAccess, DWORD dwShare, LPSECURITY_ATTRIBUTES psa,
                                 DWORD dwDisposition, DWORD dwFlags, HANDLE hTemplate)
{
    CCallTimer timer(dwAccess == FILE_APPEND_DATA      ? kCreateFileTrace
                     : (dwAccess & GENERIC_WRITE) != 0 ? kCreateFileDestination
                                                       : kCreateFileSource);
    return Original<decltype(&::CreateFileW)>(kCreateFileSource)(pwszName, dwAccess, dwShare, psa,
                                                                 dwDisposition, dwFlags, hTemplate);
}
// A timed forward to the function the import table held, one per kind of call.
template <ECall kCall, typename Fn> struct CCounted;
template <ECall kCall, typename R, typename... Args> struct CCounted<kCall, R(WINAPI*)(Args...)>
{
    static R WINAPI Call(Args... args)
    {
        CCallTimer timer(kCall);
        return Original<R(WINAPI*)(Args...)>(kCall)(args...);
    }
};
#define KEFL_COUNTED(kCall, function) reinterpret_cast<void*>(&CCounted<kCall, decltype(&::function)>::Call)

// Puts the counting functions into KEFL.dll's import table, over the stand-ins where there are
// any (BackupRead, BackupWrite): those are then timed as KEFL.dll meets them.
class CCallCounters
{
public:
    explicit CCallCounters(HMODULE hModule)
    {
        Patch(hModule, "CreateFileW", kCreateFileSource, reinterpret_cast<void*>(&CountedCreateFileW));
        Patch(hModule, "CloseHandle", kCloseHandle, KEFL_COUNTED(kCloseHandle, CloseHandle));
        Patch(hModule, "WriteFile", kWriteFile, KEFL_COUNTED(kWriteFile, WriteFile));
        Patch(hModule, "WaitForSingleObject", kWaitForSingleObject,
              KEFL_COUNTED(kWaitForSingleObject, WaitForSingleObject));
        Patch(hModule, "ReleaseMutex", kReleaseMutex, KEFL_COUNTED(kReleaseMutex, ReleaseMutex));
        Patch(hModule, "GetLocalTime", kGetLocalTime, KEFL_COUNTED(kGetLocalTime, GetLocalTime));
        Patch(hModule, "BackupRead", kBackupRead, KEFL_COUNTED(kBackupRead, BackupRead));
        Patch(hModule, "BackupWrite", kBackupWrite, KEFL_COUNTED(kBackupWrite, BackupWrite));
        Patch(hModule, "SetFileTime", kSetFileTime, KEFL_COUNTED(kSetFileTime, SetFileTime));
        Patch(hModule, "SetFileAttributesW", kSetFileAttributes,
              KEFL_COUNTED(kSetFileAttributes, SetFileAttributesW));
        Patch(hModule, "GetFileAttributesW", kGetFileAttributes,
              KEFL_COUNTED(kGetFileAttributes, GetFileAttributesW));
        Patch(hModule, "CreateDirectoryW", kCreateDirectory,
              KEFL_COUNTED(kCreateDirectory, CreateDirectoryW));
        Patch(hModule, "FindFirstFileW", kFindFirstFile, KEFL_COUNTED(kFindFirstFile, FindFirstFileW));
        Patch(hModule, "FindNextFileW", kFindNextFile, KEFL_COUNTED(kFindNextFile, FindNextFileW));
    }
    bool AllApplied() const
    {
        for (const auto& p : m_vPatches)
        {
            if (!p->IsApplied())
                return false;
        }
        return true;
    }

private:
    void Patch(HMODULE hModule, const char* pszFunction, ECall e, const void* pfn)
    {
        m_vPatches.push_back(
            std::make_unique<winecompat::CIatPatch>(hModule, "KERNEL32.dll", pszFunction, pfn));
        g_apfnOriginal[e] = m_vPatches.back()->Original();
    }

    std::vector<std::unique_ptr<winecompat::CIatPatch>> m_vPatches;
};

// Where one restore's time went, per file restored.
void PrintCalls(const wchar_t* pwszName, const CCallCounts& counts, size_t nFiles, double dSeconds)
{
    std::wprintf(L"  %ls: %.0f us per file, of which at KEFL.dll's imports:\n", pwszName,
                 dSeconds * 1e6 / nFiles);
    double dCounted = 0.0;
    for (int e = 0; e < kCallKinds; ++e)
    {
        if (counts.aCalls[e] == 0)
            continue;
        dCounted += counts.aSeconds[e];
        std::wprintf(L"    %-22ls %6.2f calls/file %8.1f us each %8.1f us/file\n", kCallNames[e],
                     static_cast<double>(counts.aCalls[e]) / nFiles,
                     counts.aSeconds[e] * 1e6 / counts.aCalls[e], counts.aSeconds[e] * 1e6 / nFiles);
    }
    // With several workers the calls overlap, and their sum says nothing of KEFL's own share.
    if (dCounted <= dSeconds)
        std::wprintf(L"    %-22ls %38.1f us/file\n", L"(rest: KEFL's own work)",
                     (dSeconds - dCounted) * 1e6 / nFiles);
}

// KEFL.dll with the Wine stand-ins and the call counters over them.
struct CCountedLibrary : CKefl
{
    std::unique_ptr<CCallCounters> pCounters;

    bool Load()
    {
        if (!CKefl::Load(false))
            return false;
        pCounters = std::make_unique<CCallCounters>(hModule.get());
        return pCounters->AllApplied();
    }
};

// One restore of the backup's drive E through the library; the seconds it took, < 0 on failure.
// cbPeak: the highest working set while it ran; counts: its calls at the import table.
double RestoreThroughKefl(const CCountedLibrary& lib, SIZE_T& cbPeak, CCallCounts& counts)
{
    std::optional<CPeakSampler> sampler;
    return RestoreDriveE(
        lib, kBackup,
        [&]
        {
            sampler.emplace();
            g_Counts = CCallCounts();
        },
        [&]
        {
            counts = g_Counts;
            cbPeak = sampler->Stop();
        });
}

void PrintRate(const wchar_t* pwszName, size_t nFiles, uint64_t ullBytes, double dSeconds)
{
    std::wprintf(L"  %-28ls %8.2f s %10.0f files/s %8.2f MiB/s\n", pwszName, dSeconds, nFiles / dSeconds,
                 static_cast<double>(ullBytes) / (1024.0 * 1024.0) / dSeconds);
}

} // namespace

int main(int argc, char** argv)
{
    CCountedLibrary lib;
    if (!lib.Load())
    {
        std::wprintf(L"Cannot load KEFL.dll or put in its stand-ins\n");
        return 2;
    }
    const bool bSavedTraceIni = ::MoveFileExW(kTraceIni, kTraceIniSaved, MOVEFILE_REPLACE_EXISTING) != FALSE;
    int iRc = 0;
    std::vector<size_t> vFileCounts;
    bool bErrorsOnlyFirst = false;
    for (int i = 1; i < argc; ++i)
    {
        if (std::strcmp(argv[i], "--errors-only-first") == 0)
            bErrorsOnlyFirst = true;
        else
            vFileCounts.push_back(static_cast<size_t>(std::strtoull(argv[i], nullptr, 10)));
    }
    if (vFileCounts.empty())
        vFileCounts = kDefaultFileCounts;
    double dFirstPerFile = 0.0;
    for (size_t nFiles : vFileCounts)
    {
        RemoveTree(kBenchRoot);
        RemoveTree(L"E:\\Tree");
        RemoveTree(L"F:\\XcopyTree");
        RemoveTree(L"F:\\CopyTree");
        const uint64_t ullBytes = MakeTree(nFiles);
        if (ullBytes == 0)
        {
            std::wprintf(L"Cannot make the backup tree\n");
            iRc = 2;
            break;
        }
        std::wprintf(L"%zu files, %.1f MiB\n", nFiles, static_cast<double>(ullBytes) / (1024.0 * 1024.0));

        // The default trace mask (errors, warnings, values) and errors only, the default first
        // unless --errors-only-first is given. trace.ini is written out each time, as a new file:
        // a trace.ini without the key keeps the mask that was set last, and the profile cache
        // could answer with the old file.
        auto RestoreAtLevel = [&lib](const char* pszIni, SIZE_T& cbPeak, CCallCounts& counts, size_t& nCopied)
        {
            WriteBytes(kTraceIni, pszIni, static_cast<DWORD>(std::strlen(pszIni)));
            const double dSeconds = RestoreThroughKefl(lib, cbPeak, counts);
            nCopied = CountFiles(L"E:\\Tree");
            RemoveTree(L"E:\\Tree");
            ::DeleteFileW(kTraceIni);
            return dSeconds;
        };
        const char kDefault[] = "[Main]\r\nKEFL_TraceLevel=3\r\nVESK_TraceLevel=3\r\n";
        const char kQuiet[] = "[Main]\r\nKEFL_TraceLevel=1\r\nVESK_TraceLevel=1\r\n";
        SIZE_T cbPeakKefl = 0;
        SIZE_T cbPeakKeflQuiet = 0;
        CCallCounts countsKefl;
        CCallCounts countsKeflQuiet;
        size_t nKefl = 0;
        size_t nKeflQuiet = 0;
        double dKefl = 0.0;
        double dKeflQuiet = 0.0;
        if (bErrorsOnlyFirst)
        {
            dKeflQuiet = RestoreAtLevel(kQuiet, cbPeakKeflQuiet, countsKeflQuiet, nKeflQuiet);
            dKefl = RestoreAtLevel(kDefault, cbPeakKefl, countsKefl, nKefl);
        }
        else
        {
            dKefl = RestoreAtLevel(kDefault, cbPeakKefl, countsKefl, nKefl);
            dKeflQuiet = RestoreAtLevel(kQuiet, cbPeakKeflQuiet, countsKeflQuiet, nKeflQuiet);
        }

        SIZE_T cbPeakXcopy = 0;
        double dStart = Seconds();
        const int iXcopy = RunXcopy(kSourceTree, L"F:\\XcopyTree", cbPeakXcopy);
        const double dXcopy = Seconds() - dStart;
        const size_t nXcopy = CountFiles(L"F:\\XcopyTree");

        dStart = Seconds();
        const bool bWalk = CopyWalk(kSourceTree, L"F:\\CopyTree");
        const double dWalk = Seconds() - dStart;
        const size_t nWalk = CountFiles(L"F:\\CopyTree");

        if (dKefl < 0 || dKeflQuiet < 0 || iXcopy != 0 || !bWalk || nKefl != nFiles || nKeflQuiet != nFiles ||
            nXcopy != nFiles || nWalk != nFiles)
        {
            std::wprintf(
                L"  could not measure: KEFL %.2f s %zu files, quiet %.2f s %zu files, XCOPY exit %d %zu "
                L"files, walk %d %zu files\n",
                dKefl, nKefl, dKeflQuiet, nKeflQuiet, iXcopy, nXcopy, bWalk ? 1 : 0, nWalk);
            iRc = 2;
            break;
        }
        PrintRate(L"KEFL.dll (default trace)", nFiles, ullBytes, dKefl);
        PrintRate(L"KEFL.dll (errors only)", nFiles, ullBytes, dKeflQuiet);
        PrintRate(L"XCOPY /e /h", nFiles, ullBytes, dXcopy);
        PrintRate(L"CopyFileW walk", nFiles, ullBytes, dWalk);
        std::wprintf(L"  time ratio KEFL/XCOPY %.2f (errors only %.2f), KEFL/walk %.2f (errors only %.2f)\n",
                     dKefl / dXcopy, dKeflQuiet / dXcopy, dKefl / dWalk, dKeflQuiet / dWalk);
        // Growth with the file count: time per file against the first size's.
        const double dPerFile = dKeflQuiet / static_cast<double>(nFiles);
        if (dFirstPerFile == 0.0)
            dFirstPerFile = dPerFile;
        std::wprintf(L"  errors only: %.3f ms per file, %.2f x the per-file time of the first size\n",
                     dPerFile * 1000.0, dPerFile / dFirstPerFile);
        std::wprintf(
            L"  peak working set while restoring: %.1f MiB at the default trace level, %.1f MiB errors "
            L"only (this process's peak so far %.1f MiB)",
            cbPeakKefl / (1024.0 * 1024.0), cbPeakKeflQuiet / (1024.0 * 1024.0),
            OwnPeakWorkingSet() / (1024.0 * 1024.0));
        if (cbPeakXcopy != 0)
            std::wprintf(L", XCOPY %.1f MiB\n", cbPeakXcopy / (1024.0 * 1024.0));
        else
            std::wprintf(L", XCOPY not known (no counters of the ended process)\n");
        PrintCalls(L"KEFL.dll (default trace)", countsKefl, nFiles, dKefl);
        PrintCalls(L"KEFL.dll (errors only)", countsKeflQuiet, nFiles, dKeflQuiet);
        std::fflush(stdout);
    }
    RemoveTree(kBenchRoot);
    RemoveTree(L"E:\\Tree");
    RemoveTree(L"F:\\XcopyTree");
    RemoveTree(L"F:\\CopyTree");
    if (bSavedTraceIni)
        ::MoveFileExW(kTraceIniSaved, kTraceIni, MOVEFILE_REPLACE_EXISTING);
    return iRc;
}
