// Listing the filespaces of a backup: drive folders, mount points, BOOT and SYSTEM as the backup's
// configuration (disrec.ini) names them, and that configuration copied with the real XCOPY into
// the host's configuration folder (here R:\Cfg, named by qtx.ini).
#include "dll/SessionFixture.h"

using namespace kefltest;
using morvane::Filespace;

namespace
{

const std::wstring kConfigDir = L"R:\\Cfg", kDisrec = L"R:\\Backup\\#\\disrec.ini";

class FilespaceDiscoveryTest : public SessionFixture
{
protected:
    // D: as the drive that held the configuration; the session started. Init makes the console that
    // XCOPY's input comes from: the test program's own, where Wine cannot open "CONIN$", goes first.
    void SetUp() override
    {
        SessionFixture::SetUp();
        RemoveTree(kConfigDir);
        WriteTextFile(HostDir() + L"\\qtx.ini", "[File Locations]\r\nConfig=R:\\Cfg\r\n");
        MakeFolders(L"R:\\Backup\\D\\ZOVACFG");
        ::FreeConsole();
        ASSERT_TRUE(m_pClient->Init(Credentials(kBackup).get())) << testing::PrintToString(ErrorText());
    }
    // The list that vFilespaces grows to, as letters, flags and mount folders (" C:3 D:2 C:8c:\\M"),
    // after "refused:" when refused.
    std::wstring List(std::vector<Filespace> vFilespaces = {})
    {
        std::wstring sList = m_pClient->GetFilespaceList(vFilespaces) ? L"" : L"refused:";
        for (const auto& fs : vFilespaces)
            sList += L" " + std::wstring(1, fs.wcFsDriveLetter) + L":" + std::to_wstring(fs.dwFsFlags) +
                     fs.sFsMountDir;
        return sList;
    }
};

} // namespace

TEST_F(FilespaceDiscoveryTest, ListsDrivesInLetterOrderThenMountPointsAndCopiesTheConfiguration)
{
    MakeFolders(L"R:\\Backup\\G");
    MakeFolders(L"R:\\Backup\\f"); // found whatever the case of its name, as on Windows
    WriteTextFile(L"R:\\Backup\\E", "a file, not a drive folder");
    WriteTextFile(L"R:\\Backup\\#\\MPoint.dat",
                  "[c:\\Mount]\r\nTarget=\\\\?\\Volume{1}\\\r\nBackupTarget=R:\\x\r\n");
    MakeFolders(L"R:\\Backup\\#\\Sub");
    WriteTextFile(L"R:\\Backup\\#\\Sub\\hidden.txt", "copied too");
    ASSERT_TRUE(::SetFileAttributesW(L"R:\\Backup\\#\\Sub\\hidden.txt", FILE_ATTRIBUTE_HIDDEN));
    ASSERT_TRUE(m_pClient->Init(Credentials(kBackup).get())) << "again, for the mount point";
    // Each disrec.ini and the flags of D: that it gives. GPT: no SYSTEM. MBR: SYSTEM from BootDriveLetter,
    // or else (a lower-case one is none) from BootPartition's letter, upper-cased.
    const std::string sWinDir = "[WinDir]\r\nDriveLetter=C\r\nDirectory=\\WINDOWS\r\nPhysicalDrive=";
    const std::pair<std::string, const wchar_t*> cases[] = {
        {sWinDir + "0\r\nBootDriveLetter=D\r\n[PhysicalDrive0]\r\nPartitionStyle=1\r\n", L"2"},
        {sWinDir + "0\r\nBootDriveLetter=D\r\n[PhysicalDrive0]\r\nPartitionStyle=0\r\n", L"7"},
        {sWinDir + "1\r\nBootDriveLetter=c\r\nBootPartition=2\r\n[PhysicalDrive1]\r\nPartitionStyle=0\r\n"
                   "DriveLetter2=d\r\n",
         L"7"}};
    for (const auto& [sDisrec, pwszFlagsOfD] : cases)
    {
        RemoveTree(kConfigDir);
        WriteTextFile(kConfigDir, "a file where the configuration folder belongs");
        WriteTextFile(kDisrec, sDisrec);
        std::vector<Filespace> vFilespaces(1);
        vFilespaces[0].wcFsDriveLetter = L'Q';
        vFilespaces[0].dwFsFlags = 0x40;
        EXPECT_EQ(L" Q:64 C:3 D:" + std::wstring(pwszFlagsOfD) + L" F:0 G:0 C:8c:\\Mount", List(vFilespaces))
            << sDisrec;
        EXPECT_TRUE(FileExists(kConfigDir + L"\\Sub\\hidden.txt"));
        EXPECT_TRUE(
            HasText(KeflLog(),
                    L"KEFLImpl::GetConfig : sCmd = \"XCOPY /e /h /r /y \"R:\\Backup\\#\\*\" \"R:\\Cfg\"\""))
            << "hidden files too (Wine's XCOPY may copy them without /h)";
    }
    // A backup folder named with characters outside the ANSI code page reaches XCOPY as it is.
    const std::wstring sBackup = L"R:\\Sicherung-Gr\u00f6\u00dfe-\u65e5\u672c";
    RemoveTree(sBackup);
    MakeBackup(sBackup);
    MakeFolders(sBackup + L"\\D\\ZOVACFG");
    WriteTextFile(sBackup + L"\\#\\disrec.ini", cases[1].first);
    RemoveTree(kConfigDir);
    ASSERT_TRUE(m_pClient->Init(Credentials(sBackup).get())) << testing::PrintToString(ErrorText());
    EXPECT_EQ(L" C:3 D:7", List());
    EXPECT_TRUE(FileExists(kConfigDir + L"\\HPoint.dat"));
    RemoveTree(sBackup);
    // Another backup, without a configuration drive: nothing of the last one's BOOT and SYSTEM.
    MakeBackup(L"F:");
    ASSERT_TRUE(m_pClient->Init(Credentials(L"F:\\").get())) << testing::PrintToString(ErrorText());
    EXPECT_EQ(L" C:0 D:0", List());
    RemoveTree(L"F:", true);
}

TEST_F(FilespaceDiscoveryTest, StopsAtAConfigurationWithoutTheWindowsLetters)
{
    // Each disrec.ini's [WinDir] on an MBR disk (none: no disrec.ini) and the message it draws: its
    // severity and text.
    const wchar_t *pwszNoBoot = L"The Windows BOOT drive letter could not be determined",
                  *pwszNoSystem = L"The Windows SYSTEM drive letter could not be determined";
    const std::tuple<const char*, uint32_t, const wchar_t*> cases[] = {
        {nullptr, 3, pwszNoBoot},
        {"DriveLetter=c\r\nPhysicalDrive=0\r\nDirectory=\\W\r\nBootDriveLetter=D\r\n", 3, pwszNoBoot},
        {"DriveLetter=C\r\nDirectory=\\W\r\nBootDriveLetter=D\r\n", 3, pwszNoSystem},
        {"DriveLetter=C\r\nPhysicalDrive=0\r\nBootDriveLetter=D\r\n", 3,
         L"The Windows installation directory could not be determined"},
        {"DriveLetter=C\r\nPhysicalDrive=0\r\nDirectory=\\W\r\n", 3, pwszNoSystem},
        {"DriveLetter=C\r\nPhysicalDrive=0\r\nDirectory=\\W\r\nBootPartition=1\r\n", 2, pwszNoSystem},
    };
    for (const auto& [pszWinDir, uiSeverity, pwszMessage] : cases)
    {
        SCOPED_TRACE(pszWinDir ? pszWinDir : "no disrec.ini");
        RemoveTree(kConfigDir);
        RemoveFile(kDisrec);
        if (!pszWinDir) // an earlier listing's copy, read-only as XCOPY /r keeps it
        {
            MakeFolders(kConfigDir);
            WriteTextFile(kConfigDir + L"\\disrec.ini", "[WinDir]\r\nDriveLetter=C\r\nPhysicalDrive=0\r\n"
                                                        "Directory=\\W\r\nBootDriveLetter=D\r\n");
            ASSERT_TRUE(
                ::SetFileAttributesW((kConfigDir + L"\\disrec.ini").c_str(), FILE_ATTRIBUTE_READONLY));
        }
        else
            WriteTextFile(kDisrec, std::string("[WinDir]\r\n") + pszWinDir +
                                       "[PhysicalDrive0]\r\nPartitionStyle=0\r\n");
        g_vMessages.clear();
        EXPECT_EQ(L"refused: C:0", List()) << "what was listed before stays";
        ASSERT_EQ(4u, g_vMessages.size());
        EXPECT_EQ(uiSeverity, g_vMessages[2].uiSeverity);
        EXPECT_EQ(pwszMessage, g_vMessages[2].sText);
        EXPECT_EQ(L"Failed to obtain BOOT/SYSTEM drive letters from ZOVA configuration", ErrorText());
    }
    // One that cannot be deleted (a folder of that name) stops the listing before the copy.
    RemoveTree(kConfigDir);
    MakeFolders(kConfigDir + L"\\disrec.ini");
    EXPECT_EQ(L"refused: C:0", List());
    EXPECT_EQ(L"Failed to obtain BOOT/SYSTEM drive letters from ZOVA configuration", ErrorText());
    EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::GetConfig : dwLastError = 5"));
}
