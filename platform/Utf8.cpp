#include "platform/Utf8.h"

#include <windows.h>

namespace morvane
{

std::string ToUtf8(std::wstring_view sText)
{
    std::string sUtf8;
    const int cchText = static_cast<int>(sText.size());
    const int cb = sText.empty() ? 0
                                 : ::WideCharToMultiByte(CP_UTF8, 0, sText.data(), cchText, nullptr, 0,
                                                         nullptr, nullptr);
    if (cb <= 0)
        return sUtf8;
    sUtf8.resize(static_cast<size_t>(cb));
    ::WideCharToMultiByte(CP_UTF8, 0, sText.data(), cchText, sUtf8.data(), cb, nullptr, nullptr);
    return sUtf8;
}

std::wstring FromUtf8(std::string_view sUtf8)
{
    std::wstring sText;
    const int cbUtf8 = static_cast<int>(sUtf8.size());
    const int cch = sUtf8.empty() ? 0 : ::MultiByteToWideChar(CP_UTF8, 0, sUtf8.data(), cbUtf8, nullptr, 0);
    if (cch <= 0)
        return sText;
    sText.resize(static_cast<size_t>(cch));
    ::MultiByteToWideChar(CP_UTF8, 0, sUtf8.data(), cbUtf8, sText.data(), cch);
    return sText;
}

} // namespace morvane
