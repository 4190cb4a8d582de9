#pragma once
// What a restore reported as restored must be on the disk when it answers, also when the machine
// is switched off right after. The volume's cache is written out once, at the end of a
// filespace, through a handle to the volume: flushing every file would wait for the disk once a
// file.
#include <string>

namespace morvane
{

// The volume that holds sFolder (a drive root "E:\" or a mount point's folder, with a backslash
// at its end). A volume that cannot be opened or flushed gets a warning in the trace; the
// restore goes on.
void FlushVolume(const std::wstring& sFolder);

} // namespace morvane
