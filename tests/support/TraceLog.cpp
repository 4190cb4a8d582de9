#include "support/TraceLog.h"

#include "support/RecoveryEnvironment.h"

#include <windows.h>

#include <regex>

namespace kefltest
{

std::vector<std::wstring> ReadLogLines(const std::wstring& sPath)
{
    const std::string sBytes = FileExists(sPath) ? ReadBytes(sPath) : std::string();
    std::wstring sText;
    if (!sBytes.empty())
    {
        sText.resize(sBytes.size());
        const int cch = ::MultiByteToWideChar(CP_UTF8, 0, sBytes.data(), static_cast<int>(sBytes.size()),
                                              sText.data(), static_cast<int>(sText.size()));
        sText.resize(cch > 0 ? static_cast<size_t>(cch) : 0);
    }
    std::vector<std::wstring> vLines;
    size_t pos = 0;
    while (pos < sText.size())
    {
        const size_t posEnd = sText.find(L"\r\n", pos);
        if (posEnd == std::wstring::npos)
        {
            vLines.push_back(sText.substr(pos)); // an unterminated last line shows up as such
            break;
        }
        vLines.push_back(sText.substr(pos, posEnd - pos));
        pos = posEnd + 2;
    }
    return vLines;
}

std::optional<CTraceLine> ParseTraceLine(const std::wstring& sLine)
{
    static const std::wregex kPrefix(
        LR"(^(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}\]):([0-9a-fA-F]{4,8})(:\[[EWIV]\]: )?(.*)$)");
    std::wsmatch m;
    if (!std::regex_match(sLine, m, kPrefix))
        return std::nullopt;
    CTraceLine line;
    line.sTimestamp = m[1];
    line.uiThreadId = static_cast<uint32_t>(std::stoul(m[2].str(), nullptr, 16));
    line.sMarker = m[3];
    line.sText = m[4];
    return line;
}

std::vector<std::wstring> TextsWithMarker(const std::vector<std::wstring>& vLines,
                                          const std::wstring& sMarker)
{
    std::vector<std::wstring> vTexts;
    for (const std::wstring& sLine : vLines)
    {
        const auto line = ParseTraceLine(sLine);
        if (line && line->sMarker == sMarker)
            vTexts.push_back(line->sText);
    }
    return vTexts;
}

bool HasText(const std::vector<std::wstring>& vLines, const std::wstring& sText)
{
    for (const std::wstring& sLine : vLines)
    {
        const auto line = ParseTraceLine(sLine);
        if (line && line->sText == sText)
            return true;
    }
    return false;
}

} // namespace kefltest
