// What a trace line looks like, value kind by value kind, and what reaches the file.
#include "trace/TraceText.h"
#include "unit/TraceFixture.h"


using namespace morvane;
using namespace kefltest;

namespace
{

std::wstring Prefix(bool bUpper)
{
    std::wstring s(L":");
    AppendHex(s, ::GetCurrentThreadId(), bUpper, 4);
    return s;
}

} // namespace

TEST_F(TraceFixture, WritesEachValueKindInItsOwnForm)
{
    CTrace& t = *m_pTrace;
    const wchar_t* F = L"CUnit::Values";
    t.TraceMessage(TRACE_INFO, F, L"starting ...");
    t.TraceValue(TRACE_INFO, F, L"wc", L'x');
    t.TraceValue(TRACE_INFO, F, L"wcLf", L'\n');
    t.TraceValue(TRACE_INFO, F, L"c", 'c');
    t.TraceValue(TRACE_INFO, F, L"cNul", '\0');
    t.TraceValue(TRACE_INFO, F, L"pwsz", L"C:\\Mount");
    t.TraceValue(TRACE_INFO, F, L"pwszNull", static_cast<const wchar_t*>(nullptr));
    t.TraceValue(TRACE_INFO, F, L"psz", "narrow");
    t.TraceValue(TRACE_INFO, F, L"pszNull", static_cast<const char*>(nullptr));
    t.TraceValue(TRACE_INFO, F, L"s", std::wstring(L"wide string"));
    t.TraceValue(TRACE_INFO, F, L"sNarrow", std::string("narrow string"));
    t.TraceValue(TRACE_INFO, F, L"sv", std::wstring_view(L"view"));
    t.TraceValue(TRACE_INFO, F, L"ll", static_cast<int64_t>(-42));
    t.TraceValue(TRACE_INFO, F, L"b32", CTraceBool32(5));
    t.TraceValue(TRACE_INFO, F, L"b32False", CTraceBool32(FALSE));
    t.TraceValue(TRACE_INFO, F, L"b", true);
    t.TraceValue(TRACE_INFO, F, L"bFalse", false);
    t.TraceValue(TRACE_INFO, F, L"d", 3.14159265);
    t.TraceValue(TRACE_INFO, F, L"dLarge", 1e6);
    t.TraceIPv4(TRACE_INFO, F, L"ip", 0x0100007F, false);
    t.TraceIPv4(TRACE_INFO, F, L"ipHost", 0xC0A80001, true);
    t.TraceIPv6(TRACE_INFO, F, L"ip6", L"fe80::1:2");
    t.TraceIPv6(TRACE_INFO, F, L"ip6Narrow", "fe80::1");
    t.TraceGuid(TRACE_INFO, F, L"guid", GUID{0x12345678, 0x9abc, 0xdef0, {1, 2, 3, 4, 5, 6, 7, 0xab}});
    SYSTEMTIME st = {2015, 11, 4, 5, 14, 3, 9, 500};
    t.TraceTime(TRACE_INFO, F, L"st", st);
    t.TraceHex(TRACE_INFO, F, L"uiTraceLevel", 0x7);
    t.TraceHex(TRACE_INFO, F, L"ull", 0xabcdef0123ULL);

    const std::vector<std::wstring> vExpected = {
        L"CUnit::Values : starting ...",
        L"CUnit::Values : wc = 'x'",
        L"CUnit::Values : wcLf = '<LF>'",
        L"CUnit::Values : c = 'c'",
        L"CUnit::Values : cNul = '<NULL>'",
        L"CUnit::Values : pwsz = \"C:\\Mount\"",
        L"CUnit::Values : pwszNull = \"<null>\"",
        L"CUnit::Values : psz = \"narrow\"",
        L"CUnit::Values : pszNull = \"<null>\"",
        L"CUnit::Values : s = \"wide string\"",
        L"CUnit::Values : sNarrow = \"narrow string\"",
        L"CUnit::Values : sv = \"view\"",
        L"CUnit::Values : ll = -42",
        L"CUnit::Values : b32 = true",
        L"CUnit::Values : b32False = false",
        L"CUnit::Values : b = true",
        L"CUnit::Values : bFalse = false",
        L"CUnit::Values : d = 3.14159",
        L"CUnit::Values : dLarge = 1e+06",
        L"CUnit::Values : ip = 127.0.0.1",
        L"CUnit::Values : ipHost = 192.168.0.1",
        L"CUnit::Values : ip6 = fe80:0000:0000:0000:0000:0000:0001:0002",
        L"CUnit::Values : ip6Narrow = <Invalid IPv6 address>",
        L"CUnit::Values : guid = { 12345678-9ABC-DEF0-0102-0304050607AB }",
        L"CUnit::Values : st = 05/11/2015 14:03:09",
        L"CUnit::Values : uiTraceLevel = 0x7",
        L"CUnit::Values : ull = 0xABCDEF0123",
    };
    EXPECT_EQ(vExpected, TextsWithMarker(Lines(), L":[I]: "));
}

TEST_F(TraceFixture, PrefixesLinesWithTimeThreadAndMarker)
{
    m_pTrace->SetTraceLevel(4);
    SYSTEMTIME before;
    ::GetLocalTime(&before);
    m_pTrace->TraceMessage(TRACE_ERROR, L"F", L"error");
    m_pTrace->TraceMessage(TRACE_WARNING, L"F", L"warning");
    m_pTrace->TraceMessage(TRACE_INFO, L"F", L"information");
    m_pTrace->TraceMessage(TRACE_VERBOSE, L"F", L"verbose");
    // Levels without a marker of their own: 3 passes the mask (its bits overlap it) and is
    // written without marker; 16 is outside every mask.
    m_pTrace->TraceMessage(3, L"F", L"three");
    m_pTrace->TraceMessage(16, L"F", L"sixteen");

    const auto vLines = Lines();
    ASSERT_EQ(5u, vLines.size());
    const wchar_t* apwszMarkers[] = {L":[E]: ", L":[W]: ", L":[I]: ", L":[V]: "};
    const wchar_t* apwszTexts[] = {L"F : error", L"F : warning", L"F : information", L"F : verbose"};
    for (size_t i = 0; i < 4; ++i)
    {
        const auto line = ParseTraceLine(vLines[i]);
        ASSERT_TRUE(line) << testing::PrintToString(vLines[i]);
        EXPECT_EQ(::GetCurrentThreadId(), line->uiThreadId);
        EXPECT_EQ(apwszMarkers[i], line->sMarker);
        EXPECT_EQ(apwszTexts[i], line->sText);
    }
    std::wstring sStamp;
    AppendTimestamp(sStamp, before);
    EXPECT_EQ(sStamp.substr(0, 12), vLines[0].substr(0, 12)) << "the date of the line"; // "[yyyy-mm-dd"
    EXPECT_EQ(Prefix(false) + L"F : three", vLines[4].substr(25)) << "no marker after the thread id";
    EXPECT_TRUE(ParseTraceLine(vLines[4].substr(0, 25) + L":0000:[I]: x")) << "a timestamp before it";
}

TEST_F(TraceFixture, ThreadIdTurnsUpperCaseAfterAHexValue)
{
    m_pTrace->TraceMessage(TRACE_INFO, L"F", L"before");
    m_pTrace->TraceHex(TRACE_INFO, L"F", L"ul", 0xab);
    m_pTrace->TraceMessage(TRACE_INFO, L"F", L"after");
    const auto vLines = Lines();
    ASSERT_EQ(3u, vLines.size());
    EXPECT_EQ(Prefix(false) + L":[I]: F : before", vLines[0].substr(25));
    EXPECT_EQ(Prefix(true) + L":[I]: F : after", vLines[2].substr(25));
}

TEST_F(TraceFixture, DumpsBytesOnContinuationLinesWithoutPrefix)
{
    uint8_t ab[33];
    for (uint8_t i = 0; i < 33; ++i)
        ab[i] = i;
    m_pTrace->TraceBytes(TRACE_INFO, L"F", L"pb", ab, 33);
    m_pTrace->TraceBytes(TRACE_INFO, L"F", L"pb2", ab, 2);
    const auto vLines = Lines();
    ASSERT_EQ(4u, vLines.size());
    EXPECT_EQ(L"F : pb = ", ParseTraceLine(vLines[0])->sText);
    EXPECT_EQ(
        L"00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 11 12 13 14 15 16 17 18 19 1a 1b 1c 1d 1e 1f",
        vLines[1]);
    EXPECT_EQ(L"20 ", vLines[2]);
    EXPECT_EQ(L"F : pb2 = 00 01 ", ParseTraceLine(vLines[3])->sText);
}

TEST_F(TraceFixture, WritesBannerBoxedAndWithoutPrefixUnlessSilenced)
{
    m_pTrace->SetTraceLevel(1); // any mask but 0 writes the banner
    m_pTrace->TraceBanner(L"KEFL 1.0");
    const std::vector<std::wstring> vExpected = {L"", L"**************", L"** KEFL 1.0 **", L"**************",
                                                 L""};
    EXPECT_EQ(vExpected, Lines());

    m_pTrace->SetTraceLevel(0);
    m_pTrace->TraceBanner(L"silenced");
    m_pTrace->TraceMessage(TRACE_ERROR, L"F", L"silenced");
    EXPECT_EQ(vExpected, Lines());
}

TEST_F(TraceFixture, WritesUtf8WithoutByteOrderMark)
{
    m_pTrace->TraceValue(TRACE_INFO, L"F", L"s", L"Zo\x00eb \x2713 \xd834\xdd1e");
    const std::string sBytes = ReadFileBytes(m_pTrace->GetFilePath());
    ASSERT_FALSE(sBytes.empty());
    EXPECT_EQ('[', sBytes[0]) << "no byte-order mark";
    EXPECT_NE(std::string::npos, sBytes.find("F : s = \"Zo\xc3\xab \xe2\x9c\x93 \xf0\x9d\x84\x9e\"\r\n"));
}

TEST_F(TraceFixture, KeepsTheCallersLastError)
{
    ::SetLastError(0xBEEF);
    m_pTrace->TraceMessage(TRACE_INFO, L"F", L"written");
    m_pTrace->TraceMessage(TRACE_VERBOSE, L"F", L"masked out");
    m_pTrace->TraceBanner(L"banner");
    EXPECT_EQ(0xBEEFu, ::GetLastError());
}

