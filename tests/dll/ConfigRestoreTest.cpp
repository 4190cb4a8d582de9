// The backup's configuration found on its drive folder and copied with the real XCOPY into the
// host's configuration folder.
#include "dll/FilespaceDiscoveryFixture.h"

using namespace kefltest;
using morvane::Filespace;

namespace
{

// Windows fails to start a program that is not there; the test makes XCOPY that program.
BOOL WINAPI CreateProcessANotFound(LPCSTR, LPSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD,
                                   LPVOID, LPCSTR, LPSTARTUPINFOA, LPPROCESS_INFORMATION)
{
    ::SetLastError(ERROR_FILE_NOT_FOUND);
    return FALSE;
}

} // namespace

TEST_F(FilespaceDiscoveryFixture, CopiesTheDataFolderFromTheConfigurationDrive)
{
    MarkConfigDrive(L'C');
    WriteDisrec(kDisrecMbr);
    ::CreateDirectoryW(BackupPath(L"\\#\\Sub").c_str(), nullptr);
    WriteTextFile(BackupPath(L"\\#\\Sub\\nested.txt"), "nested");
    // A file named like the marker makes no configuration drive.
    WriteTextFile(BackupPath(L"\\D\\ZOVACFG"), "not the marker folder");
    InitSession();

    std::vector<Filespace> vFilespaces;
    ASSERT_TRUE(m_pClient->GetFilespaceList(vFilespaces)) << testing::PrintToString(ErrorText());
    EXPECT_EQ(L"C:3 D:5", Summary(vFilespaces));
    EXPECT_TRUE(FileExists(L"R:\\Cfg\\disrec.ini"));
    EXPECT_TRUE(FileExists(L"R:\\Cfg\\JPoint.dat"));
    EXPECT_TRUE(FileExists(L"R:\\Cfg\\HPoint.dat"));
    EXPECT_TRUE(FileExists(L"R:\\Cfg\\Sub\\nested.txt"));
    EXPECT_EQ((std::vector<std::wstring>{
                  L"Obtaining a list of drive letters from the target location",
                  L"Extracting ZOVA configuration from backup",
                  L"Successfully retrieved a list of drive letters from the target location"}),
              MessageTexts(1));
    EXPECT_TRUE(MessageTexts(3).empty());

    const auto vLines = KeflLog();
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::CheckIfConfigDL : cDriveLetter = 'C'"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::CheckIfConfigDL : bFoundConfig = true"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetConfig : starting ..."));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetConfig : m_sConfigDir = \"R:\\Cfg\""));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetConfig : Successfully created configuration directory"));
    EXPECT_TRUE(HasText(
        vLines, L"KEFLImpl::GetConfig : sCmd = \"XCOPY /e /h /r /y \"R:\\Backup\\#\\*\" \"R:\\Cfg\"\""));
    size_t cOutputLines = 0;
    for (const auto& sText : TextsWithMarker(vLines, L":[I]: "))
        cOutputLines += sText.rfind(L"KEFLImpl::GetConfig : sLine = ", 0) == 0 ? 1 : 0;
    EXPECT_GT(cOutputLines, 0u) << "XCOPY's output is traced";
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetConfig : ... ending"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetFilespaceList : ... ending"));
}

TEST_F(FilespaceDiscoveryFixture, CopiesIntoTheRecoverySystemsConfigurationFolderByDefault)
{
    RemoveFile(HostDir() + L"\\qtx.ini");
    RemoveTree(L"Z:\\DURNCFG");
    MarkConfigDrive(L'C');
    WriteDisrec(kDisrecMbr);
    InitSession();
    std::vector<Filespace> vFilespaces;
    ASSERT_TRUE(m_pClient->GetFilespaceList(vFilespaces)) << testing::PrintToString(ErrorText());
    EXPECT_EQ(L"C:3 D:5", Summary(vFilespaces));
    EXPECT_TRUE(FileExists(L"Z:\\DURNCFG\\disrec.ini"));
    EXPECT_TRUE(FileExists(L"Z:\\DURNCFG\\SPoint.dat"));
    EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::GetBOOTandSYSTEM : sIniPath = \"Z:\\DURNCFG\\disrec.ini\""));
    RemoveTree(L"Z:\\DURNCFG");
}

TEST_F(FilespaceDiscoveryFixture, ReplacesAFileInTheWayOfTheConfigurationFolder)
{
    MarkConfigDrive(L'C');
    WriteDisrec(kDisrecMbr);
    WriteTextFile(kConfigDir, "a file where the folder belongs");
    InitSession();
    std::vector<Filespace> vFilespaces;
    ASSERT_TRUE(m_pClient->GetFilespaceList(vFilespaces)) << testing::PrintToString(ErrorText());
    EXPECT_EQ(L"C:3 D:5", Summary(vFilespaces));
    EXPECT_TRUE(IsFolder(kConfigDir));
    EXPECT_TRUE(FileExists(L"R:\\Cfg\\disrec.ini"));
    EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::GetConfig : Successfully created configuration directory"));
}

TEST_F(FilespaceDiscoveryFixture, GivesUpWhenAReadOnlyFileIsInTheWayOfTheConfigurationFolder)
{
    MarkConfigDrive(L'D');
    WriteDisrec(kDisrecMbr);
    WriteTextFile(kConfigDir, "a read-only file where the folder belongs");
    ASSERT_TRUE(::SetFileAttributesW(kConfigDir, FILE_ATTRIBUTE_READONLY));
    InitSession();
    std::vector<Filespace> vFilespaces;
    EXPECT_FALSE(m_pClient->GetFilespaceList(vFilespaces));
    EXPECT_EQ(L"C:0", Summary(vFilespaces));
    EXPECT_FALSE(IsFolder(kConfigDir));
    EXPECT_TRUE(FileExists(kConfigDir));
    const auto vLines = KeflLog();
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetConfig : dwLastError = 5"));
    EXPECT_TRUE(HasText(
        vLines,
        L"KEFLImpl::GetConfig : Couldn't create config directory as a file of the same name already exists"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetFilespaceList : ... ending(GetConfig() failed)"));
    EXPECT_TRUE(MessageTexts(3).empty()) << "the configuration folder's trouble is traced only";
}

TEST_F(FilespaceDiscoveryFixture, ReportsAnXcopyThatCannotStart)
{
    MarkConfigDrive(L'C');
    WriteDisrec(kDisrecMbr);
    InitSession();
    CIatPatch patch(m_pLibrary->Module(), "KERNEL32.dll", "CreateProcessA",
                    reinterpret_cast<const void*>(&CreateProcessANotFound));
    ASSERT_TRUE(patch.IsApplied());
    std::vector<Filespace> vFilespaces;
    EXPECT_FALSE(m_pClient->GetFilespaceList(vFilespaces));
    EXPECT_TRUE(vFilespaces.empty()) << "C: holds the configuration, so it was not appended";
    EXPECT_TRUE(HasMessage(3, L"Couldn't copy files from target location"));
    EXPECT_EQ(L"Couldn't copy files from target location", ErrorText());
    const auto vLines = KeflLog();
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetConfig : ... ending(RunCommand failed)"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetFilespaceList : ... ending(GetConfig() failed)"));
}
