// The client interface as the host calls it: capabilities, properties, the error text, the
// unimplemented slots, and the trace that every call leaves.
#include "dll/KeflFixture.h"

#include <algorithm>
#include <regex>

using namespace kefltest;
using morvane::CapabilityType;

TEST_F(KeflFixture, AnswersOnlySeparateHardLinksAsCapability)
{
    Load();
    auto pClient = m_pLibrary->Factory();
    struct Row
    {
        int32_t iCapability;
        bool bAnswer;
        const wchar_t* pwszText;
    };
    const Row kRows[] = {
        {1, false, L"Does not allow multi-machine in same backup"},
        {2, true, L"Does backup hard-links separately"},
        {3, false, L"Does not backup SystemState separately"},
        {4, false, L"Does not support backupsets"},
        {5, false, L"Does not support backup images"},
        {6, false, L"Does not support tape backups"},
        {0, false, nullptr},
        {-1, false, nullptr},
        {7, false, nullptr},
    };
    std::vector<std::wstring> vExpected;
    for (const Row& row : kRows)
    {
        EXPECT_EQ(row.bAnswer, pClient->HasCapability(static_cast<CapabilityType>(row.iCapability)))
            << "capability " << row.iCapability;
        if (row.pwszText)
        {
            vExpected.push_back(std::wstring(L"KEFL::HasCapability : ") + row.pwszText);
        }
        else
        {
            vExpected.push_back(L"KEFL::HasCapability : enCapabilityType = " +
                                std::to_wstring(row.iCapability));
            vExpected.push_back(L"KEFL::HasCapability : Unknown capability");
        }
        vExpected.push_back(std::wstring(L"KEFL::HasCapability : bHasCapability = ") +
                            (row.bAnswer ? L"true" : L"false"));
    }
    auto vInfo = TextsWithMarker(KeflLog(), L":[I]: ");
    vInfo.erase(std::remove_if(vInfo.begin(), vInfo.end(),
                               [](const std::wstring& s) { return s.rfind(L"KEFL::HasCapability", 0) != 0; }),
                vInfo.end());
    EXPECT_EQ(vExpected, vInfo);
}

TEST_F(KeflFixture, AnswersDescriptionAndVersionAndNoOtherProperty)
{
    Load();
    auto pClient = m_pLibrary->Factory();
    std::wstring sValue;
    EXPECT_EQ(0u, pClient->GetModuleProperty(morvane::PROP_DESCRIPTION, sValue));
    // The build's date and time as the compiler gives them: "Mmm dd yyyy" and "hh:mm:ss".
    EXPECT_TRUE(std::regex_match(
        sValue,
        std::wregex(
            LR"(Morvane Rekon for Plainsafe created on [A-Z][a-z]{2} [ 0-3]\d \d{4} at \d{2}:\d{2}:\d{2})")))
        << testing::PrintToString(sValue);

    EXPECT_EQ(0u, pClient->GetModuleProperty(morvane::PROP_VERSION, sValue));
    EXPECT_TRUE(std::regex_match(sValue, std::wregex(LR"(\d+\.\d+\.\d+ \(build .+\))")))
        << testing::PrintToString(sValue);
    wchar_t wszRecorded[260] = {};
    ::GetPrivateProfileStringW(L"KEFL.DLL", L"Version", L"", wszRecorded, 260,
                               (HostLogDir() + L"\\Version.log").c_str());
    EXPECT_EQ(sValue, wszRecorded) << "recorded in the host's log folder";

    sValue = L"unchanged";
    EXPECT_EQ(1u, pClient->GetModuleProperty(3, sValue));
    EXPECT_EQ(L"unchanged", sValue);
    EXPECT_EQ(1u, pClient->GetModuleProperty(0, sValue));
    EXPECT_EQ(L"unchanged", sValue);
    EXPECT_TRUE(HasText(KeflLog(), L"KEFL::GetModuleProperty : uiRc = 1"));
}

TEST_F(KeflFixture, ReportsNoErrorBeforeAnyFailure)
{
    Load();
    auto pClient = m_pLibrary->Factory();
    std::wstring sError = L"stale text";
    pClient->GetLastErrorMsg(sError);
    EXPECT_EQ(L"No error", sError);
}

TEST_F(KeflFixture, UnimplementedSlotsAnswerTrueWhateverTheyArePassed)
{
    Load();
    auto pClient = m_pLibrary->Factory();
    morvane::VESK& client = *pClient;
    EXPECT_TRUE(client.Reserved9());
    EXPECT_TRUE(client.Reserved10());
    EXPECT_TRUE(client.Reserved11());
    EXPECT_TRUE(client.Reserved12());
    EXPECT_TRUE(client.Reserved13());
    EXPECT_TRUE(client.Reserved14());
    EXPECT_TRUE(client.Reserved16());
    EXPECT_TRUE(client.Reserved17());
    EXPECT_TRUE(client.Reserved18());
    EXPECT_TRUE(client.Reserved19());
    EXPECT_TRUE(client.Reserved21());
    EXPECT_TRUE(client.Reserved22());

    // A host may declare parameters for these slots: call them through the table with some.
    // (The table holds two destructor entries before slot 1.)
    using SlotWithArgs = bool (*)(morvane::VESK*, uint64_t, const wchar_t*, void*);
    void** ppTable = *reinterpret_cast<void***>(&client);
    for (int iSlot : {9, 10, 11, 12, 13, 14, 16, 17, 18, 19, 21, 22})
    {
        auto pfnSlot = reinterpret_cast<SlotWithArgs>(ppTable[iSlot + 1]);
        EXPECT_TRUE(pfnSlot(&client, 0xFFFFFFFFFFFFFFFFull, L"argument", nullptr)) << "slot " << iSlot;
    }
}

TEST_F(KeflFixture, TracesEveryForwardedCallWithItsResult)
{
    Load(Verbose());
    auto pClient = m_pLibrary->Factory();
    pClient->SetLogMsgCallbackFn(nullptr, 7);
    auto pCredentials = m_pLibrary->CredentialsFactory();
    const bool bInit = pClient->Init(pCredentials.get());
    morvane::Filespace fs = {};
    fs.wcFsDriveLetter = L'E';
    pClient->RestoreFilespace(fs);
    EXPECT_TRUE(pClient->Fini());

    const auto vLines = KeflLog();
    for (const auto& sLine : vLines)
        ASSERT_TRUE(ParseTraceLine(sLine)) << "a line without prefix: " << testing::PrintToString(sLine);
    auto indexOf = [&](const std::wstring& sText)
    {
        for (size_t i = 0; i < vLines.size(); ++i)
            if (ParseTraceLine(vLines[i])->sText == sText)
                return static_cast<int>(i);
        ADD_FAILURE() << "missing: " << testing::PrintToString(sText);
        return -1;
    };
    EXPECT_LT(indexOf(L"KEFL::SetLogMsgCallbackFn : starting ..."),
              indexOf(L"KEFL::SetLogMsgCallbackFn : ... ending"));
    const int iInitStart = indexOf(L"KEFL::Init : starting ...");
    const int iInitRc = indexOf(std::wstring(L"KEFL::Init : bRc = ") + (bInit ? L"true" : L"false"));
    const int iInitEnd = indexOf(L"KEFL::Init : ... ending");
    EXPECT_LT(iInitStart, iInitRc);
    EXPECT_EQ(iInitRc + 1, iInitEnd);
    EXPECT_LT(indexOf(L"KEFL::RestoreFilespace : starting ..."),
              indexOf(L"KEFL::RestoreFilespace : Filespace.wcFsDriveLetter = 'E'"));
    EXPECT_EQ(indexOf(L"KEFL::Fini : bRc = true") + 1, indexOf(L"KEFL::Fini : ... ending"));

    // The base services trace to their own log.
    EXPECT_TRUE(HasText(VeskLog(), L"VESKImpl::SetLogMsgCallbackFn : ... ending(NULL)"));
}

TEST_F(KeflFixture, OperationsNotYetBuiltFailPlainlyWithAnErrorText)
{
    Load();
    auto pClient = m_pLibrary->Factory();
    auto pCredentials = m_pLibrary->CredentialsFactory();
    std::vector<morvane::Filespace> vFilespaces;
    morvane::Filespace fs = {};
    EXPECT_FALSE(pClient->Init(pCredentials.get()));
    EXPECT_FALSE(pClient->Init(nullptr));
    EXPECT_FALSE(pClient->GetFilespaceList(vFilespaces));
    EXPECT_TRUE(vFilespaces.empty());
    EXPECT_FALSE(pClient->RestoreFilespace(fs));
    EXPECT_TRUE(pClient->RestoreLinks());
    EXPECT_TRUE(pClient->Fini());
    std::wstring sError;
    pClient->GetLastErrorMsg(sError);
    EXPECT_NE(L"No error", sError);
}
