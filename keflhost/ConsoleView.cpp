#include "keflhost/ConsoleView.h"

#include "platform/FormatText.h"
#include "protocol/Filespaces.h"

#include <type_traits>

namespace keflhost
{
namespace
{

// The screen shows this many failures or differences in each list; the report has them all.
constexpr size_t kShownOnScreen = 20;

// "1 file", "2 files".
std::wstring Count(uint64_t ullCount, const wchar_t* pwszOne, const wchar_t* pwszMany)
{
    return std::to_wstring(ullCount) + L" " + (ullCount == 1 ? pwszOne : pwszMany);
}

const wchar_t* SeverityName(uint32_t uiSeverity)
{
    return uiSeverity == morvane::MSG_SEVERITY_ERROR     ? L"error"
           : uiSeverity == morvane::MSG_SEVERITY_WARNING ? L"warning"
                                                         : L"info";
}

} // namespace

void CConsoleView::Show(const CEvent& event, const CRunRecord& record)
{
    std::visit(
        [&](const auto& e)
        {
            using T = std::decay_t<decltype(e)>;
            if constexpr (std::is_same_v<T, HelloEvent>)
                ShowHello(e);
            else if constexpr (std::is_same_v<T, LineEvent>)
                Line(e.sText);
            else if constexpr (std::is_same_v<T, MessageEvent>)
                Line(std::wstring(L"[") + SeverityName(e.uiSeverity) + L"] " + e.sText);
            else if constexpr (std::is_same_v<T, NotStartedEvent>)
                ShowNotStarted(record);
            else if constexpr (std::is_same_v<T, FilespacesEvent>)
                ShowFilespaces(e);
            else if constexpr (std::is_same_v<T, ProgressEvent>)
                m_display.Show(e.progress);
            else if constexpr (std::is_same_v<T, RestoredEvent>)
                ShowFilespaceEnded(e, record.vFilespaces.back());
            else if constexpr (std::is_same_v<T, NotInBackupEvent>)
                Line(L"keflhost: the backup holds no filespace " + e.sName);
        },
        event);
}

void CConsoleView::ShowHello(const HelloEvent& hello)
{
    if (hello.sDescription)
        Line(L"Description:   " + *hello.sDescription);
    if (hello.sVersion)
        Line(L"Version:       " + *hello.sVersion);
    if (!hello.vCapabilities.empty())
        Line(L"Capabilities:");
    for (const CCapability& capability : hello.vCapabilities)
        Line(std::wstring(L"  ") + (capability.bYes ? L"yes  " : L"no   ") + capability.sName);
    if (hello.bWine)
        Line(L"Running under Wine: backup streams, volume paths, the network provider and a console are "
             L"stood in; junctions and symbolic links are recorded, not made.");
}

void CConsoleView::ShowFilespaces(const FilespacesEvent& filespaces)
{
    if (filespaces.vFilespaces.empty())
    {
        Line(L"keflhost: the backup holds no filespaces (no drive folder, no mount point)");
        return;
    }
    Line(L"Filespaces:");
    for (const morvane::Filespace& fs : filespaces.vFilespaces)
        Line(L"  " + FilespaceName(fs) + L"   " + fs.sFsPath + L"   [" + DescribeFlags(fs.dwFsFlags) + L"]   " +
             DescribeTime(fs));
}

// A session that could not start or list: why, and what the library's trace says of it.
void CConsoleView::ShowNotStarted(const CRunRecord& record)
{
    Line(L"keflhost: " + record.sNotStarted);
    ShowSome(L"  the library's trace (" + m_sTracePath + L") says:", record.vNotStartedTrace,
             record.vNotStartedTrace.size());
}

void CConsoleView::ShowFilespaceEnded(const RestoredEvent& restored, const CFilespaceRecord& entry)
{
    m_display.Finish();
    if (!restored.bRestored)
    {
        if (!restored.sError.empty())
            Line(L"keflhost: " + entry.sName + L" was not restored completely: " + restored.sError);
        if (entry.vFailures.empty() && entry.sFailuresIncomplete.empty())
            Line(L"  the library's trace (" + m_sTracePath + L") names no file that failed: is its trace level 0?");
    }
    ShowFailures(L"  files and folders not restored on " + entry.sName + L" (" +
                     std::to_wstring(entry.vFailures.size()) + L")",
                 entry.vFailures);
    if (!entry.sFailuresIncomplete.empty())
        Line(L"  " + entry.sFailuresIncomplete);
}

void CConsoleView::ShowStall(const CStall& stall)
{
    Line(L"keflhost: no progress for " +
         (stall.ullSeconds < 60 ? Count(stall.ullSeconds, L"second", L"seconds")
                                : Count(stall.ullSeconds / 60, L"minute", L"minutes")) +
         L" while restoring " + stall.sFilespace +
         (stall.sLastNamed.empty() ? L"; the trace names no file yet"
                                   : L"; the last file the trace names: " + stall.sLastNamed));
}

void CConsoleView::ShowCutShort(const CCutShortAt& at, const CRunRecord& record)
{
    std::wstring sAt;
    switch (at.step)
    {
    case CCutShortAt::Step::BeforeFirstFilespace:
        sAt = L"before its first filespace";
        break;
    case CCutShortAt::Step::Filespace:
    {
        const morvane::ProgMsg& last = at.lastProgress;
        sAt = L"while restoring " + at.sFilespace + L", after " +
              Count(last.ullDone, L"file or folder", L"files and folders") + L" and " +
              CProgressDisplay::Bytes(last.ullBytesDone) + L" of " + CProgressDisplay::Bytes(last.ullTotal);
        m_display.Finish();
        const CFilespaceRecord& entry = record.vFilespaces.back();
        ShowFailures(L"  files and folders not restored on " + entry.sName + L" (" +
                         std::to_wstring(entry.vFailures.size()) + L")",
                     entry.vFailures);
        if (!entry.sFailuresIncomplete.empty())
            Line(L"  " + entry.sFailuresIncomplete);
        break;
    }
    case CCutShortAt::Step::Links:
        sAt = L"while making the links";
        break;
    case CCutShortAt::Step::BetweenSteps:
        sAt = L"between two steps";
        break;
    }
    Line(L"keflhost: the restore was cut short " + sAt + L": " + record.sCutShort);
    Line(L"  running keflhost again over the same target restores what is missing");
}

void CConsoleView::ShowEndedAfterWork(const CRunRecord& record)
{
    Line(L"keflhost: the restore process ended after its work: " + record.sEndedAfterWork);
}

void CConsoleView::BeginVerifying(const std::wstring& sFilespace)
{
    m_display.Begin(L"Verifying " + sFilespace + L" against the backup");
}

void CConsoleView::ShowVerified(const CFilespaceRecord& entry)
{
    m_display.Finish();
    ShowDifferences(L"  differences on " + entry.sName + L" (" +
                        std::to_wstring(entry.verification.vDifferences.size()) + L")",
                    entry.verification.vDifferences);
}

void CConsoleView::ShowSome(const std::wstring& sHeading, const std::vector<std::wstring>& vLines, size_t cAll)
{
    if (cAll == 0)
        return;
    Line(sHeading);
    for (size_t i = 0; i < vLines.size() && i < kShownOnScreen; ++i)
        Line(L"    " + vLines[i]);
    if (cAll > kShownOnScreen)
        Line(L"    ... and " + std::to_wstring(cAll - kShownOnScreen) + L" more" +
             (m_bReport ? L", all of them in the report" : L" (--report FILE lists them all)"));
}

void CConsoleView::ShowFailures(const std::wstring& sHeading, const std::vector<CFailure>& vFailures)
{
    std::vector<std::wstring> vLines;
    for (size_t i = 0; i < vFailures.size() && i < kShownOnScreen; ++i)
        vLines.push_back(DescribeFailure(vFailures[i]));
    ShowSome(sHeading, vLines, vFailures.size());
}

void CConsoleView::ShowDifferences(const std::wstring& sHeading, const std::vector<CDifference>& vDifferences)
{
    std::vector<std::wstring> vLines;
    for (size_t i = 0; i < vDifferences.size() && i < kShownOnScreen; ++i)
        vLines.push_back(vDifferences[i].sPath + L": " + vDifferences[i].sWhat);
    ShowSome(sHeading, vLines, vDifferences.size());
}

std::wstring DescribeFlags(uint32_t dwFsFlags)
{
    std::wstring sFlags;
    auto add = [&](const wchar_t* pwsz) { sFlags += (sFlags.empty() ? L"" : L" ") + std::wstring(pwsz); };
    const bool bBoot = (dwFsFlags & morvane::kFsFlagBoot) == morvane::kFsFlagBoot;
    const bool bSystem = (dwFsFlags & morvane::kFsFlagSystem) == morvane::kFsFlagSystem;
    if (bBoot)
        add(L"BOOT");
    if (bSystem)
        add(L"SYSTEM");
    // 0x2 alone marks the drive that carried the configuration; on BOOT it cannot be told apart.
    if ((dwFsFlags & morvane::kFsFlagConfig) && !bBoot)
        add(L"CONFIG");
    if (dwFsFlags & morvane::kFsFlagMountPoint)
        add(L"MOUNT");
    return sFlags;
}

std::wstring DescribeTime(const morvane::Filespace& fs)
{
    if (!fs.bFsTimeValid)
        return L"-";
    wchar_t wsz[32];
    (void)morvane::FormatInto(wsz, L"%04u-%02u-%02u %02u:%02u:%02u UTC", fs.stFsTime.wYear, fs.stFsTime.wMonth,
                              fs.stFsTime.wDay, fs.stFsTime.wHour, fs.stFsTime.wMinute,
                              fs.stFsTime.wSecond); // 31 characters at most
    return wsz;
}

} // namespace keflhost
