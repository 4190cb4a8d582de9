#include "winecompat/LinkStandIns.h"

#include "winecompat/IatPatch.h"

#include <winioctl.h>

#include <cstring>
#include <string>
#include <mutex>
#include <vector>

namespace winecompat
{
namespace
{

std::mutex g_mutexRecorded;
std::vector<CRecordedLink> g_vRecorded;

void Record(const wchar_t* pwszKind, std::wstring sLink, std::wstring sTarget)
{
    // Long-path prefixes are the caller's business, not part of the link's name.
    for (std::wstring* ps : {&sLink, &sTarget})
        if (ps->rfind(L"\\\\?\\", 0) == 0)
            ps->erase(0, 4);
    std::lock_guard<std::mutex> lock(g_mutexRecorded);
    g_vRecorded.push_back({pwszKind, std::move(sLink), std::move(sTarget)});
}

using DeviceIoControlFn = BOOL(WINAPI*)(HANDLE, DWORD, LPVOID, DWORD, LPVOID, DWORD, LPDWORD, LPOVERLAPPED);
DeviceIoControlFn g_pfnRealDeviceIoControl = nullptr;

BOOL WINAPI DeviceIoControlRecordingJunctions(HANDLE hDevice, DWORD dwIoControlCode, LPVOID pIn, DWORD cbIn,
                                              LPVOID pOut, DWORD cbOut, LPDWORD pcbReturned,
                                              LPOVERLAPPED pOverlapped)
{
    constexpr DWORD kMountPointTag = 0xA0000003;
    if (dwIoControlCode != FSCTL_SET_REPARSE_POINT || !pIn || cbIn < 16 ||
        *static_cast<const DWORD*>(pIn) != kMountPointTag)
        return g_pfnRealDeviceIoControl(hDevice, dwIoControlCode, pIn, cbIn, pOut, cbOut, pcbReturned,
                                        pOverlapped);
    // Mount-point reparse data: offsets and lengths of the two names at 8..15, names from 16.
    const BYTE* pb = static_cast<const BYTE*>(pIn);
    WORD wPrintOffset = 0, wPrintLength = 0;
    std::memcpy(&wPrintOffset, pb + 12, 2);
    std::memcpy(&wPrintLength, pb + 14, 2);
    std::wstring sTarget;
    if (16u + wPrintOffset + wPrintLength <= cbIn)
        sTarget.assign(reinterpret_cast<const wchar_t*>(pb + 16 + wPrintOffset),
                       wPrintLength / sizeof(wchar_t));
    wchar_t wszLink[1024] = {};
    if (!::GetFinalPathNameByHandleW(hDevice, wszLink, 1024, FILE_NAME_NORMALIZED))
        wszLink[0] = L'\0';
    Record(L"junction", wszLink, sTarget);
    if (pcbReturned)
        *pcbReturned = 0;
    return TRUE;
}

BOOLEAN WINAPI CreateSymbolicLinkRecording(LPCWSTR pwszLink, LPCWSTR pwszTarget, DWORD /*dwFlags*/)
{
    Record(L"symbolic link", pwszLink, pwszTarget);
    return TRUE;
}

using GetProcAddressFn = FARPROC(WINAPI*)(HMODULE, LPCSTR);
GetProcAddressFn g_pfnRealGetProcAddress = nullptr;

FARPROC WINAPI GetProcAddressWithRecorder(HMODULE hModule, LPCSTR pszName)
{
    // Names only: an ordinal is a number in the pointer's low word.
    if (reinterpret_cast<ULONG_PTR>(pszName) > 0xFFFF && std::strcmp(pszName, "CreateSymbolicLinkW") == 0)
        return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&CreateSymbolicLinkRecording));
    return g_pfnRealGetProcAddress(hModule, pszName);
}

using GetVolumeInformationFn = BOOL(WINAPI*)(LPCWSTR, LPWSTR, DWORD, LPDWORD, LPDWORD, LPDWORD, LPWSTR,
                                             DWORD);
GetVolumeInformationFn g_pfnRealGetVolumeInformation = nullptr;

BOOL WINAPI GetVolumeInformationForMountFolders(LPCWSTR pwszRoot, LPWSTR pwszName, DWORD cchName,
                                                LPDWORD pdwSerial, LPDWORD pcchMaxComponent, LPDWORD pdwFlags,
                                                LPWSTR pwszFileSystem, DWORD cchFileSystem)
{
    std::wstring sPath = pwszRoot ? pwszRoot : L"";
    const DWORD dwAttributes = ::GetFileAttributesW(sPath.c_str());
    const bool bFolderBelowRoot = sPath.size() > 3 && sPath[1] == L':' &&
                                  dwAttributes != INVALID_FILE_ATTRIBUTES &&
                                  (dwAttributes & FILE_ATTRIBUTE_DIRECTORY);
    if (bFolderBelowRoot)
        sPath = sPath.substr(0, 3);
    return g_pfnRealGetVolumeInformation(sPath.c_str(), pwszName, cchName, pdwSerial, pcchMaxComponent,
                                         pdwFlags, pwszFileSystem, cchFileSystem);
}

// The Linux path of a Windows path, from Wine's kernel32; empty when there is none.
std::string UnixPath(const std::wstring& sPath)
{
    using UnixNameFn = char*(CDECL*)(const wchar_t*);
    static const auto pfnUnixName = reinterpret_cast<UnixNameFn>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
    char* pszUnix = pfnUnixName ? pfnUnixName(sPath.c_str()) : nullptr;
    std::string sUnix = pszUnix ? pszUnix : "";
    if (pszUnix)
        ::HeapFree(::GetProcessHeap(), 0, pszUnix);
    return sUnix;
}

// Linux system calls, made directly: Wine offers no call that acts on a link rather than on what it
// points to. x86-64 numbers: unlink 87, symlink 88, readlink 89; a negative answer is -errno.
long LinuxCall(long lNumber, const void* pArg1, const void* pArg2 = nullptr, long lArg3 = 0)
{
    long lResult = 0;
    asm volatile("syscall"
                 : "=a"(lResult)
                 : "a"(lNumber), "D"(pArg1), "S"(pArg2), "d"(lArg3)
                 : "rcx", "r11", "memory");
    return lResult;
}

// Unlinks the Linux symbolic link at pwszPath; false when it is none.
bool UnlinkLinuxLink(LPCWSTR pwszPath)
{
    const std::string sUnix = pwszPath ? UnixPath(pwszPath) : std::string();
    char szTarget[8];
    return !sUnix.empty() && LinuxCall(89, sUnix.c_str(), szTarget, sizeof(szTarget)) >= 0 &&
           LinuxCall(87, sUnix.c_str()) == 0;
}

decltype(&::RemoveDirectoryW) g_pfnRealRemoveDirectory = nullptr;
decltype(&::DeleteFileW) g_pfnRealDeleteFile = nullptr;

BOOL WINAPI RemoveDirectoryOrLink(LPCWSTR pwszPath)
{
    return UnlinkLinuxLink(pwszPath) ? TRUE : g_pfnRealRemoveDirectory(pwszPath);
}

BOOL WINAPI DeleteFileOrLink(LPCWSTR pwszPath)
{
    return UnlinkLinuxLink(pwszPath) ? TRUE : g_pfnRealDeleteFile(pwszPath);
}

} // namespace

bool MakeLinuxSymbolicLink(const std::wstring& sLink, const std::wstring& sTarget)
{
    // The link's folder exists, the link does not: its Linux path is the folder's and its name.
    const size_t iSlash = sLink.rfind(L'\\');
    const std::string sFolder = UnixPath(sLink.substr(0, iSlash));
    std::string sName;
    for (const wchar_t wc : sLink.substr(iSlash + 1))
        sName.push_back(static_cast<char>(wc)); // test names are ASCII
    const std::string sUnixTarget = UnixPath(sTarget);
    return !sFolder.empty() && !sUnixTarget.empty() &&
           LinuxCall(88, sUnixTarget.c_str(), (sFolder + "/" + sName).c_str()) == 0;
}

CLinkPatches::CLinkPatches(HMODULE hModule)
{
    m_vPatches.push_back(
        std::make_unique<CIatPatch>(hModule, "KERNEL32.dll", "DeviceIoControl",
                                    reinterpret_cast<const void*>(&DeviceIoControlRecordingJunctions)));
    g_pfnRealDeviceIoControl = reinterpret_cast<DeviceIoControlFn>(m_vPatches.back()->Original());
    m_vPatches.push_back(
        std::make_unique<CIatPatch>(hModule, "KERNEL32.dll", "GetProcAddress",
                                    reinterpret_cast<const void*>(&GetProcAddressWithRecorder)));
    g_pfnRealGetProcAddress = reinterpret_cast<GetProcAddressFn>(m_vPatches.back()->Original());
    m_vPatches.push_back(
        std::make_unique<CIatPatch>(hModule, "KERNEL32.dll", "GetVolumeInformationW",
                                    reinterpret_cast<const void*>(&GetVolumeInformationForMountFolders)));
    g_pfnRealGetVolumeInformation = reinterpret_cast<GetVolumeInformationFn>(m_vPatches.back()->Original());
    m_vPatches.push_back(std::make_unique<CIatPatch>(hModule, "KERNEL32.dll", "RemoveDirectoryW",
                                                     reinterpret_cast<const void*>(&RemoveDirectoryOrLink)));
    g_pfnRealRemoveDirectory = reinterpret_cast<decltype(&::RemoveDirectoryW)>(m_vPatches.back()->Original());
    m_vPatches.push_back(std::make_unique<CIatPatch>(hModule, "KERNEL32.dll", "DeleteFileW",
                                                     reinterpret_cast<const void*>(&DeleteFileOrLink)));
    g_pfnRealDeleteFile = reinterpret_cast<decltype(&::DeleteFileW)>(m_vPatches.back()->Original());
}

CLinkPatches::~CLinkPatches() = default;

bool CLinkPatches::IsApplied() const
{
    for (const auto& pPatch : m_vPatches)
        if (!pPatch->IsApplied())
            return false;
    return true;
}

std::vector<CRecordedLink> CLinkPatches::RecordedLinks()
{
    std::lock_guard<std::mutex> lock(g_mutexRecorded);
    return g_vRecorded;
}

} // namespace winecompat
