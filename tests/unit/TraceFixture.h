#pragma once
// A trace object of the tests' own, writing UNIT_trace.log in the module's log folder.
#include "support/RecoveryEnvironment.h"
#include "support/TraceLog.h"
#include "trace/KEFLTrace.h"

#include <gtest/gtest.h>

#include <memory>

class TraceFixture : public testing::Test
{
protected:
    static constexpr wchar_t kFile[] = L"UNIT_trace.log";

    void SetUp() override
    {
        kefltest::ResetHostConfiguration();
        kefltest::RemoveFile(LogPath());
        kefltest::RemoveFile(kefltest::LogDir() + L"\\UNIT_trace.old");
        m_pTrace = std::make_unique<morvane::KEFLTrace>(kFile, L"UNIT_TraceLevel", L"UNIT_PsfLevel");
    }
    void TearDown() override { kefltest::ResetHostConfiguration(); }

    static std::wstring LogPath() { return kefltest::LogDir() + L"\\" + kFile; }
    std::vector<std::wstring> Lines() const { return kefltest::ReadLogLines(m_pTrace->GetFilePath()); }

    std::unique_ptr<morvane::KEFLTrace> m_pTrace;
};
