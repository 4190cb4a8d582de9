#include "host/Filespaces.h"

#include "platform/FormatText.h"

#include <cwctype>

namespace keflhost
{
namespace
{

std::wstring WithoutTrailingSlashes(std::wstring sFolder, size_t cchKept)
{
    while (sFolder.size() > cchKept && sFolder.back() == L'\\')
        sFolder.pop_back();
    return sFolder;
}

} // namespace

std::wstring Name(const morvane::Filespace& fs)
{
    return (fs.dwFsFlags & morvane::kFsFlagMountPoint) ? fs.sFsMountDir : std::wstring(1, fs.wcFsDriveLetter) + L":";
}

std::wstring DescribeFlags(uint32_t dwFsFlags)
{
    std::wstring sFlags;
    auto add = [&](const wchar_t* pwsz) { sFlags += (sFlags.empty() ? L"" : L" ") + std::wstring(pwsz); };
    const bool bBoot = (dwFsFlags & morvane::kFsFlagBoot) == morvane::kFsFlagBoot;
    const bool bSystem = (dwFsFlags & morvane::kFsFlagSystem) == morvane::kFsFlagSystem;
    if (bBoot)
        add(L"BOOT");
    if (bSystem)
        add(L"SYSTEM");
    // 0x2 alone marks the drive that carried the configuration; on BOOT it cannot be told apart.
    if ((dwFsFlags & morvane::kFsFlagConfig) && !bBoot)
        add(L"CONFIG");
    if (dwFsFlags & morvane::kFsFlagMountPoint)
        add(L"MOUNT");
    return sFlags;
}

std::wstring Time(const morvane::Filespace& fs)
{
    if (!fs.bFsTimeValid)
        return L"-";
    wchar_t wsz[32];
    (void)morvane::FormatInto(wsz, L"%04u-%02u-%02u %02u:%02u:%02u UTC", fs.stFsTime.wYear,
                              fs.stFsTime.wMonth, fs.stFsTime.wDay, fs.stFsTime.wHour, fs.stFsTime.wMinute,
                              fs.stFsTime.wSecond); // 31 characters at most
    return wsz;
}

bool IsSelected(const morvane::Filespace& fs, const std::vector<std::wstring>& vSelected)
{
    if (vSelected.empty())
        return true;
    for (const std::wstring& sWanted : vSelected)
    {
        if (fs.dwFsFlags & morvane::kFsFlagMountPoint)
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

std::wstring BackupFolder(const std::wstring& sLocation, const morvane::Filespace& fs)
{
    const std::wstring sFolder = WithoutTrailingSlashes(sLocation, 0);
    if (!(fs.dwFsFlags & morvane::kFsFlagMountPoint))
        return sFolder + L"\\" + fs.wcFsDriveLetter;
    // A mount point's files are inside the folder of the drive that holds it.
    const std::wstring sMount = WithoutTrailingSlashes(fs.sFsMountDir, 3);
    return sFolder + L"\\" + sMount.substr(0, 1) + (sMount.size() > 2 ? sMount.substr(2) : L"");
}

std::wstring RestoredFolder(const morvane::Filespace& fs)
{
    if (!(fs.dwFsFlags & morvane::kFsFlagMountPoint))
        return std::wstring(1, fs.wcFsDriveLetter) + L":";
    return WithoutTrailingSlashes(fs.sFsMountDir, 3);
}

CEvent FilespaceEvent(const morvane::Filespace& fs)
{
    const SYSTEMTIME& st = fs.stFsTime;
    return {{"name", Text(fs.sFsName)},
            {"path", Text(fs.sFsPath)},
            {"mountDir", Text(fs.sFsMountDir)},
            {"flags", fs.dwFsFlags},
            {"drive", Text(std::wstring(1, fs.wcFsDriveLetter))},
            {"time", fs.bFsTimeValid ? CEvent{st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond}
                                     : CEvent()}};
}

morvane::Filespace FilespaceFromEvent(const CEvent& event)
{
    morvane::Filespace fs{};
    fs.sFsName = Wide(event, "name");
    fs.sFsPath = Wide(event, "path");
    fs.sFsMountDir = Wide(event, "mountDir");
    fs.dwFsFlags = event.at("flags").get<uint32_t>();
    const std::wstring sDrive = Wide(event, "drive");
    fs.wcFsDriveLetter = sDrive.empty() ? L'\0' : sDrive[0];
    const CEvent& time = event.at("time");
    fs.bFsTimeValid = !time.is_null();
    if (fs.bFsTimeValid)
    {
        WORD* const apwField[] = {&fs.stFsTime.wYear, &fs.stFsTime.wMonth,  &fs.stFsTime.wDay,
                                  &fs.stFsTime.wHour, &fs.stFsTime.wMinute, &fs.stFsTime.wSecond};
        for (size_t i = 0; i < std::size(apwField); ++i)
            *apwField[i] = time.at(i).get<WORD>();
    }
    return fs;
}

} // namespace keflhost
