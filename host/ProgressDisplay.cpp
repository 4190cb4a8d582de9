#include "host/ProgressDisplay.h"

#include "host/HostOutput.h"

#include <cstdio>

namespace keflhost
{
namespace
{

// At most this often a new bar: a progress line per read of 64 KiB would flood the screen.
constexpr ULONGLONG kDrawIntervalMs = 500;

} // namespace

int32_t CProgressDisplay::OnProgress(const morvane::ProgMsg* pMsg, uint64_t ullContext)
{
    auto* pDisplay = reinterpret_cast<CProgressDisplay*>(static_cast<uintptr_t>(ullContext));
    if (pMsg && pDisplay)
        pDisplay->Show(*pMsg);
    return 0;
}

void CProgressDisplay::Show(const morvane::ProgMsg& msg)
{
    if (msg.uiState == morvane::PROG_STATE_STARTING && msg.ullBytesDone == 0 && msg.sPath != m_sPath)
    {
        m_sPath = msg.sPath;
        m_ullStartTick = ::GetTickCount64();
        m_ullLastDrawTick = 0;
        m_bDrawn = false;
        PrintLine(L"Restoring " + msg.sPath);
    }
    if (msg.uiState == morvane::PROG_STATE_FAILED)
        PrintLine(L"  the count of " + msg.sPath + L" failed");
    else if (msg.uiState == morvane::PROG_STATE_TEXT && msg.ullBytesDone == 0 && msg.ullTotal == 0 &&
             !msg.sText.empty())
        PrintLine(L"  " + msg.sText);
    if (!msg.sTitle.empty()) // link restore: a title and a detail, counts instead of bytes
    {
        ShowLinkPass(msg);
        return;
    }
    m_ullBytesDone = msg.ullBytesDone;
    m_ullTotal = msg.ullTotal;
    const ULONGLONG ullNow = ::GetTickCount64();
    if (m_ullTotal != 0 && ullNow - m_ullLastDrawTick >= kDrawIntervalMs)
    {
        m_ullLastDrawTick = ullNow;
        Draw();
    }
}

void CProgressDisplay::ShowLinkPass(const morvane::ProgMsg& msg)
{
    const std::wstring sCount = std::to_wstring(msg.ullDone) + L" of " + std::to_wstring(msg.ullTotal);
    switch (msg.uiState)
    {
    case morvane::PROG_STATE_STARTING:
        PrintLine(msg.sTitle + L": " + std::to_wstring(msg.ullTotal));
        break;
    case morvane::PROG_STATE_TEXT:
        PrintLine(L"  " + msg.sText);
        break;
    case morvane::PROG_STATE_FAILED:
        m_bLinksFailed = true;
        PrintLine(L"  " + sCount + L" done, not all made (an earlier pass may have failed)");
        break;
    case morvane::PROG_STATE_DONE:
        PrintLine(L"  " + sCount + L" done");
        break;
    default: // one per link: too many to show
        break;
    }
}

void CProgressDisplay::Finish()
{
    if (m_ullTotal != 0)
        Draw();
    m_sPath.clear();
    m_ullTotal = 0;
    m_ullBytesDone = 0;
}

void CProgressDisplay::Draw()
{
    m_bDrawn = true;
    PrintLine(L"  " + Bar(m_ullBytesDone, m_ullTotal, (::GetTickCount64() - m_ullStartTick) / 1000.0));
}

std::wstring CProgressDisplay::Bytes(uint64_t ullBytes)
{
    wchar_t wsz[32];
    if (ullBytes < 1024)
        std::swprintf(wsz, 32, L"%u B", static_cast<unsigned>(ullBytes));
    else if (ullBytes < 1024 * 1024)
        std::swprintf(wsz, 32, L"%.1f KiB", ullBytes / 1024.0);
    else if (ullBytes < 1024ull * 1024 * 1024)
        std::swprintf(wsz, 32, L"%.1f MiB", ullBytes / (1024.0 * 1024.0));
    else
        std::swprintf(wsz, 32, L"%.2f GiB", ullBytes / (1024.0 * 1024.0 * 1024.0));
    return wsz;
}

std::wstring CProgressDisplay::Bar(uint64_t ullDone, uint64_t ullTotal, double dSecondsElapsed)
{
    constexpr int kWidth = 20;
    // Bytes read can exceed the count's total (stream headers, a file grown since the count).
    const double dShare =
        ullTotal == 0 ? 1.0 : (ullDone >= ullTotal ? 1.0 : static_cast<double>(ullDone) / ullTotal);
    const int iFilled = static_cast<int>(dShare * kWidth);
    std::wstring sBar = L"[" + std::wstring(iFilled, L'#') + std::wstring(kWidth - iFilled, L'.') + L"]";
    wchar_t wszPercent[8];
    std::swprintf(wszPercent, 8, L"%3d%%", static_cast<int>(dShare * 100.0));
    sBar += L" ";
    sBar += wszPercent;
    sBar += L"   " + Bytes(ullDone) + L" of " + Bytes(ullTotal);
    if (dSecondsElapsed > 0.0)
        sBar += L"   " + Bytes(static_cast<uint64_t>(ullDone / dSecondsElapsed)) + L"/s";
    return sBar;
}

} // namespace keflhost
