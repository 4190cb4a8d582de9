#pragma once
// A disk that loses what was written since its volume's last flush when the power fails, as a disk
// with a write cache does: NTFS then brings back a file's size, times and attributes without its
// data pages. Put into KEFL.dll's imports (BackupWrite and FlushFileBuffers, after the stand-ins
// that Wine needs for them), it notes every file written since the last flush of a volume; after
// the power failed (at the given BackupWrite), no flush reaches the disk any more.
#include "support/Patches.h"

#include <string>

namespace kefltest
{

class CPowerCut
{
public:
    // The power fails at the iFailingWrite-th BackupWrite from now on.
    CPowerCut(CPatches& patches, HMODULE hModule, int iFailingWrite);
    // The disk as it comes back: every file written since the last flush before the failure reads
    // as zeros, with its size, times and attributes kept (those closed by then are zeroed at the
    // failure, the others now). Answers how many.
    size_t Restart();
};

} // namespace kefltest
