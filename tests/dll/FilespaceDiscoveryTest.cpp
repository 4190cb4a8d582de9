// Listing the filespaces of a backup: drive folders, mount points, and BOOT and SYSTEM as the
// backup's configuration names them.
#include "dll/FilespaceDiscoveryFixture.h"

#include "platform/UniqueHandle.h"

using namespace kefltest;
using morvane::Filespace;

namespace
{

const wchar_t kListing[] = L"Obtaining a list of drive letters from the target location";
const wchar_t kListed[] = L"Successfully retrieved a list of drive letters from the target location";
const wchar_t kNoBootDrive[] = L"The Windows BOOT drive letter could not be determined";
const wchar_t kNoSystemDrive[] = L"The Windows SYSTEM drive letter could not be determined";
const wchar_t kNoWindowsDir[] = L"The Windows installation directory could not be determined";
const wchar_t kNoLetters[] = L"Failed to obtain BOOT/SYSTEM drive letters from ZOVA configuration";

// Gives a folder a last-write time of 2015-11-05 14:03:09.123 (UTC).
void SetFolderTime(const std::wstring& sDir)
{
    morvane::CUniqueFile hDir(::CreateFileW(sDir.c_str(), FILE_WRITE_ATTRIBUTES,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                            FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    ASSERT_TRUE(hDir) << "error " << ::GetLastError();
    const SYSTEMTIME st = {2015, 11, 4, 5, 14, 3, 9, 123};
    FILETIME ft;
    ASSERT_TRUE(::SystemTimeToFileTime(&st, &ft));
    ASSERT_TRUE(::SetFileTime(hDir.get(), nullptr, nullptr, &ft));
}

using GetFileAttributesFn = DWORD(WINAPI*)(LPCWSTR);
GetFileAttributesFn g_pfnRealGetFileAttributes = nullptr;

// A drive folder that Windows refuses to look at (access denied); the rest as they are.
DWORD WINAPI GetFileAttributesDeniedForD(LPCWSTR pwszPath)
{
    if (std::wstring(pwszPath) == L"R:\\Backup\\D")
    {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_FILE_ATTRIBUTES;
    }
    return g_pfnRealGetFileAttributes(pwszPath);
}

// The times of a folder that Windows refuses to read (access denied).
BOOL WINAPI GetFileAttributesExDenied(LPCWSTR, GET_FILEEX_INFO_LEVELS, LPVOID)
{
    ::SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}

} // namespace

TEST_F(FilespaceDiscoveryFixture, ListsTheDriveFoldersInLetterOrderAfterWhatTheListHeld)
{
    ::CreateDirectoryW(BackupPath(L"\\G").c_str(), nullptr);
    // Wine finds a folder whatever the case of its name, as Windows does.
    ::CreateDirectoryW(BackupPath(L"\\f").c_str(), nullptr);
    WriteTextFile(BackupPath(L"\\E"), "a file, not a drive folder");
    SetFolderTime(BackupPath(L"\\C"));
    InitSession();

    std::vector<Filespace> vFilespaces(1);
    vFilespaces[0].sFsName = L"kept";
    vFilespaces[0].wcFsDriveLetter = L'Q';
    vFilespaces[0].dwFsFlags = 0x40;
    ASSERT_TRUE(m_pClient->GetFilespaceList(vFilespaces)) << testing::PrintToString(ErrorText());
    EXPECT_EQ(L"Q:64 C:0 D:0 F:0 G:0", Summary(vFilespaces))
        << "nothing is BOOT or SYSTEM without a configuration";
    EXPECT_EQ(L"kept", vFilespaces[0].sFsName);

    for (size_t i = 1; i < vFilespaces.size(); ++i)
    {
        const Filespace& fs = vFilespaces[i];
        EXPECT_EQ(std::wstring(1, fs.wcFsDriveLetter) + L":\\", fs.sFsPath);
        EXPECT_EQ(L"NTFS", fs.sFsName);
        EXPECT_EQ(L"", fs.sFsMountDir);
        EXPECT_TRUE(fs.bFsTimeValid);
        EXPECT_EQ(0u, fs.ullReserved1);
        EXPECT_EQ(0u, fs.uiReserved2);
        EXPECT_EQ(0u, fs.uiReserved3);
        EXPECT_EQ(0u, fs.uiReserved5);
        for (uint8_t b : fs.abReserved4)
            EXPECT_EQ(0, b);
    }
    // The time of the drive folder's last change, in UTC.
    const SYSTEMTIME& st = vFilespaces[1].stFsTime;
    EXPECT_EQ(2015, st.wYear);
    EXPECT_EQ(11, st.wMonth);
    EXPECT_EQ(4, st.wDayOfWeek);
    EXPECT_EQ(5, st.wDay);
    EXPECT_EQ(14, st.wHour);
    EXPECT_EQ(3, st.wMinute);
    EXPECT_EQ(9, st.wSecond);
    EXPECT_EQ(123, st.wMilliseconds);

    EXPECT_EQ((std::vector<std::wstring>{kListing, kListed}), MessageTexts(1));
    EXPECT_TRUE(MessageTexts(3).empty());
    const auto vLines = KeflLog();
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetFilespaceList : starting ..."));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetFilespaceList : sSubFolder = \"R:\\Backup\\C\""));
    EXPECT_FALSE(HasText(vLines, L"KEFLImpl::GetFilespaceList : sSubFolder = \"R:\\Backup\\E\""));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::Convert_FILETIME : st.wYear = 2015"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::Convert_FILETIME : st.wMilliseconds = 123"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::CheckIfConfigDL : cDriveLetter = 'C'"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::CheckIfConfigDL : bFoundConfig = false"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::CheckIfConfigDL : ... ending"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetFilespaceList : uiFilespaceCount = 5"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetFilespaceList : ... ending"));
    EXPECT_FALSE(HasText(vLines, L"KEFLImpl::GetConfig : starting ..."));
}

TEST_F(FilespaceDiscoveryFixture, SkipsADriveFolderItCannotLookAtAndKeepsOneWithoutTime)
{
    InitSession();
    CIatPatch attributes(m_pLibrary->Module(), "KERNEL32.dll", "GetFileAttributesW",
                         reinterpret_cast<const void*>(&GetFileAttributesDeniedForD));
    ASSERT_TRUE(attributes.IsApplied());
    g_pfnRealGetFileAttributes = reinterpret_cast<GetFileAttributesFn>(attributes.Original());
    CIatPatch attributesEx(m_pLibrary->Module(), "KERNEL32.dll", "GetFileAttributesExW",
                           reinterpret_cast<const void*>(&GetFileAttributesExDenied));
    ASSERT_TRUE(attributesEx.IsApplied());

    std::vector<Filespace> vFilespaces;
    ASSERT_TRUE(m_pClient->GetFilespaceList(vFilespaces)) << testing::PrintToString(ErrorText());
    EXPECT_EQ(L"C:0", Summary(vFilespaces));
    EXPECT_FALSE(vFilespaces[0].bFsTimeValid);
    EXPECT_EQ(0, vFilespaces[0].stFsTime.wYear);
    const auto vLines = KeflLog();
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetFilespaceList : dwLastError = 5"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetFilespaceList : GetFileAttributes failed"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetFilespaceList : GetFileAttributesEx failed"));
    EXPECT_EQ(4u, TextsWithMarker(vLines, L":[E]: ").size()) << "a missing drive folder is no error";
}

TEST_F(FilespaceDiscoveryFixture, RefusesToListWithoutASession)
{
    std::vector<Filespace> vFilespaces;
    EXPECT_FALSE(m_pClient->GetFilespaceList(vFilespaces));
    EXPECT_TRUE(vFilespaces.empty());
    EXPECT_TRUE(HasMessage(3, L"No target location has been set"));
    EXPECT_EQ(L"No target location has been set", ErrorText());
    EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::GetFilespaceList : ... ending(Target location not set)"));
}

TEST_F(FilespaceDiscoveryFixture, ListsMountPointsAfterTheDrivesAndNeverAsBootOrSystem)
{
    MarkConfigDrive(L'D');
    WriteDisrec(
        "[WinDir]\r\nDriveLetter=C\r\nPhysicalDrive=0\r\nDirectory=\\WINDOWS\r\nBootDriveLetter=C\r\n");
    WriteTextFile(
        BackupPath(L"\\#\\MPoint.dat"),
        "[c:\\Mount]\r\nTarget=\\\\?\\Volume{1}\\\r\nBackupTarget=R:\\Backup\\C\\Mount\r\n"
        "[D:\\Data\\Vol]\r\nTarget=\\\\?\\Volume{2}\\\r\nBackupTarget=R:\\Backup\\D\\Data\\Vol\r\n");
    InitSession();

    std::vector<Filespace> vFilespaces;
    ASSERT_TRUE(m_pClient->GetFilespaceList(vFilespaces)) << testing::PrintToString(ErrorText());
    EXPECT_EQ(L"C:7 D:2 C:8 D:8", Summary(vFilespaces));
    ASSERT_EQ(4u, vFilespaces.size());
    EXPECT_EQ(L"c:\\Mount", vFilespaces[2].sFsPath);
    EXPECT_EQ(L"c:\\Mount", vFilespaces[2].sFsMountDir);
    EXPECT_EQ(L"D:\\Data\\Vol", vFilespaces[3].sFsMountDir);
    for (size_t i = 2; i < 4; ++i)
    {
        EXPECT_EQ(L"NTFS", vFilespaces[i].sFsName);
        EXPECT_FALSE(vFilespaces[i].bFsTimeValid);
    }
    const auto vLines = KeflLog();
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetFilespaceList : sSubFolder = \"R:\\Backup\\C\\Mount\""));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetFilespaceList : sSubFolder = \"R:\\Backup\\D\\Data\\Vol\""));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetFilespaceList : uiFilespaceCount = 4"));
}

TEST_F(FilespaceDiscoveryFixture, MarksBootAndSystemAsTheConfigurationNamesThem)
{
    // Configuration on D:, Windows on C:, started from D:.
    MarkConfigDrive(L'D');
    WriteDisrec(kDisrecMbr);
    InitSession();
    std::vector<Filespace> vFilespaces;
    ASSERT_TRUE(m_pClient->GetFilespaceList(vFilespaces)) << testing::PrintToString(ErrorText());
    EXPECT_EQ(L"C:3 D:7", Summary(vFilespaces));
    auto vLines = KeflLog();
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetFilespaceList : Found config filespace"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetFilespaceList : Found BOOT filespace"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetFilespaceList : Found SYSTEM filespace"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetBOOTandSYSTEM : sIniPath = \"R:\\Cfg\\disrec.ini\""));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetBOOTandSYSTEM : m_wcWinBOOT = 'C'"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetBOOTandSYSTEM : iPhysicalDrive = 0"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetBOOTandSYSTEM : m_sWinDir = \"\\WINDOWS\""));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetBOOTandSYSTEM : uiPartStyle = 0"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetBOOTandSYSTEM : Windows SYSTEM on an MBR disk"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetBOOTandSYSTEM : m_wcWinSYSTEM = 'D'"));
    EXPECT_FALSE(HasText(vLines, L"KEFLImpl::GetBOOTandSYSTEM : [WinDir] BootDriveLetter not found/valid"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetBOOTandSYSTEM : ... ending"));

    // The same list asked for again: the new records are appended, the old ones flagged again
    // from the configuration as it is now (Windows now starts from C:).
    WriteDisrec(
        "[WinDir]\r\nDriveLetter=C\r\nPhysicalDrive=0\r\nDirectory=\\WINDOWS\r\nBootDriveLetter=C\r\n");
    ASSERT_TRUE(m_pClient->GetFilespaceList(vFilespaces)) << testing::PrintToString(ErrorText());
    EXPECT_EQ(L"C:7 D:7 C:7 D:2", Summary(vFilespaces));
    EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::GetFilespaceList : uiFilespaceCount = 4"));
}

TEST_F(FilespaceDiscoveryFixture, FindsSystemThroughTheBootPartitionOfAnMbrDisk)
{
    MarkConfigDrive(L'D');
    // A lower-case BootDriveLetter is no letter; the partition's letter is taken in either case.
    WriteDisrec("[WinDir]\r\nDriveLetter=C\r\nPhysicalDrive=1\r\nDirectory=\\WINDOWS\r\nBootDriveLetter=c\r\n"
                "BootPartition=2\r\n[PhysicalDrive1]\r\nPartitionStyle=0\r\nDriveLetter2=d\r\n");
    InitSession();
    std::vector<Filespace> vFilespaces;
    ASSERT_TRUE(m_pClient->GetFilespaceList(vFilespaces)) << testing::PrintToString(ErrorText());
    EXPECT_EQ(L"C:3 D:7", Summary(vFilespaces));
    const auto vLines = KeflLog();
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetBOOTandSYSTEM : m_wcWinSYSTEM = 'c'"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetBOOTandSYSTEM : [WinDir] BootDriveLetter not found/valid"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetBOOTandSYSTEM : iBootPartition = 2"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetBOOTandSYSTEM : m_wcWinSYSTEM = 'D'"));
}

TEST_F(FilespaceDiscoveryFixture, MarksOnlyBootOnAGptDisk)
{
    MarkConfigDrive(L'D');
    WriteDisrec("[WinDir]\r\nDriveLetter=C\r\nPhysicalDrive=0\r\nDirectory=\\WINDOWS\r\nBootDriveLetter=D\r\n"
                "[PhysicalDrive0]\r\nPartitionStyle=1\r\n");
    InitSession();
    std::vector<Filespace> vFilespaces;
    ASSERT_TRUE(m_pClient->GetFilespaceList(vFilespaces)) << testing::PrintToString(ErrorText());
    EXPECT_EQ(L"C:3 D:2", Summary(vFilespaces));
    const auto vLines = KeflLog();
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetBOOTandSYSTEM : uiPartStyle = 1"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetBOOTandSYSTEM : Windows SYSTEM on a GPT disk"));
    EXPECT_FALSE(HasText(vLines, L"KEFLImpl::GetBOOTandSYSTEM : m_wcWinSYSTEM = 'D'"));
}

TEST_F(FilespaceDiscoveryFixture, TakesAnEmptyDriveLetterAsValidAndMarksNoBoot)
{
    MarkConfigDrive(L'C');
    WriteDisrec(
        "[WinDir]\r\nDriveLetter=\r\nPhysicalDrive=0\r\nDirectory=\\WINDOWS\r\nBootDriveLetter=D\r\n");
    InitSession();
    std::vector<Filespace> vFilespaces;
    ASSERT_TRUE(m_pClient->GetFilespaceList(vFilespaces)) << testing::PrintToString(ErrorText());
    EXPECT_EQ(L"C:2 D:5", Summary(vFilespaces));
    EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::GetBOOTandSYSTEM : m_wcWinBOOT = '<NULL>'"));
}

TEST_F(FilespaceDiscoveryFixture, StopsAtAConfigurationWithoutTheWindowsLetters)
{
    // The configuration is on D:, so C: is listed before the configuration is read.
    MarkConfigDrive(L'D');
    InitSession();
    struct CCase
    {
        const char* pszDisrec; // nullptr: no disrec.ini
        std::vector<CMessage> vErrors;
        const wchar_t* pwszEnding;
    };
    const std::string sDrive0 = "[PhysicalDrive0]\r\nPartitionStyle=0\r\n";
    const CCase cases[] = {
        {nullptr, {{3, kNoBootDrive}}, L"... ending([WinDir] DriveLetter not found/valid)"},
        {"[WinDir]\r\nDriveLetter=c\r\nPhysicalDrive=0\r\nDirectory=\\W\r\nBootDriveLetter=D\r\n",
         {{3, kNoBootDrive}},
         L"... ending([WinDir] DriveLetter not found/valid)"},
        {"[WinDir]\r\nDriveLetter=C\r\nDirectory=\\W\r\nBootDriveLetter=D\r\n",
         {{3, kNoSystemDrive}},
         L"... ending([WinDir] PhysicalDrive missing)"},
        {"[WinDir]\r\nDriveLetter=C\r\nPhysicalDrive=0\r\nBootDriveLetter=D\r\n",
         {{3, kNoWindowsDir}},
         L"... ending([WinDir] Directory missing)"},
        {"[WinDir]\r\nDriveLetter=C\r\nPhysicalDrive=0\r\nDirectory=\\W\r\n",
         {{3, kNoSystemDrive}},
         L"... ending([WinDir] BootPartition missing)"},
        {"[WinDir]\r\nDriveLetter=C\r\nPhysicalDrive=0\r\nDirectory=\\W\r\nBootPartition=1\r\n",
         {{2, kNoSystemDrive}},
         L"... ending(SYSTEM drive letter cannot be determined)"},
    };
    for (const CCase& c : cases)
    {
        SCOPED_TRACE(c.pwszEnding);
        RemoveTree(BackupPath(L"\\#\\disrec.ini"));
        RemoveTree(kConfigDir);
        if (c.pszDisrec)
            WriteDisrec(c.pszDisrec + sDrive0);
        RemoveTree(KeflLogPath());
        g_vMessages.clear();

        std::vector<Filespace> vFilespaces;
        EXPECT_FALSE(m_pClient->GetFilespaceList(vFilespaces));
        EXPECT_EQ(L"C:0", Summary(vFilespaces)) << "what was listed before stays";
        ASSERT_EQ(4u, g_vMessages.size());
        EXPECT_EQ(kListing, g_vMessages[0].sText);
        EXPECT_EQ(L"Extracting ZOVA configuration from backup", g_vMessages[1].sText);
        EXPECT_EQ(c.vErrors[0].uiSeverity, g_vMessages[2].uiSeverity);
        EXPECT_EQ(c.vErrors[0].sText, g_vMessages[2].sText);
        EXPECT_EQ(3u, g_vMessages[3].uiSeverity);
        EXPECT_EQ(kNoLetters, g_vMessages[3].sText);
        EXPECT_EQ(kNoLetters, ErrorText());
        const auto vLines = KeflLog();
        EXPECT_TRUE(HasText(vLines, std::wstring(L"KEFLImpl::GetBOOTandSYSTEM : ") + c.pwszEnding));
        EXPECT_TRUE(
            HasText(vLines, L"KEFLImpl::GetConfig : ... ending(Couldn't get BOOT/SYSTEM drive letters)"));
        EXPECT_TRUE(HasText(vLines, L"KEFLImpl::GetFilespaceList : ... ending(GetConfig() failed)"));
        EXPECT_FALSE(HasText(vLines, L"KEFLImpl::GetFilespaceList : uiFilespaceCount = 1"));
    }
}
