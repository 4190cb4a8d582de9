#pragma once
// A test that drives KEFL.dll as the host does. Each test starts from the module's defaults (no
// trace.ini, no qtx.ini) and loads the library itself, after writing what it wants configured.
#include "support/KeflLibrary.h"
#include "support/RecoveryEnvironment.h"
#include "support/TraceLog.h"

#include <gtest/gtest.h>

class KeflFixture : public testing::Test
{
protected:
    using CIni = std::map<std::wstring, std::wstring>;
    using CLines = std::vector<std::wstring>;

    void SetUp() override { kefltest::ResetHostConfiguration(); }
    void TearDown() override
    {
        m_pLibrary.reset();
        kefltest::ResetHostConfiguration();
    }
    // Every level of both logs, verbose included.
    static CIni Verbose() { return {{L"KEFL_TraceLevel", L"4"}, {L"VESK_TraceLevel", L"4"}}; }
    kefltest::CKeflLibrary& Load(const CIni& traceIni = {})
    {
        if (!traceIni.empty())
            kefltest::WriteTraceIni(traceIni);
        m_pLibrary = std::make_unique<kefltest::CKeflLibrary>();
        return *m_pLibrary;
    }
    static std::wstring KeflLogPath() { return kefltest::LogDir() + L"\\KEFL_trace.log"; }
    static CLines KeflLog() { return kefltest::ReadLogLines(KeflLogPath()); }

    std::unique_ptr<kefltest::CKeflLibrary> m_pLibrary;
};
