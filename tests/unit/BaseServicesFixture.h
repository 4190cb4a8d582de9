#pragma once
// A VESKImpl with KEFL.dll's string table as its message module and its protected state in reach.
#include "client/VESKImpl.h"
#include "platform/UniqueHandle.h"
#include "support/RecoveryEnvironment.h"
#include "support/TraceLog.h"

#include <gtest/gtest.h>

class CTestVESKImpl : public morvane::VESKImpl
{
public:
    using VESKImpl::m_hModule;
    using VESKImpl::m_uiOSVersion;
};

class BaseServicesFixture : public testing::Test
{
protected:
    void SetUp() override
    {
        kefltest::ResetHostConfiguration();
        kefltest::g_vMessages.clear();
        m_hKefl.reset(::LoadLibraryW(L"KEFL.dll"));
        ASSERT_TRUE(m_hKefl) << "error " << ::GetLastError();
        m_impl.m_hModule = m_hKefl.get();
    }
    void TearDown() override { kefltest::ResetHostConfiguration(); }

    std::wstring ErrorText()
    {
        std::wstring sText;
        m_impl.GetLastErrorMsg(sText);
        return sText;
    }
    static std::vector<std::wstring> VeskLog()
    {
        return kefltest::ReadLogLines(kefltest::LogDir() + L"\\VESK_trace.log");
    }

    morvane::CUniqueLibrary m_hKefl;
    CTestVESKImpl m_impl;
};
