#pragma once
// The client interface shared by the recovery host and every restore client library. Slot order,
// field order and types are part of the contract: a host built from this header drives any client
// built from it (mingw-w64 g++, Itanium C++ ABI, 64-bit).
#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace morvane
{

class VeskCredentials;

enum CapabilityType : int32_t
{
    CAP_MULTI_MACHINE = 1,
    CAP_SEPARATE_HARD_LINKS = 2,
    CAP_SEPARATE_SYSTEM_STATE = 3,
    CAP_BACKUP_SETS = 4,
    CAP_BACKUP_IMAGES = 5,
    CAP_TAPE_BACKUPS = 6,
};

// Module property ids for GetModuleProperty.
enum : uint32_t
{
    PROP_DESCRIPTION = 1,
    PROP_VERSION = 2,
};

// Severities of user messages handed to the log callback.
enum : uint32_t
{
    MSG_SEVERITY_INFO = 1,
    MSG_SEVERITY_WARNING = 2,
    MSG_SEVERITY_ERROR = 3,
};

// The host's log callback; the text is a copy made for the call.
typedef int32_t (*LogMsgCallbackFn)(uint32_t uiSeverity, std::wstring sMessage, uint64_t ullContext);

// What the progress callback receives. A filespace restore fills state, path, text, drive letter
// and bytes done, with total = bytes found by the count and done = entries walked; the link
// restore fills state, title, text, total and done.
struct ProgMsg
{
    uint32_t uiState;
    std::wstring sPath;
    std::wstring sTitle;
    std::wstring sText;
    wchar_t wcDriveLetter;
    uint64_t ullBytesDone;
    uint64_t ullTotal;
    uint64_t ullDone;
};

// ProgMsg::uiState values.
enum : uint32_t
{
    PROG_STATE_STARTING = 1, // a filespace restore or a link pass starts
    PROG_STATE_STEP = 2,     // one link done (made or not)
    PROG_STATE_FAILED = 3,   // the count failed; a link pass ended with links not made
    PROG_STATE_DONE = 4,     // a link pass ended with every link made
    PROG_STATE_TEXT = 7,     // sText holds a message to show
};

typedef int32_t (*ProgMsgCallbackFn)(const ProgMsg* pMsg, uint64_t ullContext);

// One restorable drive or mount point of a backup.
struct Filespace
{
    std::wstring sFsName;
    std::wstring sFsPath;
    std::wstring sFsMountDir;
    uint64_t ullReserved1;
    uint32_t uiReserved2;
    uint32_t uiReserved3;
    uint32_t dwFsFlags;
    bool bFsTimeValid;
    SYSTEMTIME stFsTime;
    uint8_t abReserved4[16];
    uint32_t uiReserved5;
    wchar_t wcFsDriveLetter;
};

// Filespace::dwFsFlags, as the host reads them: the drive that holds the backup's configuration
// 0x2, BOOT 0x3, SYSTEM 0x5 (0x1 marks BOOT or SYSTEM, beside 0x2 or 0x4), a mount point 0x8.
constexpr uint32_t kFsFlagConfig = 0x2;
constexpr uint32_t kFsFlagBoot = 0x3;
constexpr uint32_t kFsFlagSystem = 0x5;
constexpr uint32_t kFsFlagMountPoint = 0x8;

// The letters a drive filespace may have, in the order the backup's drive folders are listed.
inline constexpr wchar_t kDriveLetters[] = L"ABCDEFGHIJKLMNOPQRSTUVWXYZ";

class VESK
{
public:
    explicit VESK(const std::wstring& sProduct = std::wstring());
    virtual ~VESK();                                                                          // slot 0
    virtual void GetLastErrorMsg(std::wstring& sErrorMsg) = 0;                                // 1
    virtual void SetLogMsgCallbackFn(LogMsgCallbackFn pfnLogMsg, uint64_t ullContext) = 0;    // 2
    virtual void SetProgMsgCallbackFn(ProgMsgCallbackFn pfnProgMsg, uint64_t ullContext) = 0; // 3
    virtual bool HasCapability(CapabilityType enCapabilityType) = 0;                          // 4
    virtual uint32_t GetModuleProperty(uint32_t uiPropertyId, std::wstring& sValue) = 0;      // 5
    virtual bool Init(VeskCredentials* pCredentials) = 0;                                     // 6
    virtual bool Fini() = 0;                                                                  // 7
    virtual bool GetFilespaceList(std::vector<Filespace>& vFilespaces) = 0;                   // 8
    // Slots 9 to 14, 16 to 19, 21 and 22 belong to other kinds of client; every client answers
    // them, so the slots are declared here to keep the order.
    virtual bool Reserved9() = 0;
    virtual bool Reserved10() = 0;
    virtual bool Reserved11() = 0;
    virtual bool Reserved12() = 0;
    virtual bool Reserved13() = 0;
    virtual bool Reserved14() = 0;
    virtual bool RestoreFilespace(Filespace& fs) = 0; // 15
    virtual bool Reserved16() = 0;
    virtual bool Reserved17() = 0;
    virtual bool Reserved18() = 0;
    virtual bool Reserved19() = 0;
    virtual bool RestoreLinks() = 0; // 20
    virtual bool Reserved21() = 0;
    virtual bool Reserved22() = 0;

    std::wstring m_sProduct;

    VESK(const VESK&) = delete;
    VESK& operator=(const VESK&) = delete;
};

// The library's exports, as the host looks them up by name.
typedef VESK* (*FactoryFn)();
typedef VeskCredentials* (*CredentialsFactoryFn)();

} // namespace morvane
