// What the walk of a filespace's source tree costs at a file server's size: WalkFilespace over
// 100,000 and 1,000,000 entries of a generated tree, timed warm, with what the walk list holds per
// entry and how much the process grows while it walks.
//
// The tree is R:\WalkBench\Tree: 10 group folders of 100 folders of 1,000 empty files, names of
// 40 characters, paths of 120 (R:\WalkBench\Tree\<group, 20>\<folder, 40>\<file, 40>). The
// 100,000-entry walk is one group of it, so both walks read the same kind of folder. Making a
// million files under Wine takes many minutes, so the tree is kept: R:\WalkBench\Tree.complete
// says it was made whole, and a later run walks it as it is. It is on R:, the drive the other
// benchmarks keep their scratch on, because the tests empty E: and F: whole.
//
// Prints for each size: entries, bytes per entry (HeapBytes() / Size(), and that split into the
// entry blocks and the name blocks), the heap's peak during the walk against the final HeapBytes,
// the peak working set above the working set before the first walk, and entries per second (the median
// of several walks after one untimed walk); then the ratio of the time per entry at 1,000,000 to
// that at 100,000. Targets, each PASS or MISS: bytes per entry <= 64 + the name's own bytes; the
// 1,000,000-entry walk's peak working set < 160 MiB above its start; the heap's peak during the
// walk <= 1.25 x the final HeapBytes; time-per-entry ratio <= 1.2. Exits 2 when it could not
// measure (no tree, a failed walk, a count that does not match the tree), else 0, MISS included.
#include "platform/UniqueHandle.h"
#include "session/FilespaceWalk.h"
#include "session/WalkList.h"
#include "trace/TraceObjects.h"

#include <windows.h>
#include <psapi.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

using namespace morvane;

// Every allocation of the program, the walk's included (kefl_core is linked in), goes through
// these: they count the bytes live and the most that were live since the last reset, so the heap's
// peak while the list grows can be set against what the list holds at the end.
namespace
{

std::atomic<uint64_t> g_cbLive{0};
std::atomic<uint64_t> g_cbPeak{0};
// Each block carries its size in front, so the deletes that are not given a size know it.
constexpr size_t kHeader = 16;

void* CountedAlloc(size_t cb)
{
    auto* p = static_cast<unsigned char*>(std::malloc(cb + kHeader));
    if (!p)
        return nullptr;
    *reinterpret_cast<size_t*>(p) = cb;
    const uint64_t cbLive = g_cbLive.fetch_add(cb, std::memory_order_relaxed) + cb;
    uint64_t cbPeak = g_cbPeak.load(std::memory_order_relaxed);
    while (cbLive > cbPeak && !g_cbPeak.compare_exchange_weak(cbPeak, cbLive, std::memory_order_relaxed))
    {
    }
    return p + kHeader;
}

void CountedFree(void* pv)
{
    if (!pv)
        return;
    auto* p = static_cast<unsigned char*>(pv) - kHeader;
    g_cbLive.fetch_sub(*reinterpret_cast<size_t*>(p), std::memory_order_relaxed);
    std::free(p);
}

void* CountedNew(size_t cb)
{
    void* p = CountedAlloc(cb == 0 ? 1 : cb);
    if (!p)
        throw std::bad_alloc();
    return p;
}

} // namespace

void* operator new(size_t cb)
{
    return CountedNew(cb);
}
void* operator new[](size_t cb)
{
    return CountedNew(cb);
}
void* operator new(size_t cb, const std::nothrow_t&) noexcept
{
    return CountedAlloc(cb == 0 ? 1 : cb);
}
void* operator new[](size_t cb, const std::nothrow_t&) noexcept
{
    return CountedAlloc(cb == 0 ? 1 : cb);
}
void operator delete(void* p) noexcept
{
    CountedFree(p);
}
void operator delete[](void* p) noexcept
{
    CountedFree(p);
}
void operator delete(void* p, size_t) noexcept
{
    CountedFree(p);
}
void operator delete[](void* p, size_t) noexcept
{
    CountedFree(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept
{
    CountedFree(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept
{
    CountedFree(p);
}

namespace
{

constexpr unsigned kGroups = 10;
constexpr unsigned kFoldersPerGroup = 100;
constexpr unsigned kFilesPerFolder = 1000;
constexpr size_t kGroupNameChars = 20;
constexpr size_t kNameChars = 40;
constexpr int kTimedWalks = 5; // of each size, after one untimed walk; the median is taken

const std::wstring kBenchDir = L"R:\\WalkBench";
const std::wstring kTree = kBenchDir + L"\\Tree";
const std::wstring kMarker = kBenchDir + L"\\Tree.complete";
const char kMarkerText[] = "10 groups of 100 folders of 1000 files, names of 40 characters\r\n";

constexpr double kTargetEntryOverhead = 64.0; // bytes an entry may take beside its name's own
constexpr double kTargetPeakMiB = 160.0;      // the million-entry walk, above its start
constexpr double kTargetGrowthPeak = 1.25;    // the heap's peak while growing / final HeapBytes
constexpr double kTargetLinearRatio = 1.2;

double g_dTicksPerSecond = 0.0;

double Seconds()
{
    LARGE_INTEGER li;
    ::QueryPerformanceCounter(&li);
    return static_cast<double>(li.QuadPart) / g_dTicksPerSecond;
}

// "<prefix><number>" filled up to cch characters with letters and digits: every name of a level
// has the same length.
std::wstring FixedName(const wchar_t* pwszPrefix, unsigned uiNumber, size_t cch)
{
    wchar_t wsz[32];
    _snwprintf(wsz, 32, L"%ls%07u-", pwszPrefix, uiNumber);
    std::wstring s = wsz;
    static const wchar_t kFill[] = L"abcdefghijklmnopqrstuvwxyz0123456789";
    for (size_t i = 0; s.size() < cch; ++i)
        s += kFill[i % (sizeof(kFill) / sizeof(kFill[0]) - 1)];
    s.resize(cch);
    return s;
}

std::wstring GroupPath(unsigned uiGroup)
{
    return kTree + L"\\" + FixedName(L"group", uiGroup, kGroupNameChars);
}

bool TreeIsComplete()
{
    CUniqueFile hFile(
        ::CreateFileW(kMarker.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    char sz[sizeof(kMarkerText)] = {};
    DWORD cbRead = 0;
    return hFile && ::ReadFile(hFile.get(), sz, sizeof(sz) - 1, &cbRead, nullptr) &&
           cbRead == sizeof(kMarkerText) - 1 && std::string(sz) == kMarkerText;
}

// Makes what is missing of the tree (a run that was stopped goes on where it was), then the
// marker. False when a folder or file cannot be made.
bool MakeTree()
{
    std::wprintf(L"Making the tree %ls (once: %u files under Wine take many minutes)\n", kTree.c_str(),
                 kGroups * kFoldersPerGroup * kFilesPerFolder);
    const double dStart = Seconds();
    auto MakeFolder = [](const std::wstring& s)
    { return ::CreateDirectoryW(s.c_str(), nullptr) || ::GetLastError() == ERROR_ALREADY_EXISTS; };
    if (!MakeFolder(kBenchDir) || !MakeFolder(kTree))
        return false;
    for (unsigned uiGroup = 0; uiGroup < kGroups; ++uiGroup)
    {
        const std::wstring sGroup = GroupPath(uiGroup);
        if (!MakeFolder(sGroup))
            return false;
        for (unsigned uiFolder = 0; uiFolder < kFoldersPerGroup; ++uiFolder)
        {
            const unsigned uiFolderNumber = uiGroup * kFoldersPerGroup + uiFolder;
            const std::wstring sFolder = sGroup + L"\\" + FixedName(L"folder", uiFolderNumber, kNameChars);
            if (!MakeFolder(sFolder))
                return false;
            for (unsigned uiFile = 0; uiFile < kFilesPerFolder; ++uiFile)
            {
                const std::wstring sFile =
                    sFolder + L"\\" +
                    FixedName(L"file", uiFolderNumber * kFilesPerFolder + uiFile, kNameChars);
                HANDLE h = ::CreateFileW(sFile.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                         FILE_ATTRIBUTE_NORMAL, nullptr);
                if (h == INVALID_HANDLE_VALUE)
                {
                    if (::GetLastError() != ERROR_FILE_EXISTS)
                        return false;
                }
                else
                    ::CloseHandle(h);
            }
        }
        std::wprintf(L"  %u of %u groups, %.0f s\n", uiGroup + 1, kGroups, Seconds() - dStart);
        std::fflush(stdout);
    }
    CUniqueFile hMarker(::CreateFileW(kMarker.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD cbWritten = 0;
    return hMarker && ::WriteFile(hMarker.get(), kMarkerText, sizeof(kMarkerText) - 1, &cbWritten, nullptr) &&
           cbWritten == sizeof(kMarkerText) - 1;
}

PROCESS_MEMORY_COUNTERS MemoryCounters()
{
    PROCESS_MEMORY_COUNTERS pmc = {};
    ::GetProcessMemoryInfo(::GetCurrentProcess(), &pmc, sizeof(pmc));
    return pmc;
}

constexpr double kMiB = 1024.0 * 1024.0;

// Figures of one size.
struct CSizeResult
{
    const wchar_t* pwszName = L"";
    uint32_t uiEntries = 0;
    double dBytesPerEntry = 0;
    double dEntryPartPerEntry = 0;
    double dNamePartPerEntry = 0;
    double dOwnNameBytes = 0; // the names' own characters, 2 bytes each, per entry
    uint64_t ullHeapBytes = 0;
    uint64_t ullHeapPeak = 0;    // the most the program had allocated during the walk, above its start
    SIZE_T cbPeakAboveStart = 0; // peak working set after the walk minus the start's working set
    SIZE_T cbPeakBefore = 0;     // the process's peak before the walk (to show it did not hide this one)
    double dSecondsPerEntry = 0; // the median walk's
    std::vector<double> vSeconds;
};

// One walk that also measures memory: run first for its size, with the list new and the heap's
// counters reset. cbStart: the working set its peak is set against. False when the walk fails.
bool MeasuredWalk(const std::wstring& sFolder, SIZE_T cbStart, CSizeResult& r)
{
    const PROCESS_MEMORY_COUNTERS pmcBefore = MemoryCounters();
    const uint64_t cbLiveBefore = g_cbLive.load();
    g_cbPeak.store(cbLiveBefore);
    CWalkList walk;
    if (!WalkFilespace(sFolder, walk))
        return false;
    const uint64_t cbHeapPeak = g_cbPeak.load() - cbLiveBefore;
    const PROCESS_MEMORY_COUNTERS pmcAfter = MemoryCounters();

    r.uiEntries = walk.Size();
    r.ullHeapBytes = walk.HeapBytes();
    r.ullHeapPeak = cbHeapPeak;
    r.cbPeakAboveStart = pmcAfter.PeakWorkingSetSize - cbStart;
    r.cbPeakBefore = pmcBefore.PeakWorkingSetSize;
    uint64_t cchNames = 0;
    for (uint32_t i = 0; i < walk.Size(); ++i)
        cchNames += walk.Entry(i).cchName;
    // The list's blocks: whole blocks of 4096 entries, whole name blocks of 16,384 characters.
    const uint64_t cbEntryBlocks = (walk.Size() + 4095) / 4096 * 4096 * sizeof(CWalkEntry);
    const double dEntries = walk.Size();
    r.dBytesPerEntry = static_cast<double>(r.ullHeapBytes) / dEntries;
    r.dEntryPartPerEntry = static_cast<double>(cbEntryBlocks) / dEntries;
    r.dNamePartPerEntry = static_cast<double>(r.ullHeapBytes - cbEntryBlocks) / dEntries;
    r.dOwnNameBytes = static_cast<double>(cchNames * sizeof(wchar_t)) / dEntries;
    return true;
}

bool TimedWalk(const std::wstring& sFolder, CSizeResult& r)
{
    CWalkList walk;
    const double dStart = Seconds();
    const bool bOk = WalkFilespace(sFolder, walk);
    const double dSeconds = Seconds() - dStart;
    r.vSeconds.push_back(dSeconds);
    return bOk && walk.Size() == r.uiEntries;
}

void TakeMedian(CSizeResult& r)
{
    std::vector<double> v = r.vSeconds;
    std::sort(v.begin(), v.end());
    r.dSecondsPerEntry = v[v.size() / 2] / r.uiEntries;
}

const wchar_t* Mark(bool bPass)
{
    return bPass ? L"PASS" : L"MISS";
}

void PrintSize(const CSizeResult& r)
{
    std::wprintf(L"%ls: %u entries\n", r.pwszName, r.uiEntries);
    std::wprintf(L"  bytes per entry %.1f (entry blocks %.1f, name blocks %.1f; the name's own %.1f)\n",
                 r.dBytesPerEntry, r.dEntryPartPerEntry, r.dNamePartPerEntry, r.dOwnNameBytes);
    std::wprintf(L"  HeapBytes %.1f MiB; the heap's peak during the walk %.1f MiB (%.3f x HeapBytes)\n",
                 r.ullHeapBytes / kMiB, r.ullHeapPeak / kMiB,
                 static_cast<double>(r.ullHeapPeak) / static_cast<double>(r.ullHeapBytes));
    std::wprintf(
        L"  peak working set %.1f MiB above the start (%.3f x HeapBytes; the process's peak before the walk "
        L"%.1f MiB)\n",
        r.cbPeakAboveStart / kMiB, static_cast<double>(r.cbPeakAboveStart) / r.ullHeapBytes,
        r.cbPeakBefore / kMiB);
    std::wprintf(L"  walks:");
    for (double d : r.vSeconds)
        std::wprintf(L" %.3f s", d);
    std::wprintf(L"; median %.0f entries/s, %.2f us an entry\n", 1.0 / r.dSecondsPerEntry,
                 r.dSecondsPerEntry * 1e6);
}

} // namespace

int main()
{
    LARGE_INTEGER liFreq;
    ::QueryPerformanceFrequency(&liFreq);
    g_dTicksPerSecond = static_cast<double>(liFreq.QuadPart);
    // The walk's own cost, not the trace's: errors only (the walk writes none when it succeeds).
    g_KeflTrace.SetTraceLevel(1);

    if (!TreeIsComplete())
    {
        if (!MakeTree())
        {
            std::wprintf(L"Cannot make the tree %ls (error %lu)\n", kTree.c_str(), ::GetLastError());
            return 2;
        }
    }
    const unsigned nFolders = kGroups * kFoldersPerGroup;
    const uint32_t uiBigEntries = kGroups + nFolders * (1 + kFilesPerFolder);
    const uint32_t uiSmallEntries = kFoldersPerGroup * (1 + kFilesPerFolder);

    CSizeResult small;
    small.pwszName = L"100,000 files (one group)";
    CSizeResult big;
    big.pwszName = L"1,000,000 files (the tree)";
    // The memory walks first, smallest first. The process's peak working set only grows, so each
    // walk's peak is read from it while no larger walk has run yet, against the working set before
    // the first walk: whatever the smaller walk left on the heap counts against the larger one.
    const SIZE_T cbStart = MemoryCounters().WorkingSetSize;
    if (!MeasuredWalk(GroupPath(0), cbStart, small) || !MeasuredWalk(kTree, cbStart, big))
    {
        std::wprintf(L"The walk failed (error %lu)\n", ::GetLastError());
        return 2;
    }
    if (big.uiEntries != uiBigEntries || small.uiEntries != uiSmallEntries)
    {
        std::wprintf(L"The walks found %u and %u entries, the tree has %u and %u: remove %ls and run again\n",
                     big.uiEntries, small.uiEntries, uiBigEntries, uiSmallEntries, kBenchDir.c_str());
        return 2;
    }
    // The memory walks also warmed the caches. The sizes take turns, so that whatever else the
    // machine does falls on both alike.
    for (int i = 0; i < kTimedWalks; ++i)
    {
        if (!TimedWalk(GroupPath(0), small) || !TimedWalk(kTree, big))
        {
            std::wprintf(L"A timed walk failed or found another count\n");
            return 2;
        }
    }
    TakeMedian(small);
    TakeMedian(big);
    PrintSize(small);
    PrintSize(big);

    const double dRatio = big.dSecondsPerEntry / small.dSecondsPerEntry;
    const bool bBytes = big.dBytesPerEntry <= kTargetEntryOverhead + big.dOwnNameBytes &&
                        small.dBytesPerEntry <= kTargetEntryOverhead + small.dOwnNameBytes;
    const bool bPeak = big.cbPeakAboveStart / kMiB < kTargetPeakMiB;
    const bool bGrowth = big.ullHeapPeak <= kTargetGrowthPeak * big.ullHeapBytes &&
                         small.ullHeapPeak <= kTargetGrowthPeak * small.ullHeapBytes;
    std::wprintf(L"time per entry, 1,000,000 / 100,000: %.2f\n", dRatio);
    std::wprintf(L"%ls bytes per entry <= 64 + the name's own bytes: %.1f <= %.1f\n", Mark(bBytes),
                 big.dBytesPerEntry, kTargetEntryOverhead + big.dOwnNameBytes);
    std::wprintf(L"%ls peak working set of the 1,000,000-entry walk < %.0f MiB above its start: %.1f MiB\n",
                 Mark(bPeak), kTargetPeakMiB, big.cbPeakAboveStart / kMiB);
    std::wprintf(L"%ls the heap's peak while growing <= %.2f x the final HeapBytes: %.3f\n", Mark(bGrowth),
                 kTargetGrowthPeak, static_cast<double>(big.ullHeapPeak) / big.ullHeapBytes);
    std::wprintf(L"%ls time per entry ratio <= %.1f: %.2f\n", Mark(dRatio <= kTargetLinearRatio),
                 kTargetLinearRatio, dRatio);
    return 0;
}
