// Whole sessions with one of KEFL.dll's system calls failed at a time, each in a session of its own; calls
// and handles counted at KEFL.dll's imports (Wine counts no handles). Each function's runs are announced
// on the output first: a crash, or a hang that the test's time limit ends, names the function it met.
#include "dll/SessionFixture.h"
#include "winecompat/BackupStreams.h"
#include "winecompat/LinkStandIns.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>

using namespace kefltest;

namespace
{

// A function KEFL.dll calls, failed with dwError in the sweep (when set), counted always. What it does
// with handles (pszKind): makes them, as the answer (iOut -1) or through argument iOut, a second
// through iOut2, or "close"s argument 0.
struct CCall
{
    const char *pszDll, *pszName;
    DWORD dwError = 0;
    const char* pszKind = nullptr;
    int iOut = -1, iOut2 = -1;
};
constexpr const char *kK32 = "KERNEL32.dll", *kAdv = "ADVAPI32.dll", *kClose = "close";
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
    {kK32, "GetFileInformationByHandleEx", kDenied},
    {kAdv, "OpenProcessToken", kDenied, "token", 2},
    {kAdv, "AdjustTokenPrivileges", kDenied},
    {kAdv, "LookupPrivilegeValueW", kDenied},
    {kK32, "CreateMutexW", 0, "mutex"},
    {kK32, "CreateEventW", 0, "event"},
    {kK32, "CreateThread", 0, "thread"},
    {kK32, "DuplicateHandle", 0, "duplicate", 3},
    {kK32, "CloseHandle", 0, kClose},
    {kK32, "FindClose", 0, kClose}};
constexpr size_t kRows = std::size(kCalls);
std::atomic<int> g_aaCalls[kRows][2]; // a session's calls by function, the trace's own file apart
std::atomic<size_t> g_iFailRow = kRows, g_iFailTrace = 0, g_iFailCall = 0;
std::mutex g_lock;
std::map<HANDLE, bool> g_live; // the handles open: whether the trace's
void* g_apReal[kRows];

// x64 passes these integers and pointers alike (a BOOL in RAX's low half): one stand-in, ten arguments.
template <size_t i, class U = uintptr_t> U Counted(U a0, U a1, U a2, U a3, U a4, U a5, U a6, U a7, U a8, U a9)
{
    static constexpr CCall c = kCalls[i];
    const U auArgs[] = {a0, a1, a2, a3, a4, a5, a6, a7, a8, a9};
    const std::string_view sName = c.pszName;
    const bool bCloses = std::string_view(c.pszKind ? c.pszKind : "") == kClose;
    std::unique_lock lock(g_lock);
    const int iTrace = sName == "CreateFileW"
                           ? std::wcsstr((LPCWSTR)a0, L"_trace.log") != nullptr
                           : sName.ends_with("eFile") && g_live.count((HANDLE)a0) && g_live[(HANDLE)a0];
    lock.unlock();
    if (++g_aaCalls[i][iTrace] == int(g_iFailCall) && g_iFailRow == i && int(g_iFailTrace) == iTrace)
    {
        if (sName == "malloc")
            errno = ENOMEM;
        else
            ::SetLastError(c.dwError);
        return c.pszKind && c.iOut < 0 ? ~U(0) : 0;
    }
    const U r = reinterpret_cast<decltype(&Counted<i>)>(g_apReal[i])(a0, a1, a2, a3, a4, a5, a6, a7, a8, a9);
    if (!c.pszKind || !(c.iOut >= 0 || bCloses ? DWORD(r) != 0 : r != 0 && r != ~U(0)) ||
        (c.iOut >= 0 && !auArgs[c.iOut])) // failed, or a duplication that only closes
        return r;
    const std::lock_guard relock(g_lock);
    const auto ph =
        c.iOut >= 0 ? reinterpret_cast<const HANDLE*>(auArgs[c.iOut]) : reinterpret_cast<const HANDLE*>(&r);
    if (bCloses)
        g_live.erase((HANDLE)a0);
    else
        g_live[ph[0]] = iTrace;
    if (!bCloses && c.iOut2 >= 0)
        g_live[c.iOut2 == c.iOut ? ph[1] : *reinterpret_cast<const HANDLE*>(auArgs[c.iOut2])] = false;
    return r;
}

template <size_t... i> std::array<void*, sizeof...(i)> StandIns(std::index_sequence<i...>)
{
    return {reinterpret_cast<void*>(&Counted<i>)...};
}
const std::array<void*, kRows> g_apStandIn = StandIns(std::make_index_sequence<kRows>());

// CreateSymbolicLinkW and CreateHardLinkW are looked up by name: the counted ones answer there.
decltype(&::GetProcAddress) g_pfnGetProcAddress = nullptr;
FARPROC WINAPI GetCountedProcAddress(HMODULE hModule, LPCSTR pszName)
{
    const FARPROC pfn = g_pfnGetProcAddress(hModule, pszName);
    for (size_t i = 0; i < kRows && pfn && reinterpret_cast<uintptr_t>(pszName) > 0xFFFF; ++i)
        if (std::string_view(pszName) == kCalls[i].pszName)
        {
            if (!g_apReal[i])
                g_apReal[i] = reinterpret_cast<void*>(pfn);
            return reinterpret_cast<FARPROC>(g_apStandIn[i]);
        }
    return pfn;
}

// Drive E: in the backup: nested folders, files past 64 KiB (reads and writes repeat), a hard-link group.
const std::wstring kFiles[] = {L"a.txt", L"big.bin", L"h1.bin", L"Docs\\b.txt", L"Docs\\big.bin",
                               L"Docs\\h2.bin", L"Docs\\Sub\\c.txt", L"Docs\\Sub\\big.bin",
                               L"Docs\\Sub\\Deep\\d.txt", L"Media\\e.bin", L"Media\\h3.bin",
                               L"Media\\Old\\f.txt", L"Media\\Old\\big.bin", L"g.txt"};
const std::wstring kGroup[] = {L"E:\\h1.bin", L"E:\\Docs\\h2.bin", L"E:\\Media\\h3.bin"};
const std::string kGroupBytes = Pattern(90000, 7);
// Runs of a function at most, each failing one of its calls.
const int kSpread = ::GetEnvironmentVariableW(L"KEFL_TESTS_QUICK", nullptr, 0) ? 4 : 16;
// What a run can show wrong: a loss that no error was shown for (the listing changed or a file on E:
// differs), a hard link's name lost, handles kept, a long wait, a result changed by a failed trace call,
// and Fini refusing.
constexpr const char* kProblems[] = {"silent loss", "lost names",    "leaks",
                                     "long wait",   "trace changed", "Fini false"};

// A session's results (Init, the listing, the restore, the link pass: 1 or 0), the list, what went wrong.
struct CRun
{
    std::string sResults;
    std::string sList = "-";
    std::string sBad;    // the first file on E: that differs and the size found there; empty when E: is whole
    bool bError = false; // an error was shown to the host
    bool bFini = false;
    int iLost = 0;  // the group's names whole before the link pass and not after it
    int iLeaks = 0; // handles that the session kept
    uint64_t ullMs = 0;
};

// Each session's calls counted and the sweep's failed at KEFL.dll's imports, with the configuration on
// D: (copied to R:\Cfg by XCOPY during the listing) and the link points of drive E:.
class FaultInjectionTest : public SessionFixture
{
protected:
    void SetUp() override
    {
        SessionFixture::SetUp();
        ASSERT_FALSE(HasFatalFailure());
        const HMODULE hKefl = m_pLibrary->Module();
        m_pStreams = std::make_unique<winecompat::CBackupStreamPatches>(hKefl);
        m_pLinks = std::make_unique<winecompat::CLinkPatches>(hKefl);
        for (size_t i = 0; i < kRows; ++i) // a function only looked up is not in the imports
            g_apReal[i] = kCalls[i].pszDll
                              ? m_patches.Patch(hKefl, kCalls[i].pszDll, kCalls[i].pszName, g_apStandIn[i])
                              : nullptr;
        g_pfnGetProcAddress = m_patches.Patch(hKefl, kK32, "GetProcAddress", &GetCountedProcAddress);
        // Errors, warnings and information: the trace's own calls are swept too; verbose lines cost time.
        WriteTraceIni({{L"KEFL_TraceLevel", L"3"}, {L"VESK_TraceLevel", L"3"}});
        m_pClient = m_pLibrary->Factory(); // looks the link functions up at the counted ones
        m_pClient->SetLogMsgCallbackFn(&RecordMessage, 0);
        m_pCredentials = Credentials(kBackup);
        WriteTextFile(HostDir() + L"\\qtx.ini", "[File Locations]\r\nConfig=R:\\Cfg\r\n");
        MakeFolders(L"R:\\Backup\\D\\ZOVACFG");
        WriteTextFile(L"R:\\Backup\\#\\disrec.ini",
                      "[WinDir]\r\nDriveLetter=C\r\nDirectory=\\W\r\nPhysicalDrive=0\r\n"
                      "BootDriveLetter=D\r\n[PhysicalDrive0]\r\nPartitionStyle=0\r\n");
        WriteTextFile(L"R:\\Backup\\#\\JPoint.dat",
                      "[E:\\JLink]\r\nTarget=E:\\Docs\r\nBackupTarget=R:\\x\r\n");
        WriteTextFile(L"R:\\Backup\\#\\SPoint.dat",
                      "[E:\\SLink.txt]\r\nTarget=E:\\a.txt\r\nBackupTarget=R:\\x\r\n");
        WriteTextFile(L"R:\\Backup\\#\\HPoint.dat",
                      "[1]\r\nH1=E:\\h1.bin\r\nH2=E:\\Docs\\h2.bin\r\nH3=E:\\Media\\h3.bin");
        for (uint32_t i = 0; i < std::size(kFiles); ++i) // the group's files start with "h"
        {
            const std::wstring sPath = L"R:\\Backup\\E\\" + kFiles[i];
            const size_t cbOwn = kFiles[i].ends_with(L"big.bin") ? 150000 + i : 3000 * i;
            MakeFolders(sPath.substr(0, sPath.rfind(L'\\')));
            WriteBytes(sPath, kFiles[i].find(L'h') != std::wstring::npos ? kGroupBytes : Pattern(cbOwn, i));
        }
        ::FreeConsole(); // Wine cannot open "CONIN$" of the test program's own console
    }
    void TearDown() override
    {
        g_iFailRow = kRows;
        m_pLinks.reset();
        m_pStreams.reset();
        SessionFixture::TearDown();
    }

    // A whole session: Init, the listing, drive E:'s restore, the link pass and Fini.
    CRun Session()
    {
        RemoveTree(L"E:", true);
        RemoveTree(L"R:\\Cfg");
        g_vMessages.clear();
        std::fill(&g_aaCalls[0][0], &g_aaCalls[0][0] + 2 * kRows, 0);
        const size_t cLive = g_live.size(); // no session under way: nothing else changes it
        const ULONGLONG ullStart = ::GetTickCount64();
        CRun run;
        const auto Result = [&](bool bResult)
        {
            run.bError = run.bError || ErrorText() != L"No error";
            run.sResults += bResult ? '1' : '0';
        };
        Result(m_pClient->Init(m_pCredentials.get()));
        std::vector<morvane::Filespace> vFilespaces;
        Result(m_pClient->GetFilespaceList(vFilespaces));
        morvane::Filespace fs{};
        fs.wcFsDriveLetter = L'E';
        fs.sFsPath = L"E:\\";
        Result(m_pClient->RestoreFilespace(fs));
        for (const std::wstring& sFile : kFiles)
            if (const std::string sGot = ReadBytes(L"E:\\" + sFile);
                run.sBad.empty() && sGot != ReadBytes(L"R:\\Backup\\E\\" + sFile))
                run.sBad = std::string(sFile.begin(), sFile.end()) + " " + std::to_string(sGot.size());
        std::vector<std::wstring> vWhole; // the group's names whole before the link pass
        std::ranges::copy_if(kGroup, std::back_inserter(vWhole),
                             [](const std::wstring& s) { return ReadBytes(s) == kGroupBytes; });
        Result(m_pClient->RestoreLinks());
        run.iLost = static_cast<int>(
            std::ranges::count_if(vWhole, [](const std::wstring& s) { return ReadBytes(s) != kGroupBytes; }));
        run.bFini = m_pClient->Fini();
        run.bError =
            run.bError || std::ranges::count(g_vMessages, morvane::MSG_SEVERITY_ERROR, &CMessage::uiSeverity);
        for (const morvane::Filespace& listed : vFilespaces)
            run.sList += char(listed.wcFsDriveLetter) + std::to_string(listed.dwFsFlags);
        run.iLeaks = static_cast<int>(g_live.size() - cLive);
        run.ullMs = ::GetTickCount64() - ullStart;
        return run;
    }

    // The kth of a function's runs fails this call of the cCalls that a clean session makes: the runs
    // spread over them.
    static int CallNumber(int cCalls, int k)
    {
        return cCalls <= kSpread ? k + 1 : 1 + k * (cCalls - 1) / (kSpread - 1);
    }

    // Each function's runs, failing its calls of the session (iTrace 0) or of the trace's own file (1).
    void Sweep(int iTrace);

    std::unique_ptr<morvane::VeskCredentials> m_pCredentials; // made once: the sessions start at Init
    std::unique_ptr<winecompat::CBackupStreamPatches> m_pStreams;
    std::unique_ptr<winecompat::CLinkPatches> m_pLinks;
};

void FaultInjectionTest::Sweep(int iTrace)
{
    const CRun clean = Session(); // counts the calls
    ASSERT_EQ("1111", clean.sResults);
    int aClean[kRows];
    for (size_t iRow = 0; iRow < kRows; ++iRow)
        aClean[iRow] = g_aaCalls[iRow][iTrace];
    for (size_t iRow = 0; iRow < kRows; ++iRow)
    {
        const int cRuns = std::min(aClean[iRow], kSpread);
        if (!kCalls[iRow].dwError || cRuns == 0) // not reached (or not on this system)
            continue;
        const std::string sName = kCalls[iRow].pszName + std::string(iTrace ? " (trace)" : "");
        std::printf("%-40s %6d calls, %3d runs\n", sName.c_str(), aClean[iRow], cRuns);
        std::fflush(stdout);
        for (int k = 0; k < cRuns; ++k)
        {
            g_iFailRow = iRow;
            g_iFailTrace = iTrace;
            g_iFailCall = CallNumber(aClean[iRow], k);
            const CRun run = Session();
            g_iFailRow = kRows;
            const bool abProblems[] = {!run.bError && ((run.sResults[1] == '1' && run.sList != clean.sList) ||
                                                       (run.sResults[2] == '1' && !run.sBad.empty())),
                                       run.iLost > 0,
                                       run.iLeaks > clean.iLeaks,
                                       run.ullMs > 60000,
                                       iTrace && run.sResults != clean.sResults,
                                       !run.bFini};
            for (size_t j = 0; j < std::size(abProblems); ++j)
                if (abProblems[j])
                    ADD_FAILURE() << sName << " #" << g_iFailCall << ": " << kProblems[j] << " (results "
                                  << run.sResults << ", list " << run.sList << ", "
                                  << (run.sBad.empty() ? "files whole" : run.sBad) << ", names lost "
                                  << run.iLost << ", handles kept " << run.iLeaks << ", " << run.ullMs
                                  << " ms)";
        }
    }
}

} // namespace

TEST_F(FaultInjectionTest, ACleanSessionListsRestoresAndLinksEverything)
{
    const CRun clean = Session();
    EXPECT_EQ("1111", clean.sResults);
    EXPECT_EQ("", clean.sBad);
    EXPECT_FALSE(clean.bError);
    EXPECT_TRUE(clean.bFini);
    EXPECT_EQ(0, clean.iLost);
}

TEST_F(FaultInjectionTest, EveryFailedCallOfTheSessionEndsInAnErrorOrAWholeRestore)
{
    Sweep(0);
}

TEST_F(FaultInjectionTest, EveryFailedCallOfTheTracesOwnChangesNoResult)
{
    Sweep(1);
}
