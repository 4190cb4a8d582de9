#include "host/RestoreDriver.h"

#include "host/HostOutput.h"
#include "host/ProgressDisplay.h"
#include "winecompat/LinkStandIns.h"

#include <cstdio>
#include <cwctype>

namespace keflhost
{
namespace
{

// Filespace flags: BOOT is 0x3, SYSTEM 0x5, the configuration drive 0x2, a mount point 0x8.
constexpr uint32_t kFlagBootOrSystem = 0x1;
constexpr uint32_t kFlagBoot = 0x2;
constexpr uint32_t kFlagSystem = 0x4;
constexpr uint32_t kFlagMount = 0x8;

std::wstring LastError(morvane::VESK& client)
{
    std::wstring sError;
    client.GetLastErrorMsg(sError);
    return sError;
}

std::wstring Time(const morvane::Filespace& fs)
{
    if (!fs.bFsTimeValid)
        return L"-";
    wchar_t wsz[32];
    std::swprintf(wsz, 32, L"%04u-%02u-%02u %02u:%02u:%02u UTC", fs.stFsTime.wYear, fs.stFsTime.wMonth,
                  fs.stFsTime.wDay, fs.stFsTime.wHour, fs.stFsTime.wMinute, fs.stFsTime.wSecond);
    return wsz;
}

std::wstring Name(const morvane::Filespace& fs)
{
    return (fs.dwFsFlags & kFlagMount) ? fs.sFsMountDir : std::wstring(1, fs.wcFsDriveLetter) + L":";
}

bool IsSelected(const morvane::Filespace& fs, const CRestoreRequest& request)
{
    if (request.vSelected.empty())
        return true;
    for (const std::wstring& sWanted : request.vSelected)
    {
        if (fs.dwFsFlags & kFlagMount)
        {
            if (_wcsicmp(sWanted.c_str(), fs.sFsMountDir.c_str()) == 0)
                return true;
        }
        else if ((sWanted.size() == 1 || (sWanted.size() == 2 && sWanted[1] == L':')) &&
                 towupper(sWanted[0]) == fs.wcFsDriveLetter)
        {
            return true;
        }
    }
    return false;
}

void PrintList(const std::vector<morvane::Filespace>& vFilespaces)
{
    PrintLine(L"Filespaces:");
    for (const morvane::Filespace& fs : vFilespaces)
        PrintLine(L"  " + Name(fs) + L"   " + fs.sFsPath + L"   [" + DescribeFlags(fs.dwFsFlags) + L"]   " +
                  Time(fs));
}

} // namespace

std::wstring DescribeFlags(uint32_t dwFsFlags)
{
    std::wstring sFlags;
    auto add = [&](const wchar_t* pwsz) { sFlags += (sFlags.empty() ? L"" : L" ") + std::wstring(pwsz); };
    const bool bBoot = (dwFsFlags & (kFlagBootOrSystem | kFlagBoot)) == (kFlagBootOrSystem | kFlagBoot);
    const bool bSystem = (dwFsFlags & (kFlagBootOrSystem | kFlagSystem)) == (kFlagBootOrSystem | kFlagSystem);
    if (bBoot)
        add(L"BOOT");
    if (bSystem)
        add(L"SYSTEM");
    // 0x2 alone marks the drive that carried the configuration; on BOOT it cannot be told apart.
    if ((dwFsFlags & kFlagBoot) && !bBoot)
        add(L"CONFIG");
    if (dwFsFlags & kFlagMount)
        add(L"MOUNT");
    return sFlags;
}

int RunRestore(morvane::VESK& client, morvane::VeskCredentials& credentials, const CRestoreRequest& request,
               CProgressDisplay& display)
{
    if (!client.Init(&credentials))
    {
        PrintLine(L"keflhost: the restore session could not start: " + LastError(client));
        client.Fini();
        return kRestoreSessionFailed;
    }
    std::vector<morvane::Filespace> vFilespaces;
    if (!client.GetFilespaceList(vFilespaces))
    {
        PrintLine(L"keflhost: the backup's filespaces could not be listed: " + LastError(client));
        client.Fini();
        return kRestoreSessionFailed;
    }
    PrintList(vFilespaces);
    if (request.bListOnly)
    {
        client.Fini();
        return kRestoreOk;
    }

    std::vector<std::wstring> vRestored, vFailed;
    for (morvane::Filespace& fs : vFilespaces)
    {
        if (!IsSelected(fs, request))
            continue;
        const bool bRestored = client.RestoreFilespace(fs);
        display.Finish();
        (bRestored ? vRestored : vFailed).push_back(Name(fs));
        if (!bRestored)
            PrintLine(L"keflhost: " + Name(fs) + L" was not restored completely: " + LastError(client));
    }
    for (const std::wstring& sWanted : request.vSelected)
    {
        bool bKnown = false;
        for (const morvane::Filespace& fs : vFilespaces)
        {
            CRestoreRequest one;
            one.vSelected = {sWanted};
            bKnown = bKnown || IsSelected(fs, one);
        }
        if (!bKnown)
        {
            PrintLine(L"keflhost: the backup holds no filespace " + sWanted);
            vFailed.push_back(sWanted);
        }
    }
    // The links go last: their targets are among the restored files.
    client.RestoreLinks();
    client.Fini();

    PrintLine(L"Restored " + std::to_wstring(vRestored.size()) + L" of " +
              std::to_wstring(vRestored.size() + vFailed.size()) + L" filespaces.");
    for (const std::wstring& sName : vFailed)
        PrintLine(L"  not restored: " + sName);
    if (request.bLinksRecordedOnly)
        for (const winecompat::CRecordedLink& link : winecompat::CLinkPatches::RecordedLinks())
            PrintLine(L"  recorded, not made (Wine cannot): " + link.sKind + L" " + link.sLink + L" -> " +
                      link.sTarget);
    if (display.LinksFailed())
        PrintLine(L"  not every link was made");
    return vFailed.empty() && !display.LinksFailed() ? kRestoreOk : kRestoreIncomplete;
}

} // namespace keflhost
