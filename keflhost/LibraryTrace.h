#pragma once
// What the library's own trace says about this run: the files, folders and links it could not
// restore, each with the path its error lines name and the Windows error they carry, and the
// counts of its walk. The host reads the trace from where the library writes it (the host's
// folder's Logfiles, or where qtx.ini moves it), from the size it had when a step began; and it
// says when what it read may not name every failure.
#include "protocol/TraceMark.h"

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace keflhost
{

enum class FailureKind
{
    File,    // could not be copied
    Folder,  // could not be made
    Listing, // a backup folder that could not be listed: nothing below it was restored
    Junction,
    SymbolicLink,
    HardLink,
};

struct CFailure
{
    FailureKind kind = FailureKind::File;
    std::wstring sPath;
    DWORD dwError = 0;    // 0: the library named no Windows error
    std::wstring sReason; // the library's reason, e.g. "Failed to open destination file for writing"
};

struct CTraceFindings
{
    std::vector<CFailure> vFailures;
    // The walk's counts, when the trace holds information lines.
    bool bWalkCounted = false;
    uint64_t ullFiles = 0;
    uint64_t ullFolders = 0;
    uint64_t ullSkippedFiles = 0; // of those, left out by rule (the page file, the recycle bins)
    uint64_t ullSkippedFolders = 0;
    uint64_t ullKept = 0; // files an earlier run restored whole, kept as they were
    // The last file, folder or link that an information line named: what a stalled step is at.
    std::wstring sLastNamed;
    // Why functions gave up, as their failed-exit lines say, with the error traced before: the
    // first 100, for a step that failed as a whole (a session that could not start).
    std::vector<std::wstring> vGaveUp;
    // The trace's warning that it reached its size limit ("Trace file reached its size limit of
    // 256 MiB: ..."), when it did: past it only errors and warnings are written, and past twice
    // the limit nothing, so failures may be missing.
    std::wstring sSizeLimit;
    // The trace was started anew since the step began (each load of the library moves the file
    // to KEFL_trace.old) and the lines before that were not found: failures may be missing.
    bool bEarlierLinesLost = false;
};

// Why the failures read may not be all of them, for the screen and the report; empty when
// nothing says so. sSizeLimit is the size-limit warning seen in this step or an earlier one.
std::wstring WhyIncomplete(const CTraceFindings& findings, const std::wstring& sSizeLimit);

// Reads lines of the library's trace, in the order they were written, in pieces of cbPiece bytes
// as a file is read.
CTraceFindings ParseTrace(std::string_view sUtf8, size_t cbPiece = 65536);

// How the run model reads the trace; a test answers for it with what a trace would say.
class ITraceReading
{
public:
    virtual ~ITraceReading() = default;
    // The lines written from the mark on, up to end when it is given.
    virtual CTraceFindings ReadFrom(const CTraceMark& mark, const CTraceMark& end) const = 0;
};

class CLibraryTrace final : public ITraceReading
{
public:
    CLibraryTrace();
    // The trace at sPath (its previous generation beside it, ".old" for its extension).
    explicit CLibraryTrace(std::wstring sPath) : m_sPath(std::move(sPath)) {}
    const std::wstring& Path() const { return m_sPath; }
    // The lines written since the mark (up to end, when given: a step's lines, not the next
    // one's): when the file was started anew since, the rest of the previous generation first,
    // then the new file from its start.
    CTraceFindings ReadFrom(const CTraceMark& mark, const CTraceMark& end) const override;
    CTraceFindings ReadFrom(const CTraceMark& mark) const { return ReadFrom(mark, {}); }

private:
    std::wstring m_sPath;
};

std::wstring KindName(FailureKind kind);
// One line for the screen: path, error and the library's reason.
std::wstring DescribeFailure(const CFailure& failure);

} // namespace keflhost
