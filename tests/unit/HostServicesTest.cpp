// The host's folders, the version record, privileges and parent folders.
#include "platform/WindowsVersion.h"
#include "support/IatPatch.h"
#include "unit/BaseServicesFixture.h"

#include <regex>

using namespace kefltest;

namespace
{

const wchar_t kQtxIni[] = L"X:\\Program Files\\Morvane\\DURN\\qtx.ini";

std::wstring LogDirOf(CTestVESKImpl& impl)
{
    std::wstring s;
    impl.GetLogDir(s);
    return s;
}
std::wstring ConfigDirOf(CTestVESKImpl& impl)
{
    std::wstring s;
    impl.GetConfigDir(s);
    return s;
}

bool IsDirectory(const std::wstring& sPath)
{
    const DWORD dw = ::GetFileAttributesW(sPath.c_str());
    return dw != INVALID_FILE_ATTRIBUTES && (dw & FILE_ATTRIBUTE_DIRECTORY);
}

} // namespace

TEST_F(BaseServicesFixture, HostFoldersDefaultByTheRunningSystem)
{
    // The Wine prefix of the tests is a recovery system (Windows 5.2 with MiniNT): code 16.
    const bool bRecovery = morvane::CWindowsVersion::Instance().GetCode() == morvane::OSCODE_WINPE_52;
    EXPECT_EQ(bRecovery ? L"Z:\\DURN\\Logfiles" : L"X:\\Program Files\\Morvane\\DURN\\Logfiles",
              LogDirOf(m_impl));
    EXPECT_EQ(bRecovery ? L"Z:\\DURNCFG" : L"X:\\Program Files\\Morvane\\DURNCFG", ConfigDirOf(m_impl));

    m_impl.m_uiOSVersion = morvane::OSCODE_WINPE_52;
    EXPECT_EQ(L"Z:\\DURN\\Logfiles", LogDirOf(m_impl));
    EXPECT_EQ(L"Z:\\DURNCFG", ConfigDirOf(m_impl));
    m_impl.m_uiOSVersion = morvane::OSCODE_WIN_61;
    EXPECT_EQ(L"X:\\Program Files\\Morvane\\DURN\\Logfiles", LogDirOf(m_impl));
    EXPECT_EQ(L"X:\\Program Files\\Morvane\\DURNCFG", ConfigDirOf(m_impl));

    // A qtx.ini without the section changes nothing.
    WriteTextFile(kQtxIni, "[Other]\r\nLogfiles=R:\\Wrong\r\n");
    EXPECT_EQ(L"X:\\Program Files\\Morvane\\DURN\\Logfiles", LogDirOf(m_impl));
}

TEST_F(BaseServicesFixture, QtxIniNamesTheHostFolders)
{
    WriteTextFile(kQtxIni, "[File Locations]\r\nLogfiles=R:\\HostLogs\r\nConfig=R:\\HostConfig\r\n");
    EXPECT_EQ(L"R:\\HostLogs", LogDirOf(m_impl));
    EXPECT_EQ(L"R:\\HostConfig", ConfigDirOf(m_impl));
    WriteTextFile(kQtxIni, "[File Locations]\r\nConfig=R:\\OnlyConfig\r\n");
    m_impl.m_uiOSVersion = morvane::OSCODE_WINPE_52;
    EXPECT_EQ(L"Z:\\DURN\\Logfiles", LogDirOf(m_impl)) << "a key missing from the section";
    EXPECT_EQ(L"R:\\OnlyConfig", ConfigDirOf(m_impl));
}

TEST_F(BaseServicesFixture, VersionComesFromTheResourceAndIsRecorded)
{
    ::CreateDirectoryW(L"R:\\VersionLogs", nullptr);
    RemoveFile(L"R:\\VersionLogs\\Version.log");
    WriteTextFile(kQtxIni, "[File Locations]\r\nLogfiles=R:\\VersionLogs\r\n");
    std::wstring sVersion;
    m_impl.GetResourceVersionStr(sVersion);
    EXPECT_TRUE(std::regex_match(sVersion, std::wregex(LR"(\d+\.\d+\.\d+ \(build .+\))")))
        << testing::PrintToString(sVersion);
    wchar_t wszRecorded[260] = {};
    ::GetPrivateProfileStringW(L"KEFL.DLL", L"Version", L"", wszRecorded, 260,
                               L"R:\\VersionLogs\\Version.log");
    EXPECT_EQ(sVersion, wszRecorded);
}

TEST_F(BaseServicesFixture, VersionIsErrorWithoutTheModule)
{
    m_hKefl.reset();
    std::wstring sVersion = L"stale";
    m_impl.GetResourceVersionStr(sVersion);
    EXPECT_EQ(L"Error", sVersion);
    EXPECT_TRUE(HasText(VeskLog(), L"VESKImpl::GetResourceVersionStr : ... ending(NULL module)"));
}

TEST_F(BaseServicesFixture, EnablesKnownPrivilegesAndRefusesOthers)
{
    EXPECT_TRUE(m_impl.SetPrivilege(L"SeBackupPrivilege", true));
    EXPECT_TRUE(m_impl.SetPrivilege(L"SeBackupPrivilege", false));
    EXPECT_FALSE(m_impl.SetPrivilege(L"SeNoSuchPrivilege", true));
    EXPECT_FALSE(m_impl.SetPrivilege(L"", true));
    const auto vLines = VeskLog();
    EXPECT_TRUE(HasText(vLines, L"VESKImpl::SetPrivilege : ... ending(LookupPrivilegeValue failed)"));
    EXPECT_TRUE(HasText(vLines, L"VESKImpl::SetPrivilege : ... ending(Invalid privilege)"));
}

// A token that does not hold the privilege: the call succeeds and says so only in the last error.
BOOL WINAPI AdjustNotAllAssigned(HANDLE, BOOL, PTOKEN_PRIVILEGES, DWORD, PTOKEN_PRIVILEGES, PDWORD)
{
    ::SetLastError(ERROR_NOT_ALL_ASSIGNED);
    return TRUE;
}

TEST_F(BaseServicesFixture, PrivilegeNotHeldByTheTokenFails)
{
    CIatPatch notAssigned(::GetModuleHandleW(nullptr), "ADVAPI32.dll", "AdjustTokenPrivileges",
                          reinterpret_cast<const void*>(&AdjustNotAllAssigned));
    ASSERT_TRUE(notAssigned.IsApplied());
    EXPECT_FALSE(m_impl.SetPrivilege(L"SeRestorePrivilege", true));
    EXPECT_TRUE(HasText(
        VeskLog(),
        L"VESKImpl::SetPrivilege : ... ending(AdjustTokenPrivileges failed - ERROR_NOT_ALL_ASSIGNED)"));
}

class ParentDirFixture : public BaseServicesFixture
{
protected:
    void SetUp() override
    {
        BaseServicesFixture::SetUp();
        RemoveTree(L"\\\\?\\E:\\Parents");
        ASSERT_TRUE(::CreateDirectoryW(L"E:\\Parents", nullptr));
    }
    void TearDown() override
    {
        RemoveTree(L"\\\\?\\E:\\Parents");
        BaseServicesFixture::TearDown();
    }
};

TEST_F(ParentDirFixture, ExistingParentOrFolderNeedsNothing)
{
    EXPECT_TRUE(m_impl.CreateParentDir(L"E:\\Parents\\file.txt"));
    EXPECT_TRUE(m_impl.CreateParentDir(L"E:\\Parents"));
    EXPECT_TRUE(m_impl.CreateParentDir(L"E:\\"));
    EXPECT_TRUE(m_impl.CreateParentDir(L"E:\\file.txt"));
}

TEST_F(ParentDirFixture, MakesAChainOfMissingFolders)
{
    EXPECT_TRUE(m_impl.CreateParentDir(L"E:\\Parents\\a\\b\\c\\d\\file.txt"));
    EXPECT_TRUE(IsDirectory(L"E:\\Parents\\a\\b\\c\\d"));
    EXPECT_FALSE(FileExists(L"E:\\Parents\\a\\b\\c\\d\\file.txt"));
    EXPECT_TRUE(m_impl.CreateParentDir(L"\\\\?\\E:\\Parents\\x\\y\\file.txt"));
    EXPECT_TRUE(IsDirectory(L"E:\\Parents\\x\\y"));
}

TEST_F(ParentDirFixture, MakesFoldersBeyondTheClassicPathLimit)
{
    std::wstring sDir = L"\\\\?\\E:\\Parents";
    for (int i = 0; i < 8; ++i)
        sDir += L"\\" + std::wstring(40, static_cast<wchar_t>(L'a' + i));
    ASSERT_GT(sDir.size(), 300u);
    EXPECT_TRUE(m_impl.CreateParentDir(sDir + L"\\file.txt"));
    EXPECT_TRUE(IsDirectory(sDir));
}

TEST_F(ParentDirFixture, FileWhereAFolderShouldBeIsKept)
{
    WriteTextFile(L"E:\\Parents\\blocker", "keep me");
    // Deeper down the folder cannot be made: a failure.
    EXPECT_FALSE(m_impl.CreateParentDir(L"E:\\Parents\\blocker\\sub\\file.txt"));
    EXPECT_TRUE(HasText(VeskLog(), L"VESKImpl::CreateParentDir : CreateDirectory failed"));
    // As the immediate parent it counts as existing ("already exists"); creating the file in it
    // is what then fails, with the restore's own error.
    EXPECT_TRUE(m_impl.CreateParentDir(L"E:\\Parents\\blocker\\file.txt"));
    EXPECT_EQ("keep me", ReadFileBytes(L"E:\\Parents\\blocker"));
}
