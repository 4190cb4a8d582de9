#pragma once
// A command runner with the tests' own base services, a console for the child's standard input,
// and the means to start our test child, read all of a command's output and look at the trace.
#include "runner/CommandRunner.h"
#include "trace/TraceObjects.h"
#include "unit/BaseServicesFixture.h"

#include <string>
#include <vector>

class CommandRunnerFixture : public BaseServicesFixture
{
protected:
    void SetUp() override
    {
        BaseServicesFixture::SetUp();
        morvane::g_KeflTrace.SetTraceLevel(3); // errors, warnings and values, as by default
        morvane::g_KeflTrace.ResetTraceFile();
        // Started with redirected standard handles, a test program has no usable console under
        // Wine: "CONIN$" opens only in a console of its own, as the session makes one. (The test's
        // output keeps going where it went: the C runtime holds on to its own handles.)
        ::FreeConsole();
        ASSERT_TRUE(::AllocConsole()) << "error " << ::GetLastError();
    }
    void TearDown() override
    {
        m_runner.WaitForMonitor();
        morvane::g_KeflTrace.SetTraceLevel(3);
        BaseServicesFixture::TearDown();
    }

    // Our test child with the given steps (see tests/child/TestChild.cpp).
    static std::wstring ChildCommand(const std::wstring& sSteps)
    {
        return L"\"" + kefltest::HostDir() + L"\\kefl_test_child.exe\" " + sSteps;
    }
    // Every line up to the output's end.
    std::vector<std::wstring> ReadAllLines(bool bTraceLine = false)
    {
        std::vector<std::wstring> vLines;
        std::wstring sLine;
        while (m_runner.GetLine(sLine, bTraceLine))
            vLines.push_back(sLine);
        return vLines;
    }
    // Runs our child to its end: its lines, and the monitor done.
    std::vector<std::wstring> RunChild(const std::wstring& sSteps, bool bTraceLine = false)
    {
        EXPECT_TRUE(m_runner.RunCommand(ChildCommand(sSteps)));
        auto vLines = ReadAllLines(bTraceLine);
        m_runner.WaitForMonitor();
        return vLines;
    }

    // The handles this process holds, as the system's handle list shows them (GetProcessHandleCount
    // answers 0 under Wine).
    static size_t HandleCount()
    {
        struct CEntry
        {
            PVOID pObject;
            ULONG_PTR ulProcessId;
            ULONG_PTR ulHandle;
            ULONG ulAccess;
            USHORT usBackTraceIndex;
            USHORT usTypeIndex;
            ULONG ulAttributes;
            ULONG ulReserved;
        };
        struct CList
        {
            ULONG_PTR ulCount;
            ULONG_PTR ulReserved;
            CEntry entries[1];
        };
        using QueryFn = LONG(WINAPI*)(ULONG, PVOID, ULONG, PULONG);
        const auto pfnQuery = reinterpret_cast<QueryFn>(reinterpret_cast<void*>(
            ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
        const ULONG kExtendedHandleInformation = 64;
        const LONG kInfoLengthMismatch = static_cast<LONG>(0xC0000004);
        std::vector<ULONG_PTR> vBuffer(1 << 16);
        LONG lStatus = kInfoLengthMismatch;
        while (pfnQuery && lStatus == kInfoLengthMismatch)
        {
            ULONG cbNeeded = 0;
            lStatus = pfnQuery(kExtendedHandleInformation, vBuffer.data(),
                               static_cast<ULONG>(vBuffer.size() * sizeof(ULONG_PTR)), &cbNeeded);
            if (lStatus == kInfoLengthMismatch)
                vBuffer.resize(vBuffer.size() * 4);
        }
        EXPECT_EQ(0, lStatus);
        if (lStatus != 0)
            return 0;
        const auto* pList = reinterpret_cast<const CList*>(vBuffer.data());
        size_t cHandles = 0;
        for (ULONG_PTR i = 0; i < pList->ulCount; ++i)
            cHandles += pList->entries[i].ulProcessId == ::GetCurrentProcessId() ? 1 : 0;
        EXPECT_GT(cHandles, 0u);
        return cHandles;
    }
    static std::vector<std::wstring> KeflLog()
    {
        return kefltest::ReadLogLines(kefltest::LogDir() + L"\\KEFL_trace.log");
    }

    morvane::CCommandRunner m_runner{m_impl};
};
