#pragma once
// Text pieces of trace lines that need no file or lock: hexadecimal, character escapes, byte dumps,
// IPv6 normalisation and the conversion of narrow texts.
#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace morvane
{

// Line end of every trace line (the log is read with Windows tools).
inline constexpr std::wstring_view kTraceLineEnd = L"\r\n";

// Hexadecimal without prefix, at least uiMinDigits digits padded with "0".
void AppendHex(std::wstring& sOut, uint64_t ullValue, bool bUpper, unsigned uiMinDigits = 1);

// The single-character value form: <NULL>, <LF>, <CR>, or the character itself.
void AppendCharEscape(std::wstring& sOut, wchar_t wc);

// Two digits a byte; a blank after each byte, a line end after every 32nd; a leading line end
// when the dump runs over more than one row; a final line end.
void AppendByteDump(std::wstring& sOut, const uint8_t* pb, uint32_t cb, bool bUpper);

// Eight groups of four lower-case digits, or "<Invalid IPv6 address>".
std::wstring NormaliseIPv6(std::wstring_view sAddress);
std::wstring NormaliseIPv6(std::string_view sAddress);

// A narrow text in the current code page as a wide text; where the conversion fails, as many "?"
// as the text had characters.
std::wstring WidenNarrow(const char* psz);

// "[yyyy-mm-dd hh:mm:ss.mmm]"
void AppendTimestamp(std::wstring& sOut, const SYSTEMTIME& st);

} // namespace morvane
