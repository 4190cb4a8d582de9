// The backup's configuration copied into the host's configuration folder with XCOPY.
#include "session/KEFLImpl.h"

#include "channel/MessageIds.h"
#include "trace/TraceObjects.h"

#include <shlwapi.h>

namespace morvane
{
namespace
{

const wchar_t kCheckIfConfigDL[] = L"KEFLImpl::CheckIfConfigDL";
const wchar_t kGetConfig[] = L"KEFLImpl::GetConfig";

// The folder that marks a drive folder of the backup as the one whose drive held the
// configuration; the configuration itself is in the backup's data folder.
const wchar_t kConfigMarker[] = L"ZOVACFG";
const wchar_t kDataFolder[] = L"#";

// How often a file in the way of the configuration folder is deleted before giving up: a file
// that keeps coming back must not keep us here.
constexpr int kMaxCreateRounds = 3;

// Makes sure sDir is a folder: made when missing, a file of the same name deleted first.
bool EnsureConfigDirectory(const std::wstring& sDir)
{
    const wchar_t* const kFn = kGetConfig;
    for (int iRound = 0;; ++iRound)
    {
        if (::PathIsDirectoryW(sDir.c_str()))
            return true;
        if (::CreateDirectoryW(sDir.c_str(), nullptr))
        {
            g_KeflTrace.TraceMessage(TRACE_INFO, kFn, L"Successfully created configuration directory");
            return true;
        }
        DWORD dwLastError = ::GetLastError();
        if (dwLastError != ERROR_ALREADY_EXISTS)
        {
            TraceLastError(kFn, dwLastError, L"CreateDirectory failed");
            return false;
        }
        // Not a folder, yet something of that name exists: a file is in the way.
        if (iRound + 1 < kMaxCreateRounds && ::DeleteFileW(sDir.c_str()))
            continue;
        dwLastError = ::GetLastError();
        TraceLastError(kFn, dwLastError,
                       L"Couldn't create config directory as a file of the same name already exists");
        return false;
    }
}

// Removes the disrec.ini that an earlier listing copied into the configuration folder: when this
// backup's copy brings none, the BOOT/SYSTEM lookup must find none, not another backup's drives.
// None there is fine. XCOPY /r /h keeps the backup's attributes, so a read-only copy is made
// writable and deleted again.
bool RemoveEarlierDisrec(const std::wstring& sConfigDir)
{
    const wchar_t* const kFn = kGetConfig;
    const std::wstring sIniPath = sConfigDir + L"\\disrec.ini";
    if (::DeleteFileW(sIniPath.c_str()))
        return true;
    DWORD dwLastError = ::GetLastError();
    if (dwLastError == ERROR_FILE_NOT_FOUND)
        return true;
    if (dwLastError == ERROR_ACCESS_DENIED)
    {
        if (::SetFileAttributesW(sIniPath.c_str(), FILE_ATTRIBUTE_NORMAL) && ::DeleteFileW(sIniPath.c_str()))
            return true;
        dwLastError = ::GetLastError();
    }
    g_KeflTrace.TraceValue(TRACE_ERROR, kFn, L"sIniPath", sIniPath);
    TraceLastError(kFn, dwLastError, L"Couldn't delete the disrec.ini of an earlier listing");
    return false;
}

} // namespace

bool KEFLImpl::CheckIfConfigDL(wchar_t cDriveLetter)
{
    const wchar_t* const kFn = kCheckIfConfigDL;
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"cDriveLetter", cDriveLetter);

    std::wstring sPath;
    if (!LocalTargetPath(kFn, sPath))
        return false;
    // A folder, not a file of that name.
    const std::wstring sMarker = sPath + L"\\" + cDriveLetter + L"\\" + kConfigMarker;
    const bool bFoundConfig = ::PathIsDirectoryW(sMarker.c_str()) != FALSE;
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"bFoundConfig", bFoundConfig);
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return bFoundConfig;
}

bool KEFLImpl::GetConfig()
{
    const wchar_t* const kFn = kGetConfig;
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    LogStdMsg(MSG_SEVERITY_INFO, IDS_EXTRACTING_CONFIG);

    if (m_sTargetLocation.empty())
    {
        LogStdMsg(MSG_SEVERITY_ERROR, IDS_NO_TARGET_LOCATION);
        return TraceFailed(kFn, L"... ending(Target location not set)");
    }
    GetConfigDir(m_sConfigDir);
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"m_sConfigDir", m_sConfigDir);
    // XCOPY asks whether its destination is a file or a folder unless the folder exists.
    if (!EnsureConfigDirectory(m_sConfigDir))
        return false;
    // Reading an earlier backup's disrec.ini would give wrong BOOT/SYSTEM flags: no listing then.
    if (!RemoveEarlierDisrec(m_sConfigDir))
    {
        LogStdMsg(MSG_SEVERITY_ERROR, IDS_BOOT_SYSTEM_LETTERS_FAILED);
        return TraceFailed(kFn, L"... ending(Couldn't delete the earlier disrec.ini)");
    }

    std::wstring sPath;
    if (!LocalTargetPath(kFn, sPath, L"... ending(ConvertVoltoDL failed)"))
        return false;
    const std::wstring sSource = sPath + L"\\" + kDataFolder;
    const std::wstring sCmd = L"XCOPY /e /h /r /y \"" + sSource + L"\\*\" \"" + m_sConfigDir + L"\"";
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"sCmd", sCmd);
    if (!RunCommand(sCmd))
    {
        LogStdMsg(MSG_SEVERITY_ERROR, IDS_COPY_FILES_FAILED);
        return TraceFailed(kFn, L"... ending(RunCommand failed)");
    }
    // XCOPY's output, to the end: the copy is complete once the output has ended.
    std::wstring sLine;
    while (GetLine(sLine, g_KeflTrace.IsPsfTraceFlagSet(34)))
        g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"sLine", sLine);

    if (!GetBOOTandSYSTEM())
    {
        LogStdMsg(MSG_SEVERITY_ERROR, IDS_BOOT_SYSTEM_LETTERS_FAILED);
        return TraceFailed(kFn, L"... ending(Couldn't get BOOT/SYSTEM drive letters)");
    }
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return true;
}

} // namespace morvane
