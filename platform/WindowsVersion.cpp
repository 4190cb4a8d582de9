#include "platform/WindowsVersion.h"

#include "platform/UniqueHandle.h"

#include <windows.h>

namespace morvane
{
namespace
{

using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOW*);

// RtlGetVersion reports the true version; GetVersionExW is subject to the caller's manifest.
void ReadVersion(uint32_t& uiMajor, uint32_t& uiMinor)
{
    OSVERSIONINFOW info = {};
    info.dwOSVersionInfoSize = sizeof(info);
    HMODULE hNtdll = ::GetModuleHandleW(L"ntdll.dll");
    auto pfn = hNtdll ? reinterpret_cast<RtlGetVersionFn>(
                            reinterpret_cast<void*>(::GetProcAddress(hNtdll, "RtlGetVersion")))
                      : nullptr;
    if (!(pfn && pfn(&info) == 0))
    {
        info.dwOSVersionInfoSize = sizeof(info);
        if (!::GetVersionExW(&info))
            return;
    }
    uiMajor = info.dwMajorVersion;
    uiMinor = info.dwMinorVersion;
}

bool KeyExists(const wchar_t* pwszKey)
{
    CUniqueRegKey hKey;
    return ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, pwszKey, 0, KEY_READ, hKey.put()) == ERROR_SUCCESS;
}

uint32_t FullWindowsCode(uint32_t uiMajor, uint32_t uiMinor)
{
    struct Row
    {
        uint32_t uiMajor, uiMinor, uiCode;
    };
    static const Row kRows[] = {{5, 0, OSCODE_WIN_50}, {5, 1, OSCODE_WIN_51},  {5, 2, OSCODE_WIN_52},
                                {6, 0, OSCODE_WIN_60}, {6, 1, OSCODE_WIN_61},  {6, 2, OSCODE_WIN_62},
                                {6, 3, OSCODE_WIN_63}, {10, 0, OSCODE_WIN_100}};
    for (const Row& row : kRows)
        if (row.uiMajor == uiMajor && row.uiMinor == uiMinor)
            return row.uiCode;
    return OSCODE_UNKNOWN;
}

} // namespace

CWindowsVersion::CWindowsVersion()
{
    CLastErrorGuard keepError; // probing at load must not disturb the caller's last error
    ReadVersion(m_uiMajor, m_uiMinor);
    // The pre-installation environment marks itself with MiniNT; some builds of the recovery
    // image rename the key to MyMiniNT so that setup programs do not refuse to run.
    m_bPreinstallation = KeyExists(L"SYSTEM\\CurrentControlSet\\Control\\MiniNT") ||
                         KeyExists(L"SYSTEM\\CurrentControlSet\\Control\\MyMiniNT");
    if (m_bPreinstallation)
        m_uiCode = (m_uiMajor == 5 && m_uiMinor == 2) ? OSCODE_WINPE_52 : OSCODE_WINPE_OTHER;
    else
        m_uiCode = FullWindowsCode(m_uiMajor, m_uiMinor);
}

const CWindowsVersion& CWindowsVersion::Instance()
{
    static const CWindowsVersion probe;
    return probe;
}

bool RunsUnderWine()
{
    const HMODULE hNtdll = ::GetModuleHandleW(L"ntdll.dll");
    return hNtdll && ::GetProcAddress(hNtdll, "wine_get_version") != nullptr;
}

} // namespace morvane
