// What KEFL.dll gives the host once loaded: its two factories, the version the host shows (from
// the version resource) and the user messages of its string table.
#include "dll/KeflFixture.h"

#include <regex>

using namespace kefltest;

TEST_F(KeflFixture, FactoriesGiveObjectsAndTheClientShowsTheVersionFromTheResource)
{
    auto pClient = Load().Factory();
    ASSERT_NE(nullptr, pClient);
    EXPECT_NE(nullptr, m_pLibrary->CredentialsFactory());

    std::wstring sVersion;
    EXPECT_EQ(0u, pClient->GetModuleProperty(morvane::PROP_VERSION, sVersion));
    EXPECT_TRUE(std::regex_match(sVersion, std::wregex(LR"(\d+\.\d+\.\d+ \(build .+\))")))
        << testing::PrintToString(sVersion);
}

TEST_F(KeflFixture, CarriesEveryUserMessage)
{
    Load();
    auto message = [&](UINT uiId)
    {
        wchar_t wszText[1024] = {};
        ::LoadStringW(m_pLibrary->Module(), uiId, wszText, 1024);
        return std::wstring(wszText);
    };
    for (UINT uiId = 99; uiId <= 142; ++uiId)
        EXPECT_EQ(uiId >= 100 && uiId <= 141, !message(uiId).empty()) << "message " << uiId;
    // The texts whose arguments the module fills in, the stray "()(" included.
    const std::pair<UINT, const wchar_t*> aTexts[] = {
        {100, L"AllocConsole()( failed with error %u"},
        {120, L"The supplied drive letter '%c:' is invalid"},
        {121, L"KEFL.DLL %s %s"},
        {131, L"Successfully restored mount point '%s' from target location"}};
    for (const auto& [uiId, pwszText] : aTexts)
        EXPECT_EQ(pwszText, message(uiId)) << "message " << uiId;
}
