#pragma once
// What one run of the host did, as the summary, the report and the exit status tell it.
#include "keflhost/LibraryTrace.h"
#include "keflhost/RestoreVerify.h"

#include <array>
#include <string>
#include <vector>

namespace keflhost
{

// Exit status: 0 when everything was restored (and verified, when asked); otherwise the bits of
// what went wrong, which combine. Nothing could start is a value of its own.
constexpr int kExitOk = 0;
constexpr int kExitNotStarted = 1;  // the library, the arguments, the credentials or the session
constexpr int kExitFilesFailed = 2; // a file, folder or filespace was not restored
constexpr int kExitLinksFailed = 4; // a junction, symbolic link or hard link was not made
constexpr int kExitDifferences = 8; // the verification found a restored file unlike its backup
constexpr int kExitCutShort = 16;   // the restore process ended before the restore did

// One pass of the link restore: the links the backup recorded, those done, those that failed.
struct CLinkPass
{
    uint64_t ullTotal = 0;
    uint64_t ullDone = 0;
    uint64_t ullFailed = 0;
};
// Junctions, symbolic links, hard links: the library's order.
using CLinkPasses = std::array<CLinkPass, 3>;

enum class FilespaceOutcome
{
    Restored,
    Failed,      // the library's restore of it ended, not every file came back
    CutShort,    // the restore process ended in the middle of it
    NotInBackup, // asked for, and the backup does not hold it
};

struct CFilespaceRecord
{
    std::wstring sName; // "E:" or the mount point's folder
    std::wstring sPath;
    FilespaceOutcome outcome = FilespaceOutcome::Restored;
    uint64_t ullFiles = 0;   // in the backup, as the walk counted them
    uint64_t ullFolders = 0;
    uint64_t ullSkippedFiles = 0; // of those, left out by rule
    uint64_t ullSkippedFolders = 0;
    uint64_t ullDone = 0; // files and folders done, when the restore was cut short
    uint64_t ullKept = 0; // files an earlier run restored whole, kept (--resume)
    uint64_t ullBytes = 0;
    double dSeconds = 0;
    std::vector<CFailure> vFailures;
    std::wstring sFailuresIncomplete; // why vFailures may not name every failure; empty: it does
    bool bVerified = false;
    CVerification verification;
};

struct CRunRecord
{
    std::wstring sDescription;
    std::wstring sVersion;
    std::wstring sLocation;
    std::wstring sPointInTime; // empty: the latest backup
    bool bRestoreBegan = false; // the first filespace's restore was asked for
    std::vector<CFilespaceRecord> vFilespaces;
    bool bLinksRestored = false;
    bool bLinksRecordedOnly = false; // under Wine: junctions and symbolic links recorded, not made
    CLinkPasses links;
    std::vector<CFailure> vLinkFailures;
    std::wstring sLinkFailuresIncomplete;
    bool bLinksFailed = false;
    std::wstring sNotStarted;                   // why nothing could start, when nothing did
    std::vector<std::wstring> vNotStartedTrace; // and what the library's trace says of it
    std::wstring sStopped;                      // the error that ended the run after it began
    std::wstring sCutShort; // how the restore process ended before the restore did
    std::wstring sEndedAfterWork; // how it ended badly after the link pass (in Fini, at unload)
    bool bResumed = false;  // --resume: files an earlier run restored whole were kept
    bool bVerifyStopped = false; // the user stopped the verification before its end
    bool bNotStarted = false;    // the session could not start or list, or listed no filespaces
    // Under Wine: the junctions and symbolic links the stand-ins recorded ("junction", link, target).
    std::vector<std::array<std::wstring, 3>> vRecordedLinks;
    int iExitStatus = kExitOk;
};

// "restored", "failed", "cut short", "not in the backup": the words of the report.
const wchar_t* OutcomeName(FilespaceOutcome outcome);
// The exit status's bits for what the record knows to have failed so far.
int KnownStatus(const CRunRecord& record) noexcept;
// The exit status of a run that an error of the host's own ended: 1 (nothing could start) before
// the first filespace's restore began; after that 2 (what was not done is not restored) with the
// bits of what the record already knows to have failed.
int StoppedStatus(const CRunRecord& record) noexcept;

} // namespace keflhost
