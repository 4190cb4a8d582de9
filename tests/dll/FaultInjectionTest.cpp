// Whole sessions with one of KEFL.dll's system calls failed at a time, each in a session of its own, in child
// processes so that a crash or hang costs one run. Counted at KEFL.dll's imports (Wine counts no handles).
#include "dll/SessionFixture.h"
#include "support/BackupStreams.h"
#include "winecompat/LinkStandIns.h"
#include <atomic>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

using namespace kefltest;

// A function KEFL.dll calls, failed with dwError in the sweep (when set), counted always. Handles come as
// the answer (iOut -1) or through argument iOut, a second through iOut2; kind "" closes argument 0.
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
    {kK32, "CreateFileW", kDenied, "file"},
    {kK32, "ReadFile", ERROR_CRC},
    {kK32, "WriteFile", ERROR_DISK_FULL},
    {kK32, "BackupRead", ERROR_CRC},
    {kK32, "BackupWrite", ERROR_DISK_FULL},
    {kK32, "CreateDirectoryW", kDenied},
    {kK32, "FindFirstFileW", kDenied, "find"},
    {kK32, "FindNextFileW", ERROR_NETNAME_DELETED},
    {kK32, "SetFileAttributesW", kDenied},
    {kK32, "CreateHardLinkW", kDenied},
    {kK32, "DeleteFileW", kDenied},
    {kK32, "DeviceIoControl", kDenied},
    {nullptr, "CreateSymbolicLinkW", kDenied}, // looked up only
    {kK32, "CreatePipe", ERROR_NOT_ENOUGH_MEMORY, "pipe", 0, 1},
    {"msvcrt.dll", "malloc", ENOMEM},
    {kK32, "CreateProcessW", ERROR_NOT_ENOUGH_MEMORY, "process", 9, 9}, // a thread right behind the process
    {kK32, "GetVolumeNameForVolumeMountPointW", ERROR_NOT_READY},
    {kK32, "GetVolumePathNamesForVolumeNameW", ERROR_NOT_READY},
    {kK32, "SetFileTime", kDenied},
    {kK32, "SetFileInformationByHandle", kDenied},
    {kK32, "MoveFileExW", kDenied},
    {kK32, "FlushFileBuffers", ERROR_IO_DEVICE},
    {kK32, "GetFileInformationByHandle", kDenied},
    {kAdv, "OpenProcessToken", kDenied, "token", 2},
    {kAdv, "AdjustTokenPrivileges", kDenied},
    {kAdv, "LookupPrivilegeValueW", kDenied},
    {kK32, "CreateMutexW", 0, "mutex"},
    {kK32, "CreateEventW", 0, "event"},
    {kK32, "CreateThread", 0, "thread"},
    {kK32, "DuplicateHandle", 0, "duplicate", 3},
    {kK32, "CloseHandle", 0, ""},
    {kK32, "FindClose", 0, ""}};
constexpr size_t kRows = std::size(kCalls);
std::atomic<int> g_aaCalls[kRows][2]; // a session's calls by function, the trace's own file apart
std::atomic<size_t> g_iFailRow = kRows, g_iFailTrace = 0, g_iFailCall = 0;
std::mutex g_lock;
std::map<HANDLE, bool> g_live; // the handles open: whether the trace's
void *g_apReal[kRows], *g_apStandIn[kRows];

// x64 passes these integers and pointers alike (a BOOL in RAX's low half): one stand-in, ten arguments.
template <size_t i, class U = uintptr_t> U Counted(U a0, U a1, U a2, U a3, U a4, U a5, U a6, U a7, U a8, U a9)
{
    static constexpr CCall c = kCalls[i];
    const U auArgs[] = {a0, a1, a2, a3, a4, a5, a6, a7, a8, a9};
    const std::string_view sName = c.pszName;
    std::unique_lock lock(g_lock);
    const int iTrace = sName == "CreateFileW"
                           ? std::wcsstr((LPCWSTR)a0, L"_trace.log") != nullptr
                           : sName.ends_with("eFile") && g_live.count((HANDLE)a0) && g_live[(HANDLE)a0];
    lock.unlock();
    if (++g_aaCalls[i][iTrace] == int(g_iFailCall) && g_iFailRow == i && int(g_iFailTrace) == iTrace)
        return (sName == "malloc" ? void(errno = ENOMEM) : ::SetLastError(c.dwError)),
               c.pszKind && c.iOut < 0 ? ~U(0) : 0;
    const U r = reinterpret_cast<decltype(&Counted<i>)>(g_apReal[i])(a0, a1, a2, a3, a4, a5, a6, a7, a8, a9);
    if (!c.pszKind || !(c.iOut >= 0 || !*c.pszKind ? DWORD(r) != 0 : r != 0 && r != ~U(0)) ||
        (c.iOut >= 0 && !auArgs[c.iOut])) // failed, or a duplication that only closes
        return r;
    const std::lock_guard relock(g_lock);
    const auto ph =
        c.iOut >= 0 ? reinterpret_cast<const HANDLE*>(auArgs[c.iOut]) : reinterpret_cast<const HANDLE*>(&r);
    if (!*c.pszKind)
        return g_live.erase((HANDLE)a0), r;
    g_live[ph[0]] = iTrace;
    if (c.iOut2 >= 0)
        g_live[c.iOut2 == c.iOut ? ph[1] : *reinterpret_cast<const HANDLE*>(auArgs[c.iOut2])] = false;
    return r;
}

decltype(&::GetProcAddress) g_pfnGetProcAddress = nullptr;

// Drive E: in the backup: nested folders, files past 64 KiB (reads and writes repeat), a hard-link group.
const std::wstring kFiles[] = {L"a.txt",
                               L"big.bin",
                               L"h1.bin",
                               L"Docs\\b.txt",
                               L"Docs\\big.bin",
                               L"Docs\\h2.bin",
                               L"Docs\\Sub\\c.txt",
                               L"Docs\\Sub\\big.bin",
                               L"Docs\\Sub\\Deep\\d.txt",
                               L"Media\\e.bin",
                               L"Media\\h3.bin",
                               L"Media\\Old\\f.txt",
                               L"Media\\Old\\big.bin",
                               L"g.txt"};
const std::wstring kGroup[] = {L"E:\\h1.bin", L"E:\\Docs\\h2.bin", L"E:\\Media\\h3.bin"};
const std::string kGroupBytes = Pattern(90000, 7);
constexpr const char* kColumns[] = {"runs",  "crashes",    "hangs",         "silent losses", "lost names",
                                    "leaks", "long waits", "trace changed", "Fini false"};

// A session's results, an error shown to the host, its list, E: whole, group names lost, handles kept, time.
struct CRun
{
    std::string sResults, sList = "-", sBad;
    bool bFini = false, bError = false, bFilesOk = false;
    int iLost = 0, iLeaks = 0;
    unsigned long long ullMs = 0;
};

std::atomic<ULONGLONG> g_ullRunStart = 0; // of the child's run under way, for its watchdog
FILE* g_pResults = nullptr;

using FaultInjectionTest = SessionFixture;

TEST_F(FaultInjectionTest, EveryFailedCallEndsInAnErrorOrAWholeRestore)
{
    morvane::Filespace fs{};
    fs.wcFsDriveLetter = L'E', fs.sFsPath = L"E:\\";
    const auto pCredentials = Credentials(kBackup); // made once: the sessions start at Init
    const auto session = [&]
    {
        RemoveTree(L"E:", true), RemoveTree(L"R:\\Cfg"), g_vMessages.clear();
        std::fill(&g_aaCalls[0][0], &g_aaCalls[0][0] + 2 * kRows, 0);
        const size_t cLive = g_live.size(); // no session under way: nothing else changes it
        CRun run{"", "-", "", false, false, false, 0, 0, ::GetTickCount64()};
        const auto result = [&](bool b)
        { run.bError |= ErrorText() != L"No error", run.sResults += "01"[b]; };
        result(m_pClient->Init(pCredentials.get()));
        std::vector<morvane::Filespace> vFilespaces;
        result(m_pClient->GetFilespaceList(vFilespaces));
        result(m_pClient->RestoreFilespace(fs));
        for (const std::wstring& s : kFiles) // the first file that differs, for the failure's line
            if (const std::string sGot = ReadBytes(L"E:\\" + s);
                run.sBad.empty() && sGot != ReadBytes(L"R:\\Backup\\E\\" + s))
                run.sBad = std::string(s.begin(), s.end()) + " " + std::to_string(sGot.size());
        run.bFilesOk = run.sBad.empty();
        std::vector<std::wstring> vWhole; // the group's names whole before the link pass
        std::copy_if(std::begin(kGroup), std::end(kGroup), std::back_inserter(vWhole),
                     [](const std::wstring& s) { return ReadBytes(s) == kGroupBytes; });
        result(m_pClient->RestoreLinks());
        run.iLost = int(
            std::count_if(vWhole.begin(), vWhole.end(), [](auto& s) { return ReadBytes(s) != kGroupBytes; }));
        run.bFini = m_pClient->Fini();
        run.bError |=
            std::any_of(g_vMessages.begin(), g_vMessages.end(),
                        [](const CMessage& m) { return m.uiSeverity == morvane::MSG_SEVERITY_ERROR; });
        for (const morvane::Filespace& listed : vFilespaces)
            run.sList += char(listed.wcFsDriveLetter) + std::to_string(listed.dwFsFlags);
        run.iLeaks = static_cast<int>(g_live.size() - cLive), run.ullMs = ::GetTickCount64() - run.ullMs;
        return run;
    };
    const HMODULE hKefl = m_pLibrary->Module();
    const CBackupStreamPatches streams(hKefl);
    const winecompat::CLinkPatches links(hKefl);
    [&]<size_t... i>(std::index_sequence<i...>)
    {
        ((g_apStandIn[i] = (void*)&Counted<i>), ...);
    }
    (std::make_index_sequence<kRows>());
    for (size_t i = 0; i < kRows; ++i) // a function only looked up is not in the imports
        g_apReal[i] = kCalls[i].pszDll
                          ? m_patches.Patch(hKefl, kCalls[i].pszDll, kCalls[i].pszName, g_apStandIn[i])
                          : nullptr;
    // CreateSymbolicLinkW and CreateHardLinkW are looked up by name: the counted ones answer there.
    g_pfnGetProcAddress = m_patches.Patch(
        hKefl, kK32, "GetProcAddress",
        +[](HMODULE hModule, LPCSTR pszName)
        {
            const FARPROC pfn = g_pfnGetProcAddress(hModule, pszName);
            for (size_t i = 0; i < kRows && pfn && reinterpret_cast<uintptr_t>(pszName) > 0xFFFF; ++i)
                if (std::string_view(pszName) == kCalls[i].pszName)
                    return g_apReal[i] = g_apReal[i] ? g_apReal[i] : (void*)pfn, (FARPROC)g_apStandIn[i];
            return pfn;
        });
    // Errors, warnings and information: the trace's own calls are swept too; verbose lines cost time.
    WriteTraceIni({{L"KEFL_TraceLevel", L"3"}, {L"VESK_TraceLevel", L"3"}});
    m_pClient = m_pLibrary->Factory(); // looks the link functions up at the counted ones
    m_pClient->SetLogMsgCallbackFn(&RecordMessage, 0);
    // The configuration is on D:, copied to R:\Cfg by XCOPY during the listing; the link points.
    WriteTextFile(HostDir() + L"\\qtx.ini", "[File Locations]\r\nConfig=R:\\Cfg\r\n");
    MakeFolders(L"R:\\Backup\\D\\ZOVACFG");
    WriteTextFile(L"R:\\Backup\\#\\disrec.ini",
                  "[WinDir]\r\nDriveLetter=C\r\nDirectory=\\W\r\nPhysicalDrive=0\r\n"
                  "BootDriveLetter=D\r\n[PhysicalDrive0]\r\nPartitionStyle=0\r\n");
    WriteTextFile(L"R:\\Backup\\#\\JPoint.dat", "[E:\\JLink]\r\nTarget=E:\\Docs\r\nBackupTarget=R:\\x\r\n");
    WriteTextFile(L"R:\\Backup\\#\\SPoint.dat",
                  "[E:\\SLink.txt]\r\nTarget=E:\\a.txt\r\nBackupTarget=R:\\x\r\n");
    WriteTextFile(L"R:\\Backup\\#\\HPoint.dat",
                  "[1]\r\nH1=E:\\h1.bin\r\nH2=E:\\Docs\\h2.bin\r\nH3=E:\\Media\\h3.bin");
    for (uint32_t i = 0; i < std::size(kFiles); ++i) // the group's files start with "h"
        MakeFolders((L"R:\\Backup\\E\\" + kFiles[i]).substr(0, 12 + kFiles[i].rfind(L'\\'))),
            WriteBytes(L"R:\\Backup\\E\\" + kFiles[i],
                       kFiles[i].find(L'h') != std::wstring::npos
                           ? kGroupBytes
                           : Pattern(kFiles[i].ends_with(L"big.bin") ? 150000 + i : 3000 * i, i));
    ::FreeConsole();              // Wine cannot open "CONIN$" of the test program's own console
    const CRun clean = session(); // counts the calls
    EXPECT_TRUE(clean.sResults == "1111" && clean.bFilesOk && clean.bFini && !clean.bError && !clean.iLost);
    std::vector<int> vClean(&g_aaCalls[0][0], &g_aaCalls[0][0] + 2 * kRows); // each session counts its own
    const auto aaClean = reinterpret_cast<const int(*)[2]>(vClean.data());
    const int cSpread = ::GetEnvironmentVariableW(L"KEFL_TESTS_QUICK", nullptr, 0) ? 4 : 16;
    const auto callNumber = [&](size_t i, int iTrace, int k)
    { return aaClean[i][iTrace] <= cSpread ? k + 1 : 1 + k * (aaClean[i][iTrace] - 1) / (cSpread - 1); };

    size_t iRow = kRows, iTrace = 0;
    int k = 0;
    // A child: its function's spread from the kth number on; per run a line with the columns it counts in.
    // The parent's count decides the spread: a count that varies (XCOPY's output comes in as it comes) would
    // otherwise end the child short of the runs the parent waits for.
    if (char szRuns[64] = ""; ::GetEnvironmentVariableA("KEFL_FAULT_RUNS", szRuns, sizeof(szRuns)))
    {
        std::istringstream(szRuns) >> iRow >> iTrace >> k >> vClean[2 * iRow + iTrace];
        ASSERT_TRUE(g_pResults = std::fopen("kefl-fault-runs.txt", "a"));
        std::thread(
            []
            {
                for (ULONGLONG ull = 0;; ::Sleep(500), ull = g_ullRunStart)
                    if (ull && ::GetTickCount64() - ull > 120000)
                        std::fprintf(g_pResults, "%d 2\n", int(g_iFailCall.load())), std::fflush(g_pResults),
                            ::TerminateProcess(::GetCurrentProcess(), 4);
            })
            .detach();
        for (const int cRuns = std::min(aaClean[iRow][iTrace], cSpread); k < cRuns; ++k)
        {
            g_iFailRow = iRow, g_iFailTrace = iTrace, g_iFailCall = callNumber(iRow, iTrace, k);
            const CRun run = (g_ullRunStart = ::GetTickCount64(), session());
            g_ullRunStart = 0;
            const bool abFailed[] = {!run.bError && ((run.sResults[1] == '1' && run.sList != clean.sList) ||
                                                     (run.sResults[2] == '1' && !run.bFilesOk)),
                                     run.iLost > 0,
                                     run.iLeaks > clean.iLeaks,
                                     run.ullMs > 60000,
                                     iTrace && run.sResults != clean.sResults,
                                     !run.bFini};
            std::fprintf(g_pResults, "%d", int(g_iFailCall.load()));
            for (size_t j = 0; j < std::size(abFailed); ++j)
                std::fprintf(g_pResults, abFailed[j] ? " %zu" : "", 3 + j);
            std::fprintf(g_pResults, " | results %s, list %s, %s, names lost %d, handles kept %d, %llu ms\n",
                         run.sResults.c_str(), run.sList.c_str(),
                         run.bFilesOk ? "files whole" : run.sBad.c_str(), run.iLost, run.iLeaks, run.ullMs),
                std::fflush(g_pResults);
        }
        return;
    }

    const ULONGLONG ullStart =
        ::GetTickCount64(); // the parent: a child per function and after a crash or hang
    const std::wstring sExe = HostDir() + L"\\kefl_dll_tests.exe",
                       sFile = HostDir() + L"\\kefl-fault-runs.txt";
    std::string sTable =
        "function                             calls | runs | crashes | hangs | silent losses | "
        "lost names | leaks | long waits | trace changed | Fini false";
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
                const std::string sRuns = std::to_string(iRow) + " " + std::to_string(iTrace) + " " +
                                          std::to_string(k) + " " + std::to_string(aaClean[iRow][iTrace]);
                ::DeleteFileW(sFile.c_str()), ::SetEnvironmentVariableA("KEFL_FAULT_RUNS", sRuns.c_str());
                std::wstring sCommand = L"\"" + sExe + L"\" --gtest_filter=FaultInjectionTest.*";
                STARTUPINFOW si{sizeof(si), {}, {}, {}, {}, {}, {}, {}, {},
                                {},         {}, {}, {}, {}, {}, {}, {}, {}};
                PROCESS_INFORMATION pi{}; // detached: the session makes a console of its own for XCOPY
                ASSERT_TRUE(::CreateProcessW(sExe.c_str(), sCommand.data(), nullptr, nullptr, FALSE,
                                             DETACHED_PROCESS, nullptr, HostDir().c_str(), &si, &pi));
                DWORD dwExit = ::WaitForSingleObject(pi.hProcess, INFINITE);
                ::GetExitCodeProcess(pi.hProcess, &dwExit), ::CloseHandle(pi.hThread),
                    ::CloseHandle(pi.hProcess);
                std::ifstream results(std::string(sFile.begin(), sFile.end())); // ASCII
                bool bHang = false; // the child's watchdog ended it
                for (std::string sLine; k < cRuns && !bHang && std::getline(results, sLine); ++k, ++aTally[0])
                {
                    std::istringstream line(sLine.substr(sLine.find(' ')));
                    for (size_t j = 0; line >> j; bHang |= j == 2)
                        ++aTally[j], ADD_FAILURE()
                                         << sName << " #" << callNumber(iRow, iTrace, k) << ": "
                                         << kColumns[j] << " (" << sLine.substr(sLine.find('|') + 1) << ")";
                }
                if (k == cRuns || bHang)
                    continue;
                std::string sLast; // the run that crashed the child: the end of its trace
                for (const std::wstring& sTraceLine : KeflLog())
                    sLast =
                        (sLast.size() > 900 ? sLast.substr(sLast.find('\n', sLast.size() - 900)) : sLast) +
                        "\n    " + std::string(sTraceLine.begin(), sTraceLine.end()); // ASCII
                ADD_FAILURE() << sName << " #" << callNumber(iRow, iTrace, k++) << ": crash, exit code "
                              << dwExit << sLast;
                ++aTally[0], ++aTally[1];
            }
            char szRow[200];
            sTable.append(
                szRow, std::snprintf(szRow, sizeof(szRow),
                                     "\n%-34s %6d | %4d | %7d | %5d | %13d | %10d | %5d | %10d | %13d | %10d",
                                     sName.c_str(), aaClean[iRow][iTrace], aTally[0], aTally[1], aTally[2],
                                     aTally[3], aTally[4], aTally[5], aTally[6], aTally[7], aTally[8]));
        }
    std::printf("%s\nsweep %.0f s\n", sTable.c_str(), double(::GetTickCount64() - ullStart) / 1000);
}
