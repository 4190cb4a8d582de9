#include "trace/TraceText.h"
#include "platform/FormatText.h"

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <type_traits>
#include <vector>

namespace morvane
{

void AppendHex(std::wstring& sOut, uint64_t ullValue, bool bUpper, unsigned uiMinDigits)
{
    const wchar_t* pwszDigits = bUpper ? L"0123456789ABCDEF" : L"0123456789abcdef";
    wchar_t wszBuf[16];
    unsigned uiCount = 0;
    do
    {
        wszBuf[uiCount++] = pwszDigits[ullValue & 0xF];
        ullValue >>= 4;
    } while (ullValue != 0);
    for (unsigned i = uiCount; i < uiMinDigits; ++i)
        sOut.push_back(L'0');
    while (uiCount > 0)
        sOut.push_back(wszBuf[--uiCount]);
}

void AppendCharEscape(std::wstring& sOut, wchar_t wc)
{
    switch (wc)
    {
    case L'\0':
        sOut += L"<NULL>";
        break;
    case L'\n':
        sOut += L"<LF>";
        break;
    case L'\r':
        sOut += L"<CR>";
        break;
    default:
        sOut.push_back(wc);
    }
}

void AppendByteDump(std::wstring& sOut, const uint8_t* pb, uint32_t cb, bool bUpper)
{
    if (cb > 32)
        sOut += kTraceLineEnd;
    for (uint32_t i = 0; i < cb; ++i)
    {
        AppendHex(sOut, pb[i], bUpper, 2);
        if ((i + 1) % 32 == 0)
            sOut += kTraceLineEnd;
        else
            sOut.push_back(L' ');
    }
    sOut += kTraceLineEnd;
}

namespace
{

int HexDigitValue(unsigned c)
{
    if (c >= '0' && c <= '9')
        return static_cast<int>(c - '0');
    if (c >= 'a' && c <= 'f')
        return static_cast<int>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F')
        return static_cast<int>(c - 'A' + 10);
    return -1;
}

template <typename Char> std::wstring NormaliseIPv6Impl(std::basic_string_view<Char> sAddress)
{
    const size_t cch = sAddress.size();
    // Single colons only: a "::" counts for nothing here, its width is filled in below.
    unsigned uiColons = 0;
    for (size_t i = 0; i + 1 < cch; ++i)
    {
        if (sAddress[i] != Char(':'))
            continue;
        if (sAddress[i + 1] == Char(':'))
            ++i;
        else
            ++uiColons;
    }
    if (uiColons == 0 || uiColons >= 8)
        return L"<Invalid IPv6 address>";

    uint16_t awGroups[8] = {};
    unsigned uiGroup = 0;
    for (size_t i = 0; i < cch; ++i)
    {
        const unsigned c = static_cast<std::make_unsigned_t<Char>>(sAddress[i]);
        if (c == ':')
        {
            if (i + 1 < cch && sAddress[i + 1] == Char(':'))
            {
                uiGroup += 7 - uiColons;
                ++i;
            }
            else
            {
                ++uiGroup;
            }
            continue;
        }
        const int iDigit = HexDigitValue(c);
        if (iDigit >= 0 && uiGroup < 8)
            awGroups[uiGroup] = static_cast<uint16_t>((awGroups[uiGroup] << 4) + iDigit);
    }

    std::wstring sOut;
    sOut.reserve(39);
    for (unsigned g = 0; g < 8; ++g)
    {
        if (g > 0)
            sOut.push_back(L':');
        AppendHex(sOut, awGroups[g], false, 4);
    }
    return sOut;
}

} // namespace

std::wstring NormaliseIPv6(std::wstring_view sAddress)
{
    return NormaliseIPv6Impl(sAddress);
}

std::wstring NormaliseIPv6(std::string_view sAddress)
{
    return NormaliseIPv6Impl(sAddress);
}

std::wstring WidenNarrow(const char* psz)
{
    const size_t cch = std::strlen(psz);
    std::vector<wchar_t> buf(cch + 1);
    size_t cchConverted = 0;
    if (mbstowcs_s(&cchConverted, buf.data(), buf.size(), psz, _TRUNCATE) != 0)
        return std::wstring(cch, L'?');
    return std::wstring(buf.data());
}

void AppendTimestamp(std::wstring& sOut, const SYSTEMTIME& st)
{
    wchar_t wszTime[26];
    // The prefix has a fixed width: a clock past the year 9999 would have its timestamp cut.
    (void)FormatInto(wszTime, L"[%4.4u-%2.2u-%2.2u %2.2u:%2.2u:%2.2u.%3.3u]", st.wYear, st.wMonth, st.wDay,
                     st.wHour, st.wMinute, st.wSecond, st.wMilliseconds);
    sOut += wszTime;
}

} // namespace morvane
