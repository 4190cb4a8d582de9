// What the backup holds: one filespace per drive folder and per mount point, BOOT and SYSTEM
// marked from the restored configuration.
#include "session/KEFLImpl.h"

#include "channel/MessageIds.h"
#include "trace/TraceObjects.h"
#include "platform/FormatText.h"
#include "platform/ProfileString.h"

#include <cwchar>
#include <cwctype>

namespace morvane
{
namespace
{

const wchar_t kGetFilespaceList[] = L"KEFLImpl::GetFilespaceList";
const wchar_t kGetBOOTandSYSTEM[] = L"KEFLImpl::GetBOOTandSYSTEM";

// Whether c is one of the upper-case drive letters. The terminator counts too (wcschr finds it),
// so an empty value in the configuration passes as a letter.
bool IsDriveLetter(wchar_t c)
{
    return std::wcschr(kDriveLetters, c) != nullptr;
}

// A filespace with every field cleared and the file system the backups are made from.
Filespace EmptyFilespace()
{
    Filespace fs{};
    fs.sFsName = L"NTFS";
    fs.bFsTimeValid = false;
    fs.dwFsFlags = 0;
    return fs;
}

// The path of a mount point below its drive: "C:\Mount" -> "\Mount".
std::wstring PathBelowDrive(const std::wstring& sPath)
{
    if (sPath.size() >= 2 && sPath[1] == L':')
        return sPath.substr(2);
    return sPath.empty() || sPath.front() == L'\\' ? sPath : L"\\" + sPath;
}

} // namespace

// One filespace per drive folder of the backup ("R:\Backup\C" is drive C:), found under sPath;
// the drive that carried the configuration has it copied to the host. False when that copy fails.
bool KEFLImpl::ListDriveFilespaces(const std::wstring& sPath, std::vector<Filespace>& vFilespaces)
{
    const wchar_t* const kFn = kGetFilespaceList;
    for (const wchar_t* pwc = kDriveLetters; *pwc; ++pwc)
    {
        const wchar_t wcLetter = *pwc;
        const std::wstring sSubFolder = sPath + L"\\" + wcLetter;
        const DWORD dwAttributes = ::GetFileAttributesW(sSubFolder.c_str());
        if (dwAttributes == INVALID_FILE_ATTRIBUTES)
        {
            const DWORD dwLastError = ::GetLastError();
            if (dwLastError != ERROR_FILE_NOT_FOUND)
                TraceLastError(kFn, dwLastError, L"GetFileAttributes failed");
            continue;
        }
        if (!(dwAttributes & FILE_ATTRIBUTE_DIRECTORY))
            continue;
        g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"sSubFolder", sSubFolder);

        Filespace fs = EmptyFilespace();
        fs.wcFsDriveLetter = wcLetter;
        fs.sFsPath = std::wstring(1, wcLetter) + L":\\";

        // The drive folder's last change stands for the time of the drive's backup.
        WIN32_FILE_ATTRIBUTE_DATA data{};
        if (::GetFileAttributesExW(sSubFolder.c_str(), GetFileExInfoStandard, &data))
            fs.bFsTimeValid = Convert_FILETIME(data.ftLastWriteTime, fs.stFsTime);
        else
        {
            const DWORD dwLastError = ::GetLastError();
            TraceLastError(kFn, dwLastError, L"GetFileAttributesEx failed");
        }

        if (CheckIfConfigDL(wcLetter))
        {
            fs.dwFsFlags |= kFsFlagConfig;
            g_KeflTrace.TraceMessage(TRACE_INFO, kFn, L"Found config filespace");
            if (!GetConfig())
                return TraceFailed(kFn, L"... ending(GetConfig() failed)");
        }
        vFilespaces.push_back(fs);
    }
    return true;
}

// One filespace per mount point; its files are in the folder of the drive it is mounted on.
void KEFLImpl::ListMountFilespaces(const std::wstring& sPath, std::vector<Filespace>& vFilespaces)
{
    for (const Point& point : m_MountPoints)
    {
        const std::wstring& sMountDir = point.sLink;
        const wchar_t wcLetter =
            sMountDir.empty() ? L'\0' : static_cast<wchar_t>(std::towupper(sMountDir[0]));
        const std::wstring sSubFolder = sPath + L"\\" + wcLetter + PathBelowDrive(sMountDir);
        g_KeflTrace.TraceValue(TRACE_INFO, kGetFilespaceList, L"sSubFolder", sSubFolder);

        Filespace fs = EmptyFilespace();
        fs.wcFsDriveLetter = wcLetter;
        fs.dwFsFlags = kFsFlagMountPoint;
        fs.sFsMountDir = sMountDir;
        fs.sFsPath = sMountDir;
        vFilespaces.push_back(fs);
    }
}

// BOOT and SYSTEM as the configuration names them; a mount point is neither.
void KEFLImpl::MarkBootAndSystem(std::vector<Filespace>& vFilespaces)
{
    for (Filespace& fs : vFilespaces)
    {
        if (fs.dwFsFlags & kFsFlagMountPoint)
            continue;
        if (fs.wcFsDriveLetter == m_wcWinBOOT)
        {
            g_KeflTrace.TraceMessage(TRACE_INFO, kGetFilespaceList, L"Found BOOT filespace");
            fs.dwFsFlags |= kFsFlagBoot;
        }
        if (fs.wcFsDriveLetter == m_wcWinSYSTEM)
        {
            g_KeflTrace.TraceMessage(TRACE_INFO, kGetFilespaceList, L"Found SYSTEM filespace");
            fs.dwFsFlags |= kFsFlagSystem;
        }
    }
}

bool KEFLImpl::GetFilespaceList(std::vector<Filespace>& vFilespaces)
{
    const wchar_t* const kFn = kGetFilespaceList;
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    SetLastErrorMsg(L"");
    LogStdMsg(MSG_SEVERITY_INFO, IDS_LISTING_DRIVE_LETTERS);

    std::wstring sPath;
    if (!LocalTargetPath(kFn, sPath) || !ListDriveFilespaces(sPath, vFilespaces))
        return false;
    ListMountFilespaces(sPath, vFilespaces);
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"uiFilespaceCount", static_cast<int64_t>(vFilespaces.size()));
    MarkBootAndSystem(vFilespaces);

    LogStdMsg(MSG_SEVERITY_INFO, IDS_LISTED_DRIVE_LETTERS);
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return true;
}

// The SYSTEM drive of an MBR disk: [WinDir] BootDriveLetter, else the letter of the partition
// [WinDir] BootPartition names in the disk's section.
bool KEFLImpl::ReadMbrSystemLetter(const wchar_t* pwszIni, const wchar_t* pwszDriveSection)
{
    const wchar_t* const kFn = kGetBOOTandSYSTEM;
    wchar_t wszLetter[2] = {};
    g_KeflTrace.TraceMessage(TRACE_INFO, kFn, L"Windows SYSTEM on an MBR disk");
    ::GetPrivateProfileStringW(L"WinDir", L"BootDriveLetter", L"-", wszLetter, 2, pwszIni);
    m_wcWinSYSTEM = wszLetter[0];
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"m_wcWinSYSTEM", m_wcWinSYSTEM);
    if (!IsDriveLetter(m_wcWinSYSTEM))
    {
        g_KeflTrace.TraceMessage(TRACE_WARNING, kFn, L"[WinDir] BootDriveLetter not found/valid");
        const int iBootPartition =
            static_cast<int>(::GetPrivateProfileIntW(L"WinDir", L"BootPartition", -1, pwszIni));
        g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"iBootPartition", static_cast<int64_t>(iBootPartition));
        if (iBootPartition < 0)
        {
            LogStdMsg(MSG_SEVERITY_ERROR, IDS_NO_SYSTEM_DRIVE);
            return TraceFailed(kFn, L"... ending([WinDir] BootPartition missing)");
        }
        wchar_t wszPartitionKey[32] = {};
        (void)FormatInto(wszPartitionKey, L"DriveLetter%u",
                         static_cast<unsigned>(iBootPartition)); // fits
        ::GetPrivateProfileStringW(pwszDriveSection, wszPartitionKey, L"-", wszLetter, 2, pwszIni);
        m_wcWinSYSTEM = static_cast<wchar_t>(std::towupper(wszLetter[0]));
        g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"m_wcWinSYSTEM", m_wcWinSYSTEM);
        if (!IsDriveLetter(m_wcWinSYSTEM))
        {
            LogStdMsg(MSG_SEVERITY_WARNING, IDS_NO_SYSTEM_DRIVE);
            return TraceFailed(kFn, L"... ending(SYSTEM drive letter cannot be determined)");
        }
    }
    return true;
}

bool KEFLImpl::GetBOOTandSYSTEM()
{
    const wchar_t* const kFn = kGetBOOTandSYSTEM;
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    // Each listing reads the letters afresh: a GPT disk names no SYSTEM letter, and an earlier
    // listing's must not stand for it.
    m_wcWinBOOT = L'-';
    m_wcWinSYSTEM = L'-';
    const std::wstring sIniPath = m_sConfigDir + L"\\disrec.ini";
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"sIniPath", sIniPath);
    const wchar_t* const pwszIni = sIniPath.c_str();

    // The drive of the Windows folder (BOOT), taken as written.
    wchar_t wszLetter[2] = {};
    ::GetPrivateProfileStringW(L"WinDir", L"DriveLetter", L"-", wszLetter, 2, pwszIni);
    m_wcWinBOOT = wszLetter[0];
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"m_wcWinBOOT", m_wcWinBOOT);
    if (!IsDriveLetter(m_wcWinBOOT))
    {
        LogStdMsg(MSG_SEVERITY_ERROR, IDS_NO_BOOT_DRIVE);
        return TraceFailed(kFn, L"... ending([WinDir] DriveLetter not found/valid)");
    }

    const int iPhysicalDrive =
        static_cast<int>(::GetPrivateProfileIntW(L"WinDir", L"PhysicalDrive", -1, pwszIni));
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"iPhysicalDrive", static_cast<int64_t>(iPhysicalDrive));
    if (iPhysicalDrive < 0)
    {
        LogStdMsg(MSG_SEVERITY_ERROR, IDS_NO_SYSTEM_DRIVE);
        return TraceFailed(kFn, L"... ending([WinDir] PhysicalDrive missing)");
    }

    m_sWinDir = ReadProfileString(L"WinDir", L"Directory", L"", pwszIni);
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"m_sWinDir", m_sWinDir);
    if (m_sWinDir.empty())
    {
        LogStdMsg(MSG_SEVERITY_ERROR, IDS_NO_WINDOWS_DIR);
        return TraceFailed(kFn, L"... ending([WinDir] Directory missing)");
    }

    wchar_t wszDriveSection[130] = {};
    (void)FormatInto(wszDriveSection, L"PhysicalDrive%u",
                     static_cast<unsigned>(iPhysicalDrive)); // ten digits at most
    const UINT uiPartStyle = ::GetPrivateProfileIntW(wszDriveSection, L"PartitionStyle", 0, pwszIni);
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"uiPartStyle", static_cast<int64_t>(uiPartStyle));

    // MBR: the drive Windows starts from is named directly, or by its partition number.
    if (uiPartStyle == 0 && !ReadMbrSystemLetter(pwszIni, wszDriveSection))
        return false;
    if (uiPartStyle == 1)
    {
        // GPT: Windows starts from the EFI system partition, which has no drive letter to restore.
        g_KeflTrace.TraceMessage(TRACE_INFO, kFn, L"Windows SYSTEM on a GPT disk");
    }

    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return true;
}

bool KEFLImpl::Convert_FILETIME(FILETIME& ft, SYSTEMTIME& st)
{
    static const wchar_t kFn[] = L"KEFLImpl::Convert_FILETIME";
    g_KeflTrace.TraceHex(TRACE_INFO, kFn, L"ft.dwHighDateTime", ft.dwHighDateTime);
    g_KeflTrace.TraceHex(TRACE_INFO, kFn, L"ft.dwLowDateTime", ft.dwLowDateTime);
    // The time stays in UTC, as the backup recorded it.
    if (!::FileTimeToSystemTime(&ft, &st))
    {
        const DWORD dwLastError = ::GetLastError();
        TraceLastError(kFn, dwLastError, L"FileTimeToSystemTime failed");
        return false;
    }
    g_KeflTrace.TraceValue(TRACE_VERBOSE, kFn, L"st.wYear", static_cast<int64_t>(st.wYear));
    g_KeflTrace.TraceValue(TRACE_VERBOSE, kFn, L"st.wMonth", static_cast<int64_t>(st.wMonth));
    g_KeflTrace.TraceValue(TRACE_VERBOSE, kFn, L"st.wDayOfWeek", static_cast<int64_t>(st.wDayOfWeek));
    g_KeflTrace.TraceValue(TRACE_VERBOSE, kFn, L"st.wDay", static_cast<int64_t>(st.wDay));
    g_KeflTrace.TraceValue(TRACE_VERBOSE, kFn, L"st.wHour", static_cast<int64_t>(st.wHour));
    g_KeflTrace.TraceValue(TRACE_VERBOSE, kFn, L"st.wMinute", static_cast<int64_t>(st.wMinute));
    g_KeflTrace.TraceValue(TRACE_VERBOSE, kFn, L"st.wSecond", static_cast<int64_t>(st.wSecond));
    g_KeflTrace.TraceValue(TRACE_VERBOSE, kFn, L"st.wMilliseconds", static_cast<int64_t>(st.wMilliseconds));
    return true;
}

} // namespace morvane
