#pragma once
// The shared base of every client implementation: the last error text, the host's two callbacks,
// and the services that restore code calls everywhere: user messages from the string table, the
// version text, the host's folders, privileges and parent folders. It traces to VESK_trace.log.
// What goes to the host is the channel's (channel/HostChannel.h), the parent folders are
// folders/'s: their slots here forward.
//
// One file a job: VESKImpl.cpp (construction, forwarding), ResourceVersion.cpp,
// HostDirectories.cpp, Privilege.cpp, HardLinkRepair.cpp.
#include "VESK.h"
#include "channel/HostChannel.h"

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace morvane
{

// One name of a file that had several (hard links): the full path, and whether it exists now.
struct HardLinkEntry
{
    const wchar_t* wszFileName = nullptr; // may be null
    bool bExists = false;
};
// The names of one file, in order; the caller owns the entries.
using HardLinkList = std::vector<HardLinkEntry*>;

class VESKImpl
{
public:
    VESKImpl();
    // Member-wise copies; exported for hosts, unused by the library itself.
    VESKImpl(const VESKImpl& other);
    VESKImpl& operator=(const VESKImpl& other);
    virtual ~VESKImpl();

    virtual void GetLastErrorMsg(std::wstring& sErrorMsg);
    virtual void SetLastErrorMsg(const std::wstring& sErrorMsg);
    // The same without allocating: the text of a failed allocation must reach the host too.
    void SetLastErrorMsg(const wchar_t* pwszErrorMsg) noexcept;
    virtual void SetLogMsgCallbackFn(LogMsgCallbackFn pfnLogMsg, uint64_t ullContext);
    virtual void SetProgMsgCallbackFn(ProgMsgCallbackFn pfnProgMsg, uint64_t ullContext);
    // Mends one group of hard links: the names that exist now are found, and every missing one is
    // made a link to the first existing one (HardLinkRepair.cpp).
    virtual bool ProcessSection(const std::wstring& sSection, HardLinkList& hardLinks);
    virtual bool FixHardLinks(const std::wstring& sSection, HardLinkList& hardLinks);
    // A hard link, taking ownership of the target for a moment when the plain call is refused.
    bool MyCreateHardLink(const std::wstring& sLink, const std::wstring& sTarget);

    // Hands a progress record to the host's progress callback, if one is set; its answer, else 0.
    int32_t ReportProgress(const ProgMsg& msg);

    // Hands message uiMsgId of the string table to the host's log callback and returns the
    // callback's answer (without a callback: 1 for an error, else 0). An error also becomes the
    // last error text.
    int32_t LogStdMsg(uint32_t uiSeverity, uint32_t uiMsgId);
    // The same with the message's printf placeholders filled (Windows convention: %s a wide
    // string, %c a wide character, %u an unsigned number).
    int32_t LogVarMsg(uint32_t uiSeverity, uint32_t uiMsgId, ...);

    // "<FileVersion> (build <PrivateBuild>)" of KEFL.DLL, also recorded in Version.log;
    // "Error" when the version resource cannot be read.
    void GetResourceVersionStr(std::wstring& sVersion);
    // The host's log and configuration folders, from its qtx.ini.
    void GetLogDir(std::wstring& sLogDir);
    void GetConfigDir(std::wstring& sConfigDir);
    // Enables or disables a privilege of this process's token.
    bool SetPrivilege(const std::wstring& sPrivilege, bool bEnable);
    // Makes every missing folder above sPath.
    bool CreateParentDir(const std::wstring& sPath);

    // Where messages, progress and the last error text go to the host.
    CHostChannel& Channel() { return m_channel; }

protected:
    uint32_t m_uiOSVersion = 0;
    CHostChannel m_channel;

private:
    // Reads one key of the host's qtx.ini section "File Locations".
    void ReadHostLocation(const wchar_t* pwszFunction, const wchar_t* pwszKey, const wchar_t* pwszDefault,
                          std::wstring& sValue);
};

} // namespace morvane
