#pragma once
// Reading a trace log back: its lines, split into prefix parts where they have one.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kefltest
{

// The lines of a UTF-8 trace log, without their line ends; empty when the file is missing.
std::vector<std::wstring> ReadLogLines(const std::wstring& sPath);

struct CTraceLine
{
    std::wstring sTimestamp; // "[yyyy-mm-dd hh:mm:ss.mmm]"
    uint32_t uiThreadId = 0;
    std::wstring sMarker; // ":[I]: " etc., empty for a line without marker
    std::wstring sText;   // what follows the marker
};
// Splits a line with a prefix; nothing when the line does not have the prefix's form.
std::optional<CTraceLine> ParseTraceLine(const std::wstring& sLine);

// The texts (after the marker) of the lines with the given marker, in order.
std::vector<std::wstring> TextsWithMarker(const std::vector<std::wstring>& vLines,
                                          const std::wstring& sMarker);
// Whether some line's text after its marker equals sText.
bool HasText(const std::vector<std::wstring>& vLines, const std::wstring& sText);

} // namespace kefltest
