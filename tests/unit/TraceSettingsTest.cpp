// Where the trace goes and what it lets through: folders, trace.ini, masks, rotation, PSF flags.
#include "platform/WindowsVersion.h"
#include "support/IatPatch.h"
#include "unit/TraceFixture.h"

using namespace morvane;
using namespace kefltest;

TEST_F(TraceFixture, LevelSettingsSelectMasksAndOtherSettingsKeepTheMask)
{
    EXPECT_EQ(7u, m_pTrace->GetTraceMask()) << "initial mask: error, warning, information";
    const uint32_t aExpected[] = {0, 1, 3, 7, 15};
    for (uint32_t uiSetting = 0; uiSetting <= 4; ++uiSetting)
    {
        m_pTrace->SetTraceLevel(uiSetting);
        EXPECT_EQ(aExpected[uiSetting], m_pTrace->GetTraceMask()) << "setting " << uiSetting;
    }
    m_pTrace->SetTraceLevel(2);
    for (uint32_t uiSetting : {5u, 9u, 0xFFFFFFFFu})
    {
        m_pTrace->SetTraceLevel(uiSetting);
        EXPECT_EQ(3u, m_pTrace->GetTraceMask()) << "setting " << uiSetting;
    }
}

TEST_F(TraceFixture, ReadsLevelsFromTraceIni)
{
    WriteTraceIni({{L"OTHER_TraceLevel", L"4"}});
    m_pTrace->ReadTraceLevel();
    EXPECT_EQ(7u, m_pTrace->GetTraceMask()) << "no key keeps the initial mask";

    WriteTraceIni({{L"UNIT_TraceLevel", L"1"}});
    m_pTrace->ReadTraceLevel();
    EXPECT_EQ(1u, m_pTrace->GetTraceMask());

    WriteTraceIni({{L"UNIT_TraceLevel", L"9"}});
    m_pTrace->ReadTraceLevel();
    EXPECT_EQ(1u, m_pTrace->GetTraceMask()) << "9 keeps the previous mask";

    WriteTraceIni({{L"UNIT_TraceLevel", L"0"}});
    m_pTrace->ReadTraceLevel();
    EXPECT_EQ(0u, m_pTrace->GetTraceMask());
    m_pTrace->TraceMessage(TRACE_ERROR, L"F", L"silenced");
    EXPECT_TRUE(Lines().empty());
}

TEST_F(TraceFixture, ReadsPsfFlagsUnchangedAndTestsWholeCombinations)
{
    EXPECT_EQ(18u, m_pTrace->GetPsfTraceLevel());
    m_pTrace->ReadPsfTraceLevel();
    EXPECT_EQ(18u, m_pTrace->GetPsfTraceLevel()) << "no key: 18";
    EXPECT_TRUE(m_pTrace->IsPsfTraceFlagSet(2));
    EXPECT_FALSE(m_pTrace->IsPsfTraceFlagSet(34)) << "bit 32 is not set in 18";

    WriteTraceIni({{L"UNIT_PsfLevel", L"50"}});
    m_pTrace->ReadPsfTraceLevel();
    EXPECT_EQ(50u, m_pTrace->GetPsfTraceLevel());
    EXPECT_TRUE(m_pTrace->IsPsfTraceFlagSet(34));
    EXPECT_EQ(7u, m_pTrace->GetTraceMask()) << "the PSF key is not a level";
}

TEST(TraceLocations, TraceIniLivesInTheConfigurationFolderOnTheRecoverySystem)
{
    // The recovery system is Windows 5.2 with the MiniNT (or MyMiniNT) key; the Wine prefix of
    // the tests is one.
    const CWindowsVersion& version = CWindowsVersion::Instance();
    const bool bRecovery = version.IsPreinstallation() && version.GetMajor() == 5 && version.GetMinor() == 2;
    EXPECT_EQ(bRecovery, version.GetCode() == OSCODE_WINPE_52)
        << "version " << version.GetMajor() << "." << version.GetMinor() << ", code " << version.GetCode();
    EXPECT_EQ(bRecovery ? std::wstring(L"Z:\\DURN\\trace.ini") : HostDir() + L"\\trace.ini", TraceIniPath());
}

TEST_F(TraceFixture, ModuleAndLogFoldersFollowTheHostProgram)
{
    std::wstring sDir;
    m_pTrace->GetModuleDirectory(sDir);
    EXPECT_EQ(HostDir(), sDir);
    m_pTrace->GetLogDirectory(sDir);
    EXPECT_EQ(LogDir(), sDir)
        << "the default, also on the recovery system: the log folder is resolved at load";
    EXPECT_EQ(LogPath(), m_pTrace->GetFilePath());
}

TEST_F(TraceFixture, QtxIniNamesTheLogFolderAndTheFolderIsMade)
{
    const std::wstring sLogDir = L"R:\\UnitLogs";
    RemoveFile(sLogDir + L"\\UNIT2_trace.log");
    ::RemoveDirectoryW(sLogDir.c_str());
    WriteTextFile(HostDir() + L"\\qtx.ini", "[File Locations]\r\nLogfiles=R:\\UnitLogs\r\n");

    CTrace trace(L"UNIT2_trace.log", L"UNIT_TraceLevel");
    std::wstring sDir;
    trace.GetLogDirectory(sDir);
    EXPECT_EQ(sLogDir, sDir);
    EXPECT_EQ(sLogDir + L"\\UNIT2_trace.log", trace.GetFilePath());
    trace.TraceMessage(TRACE_ERROR, L"F", L"in the named folder");
    EXPECT_TRUE(HasText(ReadLogLines(sLogDir + L"\\UNIT2_trace.log"), L"F : in the named folder"));
}

TEST_F(TraceFixture, SetLogDirectoryTakesOnlyExistingFolders)
{
    const std::wstring sFile = HostDir() + L"\\KEFL.dll";
    EXPECT_FALSE(m_pTrace->SetLogDirectory(sFile)) << "a file";
    EXPECT_FALSE(m_pTrace->SetLogDirectory(L"R:\\no such folder")) << "a missing folder";
    EXPECT_EQ(LogPath(), m_pTrace->GetFilePath());

    ::CreateDirectoryW(L"R:\\OtherLogs", nullptr);
    EXPECT_TRUE(m_pTrace->SetLogDirectory(L"R:\\OtherLogs"));
    EXPECT_EQ(L"R:\\OtherLogs\\UNIT_trace.log", m_pTrace->GetFilePath());
    std::wstring sDir;
    m_pTrace->GetLogDirectory(sDir);
    EXPECT_EQ(L"R:\\OtherLogs", sDir);
}

TEST_F(TraceFixture, SetTraceDirectoryStartsAFreshFileThereWithTheGivenLevel)
{
    ::CreateDirectoryW(L"R:\\TraceDir", nullptr);
    WriteTextFile(L"R:\\TraceDir\\UNIT_trace.log", "stale\r\n");

    m_pTrace->SetTraceDirectory(L"", 4);
    EXPECT_EQ(7u, m_pTrace->GetTraceMask()) << "an empty folder changes nothing";
    EXPECT_EQ(LogPath(), m_pTrace->GetFilePath());

    m_pTrace->SetTraceDirectory(L"R:\\TraceDir", 4);
    EXPECT_EQ(15u, m_pTrace->GetTraceMask());
    EXPECT_EQ(L"R:\\TraceDir\\UNIT_trace.log", m_pTrace->GetFilePath());
    EXPECT_FALSE(FileExists(L"R:\\TraceDir\\UNIT_trace.log")) << "the old file is deleted";
    std::wstring sDir;
    m_pTrace->GetLogDirectory(sDir);
    EXPECT_EQ(LogDir(), sDir) << "the log folder itself stays";
}

TEST_F(TraceFixture, ResetTraceFileEmptiesTheLog)
{
    m_pTrace->TraceMessage(TRACE_ERROR, L"F", L"before");
    ASSERT_FALSE(Lines().empty());
    EXPECT_TRUE(m_pTrace->ResetTraceFile());
    EXPECT_TRUE(FileExists(LogPath()));
    EXPECT_TRUE(ReadFileBytes(LogPath()).empty());
}

TEST_F(TraceFixture, EachNewTraceObjectKeepsOnePreviousGeneration)
{
    const std::wstring sOldPath = LogDir() + L"\\UNIT_trace.old";
    m_pTrace->TraceMessage(TRACE_ERROR, L"F", L"first generation");
    m_pTrace.reset();
    m_pTrace = std::make_unique<KEFLTrace>(kFile, L"UNIT_TraceLevel", L"UNIT_PsfLevel");
    EXPECT_FALSE(FileExists(LogPath())) << "a new log starts empty";
    EXPECT_TRUE(HasText(ReadLogLines(sOldPath), L"F : first generation"));

    m_pTrace->TraceMessage(TRACE_ERROR, L"F", L"second generation");
    m_pTrace.reset();
    m_pTrace = std::make_unique<KEFLTrace>(kFile, L"UNIT_TraceLevel", L"UNIT_PsfLevel");
    const auto vOld = ReadLogLines(sOldPath);
    EXPECT_TRUE(HasText(vOld, L"F : second generation"));
    EXPECT_FALSE(HasText(vOld, L"F : first generation")) << "the older generation is replaced";
}

// A system without the named mutex (creation refused, as when another object already holds the
// name with another type): nothing is written, nothing is raised.
HANDLE WINAPI CreateMutexRefused(LPSECURITY_ATTRIBUTES, BOOL, LPCWSTR)
{
    ::SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

TEST_F(TraceFixture, WritesNothingWithoutItsMutex)
{
    kefltest::RemoveFile(kefltest::LogDir() + L"\\UNIT3_trace.log");
    std::unique_ptr<CTrace> pTrace;
    {
        CIatPatch refuse(::GetModuleHandleW(nullptr), "KERNEL32.dll", "CreateMutexW",
                         reinterpret_cast<const void*>(&CreateMutexRefused));
        ASSERT_TRUE(refuse.IsApplied());
        pTrace = std::make_unique<CTrace>(L"UNIT3_trace.log", L"UNIT_TraceLevel");
    }
    pTrace->TraceMessage(TRACE_ERROR, L"F", L"dropped");
    pTrace->TraceBanner(L"dropped");
    EXPECT_FALSE(pTrace->ResetTraceFile());
    EXPECT_FALSE(FileExists(pTrace->GetFilePath()));
}

TEST_F(TraceFixture, DropsLinesWhenTheFileCannotBeOpened)
{
    // A folder standing where the log file should be.
    ::CreateDirectoryW(L"R:\\Blocked", nullptr);
    ::CreateDirectoryW(L"R:\\Blocked\\UNIT_trace.log", nullptr);
    ASSERT_TRUE(m_pTrace->SetLogDirectory(L"R:\\Blocked"));
    ::SetLastError(0xBEEF);
    m_pTrace->TraceMessage(TRACE_ERROR, L"F", L"dropped");
    EXPECT_EQ(0xBEEFu, ::GetLastError());
    EXPECT_TRUE(m_pTrace->ResetTraceFile()) << "the mutex was had, the open failing does not count";
    ::RemoveDirectoryW(L"R:\\Blocked\\UNIT_trace.log");
    m_pTrace->TraceMessage(TRACE_ERROR, L"F", L"written");
    EXPECT_EQ(std::vector<std::wstring>{L"F : written"}, TextsWithMarker(Lines(), L":[E]: "));
}
