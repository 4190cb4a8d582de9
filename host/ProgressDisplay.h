#pragma once
// The progress of a restore as the host shows it: a bar with percentage, bytes and rate, drawn
// again at most a few times a second (and once at the end), whatever rate the client reports at.
#include "VESK.h"

#include <windows.h>

#include <cstdint>
#include <string>

namespace keflhost
{

class CProgressDisplay
{
public:
    // The progress callback; ullContext is the display.
    static int32_t OnProgress(const morvane::ProgMsg* pMsg, uint64_t ullContext);
    // Draws the last state once more and ends the line of a filespace.
    void Finish();
    // Whether a link pass ended with links that were not made.
    bool LinksFailed() const { return m_bLinksFailed; }

    // "[#######.............]  35%   12.3 MiB of 35.0 MiB   4.1 MiB/s"
    static std::wstring Bar(uint64_t ullDone, uint64_t ullTotal, double dSecondsElapsed);
    static std::wstring Bytes(uint64_t ullBytes);

private:
    void Show(const morvane::ProgMsg& msg);
    void ShowLinkPass(const morvane::ProgMsg& msg);
    void Draw();

    std::wstring m_sPath;
    uint64_t m_ullBytesDone = 0;
    uint64_t m_ullTotal = 0;
    ULONGLONG m_ullStartTick = 0;
    ULONGLONG m_ullLastDrawTick = 0;
    bool m_bDrawn = false;
    bool m_bLinksFailed = false;
};

} // namespace keflhost
