// Reading the link-point files of a backup: JPoint.dat, MPoint.dat and SPoint.dat through the
// profile functions, HPoint.dat line by line. The files are real files on the backup drive.
#include "links/LinkPointFiles.h"
#include "support/RecoveryEnvironment.h"
#include "support/TraceLog.h"
#include "trace/TraceObjects.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <new>
#include <ostream>
#include <string>
#include <vector>

namespace morvane
{

// For comparing whole lists, and for readable failure messages.
bool operator==(const Point& a, const Point& b)
{
    return a.sLink == b.sLink && a.sTarget == b.sTarget && a.sBackupTarget == b.sBackupTarget &&
           a.dwAttr == b.dwAttr;
}

void PrintTo(const Point& point, std::ostream* pOut)
{
    *pOut << "{link " << testing::PrintToString(point.sLink) << ", target "
          << testing::PrintToString(point.sTarget) << ", backup "
          << testing::PrintToString(point.sBackupTarget) << ", attr " << point.dwAttr << "}";
}

} // namespace morvane

namespace
{

// Allocations larger than this many bytes fail on this thread while it is not zero: memory
// running out in the middle of a reader.
thread_local size_t t_cbAllocationLimit = 0;

class CAllocationLimit
{
public:
    explicit CAllocationLimit(size_t cbLimit) { t_cbAllocationLimit = cbLimit; }
    ~CAllocationLimit() { t_cbAllocationLimit = 0; }
    CAllocationLimit(const CAllocationLimit&) = delete;
    CAllocationLimit& operator=(const CAllocationLimit&) = delete;
};

} // namespace

// The program's allocation functions, the standard ones but for the limit above; the process heap
// serves them so that nothing of the C runtime's own pairing is assumed.
void* operator new(std::size_t cb)
{
    if (t_cbAllocationLimit != 0 && cb > t_cbAllocationLimit)
        throw std::bad_alloc();
    for (;;)
    {
        if (void* p = ::HeapAlloc(::GetProcessHeap(), 0, cb != 0 ? cb : 1))
            return p;
        const std::new_handler pfnHandler = std::get_new_handler();
        if (!pfnHandler)
            throw std::bad_alloc();
        pfnHandler();
    }
}

void operator delete(void* p) noexcept
{
    if (p)
        ::HeapFree(::GetProcessHeap(), 0, p);
}

void operator delete(void* p, std::size_t) noexcept
{
    operator delete(p);
}

using namespace morvane;
using namespace kefltest;

namespace
{

constexpr wchar_t kDir[] = L"R:\\LinkPoints";
constexpr wchar_t kParsePoint[] = L"KEFLImpl::ParsePoint : ";
constexpr wchar_t kParseHPoint[] = L"KEFLImpl::ParseHPoint : ";

std::wstring PathOf(const wchar_t* pwszName)
{
    return std::wstring(kDir) + L"\\" + pwszName;
}

std::string Narrow(const std::wstring& sText)
{
    return std::string(sText.begin(), sText.end()); // ASCII texts only
}

class LinkPointFiles : public testing::Test
{
protected:
    void SetUp() override
    {
        ResetHostConfiguration();
        ::CreateDirectoryW(kDir, nullptr);
        g_KeflTrace.SetTraceLevel(3); // errors, warnings and values, as by default
        g_KeflTrace.ResetTraceFile();
    }
    void TearDown() override { g_KeflTrace.SetTraceLevel(3); }

    static std::vector<std::wstring> TraceLines() { return ReadLogLines(LogDir() + L"\\KEFL_trace.log"); }
    static std::vector<std::wstring> Warnings() { return TextsWithMarker(TraceLines(), L":[W]: "); }
    static std::vector<std::wstring> Errors() { return TextsWithMarker(TraceLines(), L":[E]: "); }

    // Writes HPoint.dat from its lines, each ended by "\n".
    static std::wstring WriteHPoint(const wchar_t* pwszName, const std::vector<std::string>& vLines)
    {
        std::string sText;
        for (const std::string& sLine : vLines)
            sText += sLine + "\n";
        const std::wstring sPath = PathOf(pwszName);
        WriteTextFile(sPath, sText);
        return sPath;
    }
    // What ParseHPoint makes of the file, which it must read.
    static PointList ReadHPoint(const std::wstring& sPath, int iLine)
    {
        PointList list;
        EXPECT_TRUE(ParseHPoint(sPath, list)) << "called from line " << iLine;
        return list;
    }
};

TEST_F(LinkPointFiles, ReadsAnsiAndUtf16FilesAndAppendsInFileOrder)
{
    WriteTextFile(PathOf(L"JPoint.dat"), "[C:\\Data\\Junction]\r\n"
                                         "Target=D:\\Real\\Folder\r\n"
                                         "BackupTarget=R:\\Backup\\D\\Real\\Folder\r\n"
                                         "Attr=16\r\n"
                                         "[C:\\Data\\Second]\r\n"
                                         "Attr=abc\r\n"
                                         "BackupTarget=R:\\Backup\\E\r\n"
                                         "Target=E:\\\r\n");
    WriteUtf16File(PathOf(L"MPoint.dat"), L"[C:\\Mount\\\u00DCbung \u6570\u636E]\r\n"
                                          L"Target=\\\\?\\Volume{00000000-0000-0000-0000-000000000005}\\\r\n"
                                          L"BackupTarget=R:\\Backup\\\u00DCbung\r\n"
                                          L"Attr=1040\r\n");

    PointList list{{L"C:\\Earlier", L"C:\\Kept", L"R:\\Kept", 0}};
    EXPECT_TRUE(ParsePoint(PathOf(L"JPoint.dat"), list));
    EXPECT_TRUE(ParsePoint(PathOf(L"MPoint.dat"), list));

    const PointList expected{
        {L"C:\\Earlier", L"C:\\Kept", L"R:\\Kept", 0},
        {L"C:\\Data\\Junction", L"D:\\Real\\Folder", L"R:\\Backup\\D\\Real\\Folder", 16},
        {L"C:\\Data\\Second", L"E:\\", L"R:\\Backup\\E", 0},
        {L"C:\\Mount\\\u00DCbung \u6570\u636E", L"\\\\?\\Volume{00000000-0000-0000-0000-000000000005}\\",
         L"R:\\Backup\\\u00DCbung", 1040},
    };
    EXPECT_EQ(expected, list);

    const auto vLines = TraceLines();
    EXPECT_TRUE(HasText(vLines, kParsePoint + std::wstring(L"sPath = \"R:\\LinkPoints\\JPoint.dat\"")));
    EXPECT_TRUE(HasText(vLines, kParsePoint + std::wstring(L"wszSection = \"C:\\Data\\Second\"")));
    EXPECT_TRUE(HasText(vLines, kParsePoint + std::wstring(L"PointList.size() = 4")));
    EXPECT_TRUE(Warnings().empty());
}

TEST_F(LinkPointFiles, SkipsIncompleteSectionsWithOneWarningEach)
{
    WriteTextFile(PathOf(L"SPoint.dat"), "[C:\\NoKeys]\r\n"
                                         "[C:\\NoBackupTarget]\r\n"
                                         "Target=C:\\T1\r\n"
                                         "Attr=1\r\n"
                                         "[C:\\NoTarget]\r\n"
                                         "BackupTarget=R:\\B2\r\n"
                                         "[C:\\EmptyValues]\r\n"
                                         "BackupTarget=\r\n"
                                         "Target=\r\n"
                                         "[C:\\Complete]\r\n"
                                         "BackupTarget=R:\\B3\r\n"
                                         "Target=C:\\T3\r\n");
    PointList list;
    EXPECT_TRUE(ParsePoint(PathOf(L"SPoint.dat"), list));
    EXPECT_EQ((PointList{{L"C:\\Complete", L"C:\\T3", L"R:\\B3", 0}}), list);

    const std::wstring sNoBackupTarget =
        kParsePoint + std::wstring(L"No BackupTarget found ... skipping section");
    const std::wstring sNoTarget = kParsePoint + std::wstring(L"No Target found ... skipping section");
    EXPECT_EQ((std::vector<std::wstring>{sNoBackupTarget, sNoBackupTarget, sNoTarget, sNoBackupTarget}),
              Warnings())
        << "one warning per skipped section; a section without keys lacks its BackupTarget first";
}

TEST_F(LinkPointFiles, MissingFilesAndEmptyPaths)
{
    PointList list{{L"C:\\Earlier", L"C:\\Kept", L"R:\\Kept", 0}};
    const PointList before = list;

    RemoveFile(PathOf(L"Missing.dat"));
    EXPECT_TRUE(ParsePoint(PathOf(L"Missing.dat"), list)) << "a backup without junctions has no JPoint.dat";
    EXPECT_EQ(before, list);
    auto vLines = TraceLines();
    EXPECT_TRUE(HasText(vLines, kParsePoint + std::wstring(L"No sections found in file")));
    EXPECT_TRUE(HasText(vLines, kParsePoint + std::wstring(L"dwSize = 0")));
    EXPECT_TRUE(Errors().empty());

    EXPECT_FALSE(ParseHPoint(PathOf(L"Missing.dat"), list));
    EXPECT_FALSE(ParsePoint(L"", list));
    EXPECT_FALSE(ParseHPoint(L"", list));
    EXPECT_EQ(before, list);
    const auto vErrors = Errors();
    EXPECT_EQ(
        (std::vector<std::wstring>{kParseHPoint + std::wstring(L"dwLastError = 2"),
                                   kParseHPoint + std::wstring(L"... ending(Couldn't open file for reading)"),
                                   kParsePoint + std::wstring(L"... ending(Empty path argument)"),
                                   kParseHPoint + std::wstring(L"... ending(Empty path argument)")}),
        vErrors);
}

TEST_F(LinkPointFiles, CutsValuesAt4095CharactersAndReadsLongSectionListsWhole)
{
    const std::wstring sLong(5000, L'x');
    std::wstring sText = L"[C:\\Long]\r\nBackupTarget=R:\\B\r\nTarget=" + sLong + L"\r\n";
    // 200 names of over 120 characters: the list is more than twenty times the first buffer.
    std::vector<std::wstring> vNames;
    for (int i = 0; i < 200; ++i)
    {
        vNames.push_back(L"C:\\Users\\Somebody\\AppData\\Local\\A rather deeply nested folder\\"
                         L"with a long name to fill the list of sections\\Junction " +
                         std::to_wstring(i));
        sText += L"[" + vNames.back() + L"]\r\nBackupTarget=R:\\B" + std::to_wstring(i) +
                 L"\r\nTarget=C:\\T" + std::to_wstring(i) + L"\r\n";
    }
    WriteTextFile(PathOf(L"LongJPoint.dat"), Narrow(sText));

    PointList list;
    EXPECT_TRUE(ParsePoint(PathOf(L"LongJPoint.dat"), list));
    ASSERT_EQ(201u, list.size());
    EXPECT_EQ(sLong.substr(0, 4095), list[0].sTarget);
    for (int i = 0; i < 200; ++i)
    {
        const Point& point = list[static_cast<size_t>(i) + 1];
        EXPECT_EQ(vNames[static_cast<size_t>(i)], point.sLink);
        EXPECT_EQ(L"C:\\T" + std::to_wstring(i), point.sTarget) << point.sLink;
    }
}

TEST_F(LinkPointFiles, ReportsMemoryRunningOutWhileTheSectionListGrows)
{
    // Over 10,000 characters of names; buffers of up to 16 KB are granted, so the name list
    // cannot grow to its full size.
    std::string sText;
    for (int i = 0; i < 100; ++i)
        sText += "[C:\\" + std::string(100, 'n') + std::to_string(i) +
                 "]\r\nBackupTarget=R:\\B\r\nTarget=C:\\T\r\n";
    WriteTextFile(PathOf(L"BigJPoint.dat"), sText);

    PointList list{{L"C:\\Earlier", L"C:\\Kept", L"R:\\Kept", 0}};
    const PointList before = list;
    bool bResult = true;
    {
        CAllocationLimit limit(16 * 1024);
        bResult = ParsePoint(PathOf(L"BigJPoint.dat"), list);
    }
    EXPECT_FALSE(bResult);
    EXPECT_EQ(before, list);
    EXPECT_EQ(std::vector<std::wstring>{kParsePoint + std::wstring(L".. ending(Memory allocation error)")},
              Errors());
}

TEST_F(LinkPointFiles, ReadsTenThousandSections)
{
    std::string sText;
    for (int i = 0; i < 10000; ++i)
    {
        const std::string sNumber = std::to_string(i);
        sText += "[C:\\Links\\J" + sNumber + "]\r\nTarget=D:\\Targets\\T" + sNumber +
                 "\r\nBackupTarget=R:\\B\\" + sNumber + "\r\nAttr=" + std::to_string(i % 2 == 0 ? 16 : 1040) +
                 "\r\n";
    }
    WriteTextFile(PathOf(L"BigSPoint.dat"), sText);

    g_KeflTrace.SetTraceLevel(2); // no value line per section
    PointList list;
    EXPECT_TRUE(ParsePoint(PathOf(L"BigSPoint.dat"), list));
    ASSERT_EQ(10000u, list.size());
    EXPECT_EQ((Point{L"C:\\Links\\J0", L"D:\\Targets\\T0", L"R:\\B\\0", 16}), list[0]);
    EXPECT_EQ((Point{L"C:\\Links\\J4711", L"D:\\Targets\\T4711", L"R:\\B\\4711", 1040}), list[4711]);
    EXPECT_EQ((Point{L"C:\\Links\\J9999", L"D:\\Targets\\T9999", L"R:\\B\\9999", 1040}), list[9999]);
}

TEST_F(LinkPointFiles, HardLinkGroupsGiveOnePointPerFurtherName)
{
    const std::wstring sPath = WriteHPoint(L"HPoint.dat", {
                                                              "[1]",
                                                              "B=D:\\Backup\\C\\Windows\\notepad.exe",
                                                              "H1=C:\\Windows\\notepad.exe",
                                                              "H2=C:\\Windows\\System32\\notepad.exe",
                                                              "H3=C:\\Windows\\SysWOW64\\notepad.exe",
                                                              "[2]",
                                                              "B=D:\\Backup\\Only",
                                                              "H1=C:\\Only",
                                                              "[3]",
                                                              "H1=A",
                                                              "H2=B",
                                                              "H3=C",
                                                          });
    PointList list{{L"C:\\Earlier", L"C:\\Kept", L"R:\\Kept", 0}};
    EXPECT_TRUE(ParseHPoint(sPath, list));
    const PointList expected{
        {L"C:\\Earlier", L"C:\\Kept", L"R:\\Kept", 0},
        {L"C:\\Windows\\System32\\notepad.exe", L"C:\\Windows\\notepad.exe",
         L"D:\\Backup\\C\\Windows\\notepad.exe", 0},
        {L"C:\\Windows\\SysWOW64\\notepad.exe", L"C:\\Windows\\notepad.exe",
         L"D:\\Backup\\C\\Windows\\notepad.exe", 0},
        {L"B", L"A", L"", 0},
        {L"C", L"A", L"", 0},
    };
    EXPECT_EQ(expected, list);

    const std::vector<std::wstring> vInfo = TextsWithMarker(TraceLines(), L":[I]: ");
    ASSERT_GE(vInfo.size(), 5u);
    const std::vector<std::wstring> vFirstAppend(vInfo.begin() + 1, vInfo.begin() + 4);
    EXPECT_EQ(
        (std::vector<std::wstring>{
            kParseHPoint + std::wstring(L"ThisPoint.sTarget = \"C:\\Windows\\notepad.exe\""),
            kParseHPoint + std::wstring(L"ThisPoint.sBackupTarget = \"D:\\Backup\\C\\Windows\\notepad.exe\""),
            kParseHPoint + std::wstring(L"ThisPoint.sLink = \"C:\\Windows\\System32\\notepad.exe\""),
        }),
        vFirstAppend)
        << "after the sPath line";
    EXPECT_EQ(kParseHPoint + std::wstring(L"PointList.size() = 5"), vInfo.back());
}

TEST_F(LinkPointFiles, HardLinkLinesOutOfTheUsualOrder)
{
    const std::wstring sPath = WriteHPoint(L"OddHPoint.dat", {
                                                                 "H2=C:\\BeforeAnyGroup",
                                                                 "[late H1]",
                                                                 "H1=C:\\First",
                                                                 "H2=C:\\LinkToFirst",
                                                                 "H1=C:\\Second",
                                                                 "H3=C:\\LinkToSecond",
                                                                 "[leading zero, trailing text]",
                                                                 "H01=C:\\Zero1",
                                                                 "H2=C:\\LinkToZero1",
                                                                 "H1x=C:\\OneX",
                                                                 "H11=C:\\Eleven",
                                                                 "H=C:\\NoNumber",
                                                                 "[backup without =]",
                                                                 "BareBackup",
                                                                 "H1=C:\\T",
                                                                 "H2 C:\\NoEquals",
                                                                 "H3=C:\\Last=Part",
                                                                 "",
                                                                 "; a comment",
                                                                 "h2=C:\\LowerCase",
                                                                 " H2=C:\\Indented",
                                                                 "[reset]",
                                                                 "H2=C:\\AfterReset",
                                                             });
    const PointList expected{
        {L"C:\\BeforeAnyGroup", L"", L"", 0},           {L"C:\\LinkToFirst", L"C:\\First", L"", 0},
        {L"C:\\LinkToSecond", L"C:\\Second", L"", 0},   {L"C:\\LinkToZero1", L"C:\\Zero1", L"", 0},
        {L"C:\\Eleven", L"C:\\OneX", L"", 0},           {L"C:\\NoNumber", L"C:\\OneX", L"", 0},
        {L"C:\\Last=Part", L"C:\\T", L"BareBackup", 0}, {L"C:\\AfterReset", L"", L"", 0},
    };
    EXPECT_EQ(expected, ReadHPoint(sPath, __LINE__));
}

TEST_F(LinkPointFiles, HardLinkFilesReadAsBytesWithEitherLineEnd)
{
    // Bytes are characters: C3 A9 (UTF-8 for e acute) stays two characters.
    WriteTextFile(PathOf(L"CrLfHPoint.dat"), "[1]\r\nB=R:\\B\r\nH1=C:\\Caf\xC3\xA9\r\nH2=C:\\Link\r\n"
                                             "[2]\r\nH1=C:\\T2\r\nH2=C:\\NoLineEnd");
    const PointList expected{
        {L"C:\\Link", L"C:\\Caf\u00C3\u00A9", L"R:\\B", 0},
        {L"C:\\NoLineEnd", L"C:\\T2", L"", 0},
    };
    EXPECT_EQ(expected, ReadHPoint(PathOf(L"CrLfHPoint.dat"), __LINE__));
}

TEST_F(LinkPointFiles, AHardLinkLineOver4095CharactersEndsTheRead)
{
    const std::string sLongest = "H2=C:\\" + std::string(4095 - 6, 'p'); // 4095 characters: read
    WriteTextFile(PathOf(L"LongHPoint.dat"), "[1]\r\nH1=C:\\T\r\n" + sLongest + "\r\nH3=C:\\Before\n" +
                                                 sLongest +
                                                 "q\nH4=C:\\After\n[2]\nH1=C:\\U\nH2=C:\\AlsoAfter\n");
    const PointList list = ReadHPoint(PathOf(L"LongHPoint.dat"), __LINE__);
    ASSERT_EQ(2u, list.size());
    EXPECT_EQ(std::wstring(sLongest.begin() + 3, sLongest.end()), list[0].sLink);
    EXPECT_EQ((Point{L"C:\\Before", L"C:\\T", L"", 0}), list[1]);
    EXPECT_TRUE(Warnings().empty());
    EXPECT_TRUE(Errors().empty());
}

TEST_F(LinkPointFiles, ReadsAHundredThousandHardLinkLines)
{
    // 20,000 groups of five names each.
    std::string sText;
    for (int iGroup = 0; iGroup < 20000; ++iGroup)
    {
        const std::string sGroup = std::to_string(iGroup);
        sText += "[" + sGroup + "]\r\nB=R:\\Backup\\F" + sGroup + "\r\n";
        for (int iName = 1; iName <= 5; ++iName)
            sText +=
                "H" + std::to_string(iName) + "=C:\\Data\\F" + sGroup + "_" + std::to_string(iName) + "\r\n";
    }
    WriteTextFile(PathOf(L"BigHPoint.dat"), sText);

    g_KeflTrace.SetTraceLevel(2); // no value lines per Point
    const PointList list = ReadHPoint(PathOf(L"BigHPoint.dat"), __LINE__);
    ASSERT_EQ(80000u, list.size());
    EXPECT_EQ((Point{L"C:\\Data\\F0_2", L"C:\\Data\\F0_1", L"R:\\Backup\\F0", 0}), list[0]);
    EXPECT_EQ((Point{L"C:\\Data\\F12345_4", L"C:\\Data\\F12345_1", L"R:\\Backup\\F12345", 0}),
              list[12345 * 4 + 2]);
    EXPECT_EQ((Point{L"C:\\Data\\F19999_5", L"C:\\Data\\F19999_1", L"R:\\Backup\\F19999", 0}), list.back());
}

} // namespace
