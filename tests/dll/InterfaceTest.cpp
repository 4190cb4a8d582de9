// What KEFL.dll gives the host once loaded: the client's capabilities and properties as the host asks for
// them, and the user messages of its string table.
#include "dll/KeflFixture.h"

#include <regex>

using namespace kefltest;

TEST_F(KeflFixture, AnswersCapabilitiesAndPropertiesAsTheHostAsksForThem)
{
    auto pClient = Load().Factory();
    // Of the capabilities only separate hard links; each answer is traced with the capability's text.
    // clang-format off
    const std::pair<int32_t, const wchar_t*> kRows[] = {
        {1, L"Does not allow multi-machine in same backup"}, {2, L"Does backup hard-links separately"},
        {3, L"Does not backup SystemState separately"},      {4, L"Does not support backupsets"},
        {5, L"Does not support backup images"},              {6, L"Does not support tape backups"},
        {0, L"Unknown capability"}, {-1, L"Unknown capability"}, {7, L"Unknown capability"}};
    // clang-format on
    for (const auto& [iCapability, pwszText] : kRows)
    {
        SCOPED_TRACE(iCapability);
        EXPECT_EQ(iCapability == 2, pClient->HasCapability(morvane::CapabilityType(iCapability)));
        const auto vInfo = TextsWithMarker(KeflLog(), L":[I]: "); // the call's text, then its answer
        EXPECT_EQ(std::wstring(L"KEFL::HasCapability : ") + pwszText, vInfo.at(vInfo.size() - 2));
    }
    std::wstring sDescription, sVersion, sOther;
    EXPECT_EQ(0u, pClient->GetModuleProperty(morvane::PROP_DESCRIPTION, sDescription));
    EXPECT_EQ(0u, pClient->GetModuleProperty(morvane::PROP_VERSION, sVersion));
    EXPECT_EQ(2u, pClient->GetModuleProperty(0, sOther) + pClient->GetModuleProperty(3, sOther)) << "1 each";
    // The description names the build's date and time as the compiler gives them.
    for (const auto& [sValue, pwszPattern] :
         {std::pair{sDescription,
                    LR"(Morvane Rekon for Plainsafe created on \w{3} [ \d]\d \d{4} at [\d:]{8})"},
          {sVersion, LR"(\d+\.\d+\.\d+ \(build .+\))"}})
        EXPECT_TRUE(std::regex_match(sValue, std::wregex(pwszPattern))) << testing::PrintToString(sValue);
    wchar_t wszRecorded[260] = {};
    ::GetPrivateProfileStringW(L"KEFL.DLL", L"Version", L"", wszRecorded, 260,
                               (HostLogDir() + L"\\Version.log").c_str());
    EXPECT_EQ(sVersion, wszRecorded) << "recorded in the host's log folder";
}

TEST_F(KeflFixture, CarriesEveryUserMessage)
{
    Load();
    for (UINT uiId = 99; uiId <= 142; ++uiId)
    {
        wchar_t wszText[1024] = {};
        ::LoadStringW(m_pLibrary->Module(), uiId, wszText, 1024);
        EXPECT_EQ(uiId >= 100 && uiId <= 141, wszText[0] != L'\0') << "message " << uiId;
    }
}
