#include "keflhost/ProgressDisplay.h"

#include "platform/FormatText.h"

#include <algorithm>
#include <cmath>

namespace keflhost
{
namespace
{

// A console redraws one line: a few times a second reads as live. A log gets a line now and then:
// an hour's restore in 360 lines, not in one per read of 64 KiB.
constexpr uint64_t kConsoleIntervalMs = 250;
constexpr uint64_t kLogIntervalMs = 10000;

} // namespace

CProgressDisplay::CProgressDisplay(COutputSink& output, Clock clock)
    : m_output(output), m_clock(std::move(clock))
{
}

void CProgressDisplay::Show(const morvane::ProgMsg& msg)
{
    if (!msg.sTitle.empty()) // a link pass: a title, a detail, counts instead of bytes
    {
        if (msg.uiState == morvane::PROG_STATE_TEXT && !msg.sText.empty())
            m_output.Line(msg.sText);
        return;
    }
    switch (msg.uiState)
    {
    case morvane::PROG_STATE_STARTING:
        Begin(L"Restoring " + msg.sPath);
        break;
    case morvane::PROG_STATE_FAILED:
        m_output.Line(L"  the files to restore could not be counted");
        break;
    default:
        // The record keeps its text (and state) while the bytes move on: a text is new once.
        if (msg.uiState == morvane::PROG_STATE_TEXT && !msg.sText.empty() && msg.sText != m_sText)
            m_output.Line(L"  " + msg.sText);
        m_sText = msg.sText;
        Update(msg.ullBytesDone, msg.ullTotal);
        break;
    }
}

void CProgressDisplay::Begin(const std::wstring& sTitle)
{
    m_output.Line(sTitle);
    m_sText.clear();
    m_sLastLine.clear();
    m_bOpen = true;
    m_ullDone = 0;
    m_ullTotal = 0;
    m_ullStartMs = m_ullLastDrawMs = m_clock();
}

void CProgressDisplay::Update(uint64_t ullDone, uint64_t ullTotal)
{
    m_ullDone = ullDone;
    m_ullTotal = ullTotal;
    const uint64_t ullNow = m_clock();
    if (m_ullTotal != 0 &&
        ullNow - m_ullLastDrawMs >= (m_output.IsConsole() ? kConsoleIntervalMs : kLogIntervalMs))
    {
        m_ullLastDrawMs = ullNow;
        Draw(false);
    }
}

CProgressDisplay::CTaskTotals CProgressDisplay::Finish()
{
    if (!m_bOpen)
        return {};
    // A log that has just had this very line does not get it twice.
    if (m_output.IsConsole() || m_sLastLine != Line())
        Draw(true);
    m_bOpen = false;
    return {m_ullDone, static_cast<double>(m_clock() - m_ullStartMs) / 1000.0};
}

std::wstring CProgressDisplay::Line() const
{
    return L"  " + Bar(m_ullDone, m_ullTotal, m_clock() - m_ullStartMs);
}

void CProgressDisplay::Draw(bool bFinal)
{
    if (m_output.IsConsole() && !bFinal)
        m_output.Status(Line());
    else
        m_output.Line(m_sLastLine = Line());
}

std::wstring CProgressDisplay::Bytes(uint64_t ullBytes)
{
    static const struct
    {
        double dUnit;
        const wchar_t* pwszFormat;
    } kUnits[] = {
        {1024.0 * 1024.0 * 1024.0, L"%.2f GiB"}, {1024.0 * 1024.0, L"%.1f MiB"}, {1024.0, L"%.1f KiB"}};
    const auto dBytes = static_cast<double>(ullBytes);
    wchar_t wsz[32];
    for (const auto& unit : kUnits)
    {
        if (dBytes >= unit.dUnit)
        {
            (void)morvane::FormatInto(wsz, unit.pwszFormat, dBytes / unit.dUnit); // 18 digits at most
            return wsz;
        }
    }
    return std::to_wstring(ullBytes) + L" B";
}

std::wstring CProgressDisplay::Duration(uint64_t ullSeconds)
{
    wchar_t wsz[32];
    const auto uiSeconds = static_cast<unsigned>(ullSeconds % 60);
    const auto uiMinutes = static_cast<unsigned>(ullSeconds / 60 % 60);
    if (ullSeconds >= 3600) // 31 characters hold every count of hours
        (void)morvane::FormatInto(wsz, L"%llu:%02u:%02u", static_cast<unsigned long long>(ullSeconds / 3600),
                                  uiMinutes, uiSeconds);
    else
        (void)morvane::FormatInto(wsz, L"%u:%02u", uiMinutes, uiSeconds);
    return wsz;
}

std::wstring CProgressDisplay::Bar(uint64_t ullDone, uint64_t ullTotal, uint64_t ullElapsedMs)
{
    constexpr int kWidth = 20;
    // The library raises its total as it meets what its count did not see; should it not, the
    // bar still never shows more done than there is.
    ullTotal = std::max(ullTotal, ullDone);
    const double dShare = ullTotal == 0 ? 1.0 : static_cast<double>(ullDone) / static_cast<double>(ullTotal);
    const int iFilled = static_cast<int>(dShare * kWidth);
    const std::wstring sPercent = std::to_wstring(static_cast<int>(dShare * 100.0));
    std::wstring sBar = L"[" + std::wstring(iFilled, L'#') + std::wstring(kWidth - iFilled, L'.') + L"] " +
                        std::wstring(3 - std::min<size_t>(3, sPercent.size()), L' ') + sPercent + L"%  " +
                        Bytes(ullDone) + L" of " + Bytes(ullTotal);
    const uint64_t ullSeconds = ullElapsedMs / 1000;
    if (ullElapsedMs > 0)
        sBar += L"  " + Bytes(ullDone * 1000 / ullElapsedMs) + L"/s";
    sBar += L"  " + Duration(ullSeconds) + L" elapsed";
    // Time left at the rate so far; nothing to say before anything is done, or once all is.
    if (ullDone > 0 && ullDone < ullTotal)
    {
        const double dLeftMs = static_cast<double>(ullElapsedMs) * static_cast<double>(ullTotal - ullDone) /
                               static_cast<double>(ullDone);
        sBar += L"  " + Duration(static_cast<uint64_t>(std::llround(dLeftMs / 1000.0))) + L" left";
    }
    return sBar;
}

} // namespace keflhost
