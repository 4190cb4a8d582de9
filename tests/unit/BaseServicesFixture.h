#pragma once
// A VESKImpl with KEFL.dll's string table as its message module and its protected state in reach; the
// module's trace at its default level from an empty log, and an emptied folder for a test's files.
#include "client/VESKImpl.h"
#include "platform/UniqueHandle.h"
#include "support/Patches.h"
#include "support/RecoveryEnvironment.h"
#include "support/TraceLog.h"
#include "trace/TraceObjects.h"

#include <gtest/gtest.h>

inline constexpr wchar_t kWorkDir[] = L"E:\\UnitWork";

class CTestVESKImpl : public morvane::VESKImpl
{
public:
    using VESKImpl::m_uiOSVersion;
};

class BaseServicesFixture : public testing::Test
{
protected:
    void SetUp() override
    {
        kefltest::ResetHostConfiguration();
        kefltest::g_vMessages.clear();
        kefltest::RemoveTree(kWorkDir);
        kefltest::MakeFolders(kWorkDir);
        morvane::g_KeflTrace.SetTraceLevel(3);
        morvane::g_KeflTrace.ResetTraceFile();
        m_hKefl.reset(::LoadLibraryW(L"KEFL.dll"));
        ASSERT_TRUE(m_hKefl) << "error " << ::GetLastError();
        m_impl.Channel().SetModule(m_hKefl.get());
    }
    void TearDown() override { kefltest::ResetHostConfiguration(); }

    std::wstring ErrorText()
    {
        std::wstring sText;
        m_impl.GetLastErrorMsg(sText);
        return sText;
    }
    // The lines of the module's trace log of the given name: Log(L"KEFL"), Log(L"VESK").
    static std::vector<std::wstring> Log(const std::wstring& sName)
    {
        return kefltest::ReadLogLines(kefltest::LogDir() + L"\\" + sName + L"_trace.log");
    }

    morvane::CUniqueLibrary m_hKefl;
    CTestVESKImpl m_impl;
    const HMODULE m_hExe = ::GetModuleHandleW(nullptr);
    kefltest::CPatches m_patches;
};
