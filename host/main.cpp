// keflhost: our command-line recovery host. It loads KEFL.dll as the recovery host does (by name
// from its own folder, through the exported factories), registers its callbacks, shows what the
// client is, builds the credentials of a restore, lists the backup's filespaces and restores them.
#include "VESK.h"
#include "VeskCredentials.h"
#include "host/HostCredentials.h"
#include "host/HostOutput.h"
#include "host/RestoreDriver.h"
#include "host/RestoreReport.h"
#include "platform/UniqueHandle.h"
#include "winecompat/WineStandIns.h"

#include <windows.h>

#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <vector>

using keflhost::PrintLine;

namespace
{

struct CVeskDeleter
{
    void operator()(morvane::VESK* p) const { delete p; }
};

const wchar_t kUsage[] =
    L"usage: keflhost [--answer-file FILE | --location FOLDER [--pit \"dd/mm/yyyy hh:mm:ss\"]]\n"
    L"                [--list | --restore C,D,C:\\Mount\\Data] [--verify] [--report FILE]\n"
    L"Loads KEFL.dll from this program's folder and prints the client's description, version and\n"
    L"capabilities. With credentials (from the recovery answer file's section ZovaBackupLocation, or\n"
    L"a backup folder and an optional point in time) it lists the backup's filespaces and restores\n"
    L"them all, or those named after --restore (drive letters or mount-point folders), then makes\n"
    L"the links; --list stops after the list. Messages of the client are shown as [info], [warning]\n"
    L"or [error]; every file, folder and link that could not be restored is listed with its error.\n"
    L"  --verify       afterwards compares every restored file with its copy in the backup\n"
    L"  --report FILE  writes what was done, failed and verified as JSON\n"
    L"Exit status: 0 everything restored (and verified); 1 nothing could start (the library, the\n"
    L"arguments, the credentials, the session, or a backup without filespaces); otherwise the sum of\n"
    L"2 files or folders not restored, 4 links not made, 8 verification found differences.";

struct COptions
{
    std::wstring sAnsFile;
    std::wstring sLocation;
    std::wstring sPit;
    keflhost::CRestoreRequest request;
    bool bHelp = false;
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
        else if (sArg == L"--restore" && bHasValue)
            options.request.vSelected = SplitList(argv[++i]);
        else
            return false;
    }
    const bool bBoth = !options.sAnsFile.empty() && !options.sLocation.empty();
    const bool bPitAlone = !options.sPit.empty() && options.sLocation.empty();
    const bool bNoCredentials = options.sAnsFile.empty() && options.sLocation.empty();
    const bool bRestoreAlone =
        bNoCredentials && (options.request.bListOnly || !options.request.vSelected.empty() ||
                           options.request.bVerify || !options.request.sReportFile.empty());
    return !bBoth && !bPitAlone && !bRestoreAlone;
}

void PrintClient(morvane::VESK& client, keflhost::CRunRecord& record)
{
    if (client.GetModuleProperty(morvane::PROP_DESCRIPTION, record.sDescription) == 0)
        PrintLine(L"Description:   " + record.sDescription);
    if (client.GetModuleProperty(morvane::PROP_VERSION, record.sVersion) == 0)
        PrintLine(L"Version:       " + record.sVersion);

    static const struct
    {
        morvane::CapabilityType enCapability;
        const wchar_t* pwszName;
    } kCapabilities[] = {
        {morvane::CAP_MULTI_MACHINE, L"several machines in one backup"},
        {morvane::CAP_SEPARATE_HARD_LINKS, L"hard links restored separately"},
        {morvane::CAP_SEPARATE_SYSTEM_STATE, L"system state restored separately"},
        {morvane::CAP_BACKUP_SETS, L"backup sets"},
        {morvane::CAP_BACKUP_IMAGES, L"backup images"},
        {morvane::CAP_TAPE_BACKUPS, L"tape backups"},
    };
    PrintLine(L"Capabilities:");
    for (const auto& capability : kCapabilities)
        PrintLine(std::wstring(L"  ") +
                  (client.HasCapability(capability.enCapability) ? L"yes  " : L"no   ") +
                  capability.pwszName);
}

template <typename Fn> Fn Export(HMODULE hModule, const char* pszName)
{
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(hModule, pszName)));
}

// Ends the run: the report when asked for, and the exit status. A report that cannot be written
// is said so on screen; the status still tells what the restore did.
int Finish(const COptions& options, keflhost::CRunRecord& record, int iStatus)
{
    record.iExitStatus = iStatus;
    if (!options.request.sReportFile.empty())
        keflhost::WriteReport(options.request.sReportFile, record);
    return iStatus;
}

int Run(int argc, wchar_t** argv, COptions& options, keflhost::CRunRecord& record)
{
    if (!ParseOptions(argc, argv, options) || options.bHelp)
    {
        PrintLine(kUsage);
        return options.bHelp ? keflhost::kExitOk : keflhost::kExitNotStarted;
    }

    morvane::CUniqueLibrary hKefl(::LoadLibraryW(L"KEFL.dll"));
    if (!hKefl)
    {
        const DWORD dwLastError = ::GetLastError();
        record.sNotStarted = L"cannot load KEFL.dll: " + keflhost::ErrorText(dwLastError);
        PrintLine(L"keflhost: " + record.sNotStarted);
        return Finish(options, record, keflhost::kExitNotStarted);
    }
    const auto pfnFactory = Export<morvane::FactoryFn>(hKefl.get(), "Factory");
    const auto pfnCredentialsFactory =
        Export<morvane::CredentialsFactoryFn>(hKefl.get(), "CredentialsFactory");
    if (!pfnFactory || !pfnCredentialsFactory)
    {
        record.sNotStarted = L"KEFL.dll does not export Factory and CredentialsFactory";
        PrintLine(L"keflhost: " + record.sNotStarted);
        return Finish(options, record, keflhost::kExitNotStarted);
    }

    // Under Wine only: the Windows answers that Wine 8 lacks (volume paths, the network provider,
    // backup streams, a usable console), so that a whole restore runs as it would on Windows.
    const winecompat::CWineStandIns wineStandIns(hKefl.get());
    if (wineStandIns.IsActive())
        PrintLine(
            L"Running under Wine: backup streams, volume paths, the network provider and a console are stood "
            L"in; junctions and symbolic links are recorded, not made.");
    options.request.bLinksRecordedOnly = wineStandIns.IsActive();

    std::unique_ptr<morvane::VESK, CVeskDeleter> pClient(pfnFactory());
    if (!pClient)
    {
        record.sNotStarted = L"KEFL.dll's Factory made no client";
        PrintLine(L"keflhost: " + record.sNotStarted);
        return Finish(options, record, keflhost::kExitNotStarted);
    }
    pClient->SetLogMsgCallbackFn(&keflhost::LogMsg, 0);
    keflhost::CProgressDisplay display(keflhost::Output());
    pClient->SetProgMsgCallbackFn(&keflhost::CProgressDisplay::OnProgress,
                                  reinterpret_cast<uintptr_t>(&display));
    PrintClient(*pClient, record);
    if (options.sAnsFile.empty() && options.sLocation.empty())
        return keflhost::kExitOk;

    keflhost::CCredentialsPtr pCredentials =
        options.sAnsFile.empty()
            ? keflhost::CredentialsFromLocation(pfnCredentialsFactory, options.sLocation, options.sPit)
            : keflhost::CredentialsFromAnswerFile(pfnCredentialsFactory, options.sAnsFile);
    if (!pCredentials)
    {
        record.sNotStarted = L"the credentials were refused";
        return Finish(options, record, keflhost::kExitNotStarted);
    }
    keflhost::PrintCredentials(*pCredentials, record.sLocation, record.sPointInTime);
    pCredentials->Check();

    const int iStatus =
        keflhost::RunRestore(*pClient, *pCredentials, options.request, display, keflhost::Output(), record);
    return Finish(options, record, iStatus);
}

// An error that ended the run early: nothing could start before the first filespace began; after
// that, what was not done counts as not restored, with what is known to have failed by then. The
// report is still written.
int Stopped(const COptions& options, keflhost::CRunRecord& record, const wchar_t* pwszWhy,
            const char* pszWhat = "") noexcept
{
    const int iStatus = keflhost::StoppedStatus(record);
    try
    {
        std::wstring sWhy = pwszWhy;
        sWhy.append(pszWhat, pszWhat + std::strlen(pszWhat));
        PrintLine(L"keflhost: stopped by an error: " + sWhy);
        (record.bRestoreBegan ? record.sStopped : record.sNotStarted) = L"stopped by an error: " + sWhy;
        return Finish(options, record, iStatus);
    }
    catch (...) // no memory left even for the message: the status still says it
    {
        return iStatus;
    }
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    // Standard output as it is before the library touches the console.
    keflhost::Output();
    COptions options;
    keflhost::CRunRecord record;
    try
    {
        return Run(argc, argv, options, record);
    }
    catch (const std::bad_alloc&)
    {
        return Stopped(options, record, L"out of memory");
    }
    catch (const std::exception& e)
    {
        return Stopped(options, record, L"", e.what());
    }
    catch (...)
    {
        return Stopped(options, record, L"an unknown exception");
    }
}
