#pragma once
// A session on the fixture backup with what filespace discovery looks at: more drive folders,
// the configuration marker, the configuration file disrec.ini in the data folder, mount points.
// The configuration is copied into a folder of the tests' own (R:\Cfg, named by qtx.ini), which
// every test starts without.
#include "dll/SessionFixture.h"

#include <string>
#include <vector>

class FilespaceDiscoveryFixture : public SessionFixture
{
protected:
    static constexpr wchar_t kConfigDir[] = L"R:\\Cfg";

    void SetUp() override
    {
        SessionFixture::SetUp();
        kefltest::RemoveTree(kConfigDir);
        kefltest::RemoveFile(KeflLogPath());
        kefltest::WriteTextFile(kefltest::HostDir() + L"\\qtx.ini", "[File Locations]\r\nConfig=R:\\Cfg\r\n");
    }
    void TearDown() override
    {
        SessionFixture::TearDown();
        kefltest::RemoveTree(kConfigDir);
    }

    static std::wstring BackupPath(const std::wstring& sRelative)
    {
        return std::wstring(kBackup) + sRelative;
    }

    // Marks the drive folder of wcLetter as the drive that held the configuration.
    static void MarkConfigDrive(wchar_t wcLetter)
    {
        ::CreateDirectoryW(BackupPath(L"\\" + std::wstring(1, wcLetter)).c_str(), nullptr);
        ::CreateDirectoryW(BackupPath(L"\\" + std::wstring(1, wcLetter) + L"\\ZOVACFG").c_str(), nullptr);
    }
    static void WriteDisrec(const std::string& sText)
    {
        kefltest::WriteTextFile(BackupPath(L"\\#\\disrec.ini"), sText);
    }

    // Windows on C:, started from D: of an MBR disk.
    static constexpr char kDisrecMbr[] =
        "[WinDir]\r\nDriveLetter=C\r\nPhysicalDrive=0\r\nDirectory=\\WINDOWS\r\n"
        "BootDriveLetter=D\r\n[PhysicalDrive0]\r\nPartitionStyle=0\r\n";

    void InitSession()
    {
        // The recovery host has no console of its own, so Init makes the one that XCOPY's input
        // comes from. A test program started with redirected standard handles has a console that
        // Wine cannot open "CONIN$" in and that keeps AllocConsole from making a new one: it is let
        // go first. (The test's output keeps going where it went: the C runtime holds its handles.)
        ::FreeConsole();
        auto pCredentials = Credentials(kBackup);
        ASSERT_TRUE(m_pClient->Init(pCredentials.get())) << testing::PrintToString(ErrorText());
        kefltest::g_vMessages.clear();
    }

    // The letters and flags of a list, as "C:3 D:2".
    static std::wstring Summary(const std::vector<morvane::Filespace>& vFilespaces)
    {
        std::wstring sSummary;
        for (const auto& fs : vFilespaces)
        {
            if (!sSummary.empty())
                sSummary += L' ';
            sSummary += fs.wcFsDriveLetter;
            sSummary += L':';
            sSummary += std::to_wstring(fs.dwFsFlags);
        }
        return sSummary;
    }

    std::vector<std::wstring> MessageTexts(uint32_t uiSeverity) const
    {
        std::vector<std::wstring> vTexts;
        for (const kefltest::CMessage& message : kefltest::g_vMessages)
            if (message.uiSeverity == uiSeverity)
                vTexts.push_back(message.sText);
        return vTexts;
    }
};
