// Reading the link-point files of a backup: JPoint.dat, MPoint.dat and SPoint.dat through the
// profile functions, HPoint.dat line by line. The files are real files on the backup drive.
#include "links/LinkPointFiles.h"
#include "support/RecoveryEnvironment.h"
#include "support/TraceLog.h"
#include "trace/TraceObjects.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

// While not zero, allocations larger than this many bytes fail on this thread: memory running
// out in the middle of a reader.
thread_local size_t t_cbAllocationLimit = 0;
void* operator new(std::size_t cb)
{
    if (t_cbAllocationLimit != 0 && cb > t_cbAllocationLimit)
        throw std::bad_alloc();
    if (void* p = std::malloc(cb != 0 ? cb : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept
{
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept
{
    std::free(p);
}

using namespace morvane;
using namespace kefltest;

namespace
{

const std::wstring kDir = L"R:\\LinkPoints\\";

// A list as text, one "link|target|backup target|attributes;" per point.
std::wstring Text(const PointList& list)
{
    std::wstring s;
    for (const Point& point : list)
        s += point.sLink + L"|" + point.sTarget + L"|" + point.sBackupTarget + L"|" +
             std::to_wstring(point.dwAttr) + L";";
    return s;
}

class LinkPointFiles : public testing::Test
{
protected:
    void SetUp() override
    {
        ResetHostConfiguration();
        ::CreateDirectoryW(kDir.c_str(), nullptr);
        g_KeflTrace.SetTraceLevel(3);
        g_KeflTrace.ResetTraceFile();
    }
    static std::vector<std::wstring> Texts(const wchar_t* pwszMarker)
    {
        return TextsWithMarker(ReadLogLines(LogDir() + L"\\KEFL_trace.log"), pwszMarker);
    }
};

TEST_F(LinkPointFiles, ReadsAnsiAndUtf16IniFilesAndSkipsIncompleteSections)
{
    const std::wstring sLong(5000, L'x');
    const std::string sAnsi =
        "[C:\\Data\\Junction]\r\nTarget=D:\\Real\r\nBackupTarget=R:\\B\\D\\Real\r\nAttr=16\r\n"
        "[C:\\Long]\r\nAttr=abc\r\nBackupTarget=R:\\B\r\nTarget=" +
        std::string(sLong.begin(), sLong.end()) +
        "\r\n[C:\\NoKeys]\r\n[C:\\NoTarget]\r\nBackupTarget=R:\\B2\r\nTarget=\r\n";
    WriteTextFile(kDir + L"JPoint.dat", sAnsi);
    WriteUtf16File(kDir + L"MPoint.dat",
                   L"[C:\\Mount\\\u00DCbung \u6570\u636E]\r\nTarget=\\\\?\\Volume{5}\\\r\n"
                   L"BackupTarget=R:\\B\\\u00DCbung\r\nAttr=1040\r\n");

    PointList list{{L"C:\\Earlier", L"C:\\Kept", L"R:\\Kept", 0}};
    EXPECT_TRUE(ParsePoint(kDir + L"JPoint.dat", list));
    EXPECT_TRUE(ParsePoint(kDir + L"MPoint.dat", list));

    EXPECT_EQ(L"C:\\Earlier|C:\\Kept|R:\\Kept|0;C:\\Data\\Junction|D:\\Real|R:\\B\\D\\Real|16;C:\\Long|" +
                  sLong.substr(0, 4095) + L"|R:\\B|0;" +
                  L"C:\\Mount\\\u00DCbung \u6570\u636E|\\\\?\\Volume{5}\\|R:\\B\\\u00DCbung|1040;",
              Text(list));
    EXPECT_EQ((std::vector<std::wstring>{L"KEFLImpl::ParsePoint : No BackupTarget found ... skipping section",
                                         L"KEFLImpl::ParsePoint : No Target found ... skipping section"}),
              Texts(L":[W]: "));
}

TEST_F(LinkPointFiles, FailuresLeaveTheListAsItWas)
{
    PointList list{{L"C:\\Earlier", L"C:\\Kept", L"R:\\Kept", 0}};
    RemoveFile(kDir + L"Missing.dat");
    EXPECT_TRUE(ParsePoint(kDir + L"Missing.dat", list)) << "a backup without junctions has no JPoint.dat";
    EXPECT_FALSE(ParseHPoint(kDir + L"Missing.dat", list)) << "but every backup has an HPoint.dat";
    // Over 10,000 characters of section names; with buffers of at most 16 KB the list of them
    // cannot grow whole.
    std::string sText;
    for (int i = 0; i < 100; ++i)
        sText += "[C:\\" + std::string(100, 'n') + std::to_string(i) +
                 "]\r\nBackupTarget=R:\\B\r\nTarget=C:\\T\r\n";
    WriteTextFile(kDir + L"BigJPoint.dat", sText);
    t_cbAllocationLimit = 16 * 1024;
    const bool bResult = ParsePoint(kDir + L"BigJPoint.dat", list);
    t_cbAllocationLimit = 0;
    EXPECT_FALSE(bResult);
    EXPECT_EQ(L"C:\\Earlier|C:\\Kept|R:\\Kept|0;", Text(list));
    EXPECT_EQ(
        (std::vector<std::wstring>{L"KEFLImpl::ParseHPoint : dwLastError = 2",
                                   L"KEFLImpl::ParseHPoint : ... ending(Couldn't open file for reading)",
                                   L"KEFLImpl::ParsePoint : .. ending(Memory allocation error)"}),
        Texts(L":[E]: "));
}

TEST_F(LinkPointFiles, HardLinkLinesGiveOnePointPerFurtherName)
{
    const std::string sLongest = "H2=C:\\" + std::string(4095 - 6, 'p'); // 4095 characters: read
    struct CRow
    {
        const char* pszName;
        std::string sFile;
        std::wstring sExpected;
    };
    const CRow rows[] = {
        {"groups, B without =, bytes as characters, no last line end",
         "[1]\nB=D:\\B\\n.exe\nH1=C:\\n.exe\nH2=C:\\S\\n.exe\nH3=C:\\W\\n.exe\n[2]\nBare\nH1=A\xC3\xA9\nH2=B="
         "C",
         L"C:\\S\\n.exe|C:\\n.exe|D:\\B\\n.exe|0;C:\\W\\n.exe|C:\\n.exe|D:\\B\\n.exe|0;B=C|A\u00C3\u00A9|"
         L"Bare|0;"},
        {"late H1, H01, numbers with text",
         "H2=C:\\BeforeAnyGroup\n[1]\nH1=C:\\First\nH2=C:\\ToFirst\nH1=C:\\Second\nH3=C:\\ToSecond\n"
         "[2]\nH01=C:\\Zero1\nH2=C:\\ToZero1\nH1x=C:\\OneX\nH11=C:\\Eleven\nH=C:\\NoNumber\n"
         "[3]\n\n; comment\nh2=C:\\Lower\n H2=C:\\Indented\nH2 C:\\NoEquals\n",
         L"C:\\BeforeAnyGroup|||0;C:\\ToFirst|C:\\First||0;C:\\ToSecond|C:\\Second||0;"
         L"C:\\ToZero1|C:\\Zero1||0;C:\\Eleven|C:\\OneX||0;C:\\NoNumber|C:\\OneX||0;"},
        {"CRLF and LF, a line over 4095 characters ends the read",
         "[1]\r\nH1=C:\\T\r\n" + sLongest + "\r\nH3=C:\\Before\n" + sLongest + "q\nH4=C:\\After\n",
         std::wstring(sLongest.begin() + 3, sLongest.end()) + L"|C:\\T||0;C:\\Before|C:\\T||0;"},
    };
    for (const CRow& row : rows)
    {
        SCOPED_TRACE(row.pszName);
        WriteTextFile(kDir + L"HPoint.dat", row.sFile);
        PointList list;
        EXPECT_TRUE(ParseHPoint(kDir + L"HPoint.dat", list));
        EXPECT_EQ(row.sExpected, Text(list));
    }
    EXPECT_TRUE(Texts(L":[E]: ").empty());
}

} // namespace
