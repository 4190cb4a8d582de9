// Loading and unloading KEFL.dll: the trace files it starts, the objects its factories give.
#include "dll/KeflFixture.h"

#include <algorithm>
#include <cstring>
#include <regex>

using namespace kefltest;

TEST_F(KeflFixture, EachLoadStartsNewLogsAndKeepsThePreviousOnes)
{
    const std::wstring sOldPath = LogDir() + L"\\KEFL_trace.old";
    Load();
    {
        auto pClient = m_pLibrary->Factory();
        pClient->HasCapability(morvane::CAP_TAPE_BACKUPS); // written at the default level
    }
    ASSERT_TRUE(HasText(KeflLog(), L"KEFL::HasCapability : Does not support tape backups"));
    m_pLibrary->Unload();

    Load();
    EXPECT_TRUE(ReadLogLines(KeflLogPath()).empty()) << "the new log starts empty";
    EXPECT_TRUE(HasText(ReadLogLines(sOldPath), L"KEFL::HasCapability : Does not support tape backups"));
    m_pLibrary->Factory()->HasCapability(morvane::CAP_BACKUP_SETS);
    m_pLibrary->Unload();

    Load();
    const auto vOld = ReadLogLines(sOldPath);
    EXPECT_TRUE(HasText(vOld, L"KEFL::HasCapability : Does not support backupsets"));
    EXPECT_FALSE(HasText(vOld, L"KEFL::HasCapability : Does not support tape backups"))
        << "only one previous generation is kept";
    EXPECT_TRUE(FileExists(LogDir() + L"\\VESK_trace.old")) << "the base services' log rotates too";
}

TEST_F(KeflFixture, ClientDestroyedStraightAfterFactoryTracesItsEnd)
{
    Load(Verbose());
    auto pClient = m_pLibrary->Factory();
    ASSERT_NE(nullptr, pClient);
    pClient.reset();

    const auto vLines = KeflLog();
    const std::vector<std::wstring> vEnd = {
        L"KEFL::~KEFL : Destructor",
        L"KEFLImpl::~KEFLImpl : Destructor",
        L"VESK::~VESK : m_sProduct = \"\"",
    };
    const auto vVerbose = TextsWithMarker(vLines, L":[V]: ");
    ASSERT_GE(vVerbose.size(), vEnd.size());
    EXPECT_EQ(vEnd, std::vector<std::wstring>(vVerbose.end() - 3, vVerbose.end()));
}

TEST_F(KeflFixture, ClientConstructionTracesLevelsLinkFunctionsAndTexts)
{
    Load({{L"KEFL_TraceLevel", L"3"}, {L"PSF_TraceLevel", L"34"}});
    auto pClient = m_pLibrary->Factory();
    const auto vInfo = TextsWithMarker(KeflLog(), L":[I]: ");
    auto has = [&](const std::wstring& s) { return std::find(vInfo.begin(), vInfo.end(), s) != vInfo.end(); };
    EXPECT_TRUE(has(L"KEFLImpl::KEFLImpl : uiTraceLevel = 0x7"));
    EXPECT_TRUE(has(L"KEFLImpl::KEFLImpl : uiPsfTraceLevel = 0x22"));
    EXPECT_TRUE(has(L"KEFLImpl::KEFLImpl : CreateSymbolicLink() available"));
    EXPECT_TRUE(has(L"KEFLImpl::KEFLImpl : CreateHardLink() available"));
    const auto itVersion = std::find_if(vInfo.begin(), vInfo.end(),
                                        [](const std::wstring& s)
                                        { return s.rfind(L"KEFLImpl::KEFLImpl : sVersion = ", 0) == 0; });
    ASSERT_NE(vInfo.end(), itVersion);
    EXPECT_TRUE(std::regex_match(*itVersion, std::wregex(LR"re(.* = "\d+\.\d+\.\d+ \(build .+\)")re")))
        << *itVersion;
}

TEST_F(KeflFixture, CredentialsFactoryGivesAnEmptyDestroyableObject)
{
    Load(Verbose());
    auto pClient = m_pLibrary->Factory(); // reads the trace levels
    auto pCredentials = m_pLibrary->CredentialsFactory();
    ASSERT_NE(nullptr, pCredentials);
    const SYSTEMTIME zero = {};
    EXPECT_EQ(0, std::memcmp(&zero, &pCredentials->m_Pit, sizeof(zero)));
    EXPECT_EQ(L"", pCredentials->m_sProduct);
    EXPECT_EQ(L"", static_cast<morvane::KeflCredentials*>(pCredentials.get())->m_sTargetPath);
    EXPECT_TRUE(pCredentials->Check());
    pCredentials.reset();
    EXPECT_TRUE(HasText(KeflLog(), L"VeskCredentials::~VeskCredentials : m_sProduct = \"\""));
}
