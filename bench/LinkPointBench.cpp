// What reading the link-point files costs as they grow: ParsePoint on INI-form files of 1000 to
// 8000 sections, ParseHPoint on HPoint.dat files of 25,000 to 200,000 hard-link lines. Each size
// is timed in several rounds, the median counts; the figure compared is the time per entry, which
// stays flat while the reader is linear in the file's size.
//
// Every ParsePoint round reads a file that the system has not read before (a new modification
// time), since the profile functions keep a parsed copy of a file while its name and time stay
// the same: the first read of a file is what a restore pays. For information the program also
// times the part that the profile functions take: reading the section names alone (once with a
// buffer that holds them all, and as ParsePoint does, growing the buffer in steps), and one key
// lookup per section.
#include "links/LinkPointFiles.h"
#include "platform/UniqueHandle.h"
#include "trace/TraceObjects.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

using namespace morvane;

namespace
{

constexpr int kPointRounds = 3;
constexpr int kHPointRounds = 5;
constexpr size_t kSectionCounts[] = {1000, 2000, 4000, 8000};
// Hard-link lines (H1, H2, ...) per file; each group has one H1 line and four more names.
constexpr size_t kHardLinkLineCounts[] = {25000, 50000, 100000, 200000};
constexpr size_t kNamesPerGroup = 5;
constexpr double kTargetRatio = 1.5;

constexpr wchar_t kBenchDir[] = L"R:\\LinkPointBench";

double g_dTicksPerSecond = 0.0;

LARGE_INTEGER Now()
{
    LARGE_INTEGER li;
    ::QueryPerformanceCounter(&li);
    return li;
}

double SecondsSince(const LARGE_INTEGER& liStart)
{
    const LARGE_INTEGER liNow = Now();
    return static_cast<double>(liNow.QuadPart - liStart.QuadPart) / g_dTicksPerSecond;
}

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 != 0 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2.0;
}

// Writes a file whole and gives it a modification time of its own, so that no cached copy of an
// earlier content can answer for it. The time lies a day back, as a backup's files do: Wine's
// profile functions read a file written within the last two seconds (or dated ahead) anew on
// every call, which would time that re-reading instead of the reader.
bool WriteBenchFile(const std::wstring& sPath, const std::string& sText)
{
    CUniqueFile hFile(::CreateFileW(sPath.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!hFile)
    {
        std::printf("error: cannot create %ls (%lu)\n", sPath.c_str(), ::GetLastError());
        return false;
    }
    DWORD cbWritten = 0;
    if (!::WriteFile(hFile.get(), sText.data(), static_cast<DWORD>(sText.size()), &cbWritten, nullptr) ||
        cbWritten != sText.size())
    {
        std::printf("error: cannot write %ls (%lu)\n", sPath.c_str(), ::GetLastError());
        return false;
    }
    static ULONGLONG s_ullTick = 0;
    FILETIME ft;
    ::GetSystemTimeAsFileTime(&ft);
    ULARGE_INTEGER t;
    t.LowPart = ft.dwLowDateTime;
    t.HighPart = ft.dwHighDateTime;
    t.QuadPart -= 24ULL * 3600 * 10000000ULL;
    t.QuadPart += ++s_ullTick * 10000000ULL;
    ft.dwLowDateTime = t.LowPart;
    ft.dwHighDateTime = t.HighPart;
    return ::SetFileTime(hFile.get(), nullptr, nullptr, &ft) != FALSE;
}

// A JPoint.dat of cSections junctions, names and paths of a usual length.
std::string PointFileText(size_t cSections)
{
    std::string sText;
    sText.reserve(cSections * 140);
    for (size_t i = 0; i < cSections; ++i)
    {
        const std::string sNumber = std::to_string(i);
        sText += "[C:\\Users\\Public\\Documents\\Junction" + sNumber + "]\r\nTarget=D:\\Data\\Folder" +
                 sNumber + "\r\nBackupTarget=R:\\Backup\\D\\Data\\Folder" + sNumber + "\r\nAttr=16\r\n";
    }
    return sText;
}

// An HPoint.dat of cLines hard-link lines in groups of kNamesPerGroup names.
std::string HPointFileText(size_t cLines)
{
    std::string sText;
    sText.reserve(cLines * 45);
    for (size_t iGroup = 0; iGroup * kNamesPerGroup < cLines; ++iGroup)
    {
        const std::string sGroup = std::to_string(iGroup);
        sText += "[" + sGroup + "]\r\nB=R:\\Backup\\C\\Data\\File" + sGroup + ".dll\r\n";
        for (size_t iName = 1; iName <= kNamesPerGroup; ++iName)
            sText += "H" + std::to_string(iName) + "=C:\\Data\\Dir" + std::to_string(iName) + "\\File" +
                     sGroup + ".dll\r\n";
    }
    return sText;
}

// The section-name list read as ParsePoint reads it: first buffer 1024 characters, 1024 more for
// each time the list comes back cut.
DWORD ReadSectionNamesGrowing(const std::wstring& sPath)
{
    DWORD cchBuffer = 1024;
    std::vector<wchar_t> vNames;
    for (;;)
    {
        vNames.resize(cchBuffer);
        const DWORD dwSize = ::GetPrivateProfileSectionNamesW(vNames.data(), cchBuffer, sPath.c_str());
        if (dwSize != cchBuffer - 2)
            return dwSize;
        cchBuffer += 1024;
    }
}

struct CSizeResult
{
    size_t cEntries = 0;
    double dUsPerEntry = 0.0;
};

void PrintRatio(const char* pszWhat, const std::vector<CSizeResult>& vResults, bool bTarget)
{
    const double dRatio = vResults.back().dUsPerEntry / vResults.front().dUsPerEntry;
    std::printf("  %-44s %zu / %zu entries: %6.2f", pszWhat, vResults.back().cEntries,
                vResults.front().cEntries, dRatio);
    if (bTarget)
        std::printf("   target <= %.1f   %s\n", kTargetRatio, dRatio <= kTargetRatio ? "PASS" : "MISS");
    else
        std::printf("   (information)\n");
}

// Times ParsePoint and the profile functions under it; false when a read went wrong.
bool BenchParsePoint()
{
    std::printf("\nParsePoint (JPoint.dat form), median of %d rounds, each on a file not read before\n",
                kPointRounds);
    std::printf("  %8s  %9s  %12s  %14s  %14s  %14s\n", "sections", "ms", "us/section", "names, 1 call",
                "names, growing", "lookups");
    std::vector<CSizeResult> vParse, vNamesOnce, vNamesGrowing, vLookups;
    for (size_t cSections : kSectionCounts)
    {
        const std::string sText = PointFileText(cSections);
        const std::wstring sPath =
            std::wstring(kBenchDir) + L"\\JPoint" + std::to_wstring(cSections) + L".dat";
        std::vector<double> vParseS, vNamesOnceS, vNamesGrowingS, vLookupsS;
        for (int iRound = 0; iRound < kPointRounds; ++iRound)
        {
            if (!WriteBenchFile(sPath, sText))
                return false;
            PointList list;
            LARGE_INTEGER liStart = Now();
            const bool bRead = ParsePoint(sPath, list);
            vParseS.push_back(SecondsSince(liStart));
            if (!bRead || list.size() != cSections)
            {
                std::printf("error: ParsePoint read %zu of %zu sections\n", list.size(), cSections);
                return false;
            }

            // The profile functions alone, each on a fresh copy of the file again.
            if (!WriteBenchFile(sPath, sText))
                return false;
            std::vector<wchar_t> vAll(cSections * 64 + 2);
            liStart = Now();
            const DWORD dwOnce =
                ::GetPrivateProfileSectionNamesW(vAll.data(), static_cast<DWORD>(vAll.size()), sPath.c_str());
            vNamesOnceS.push_back(SecondsSince(liStart)); // includes loading the file

            liStart = Now();
            const DWORD dwGrowing = ReadSectionNamesGrowing(sPath);
            vNamesGrowingS.push_back(SecondsSince(liStart)); // from the loaded copy
            if (dwOnce != dwGrowing || dwOnce == 0)
            {
                std::printf("error: the section names came back with %lu and %lu characters\n", dwOnce,
                            dwGrowing);
                return false;
            }

            wchar_t wszValue[4096];
            liStart = Now();
            for (const wchar_t* pwsz = vAll.data(); *pwsz != L'\0'; pwsz += std::wcslen(pwsz) + 1)
                ::GetPrivateProfileStringW(pwsz, L"Target", L"", wszValue, 4096, sPath.c_str());
            vLookupsS.push_back(SecondsSince(liStart));
        }
        const double dParseS = Median(vParseS);
        const double dPerSection = 1e6 / static_cast<double>(cSections);
        vParse.push_back({cSections, dParseS * dPerSection});
        vNamesOnce.push_back({cSections, Median(vNamesOnceS) * dPerSection});
        vNamesGrowing.push_back({cSections, Median(vNamesGrowingS) * dPerSection});
        vLookups.push_back({cSections, Median(vLookupsS) * dPerSection});
        std::printf("  %8zu  %9.1f  %12.2f  %11.2f us  %11.2f us  %11.2f us\n", cSections, dParseS * 1e3,
                    vParse.back().dUsPerEntry, vNamesOnce.back().dUsPerEntry,
                    vNamesGrowing.back().dUsPerEntry, vLookups.back().dUsPerEntry);
        ::DeleteFileW(sPath.c_str());
    }
    std::printf("  per-section time, largest / smallest file\n");
    PrintRatio("ParsePoint", vParse, true);
    PrintRatio("section names, one call (loads the file)", vNamesOnce, false);
    PrintRatio("section names, buffer grown by 1024", vNamesGrowing, false);
    PrintRatio("one GetPrivateProfileStringW per section", vLookups, false);
    return true;
}

// Times ParseHPoint; false when a read went wrong.
bool BenchParseHPoint()
{
    std::printf("\nParseHPoint (HPoint.dat), median of %d rounds\n", kHPointRounds);
    std::printf("  %8s  %9s  %12s\n", "lines", "ms", "us/line");
    std::vector<CSizeResult> vParse;
    for (size_t cLines : kHardLinkLineCounts)
    {
        const std::wstring sPath = std::wstring(kBenchDir) + L"\\HPoint" + std::to_wstring(cLines) + L".dat";
        if (!WriteBenchFile(sPath, HPointFileText(cLines)))
            return false;
        const size_t cExpected = cLines / kNamesPerGroup * (kNamesPerGroup - 1);
        std::vector<double> vParseS;
        for (int iRound = 0; iRound < kHPointRounds; ++iRound)
        {
            PointList list;
            const LARGE_INTEGER liStart = Now();
            const bool bRead = ParseHPoint(sPath, list);
            vParseS.push_back(SecondsSince(liStart));
            if (!bRead || list.size() != cExpected)
            {
                std::printf("error: ParseHPoint gave %zu of %zu Points\n", list.size(), cExpected);
                return false;
            }
        }
        const double dParseS = Median(vParseS);
        vParse.push_back({cLines, dParseS * 1e6 / static_cast<double>(cLines)});
        std::printf("  %8zu  %9.1f  %12.3f\n", cLines, dParseS * 1e3, vParse.back().dUsPerEntry);
        ::DeleteFileW(sPath.c_str());
    }
    std::printf("  per-line time, largest / smallest file\n");
    PrintRatio("ParseHPoint", vParse, true);
    return true;
}

int RunBench()
{
    LARGE_INTEGER liFrequency;
    ::QueryPerformanceFrequency(&liFrequency);
    g_dTicksPerSecond = static_cast<double>(liFrequency.QuadPart);

    // Errors and warnings only: a value line per entry would time the trace, not the reading.
    g_KeflTrace.SetTraceLevel(2);

    std::printf("KEFL link-point file benchmark\n");
    std::printf("  folder           %ls\n", kBenchDir);
    if (!::CreateDirectoryW(kBenchDir, nullptr) && ::GetLastError() != ERROR_ALREADY_EXISTS)
    {
        std::printf("error: cannot create %ls (%lu)\n", kBenchDir, ::GetLastError());
        return 2;
    }
    const bool bDone = BenchParsePoint() && BenchParseHPoint();
    ::RemoveDirectoryW(kBenchDir);
    return bDone ? 0 : 2;
}

} // namespace

int main()
{
    return RunBench();
}
