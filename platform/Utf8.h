#pragma once
// UTF-8, the encoding of the trace, the host's output and its report, to and from the wide text
// of Windows' calls. Text that cannot be converted comes back empty.
#include <string>
#include <string_view>

namespace morvane
{

std::string ToUtf8(std::wstring_view sText);
std::wstring FromUtf8(std::string_view sUtf8);

} // namespace morvane
