#pragma once
// What our host needs to drive KEFL.dll under Wine 8, which lacks a few Windows behaviours that a
// restore meets: the volume-path and network-provider answers (LocationStandIns.h), backup streams
// (BackupStreams.h), junctions, symbolic links and mount folders (LinkStandIns.h: recorded, not
// made), and a usable console for the session's child processes. Nothing here is part
// of KEFL.dll, and nothing is done when the program runs on Windows.
#include "winecompat/BackupStreams.h"
#include "winecompat/LinkStandIns.h"
#include "winecompat/LocationStandIns.h"

#include <windows.h>

#include <memory>

namespace winecompat
{

class CWineStandIns
{
public:
    // Patches hModule (KEFL.dll) when running under Wine; before the module's client is made, so
    // that its look-up of CreateSymbolicLinkW meets the stand-in.
    explicit CWineStandIns(HMODULE hModule);
    bool IsActive() const { return m_pLocation != nullptr; }

private:
    std::unique_ptr<CLocationPatches> m_pLocation;
    std::unique_ptr<CBackupStreamPatches> m_pStreams;
    std::unique_ptr<CLinkPatches> m_pLinks;
};

} // namespace winecompat
