#include "rules/TraceFiles.h"

#include "platform/ProfileString.h"
#include "platform/WindowsVersion.h"

namespace morvane
{
namespace
{

// The recovery host's configuration folder on the recovery system.
constexpr wchar_t kRecoveryConfigDir[] = L"Z:\\DURN";

} // namespace

std::wstring TraceIniPath(const std::wstring& sHostDir, uint32_t uiOSCode)
{
    return (uiOSCode == OSCODE_WINPE_52 ? std::wstring(kRecoveryConfigDir) : sHostDir) + L"\\trace.ini";
}

std::wstring LogFolder(const std::wstring& sHostDir, uint32_t uiOSCode)
{
    const std::wstring sDefault =
        (uiOSCode == OSCODE_WINPE_52 ? std::wstring(kRecoveryConfigDir) : sHostDir) + L"\\Logfiles";
    return ReadProfileString(L"File Locations", L"Logfiles", sDefault.c_str(), (sHostDir + L"\\qtx.ini").c_str());
}

std::wstring TraceLogFolder(const std::wstring& sHostDir)
{
    return LogFolder(sHostDir, OSCODE_UNKNOWN);
}

} // namespace morvane
