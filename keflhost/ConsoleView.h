#pragma once
// All that keflhost prints of a run: the library's messages and lines, the progress, each
// filespace's failures as the model recorded them, a stall, how the restore process ended, the
// verification and the summary. It decides nothing: what it shows comes from the event and the
// run's record.
#include "keflhost/HostOutput.h"
#include "keflhost/ProgressDisplay.h"
#include "keflhost/RunModel.h"

#include <string>

namespace keflhost
{

class CConsoleView
{
public:
    // bReport: a report is written, which lists what the screen shortens. sTracePath: the
    // library's trace, named where the screen sends the reader to it.
    CConsoleView(COutputSink& output, CProgressDisplay& display, bool bReport, std::wstring sTracePath)
        : m_output(output), m_display(display), m_bReport(bReport), m_sTracePath(std::move(sTracePath))
    {
    }

    // The event, once the model has applied it to the record.
    void Show(const CEvent& event, const CRunRecord& record);
    void ShowStall(const CStall& stall);
    void ShowCutShort(const CCutShortAt& at, const CRunRecord& record);
    void ShowEndedAfterWork(const CRunRecord& record);

    void BeginVerifying(const std::wstring& sFilespace);
    void VerifyProgress(uint64_t ullDone, uint64_t ullTotal) { m_display.Update(ullDone, ullTotal); }
    void ShowVerified(const CFilespaceRecord& entry);

    // The end of the run: what was restored, made and verified.
    void ShowSummary(const CRunRecord& record, bool bVerify);

private:
    void Line(const std::wstring& sText) { m_output.Line(sText); }
    void ShowHello(const HelloEvent& hello);
    void ShowFilespaces(const FilespacesEvent& filespaces);
    void ShowNotStarted(const CRunRecord& record);
    void ShowFilespaceEnded(const RestoredEvent& restored, const CFilespaceRecord& entry);
    void ShowFailures(const std::wstring& sHeading, const std::vector<CFailure>& vFailures);
    void ShowDifferences(const std::wstring& sHeading, const std::vector<CDifference>& vDifferences);
    // The first lines of a list of cAll, and how many more there are.
    void ShowSome(const std::wstring& sHeading, const std::vector<std::wstring>& vLines, size_t cAll);
    void ShowLinks(const CRunRecord& record);

    COutputSink& m_output;
    CProgressDisplay& m_display;
    const bool m_bReport;
    const std::wstring m_sTracePath;
};

// "E:  2999 of 3000 files and 12 of 12 folders came back; 1 file and 0 folders did not".
std::wstring DescribeFilespace(const CFilespaceRecord& fs);
// "junctions 3 of 3, symbolic links 1 of 1, hard links 0 of 2 (2 failed)"
std::wstring DescribeLinks(const CLinkPasses& passes);
// "BOOT SYSTEM" and the like, from a filespace's flags.
std::wstring DescribeFlags(uint32_t dwFsFlags);
// "2015-11-05 14:03:09 UTC", or "-" without a time.
std::wstring DescribeTime(const morvane::Filespace& fs);

} // namespace keflhost
