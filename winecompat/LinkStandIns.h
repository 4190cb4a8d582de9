#pragma once
// Junctions, symbolic links and folder mount points, which Wine 8 cannot make:
// - DeviceIoControl(FSCTL_SET_REPARSE_POINT) fails with error 50 under Wine; Windows sets the
//   junction. The stand-in records the junction's folder and target and answers as Windows does.
// - CreateSymbolicLinkW, looked up by name, pretends success under Wine and makes nothing;
//   the stand-in handed out by GetProcAddress records the link instead.
// - GetVolumeInformationW on a folder that a volume is mounted on answers for that volume on
//   Windows; under Wine such a folder is a plain folder, and the stand-in answers for the volume
//   it is on.
// - RemoveDirectoryW and DeleteFileW on a junction or symbolic link remove the link itself on
//   Windows. Wine 8 follows a Linux symbolic link: RemoveDirectoryW fails, and DeleteFileW removes
//   the file it points to. The stand-ins unlink a Linux symbolic link itself.
// Nothing recorded here exists on disk: whoever shows the links must say that they were recorded,
// not made.
#include <windows.h>

#include <memory>
#include <string>
#include <vector>

namespace winecompat
{

class CIatPatch;

// Makes a Linux symbolic link at sLink (a Windows path) to sTarget, which Wine 8 shows as a
// reparse point when it points to a folder, and follows unflagged when it points to a file: a
// link an earlier state left on a target disk. False when it cannot be made.
bool MakeLinuxSymbolicLink(const std::wstring& sLink, const std::wstring& sTarget);

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
