#include "support/TraceLog.h"

#include "support/RecoveryEnvironment.h"

#include <windows.h>

#include <algorithm>
#include <regex>

namespace kefltest
{

std::vector<std::wstring> ReadLogLines(const std::wstring& sPath)
{
    const std::string sBytes = FileExists(sPath) ? ReadBytes(sPath) : std::string();
    std::wstring sText(sBytes.size(), L'\0');
    const int cch = ::MultiByteToWideChar(CP_UTF8, 0, sBytes.data(), static_cast<int>(sBytes.size()),
                                          sText.data(), static_cast<int>(sText.size()));
    sText.resize(std::max(cch, 0));
    std::vector<std::wstring> vLines; // an unterminated last line shows up as such
    for (size_t pos = 0, posEnd = 0; pos < sText.size(); pos = posEnd + 2)
    {
        posEnd = std::min(sText.find(L"\r\n", pos), sText.size());
        vLines.push_back(sText.substr(pos, posEnd - pos));
    }
    return vLines;
}

std::optional<CTraceLine> ParseTraceLine(const std::wstring& sLine)
{
    // Only the prefix goes through the pattern: libstdc++'s matcher recurses once per character,
    // and a line of thousands of characters takes a 1 MiB stack with it (clang's frames first).
    static const std::wregex kPrefix(
        LR"(^\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}\]:([0-9a-fA-F]{4,8})(:\[[EWIV]\]: )?)");
    const std::wstring sHead = sLine.substr(0, 40); // the longest prefix: 8 digits of thread id and a marker
    std::wsmatch m;
    if (!std::regex_search(sHead, m, kPrefix))
        return std::nullopt;
    return CTraceLine{static_cast<uint32_t>(std::stoul(m[1].str(), nullptr, 16)), m[2],
                      sLine.substr(static_cast<size_t>(m.length(0)))};
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
    return std::ranges::any_of(vLines, [&](const std::wstring& sLine)
                               { return ParseTraceLine(sLine).value_or(CTraceLine{}).sText == sText; });
}

CLogHolder::CLogHolder(const wchar_t* pwszFile, bool bDies)
    : m_thread(
          [this, sName = std::wstring(pwszFile), bDies]
          {
              const morvane::CUniqueHandle hMutex(::CreateMutexW(nullptr, FALSE, sName.c_str()));
              ::WaitForSingleObject(hMutex.get(), INFINITE);
              ::SetEvent(m_hHeld.get());
              if (bDies)
                  return;
              ::WaitForSingleObject(m_hRelease.get(), INFINITE);
              ::ReleaseMutex(hMutex.get());
          })
{
    ::WaitForSingleObject(m_hHeld.get(), INFINITE);
    if (bDies)
        m_thread.join();
}

void CLogHolder::Release()
{
    if (!m_thread.joinable())
        return;
    ::SetEvent(m_hRelease.get());
    m_thread.join();
}

} // namespace kefltest
