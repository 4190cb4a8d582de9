#pragma once
// Junctions, symbolic links and folder mount points, which Wine 8 cannot make:
// - DeviceIoControl(FSCTL_SET_REPARSE_POINT) fails with error 50 under Wine; Windows sets the
//   junction. The stand-in records the junction's folder and target and answers as Windows does.
// - CreateSymbolicLinkW, looked up by name, pretends success under Wine and makes nothing;
//   the stand-in handed out by GetProcAddress records the link instead.
// - GetVolumeInformationW on a folder that a volume is mounted on answers for that volume on
//   Windows; under Wine such a folder is a plain folder, and the stand-in answers for the volume
//   it is on.
// Nothing recorded here exists on disk: whoever shows the links must say that they were recorded,
// not made.
#include <windows.h>

#include <memory>
#include <string>
#include <vector>

namespace winecompat
{

class CIatPatch;

struct CRecordedLink
{
    std::wstring sKind; // "junction" or "symbolic link"
    std::wstring sLink;
    std::wstring sTarget;
};

// Puts the stand-ins into hModule's import table (GetProcAddress too, so it must be made before
// the module looks its entry points up) for the life of the object.
class CLinkPatches
{
public:
    explicit CLinkPatches(HMODULE hModule);
    ~CLinkPatches();
    bool IsApplied() const;
    // What was recorded, in order.
    static std::vector<CRecordedLink> RecordedLinks();

private:
    std::vector<std::unique_ptr<CIatPatch>> m_vPatches;
};

} // namespace winecompat
