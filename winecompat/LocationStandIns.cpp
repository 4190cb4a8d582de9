#include "winecompat/LocationStandIns.h"

#include "winecompat/IatPatch.h"

#include <winnetwk.h>

#include <atomic>
#include <cstring>
#include <cwchar>
#include <string>

namespace winecompat
{
namespace
{

using GetVolumePathNameFn = BOOL(WINAPI*)(LPCWSTR, LPWSTR, DWORD);
GetVolumePathNameFn g_pfnRealGetVolumePathName = nullptr;

BOOL WINAPI GetVolumePathNameAsWindows(LPCWSTR pwszPath, LPWSTR pwszVolumePath, DWORD cch)
{
    const std::wstring sPath = pwszPath;
    if (sPath.rfind(L"\\\\?\\Volume{", 0) != 0 || sPath.find(L'}') == std::wstring::npos)
        return g_pfnRealGetVolumePathName(pwszPath, pwszVolumePath, cch);
    wcsncpy_s(pwszVolumePath, cch, sPath.substr(0, sPath.find(L'}') + 2).c_str(), _TRUNCATE);
    return TRUE;
}

DWORD WINAPI WNetGetResourceInformationAsWindows(LPNETRESOURCEW pResource, LPVOID pBuffer, LPDWORD pcb,
                                                 LPWSTR* ppSystem)
{
    static const wchar_t kProvider[] = L"Microsoft Windows Network";
    const DWORD cbNeeded = static_cast<DWORD>(sizeof(NETRESOURCEW) + sizeof(kProvider));
    const wchar_t* pwszName = pResource->lpRemoteName;
    if (!pwszName || std::wcsncmp(pwszName, L"\\\\", 2) != 0)
        return ERROR_BAD_NET_NAME;
    if (*pcb < cbNeeded)
    {
        *pcb = cbNeeded;
        return ERROR_MORE_DATA;
    }
    auto* pOut = static_cast<NETRESOURCEW*>(pBuffer);
    auto* pwszProvider = reinterpret_cast<wchar_t*>(pOut + 1);
    std::memcpy(pwszProvider, kProvider, sizeof(kProvider));
    pOut->lpProvider = pwszProvider;
    *ppSystem = nullptr;
    return NO_ERROR;
}

using FlushFileBuffersFn = BOOL(WINAPI*)(HANDLE);
FlushFileBuffersFn g_pfnRealFlushFileBuffers = nullptr;
std::atomic<int> g_iVolumeFlushes{0};

BOOL WINAPI FlushFileBuffersAsWindows(HANDLE hFile)
{
    if (g_pfnRealFlushFileBuffers(hFile))
        return TRUE;
    const DWORD dwLastError = ::GetLastError();
    // A file's flush that fails is the real answer; only a volume's is Wine's gap. A volume handle
    // has no name of its own.
    wchar_t wszPath[8];
    if (dwLastError != ERROR_INVALID_FUNCTION || ::GetFinalPathNameByHandleW(hFile, wszPath, 8, 0) != 0)
    {
        ::SetLastError(dwLastError);
        return FALSE;
    }
    ++g_iVolumeFlushes;
    return TRUE;
}

} // namespace

int VolumeFlushes()
{
    return g_iVolumeFlushes;
}

CLocationPatches::CLocationPatches(HMODULE hModule)
{
    g_iVolumeFlushes = 0;
    m_vPatches.push_back(
        std::make_unique<CIatPatch>(hModule, "KERNEL32.dll", "GetVolumePathNameW",
                                    reinterpret_cast<const void*>(&GetVolumePathNameAsWindows)));
    g_pfnRealGetVolumePathName = reinterpret_cast<GetVolumePathNameFn>(m_vPatches.back()->Original());
    m_vPatches.push_back(
        std::make_unique<CIatPatch>(hModule, "MPR.dll", "WNetGetResourceInformationW",
                                    reinterpret_cast<const void*>(&WNetGetResourceInformationAsWindows)));
    m_vPatches.push_back(std::make_unique<CIatPatch>(hModule, "KERNEL32.dll", "FlushFileBuffers",
                                                     reinterpret_cast<const void*>(&FlushFileBuffersAsWindows)));
    g_pfnRealFlushFileBuffers = reinterpret_cast<FlushFileBuffersFn>(m_vPatches.back()->Original());
}

CLocationPatches::~CLocationPatches() = default;

bool CLocationPatches::IsApplied() const
{
    for (const auto& pPatch : m_vPatches)
        if (!pPatch->IsApplied())
            return false;
    return true;
}

} // namespace winecompat
