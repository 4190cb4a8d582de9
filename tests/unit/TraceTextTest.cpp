// The text pieces of trace lines, without file or lock.
#include "trace/TraceText.h"

#include <gtest/gtest.h>

#include <vector>

using namespace morvane;

namespace
{

std::wstring Dump(uint32_t cb, bool bUpper = false)
{
    std::vector<uint8_t> bytes(cb);
    for (uint32_t i = 0; i < cb; ++i)
        bytes[i] = static_cast<uint8_t>(0xA0 + i);
    std::wstring sOut;
    AppendByteDump(sOut, bytes.data(), cb, bUpper);
    return sOut;
}

std::wstring Row(uint8_t bFirst, unsigned uiCount)
{
    std::wstring sRow;
    for (unsigned i = 0; i < uiCount; ++i)
    {
        AppendHex(sRow, static_cast<uint8_t>(bFirst + i), false, 2);
        sRow += (i + 1 == 32) ? L"\r\n" : L" ";
    }
    return sRow;
}

} // namespace

TEST(TraceText, NormalisesIPv6AddressesToEightFullGroups)
{
    EXPECT_EQ(L"0001:0002:0000:0000:0000:0000:0000:0003", NormaliseIPv6(std::wstring_view(L"1:2::3")));
    EXPECT_EQ(L"fe80:0000:0000:0000:0000:0000:0001:0002", NormaliseIPv6(std::wstring_view(L"fe80::1:2")));
    EXPECT_EQ(L"2001:0db8:85a3:0000:0000:8a2e:0370:7334",
              NormaliseIPv6(std::wstring_view(L"2001:DB8:85a3:0:0:8A2E:370:7334")));
    // Narrow texts take the same path.
    EXPECT_EQ(L"fe80:0000:0000:0000:0000:0000:0001:0002", NormaliseIPv6(std::string_view("fe80::1:2")));
    // Characters that are not digits or colons are skipped; digits beyond four overflow the group.
    EXPECT_EQ(L"0012:0005:0000:0000:0000:0000:0000:0034", NormaliseIPv6(std::wstring_view(L"1x2:5::3-4")));
    EXPECT_EQ(L"2345:0001:0000:0000:0000:0000:0000:0000", NormaliseIPv6(std::wstring_view(L"12345:1")));
}

TEST(TraceText, ReportsAddressesWithoutOrWithTooManySingleColonsInvalid)
{
    // Only single colons count, so an address whose colons are one "::" is refused.
    for (const wchar_t* pwsz :
         {L"fe80::1", L"::1", L"::", L"", L"1234", L"1:2:3:4:5:6:7:8:9", L"1:2:3:4:5:6:7:8:9:10"})
        EXPECT_EQ(L"<Invalid IPv6 address>", NormaliseIPv6(std::wstring_view(pwsz))) << "address " << pwsz;
    EXPECT_EQ(L"<Invalid IPv6 address>", NormaliseIPv6(std::string_view("::1")));
    // Seven single colons is the most an address can have.
    EXPECT_EQ(L"0001:0002:0003:0004:0005:0006:0007:0008",
              NormaliseIPv6(std::wstring_view(L"1:2:3:4:5:6:7:8")));
}

TEST(TraceText, DumpsBytesThirtyTwoToARow)
{
    // 31 bytes: one row, a blank after each byte, one line end.
    EXPECT_EQ(Row(0xA0, 31) + L"\r\n", Dump(31));
    // 32 bytes: the row ends with its own line end, then the final one: an empty line.
    EXPECT_EQ(Row(0xA0, 32) + L"\r\n", Dump(32));
    // 33 bytes: more than one row starts on a line of its own.
    EXPECT_EQ(L"\r\n" + Row(0xA0, 32) + Row(0xC0, 1) + L"\r\n", Dump(33));
    EXPECT_EQ(L"\r\n", Dump(0));
    EXPECT_EQ(L"A0 A1 \r\n", Dump(2, true));
}

TEST(TraceText, EscapesLineBreaksAndNullCharacters)
{
    std::wstring sOut;
    for (wchar_t wc : {L'\0', L'\n', L'\r', L'A', L'\x00e9'})
        AppendCharEscape(sOut, wc);
    EXPECT_EQ(L"<NULL><LF><CR>A\x00e9", sOut);
}

