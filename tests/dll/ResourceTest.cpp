// The user messages and the version record that KEFL.dll carries for the host and support staff.
#include "dll/KeflFixture.h"

#include <vector>

using namespace kefltest;

namespace
{

std::wstring LoadMessage(HMODULE hModule, UINT uiId)
{
    wchar_t wszText[1024] = {};
    ::LoadStringW(hModule, uiId, wszText, 1024);
    return wszText;
}

std::wstring VersionValue(const std::vector<BYTE>& info, const wchar_t* pwszName)
{
    struct Translation
    {
        WORD wLanguage;
        WORD wCodePage;
    }* pTranslation = nullptr;
    UINT cb = 0;
    if (!::VerQueryValueW(info.data(), L"\\VarFileInfo\\Translation", reinterpret_cast<void**>(&pTranslation),
                          &cb) ||
        cb < sizeof(Translation))
        return L"<no translation>";
    wchar_t wszKey[64];
    swprintf(wszKey, 64, L"\\StringFileInfo\\%04x%04x\\%ls", pTranslation->wLanguage, pTranslation->wCodePage,
             pwszName);
    wchar_t* pwszValue = nullptr;
    if (!::VerQueryValueW(info.data(), wszKey, reinterpret_cast<void**>(&pwszValue), &cb))
        return L"<missing>";
    return pwszValue;
}

} // namespace

TEST_F(KeflFixture, CarriesEveryUserMessageExactly)
{
    Load();
    const HMODULE hModule = m_pLibrary->Module();
    for (UINT uiId = 100; uiId <= 141; ++uiId)
        EXPECT_FALSE(LoadMessage(hModule, uiId).empty()) << "message " << uiId;
    EXPECT_TRUE(LoadMessage(hModule, 99).empty());
    EXPECT_TRUE(LoadMessage(hModule, 142).empty());

    // The texts the host shows most and support staff search for, the stray "()(" included.
    EXPECT_EQ(L"AllocConsole()( failed with error %u", LoadMessage(hModule, 100));
    EXPECT_EQ(L"Failed to initialize KEFL", LoadMessage(hModule, 118));
    EXPECT_EQ(L"The supplied drive letter '%c:' is invalid", LoadMessage(hModule, 120));
    EXPECT_EQ(L"KEFL.DLL %s %s", LoadMessage(hModule, 121));
    EXPECT_EQ(L"No ZOVA configuration found at target location", LoadMessage(hModule, 123));
    EXPECT_EQ(L"No target location has been set", LoadMessage(hModule, 125));
    EXPECT_EQ(L"Parsing Junctions, Mount-Points, Hard-Links and Symbolic-Links ...",
              LoadMessage(hModule, 127));
    EXPECT_EQ(L"Successfully restored mount point '%s' from target location", LoadMessage(hModule, 131));
    EXPECT_EQ(L"User has aborted the operation", LoadMessage(hModule, 139));
    EXPECT_EQ(L"Couldn't copy files from target location", LoadMessage(hModule, 141));
}

TEST_F(KeflFixture, CarriesFileVersionAndPrivateBuild)
{
    Load();
    wchar_t wszPath[MAX_PATH];
    ASSERT_NE(0u, ::GetModuleFileNameW(m_pLibrary->Module(), wszPath, MAX_PATH));
    DWORD dwHandle = 0;
    const DWORD cb = ::GetFileVersionInfoSizeW(wszPath, &dwHandle);
    ASSERT_NE(0u, cb);
    std::vector<BYTE> info(cb);
    ASSERT_TRUE(::GetFileVersionInfoW(wszPath, 0, cb, info.data()));
    const std::wstring sFileVersion = VersionValue(info, L"FileVersion");
    const std::wstring sPrivateBuild = VersionValue(info, L"PrivateBuild");
    EXPECT_FALSE(sFileVersion.empty() || sFileVersion[0] == L'<') << testing::PrintToString(sFileVersion);
    EXPECT_FALSE(sPrivateBuild.empty() || sPrivateBuild[0] == L'<') << testing::PrintToString(sPrivateBuild);
    EXPECT_EQ(L"KEFL.DLL", VersionValue(info, L"OriginalFilename"));
}
