// The host's folders and the process's privileges.
#include "platform/WindowsVersion.h"
#include "unit/BaseServicesFixture.h"

using namespace kefltest;
using namespace morvane;

TEST_F(BaseServicesFixture, HostFoldersComeFromQtxIniElseFromTheSystemKind)
{
    // The system (5.2 is the recovery system), qtx.ini, and the log and configuration folders read.
    const std::tuple<uint32_t, const char*, std::wstring> kRows[] = {
        {OSCODE_WINPE_52, "", L"Z:\\DURN\\Logfiles|Z:\\DURNCFG"},
        {OSCODE_WIN_61, "",
         L"X:\\Program Files\\Morvane\\DURN\\Logfiles|X:\\Program Files\\Morvane\\DURNCFG"},
        {OSCODE_WIN_61, "[File Locations]\r\nLogfiles=R:\\Logs\r\nConfig=R:\\Cfg\r\n", L"R:\\Logs|R:\\Cfg"},
        {OSCODE_WINPE_52, "[File Locations]\r\nConfig=R:\\Cfg\r\n", L"Z:\\DURN\\Logfiles|R:\\Cfg"}};
    for (const auto& [uiOS, pszQtxIni, sExpected] : kRows)
    {
        WriteTextFile(L"X:\\Program Files\\Morvane\\DURN\\qtx.ini", pszQtxIni);
        m_impl.m_uiOSVersion = uiOS;
        std::wstring sLogDir, sConfigDir;
        m_impl.GetLogDir(sLogDir);
        m_impl.GetConfigDir(sConfigDir);
        EXPECT_EQ(sExpected, sLogDir + L"|" + sConfigDir) << "system " << uiOS << ", qtx.ini " << pszQtxIni;
    }
}

TEST_F(BaseServicesFixture, RefusesPrivilegesThatTheTokenDoesNotHold)
{
    EXPECT_TRUE(m_impl.SetPrivilege(L"SeBackupPrivilege", true));
    // A token without the privilege: the adjustment succeeds, and says so only in the last error.
    m_patches.Patch(
        m_hExe, "ADVAPI32.dll", "AdjustTokenPrivileges",
        +[](HANDLE, BOOL, PTOKEN_PRIVILEGES, DWORD, PTOKEN_PRIVILEGES, PDWORD) -> BOOL
        { return ::SetLastError(ERROR_NOT_ALL_ASSIGNED), TRUE; });
    EXPECT_FALSE(m_impl.SetPrivilege(L"SeRestorePrivilege", true));
    EXPECT_TRUE(HasText(Log(L"VESK"), L"VESKImpl::SetPrivilege : ... ending(AdjustTokenPrivileges failed - "
                                      L"ERROR_NOT_ALL_ASSIGNED)"));
}
