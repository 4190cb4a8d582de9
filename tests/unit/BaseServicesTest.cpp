// The base services: the host's folders, the process's privileges, and the user messages (what the
// host's log callback receives, what it answers, and the error text).
#include "platform/WindowsVersion.h"
#include "unit/BaseServicesFixture.h"

using namespace kefltest;
using namespace morvane;

TEST_F(BaseServicesFixture, HostFoldersComeFromQtxIniElseFromTheSystemKind)
{
    // The system (5.2 is the recovery system), qtx.ini, and the log and configuration folders read.
    const std::wstring sHost = L"X:\\Program Files\\Morvane\\DURN";
    const std::tuple<uint32_t, const char*, std::wstring, std::wstring> kRows[] = {
        {OSCODE_WINPE_52, "", L"Z:\\DURN\\Logfiles", L"Z:\\DURNCFG"},
        {OSCODE_WIN_61, "", sHost + L"\\Logfiles", sHost + L"CFG"},
        {OSCODE_WIN_61, "[File Locations]\r\nLogfiles=R:\\Logs\r\nConfig=R:\\Cfg\r\n", L"R:\\Logs",
         L"R:\\Cfg"},
        {OSCODE_WINPE_52, "[File Locations]\r\nConfig=R:\\Cfg\r\n", L"Z:\\DURN\\Logfiles", L"R:\\Cfg"}};
    for (const auto& [uiOS, pszQtxIni, sLogDirRead, sConfigDirRead] : kRows)
    {
        WriteTextFile(L"X:\\Program Files\\Morvane\\DURN\\qtx.ini", pszQtxIni);
        m_impl.m_uiOSVersion = uiOS;
        std::wstring sLogDir, sConfigDir;
        m_impl.GetLogDir(sLogDir);
        m_impl.GetConfigDir(sConfigDir);
        EXPECT_EQ(sLogDirRead, sLogDir) << "system " << uiOS << ", qtx.ini " << pszQtxIni;
        EXPECT_EQ(sConfigDirRead, sConfigDir) << "system " << uiOS << ", qtx.ini " << pszQtxIni;
    }
}

TEST_F(BaseServicesFixture, RefusesPrivilegesThatTheTokenDoesNotHold)
{
    EXPECT_TRUE(m_impl.SetPrivilege(L"SeBackupPrivilege", true));
    // A token without the privilege: the adjustment succeeds, and says so only in the last error.
    m_patches.Patch(
        m_hExe, "ADVAPI32.dll", "AdjustTokenPrivileges",
        +[](HANDLE, BOOL, PTOKEN_PRIVILEGES, DWORD, PTOKEN_PRIVILEGES, PDWORD) -> BOOL
        { return WithLastError(ERROR_NOT_ALL_ASSIGNED, TRUE); });
    EXPECT_FALSE(m_impl.SetPrivilege(L"SeRestorePrivilege", true));
    EXPECT_TRUE(HasText(Log(L"VESK"), L"VESKImpl::SetPrivilege : ... ending(AdjustTokenPrivileges failed - "
                                      L"ERROR_NOT_ALL_ASSIGNED)"));
}

TEST_F(BaseServicesFixture, ErrorsBecomeTheErrorTextCutAt1023Characters)
{
    EXPECT_EQ(L"No error", ErrorText());
    EXPECT_EQ(1, m_impl.LogStdMsg(3, 125)) << "without a callback: 1 for an error";
    EXPECT_EQ(L"No target location has been set", ErrorText());
    m_impl.SetLastErrorMsg(std::wstring(2000, L'x'));
    EXPECT_EQ(std::wstring(1023, L'x'), ErrorText()) << "cut, not refused";
}

TEST_F(BaseServicesFixture, CallbackGetsMessagesFormattedTheWindowsWayWithItsContext)
{
    m_impl.SetLogMsgCallbackFn([](uint32_t, std::wstring, uint64_t) { return 42; }, 0);
    EXPECT_EQ(42, m_impl.LogStdMsg(1, 102)) << "the callback's answer";
    m_impl.SetLogMsgCallbackFn(&RecordMessage, 7);
    m_impl.LogStdMsg(3, 125);
    m_impl.LogVarMsg(1, 100, 0xFFFFFFFFu);              // %u
    m_impl.LogVarMsg(1, 130, L'E');                     // %c, a wide character
    m_impl.LogVarMsg(1, 121, L"1.0.0", L"(build dev)"); // %s, wide strings
    ASSERT_EQ(4u, g_vMessages.size());
    EXPECT_EQ(std::pair(3u, 7ull), std::pair(g_vMessages[0].uiSeverity, g_vMessages[0].ullContext));
    EXPECT_EQ(L"No target location has been set", g_vMessages[0].sText);
    EXPECT_EQ(L"AllocConsole()( failed with error 4294967295", g_vMessages[1].sText);
    EXPECT_EQ(L"Successfully restored drive letter E: from target location", g_vMessages[2].sText);
    EXPECT_EQ(L"KEFL.DLL 1.0.0 (build dev)", g_vMessages[3].sText);
}
