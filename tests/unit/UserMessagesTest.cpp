// User messages: what the host's log callback receives, what it answers, and the error text.
#include "unit/BaseServicesFixture.h"

using namespace kefltest;

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
