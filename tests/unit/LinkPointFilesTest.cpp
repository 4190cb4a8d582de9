// Reading a backup's link-point files: the INI-form JPoint/MPoint/SPoint.dat, and HPoint.dat.
#include "links/LinkPointFiles.h"
#include "unit/BaseServicesFixture.h"

#include <cstdlib>
#include <new>

// While not zero, larger allocations fail on this thread: memory running out inside a reader.
thread_local size_t t_cbAllocationLimit = 0;
// Never inlined: an optimiser that saw malloc inside would take the runtime's operator delete,
// which frees with free(), for a mismatched pair.
[[gnu::noinline]] void* operator new(std::size_t cb) // freed by the runtime's operator delete, with free()
{
    if (void* p = t_cbAllocationLimit == 0 || cb <= t_cbAllocationLimit ? std::malloc(cb) : nullptr)
        return p;
    throw std::bad_alloc();
}

using namespace morvane;
using namespace kefltest;

namespace
{

const std::wstring kDir = std::wstring(kWorkDir) + L"\\";

// A list as text, one "link|target|backup target|attributes;" per point.
std::wstring Text(const PointList& list)
{
    std::wstring s;
    for (const Point& point : list)
        s += point.sLink + L"|" + point.sTarget + L"|" + point.sBackupTarget + L"|" +
             std::to_wstring(point.dwAttr) + L";";
    return s;
}

using LinkPointFiles = BaseServicesFixture;

TEST_F(LinkPointFiles, ReadsAnsiAndUtf16IniFilesAndSkipsIncompleteSections)
{
    WriteTextFile(kDir + L"JPoint.dat",
                  "[C:\\J]\r\nTarget=D:\\T\r\nBackupTarget=R:\\B\r\nAttr=16\r\n[C:\\Long]\r\n"
                  "Attr=abc\r\nBackupTarget=R:\\B\r\nTarget=" +
                      std::string(5000, 'x') +
                      "\r\n[C:\\NoKeys]\r\n[C:\\NoTarget]\r\nBackupTarget=R:\\B\r\nTarget=\r\n");
    WriteUtf16File(kDir + L"MPoint.dat",
                   L"[C:\\\u00DCbung "
                   L"\u6570\u636E]\r\nTarget=\\\\?\\Volume{5}\\\r\nBackupTarget=R:\\\u00DC\r\nAttr=1040\r\n");
    PointList list{{L"E", L"K", L"R", 0}};
    EXPECT_TRUE(ParsePoint(kDir + L"JPoint.dat", list));
    EXPECT_TRUE(ParsePoint(kDir + L"MPoint.dat", list));

    EXPECT_EQ(L"E|K|R|0;C:\\J|D:\\T|R:\\B|16;C:\\Long|" + std::wstring(4095, L'x') +
                  L"|R:\\B|0;C:\\\u00DCbung \u6570\u636E|\\\\?\\Volume{5}\\|R:\\\u00DC|1040;",
              Text(list));
    EXPECT_EQ((std::vector<std::wstring>{L"KEFLImpl::ParsePoint : No BackupTarget found ... skipping section",
                                         L"KEFLImpl::ParsePoint : No Target found ... skipping section"}),
              TextsWithMarker(Log(L"KEFL"), L":[W]: "));
}

TEST_F(LinkPointFiles, FailuresLeaveTheListAsItWas)
{
    PointList list{{L"E", L"K", L"R", 0}};
    EXPECT_TRUE(ParsePoint(kDir + L"Missing.dat", list)) << "a backup without junctions has no JPoint.dat";
    EXPECT_FALSE(ParseHPoint(kDir + L"Missing.dat", list)) << "but every backup has an HPoint.dat";
    // Over 10,000 characters of section names: not one buffer of at most 16 KB holds them.
    std::string sText;
    for (int i = 0; i < 100; ++i)
        sText += "[C:\\" + std::string(100, 'n') + std::to_string(i) + "]\r\nBackupTarget=B\r\nTarget=T\r\n";
    WriteTextFile(kDir + L"BigJPoint.dat", sText);
    t_cbAllocationLimit = 16 * 1024;
    const bool bResult = ParsePoint(kDir + L"BigJPoint.dat", list);
    t_cbAllocationLimit = 0;
    EXPECT_FALSE(bResult);
    EXPECT_EQ(L"E|K|R|0;", Text(list));
    EXPECT_EQ(
        (std::vector<std::wstring>{L"KEFLImpl::ParseHPoint : dwLastError = 2",
                                   L"KEFLImpl::ParseHPoint : ... ending(Couldn't open file for reading)",
                                   L"KEFLImpl::ParsePoint : .. ending(Memory allocation error)"}),
        TextsWithMarker(Log(L"KEFL"), L":[E]: "));
}

TEST_F(LinkPointFiles, HardLinkLinesGiveOnePointPerFurtherName)
{
    const std::string sLongest = "H2=" + std::string(4095 - 3, 'p'); // 4095 characters: read
    // The case, the file, and the points read from it.
    const std::tuple<const char*, std::string, std::wstring> aRows[] = {
        {"groups, B without =, bytes as characters, no last line end",
         "[1]\nB=R:\\B1\nH1=T1\nH2=L1\nH3=L2\n[2]\nBare\nH1=T\xC3\xA9\nH2=L=3",
         L"L1|T1|R:\\B1|0;L2|T1|R:\\B1|0;L=3|T\u00C3\u00A9|Bare|0;"},
        {"late H1, H01, numbers with text",
         "H2=L0\n[1]\nH1=T1\nH2=L1\nH1=T2\nH3=L2\n[2]\nH01=T3\nH2=L3\nH1x=T4\nH11=L4\nH=L5\n"
         "[3]\n\n; comment\nh2=a\n H2=b\nH2 c\n",
         L"L0|||0;L1|T1||0;L2|T2||0;L3|T3||0;L4|T4||0;L5|T4||0;"},
        {"CRLF and LF, a line over 4095 characters ends the read",
         "[1]\r\nH1=T\r\n" + sLongest + "\r\nH3=L\n" + sLongest + "q\nH4=After\n",
         std::wstring(sLongest.begin() + 3, sLongest.end()) + L"|T||0;L|T||0;"},
    };
    for (const auto& [pszCase, sFile, sExpected] : aRows)
    {
        SCOPED_TRACE(pszCase);
        WriteTextFile(kDir + L"HPoint.dat", sFile);
        PointList list;
        EXPECT_TRUE(ParseHPoint(kDir + L"HPoint.dat", list));
        EXPECT_EQ(sExpected, Text(list));
    }
    EXPECT_TRUE(TextsWithMarker(Log(L"KEFL"), L":[E]: ").empty());
}

} // namespace
