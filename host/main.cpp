// keflhost: our command-line recovery host. It loads KEFL.dll as the recovery host does (by name
// from its own folder, through the exported factories), registers its callbacks, shows what the
// client is, builds the credentials of a restore, lists the backup's filespaces and restores them.
#include "VESK.h"
#include "VeskCredentials.h"
#include "host/HostCredentials.h"
#include "host/HostOutput.h"
#include "host/RestoreDriver.h"
#include "platform/UniqueHandle.h"
#include "winecompat/WineStandIns.h"

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

using keflhost::PrintLine;

namespace
{

// Exit codes (a restore run adds keflhost::kRestoreSessionFailed and kRestoreIncomplete).
constexpr int kExitOk = 0;
constexpr int kExitNoLibrary = 1;
constexpr int kExitUsage = 2;
constexpr int kExitBadCredentials = 3;

struct CVeskDeleter
{
    void operator()(morvane::VESK* p) const { delete p; }
};

const wchar_t kUsage[] =
    L"usage: keflhost [--answer-file FILE | --location FOLDER [--pit \"dd/mm/yyyy hh:mm:ss\"]]\n"
    L"                [--list | --restore C,D,C:\\Mount\\Data]\n"
    L"Loads KEFL.dll from this program's folder and prints the client's description, version and\n"
    L"capabilities. With credentials (from the recovery answer file's section ZovaBackupLocation, or\n"
    L"a backup folder and an optional point in time) it lists the backup's filespaces and restores\n"
    L"them all, or those named after --restore (drive letters or mount-point folders); --list stops\n"
    L"after the list. Messages of the client are shown as [info], [warning] or [error].\n"
    L"Exit status: 0 all restored, 1 no library, 2 usage, 3 credentials refused, 4 the session could\n"
    L"not start or list, 5 not everything was restored.";

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
        bNoCredentials && (options.request.bListOnly || !options.request.vSelected.empty());
    return !bBoth && !bPitAlone && !bRestoreAlone;
}

void PrintClient(morvane::VESK& client)
{
    std::wstring sValue;
    if (client.GetModuleProperty(morvane::PROP_DESCRIPTION, sValue) == 0)
        PrintLine(L"Description:   " + sValue);
    if (client.GetModuleProperty(morvane::PROP_VERSION, sValue) == 0)
        PrintLine(L"Version:       " + sValue);

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

} // namespace

int wmain(int argc, wchar_t** argv)
{
    COptions options;
    if (!ParseOptions(argc, argv, options) || options.bHelp)
    {
        PrintLine(kUsage);
        return options.bHelp ? kExitOk : kExitUsage;
    }

    morvane::CUniqueLibrary hKefl(::LoadLibraryW(L"KEFL.dll"));
    if (!hKefl)
    {
        const DWORD dwLastError = ::GetLastError();
        PrintLine(L"keflhost: cannot load KEFL.dll, error " + std::to_wstring(dwLastError));
        return kExitNoLibrary;
    }
    const auto pfnFactory = Export<morvane::FactoryFn>(hKefl.get(), "Factory");
    const auto pfnCredentialsFactory =
        Export<morvane::CredentialsFactoryFn>(hKefl.get(), "CredentialsFactory");
    if (!pfnFactory || !pfnCredentialsFactory)
    {
        PrintLine(L"keflhost: KEFL.dll does not export Factory and CredentialsFactory");
        return kExitNoLibrary;
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
    pClient->SetLogMsgCallbackFn(&keflhost::LogMsg, 0);
    keflhost::CProgressDisplay display;
    pClient->SetProgMsgCallbackFn(&keflhost::CProgressDisplay::OnProgress,
                                  reinterpret_cast<uintptr_t>(&display));
    PrintClient(*pClient);
    if (options.sAnsFile.empty() && options.sLocation.empty())
        return kExitOk;

    keflhost::CCredentialsPtr pCredentials =
        options.sAnsFile.empty()
            ? keflhost::CredentialsFromLocation(pfnCredentialsFactory, options.sLocation, options.sPit)
            : keflhost::CredentialsFromAnswerFile(pfnCredentialsFactory, options.sAnsFile);
    if (!pCredentials)
        return kExitBadCredentials;
    keflhost::PrintCredentials(*pCredentials);
    pCredentials->Check();

    return keflhost::RunRestore(*pClient, *pCredentials, options.request, display);
}
