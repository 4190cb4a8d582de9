// Whole sessions with one of KEFL.dll's system calls failed at a time, each call number of a spread
// in a session of its own, in child processes so that a crash or a hang costs one run, not the
// sweep. Counted and failed at KEFL.dll's imports over the Wine stand-ins (Wine counts no handles).
#include "dll/SessionFixture.h"
#include "support/BackupStreams.h"
#include "winecompat/LinkStandIns.h"
#include <atomic>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

using namespace kefltest;
namespace
{

// A function KEFL.dll calls, failed with dwError in the sweep (when set), counted always. Handles
// come as the answer (iOut -1) or through argument iOut, a second through iOut2 (iOut: right behind
// the first); kind "" takes back its first argument.
struct CCall
{
    const char *pszDll, *pszName;
    DWORD dwError = 0;
    const char* pszKind = nullptr;
    int iOut = -1, iOut2 = -1;
};
constexpr const char *kK32 = "KERNEL32.dll", *kAdv = "ADVAPI32.dll";
constexpr DWORD kDenied = ERROR_ACCESS_DENIED;
constexpr CCall kCalls[] = {
    {kK32, "CreateFileW", kDenied, "file"}, {kK32, "ReadFile", ERROR_CRC}, {kK32, "WriteFile", ERROR_DISK_FULL},
    {kK32, "BackupRead", ERROR_CRC}, {kK32, "BackupWrite", ERROR_DISK_FULL}, {kK32, "CreateDirectoryW", kDenied},
    {kK32, "FindFirstFileW", kDenied, "find"}, {kK32, "FindNextFileW", ERROR_NETNAME_DELETED},
    {kK32, "SetFileAttributesW", kDenied}, {kK32, "CreateHardLinkW", kDenied}, {kK32, "DeleteFileW", kDenied},
    {kK32, "DeviceIoControl", kDenied}, {nullptr, "CreateSymbolicLinkW", kDenied}, // looked up only
    {kK32, "CreatePipe", ERROR_NOT_ENOUGH_MEMORY, "pipe", 0, 1},
    {kK32, "CreateProcessW", ERROR_NOT_ENOUGH_MEMORY, "process", 9, 9},
    {kK32, "GetVolumeNameForVolumeMountPointW", ERROR_NOT_READY},
    {kK32, "GetVolumePathNamesForVolumeNameW", ERROR_NOT_READY}, {"msvcrt.dll", "malloc", ENOMEM},
    {kK32, "SetFileTime", kDenied}, {kK32, "MoveFileExW", kDenied}, {kAdv, "OpenProcessToken", kDenied, "token", 2},
    {kAdv, "AdjustTokenPrivileges", kDenied}, {kAdv, "LookupPrivilegeValueW", kDenied},
    {kK32, "CreateMutexW", 0, "mutex"}, {kK32, "CreateEventW", 0, "event"}, {kK32, "CreateThread", 0, "thread"},
    {kK32, "DuplicateHandle", 0, "duplicate", 3}, {kK32, "CloseHandle", 0, ""}, {kK32, "FindClose", 0, ""}};
constexpr size_t kRows = std::size(kCalls);
// A session's calls by function, on the trace's own file (1) apart; the handles open, each with
// whether it is the trace's. The command monitor thread calls too.
std::atomic<int> g_aaCalls[kRows][2];
std::atomic<size_t> g_iFailRow = kRows;
std::atomic<int> g_iFailTrace = 0, g_iFailCall = 0;
std::mutex g_lock;
std::map<HANDLE, bool> g_live;
void* g_apReal[kRows];
void* g_apStandIn[kRows];

// On x64 each of these takes integers and pointers and answers one in RAX (a BOOL in its low half):
// one stand-in passes any of them on with the ten arguments of the longest, CreateProcessW.
using U = uintptr_t;
template <size_t i> U Counted(U a0, U a1, U a2, U a3, U a4, U a5, U a6, U a7, U a8, U a9)
{
    static constexpr CCall c = kCalls[i];
    const U auArgs[] = {a0, a1, a2, a3, a4, a5, a6, a7, a8, a9};
    const std::string_view sName = c.pszName;
    std::unique_lock lock(g_lock);
    const auto it = g_live.find((HANDLE)a0);
    const int iTrace = sName == "CreateFileW" ? std::wcsstr((LPCWSTR)a0, L"_trace.log") != nullptr
                                              : sName.ends_with("eFile") && it != g_live.end() && it->second;
    lock.unlock();
    if (++g_aaCalls[i][iTrace] == g_iFailCall && g_iFailRow == i && g_iFailTrace == iTrace)
        return (sName == "malloc" ? void(errno = ENOMEM) : ::SetLastError(c.dwError)), c.pszKind && c.iOut < 0 ? ~U(0) : 0;
    const U r = reinterpret_cast<decltype(&Counted<i>)>(g_apReal[i])(a0, a1, a2, a3, a4, a5, a6, a7, a8, a9);
    const bool bOk = c.iOut >= 0 || !*c.pszKind ? DWORD(r) != 0 : r != 0 && r != ~U(0);
    if (!c.pszKind || !bOk || (c.iOut >= 0 && !auArgs[c.iOut])) // failed, or a duplication that only closes
        return r;
    const std::lock_guard relock(g_lock);
    const auto ph = c.iOut >= 0 ? reinterpret_cast<const HANDLE*>(auArgs[c.iOut]) : reinterpret_cast<const HANDLE*>(&r);
    if (!*c.pszKind)
        return g_live.erase((HANDLE)a0), r;
    g_live[ph[0]] = iTrace;
    if (c.iOut2 >= 0)
        g_live[c.iOut2 == c.iOut ? ph[1] : *reinterpret_cast<const HANDLE*>(auArgs[c.iOut2])] = false;
    return r;
}

// CreateSymbolicLinkW and CreateHardLinkW are looked up by name: the counted ones answer there.
decltype(&::GetProcAddress) g_pfnGetProcAddress = nullptr;
FARPROC WINAPI LookUpCounted(HMODULE hModule, LPCSTR pszName)
{
    FARPROC pfn = g_pfnGetProcAddress(hModule, pszName);
    for (size_t i = 0; i < kRows && pfn && reinterpret_cast<uintptr_t>(pszName) > 0xFFFF; ++i)
        if (std::string_view(pszName) == kCalls[i].pszName)
            return g_apReal[i] = g_apReal[i] ? g_apReal[i] : (void*)pfn, (FARPROC)g_apStandIn[i];
    return pfn;
}

// Drive E: in the backup: nested folders, files past 64 KiB (reads and writes repeat), a hard-link
// group of three; a junction and a symbolic link (recorded: Wine makes none).
const std::wstring kFiles[] = {L"a.txt", L"big.bin", L"h1.bin", L"Docs\\b.txt", L"Docs\\big.bin", L"Docs\\h2.bin",
                               L"Docs\\Sub\\c.txt", L"Docs\\Sub\\big.bin", L"Docs\\Sub\\Deep\\d.txt", L"Media\\e.bin",
                               L"Media\\h3.bin", L"Media\\Old\\f.txt", L"Media\\Old\\big.bin", L"g.txt"};
const std::wstring kGroup[] = {L"E:\\h1.bin", L"E:\\Docs\\h2.bin", L"E:\\Media\\h3.bin"};
const std::string kGroupBytes = Pattern(90000, 7);
constexpr const char* kColumns[] = {"runs",       "crashes",   "hangs",         "silent losses", "lost names",
                                    "leaks",      "long waits", "trace changed", "Fini false"};

// A session's four results, an error shown to the host, the filespaces listed, E: as backed up,
// whole names of the group the link pass lost, handles kept after Fini, time.
struct CRun
{
    std::string sResults, sList = "-";
    bool bFini = false, bError = false, bFilesOk = false;
    int iLost = 0, iLeaks = 0;
    ULONGLONG ullMs = 0;
};

// The child's run under way: its watchdog ends the run as a hang after 120 s.
std::atomic<ULONGLONG> g_ullRunStart = 0;
FILE* g_pResults = nullptr;

} // namespace

using FaultInjectionTest = SessionFixture;

TEST_F(FaultInjectionTest, EveryFailedCallEndsInAnErrorOrAWholeRestore)
{
    const auto session = [&]
    {
        RemoveTree(L"E:", true), RemoveTree(L"R:\\Cfg");
        g_vMessages.clear();
        for (auto& aCalls : g_aaCalls)
            aCalls[0] = aCalls[1] = 0;
        const size_t cLive = g_live.size(); // no session under way: nothing else changes it
        const ULONGLONG ullStart = ::GetTickCount64();
        CRun run;
        const auto result = [&](bool b) { run.bError |= ErrorText() != L"No error", run.sResults += "01"[b]; };
        result(m_pClient->Init(Credentials(kBackup).get()));
        std::vector<morvane::Filespace> vFilespaces;
        result(m_pClient->GetFilespaceList(vFilespaces));
        morvane::Filespace fs{};
        fs.wcFsDriveLetter = L'E', fs.sFsPath = L"E:\\";
        result(m_pClient->RestoreFilespace(fs));
        run.bFilesOk = std::all_of(std::begin(kFiles), std::end(kFiles), [](const std::wstring& s)
                                   { return ReadBytes(L"E:\\" + s) == ReadBytes(L"R:\\Backup\\E\\" + s); });
        bool abWhole[std::size(kGroup)];
        for (size_t i = 0; i < std::size(kGroup); ++i)
            abWhole[i] = ReadBytes(kGroup[i]) == kGroupBytes;
        result(m_pClient->RestoreLinks());
        for (size_t i = 0; i < std::size(kGroup); ++i)
            run.iLost += abWhole[i] && ReadBytes(kGroup[i]) != kGroupBytes;
        run.bFini = m_pClient->Fini();
        for (const CMessage& message : g_vMessages)
            run.bError |= message.uiSeverity == morvane::MSG_SEVERITY_ERROR;
        for (const morvane::Filespace& listed : vFilespaces)
            run.sList += char(listed.wcFsDriveLetter) + std::to_string(listed.dwFsFlags);
        run.iLeaks = static_cast<int>(g_live.size() - cLive), run.ullMs = ::GetTickCount64() - ullStart;
        return run;
    };
    const HMODULE hKefl = m_pLibrary->Module();
    const CBackupStreamPatches streams(hKefl);
    const winecompat::CLinkPatches links(hKefl);
    [&]<size_t... i>(std::index_sequence<i...>) { ((g_apStandIn[i] = (void*)&Counted<i>), ...); }
    (std::make_index_sequence<kRows>());
    for (size_t i = 0; i < kRows; ++i)
        if (kCalls[i].pszDll)
            g_apReal[i] = m_patches.Patch(hKefl, kCalls[i].pszDll, kCalls[i].pszName, g_apStandIn[i]);
    g_pfnGetProcAddress = m_patches.Patch(hKefl, kK32, "GetProcAddress", &LookUpCounted);
    // The command monitor's pause of a second between polls of XCOPY is most of a session's time.
    // The restore's own waits stay: a long one is what the sweep looks for.
    static decltype(&::Sleep) s_pfnSleep = nullptr;
    s_pfnSleep = m_patches.Patch(hKefl, kK32, "Sleep", +[](DWORD dwMs) { s_pfnSleep(dwMs == 1000 ? 10 : dwMs); });
    // Errors, warnings and information: the trace's own calls are swept too; verbose lines cost time.
    WriteTraceIni({{L"KEFL_TraceLevel", L"3"}, {L"VESK_TraceLevel", L"3"}});
    m_pClient = m_pLibrary->Factory(); // looks the link functions up at the counted ones
    m_pClient->SetLogMsgCallbackFn(&RecordMessage, 0);
    // The configuration is on drive D:, copied to R:\Cfg by XCOPY during the listing.
    WriteTextFile(HostDir() + L"\\qtx.ini", "[File Locations]\r\nConfig=R:\\Cfg\r\n");
    MakeFolders(L"R:\\Backup\\D\\ZOVACFG");
    WriteTextFile(L"R:\\Backup\\#\\disrec.ini", "[WinDir]\r\nDriveLetter=C\r\nDirectory=\\W\r\nPhysicalDrive=0\r\n"
                                                "BootDriveLetter=D\r\n[PhysicalDrive0]\r\nPartitionStyle=0\r\n");
    WriteTextFile(L"R:\\Backup\\#\\JPoint.dat", "[E:\\JLink]\r\nTarget=E:\\Docs\r\nBackupTarget=R:\\x\r\n");
    WriteTextFile(L"R:\\Backup\\#\\SPoint.dat", "[E:\\SLink.txt]\r\nTarget=E:\\a.txt\r\nBackupTarget=R:\\x\r\n");
    WriteTextFile(L"R:\\Backup\\#\\HPoint.dat", "[1]\r\nH1=E:\\h1.bin\r\nH2=E:\\Docs\\h2.bin\r\nH3=E:\\Media\\h3.bin");
    for (uint32_t i = 0; i < std::size(kFiles); ++i) // the group's files start with "h"
        MakeFolders((L"R:\\Backup\\E\\" + kFiles[i]).substr(0, 12 + kFiles[i].rfind(L'\\'))),
            WriteBytes(L"R:\\Backup\\E\\" + kFiles[i], kFiles[i].find(L'h') != std::wstring::npos ? kGroupBytes
                                       : Pattern(kFiles[i].ends_with(L"big.bin") ? 150000 + i : 3000 * i, i));
    ::FreeConsole(); // Wine cannot open "CONIN$" of the test program's own console
    const CRun clean = session(); // counts the calls
    EXPECT_TRUE(clean.sResults == "1111" && clean.bFilesOk && clean.bFini && !clean.bError && !clean.iLost &&
                !clean.iLeaks);
    int aaClean[kRows][2]; // the clean session's calls: each session counts its own
    for (size_t i = 0; i < kRows; ++i)
        aaClean[i][0] = g_aaCalls[i][0], aaClean[i][1] = g_aaCalls[i][1];
    const int cSpread = ::GetEnvironmentVariableW(L"KEFL_TESTS_QUICK", nullptr, 0) ? 4 : 16;
    const auto callNumber = [&](size_t i, int iTrace, int k)
    { return aaClean[i][iTrace] <= cSpread ? k + 1 : 1 + k * (aaClean[i][iTrace] - 1) / (cSpread - 1); };

    // A child: its function's spread from the kth number on; a line for each run, once it has ended,
    // with the columns that it counts in.
    size_t iRow = kRows;
    int iTrace = 0, k = 0;
    if (char szRuns[64] = ""; ::GetEnvironmentVariableA("KEFL_FAULT_RUNS", szRuns, sizeof(szRuns)))
    {
        std::istringstream(szRuns) >> iRow >> iTrace >> k;
        ASSERT_TRUE(g_pResults = std::fopen("kefl-fault-runs.txt", "a"));
        std::thread([] {
            for (;; ::Sleep(500))
                if (const ULONGLONG ull = g_ullRunStart; ull && ::GetTickCount64() - ull > 120000)
                    std::fprintf(g_pResults, "%d 2\n", g_iFailCall.load()), std::fflush(g_pResults),
                        ::TerminateProcess(::GetCurrentProcess(), 4);
        }).detach();
        for (const int cRuns = std::min(aaClean[iRow][iTrace], cSpread); k < cRuns; ++k)
        {
            g_iFailRow = iRow, g_iFailTrace = iTrace, g_iFailCall = callNumber(iRow, iTrace, k);
            g_ullRunStart = ::GetTickCount64();
            const CRun run = session();
            g_ullRunStart = 0;
            const bool abFailed[] = {!run.bError && ((run.sResults[1] == '1' && run.sList != clean.sList) ||
                                                     (run.sResults[2] == '1' && !run.bFilesOk)),
                                     run.iLost > 0, run.iLeaks > clean.iLeaks, run.ullMs > 60000,
                                     iTrace && run.sResults != clean.sResults, !run.bFini};
            std::fprintf(g_pResults, "%d", g_iFailCall.load());
            for (size_t j = 0; j < std::size(abFailed); ++j)
                std::fprintf(g_pResults, abFailed[j] ? " %zu" : "", 3 + j);
            std::fprintf(g_pResults, " | results %s, list %s, names lost %d, handles kept %d, %llu ms\n",
                         run.sResults.c_str(), run.sList.c_str(), run.iLost, run.iLeaks, run.ullMs);
            std::fflush(g_pResults);
        }
        return;
    }

    // The parent: each function's spread in children, a new one after a crash or a hang.
    const ULONGLONG ullStart = ::GetTickCount64();
    const std::wstring sExe = HostDir() + L"\\kefl_dll_tests.exe", sFile = HostDir() + L"\\kefl-fault-runs.txt";
    std::string sTable = "function                             calls";
    for (const char* pszColumn : kColumns)
        sTable += std::string(" | ") + pszColumn;
    for (iRow = 0; iRow < kRows; ++iRow)
        for (iTrace = 0; iTrace < 2; ++iTrace)
        {
            const int cRuns = std::min(aaClean[iRow][iTrace], cSpread);
            if (!kCalls[iRow].dwError || cRuns == 0) // not reached (or not on this system)
                continue;
            const std::string sName = kCalls[iRow].pszName + std::string(iTrace ? " (trace)" : "");
            int aTally[std::size(kColumns)] = {};
            for (k = 0; k < cRuns;)
            {
                const std::string sRuns = std::to_string(iRow) + " " + std::to_string(iTrace) + " " + std::to_string(k);
                ::DeleteFileW(sFile.c_str()), ::SetEnvironmentVariableA("KEFL_FAULT_RUNS", sRuns.c_str());
                std::wstring sCommand = L"\"" + sExe + L"\" --gtest_filter=FaultInjectionTest.*";
                STARTUPINFOW si{sizeof(si), {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}};
                PROCESS_INFORMATION pi{};
                DWORD dwExit = 0; // detached: the session makes a console of its own for XCOPY
                ASSERT_TRUE(::CreateProcessW(sExe.c_str(), sCommand.data(), nullptr, nullptr, FALSE,
                                             DETACHED_PROCESS, nullptr, HostDir().c_str(), &si, &pi));
                ::WaitForSingleObject(pi.hProcess, INFINITE), ::GetExitCodeProcess(pi.hProcess, &dwExit);
                ::CloseHandle(pi.hThread), ::CloseHandle(pi.hProcess);
                std::ifstream results(std::string(sFile.begin(), sFile.end())); // ASCII
                bool bHang = false;
                for (std::string sLine; k < cRuns && !bHang && std::getline(results, sLine); ++k, ++aTally[0])
                {
                    std::istringstream line(sLine.substr(sLine.find(' ')));
                    for (size_t j = 0; line >> j; bHang |= j == 2)
                        ++aTally[j], ADD_FAILURE() << sName << " #" << callNumber(iRow, iTrace, k) << ": "
                                                   << kColumns[j] << " (" << sLine.substr(sLine.find('|') + 1) << ")";
                }
                if (k == cRuns || bHang)
                    continue;
                std::string sLast; // the run that crashed the child: the last lines of its trace
                const CLines log = KeflLog();
                for (size_t j = log.size() > 6 ? log.size() - 6 : 0; j < log.size(); ++j)
                    sLast += "\n    " + std::string(log[j].begin(), log[j].end()); // ASCII
                ADD_FAILURE() << sName << " #" << callNumber(iRow, iTrace, k++) << ": crash, exit code 0x" << std::hex
                              << dwExit << std::dec << ", the trace ends:" << sLast;
                ++aTally[0], ++aTally[1];
            }
            char szRow[200];
            std::snprintf(szRow, sizeof(szRow), "\n%-34s %6d | %4d | %7d | %5d | %13d | %10d | %5d | %10d | %13d | %10d",
                          sName.c_str(), aaClean[iRow][iTrace], aTally[0], aTally[1], aTally[2], aTally[3],
                          aTally[4], aTally[5], aTally[6], aTally[7], aTally[8]);
            sTable += szRow;
        }
    std::printf("%s\nsweep %.0f s\n", sTable.c_str(), double(::GetTickCount64() - ullStart) / 1000);
}
