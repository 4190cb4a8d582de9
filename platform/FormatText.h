#pragma once
// Formatting into a fixed buffer, told apart from a cut result: mingw's swprintf answers the
// length it would have written, not a negative value, when the buffer is too small.
#include <cstddef>
#include <cwchar>

namespace morvane
{

// False when the text did not fit (the buffer then holds a cut text) or could not be formatted.
template <size_t N, typename... Args>
[[nodiscard]] bool FormatInto(wchar_t (&wszBuffer)[N], const wchar_t* pwszFormat, Args... args)
{
    const int cch = std::swprintf(wszBuffer, N, pwszFormat, args...);
    return cch >= 0 && static_cast<size_t>(cch) < N;
}

} // namespace morvane
