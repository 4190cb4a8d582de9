// The host's log and configuration folders, as its qtx.ini names them.
#include "client/VESKImpl.h"

#include "platform/ModulePath.h"
#include "platform/WindowsVersion.h"
#include "trace/TraceObjects.h"
#include "platform/ProfileString.h"

namespace morvane
{
namespace
{

// The host is always installed here on the recovery system. Its running path is read (a failure
// is traced for support staff) but the configuration file is taken from the installation folder:
// a host started from elsewhere still reads the installed configuration.
std::wstring HostConfigFile(const wchar_t* pwszFunction)
{
    std::wstring sExePath;
    DWORD dwLastError = 0;
    if (!GetModulePath(nullptr, sExePath, dwLastError))
        g_VeskTrace.TraceValue(TRACE_WARNING, pwszFunction, L"dwLastError",
                               static_cast<int64_t>(dwLastError));
    std::wstring sHostDir = L"X:\\Program Files\\Morvane\\DURN\\";
    sHostDir.pop_back();
    return sHostDir + L"\\qtx.ini";
}

} // namespace

void VESKImpl::ReadHostLocation(const wchar_t* pwszFunction, const wchar_t* pwszKey,
                                const wchar_t* pwszDefault, std::wstring& sValue)
{
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, pwszFunction, L"starting ...");
    const std::wstring sIniPath = HostConfigFile(pwszFunction);
    sValue = ReadProfileString(L"File Locations", pwszKey, pwszDefault, sIniPath.c_str());
    g_VeskTrace.TraceValue(TRACE_INFO, pwszFunction, pwszKey, sValue);
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, pwszFunction, L"... ending");
}

void VESKImpl::GetLogDir(std::wstring& sLogDir)
{
    const bool bRecovery = m_uiOSVersion == OSCODE_WINPE_52;
    ReadHostLocation(L"VESKImpl::GetLogDir", L"Logfiles",
                     bRecovery ? L"Z:\\DURN\\Logfiles" : L"X:\\Program Files\\Morvane\\DURN\\Logfiles",
                     sLogDir);
}

void VESKImpl::GetConfigDir(std::wstring& sConfigDir)
{
    const bool bRecovery = m_uiOSVersion == OSCODE_WINPE_52;
    ReadHostLocation(L"VESKImpl::GetConfigDir", L"Config",
                     bRecovery ? L"Z:\\DURNCFG" : L"X:\\Program Files\\Morvane\\DURNCFG", sConfigDir);
}

} // namespace morvane
