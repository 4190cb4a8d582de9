#include "keflhost/LibraryTrace.h"

#include "platform/ErrorText.h"
#include "trace/TraceWords.h"
#include "platform/UniqueHandle.h"
#include "platform/Utf8.h"

#include <algorithm>
#include <cwchar>
#include <map>
#include <utility>

namespace keflhost
{
namespace
{

namespace words = morvane::words;

// A value line's text after "name = ": quoted text without its quotes, a number as it stands.
std::wstring_view ValueOf(std::wstring_view sText, std::wstring_view sName)
{
    if (sText.substr(0, sName.size()) != sName || sText.substr(sName.size(), 3) != L" = ")
        return {};
    std::wstring_view sValue = sText.substr(sName.size() + 3);
    if (sValue.size() >= 2 && sValue.front() == L'"' && sValue.back() == L'"')
        sValue = sValue.substr(1, sValue.size() - 2);
    return sValue;
}

bool HasValue(std::wstring_view sText, std::wstring_view sName)
{
    return sText.substr(0, sName.size()) == sName && sText.substr(sName.size(), 3) == L" = ";
}

// What one thread's lines have said since its last file, folder or link began, or, at the trace
// levels without information lines, since the last failure or note it closed.
struct CThreadState
{
    std::wstring sPath; // the path of the last error line that named one
    DWORD dwError = 0;
    std::wstring sReason; // the last "ending(...)" reason or failure message
    // The last line was one that a link routine's own Windows error follows.
    bool bLinkErrorNext = false;
    void Clear() { *this = CThreadState(); }
};

struct CFailureLine
{
    const wchar_t* pwszFunction;
    const wchar_t* pwszText;
    FailureKind kind;
};

constexpr size_t kGaveUpKept = 100;

// The lines that close a failure: the restore's and the link passes' own.
const CFailureLine kFailureLines[] = {
    {words::kRestoreFilespace, words::kFileFailed, FailureKind::File},
    {words::kRestoreFilespace, words::kFolderFailed, FailureKind::Folder},
    {words::kCountFiles, words::kListingFailed, FailureKind::Listing},
    {words::kCountFiles, words::kListingCut, FailureKind::Listing},
    {words::kRestoreLinks, words::kJunctionFailed, FailureKind::Junction},
    {words::kRestoreLinks, words::kSymbolicLinkFailed, FailureKind::SymbolicLink},
    {words::kRestoreLinks, words::kHardLinkFailed, FailureKind::HardLink},
};

// The last lines of a note on a file or folder that was restored all the same (its data is there,
// its times or attributes are not). Without information lines between entries, its path, error
// and reason would otherwise pass to the next entry that fails.
const wchar_t* const kNoteEnds[] = {words::kTimesNotSet, words::kAttributesNotSet};

// The link routines trace their own Windows error right after the target of the call that failed
// or right after their reason. Every other error they trace is a note on a link that they go on to
// make (its attributes, its folder's times, the copy it replaces), which must not pass to the next
// link that fails.
bool IsLinkRoutine(std::wstring_view sFunction)
{
    for (const wchar_t* pwszRoutine :
         {words::kCreateJunction, words::kCreateSymbolicLink, words::kCreateHardLink})
        if (sFunction.substr(0, std::wcslen(pwszRoutine)) == pwszRoutine)
            return true;
    return false;
}

// "CTrace::WriteLine : Trace file reached its size limit of ", as the trace's bytes.
const std::string& SizeLimitPrefix()
{
    static const std::string sPrefix =
        morvane::ToUtf8(std::wstring(words::kTraceLimitFunction) + L" : " + words::kTraceLimitReached);
    return sPrefix;
}

// Reads the trace a line at a time: a restore's trace can be hundreds of MiB, and only its error
// lines and a few information lines matter here, so the rest are passed over before any
// conversion.
class CTraceParser
{
public:
    // The trace as it is read, in pieces of any size.
    void Feed(std::string_view sChunk);
    // The end of one file: a line cut there is not continued by the next file.
    void EndOfFile();
    void EarlierLinesLost() { m_findings.bEarlierLinesLost = true; }
    CTraceFindings Finish();

private:
    void Line(std::string_view sLine);
    void ErrorLine(CThreadState& state, std::wstring_view sText);

    std::string m_sPartial; // a line cut by the end of a piece
    CTraceFindings m_findings;
    std::map<std::string, CThreadState, std::less<>> m_states; // by thread id
};

void CTraceParser::Feed(std::string_view sChunk)
{
    for (size_t posEnd; (posEnd = sChunk.find('\n')) != std::string_view::npos;
         sChunk.remove_prefix(posEnd + 1))
    {
        if (m_sPartial.empty())
        {
            Line(sChunk.substr(0, posEnd));
            continue;
        }
        m_sPartial.append(sChunk.substr(0, posEnd));
        Line(m_sPartial);
        m_sPartial.clear();
    }
    m_sPartial.append(sChunk);
}

void CTraceParser::EndOfFile()
{
    Line(m_sPartial);
    m_sPartial.clear();
}

CTraceFindings CTraceParser::Finish()
{
    EndOfFile();
    return std::move(m_findings);
}

void CTraceParser::Line(std::string_view sLine)
{
    if (!sLine.empty() && sLine.back() == '\r')
        sLine.remove_suffix(1);
    // "[2024-03-07 14:02:31.017]:0a3c:[E]: KEFLImpl::RestoreFilespace : sDst = "E:\a""
    const size_t posThread = sLine.find("]:");
    if (sLine.empty() || sLine.front() != '[' || posThread == std::string_view::npos)
        return;
    const size_t posMarker = sLine.find(":[", posThread + 2);
    if (posMarker == std::string_view::npos || sLine.size() < posMarker + 6)
        return;
    const char chLevel = sLine[posMarker + 2];
    const std::string_view sText = sLine.substr(posMarker + 6);
    if (chLevel == 'W')
    {
        if (sText.substr(0, SizeLimitPrefix().size()) == SizeLimitPrefix())
            m_findings.sSizeLimit = morvane::FromUtf8(sText.substr(sText.find(" : ") + 3));
        return;
    }
    // The information lines that matter, told apart by their bytes before any conversion.
    static const std::string sDstValue = morvane::ToUtf8(std::wstring(L" : ") + words::kDst + L" = ");
    static const std::string sLinkValue = morvane::ToUtf8(std::wstring(L" : ") + words::kLink + L" = ");
    static const std::string sWalkValue = morvane::ToUtf8(std::wstring(L" : ") + L"walk.");
    static const std::string sKeptValue = morvane::ToUtf8(std::wstring(L" : ") + words::kKeptUnchanged + L" = ");
    if (chLevel == 'I' && sText.find(sKeptValue) != std::string_view::npos)
    {
        ++m_findings.ullKept;
        return;
    }
    const bool bNamesEntry =
        sText.find(sDstValue) != std::string_view::npos || sText.find(sLinkValue) != std::string_view::npos;
    if (chLevel != 'E' && !(chLevel == 'I' && (bNamesEntry || sText.find(sWalkValue) != std::string_view::npos)))
        return;
    const std::string_view sThread = sLine.substr(posThread + 2, posMarker - posThread - 2);
    auto itState = m_states.find(sThread);
    if (itState == m_states.end())
        itState = m_states.emplace(std::string(sThread), CThreadState()).first;
    const std::wstring sWide = morvane::FromUtf8(sText);
    if (chLevel == 'E')
    {
        ErrorLine(itState->second, sWide);
        return;
    }
    const std::wstring_view sRest = std::wstring_view(sWide).substr(sWide.find(L" : ") + 3);
    // Each file, folder and link begins with its name at information level.
    if (bNamesEntry)
    {
        itState->second.Clear();
        for (const wchar_t* pwszName : {words::kDst, words::kLink})
            if (HasValue(sRest, pwszName))
                m_findings.sLastNamed = ValueOf(sRest, pwszName);
    }
    if (HasValue(sRest, words::kWalkFiles))
    {
        m_findings.bWalkCounted = true;
        m_findings.ullFiles =
            std::wcstoull(std::wstring(ValueOf(sRest, words::kWalkFiles)).c_str(), nullptr, 10);
    }
    else if (HasValue(sRest, words::kWalkFolders))
        m_findings.ullFolders =
            std::wcstoull(std::wstring(ValueOf(sRest, words::kWalkFolders)).c_str(), nullptr, 10);
    else if (HasValue(sRest, words::kWalkSkippedFiles))
        m_findings.ullSkippedFiles =
            std::wcstoull(std::wstring(ValueOf(sRest, words::kWalkSkippedFiles)).c_str(), nullptr, 10);
    else if (HasValue(sRest, words::kWalkSkippedFolders))
        m_findings.ullSkippedFolders =
            std::wcstoull(std::wstring(ValueOf(sRest, words::kWalkSkippedFolders)).c_str(), nullptr, 10);
}

void CTraceParser::ErrorLine(CThreadState& state, std::wstring_view sText)
{
    const size_t posColon = sText.find(L" : ");
    if (posColon == std::wstring_view::npos)
        return;
    const std::wstring_view sRest = sText.substr(posColon + 3);
    if (std::find(std::begin(kNoteEnds), std::end(kNoteEnds), sRest) != std::end(kNoteEnds))
    {
        state.Clear();
        return;
    }
    for (const wchar_t* pwszName : {words::kDst, words::kFolder, words::kLink, words::kJumboLink})
        if (HasValue(sRest, pwszName) &&
            (state.sPath.empty() || std::wstring_view(pwszName) != words::kJumboLink))
            state.sPath = ValueOf(sRest, pwszName);
    const bool bLinkErrorNext = std::exchange(state.bLinkErrorNext, false);
    if (HasValue(sRest, words::kLastError) && (bLinkErrorNext || !IsLinkRoutine(sText.substr(0, posColon))))
        state.dwError = static_cast<DWORD>(
            std::wcstoul(std::wstring(ValueOf(sRest, words::kLastError)).c_str(), nullptr, 10));
    const size_t posEnding = sRest.find(words::kEnding);
    const bool bGivesUp = posEnding != std::wstring_view::npos && sRest.back() == L')';
    state.bLinkErrorNext = bGivesUp || HasValue(sRest, words::kJumboTarget);
    if (bGivesUp && m_findings.vGaveUp.size() < kGaveUpKept)
    {
        const std::wstring sError = morvane::ErrorText(state.dwError);
        m_findings.vGaveUp.push_back(std::wstring(sText.substr(0, posColon)) + L": " +
                                     std::wstring(sRest.substr(posEnding + 7, sRest.size() - posEnding - 8)) +
                                     (sError.empty() ? L"" : L" (" + sError + L")"));
    }
    if (bGivesUp && state.sReason.empty())
        state.sReason = sRest.substr(posEnding + 7, sRest.size() - posEnding - 8);
    else if (sRest.substr(0, 7) == L"Failed " && sRest != words::kFileFailed &&
             sRest != words::kFolderFailed)
        state.sReason = sRest;

    for (const CFailureLine& failureLine : kFailureLines)
    {
        if (sText.substr(0, posColon) != failureLine.pwszFunction || sRest != failureLine.pwszText)
            continue;
        CFailure failure{failureLine.kind, state.sPath, state.dwError, state.sReason};
        // A long-path prefix is how the library calls Windows, not what the user knows.
        if (failure.sPath.rfind(L"\\\\?\\", 0) == 0)
            failure.sPath.erase(0, 4);
        m_findings.vFailures.push_back(std::move(failure));
        state.Clear();
        break;
    }
}

} // namespace

CTraceFindings ParseTrace(std::string_view sUtf8, size_t cbPiece)
{
    CTraceParser parser;
    for (; sUtf8.size() > cbPiece; sUtf8.remove_prefix(cbPiece))
        parser.Feed(sUtf8.substr(0, cbPiece));
    parser.Feed(sUtf8);
    return parser.Finish();
}

CLibraryTrace::CLibraryTrace() : m_sPath(LibraryTracePath())
{
}

namespace
{

// The lines from ullOffset up to ullEnd (at most).
void FeedFrom(HANDLE hFile, uint64_t ullOffset, CTraceParser& parser, uint64_t ullEnd = UINT64_MAX)
{
    LARGE_INTEGER liOffset;
    liOffset.QuadPart = static_cast<LONGLONG>(ullOffset);
    if (!::SetFilePointerEx(hFile, liOffset, nullptr, FILE_BEGIN))
        return;
    char buf[65536];
    uint64_t ullLeft = ullEnd - std::min(ullEnd, ullOffset);
    for (DWORD cbRead = 0; ullLeft > 0 &&
                           ::ReadFile(hFile, buf, static_cast<DWORD>(std::min<uint64_t>(sizeof(buf), ullLeft)),
                                      &cbRead, nullptr) &&
                           cbRead > 0;
         ullLeft -= cbRead)
        parser.Feed(std::string_view(buf, cbRead));
    parser.EndOfFile();
}

} // namespace

CTraceFindings CLibraryTrace::ReadFrom(const CTraceMark& mark, const CTraceMark& end) const
{
    CTraceParser parser;
    const morvane::CUniqueFile hFile = OpenTrace(m_sPath);
    // Another load of the library copies the file to the previous generation and deletes it; the
    // next line starts a new one, shorter or beginning otherwise.
    const bool bStartedAnew = mark.ullOffset > 0 && (!hFile || TraceSize(hFile.get()) < mark.ullOffset ||
                                                     !IsMarkedGeneration(hFile.get(), mark));
    if (bStartedAnew)
    {
        const morvane::CUniqueFile hOld = OpenTrace(PreviousTracePath(m_sPath));
        // Only the generation that was marked: after two loads it has gone.
        if (hOld && IsMarkedGeneration(hOld.get(), mark))
            FeedFrom(hOld.get(), mark.ullOffset, parser);
        else
            parser.EarlierLinesLost();
    }
    // The end, when given, is where the step's lines end in the file as it is now; in a file
    // started anew since (its first bytes differ), it says nothing.
    const bool bEndHere = hFile && !end.sHead.empty() && IsMarkedGeneration(hFile.get(), end);
    if (hFile)
        FeedFrom(hFile.get(), bStartedAnew ? 0 : mark.ullOffset, parser, bEndHere ? end.ullOffset : UINT64_MAX);
    return parser.Finish();
}

std::wstring WhyIncomplete(const CTraceFindings& findings, const std::wstring& sSizeLimit)
{
    const std::wstring& sLimit = findings.sSizeLimit.empty() ? sSizeLimit : findings.sSizeLimit;
    if (!sLimit.empty())
        return L"the library's trace says \"" + sLimit + L"\": failures past that may be missing";
    if (findings.bEarlierLinesLost)
        return L"the library's trace was started anew by another load of KEFL.dll and its earlier lines "
               L"were not found: failures may be missing";
    return L"";
}

std::wstring KindName(FailureKind kind)
{
    // In the order of FailureKind.
    static const wchar_t* const kNames[] = {L"file",     L"folder",        L"backup folder not listed",
                                            L"junction", L"symbolic link", L"hard link"};
    return kNames[static_cast<size_t>(kind)];
}

std::wstring DescribeFailure(const CFailure& failure)
{
    std::wstring sLine =
        KindName(failure.kind) + L" " + (failure.sPath.empty() ? L"(not named)" : failure.sPath);
    const std::wstring sError = morvane::ErrorText(failure.dwError);
    if (!sError.empty())
        sLine += L": " + sError;
    if (!failure.sReason.empty())
        sLine += L" (" + failure.sReason + L")";
    return sLine;
}

} // namespace keflhost
