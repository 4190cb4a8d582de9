// Starting a restore session: the credentials, the backup location, the console, the link points.
#include "dll/SessionFixture.h"

#include <algorithm>

using namespace kefltest;

namespace
{

bool HasLineStartingWith(const std::vector<std::wstring>& vLines, const std::wstring& sStart)
{
    for (const auto& sLine : vLines)
        if (const auto line = ParseTraceLine(sLine); line && line->sText.rfind(sStart, 0) == 0)
            return true;
    return false;
}

} // namespace

TEST_F(SessionFixture, InitTakesABackupFolderWithItsDataFolder)
{
    auto pCredentials = Credentials(kBackup);
    ASSERT_TRUE(m_pClient->Init(pCredentials.get())) << testing::PrintToString(ErrorText());
    EXPECT_EQ(L"No error", ErrorText());
    EXPECT_TRUE(HasMessage(1, L"Parsing Junctions, Mount-Points, Hard-Links and Symbolic-Links ..."));
    // Wine's console has no window: a warning, and the session goes on.
    EXPECT_TRUE(g_vMessages.empty() || g_vMessages.front().uiSeverity != 3);

    const auto vLines = KeflLog();
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::Init : pPsfCreds->m_sTargetPath = \"R:\\Backup\""));
    EXPECT_TRUE(HasLineStartingWith(vLines, L"KEFLImpl::Init : m_sTargetLocation = \"\\\\?\\Volume{"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::CheckIfWebDAV : Is Microsoft share"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::ParseHPoint : PointList.size() = 1"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::Init : ... ending"));

    // Init again: the session starts over.
    ASSERT_TRUE(m_pClient->Init(pCredentials.get()));
    EXPECT_TRUE(m_pClient->Fini());
}

TEST_F(SessionFixture, InitRefusesCredentialsOfAnotherKindWithoutAMessage)
{
    EXPECT_FALSE(m_pClient->Init(nullptr));
    EXPECT_TRUE(g_vMessages.empty());
    EXPECT_EQ(L"No error", ErrorText());
    EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::Init : ... ending(Not an PSF credential)"));
}

TEST_F(SessionFixture, InitRefusesLocationsThatAreNoBackup)
{
    EXPECT_FALSE(m_pClient->Init(Credentials(L"R:\\No such backup").get()));
    EXPECT_EQ(L"Failed to initialize KEFL", ErrorText());
    EXPECT_TRUE(HasMessage(3, L"Failed to initialize KEFL"));

    RemoveTree(std::wstring(kBackup) + L"\\#");
    EXPECT_FALSE(m_pClient->Init(Credentials(kBackup).get()));
    EXPECT_EQ(L"No ZOVA configuration found at target location", ErrorText());

    EXPECT_FALSE(m_pClient->Init(Credentials(L"Q:\\Backup").get())) << "no such drive";
    const auto vLines = KeflLog();
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::Init : ... ending(PathIsDirectory failed)"));
}

TEST_F(SessionFixture, InitTakesADriveRootWithoutTestingItAsAFolder)
{
    ::CreateDirectoryW(L"F:\\#", nullptr);
    WriteTextFile(L"F:\\#\\HPoint.dat", "");
    EXPECT_TRUE(m_pClient->Init(Credentials(L"F:\\").get())) << testing::PrintToString(ErrorText());
    RemoveTree(L"F:\\#");
}

TEST_F(SessionFixture, InitStopsAtTheFirstLinkPointFileThatCannotBeRead)
{
    ::DeleteFileW((std::wstring(kBackup) + L"\\#\\JPoint.dat").c_str());
    ASSERT_TRUE(m_pClient->Init(Credentials(kBackup).get())) << "a missing JPoint.dat is no failure";

    ::DeleteFileW((std::wstring(kBackup) + L"\\#\\HPoint.dat").c_str());
    g_vMessages.clear();
    EXPECT_FALSE(m_pClient->Init(Credentials(kBackup).get()));
    const auto vLines = KeflLog();
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::Init : ... ending(Couldn't parse HPoint.dat)"));
    EXPECT_EQ(1, std::count_if(
                     vLines.begin(), vLines.end(),
                     [](const std::wstring& sLine)
                     {
                         return sLine.find(L"KEFLImpl::ParsePoint : sPath = \"R:\\Backup\\#\\SPoint.dat\"") !=
                                std::wstring::npos;
                     }))
        << "read by the first Init only: SPoint.dat comes after HPoint.dat";
    for (const CMessage& message : g_vMessages)
        EXPECT_NE(3u, message.uiSeverity) << "no user message for link-point files";
}
