#pragma once
// Process-wide Windows version probe. It classifies the running system into one numeric code that
// the module's other parts consult; the only code with behaviour attached today is
// OSCODE_WINPE_52, the pre-installation environment that the recovery host boots.
#include <cstdint>

namespace morvane
{

enum : uint32_t
{
    OSCODE_UNKNOWN = 0,
    OSCODE_WIN_50 = 1, // Windows 2000
    OSCODE_WIN_51 = 2, // Windows XP
    OSCODE_WIN_52 = 3, // Windows Server 2003, XP x64
    OSCODE_WIN_60 = 4,
    OSCODE_WIN_61 = 5,
    OSCODE_WIN_62 = 6,
    OSCODE_WIN_63 = 7,
    OSCODE_WIN_100 = 8,
    OSCODE_WINPE_52 = 16,    // pre-installation environment on Windows 5.2
    OSCODE_WINPE_OTHER = 17, // pre-installation environment on any other version
};

class CWindowsVersion
{
public:
    // Probes once per process; every later call answers the same object.
    static const CWindowsVersion& Instance();

    uint32_t GetCode() const { return m_uiCode; }
    uint32_t GetMajor() const { return m_uiMajor; }
    uint32_t GetMinor() const { return m_uiMinor; }
    bool IsPreinstallation() const { return m_bPreinstallation; }

private:
    CWindowsVersion();

    uint32_t m_uiMajor = 0;
    uint32_t m_uiMinor = 0;
    bool m_bPreinstallation = false;
    uint32_t m_uiCode = OSCODE_UNKNOWN;
};

// Whether the process runs under Wine, whose ntdll exports wine_get_version and Windows' does not.
bool RunsUnderWine();

} // namespace morvane
