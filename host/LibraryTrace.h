#pragma once
// What the library's own trace says about this run: the files, folders and links it could not
// restore, each with the path its error lines name and the Windows error they carry, and the
// counts of its walk. The host reads the trace from where the library writes it (the host's
// folder's Logfiles, or where qtx.ini moves it), from the size it had when a step began.
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
    // Why functions gave up, as their failed-exit lines say, with the error traced before: the
    // first 100, for a step that failed as a whole (a session that could not start).
    std::vector<std::wstring> vGaveUp;
};

// Reads lines of the library's trace, in the order they were written, in pieces of cbPiece bytes
// as a file is read.
CTraceFindings ParseTrace(std::string_view sUtf8, size_t cbPiece = 65536);

class CLibraryTrace
{
public:
    CLibraryTrace();
    const std::wstring& Path() const { return m_sPath; }
    // The trace's size now: where the next step's lines begin.
    uint64_t Size() const;
    CTraceFindings ReadFrom(uint64_t ullOffset) const;

private:
    std::wstring m_sPath;
};

std::wstring KindName(FailureKind kind);
// "error 32: The process cannot access the file because it is being used by another process."
std::wstring ErrorText(DWORD dwError);
// One line for the screen: path, error and the library's reason.
std::wstring DescribeFailure(const CFailure& failure);

} // namespace keflhost
