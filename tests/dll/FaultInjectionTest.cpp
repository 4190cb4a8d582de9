// Whole sessions on a small backup with one of KEFL.dll's system calls failed at a time: a spread
// of the call numbers of each function, each number in a session of its own. The runs happen in
// child processes of this program, so that a crash or a hang costs one run and not the sweep.
// Counted at KEFL.dll's import table, on top of the Wine stand-ins; Wine counts no handles.
#include "dll/SessionFixture.h"

#include "support/BackupStreams.h"
#include "winecompat/LinkStandIns.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

using namespace kefltest;

namespace
{

// A function KEFL.dll calls, failed with dwError in the sweep (when set) and counted always. What
// gives handles names their kind: the answer (iOut -1) or argument iOut, a second one through
// iOut2 (iOut2 == iOut: the thread behind a process). Kind "" takes back its first argument.
struct CCall
{
    const char *pszDll, *pszName;
    DWORD dwError = 0;
    const char* pszKind = nullptr;
    int iOut = -1, iOut2 = -1;
};
constexpr const char *kK32 = "KERNEL32.dll", *kAdv = "ADVAPI32.dll";
constexpr CCall kCalls[] = {
    {kK32, "CreateFileW", ERROR_ACCESS_DENIED, "file"}, {kK32, "ReadFile", ERROR_CRC},
    {kK32, "WriteFile", ERROR_DISK_FULL}, {kK32, "BackupRead", ERROR_CRC},
    {kK32, "BackupWrite", ERROR_DISK_FULL}, {kK32, "CreateDirectoryW", ERROR_ACCESS_DENIED},
    {kK32, "FindFirstFileW", ERROR_ACCESS_DENIED, "find"}, {kK32, "FindNextFileW", ERROR_NETNAME_DELETED},
    {kK32, "SetFileAttributesW", ERROR_ACCESS_DENIED}, {kK32, "CreateHardLinkW", ERROR_ACCESS_DENIED},
    {kK32, "DeleteFileW", ERROR_ACCESS_DENIED}, {kK32, "DeviceIoControl", ERROR_ACCESS_DENIED},
    {nullptr, "CreateSymbolicLinkW", ERROR_ACCESS_DENIED}, // looked up only
    {kK32, "CreatePipe", ERROR_NOT_ENOUGH_MEMORY, "pipe", 0, 1},
    {kK32, "CreateProcessW", ERROR_NOT_ENOUGH_MEMORY, "process", 9, 9},
    {kK32, "GetVolumeNameForVolumeMountPointW", ERROR_NOT_READY},
    {kK32, "GetVolumePathNamesForVolumeNameW", ERROR_NOT_READY}, {"msvcrt.dll", "malloc", ENOMEM},
    {kK32, "SetFileTime", ERROR_ACCESS_DENIED}, {kK32, "MoveFileExW", ERROR_ACCESS_DENIED},
    {kAdv, "OpenProcessToken", ERROR_ACCESS_DENIED, "token", 2},
    {kAdv, "AdjustTokenPrivileges", ERROR_ACCESS_DENIED}, {kAdv, "LookupPrivilegeValueW", ERROR_ACCESS_DENIED},
    {kK32, "CreateMutexW", 0, "mutex"}, {kK32, "CreateEventW", 0, "event"}, {kK32, "CreateThread", 0, "thread"},
    {kK32, "DuplicateHandle", 0, "duplicate", 3}, {kK32, "CloseHandle", 0, ""}, {kK32, "FindClose", 0, ""}};
constexpr size_t kRows = std::size(kCalls);
using CreateSymbolicLinkFn = BOOLEAN(WINAPI*)(LPCWSTR, LPCWSTR, DWORD);
const auto kTypes = std::tuple(
    &::CreateFileW, &::ReadFile, &::WriteFile, &::BackupRead, &::BackupWrite, &::CreateDirectoryW,
    &::FindFirstFileW, &::FindNextFileW, &::SetFileAttributesW, &::CreateHardLinkW, &::DeleteFileW,
    &::DeviceIoControl, CreateSymbolicLinkFn{}, &::CreatePipe, &::CreateProcessW,
    &::GetVolumeNameForVolumeMountPointW, &::GetVolumePathNamesForVolumeNameW, &::malloc, &::SetFileTime,
    &::MoveFileExW, &::OpenProcessToken, &::AdjustTokenPrivileges, &::LookupPrivilegeValueW, &::CreateMutexW,
    &::CreateEventW, &::CreateThread, &::DuplicateHandle, &::CloseHandle, &::FindClose);

// Calls of a session by function, apart on the trace's own files (index 1) and on all others.
std::atomic<int> g_aCalls[kRows][2];
std::atomic<size_t> g_iFailRow = kRows;
std::atomic<int> g_iFailTrace = 0, g_iFailCall = 0;
std::mutex g_lock; // the command monitor thread calls too
std::map<HANDLE, std::string> g_live;
std::set<HANDLE> g_traceFiles;
void* g_apReal[kRows];
void* g_apStandIn[kRows];

template <size_t i, class R, class... A> R Counted(A... a)
{
    static constexpr CCall c = kCalls[i];
    const uintptr_t auArgs[] = {(uintptr_t)a..., 0};
    const std::string_view sName = c.pszName;
    std::unique_lock lock(g_lock);
    const int iTrace = sName == "CreateFileW" ? std::wcsstr((LPCWSTR)auArgs[0], L"_trace.log") != nullptr
                       : sName == "ReadFile" || sName == "WriteFile" ? g_traceFiles.count((HANDLE)auArgs[0])
                                                                      : 0;
    lock.unlock();
    if (++g_aCalls[i][iTrace] == g_iFailCall && g_iFailRow == i && g_iFailTrace == iTrace)
    {
        sName == "malloc" ? void(errno = ENOMEM) : ::SetLastError(c.dwError);
        if constexpr (std::is_same_v<R, HANDLE>)
            return c.pszKind ? INVALID_HANDLE_VALUE : nullptr;
        return R{};
    }
    R r = reinterpret_cast<R (*)(A...)>(g_apReal[i])(a...);
    auto ph = reinterpret_cast<HANDLE*>(&r);
    if constexpr (c.iOut >= 0)
        ph = reinterpret_cast<HANDLE*>(auArgs[c.iOut]);
    if (const intptr_t iR = (intptr_t)r; !c.pszKind || iR == 0 || iR == -1 || !ph) // failed, or only closes
        return r;
    lock.lock();
    if (!*c.pszKind)
        return g_live.erase((HANDLE)auArgs[0]), g_traceFiles.erase((HANDLE)auArgs[0]), r;
    g_live[ph[0]] = c.pszKind;
    if (iTrace)
        g_traceFiles.insert(ph[0]);
    if constexpr (c.iOut2 >= 0)
        g_live[c.iOut2 == c.iOut ? ph[1] : *reinterpret_cast<HANDLE*>(auArgs[c.iOut2])] = c.pszKind;
    return r;
}

template <size_t i, class R, class... A> void Install(CPatches& patches, HMODULE hModule, R (*)(A...))
{
    g_apStandIn[i] = reinterpret_cast<void*>(&Counted<i, R, A...>);
    if (const CCall& c = kCalls[i]; c.pszDll)
        g_apReal[i] = reinterpret_cast<void*>(patches.Patch(hModule, c.pszDll, c.pszName, &Counted<i, R, A...>));
}

// CreateSymbolicLinkW and CreateHardLinkW are looked up by name: the counted ones answer there.
decltype(&::GetProcAddress) g_pfnGetProcAddress = nullptr;
FARPROC WINAPI LookUpCounted(HMODULE hModule, LPCSTR pszName)
{
    FARPROC pfn = g_pfnGetProcAddress(hModule, pszName);
    for (size_t i = 0; i < kRows && pfn && reinterpret_cast<uintptr_t>(pszName) > 0xFFFF; ++i)
        if (std::strcmp(pszName, kCalls[i].pszName) == 0)
            return g_apReal[i] = g_apReal[i] ? g_apReal[i] : (void*)pfn, (FARPROC)g_apStandIn[i];
    return pfn;
}

// The restore target E: as the backup has it: nested folders, files past 64 KiB (reads and writes
// repeat), a hard-link group of three; a junction and a symbolic link (recorded, Wine makes none).
const std::wstring kFiles[] = {L"a.txt", L"big.bin", L"h1.bin", L"Docs\\b.txt", L"Docs\\big.bin",
                               L"Docs\\h2.bin", L"Docs\\Sub\\c.txt", L"Docs\\Sub\\big.bin", L"Docs\\Sub\\Deep\\d.txt",
                               L"Media\\e.bin", L"Media\\h3.bin", L"Media\\Old\\f.txt", L"Media\\Old\\big.bin",
                               L"g.txt"};
const std::wstring kGroup[] = {L"E:\\h1.bin", L"E:\\Docs\\h2.bin", L"E:\\Media\\h3.bin"};
const std::string kGroupBytes = Pattern(90000, 7);
// Trace level 3: errors, warnings and information (no verbose lines).
const wchar_t kTraceLevel[] = L"3";

// One result line of a run: its four results, Fini's, whether the host heard of an error, the
// filespace list, whether E: was as backed up, names lost, handles kept, links recorded, time.
struct CRun
{
    std::string sResults;
    int bFini = 0, bError = 0;
    std::string sList;
    int bFilesOk = 0, iLostNames = 0, iLeaks = 0, iLinks = 0, iMs = 0;
};
CRun Parse(const std::string& sLine)
{
    CRun run;
    std::istringstream(sLine) >> run.sResults >> run.bFini >> run.bError >> run.sList >> run.bFilesOk >>
        run.iLostNames >> run.iLeaks >> run.iLinks >> run.iMs;
    return run;
}

class FaultInjectionTest : public SessionFixture
{
protected:
    std::string Session()
    {
        RemoveTree(L"E:", true);
        g_vMessages.clear();
        for (auto& calls : g_aCalls)
            calls[0] = calls[1] = 0;
        const size_t cLive = (std::lock_guard(g_lock), g_live.size());
        const size_t cLinks = winecompat::CLinkPatches::RecordedLinks().size();
        const ULONGLONG ullStart = ::GetTickCount64();
        int bError = 0;
        const auto call = [&](bool bResult) { return bError |= !ErrorText().empty(), char('0' + bResult); };
        std::string sResults(1, call(m_pClient->Init(Credentials(kBackup).get())));
        std::vector<morvane::Filespace> vFilespaces;
        sResults += call(m_pClient->GetFilespaceList(vFilespaces));
        morvane::Filespace fs{};
        fs.wcFsDriveLetter = L'E', fs.sFsPath = L"E:\\";
        sResults += call(m_pClient->RestoreFilespace(fs));
        int bFilesOk = 1, iLost = 0;
        for (const std::wstring& sFile : kFiles)
            bFilesOk &= ReadBytes(L"E:\\" + sFile) == ReadBytes(L"R:\\Backup\\E\\" + sFile);
        std::vector<std::wstring> vBefore; // the group's names that are whole before the link pass
        std::copy_if(std::begin(kGroup), std::end(kGroup), std::back_inserter(vBefore),
                     [](const std::wstring& sName) { return ReadBytes(sName) == kGroupBytes; });
        sResults += call(m_pClient->RestoreLinks());
        for (const std::wstring& sName : vBefore)
            iLost += ReadBytes(sName) != kGroupBytes;
        const bool bFini = m_pClient->Fini();
        for (const CMessage& message : g_vMessages)
            bError |= message.uiSeverity == morvane::MSG_SEVERITY_ERROR;
        std::string sList = "-";
        for (const morvane::Filespace& listed : vFilespaces)
            sList += char(listed.wcFsDriveLetter) + std::to_string(listed.dwFsFlags);
        return sResults + " " + std::to_string(bFini) + " " + std::to_string(bError) + " " + sList + " " +
               std::to_string(bFilesOk) + " " + std::to_string(iLost) + " " +
               std::to_string((std::lock_guard(g_lock), g_live.size()) - cLive) + " " +
               std::to_string(winecompat::CLinkPatches::RecordedLinks().size() - cLinks) + " " +
               std::to_string(::GetTickCount64() - ullStart);
    }
};

// The child's run under way, ended as a hang by the watchdog after 120 s.
std::atomic<ULONGLONG> g_ullRunStart = 0;
std::atomic<int> g_iRun = 0;
FILE* g_pResults = nullptr;

constexpr const char* kColumns[] = {"runs",       "crashes",   "hangs",         "silent losses", "lost names",
                                    "leaks",      "long waits", "trace changed", "Fini false"};

// This program again, for this test only, with the runs named in its environment.
DWORD RunChild(const std::string& sRuns, size_t cRuns)
{
    wchar_t wszExe[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, wszExe, MAX_PATH);
    std::wstring sCommand = L"\"" + std::wstring(wszExe) + L"\" --gtest_filter=FaultInjectionTest.*";
    STARTUPINFOW si{};
    si.cb = sizeof(si);
    PROCESS_INFORMATION pi{};
    ::SetEnvironmentVariableA("KEFL_FAULT_RUNS", sRuns.c_str());
    // Detached: the session makes a console of its own for XCOPY.
    const BOOL bStarted = ::CreateProcessW(wszExe, sCommand.data(), nullptr, nullptr, FALSE, DETACHED_PROCESS,
                                           nullptr, HostDir().c_str(), &si, &pi);
    ::SetEnvironmentVariableA("KEFL_FAULT_RUNS", nullptr);
    DWORD dwExit = ~0u;
    if (!bStarted)
        return ADD_FAILURE() << "CreateProcess failed with " << ::GetLastError(), dwExit;
    if (::WaitForSingleObject(pi.hProcess, static_cast<DWORD>(130000 * cRuns)) == WAIT_TIMEOUT)
        ::TerminateProcess(pi.hProcess, dwExit);
    ::GetExitCodeProcess(pi.hProcess, &dwExit);
    ::CloseHandle(pi.hThread), ::CloseHandle(pi.hProcess);
    return dwExit;
}

} // namespace

TEST_F(FaultInjectionTest, EveryFailedCallEndsInAnErrorOrAWholeRestore)
{
    const HMODULE hKefl = m_pLibrary->Module();
    const CBackupStreamPatches streams(hKefl);
    const winecompat::CLinkPatches links(hKefl);
    [&]<size_t... i>(std::index_sequence<i...>)
    {
        (Install<i>(m_patches, hKefl, std::get<i>(kTypes)), ...);
    }
    (std::make_index_sequence<kRows>());
    g_pfnGetProcAddress = m_patches.Patch(hKefl, kK32, "GetProcAddress", &LookUpCounted);
    WriteTraceIni({{L"KEFL_TraceLevel", kTraceLevel}, {L"VESK_TraceLevel", kTraceLevel}});
    // The command monitor's pause between polls of XCOPY, a second, shortened: it is most of a
    // session's time. The restore's own waits stay real: a long one is what the sweep looks for.
    static decltype(&::Sleep) s_pfnSleep = nullptr;
    s_pfnSleep = m_patches.Patch(hKefl, kK32, "Sleep", +[](DWORD dwMs) { s_pfnSleep(dwMs == 1000 ? 10 : dwMs); });
    m_pClient = m_pLibrary->Factory(); // looks the link functions up at the counted ones
    m_pClient->SetLogMsgCallbackFn(&RecordMessage, 0);
    // The configuration is copied from drive D: to R:\Cfg by XCOPY during the listing.
    WriteTextFile(HostDir() + L"\\qtx.ini", "[File Locations]\r\nConfig=R:\\Cfg\r\n");
    WriteTextFile(L"R:\\Backup\\#\\disrec.ini", "[WinDir]\r\nDriveLetter=C\r\nDirectory=\\W\r\nPhysicalDrive=0\r\n"
                                                "BootDriveLetter=D\r\n[PhysicalDrive0]\r\nPartitionStyle=0\r\n");
    MakeFolders(L"R:\\Backup\\D\\ZOVACFG");
    WriteTextFile(L"R:\\Backup\\#\\JPoint.dat", "[E:\\JLink]\r\nTarget=E:\\Docs\r\nBackupTarget=R:\\x\r\n");
    WriteTextFile(L"R:\\Backup\\#\\SPoint.dat", "[E:\\SLink.txt]\r\nTarget=E:\\a.txt\r\nBackupTarget=R:\\x\r\n");
    WriteTextFile(L"R:\\Backup\\#\\HPoint.dat", "[1]\r\nH1=E:\\h1.bin\r\nH2=E:\\Docs\\h2.bin\r\nH3=E:\\Media\\h3.bin\r\n");
    for (uint32_t i = 0; i < std::size(kFiles); ++i)
    {
        const std::wstring sPath = L"R:\\Backup\\E\\" + kFiles[i];
        MakeFolders(sPath.substr(0, sPath.rfind(L'\\')));
        const bool bGroup = std::find(std::begin(kGroup), std::end(kGroup), L"E:\\" + kFiles[i]) != std::end(kGroup);
        WriteBytes(sPath, bGroup ? kGroupBytes : Pattern(kFiles[i].ends_with(L"big.bin") ? 150000 + i : 3000 * i, i));
    }
    ::FreeConsole(); // Wine cannot open "CONIN$" of the test program's own console

    // A child: the runs its parent asks for, one line each in the result file once it has ended.
    char szRuns[4096] = "";
    if (::GetEnvironmentVariableA("KEFL_FAULT_RUNS", szRuns, sizeof(szRuns)))
    {
        std::istringstream runs(szRuns);
        size_t iRow = kRows;
        int iTrace = 0;
        std::string sFile;
        runs >> iRow >> iTrace >> sFile;
        ASSERT_TRUE(g_pResults = std::fopen(sFile.c_str(), "a")) << sFile;
        std::thread(
            []
            {
                for (;; ::Sleep(500))
                    if (const ULONGLONG ullStart = g_ullRunStart; ullStart && ::GetTickCount64() - ullStart > 120000)
                        std::fprintf(g_pResults, "%d hang\n", g_iRun.load()), std::fflush(g_pResults),
                            ::TerminateProcess(::GetCurrentProcess(), 4);
            })
            .detach();
        g_iFailRow = iRow, g_iFailTrace = iTrace;
        for (int iCall = 0; runs >> iCall;)
        {
            g_iRun = g_iFailCall = iCall, g_ullRunStart = ::GetTickCount64();
            std::string sLine;
            try
            {
                sLine = Session();
            }
            catch (const std::exception& e) // left an interface method: the run ends as a crash
            {
                return void(std::fprintf(g_pResults, "%d crash %s\n", iCall, e.what())), void(std::fflush(g_pResults));
            }
            g_ullRunStart = 0;
            std::fprintf(g_pResults, "%d %s\n", iCall, sLine.c_str()), std::fflush(g_pResults);
        }
        return;
    }

    // The parent: a clean session counts the calls, then each row's spread runs in children.
    const CRun clean = Parse(Session());
    EXPECT_EQ("1111", clean.sResults);
    EXPECT_TRUE(clean.bFilesOk && clean.bFini && !clean.bError);
    int aaClean[kRows][2];
    for (size_t i = 0; i < kRows; ++i)
        aaClean[i][0] = g_aCalls[i][0], aaClean[i][1] = g_aCalls[i][1];
    const ULONGLONG ullStart = ::GetTickCount64();
    const int cSpread = ::GetEnvironmentVariableW(L"KEFL_TESTS_QUICK", nullptr, 0) ? 4 : 16;
    char szFile[MAX_PATH] = {};
    ::GetTempPathA(MAX_PATH, szFile);
    const std::string sFile = szFile + std::string("kefl-fault-runs.txt");
    std::ostringstream table;
    table << "function                              calls";
    for (const char* pszColumn : kColumns)
        table << " | " << pszColumn;
    for (size_t i = 0; i < kRows; ++i)
        for (int iTrace = 0; iTrace < 2; ++iTrace)
        {
            const int cCalls = aaClean[i][iTrace];
            if (!kCalls[i].dwError || cCalls == 0) // not reached here (or not on this system)
                continue;
            const std::string sName = kCalls[i].pszName + std::string(iTrace ? " (trace)" : "");
            std::vector<int> vCalls;
            for (int k = 0; k < std::min(cCalls, cSpread); ++k)
                vCalls.push_back(cCalls <= cSpread ? k + 1 : 1 + k * (cCalls - 1) / (cSpread - 1));
            int aTally[std::size(kColumns)] = {};
            while (!vCalls.empty())
            {
                std::string sRuns = std::to_string(i) + " " + std::to_string(iTrace) + " " + sFile;
                for (int iCall : vCalls)
                    sRuns += " " + std::to_string(iCall);
                std::remove(sFile.c_str());
                const DWORD dwExit = RunChild(sRuns, vCalls.size());
                std::map<int, std::string> lines;
                std::ifstream results(sFile);
                for (std::string sLine; std::getline(results, sLine);)
                    lines[std::stoi(sLine)] = sLine.substr(sLine.find(' ') + 1);
                size_t k = 0;
                while (k < vCalls.size())
                {
                    const std::string sRun = sName + " #" + std::to_string(vCalls[k]);
                    const auto it = lines.find(vCalls[k++]);
                    ++aTally[0];
                    if (it == lines.end() || !std::isdigit(it->second[0])) // the rest in a new child
                    {
                        ++aTally[it != lines.end() && it->second == "hang" ? 2 : 1];
                        std::string sLast;
                        const CLines log = KeflLog();
                        for (size_t j = log.size() > 5 ? log.size() - 5 : 0; j < log.size(); ++j)
                            for (wchar_t wc : L"\n    " + log[j])
                                sLast += static_cast<char>(wc);
                        ADD_FAILURE() << sRun << ": " << (it == lines.end() ? "crash" : it->second) << ", exit code "
                                      << std::hex << dwExit << std::dec << ", the trace's last lines:" << sLast;
                        break;
                    }
                    const CRun run = Parse(it->second);
                    const bool abFailed[] = {
                        !run.bError && ((run.sResults[1] == '1' && run.sList != clean.sList) ||
                                        (run.sResults[2] == '1' && !run.bFilesOk) ||
                                        (run.sResults[0] == '1' && run.sResults[3] == '1' && run.iLinks != clean.iLinks)),
                        run.iLostNames > 0, run.iLeaks > clean.iLeaks, run.iMs > 60000,
                        iTrace && run.sResults != clean.sResults, !run.bFini};
                    for (size_t j = 0; j < std::size(abFailed); ++j)
                        if (abFailed[j])
                            ++aTally[3 + j], ADD_FAILURE() << sRun << ": " << kColumns[3 + j] << " (" << it->second << ")";
                }
                vCalls.erase(vCalls.begin(), vCalls.begin() + static_cast<ptrdiff_t>(k));
            }
            table << "\n" << std::left << std::setw(38) << sName << std::right << std::setw(7) << cCalls;
            for (size_t j = 0; j < std::size(kColumns); ++j)
                table << " | " << std::setw(static_cast<int>(std::strlen(kColumns[j]))) << aTally[j];
        }
    std::printf("%s\nclean run: %s %d %d %s; sweep %.0f s\n", table.str().c_str(), clean.sResults.c_str(),
                clean.iLeaks, clean.iLinks, clean.sList.c_str(), (::GetTickCount64() - ullStart) / 1000.0);
}
