#include "volumes/LocationTranslation.h"

#include "trace/TraceObjects.h"

#include <windows.h>
#include <winnetwk.h>

#include <cwchar>
#include <vector>

namespace morvane
{
namespace
{

constexpr DWORD kPathChars = 260;
constexpr DWORD kVolumePathListChars = 1024;

// "X:\" for one letter.
struct CDriveRoot
{
    explicit CDriveRoot(wchar_t wcLetter) : wsz{wcLetter, L':', L'\\', L'\0'} {}
    wchar_t wsz[4];
};

const wchar_t* DriveTypeText(UINT uiDriveType)
{
    static const wchar_t* const kTexts[] = {
        L"uiDriveType = DRIVE_UNKNOWN", L"uiDriveType = DRIVE_NO_ROOT_DIR", L"uiDriveType = DRIVE_REMOVABLE",
        L"uiDriveType = DRIVE_FIXED",   L"uiDriveType = DRIVE_REMOTE",      L"uiDriveType = DRIVE_CDROM",
        L"uiDriveType = DRIVE_RAMDISK",
    };
    return uiDriveType < sizeof(kTexts) / sizeof(kTexts[0]) ? kTexts[uiDriveType] : nullptr;
}

bool EndTranslation(const wchar_t* pwszFunction, std::wstring& sPathOut)
{
    if (!sPathOut.empty() && sPathOut.back() == L'\\')
        sPathOut.pop_back();
    g_KeflTrace.TraceValue(TRACE_VERBOSE, pwszFunction, L"sPathOut", sPathOut);
    return true;
}

bool LocalVolumeToDriveLetter(const std::wstring& sPathIn, std::wstring& sPathOut)
{
    static const wchar_t kFn[] = L"KEFLImpl::ConvertVOLtoDL";
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"Assuming local drive");
    wchar_t wszVolPath[kPathChars] = {};
    if (!::GetVolumePathNameW(sPathIn.c_str(), wszVolPath, kPathChars))
    {
        TraceLastError(kFn, ::GetLastError());
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(GetVolumePathName failed)");
        return false;
    }
    std::vector<wchar_t> list(kVolumePathListChars, L'\0');
    DWORD cchReturned = 0;
    if (!::GetVolumePathNamesForVolumeNameW(wszVolPath, list.data(), kVolumePathListChars, &cchReturned))
    {
        TraceLastError(kFn, ::GetLastError());
        // The same text as above on purpose: support staff look for one failure of this step.
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(GetVolumePathName failed)");
        return false;
    }
    // Drive-letter roots ("E:\") only: a volume may also be mounted in folders ("E:\Mount\Data\"),
    // which begin with a letter and colon too.
    for (const wchar_t* wszPtr = list.data(); *wszPtr != L'\0'; wszPtr += std::wcslen(wszPtr) + 1)
    {
        g_KeflTrace.TraceValue(TRACE_VERBOSE, kFn, L"wszPtr", wszPtr);
        if (wszPtr[1] == L':' && wszPtr[2] == L'\\' && wszPtr[3] == L'\0')
        {
            sPathOut.replace(0, std::wcslen(wszVolPath), wszPtr);
            return EndTranslation(kFn, sPathOut);
        }
    }
    g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Couldn't find corresponding drive letter)");
    return false;
}

bool ShareToDriveLetter(const std::wstring& sPathIn, std::wstring& sPathOut)
{
    static const wchar_t kFn[] = L"KEFLImpl::ConvertVOLtoDL";
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"Assuming network share");
    wchar_t wszVolPath[kPathChars] = {};
    if (!::GetVolumePathNameW(sPathIn.c_str(), wszVolPath, kPathChars))
    {
        TraceLastError(kFn, ::GetLastError());
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L".... ending(GetVolumePathName failed)");
        return false;
    }
    g_KeflTrace.TraceValue(TRACE_VERBOSE, kFn, L"wszVolPath", wszVolPath);
    const size_t cchVolPath = std::wcslen(wszVolPath);
    if (cchVolPath > 0)
        wszVolPath[cchVolPath - 1] = L'\0'; // "\\server\share\" -> "\\server\share"

    // From Z down: the first mapped letter whose connection begins with the share wins.
    for (wchar_t wcLetter = L'Z'; wcLetter >= L'A'; --wcLetter)
    {
        CDriveRoot root(wcLetter);
        const UINT uiDriveType = ::GetDriveTypeW(root.wsz);
        if (const wchar_t* pwszType = DriveTypeText(uiDriveType))
        {
            g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, pwszType);
        }
        else
        {
            g_KeflTrace.TraceValue(TRACE_WARNING, kFn, L"uiDriveType", static_cast<int64_t>(uiDriveType));
            g_KeflTrace.TraceMessage(TRACE_WARNING, kFn, L"Undocumented Drive Type");
        }
        if (uiDriveType != DRIVE_REMOTE)
            continue;
        root.wsz[2] = L'\0'; // "X:"
        wchar_t wszVolLocation[kPathChars] = {};
        DWORD cchVolLocation = kPathChars;
        if (::WNetGetConnectionW(root.wsz, wszVolLocation, &cchVolLocation) != NO_ERROR)
            continue;
        g_KeflTrace.TraceValue(TRACE_VERBOSE, kFn, L"wszVolLocation", wszVolLocation);
        // A prefix test, and the connection's length is what is replaced: a letter mapped to a
        // folder below the share takes that folder's place.
        if (std::wcsncmp(wszVolLocation, wszVolPath, std::wcslen(wszVolPath)) == 0)
        {
            sPathOut.replace(0, std::wcslen(wszVolLocation), root.wsz);
            return EndTranslation(kFn, sPathOut);
        }
    }
    g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Couldn't find corresponding drive letter)");
    return false;
}

} // namespace

bool ConvertDLtoVOL(const std::wstring& sPathIn, std::wstring& sPathOut)
{
    static const wchar_t kFn[] = L"KEFLImpl::ConvertDLtoVOL";
    g_KeflTrace.TraceValue(TRACE_VERBOSE, kFn, L"sPathIn", sPathIn);
    sPathOut = sPathIn;
    if (sPathIn.size() >= 2 && sPathIn[0] == L'\\' && sPathIn[1] == L'\\')
    {
        g_KeflTrace.TraceValue(TRACE_VERBOSE, kFn, L"sPathOut", sPathOut);
        return true; // already the share's own path
    }

    const CDriveRoot root(sPathIn.empty() ? L'\0' : sPathIn[0]);
    switch (::GetDriveTypeW(root.wsz))
    {
    case DRIVE_REMOVABLE:
    case DRIVE_FIXED:
    case DRIVE_CDROM:
    {
        wchar_t wszVolumeName[kPathChars] = {};
        if (!::GetVolumeNameForVolumeMountPointW(root.wsz, wszVolumeName, kPathChars))
        {
            TraceLastError(kFn, ::GetLastError());
            g_KeflTrace.TraceMessage(TRACE_ERROR, kFn,
                                     L"... ending(GetVolumeNameForVolumeMountPoint failed)");
            return false;
        }
        sPathOut.replace(0, 3, wszVolumeName); // the volume name ends in a backslash, as "X:\" does
        break;
    }
    case DRIVE_REMOTE:
    {
        // At most "X:\" copied, then its last character dropped: "X:".
        wchar_t wszLocalName[4] = {};
        sPathIn.copy(wszLocalName, 3);
        wszLocalName[std::wcslen(wszLocalName) - 1] = L'\0';
        g_KeflTrace.TraceValue(TRACE_VERBOSE, kFn, L"wszLocalName", wszLocalName);
        wchar_t wszRemoteName[kPathChars] = {};
        DWORD cchRemoteName = kPathChars;
        const DWORD dwLastError = ::WNetGetConnectionW(wszLocalName, wszRemoteName, &cchRemoteName);
        if (dwLastError != NO_ERROR)
        {
            TraceLastError(kFn, dwLastError);
            g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(WNetGetConnection failed)");
            return false;
        }
        sPathOut.replace(0, 2, wszRemoteName);
        break;
    }
    default:
        // Unknown, unused letters and RAM disks: a RAM disk does not outlive the recovery.
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Unknown drive type)");
        return false;
    }
    g_KeflTrace.TraceValue(TRACE_VERBOSE, kFn, L"sPathOut", sPathOut);
    return true;
}

bool ConvertVOLtoDL(const std::wstring& sPathIn, std::wstring& sPathOut)
{
    g_KeflTrace.TraceValue(TRACE_VERBOSE, L"KEFLImpl::ConvertVOLtoDL", L"sPathIn", sPathIn);
    sPathOut = sPathIn;
    if (std::wcsncmp(sPathIn.c_str(), L"\\\\?\\Volume", 10) == 0)
        return LocalVolumeToDriveLetter(sPathIn, sPathOut);
    return ShareToDriveLetter(sPathIn, sPathOut);
}

bool CheckIfWebDAV(const std::wstring& sPath, bool& bIsWebDAV)
{
    static const wchar_t kFn[] = L"KEFLImpl::CheckIfWebDAV";
    static const std::wstring sWebClientProvider = L"Web Client Network";
    static const std::wstring sWindowsProvider = L"Microsoft Windows Network";
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");

    std::vector<wchar_t> remoteName(sPath.begin(), sPath.end());
    remoteName.push_back(L'\0');
    NETRESOURCEW resource = {};
    resource.dwScope = RESOURCE_GLOBALNET;
    resource.dwType = RESOURCETYPE_ANY;
    resource.lpRemoteName = remoteName.data();

    // The answer is a NETRESOURCEW followed by the strings it points to.
    DWORD cbBuffer = sizeof(NETRESOURCEW);
    std::vector<BYTE> buffer(cbBuffer, 0);
    LPWSTR pwszSystem = nullptr;
    while (::WNetGetResourceInformationW(&resource, buffer.data(), &cbBuffer, &pwszSystem) == ERROR_MORE_DATA)
        buffer.assign(cbBuffer > sizeof(NETRESOURCEW) ? cbBuffer : sizeof(NETRESOURCEW), 0);

    bool bRc = false;
    const wchar_t* pwszProvider = reinterpret_cast<const NETRESOURCEW*>(buffer.data())->lpProvider;
    if (pwszProvider && _wcsicmp(pwszProvider, sWebClientProvider.c_str()) == 0)
    {
        g_KeflTrace.TraceMessage(TRACE_INFO, kFn, L"Is WebDAV share");
        bIsWebDAV = true;
        bRc = true;
    }
    else if (pwszProvider && _wcsicmp(pwszProvider, sWindowsProvider.c_str()) == 0)
    {
        g_KeflTrace.TraceMessage(TRACE_INFO, kFn, L"Is Microsoft share");
        bIsWebDAV = false;
        bRc = true;
    }
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return bRc;
}

} // namespace morvane
