#include "keflrestore/RestoreSession.h"

#include "VESK.h"
#include "VeskCredentials.h"
#include "keflrestore/SessionCredentials.h"
#include "keflrestore/WineSupport.h"
#include "platform/ErrorText.h"
#include "platform/UniqueHandle.h"
#include "protocol/Filespaces.h"

#include <algorithm>
#include <optional>
#include <memory>

namespace keflhost
{
namespace
{

struct CVeskDeleter
{
    void operator()(morvane::VESK* p) const { delete p; }
};
using CVeskPtr = std::unique_ptr<morvane::VESK, CVeskDeleter>;

template <typename Fn> Fn Export(HMODULE hModule, const char* pszName)
{
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(hModule, pszName)));
}

// Where a step's lines begin in the library's trace, taken here, right before the step: keflhost
// reads them when the step has ended.
std::optional<CTraceMark> MarkNow()
{
    return TakeTraceMark(LibraryTracePath());
}

std::wstring LastError(morvane::VESK& client)
{
    std::wstring sError;
    client.GetLastErrorMsg(sError);
    return sError;
}

int32_t SendMessage(uint32_t uiSeverity, std::wstring sMessage, // NOLINT(performance-unnecessary-value-param)
                    uint64_t ullContext)
{
    // The context value is the sender's address, as the callbacks were registered.
    reinterpret_cast<const CEventSender*>(ullContext)->Send( // NOLINT(performance-no-int-to-ptr)
        MessageEvent{uiSeverity, std::move(sMessage)});
    return 0;
}

int32_t SendProgress(const morvane::ProgMsg* pMsg, uint64_t ullContext)
{
    reinterpret_cast<const CEventSender*>(ullContext)->Send(ProgressEvent{*pMsg}); // NOLINT(performance-no-int-to-ptr)
    return 0;
}

void SendHello(morvane::VESK& client, bool bWine, const CEventSender& events)
{
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
    HelloEvent hello;
    for (const auto& capability : kCapabilities)
        hello.vCapabilities.push_back({capability.pwszName, client.HasCapability(capability.enCapability)});
    std::wstring sDescription;
    std::wstring sVersion;
    if (client.GetModuleProperty(morvane::PROP_DESCRIPTION, sDescription) == 0)
        hello.sDescription = sDescription;
    if (client.GetModuleProperty(morvane::PROP_VERSION, sVersion) == 0)
        hello.sVersion = sVersion;
    hello.bWine = bWine;
    events.Send(hello);
}

// The library's own answer when it could not be used at all: the hello keflhost waits for, then why.
int NotLoaded(const std::wstring& sWhy, const CEventSender& events)
{
    events.Send(HelloEvent{});
    events.Send(NotStartedEvent{sWhy, L"", std::nullopt});
    events.Send(EndEvent{});
    return 1;
}

CCredentialsPtr MakeCredentials(const CSessionRequest& request, morvane::CredentialsFactoryFn pfnFactory,
                                const CEventSender& events)
{
    return request.sAnsFile.empty() ? CredentialsFromLocation(pfnFactory, request.sLocation, request.sPit, events)
                                    : CredentialsFromAnswerFile(pfnFactory, request.sAnsFile, events);
}

// The restores of the filespaces asked for, then the links.
void RestoreAll(morvane::VESK& client, std::vector<morvane::Filespace>& vFilespaces, const CSessionRequest& request,
                const CWineSupport& wine, const CEventSender& events)
{
    for (morvane::Filespace& fs : vFilespaces)
    {
        if (!IsSelected(fs, request.vSelected))
            continue;
        events.Send(BeginEvent{fs, MarkNow()});
        const bool bRestored = client.RestoreFilespace(fs);
        const std::wstring sError = bRestored ? std::wstring() : LastError(client);
        events.Send(RestoredEvent{FilespaceName(fs), bRestored, sError, MarkNow()});
    }
    for (const std::wstring& sWanted : request.vSelected)
        if (std::none_of(vFilespaces.begin(), vFilespaces.end(),
                         [&](const morvane::Filespace& fs) { return IsSelected(fs, {sWanted}); }))
            events.Send(NotInBackupEvent{sWanted});

    // The links go last: their targets are among the restored files.
    events.Send(LinksEvent{MarkNow()});
    client.RestoreLinks();
    LinksDoneEvent linksDone;
    linksDone.trace = MarkNow();
    linksDone.vRecorded = wine.RecordedLinks();
    events.Send(linksDone);
}

// From the credentials to Fini.
void RunWithCredentials(morvane::VESK& client, morvane::VeskCredentials& credentials,
                        const CSessionRequest& request, const CWineSupport& wine, const CEventSender& events)
{
    const std::optional<CTraceMark> sessionMark = MarkNow();
    std::vector<morvane::Filespace> vFilespaces;
    const bool bInitialised = client.Init(&credentials);
    if (!bInitialised || !client.GetFilespaceList(vFilespaces))
    {
        events.Send(NotStartedEvent{bInitialised ? L"the backup's filespaces could not be listed"
                                                 : L"the restore session could not start",
                                    LastError(client), sessionMark});
        client.Fini();
        return;
    }
    events.Send(FilespacesEvent{vFilespaces});
    if (!request.bListOnly && !vFilespaces.empty())
        RestoreAll(client, vFilespaces, request, wine, events);
    client.Fini();
}

} // namespace

int RunSession(const CSessionRequest& request, const CEventSender& events)
{
    morvane::CUniqueLibrary hKefl(::LoadLibraryW(L"KEFL.dll"));
    if (!hKefl)
    {
        const DWORD dwLastError = ::GetLastError();
        return NotLoaded(L"cannot load KEFL.dll: " + morvane::ErrorText(dwLastError), events);
    }
    const auto pfnFactory = Export<morvane::FactoryFn>(hKefl.get(), "Factory");
    const auto pfnCredentialsFactory = Export<morvane::CredentialsFactoryFn>(hKefl.get(), "CredentialsFactory");
    if (!pfnFactory || !pfnCredentialsFactory)
        return NotLoaded(L"KEFL.dll does not export Factory and CredentialsFactory", events);
    const CWineSupport wine(hKefl.get());
    CVeskPtr pClient(pfnFactory());
    if (!pClient)
        return NotLoaded(L"KEFL.dll's Factory made no client", events);
    pClient->SetLogMsgCallbackFn(&SendMessage, reinterpret_cast<uintptr_t>(&events));
    pClient->SetProgMsgCallbackFn(&SendProgress, reinterpret_cast<uintptr_t>(&events));
    SendHello(*pClient, wine.IsActive(), events);
    if (!request.sAnsFile.empty() || !request.sLocation.empty())
    {
        CCredentialsPtr pCredentials = MakeCredentials(request, pfnCredentialsFactory, events);
        if (!pCredentials)
            events.Send(NotStartedEvent{L"the credentials were refused", L"", std::nullopt});
        else
        {
            std::wstring sLocation;
            std::wstring sPointInTime;
            PrintCredentials(*pCredentials, sLocation, sPointInTime, events);
            events.Send(CredentialsEvent{sLocation, sPointInTime});
            pCredentials->Check();
            RunWithCredentials(*pClient, *pCredentials, request, wine, events);
        }
    }
    events.Send(EndEvent{});
    return 0;
}

} // namespace keflhost
