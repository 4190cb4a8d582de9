// User messages: what the host's log callback receives, what it answers, and the error text.
#include "unit/BaseServicesFixture.h"

using namespace kefltest;

TEST_F(BaseServicesFixture, AnswersBySeverityWithoutCallbackAndKeepsErrors)
{
    EXPECT_EQ(L"No error", ErrorText());
    EXPECT_EQ(0, m_impl.LogStdMsg(1, 102));
    EXPECT_EQ(L"No error", ErrorText()) << "information is no error";
    EXPECT_EQ(1, m_impl.LogStdMsg(3, 125));
    EXPECT_EQ(L"No target location has been set", ErrorText());
    EXPECT_EQ(0, m_impl.LogStdMsg(2, 102));
    EXPECT_EQ(L"No target location has been set", ErrorText()) << "the error text stays until the next error";
}

TEST_F(BaseServicesFixture, HandsMessagesToTheCallbackWithItsContext)
{
    m_impl.SetLogMsgCallbackFn(&RecordingLogMsg, 0x1122334455667788ull);
    EXPECT_EQ(42, m_impl.LogStdMsg(1, 102));
    EXPECT_EQ(42, m_impl.LogStdMsg(3, 125));
    EXPECT_EQ(42, m_impl.LogVarMsg(3, 120, L'Q'));
    ASSERT_EQ(3u, s_vCalls.size());
    EXPECT_EQ(1u, s_vCalls[0].uiSeverity);
    EXPECT_EQ(L"Counting objects to be restored ...", s_vCalls[0].sMessage);
    EXPECT_EQ(0x1122334455667788ull, s_vCalls[0].ullContext);
    EXPECT_EQ(3u, s_vCalls[1].uiSeverity);
    EXPECT_EQ(L"No target location has been set", s_vCalls[1].sMessage);
    EXPECT_EQ(L"The supplied drive letter 'Q:' is invalid", s_vCalls[2].sMessage);
    EXPECT_EQ(L"The supplied drive letter 'Q:' is invalid", ErrorText());

    // Clearing the function clears its context with it; without a callback the defaults return.
    m_impl.SetLogMsgCallbackFn(nullptr, 0x99);
    EXPECT_EQ(nullptr, m_impl.m_pfnLogMsg);
    EXPECT_EQ(0u, m_impl.m_pLogMsgCtx);
    EXPECT_EQ(1, m_impl.LogStdMsg(3, 125));
    EXPECT_EQ(3u, s_vCalls.size());
}

TEST_F(BaseServicesFixture, FillsPlaceholdersTheWindowsWay)
{
    m_impl.SetLogMsgCallbackFn(&RecordingLogMsg, 0);
    m_impl.LogVarMsg(3, 100, 5u);
    m_impl.LogVarMsg(1, 130, L'E');
    m_impl.LogVarMsg(1, 131, L"C:\\Mount\\Data");
    m_impl.LogVarMsg(1, 121, L"1.0.0", L"(build dev)");
    m_impl.LogVarMsg(3, 140, 0xFFFFFFFFu);
    ASSERT_EQ(5u, s_vCalls.size());
    EXPECT_EQ(L"AllocConsole()( failed with error 5", s_vCalls[0].sMessage);
    EXPECT_EQ(L"Successfully restored drive letter E: from target location", s_vCalls[1].sMessage);
    EXPECT_EQ(L"Successfully restored mount point 'C:\\Mount\\Data' from target location",
              s_vCalls[2].sMessage);
    EXPECT_EQ(L"KEFL.DLL 1.0.0 (build dev)", s_vCalls[3].sMessage);
    EXPECT_EQ(L"WriteFile() failed with error 4294967295", s_vCalls[4].sMessage);
}

TEST_F(BaseServicesFixture, MessageNotInTheTableReachesNoCallbackAndEmptiesTheErrorText)
{
    m_impl.SetLogMsgCallbackFn(&RecordingLogMsg, 0);
    m_impl.LogStdMsg(3, 125);
    EXPECT_EQ(1, m_impl.LogStdMsg(3, 999)) << "the callback is not asked";
    EXPECT_EQ(0, m_impl.LogVarMsg(1, 998, 7u));
    EXPECT_EQ(1u, s_vCalls.size());
    EXPECT_EQ(L"No error", ErrorText()) << "the failed error message leaves an empty text";
    const auto vLines = VeskLog();
    EXPECT_TRUE(HasText(vLines, L"VESKImpl::LogStdMsg : LoadString failed"));
    EXPECT_TRUE(HasText(vLines, L"VESKImpl::LogVarMsg : LoadString failed"));
}

TEST_F(BaseServicesFixture, TracesFormattedMessagesWhenNoCallbackTakesThem)
{
    kefltest::WriteTraceIni({{L"VESK_TraceLevel", L"4"}});
    CTestVESKImpl impl; // reads the level
    impl.m_hModule = m_hKefl.get();
    impl.LogVarMsg(1, 132, L'F');
    EXPECT_TRUE(HasText(
        VeskLog(), L"VESKImpl::LogVarMsg : wszMsgBuf = \"Restoring drive letter F: from target location\""));
}

TEST_F(BaseServicesFixture, CutsLongErrorTextsInsteadOfRejectingThem)
{
    const std::wstring sLong(2000, L'x');
    m_impl.SetLastErrorMsg(sLong);
    EXPECT_EQ(std::wstring(1023, L'x'), ErrorText());
    m_impl.SetLastErrorMsg(std::wstring(1023, L'y'));
    EXPECT_EQ(std::wstring(1023, L'y'), ErrorText());
}

TEST_F(BaseServicesFixture, CopiesEveryMember)
{
    m_impl.SetLogMsgCallbackFn(&RecordingLogMsg, 5);
    m_impl.SetProgMsgCallbackFn(nullptr, 6);
    m_impl.SetLastErrorMsg(L"copied error");
    CTestVESKImpl copy(m_impl);
    std::wstring sText;
    copy.GetLastErrorMsg(sText);
    EXPECT_EQ(L"copied error", sText);
    EXPECT_EQ(5u, copy.m_pLogMsgCtx);
    EXPECT_EQ(m_hKefl.get(), copy.m_hModule);

    CTestVESKImpl assigned;
    assigned = m_impl;
    EXPECT_EQ(42, assigned.LogStdMsg(1, 102)) << "the callback came along";
}
