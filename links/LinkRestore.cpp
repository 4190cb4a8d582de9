#include "links/LinkRestore.h"

#include "channel/MessageIds.h"
#include "folders/ParentFolders.h"
#include "links/FileNames.h"
#include "links/NameAside.h"
#include "platform/LongPath.h"
#include "platform/UniqueHandle.h"
#include "trace/TraceObjects.h"
#include "trace/TraceWords.h"

#include <shlwapi.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <vector>

namespace morvane
{
namespace
{

// The junction's reparse data: a mount-point reparse buffer, its path buffer holding the
// substitute name "\??\<target>" and the print name "<target>", each ended by a NUL.
constexpr DWORD kReparseTagMountPoint = 0xA0000003;
constexpr DWORD kFsctlSetReparsePoint = 0x900A4;
constexpr size_t kReparseHeaderBytes = 16;    // tag, data length, reserved, two offsets, two lengths
constexpr size_t kReparseHeaderOnlyBytes = 8; // tag, data length, reserved: not in the data length
constexpr size_t kPathBufferChars = 4096;
// Opened for writing the reparse data: the folder itself, not what it may point to.
constexpr DWORD kJunctionOpenFlags = FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS;

bool IsDirectory(const std::wstring& sPath)
{
    return ::PathIsDirectoryW(sPath.c_str()) != FALSE;
}

// Links are made on NTFS only: the file system of the link's drive, from its first character.
bool IsOnNtfs(const std::wstring& sLink)
{
    if (sLink.empty())
        return false;
    const wchar_t wszRoot[] = {sLink[0], L':', L'\\', L'\0'};
    wchar_t wszFileSystem[MAX_PATH + 1] = {};
    if (!::GetVolumeInformationW(wszRoot, nullptr, 0, nullptr, nullptr, nullptr, wszFileSystem, MAX_PATH + 1))
        return false;
    return _wcsicmp(wszFileSystem, L"NTFS") == 0;
}

// Puts the recorded attributes back on a link; a failure is traced and changes no result.
void SetLinkAttributes(const wchar_t* pwszFunction, const std::wstring& sJumboLink, DWORD dwAttr)
{
    if (dwAttr == 0 || ::SetFileAttributesW(sJumboLink.c_str(), dwAttr))
        return;
    const DWORD dwLastError = ::GetLastError();
    g_KeflTrace.TraceValue(TRACE_ERROR, pwszFunction, words::kJumboLink, sJumboLink);
    g_KeflTrace.TraceHex(TRACE_ERROR, pwszFunction, L"dwAttr", dwAttr);
    TraceLastError(pwszFunction, dwLastError, TRACE_ERROR);
}

// The bytes handed to FSCTL_SET_REPARSE_POINT for a junction to sTarget. The path buffer holds
// at most kPathBufferChars characters (cut like a bounded format would cut it); the lengths are
// those of the whole target, and the buffer is never shorter than they say, so that the call
// never reads beyond it.
std::vector<BYTE> JunctionReparseData(const std::wstring& sTarget, DWORD& cbInput)
{
    const size_t cchTarget = sTarget.size();
    const size_t cbSubstitute = (cchTarget + 4) * sizeof(wchar_t);
    const size_t cbPrint = cchTarget * sizeof(wchar_t);
    const uint16_t cbData = static_cast<uint16_t>(cbSubstitute + cbPrint + 12);
    cbInput = static_cast<DWORD>(cbData) + kReparseHeaderOnlyBytes;

    std::vector<BYTE> vBuffer(
        std::max<size_t>(kReparseHeaderBytes + kPathBufferChars * sizeof(wchar_t), cbInput), 0);
    auto put16 = [&](size_t pos, uint16_t us) { std::memcpy(vBuffer.data() + pos, &us, sizeof(us)); };
    const DWORD dwTag = kReparseTagMountPoint;
    std::memcpy(vBuffer.data(), &dwTag, sizeof(dwTag));
    put16(4, cbData);
    put16(6, 0);
    put16(8, 0);                                        // substitute name offset
    put16(10, static_cast<uint16_t>(cbSubstitute));     // substitute name length
    put16(12, static_cast<uint16_t>(cbSubstitute + 2)); // print name offset, after the NUL
    put16(14, static_cast<uint16_t>(cbPrint));          // print name length

    std::wstring sPathBuffer = L"\\??\\" + sTarget;
    sPathBuffer += L'\0';
    sPathBuffer += sTarget;
    sPathBuffer += L'\0';
    const size_t cchCopied = std::min(sPathBuffer.size(), kPathBufferChars);
    std::memcpy(vBuffer.data() + kReparseHeaderBytes, sPathBuffer.data(), cchCopied * sizeof(wchar_t));
    return vBuffer;
}

// A link adds or replaces a name in its folder, which moves the folder's times; the folder was
// restored with its times from the backup and keeps them. Unknown times (no folder yet) stay.
class CFolderTimesKept
{
public:
    CFolderTimesKept(const wchar_t* pwszFunction, const std::wstring& sJumboLink)
        : m_pwszFunction(pwszFunction), m_sFolder(sJumboLink.substr(0, sJumboLink.find_last_of(L'\\')))
    {
        m_bKnown = ::GetFileAttributesExW(m_sFolder.c_str(), GetFileExInfoStandard, &m_data) != FALSE;
    }
    ~CFolderTimesKept()
    {
        if (!m_bKnown)
            return;
        CLastErrorGuard keepError;
        if (SetTimesByPath(m_sFolder, m_data.ftCreationTime, m_data.ftLastAccessTime, m_data.ftLastWriteTime))
            return;
        const DWORD dwLastError = ::GetLastError();
        g_KeflTrace.TraceValue(TRACE_ERROR, m_pwszFunction, words::kFolder, m_sFolder);
        TraceLastError(m_pwszFunction, dwLastError, TRACE_ERROR);
    }
    CFolderTimesKept(const CFolderTimesKept&) = delete;
    CFolderTimesKept& operator=(const CFolderTimesKept&) = delete;

private:
    const wchar_t* m_pwszFunction;
    std::wstring m_sFolder;
    WIN32_FILE_ATTRIBUTE_DATA m_data = {};
    bool m_bKnown = false;
};

// Gives a copy moved aside its own name back, after its link could not be made.
void PutBack(const wchar_t* pwszFunction, CNameAside& aside)
{
    DWORD dwLastError = ERROR_SUCCESS;
    if (aside.PutBack(dwLastError))
        return;
    g_KeflTrace.TraceValue(TRACE_ERROR, pwszFunction, L"sJumboAside", aside.Aside());
    TraceLastError(pwszFunction, dwLastError, TRACE_ERROR);
}

} // namespace

CLinkRestorer::CLinkRestorer(CHostChannel& channel, CreateSymbolicLinkFn pfnCreateSymbolicLinkW,
                             CreateHardLinkFn pfnCreateHardLinkW, const CUnrestoredFiles& unrestored)
    : m_channel(channel), m_pfnCreateSymbolicLinkW(pfnCreateSymbolicLinkW),
      m_pfnCreateHardLinkW(pfnCreateHardLinkW), m_unrestored(unrestored)
{
}

void CLinkRestorer::SendProgress(ProgMsg& progress, uint32_t uiState)
{
    progress.uiState = uiState;
    m_channel.ReportProgress(progress);
}

bool CLinkRestorer::RestoreLinks(const PointList& junctionPoints, const PointList& symbolicLinks,
                                 const PointList& hardLinks)
{
    static const wchar_t* const kFn = words::kRestoreLinks;
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    // One flag for the whole call: once a link failed, no later pass reports success.
    bool bFailed = false;
    RestorePass(LinkKind::Junction, junctionPoints, bFailed);
    RestorePass(LinkKind::Symbolic, symbolicLinks, bFailed);
    RestorePass(LinkKind::Hard, hardLinks, bFailed);
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    // Failed links are the host's to show from the progress; the restore itself goes on.
    return true;
}

void CLinkRestorer::RestorePass(LinkKind kind, const PointList& points, bool& bFailed)
{
    static const wchar_t* const kFn = words::kRestoreLinks;
    struct PassTexts
    {
        const wchar_t* pwszEntry;
        const wchar_t* pwszSizeName;
        const wchar_t* pwszTitle;
        const wchar_t* pwszFailure;
        const wchar_t* pwszSuccess;
    };
    static const PassTexts kJunctions = {
        L"Restoring junctions ...", L"JunctionPoints.size()", L"Junction Points, Soft-Links & Hard-Links",
        words::kJunctionFailed, L"Restored junctions successfully"};
    static const PassTexts kSymbolic = {L"Restoring symbolic links ...", L"SymbolicLinks.size()",
                                        L"Symbolic Links", words::kSymbolicLinkFailed,
                                        L"Restored symbolic links successfully"};
    static const PassTexts kHard = {L"Restoring hard links ...", L"HardLinks.size()", L"Restoring Hard-Links",
                                    words::kHardLinkFailed, L"Restored hard links successfully"};
    const PassTexts& texts = kind == LinkKind::Junction   ? kJunctions
                             : kind == LinkKind::Symbolic ? kSymbolic
                                                          : kHard;

    g_KeflTrace.TraceMessage(TRACE_INFO, kFn, texts.pwszEntry);
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, texts.pwszSizeName, static_cast<int64_t>(points.size()));

    ProgMsg progress{};
    progress.sTitle = texts.pwszTitle;
    progress.ullTotal = points.size();
    SendProgress(progress, PROG_STATE_STARTING);
    if (kind == LinkKind::Junction)
    {
        // The junction pass opens the whole link restore, so its text (message 133, about hard
        // links) stands for all three passes.
        const std::wstring sText = m_channel.Text(IDS_RESTORING_HARD_LINKS);
        if (!sText.empty())
        {
            progress.sText = sText;
            SendProgress(progress, PROG_STATE_TEXT);
        }
    }

    for (const Point& point : points)
    {
        bool bOk = false;
        switch (kind)
        {
        case LinkKind::Junction:
            bOk = CreateJunction(point.sLink, point.sTarget, point.dwAttr);
            break;
        case LinkKind::Symbolic:
            bOk = CreateSymbolicLink(point.sLink, point.sTarget, point.dwAttr);
            break;
        case LinkKind::Hard:
            bOk = CreateHardLink(point.sLink, point.sTarget);
            break;
        }
        if (!bOk)
        {
            // The link's own name at error level: not every reason a link routine gives has
            // one, and a host learns the links that failed from these lines.
            g_KeflTrace.TraceValue(TRACE_ERROR, kFn, words::kLink, point.sLink);
            g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, texts.pwszFailure);
            bFailed = true;
        }
        ++progress.ullDone;
        SendProgress(progress, PROG_STATE_STEP);
    }

    if (bFailed)
    {
        SendProgress(progress, PROG_STATE_FAILED);
        return;
    }
    g_KeflTrace.TraceMessage(TRACE_INFO, kFn, texts.pwszSuccess);
    SendProgress(progress, PROG_STATE_DONE);
}

bool CLinkRestorer::CreateJunction(const std::wstring& sLink, const std::wstring& sTarget, DWORD dwAttr)
{
    static const wchar_t* const kFn = words::kCreateJunction;
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, words::kLink, sLink);
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"sTarget", sTarget);
    const std::wstring sJumboLink = LongPath(sLink);
    const std::wstring sJumboTarget = LongPath(sTarget);

    if (!IsOnNtfs(sLink))
        return TraceFailed(kFn, L"... ending(Link is not on an NTFS filesystem)");

    if (!IsDirectory(sJumboTarget))
    {
        // Only the folders above the target are made: the junction may point at a folder that
        // the restore of its own drive brings back later.
        g_KeflTrace.TraceMessage(TRACE_INFO, kFn, L"Target folder absent, creating it ...");
        if (!CreateParentFolders(sJumboTarget))
            return TraceFailed(kFn, L"... ending(WIBEImpl::CreateParentDir(TGT) failed)");
    }
    if (!CreateParentFolders(sJumboLink))
        return TraceFailed(kFn, L"... ending(WIBEImpl::CreateParentDir(JCT) failed)");
    const CFolderTimesKept folderTimes(kFn, sJumboLink);

    // A folder that already stands where the junction goes is made the junction.
    if (!::CreateDirectoryW(sJumboLink.c_str(), nullptr))
    {
        const DWORD dwLastError = ::GetLastError();
        if (dwLastError != ERROR_ALREADY_EXISTS)
            return TraceFailed(kFn, L"... ending(CreateDirectory(JCT) failed)", dwLastError);
    }

    CUniqueFile hJunction(::CreateFileW(sJumboLink.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                        kJunctionOpenFlags, nullptr));
    if (!hJunction)
    {
        const DWORD dwLastError = ::GetLastError();
        ::RemoveDirectoryW(sJumboLink.c_str());
        return TraceFailed(kFn, L"... ending(CreateFile failed)", dwLastError);
    }

    DWORD cbInput = 0;
    std::vector<BYTE> vReparseData = JunctionReparseData(sTarget, cbInput);
    DWORD cbReturned = 0;
    if (!::DeviceIoControl(hJunction.get(), kFsctlSetReparsePoint, vReparseData.data(), cbInput, nullptr, 0,
                           &cbReturned, nullptr))
    {
        const DWORD dwLastError = ::GetLastError();
        // Closed first: an open handle would keep the folder from being removed.
        hJunction.reset();
        ::RemoveDirectoryW(sJumboLink.c_str());
        return TraceFailed(kFn, L"... ending(DeviceIoControl(FSCTL_SET_REPARSE_POINT) failed)", dwLastError);
    }

    SetLinkAttributes(kFn, sJumboLink, dwAttr);
    hJunction.reset();
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return true;
}

bool CLinkRestorer::PrepareLink(const wchar_t* pwszFunction, bool bAvailable, const wchar_t* pwszUnavailable,
                                const std::wstring& sLink, const std::wstring& sTarget)
{
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, pwszFunction, L"starting ...");
    g_KeflTrace.TraceValue(TRACE_INFO, pwszFunction, words::kLink, sLink);
    g_KeflTrace.TraceValue(TRACE_INFO, pwszFunction, L"sTarget", sTarget);
    if (!bAvailable)
        return TraceFailed(pwszFunction, pwszUnavailable);
    if (!IsOnNtfs(sLink))
        return TraceFailed(pwszFunction, L"... ending(Link is not on an NTFS filesystem)");
    if (!CreateParentFolders(LongPath(sLink)))
        return TraceFailed(pwszFunction, L"... ending(KEFLImpl::CreateParentDir failed)");
    return true;
}

bool CLinkRestorer::CreateSymbolicLink(const std::wstring& sLink, const std::wstring& sTarget, DWORD dwAttr)
{
    static const wchar_t* const kFn = words::kCreateSymbolicLink;
    const std::wstring sJumboLink = LongPath(sLink);
    const std::wstring sJumboTarget = LongPath(sTarget);
    // Asked before anything is made: a missing target gives a link to a file.
    const bool bIsDirectory = IsDirectory(sJumboTarget);
    if (!PrepareLink(kFn, m_pfnCreateSymbolicLinkW != nullptr,
                     L"... ending(CreateSymbolicLink is not available)", sLink, sTarget))
        return false;
    const CFolderTimesKept folderTimes(kFn, sJumboLink);

    if (!m_pfnCreateSymbolicLinkW(sJumboLink.c_str(), sJumboTarget.c_str(),
                                  bIsDirectory ? SYMBOLIC_LINK_FLAG_DIRECTORY : 0))
    {
        const DWORD dwLastError = ::GetLastError();
        // A link that is there already counts as made.
        if (dwLastError != ERROR_ALREADY_EXISTS)
        {
            g_KeflTrace.TraceValue(TRACE_ERROR, kFn, words::kJumboLink, sJumboLink);
            g_KeflTrace.TraceValue(TRACE_ERROR, kFn, words::kJumboTarget, sJumboTarget);
            TraceLastError(kFn, dwLastError, TRACE_ERROR);
            return false;
        }
    }

    SetLinkAttributes(kFn, sJumboLink, dwAttr);
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return true;
}

bool CLinkRestorer::CreateHardLink(const std::wstring& sLink, const std::wstring& sTarget)
{
    static const wchar_t* const kFn = words::kCreateHardLink;
    if (!PrepareLink(kFn, m_pfnCreateHardLinkW != nullptr, L"... ending(CreateHardLink is not available)",
                     sLink, sTarget))
        return false;
    // A target the restore could not copy whole holds no good data: a link to it would take the
    // place of the link's own copy, which may well be whole.
    if (m_unrestored.Contains(sTarget))
        return TraceFailed(kFn, L"... ending(Target was not restored)");
    const std::wstring sJumboLink = LongPath(sLink);
    const std::wstring sJumboTarget = LongPath(sTarget);
    if (IsDirectory(sJumboTarget))
        return TraceFailed(kFn, L"... ending(Target is a directory)");
    // Made by an earlier link pass over the same tree: nothing to do.
    if (IsSameFile(sJumboLink, sJumboTarget))
    {
        g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
        return true;
    }
    const CFolderTimesKept folderTimes(kFn, sJumboLink);

    // The restore brought back a copy of the file under the link's name too; the link replaces it.
    // Only when there is a file to link to: without one, the copy is all that is left of the file.
    // The copy is moved aside, not removed, until the link stands: should the link fail, the copy
    // gets its name back and the file loses none of its names. A copy that cannot be moved keeps
    // its name, and the link is not made.
    CNameAside aside;
    const DWORD dwTargetAttributes = ::GetFileAttributesW(sJumboTarget.c_str());
    DWORD dwAsideError = ERROR_SUCCESS;
    if (dwTargetAttributes != INVALID_FILE_ATTRIBUTES && !aside.Move(sJumboLink, dwAsideError))
    {
        g_KeflTrace.TraceValue(TRACE_ERROR, kFn, words::kJumboLink, sJumboLink);
        return TraceFailed(kFn, L"... ending(Existing file could not be moved aside)", dwAsideError);
    }

    if (!m_pfnCreateHardLinkW(sJumboLink.c_str(), sJumboTarget.c_str(), nullptr))
    {
        const DWORD dwLastError = ::GetLastError();
        // A name that is there already counts as made only when it is the target's own.
        if (dwLastError != ERROR_ALREADY_EXISTS || !IsSameFile(sJumboLink, sJumboTarget))
        {
            g_KeflTrace.TraceValue(TRACE_ERROR, kFn, words::kJumboLink, sJumboLink);
            g_KeflTrace.TraceValue(TRACE_ERROR, kFn, words::kJumboTarget, sJumboTarget);
            TraceLastError(kFn, dwLastError, TRACE_ERROR);
            PutBack(kFn, aside);
            return false;
        }
    }

    DWORD dwRemoveError = ERROR_SUCCESS;
    if (!aside.Remove(dwRemoveError))
    {
        g_KeflTrace.TraceValue(TRACE_ERROR, kFn, L"sJumboAside", aside.Aside());
        TraceLastError(kFn, dwRemoveError, TRACE_ERROR);
    }
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return true;
}

} // namespace morvane
