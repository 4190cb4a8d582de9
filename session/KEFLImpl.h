#pragma once
// The state of one restore and its operations. KEFL forwards the host's calls here.
//
// One file a job: KEFLImpl.cpp (construction, properties, forwarding to volumes/, links/ and
// runner/), SessionSetup.cpp (Init, Fini, the session's reset), FilespaceDiscovery.cpp
// (GetFilespaceList, GetBOOTandSYSTEM, Convert_FILETIME), ConfigRestore.cpp (CheckIfConfigDL,
// GetConfig), FilespaceRestore.cpp (RestoreFilespace, CopyFileWithProgress; the walk it restores from is
// FilespaceWalk.cpp).
#include "VESK.h"
#include "VeskCredentials.h"
#include "client/VESKImpl.h"
#include "links/LinkRestore.h"
#include "links/Point.h"
#include "runner/CommandRunner.h"
#include "session/Checkpoints.h"
#include "session/WalkList.h"

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace morvane
{

class CRestoreProgress;

class KEFLImpl : public VESKImpl
{
public:
    KEFLImpl();
    ~KEFLImpl() override;
    KEFLImpl(const KEFLImpl&) = delete;
    KEFLImpl& operator=(const KEFLImpl&) = delete;

    bool Init(VeskCredentials* pCredentials);
    bool Fini();
    bool GetFilespaceList(std::vector<Filespace>& vFilespaces);
    bool RestoreFilespace(Filespace& fs);
    bool RestoreLinks();
    uint32_t GetModuleProperty(uint32_t uiPropertyId, std::wstring& sValue);

    // Backup locations (volumes/): the letter-free form, back to today's letter, WebDAV or not.
    bool ConvertDLtoVOL(const std::wstring& sPathIn, std::wstring& sPathOut);
    bool ConvertVOLtoDL(const std::wstring& sPathIn, std::wstring& sPathOut);
    bool CheckIfWebDAV(const std::wstring& sPath, bool& bIsWebDAV);

    // Link-point files (links/).
    bool ParsePoint(const std::wstring& sPath, PointList& list);
    bool ParseHPoint(const std::wstring& sPath, PointList& list);

    // The command runner (runner/).
    bool RunCommand(const std::wstring& sCmd);
    bool GetLine(std::wstring& sLine, bool bTraceLine);
    bool ReadChar(char& c);

    // Link restore (links/).
    bool CreateJunction(const std::wstring& sLink, const std::wstring& sTarget, DWORD dwAttr);
    bool CreateSymbolicLink(const std::wstring& sLink, const std::wstring& sTarget, DWORD dwAttr);
    bool CreateHardLinkW(const std::wstring& sLink, const std::wstring& sTarget);

    // Filespace discovery.
    bool GetBOOTandSYSTEM();
    bool Convert_FILETIME(FILETIME& ft, SYSTEMTIME& st);

    // Configuration restore.
    bool CheckIfConfigDL(wchar_t cDriveLetter);
    bool GetConfig();

    // Filespace restore.
    // Copies one file as backup streams and gives the copy the source's times (entry's find data).
    // Runs on any thread: what it read goes to progress, never to the host directly.
    bool CopyFileWithProgress(const std::wstring& sSrc, const std::wstring& sDst, const CWalkEntry& entry,
                              CRestoreProgress& progress);
    // One file of the walk, the whole of it on the thread that runs it: its trace lines, the copy,
    // and the entry counted as done.
    // bKept: a destination that an earlier run restored whole (KEFL_SkipUnchanged), kept, not
    // copied again.
    void RestoreFile(const std::wstring& sSrc, const std::wstring& sDst, const CWalkEntry& entry, bool bKept,
                     CRestoreProgress& progress);
    // Whether files an earlier run restored whole are kept: trace.ini's KEFL_SkipUnchanged, 1 or 0.
    bool SkipUnchanged();
    // How many files are in flight at once, and folders listed at once by the walk: trace.ini's
    // KEFL_RestoreThreads, 1 to 64, else 8.
    uint32_t RestoreThreads();
    // How often a restore flushes its volume and records a checkpoint: KEFL_CheckpointMB and
    // KEFL_CheckpointSeconds.
    CCheckpoints::CPolicy CheckpointPolicy();

    // Where one filespace's files come from (in the backup) and go to ("E:" or a mount folder).
    struct CFilespaceFolders
    {
        bool bMountPoint = false;
        std::wstring sSrc;
        std::wstring sDst;
        std::wstring Root() const { return sDst + L"\\"; }
    };

private:
    // The parts of RestoreFilespace (FilespaceRestore.cpp).
    bool CheckDestination(const Filespace& fs, const Point*& pMountPoint);
    bool ResolveFolders(const Filespace& fs, CFilespaceFolders& folders);
    void AnnounceRestore(const Filespace& fs, bool bMountPoint, ProgMsg& progress);
    bool RestoreEntries(const CWalkList& walk, const CFilespaceFolders& folders, uint32_t uiThreads,
                        CCheckpoints& checkpoints, ProgMsg& progress);

    // The parts of GetFilespaceList and GetBOOTandSYSTEM (FilespaceDiscovery.cpp).
    bool ListDriveFilespaces(const std::wstring& sPath, std::vector<Filespace>& vFilespaces);
    void ListMountFilespaces(const std::wstring& sPath, std::vector<Filespace>& vFilespaces);
    void MarkBootAndSystem(std::vector<Filespace>& vFilespaces);
    bool ReadMbrSystemLetter(const wchar_t* pwszIni, const wchar_t* pwszDriveSection);
    // Init's console for the session's child processes, hidden (SessionSetup.cpp).
    bool SetUpConsole();

    // Re-reads trace.ini and traces the two levels.
    void ReadTraceLevels(const wchar_t* pwszFunction);
    // The backup's drive-letter path now, from its letter-free form: the one way back, once an
    // operation. False, with message 125 and the failure trace of pwszFunction ("... ending(Target
    // location not set)", or pwszConvertFailure), when no location is set or it cannot be translated.
    bool LocalTargetPath(const wchar_t* pwszFunction, std::wstring& sPath,
                         const wchar_t* pwszConvertFailure = L"... ending(ConvertVOLtoDL failed)");
    // Back to an empty session: no child-process handles, no link points, no console.
    void Reset();
    // The link-point files of the backup's data folder, in the order J, M, H, S.
    bool ParseLinkPointFiles(const std::wstring& sDataFolder);
    // The answer of a restore operation that this build does not have yet.
    bool NotAvailable(const wchar_t* pwszFunction);

    uint32_t m_uiTraceLevel = 0;
    uint32_t m_uiPsfTraceLevel = 0;
    std::wstring m_sVersion;
    std::wstring m_sDescription;
    CreateSymbolicLinkFn m_pfnCreateSymbolicLinkW = nullptr; // null where the system lacks them
    CreateHardLinkFn m_pfnCreateHardLinkW = nullptr;

    // The backup: where the credentials put it, its letter-free form, and the drive-letter path
    // through which its files are reached now.
    bool m_bInitialised = false;
    std::wstring m_sTargetPath;
    SYSTEMTIME m_Pit = {};
    std::wstring m_sTargetLocation;
    bool m_bIsWebDAV = false;
    std::wstring m_sLocalPath;

    // What the backup's configuration says of the recovered Windows: the drive of its folder
    // (called BOOT here), the drive it starts from (SYSTEM), and the folder; and where the
    // configuration was copied to.
    wchar_t m_wcWinBOOT = L'-';
    wchar_t m_wcWinSYSTEM = L'-';
    std::wstring m_sWinDir;
    std::wstring m_sConfigDir;

    // The backup's link points, one list per link-point file.
    PointList m_JunctionPoints; // JPoint.dat
    PointList m_MountPoints;    // MPoint.dat
    PointList m_HardLinks;      // HPoint.dat
    PointList m_SymbolicLinks;  // SPoint.dat

    // The files this session's restores could not copy whole: the link pass links none to them.
    CUnrestoredFiles m_unrestored;

    // The child processes of the session (XCOPY) and their monitor thread.
    CCommandRunner m_CommandRunner{m_channel};

    // Re-creates the recorded links; made with the link-creation entry points once they are known.
    CLinkRestorer LinkRestorer();
};

} // namespace morvane
