// keflhost: our command-line recovery host. It loads KEFL.dll as the recovery host does (by name
// from its own folder, through the exported factories), registers its callbacks and asks the
// client what it is.
#include "VESK.h"
#include "VeskCredentials.h"
#include "host/HostOutput.h"
#include "platform/UniqueHandle.h"

#include <windows.h>

#include <memory>
#include <string>

using keflhost::PrintLine;

namespace
{

struct CVeskDeleter
{
    void operator()(morvane::VESK* p) const { delete p; }
};

const wchar_t kUsage[] = L"usage: keflhost [--help]\n"
                         L"Loads KEFL.dll from this program's folder and prints the client's description,\n"
                         L"version and capabilities.";

void PrintClient(morvane::VESK& client)
{
    std::wstring sValue;
    if (client.GetModuleProperty(morvane::PROP_DESCRIPTION, sValue) == 0)
        PrintLine(L"Description:  " + sValue);
    if (client.GetModuleProperty(morvane::PROP_VERSION, sValue) == 0)
        PrintLine(L"Version:      " + sValue);

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

    client.GetLastErrorMsg(sValue);
    PrintLine(L"Last error:   " + sValue);
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    for (int i = 1; i < argc; ++i)
    {
        const std::wstring sArg = argv[i];
        PrintLine(kUsage);
        return sArg == L"--help" || sArg == L"-h" ? 0 : 2;
    }

    morvane::CUniqueLibrary hKefl(::LoadLibraryW(L"KEFL.dll"));
    if (!hKefl)
    {
        const DWORD dwLastError = ::GetLastError();
        PrintLine(L"keflhost: cannot load KEFL.dll, error " + std::to_wstring(dwLastError));
        return 1;
    }
    auto pfnFactory = reinterpret_cast<morvane::FactoryFn>(
        reinterpret_cast<void*>(::GetProcAddress(hKefl.get(), "Factory")));
    if (!pfnFactory)
    {
        PrintLine(L"keflhost: KEFL.dll exports no Factory");
        return 1;
    }

    std::unique_ptr<morvane::VESK, CVeskDeleter> pClient(pfnFactory());
    pClient->SetLogMsgCallbackFn(&keflhost::LogMsg, 0);
    pClient->SetProgMsgCallbackFn(&keflhost::ProgMsg, 0);
    PrintClient(*pClient);
    pClient->Fini();
    return 0;
}
