#pragma once
// Reading a trace log back: its lines, split into prefix parts where they have one.
#include "platform/UniqueHandle.h"

#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kefltest
{

// The lines of a UTF-8 trace log, without their line ends; empty when the file is missing.
std::vector<std::wstring> ReadLogLines(const std::wstring& sPath);

struct CTraceLine
{
    uint32_t uiThreadId = 0;
    std::wstring sMarker; // ":[I]: " etc., empty for a line without marker
    std::wstring sText;   // what follows the marker
};
// Splits a line with a prefix; nothing when the line does not have the prefix's form.
std::optional<CTraceLine> ParseTraceLine(const std::wstring& sLine);
// A line of the banner that each client writes as it is made (its version, boxed in stars).
inline bool IsBannerLine(const std::wstring& sLine)
{
    return sLine.empty() || sLine.starts_with(L"**");
}

// The texts (after the marker) of the lines with the given marker, in order.
std::vector<std::wstring> TextsWithMarker(const std::vector<std::wstring>& vLines,
                                          const std::wstring& sMarker);
// Whether some line's text after its marker equals sText.
bool HasText(const std::vector<std::wstring>& vLines, const std::wstring& sText);

// Another writer of the log named pwszFile, on a thread of its own: holds the log's mutex until
// Release, as a writer stuck in another process would; with bDies it takes the mutex and its
// thread ends without giving it back, as a writer that died.
class CLogHolder
{
public:
    CLogHolder(const wchar_t* pwszFile, bool bDies);
    ~CLogHolder() { Release(); }
    CLogHolder(const CLogHolder&) = delete;
    CLogHolder& operator=(const CLogHolder&) = delete;
    void Release();

private:
    // Windows events: std::binary_semaphore (libstdc++ 12 for mingw) missed a wake-up now and then.
    morvane::CUniqueHandle m_hHeld{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    morvane::CUniqueHandle m_hRelease{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    std::thread m_thread;
};

} // namespace kefltest
