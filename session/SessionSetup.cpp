// Starting and ending a restore session: the credentials taken over, the backup location checked
// and translated, a hidden console for the session's child processes, the link points read.
#include "session/KEFLImpl.h"

#include "channel/MessageIds.h"
#include "trace/TraceObjects.h"

#include <shlwapi.h>

namespace morvane
{
namespace
{

const wchar_t kInit[] = L"KEFLImpl::Init";

// The backup's data folder, beside the drive folders.
const wchar_t kDataFolder[] = L"#";

bool EndInit(const wchar_t* pwszReason)
{
    g_KeflTrace.TraceMessage(TRACE_ERROR, kInit, pwszReason);
    return false;
}

bool EndInit(const wchar_t* pwszReason, DWORD dwLastError)
{
    g_KeflTrace.TraceMessage(TRACE_ERROR, kInit, pwszReason);
    g_KeflTrace.TraceValue(TRACE_ERROR, kInit, L"dwLastError", static_cast<int64_t>(dwLastError));
    return false;
}

} // namespace

void KEFLImpl::Reset()
{
    // The runner's monitor (if any) must be done with the handles before they are closed.
    m_CommandRunner.WaitForMonitor();
    m_CommandRunner.CloseChildHandles();
    m_JunctionPoints.clear();
    m_MountPoints.clear();
    m_HardLinks.clear();
    m_SymbolicLinks.clear();
    m_unrestored.Clear();
    // Nothing of an earlier backup may reach this one: its location, and what its configuration
    // said of BOOT and SYSTEM and where it was copied to.
    m_sTargetLocation.clear();
    m_bIsWebDAV = false;
    m_sLocalPath.clear();
    m_wcWinBOOT = L'-';
    m_wcWinSYSTEM = L'-';
    m_sWinDir.clear();
    m_sConfigDir.clear();
    // A console from an earlier Init: detaching frees it (its window goes with it).
    if (::GetConsoleWindow())
        ::FreeConsole();
}

// The session's child processes (XCOPY) need a console; the host must not see its window.
bool KEFLImpl::SetUpConsole()
{
    if (!::AllocConsole())
    {
        const DWORD dwLastError = ::GetLastError();
        if (dwLastError != ERROR_ACCESS_DENIED) // the process has a console already
        {
            LogVarMsg(MSG_SEVERITY_ERROR, IDS_ALLOCCONSOLE_FAILED, dwLastError);
            return EndInit(L"... ending(AllocConsole failed)");
        }
    }
    if (HWND hConsole = ::GetConsoleWindow())
    {
        if (!::ShowWindow(hConsole, SW_HIDE))
        {
            const DWORD dwLastError = ::GetLastError();
            if (dwLastError != ERROR_ACCESS_DENIED)
            {
                LogVarMsg(MSG_SEVERITY_WARNING, IDS_SHOWWINDOW_FAILED, dwLastError);
                g_KeflTrace.TraceMessage(TRACE_WARNING, kInit, L"ShowWindow failed");
            }
        }
    }
    else
    {
        const DWORD dwLastError = ::GetLastError();
        LogVarMsg(MSG_SEVERITY_WARNING, IDS_GETCONSOLEWINDOW_FAILED, dwLastError);
        g_KeflTrace.TraceMessage(TRACE_WARNING, kInit, L"GetConsoleWindow failed");
    }
    return true;
}

bool KEFLImpl::Init(VeskCredentials* pCredentials)
{
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kInit, L"starting ...");
    ReadTraceLevels(kInit);

    auto* pPsfCreds = dynamic_cast<KeflCredentials*>(pCredentials);
    if (!pPsfCreds)
        return EndInit(L"... ending(Not an PSF credential)");
    const std::wstring sTargetPath = pPsfCreds->m_sTargetPath;
    g_KeflTrace.TraceValue(TRACE_INFO, kInit, L"pPsfCreds->m_sTargetPath", sTargetPath);

    m_bInitialised = false;
    Reset();

    // A drive or share root has no folder to test; anything else must be an existing folder.
    if (!::PathIsRootW(sTargetPath.c_str()) && !::PathIsDirectoryW(sTargetPath.c_str()))
    {
        const DWORD dwLastError = ::GetLastError();
        LogStdMsg(MSG_SEVERITY_ERROR, IDS_INIT_FAILED);
        return EndInit(L"... ending(PathIsDirectory failed)", dwLastError);
    }
    if (!ConvertDLtoVOL(sTargetPath, m_sTargetLocation))
    {
        LogStdMsg(MSG_SEVERITY_ERROR, IDS_NO_TARGET_LOCATION);
        return EndInit(L"... ending(ConvertDLtoVOL failed)");
    }
    m_sTargetPath = sTargetPath;
    m_Pit = pPsfCreds->m_Pit;
    m_bInitialised = true;
    g_KeflTrace.TraceValue(TRACE_INFO, kInit, L"m_sTargetLocation", m_sTargetLocation);

    if (!CheckIfWebDAV(m_sTargetLocation, m_bIsWebDAV))
        return EndInit(L"... ending(CheckIfWebDAV failed)");

    if (!SetUpConsole())
        return false;
    if (!LocalTargetPath(kInit, m_sLocalPath))
        return false;
    const std::wstring sDataFolder = m_sLocalPath + L"\\" + kDataFolder;
    if (!::PathIsDirectoryW(sDataFolder.c_str()))
    {
        const DWORD dwLastError = ::GetLastError();
        LogStdMsg(MSG_SEVERITY_ERROR, IDS_NO_CONFIG_FOUND);
        return EndInit(L"... ending(PathIsDirectory failed)", dwLastError);
    }

    LogStdMsg(MSG_SEVERITY_INFO, IDS_PARSING_LINKS);
    if (!ParseLinkPointFiles(sDataFolder))
        return false;
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kInit, L"... ending");
    return true;
}

bool KEFLImpl::ParseLinkPointFiles(const std::wstring& sDataFolder)
{
    // The lists read before a failure stay filled.
    if (!ParsePoint(sDataFolder + L"\\JPoint.dat", m_JunctionPoints))
        return EndInit(L"... ending(Couldn't parse JPoint.dat)");
    if (!ParsePoint(sDataFolder + L"\\MPoint.dat", m_MountPoints))
        return EndInit(L"... ending(Couldn't parse MPoint.dat)");
    if (!ParseHPoint(sDataFolder + L"\\HPoint.dat", m_HardLinks))
        return EndInit(L"... ending(Couldn't parse HPoint.dat)");
    if (!ParsePoint(sDataFolder + L"\\SPoint.dat", m_SymbolicLinks))
        return EndInit(L"... ending(Couldn't parse SPoint.dat)");
    return true;
}

bool KEFLImpl::Fini()
{
    static const wchar_t kFn[] = L"KEFLImpl::Fini";
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    // A command's monitor thread may still be watching its child: wait until it has ended. Then
    // nothing of the run stays open, also when reading its output failed.
    m_CommandRunner.WaitForMonitor();
    m_CommandRunner.CloseChildHandles();
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return true;
}

} // namespace morvane
