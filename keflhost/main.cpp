// keflhost: our command-line recovery host. It starts its restore process (keflrestore.exe beside
// it), which loads KEFL.dll as the recovery host does and runs the restore, and shows and reports
// what that process tells it. keflhost itself never loads the library: the console the
// administrator watches, the progress, the list of failures and the report survive whatever the
// library does (its console set-up, a crash, a kill), and Ctrl+C stops the restore and still
// leaves the report.
#include "keflhost/FileVersions.h"
#include "keflhost/HostOutput.h"
#include "keflhost/RestoreFollower.h"
#include "keflhost/RestoreReport.h"
#include "protocol/SessionRequest.h"
#include "platform/ModulePath.h"
#include "platform/UniqueHandle.h"

#include <windows.h>

#include <atomic>
#include <cstring>
#include <cwchar>
#include <exception>
#include <new>
#include <string>
#include <vector>

using keflhost::PrintLine;

namespace
{

const wchar_t kUsage[] =
    L"usage: keflhost --version | [--answer-file FILE | --location FOLDER [--pit \"dd/mm/yyyy hh:mm:ss\"]]\n"
    L"                [--list | --restore C,D,C:\\Mount\\Data] [--verify] [--report FILE]\n"
    L"                [--stall-minutes N] [--resume]\n"
    L"Starts its restore process, which loads KEFL.dll from this program's folder, and prints the\n"
    L"client's description, version and capabilities. With credentials (from the recovery answer\n"
    L"file's section ZovaBackupLocation, or a backup folder and an optional point in time) it lists\n"
    L"the backup's filespaces and restores them all, or those named after --restore (drive letters or\n"
    L"mount-point folders), then makes the links; --list stops after the list. Messages of the client\n"
    L"are shown as [info], [warning] or [error]; every file, folder and link that could not be\n"
    L"restored is listed with its error. Ctrl+C stops the restore (a second one ends keflhost at once).\n"
    L"  --version          prints the version of keflhost, keflrestore.exe and KEFL.dll beside it\n"
    L"  --verify           afterwards compares every restored file with its copy in the backup\n"
    L"  --report FILE      writes what was done, failed and verified as JSON\n"
    L"  --stall-minutes N  says so when no progress came for N minutes (10 by default)\n"
    L"  --resume           keeps the files an earlier run restored whole (one name, the same size,\n"
    L"                     time and attributes as in the backup, finished before the volume's\n"
    L"                     last checkpoint) instead of copying them again\n"
    L"Exit status: 0 everything restored (and verified); 1 nothing could start (the library, the\n"
    L"arguments, the credentials, the session, or a backup without filespaces); otherwise the sum of\n"
    L"2 files or folders not restored, 4 links not made, 8 verification found differences, 16 the\n"
    L"restore was cut short (its process crashed or was ended, or Ctrl+C).";

struct COptions
{
    std::wstring sAnsFile;
    std::wstring sLocation;
    std::wstring sPit;
    keflhost::CRestoreRequest request;
    bool bHelp = false;
    bool bVersion = false;
};

std::vector<std::wstring> SplitList(const std::wstring& sList)
{
    std::vector<std::wstring> vItems;
    size_t pos = 0;
    while (pos <= sList.size())
    {
        const size_t posComma = sList.find(L',', pos);
        const std::wstring sItem =
            sList.substr(pos, posComma == std::wstring::npos ? std::wstring::npos : posComma - pos);
        if (!sItem.empty())
            vItems.push_back(sItem);
        if (posComma == std::wstring::npos)
            break;
        pos = posComma + 1;
    }
    return vItems;
}

// Reads the options; false (after printing the usage) when they do not fit together.
bool ParseOptions(int argc, wchar_t** argv, COptions& options)
{
    for (int i = 1; i < argc; ++i)
    {
        const std::wstring sArg = argv[i];
        const bool bHasValue = i + 1 < argc;
        if (sArg == L"--help" || sArg == L"-h")
            options.bHelp = true;
        else if (sArg == L"--version")
            options.bVersion = true;
        else if (sArg == L"--answer-file" && bHasValue)
            options.sAnsFile = argv[++i];
        else if (sArg == L"--location" && bHasValue)
            options.sLocation = argv[++i];
        else if (sArg == L"--pit" && bHasValue)
            options.sPit = argv[++i];
        else if (sArg == L"--verify")
            options.request.bVerify = true;
        else if (sArg == L"--report" && bHasValue)
            options.request.sReportFile = argv[++i];
        else if (sArg == L"--list")
            options.request.bListOnly = true;
        else if (sArg == L"--resume")
            options.request.bResume = true;
        else if (sArg == L"--restore" && bHasValue)
            options.request.vSelected = SplitList(argv[++i]);
        else if (sArg == L"--stall-minutes" && bHasValue && std::wcstod(argv[i + 1], nullptr) > 0)
            options.request.ullStallMs = static_cast<uint64_t>(std::wcstod(argv[++i], nullptr) * 60000);
        else
            return false;
    }
    const bool bBoth = !options.sAnsFile.empty() && !options.sLocation.empty();
    const bool bPitAlone = !options.sPit.empty() && options.sLocation.empty();
    const bool bNoCredentials = options.sAnsFile.empty() && options.sLocation.empty();
    const bool bRestoreAlone =
        bNoCredentials && (options.request.bListOnly || options.request.bResume || !options.request.vSelected.empty() ||
                           options.request.bVerify || !options.request.sReportFile.empty());
    return !bBoth && !bPitAlone && !bRestoreAlone;
}

// The user's Ctrl+C, Ctrl+Break or closing of the console window: the first stops the restore
// (the main thread ends the restore process and writes the report), the second ends keflhost.
std::atomic<bool> g_bStop{false};
std::atomic<int> g_cStops{0};
morvane::CUniqueHandle g_hReported; // set once the report is written
std::atomic<HANDLE> g_hRestoreJob{nullptr}; // the job of the restore process, while it runs

// Ends the run: the report when asked for, and the exit status. A report that cannot be written
// is said so on screen; the status still tells what the restore did.
int ReportAndExit(const COptions& options, keflhost::CRunRecord& record, int iStatus)
{
    record.iExitStatus = iStatus;
    if (!options.request.sReportFile.empty())
        keflhost::WriteReport(options.request.sReportFile, record);
    if (g_hReported)
        ::SetEvent(g_hReported.get());
    return iStatus;
}

// Where the restore process is: beside keflhost.
std::wstring RestoreProgram()
{
    return morvane::ProgramFolder() + L"\\keflrestore.exe";
}

// The user's Ctrl+C, Ctrl+Break or closing of the console window.
BOOL WINAPI OnConsoleControl(DWORD dwType)
{
    if (dwType != CTRL_C_EVENT && dwType != CTRL_BREAK_EVENT && dwType != CTRL_CLOSE_EVENT)
        return FALSE;
    if (g_cStops++ > 0)
    {
        // The restore process ends first: nothing of it outlives keflhost, not for a moment.
        if (const HANDLE hJob = g_hRestoreJob.load())
            ::TerminateJobObject(hJob, keflhost::kStoppedByUser);
        ::ExitProcess(keflhost::kExitCutShort);
    }
    g_bStop = true;
    // A closed window ends the process when this returns: the report is waited for, a little.
    if (dwType == CTRL_CLOSE_EVENT && g_hReported)
        ::WaitForSingleObject(g_hReported.get(), 4000);
    return TRUE;
}

// QuickEdit off on keflhost's console while it runs: a selection made with the mouse stops a
// console's writes, keflhost would stop reading its restore process's events, and a full pipe
// would stop the restore. The console's mode is put back at the end.
class CQuickEditOff
{
public:
    CQuickEditOff() : m_hInput(::GetStdHandle(STD_INPUT_HANDLE))
    {
        m_bChanged = ::GetConsoleMode(m_hInput, &m_dwMode) && (m_dwMode & ENABLE_QUICK_EDIT_MODE) &&
                     ::SetConsoleMode(m_hInput, (m_dwMode & ~ENABLE_QUICK_EDIT_MODE) | ENABLE_EXTENDED_FLAGS);
    }
    ~CQuickEditOff()
    {
        if (m_bChanged)
            ::SetConsoleMode(m_hInput, m_dwMode);
    }
    CQuickEditOff(const CQuickEditOff&) = delete;
    CQuickEditOff& operator=(const CQuickEditOff&) = delete;

private:
    HANDLE m_hInput; // the process's standard input: not ours to close
    DWORD m_dwMode = 0;
    bool m_bChanged = false;
};

// Starts the restore process and follows it to its end.
int StartAndFollow(const COptions& options, const keflhost::CSessionRequest& session, keflhost::CRunRecord& record)
{
    keflhost::CRestoreProcess process;
    std::wstring sError;
    if (!process.Start(RestoreProgram(), keflhost::SessionArguments(session), sError))
    {
        record.sNotStarted = sError;
        PrintLine(L"keflhost: " + sError);
        return keflhost::kExitNotStarted;
    }
    keflhost::CProgressDisplay display(keflhost::Output());
    keflhost::CConsoleView view(keflhost::Output(), display, !options.request.sReportFile.empty(),
                                keflhost::LibraryTracePath());
    const CQuickEditOff quickEditOff;
    // Only while the process object lives, which ends the process and closes the job with it.
    struct CJobShown
    {
        explicit CJobShown(HANDLE hJob) { g_hRestoreJob = hJob; }
        ~CJobShown() { g_hRestoreJob = nullptr; }
        CJobShown(const CJobShown&) = delete;
        CJobShown& operator=(const CJobShown&) = delete;
    } const jobShown(process.Job());
    return keflhost::FollowRestore(process, options.request, g_bStop, view, record);
}

// The restore process, with --resume's setting for its run alone: in the environment it inherits,
// which no crash, kill or Ctrl+C can leave behind for the next restore.
int RunRestoreProcessFor(const COptions& options, const keflhost::CSessionRequest& session, keflhost::CRunRecord& record)
{
    if (options.request.bResume)
    {
        ::SetEnvironmentVariableW(L"KEFL_SkipUnchanged", L"1");
        record.bResumed = true;
        PrintLine(L"Resuming: a file an earlier run restored whole (one name, the same size, last-write time and "
                  L"attributes as in the backup, finished before its volume's last checkpoint) is kept; "
                  L"KEFL_SkipUnchanged=1 for this run only.");
    }
    return StartAndFollow(options, session, record);
}

int Run(int argc, wchar_t** argv, COptions& options, keflhost::CRunRecord& record)
{
    const bool bParsed = ParseOptions(argc, argv, options);
    if (bParsed && options.bVersion)
    {
        PrintLine(keflhost::DescribeVersions(morvane::ProgramFolder()));
        return keflhost::kExitOk;
    }
    if (!bParsed || options.bHelp)
    {
        PrintLine(kUsage);
        return options.bHelp ? keflhost::kExitOk : keflhost::kExitNotStarted;
    }
    keflhost::CSessionRequest session;
    session.sAnsFile = options.sAnsFile;
    session.sLocation = options.sLocation;
    session.sPit = options.sPit;
    session.bListOnly = options.request.bListOnly;
    session.vSelected = options.request.vSelected;
    return ReportAndExit(options, record, RunRestoreProcessFor(options, session, record));
}

// An error that ended the run early: nothing could start before the first filespace began; after
// that, what was not done counts as not restored, with what is known to have failed by then. The
// report is still written.
int StopOnError(const COptions& options, keflhost::CRunRecord& record, const wchar_t* pwszWhy,
            const char* pszWhat = "") noexcept
{
    const int iStatus = keflhost::StoppedStatus(record);
    try
    {
        std::wstring sWhy = pwszWhy;
        sWhy.append(pszWhat, pszWhat + std::strlen(pszWhat));
        PrintLine(L"keflhost: stopped by an error: " + sWhy);
        (record.bRestoreBegan ? record.sStopped : record.sNotStarted) = L"stopped by an error: " + sWhy;
        return ReportAndExit(options, record, iStatus);
    }
    catch (...) // no memory left even for the message: the status still says it
    {
        return iStatus;
    }
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    keflhost::Output();
    g_hReported.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    ::SetConsoleCtrlHandler(&OnConsoleControl, TRUE);
    COptions options;
    keflhost::CRunRecord record;
    try
    {
        return Run(argc, argv, options, record);
    }
    catch (const std::bad_alloc&)
    {
        return StopOnError(options, record, L"out of memory");
    }
    catch (const std::exception& e)
    {
        return StopOnError(options, record, L"", e.what());
    }
    catch (...)
    {
        return StopOnError(options, record, L"an unknown exception");
    }
}
