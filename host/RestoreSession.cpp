#include "host/RestoreSession.h"

#include "VESK.h"
#include "VeskCredentials.h"
#include "host/Filespaces.h"
#include "host/HostCredentials.h"
#include "host/HostOutput.h"
#include "host/LibraryTrace.h"
#include "platform/UniqueHandle.h"
#include "winecompat/WineStandIns.h"

#include <algorithm>
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
// reads them when the step has ended. The first bytes go as hexadecimal digits.
CEvent TraceMark(const CLibraryTrace& trace)
{
    const CTraceMark mark = trace.Mark();
    static const char kDigits[] = "0123456789abcdef";
    std::string sHead;
    for (const unsigned char uc : mark.sHead)
        sHead += {kDigits[uc >> 4], kDigits[uc & 0xF]};
    return {{"offset", mark.ullOffset}, {"head", sHead}};
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
        {{"event", "message"}, {"severity", uiSeverity}, {"text", Text(sMessage)}});
    return 0;
}

int32_t SendProgress(const morvane::ProgMsg* pMsg, uint64_t ullContext)
{
    reinterpret_cast<const CEventSender*>(ullContext)->Send( // NOLINT(performance-no-int-to-ptr)
        {{"event", "progress"},
         {"state", pMsg->uiState},
         {"title", Text(pMsg->sTitle)},
         {"text", Text(pMsg->sText)},
         {"path", Text(pMsg->sPath)},
         {"drive", Text(std::wstring(1, pMsg->wcDriveLetter))},
         {"bytesDone", pMsg->ullBytesDone},
         {"total", pMsg->ullTotal},
         {"done", pMsg->ullDone}});
    return 0;
}

void SendHello(morvane::VESK& client, bool bWine, const CEventSender& events)
{
    static const struct
    {
        morvane::CapabilityType enCapability;
        const char* pszName;
    } kCapabilities[] = {
        {morvane::CAP_MULTI_MACHINE, "several machines in one backup"},
        {morvane::CAP_SEPARATE_HARD_LINKS, "hard links restored separately"},
        {morvane::CAP_SEPARATE_SYSTEM_STATE, "system state restored separately"},
        {morvane::CAP_BACKUP_SETS, "backup sets"},
        {morvane::CAP_BACKUP_IMAGES, "backup images"},
        {morvane::CAP_TAPE_BACKUPS, "tape backups"},
    };
    CEvent capabilities = CEvent::array();
    for (const auto& capability : kCapabilities)
        capabilities.push_back({{"name", capability.pszName}, {"yes", client.HasCapability(capability.enCapability)}});
    std::wstring sDescription;
    std::wstring sVersion;
    const bool bDescribed = client.GetModuleProperty(morvane::PROP_DESCRIPTION, sDescription) == 0;
    const bool bVersioned = client.GetModuleProperty(morvane::PROP_VERSION, sVersion) == 0;
    events.Send({{"event", "hello"},
                 {"protocol", kProtocolVersion},
                 {"description", bDescribed ? CEvent(Text(sDescription)) : CEvent()},
                 {"version", bVersioned ? CEvent(Text(sVersion)) : CEvent()},
                 {"capabilities", capabilities},
                 {"wine", bWine}});
}

// The library's own answer when it could not be used at all: the hello keflhost waits for, then why.
int NotLoaded(const std::wstring& sWhy, const CEventSender& events)
{
    events.Send({{"event", "hello"}, {"protocol", kProtocolVersion}, {"description", nullptr},
                 {"version", nullptr}, {"capabilities", CEvent::array()}, {"wine", false}});
    events.Send({{"event", "notStarted"}, {"why", Text(sWhy)}, {"error", ""}, {"trace", nullptr}});
    events.Send({{"event", "end"}});
    return 1;
}

CCredentialsPtr MakeCredentials(const CSessionRequest& request, morvane::CredentialsFactoryFn pfnFactory)
{
    return request.sAnsFile.empty() ? CredentialsFromLocation(pfnFactory, request.sLocation, request.sPit)
                                    : CredentialsFromAnswerFile(pfnFactory, request.sAnsFile);
}

// The restores of the filespaces asked for, then the links.
void RestoreAll(morvane::VESK& client, std::vector<morvane::Filespace>& vFilespaces, const CSessionRequest& request,
                const CLibraryTrace& trace, const CEventSender& events)
{
    for (morvane::Filespace& fs : vFilespaces)
    {
        if (!IsSelected(fs, request.vSelected))
            continue;
        events.Send({{"event", "begin"}, {"filespace", FilespaceEvent(fs)}, {"trace", TraceMark(trace)}});
        const bool bRestored = client.RestoreFilespace(fs);
        events.Send({{"event", "restored"},
                     {"name", Text(Name(fs))},
                     {"result", bRestored ? "restored" : "failed"},
                     {"error", bRestored ? std::string() : Text(LastError(client))},
                     {"trace", TraceMark(trace)}});
    }
    for (const std::wstring& sWanted : request.vSelected)
        if (std::none_of(vFilespaces.begin(), vFilespaces.end(),
                         [&](const morvane::Filespace& fs) { return IsSelected(fs, {sWanted}); }))
            events.Send({{"event", "notInBackup"}, {"name", Text(sWanted)}});

    // The links go last: their targets are among the restored files.
    events.Send({{"event", "links"}, {"trace", TraceMark(trace)}});
    client.RestoreLinks();
    const CEvent linksEnd = TraceMark(trace);
    CEvent recorded = CEvent::array();
    for (const winecompat::CRecordedLink& link : winecompat::CLinkPatches::RecordedLinks())
        recorded.push_back({{"kind", Text(link.sKind)}, {"link", Text(link.sLink)}, {"target", Text(link.sTarget)}});
    events.Send({{"event", "linksDone"}, {"recorded", recorded}, {"trace", linksEnd}});
}

// From the credentials to Fini.
void RunWithCredentials(morvane::VESK& client, morvane::VeskCredentials& credentials,
                        const CSessionRequest& request, const CEventSender& events)
{
    const CLibraryTrace trace;
    const CEvent sessionMark = TraceMark(trace);
    std::vector<morvane::Filespace> vFilespaces;
    const bool bInitialised = client.Init(&credentials);
    if (!bInitialised || !client.GetFilespaceList(vFilespaces))
    {
        events.Send({{"event", "notStarted"},
                     {"why", bInitialised ? "the backup's filespaces could not be listed"
                                          : "the restore session could not start"},
                     {"error", Text(LastError(client))},
                     {"trace", sessionMark}});
        client.Fini();
        return;
    }
    CEvent list = CEvent::array();
    for (const morvane::Filespace& fs : vFilespaces)
        list.push_back(FilespaceEvent(fs));
    events.Send({{"event", "filespaces"}, {"list", list}});
    if (!request.bListOnly && !vFilespaces.empty())
        RestoreAll(client, vFilespaces, request, trace, events);
    client.Fini();
}

// One argument as Windows' command-line parsing takes it back: quoted, with a quote escaped and
// the backslashes before a quote (or before the closing one) doubled.
std::wstring Quoted(const std::wstring& sArg)
{
    std::wstring sQuoted = L"\"";
    size_t cBackslashes = 0;
    for (const wchar_t wc : sArg)
    {
        if (wc == L'\\')
        {
            ++cBackslashes;
            continue;
        }
        sQuoted.append(wc == L'"' ? 2 * cBackslashes + 1 : cBackslashes, L'\\');
        cBackslashes = 0;
        sQuoted += wc;
    }
    sQuoted.append(2 * cBackslashes, L'\\');
    return sQuoted + L"\"";
}

} // namespace

std::wstring SessionArguments(const CSessionRequest& request)
{
    std::wstring sArgs;
    const auto add = [&sArgs](const wchar_t* pwszOption, const std::wstring& sValue)
    {
        if (!sValue.empty())
            sArgs += std::wstring(L" ") + pwszOption + L" " + Quoted(sValue);
    };
    add(L"--answer-file", request.sAnsFile);
    add(L"--location", request.sLocation);
    add(L"--pit", request.sPit);
    for (const std::wstring& sSelected : request.vSelected)
        add(L"--restore", sSelected);
    if (request.bListOnly)
        sArgs += L" --list";
    return sArgs;
}

bool ParseSessionArguments(int argc, wchar_t** argv, CSessionRequest& request)
{
    for (int i = 1; i < argc; ++i)
    {
        const std::wstring sArg = argv[i];
        const bool bHasValue = i + 1 < argc;
        if (sArg == L"--list")
            request.bListOnly = true;
        else if (sArg == L"--answer-file" && bHasValue)
            request.sAnsFile = argv[++i];
        else if (sArg == L"--location" && bHasValue)
            request.sLocation = argv[++i];
        else if (sArg == L"--pit" && bHasValue)
            request.sPit = argv[++i];
        else if (sArg == L"--restore" && bHasValue)
            request.vSelected.emplace_back(argv[++i]);
        else
            return false;
    }
    return true;
}

void CEventSender::Send(const CEvent& event) const
{
    const std::string sLine = EventLine(event);
    DWORD cbWritten = 0;
    if (!::WriteFile(m_hEvents, sLine.data(), static_cast<DWORD>(sLine.size()), &cbWritten, nullptr) ||
        cbWritten != sLine.size())
        ::ExitProcess(3); // keflhost is gone: nobody would hear of this restore
}

int RunSession(const CSessionRequest& request, const CEventSender& events)
{
    // Whatever this process prints (the credentials it reads, say) goes to keflhost as lines.
    RedirectLines([&events](const std::wstring& sText) { events.Send({{"event", "line"}, {"text", Text(sText)}}); });
    morvane::CUniqueLibrary hKefl(::LoadLibraryW(L"KEFL.dll"));
    if (!hKefl)
        return NotLoaded(L"cannot load KEFL.dll: " + ErrorText(::GetLastError()), events);
    const auto pfnFactory = Export<morvane::FactoryFn>(hKefl.get(), "Factory");
    const auto pfnCredentialsFactory = Export<morvane::CredentialsFactoryFn>(hKefl.get(), "CredentialsFactory");
    if (!pfnFactory || !pfnCredentialsFactory)
        return NotLoaded(L"KEFL.dll does not export Factory and CredentialsFactory", events);
    // Under Wine only: the Windows answers that Wine 8 lacks (volume paths, the network provider,
    // backup streams, a usable console), so that a whole restore runs as it would on Windows.
    const winecompat::CWineStandIns wineStandIns(hKefl.get());
    CVeskPtr pClient(pfnFactory());
    if (!pClient)
        return NotLoaded(L"KEFL.dll's Factory made no client", events);
    pClient->SetLogMsgCallbackFn(&SendMessage, reinterpret_cast<uintptr_t>(&events));
    pClient->SetProgMsgCallbackFn(&SendProgress, reinterpret_cast<uintptr_t>(&events));
    SendHello(*pClient, wineStandIns.IsActive(), events);
    if (!request.sAnsFile.empty() || !request.sLocation.empty())
    {
        CCredentialsPtr pCredentials = MakeCredentials(request, pfnCredentialsFactory);
        if (!pCredentials)
            events.Send({{"event", "notStarted"}, {"why", "the credentials were refused"}, {"error", ""}, {"trace", nullptr}});
        else
        {
            std::wstring sLocation;
            std::wstring sPointInTime;
            PrintCredentials(*pCredentials, sLocation, sPointInTime);
            events.Send({{"event", "credentials"}, {"location", Text(sLocation)}, {"pointInTime", Text(sPointInTime)}});
            pCredentials->Check();
            RunWithCredentials(*pClient, *pCredentials, request, events);
        }
    }
    events.Send({{"event", "end"}});
    return 0;
}

} // namespace keflhost
