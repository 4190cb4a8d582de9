#pragma once
// The progress of a restore as the host shows it. On a console one status line is redrawn in
// place (a few times a second at most); when output goes to a pipe or file, a plain line at most
// every 10 seconds. Either way a last line ends each filespace or task. The clock is passed in so
// that the drawing can be tested without waiting.
#include "VESK.h"
#include "keflhost/HostOutput.h"

#include <cstdint>
#include <functional>
#include <string>

namespace keflhost
{

class CProgressDisplay
{
public:
    using Clock = std::function<uint64_t()>; // milliseconds

    explicit CProgressDisplay(COutputSink& output, Clock clock = &::GetTickCount64);

    void Show(const morvane::ProgMsg& msg);

    // A task of the host's own (the verification) drawn the same way.
    void Begin(const std::wstring& sTitle);
    void Update(uint64_t ullDone, uint64_t ullTotal);
    // Ends the task: its last state as a line of its own. Answers what it did: nothing when no
    // task had begun (a filespace refused before its restore started).
    struct CTaskTotals
    {
        uint64_t ullBytes = 0;
        double dSeconds = 0;
    };
    CTaskTotals Finish();

    // "[#######.............]  35%  12.3 MiB of 35.0 MiB  4.1 MiB/s  0:12 elapsed  0:23 left"
    static std::wstring Bar(uint64_t ullDone, uint64_t ullTotal, uint64_t ullElapsedMs);
    static std::wstring Bytes(uint64_t ullBytes);
    static std::wstring Duration(uint64_t ullSeconds);

private:
    void Draw(bool bFinal);
    std::wstring Line() const;

    COutputSink& m_output;
    Clock m_clock;
    bool m_bOpen = false;
    std::wstring m_sText;
    std::wstring m_sLastLine;
    uint64_t m_ullDone = 0;
    uint64_t m_ullTotal = 0;
    uint64_t m_ullStartMs = 0;
    uint64_t m_ullLastDrawMs = 0;
};

} // namespace keflhost
