#pragma once
// What a restore reported as restored must be on the disk when it answers, also when the machine
// is switched off right after. The volume's cache is written out through a handle to the volume,
// at checkpoints and at the end of a filespace: flushing every file would wait for the disk once
// a file.
#include <string>

namespace morvane
{

// The volume that holds sFolder (a drive root "E:\" or a mount point's folder, with a backslash
// at its end). A volume that cannot be opened or flushed gets a warning in the trace, and false;
// the restore goes on.
bool FlushVolume(const std::wstring& sFolder);

// The root folder of the volume that holds sFolder, with a backslash at its end: "E:\", or a mount
// point's folder.
std::wstring VolumeRoot(const std::wstring& sFolder);

} // namespace morvane
