#pragma once
// The answers Windows gives where Wine 8 has none, for the backup location's translation:
// - GetVolumePathNameW on a volume-name path (\\?\Volume{...}\...): Windows answers the volume's
//   root; Wine fails with error 123. Other paths go to the real call.
// - WNetGetResourceInformationW: Windows' file-sharing provider claims every path of the form
//   \\name\name... (a local volume-name path included) and names itself "Microsoft Windows
//   Network"; Wine has no network provider and fails with error 1222.
// - FlushFileBuffers on a volume handle (\\?\Volume{...} or \\.\E:): Windows writes the volume's
//   cache out; Wine opens the volume but fails the flush with error 1. Files go to the real call.
#include <windows.h>

#include <memory>
#include <vector>

namespace winecompat
{

class CIatPatch;

// Volume flushes answered by the stand-in since the patches were made.
int VolumeFlushes();

// Puts the stand-ins into hModule's import table for the life of the object.
class CLocationPatches
{
public:
    explicit CLocationPatches(HMODULE hModule);
    ~CLocationPatches();
    bool IsApplied() const;

private:
    std::vector<std::unique_ptr<CIatPatch>> m_vPatches;
};

} // namespace winecompat
