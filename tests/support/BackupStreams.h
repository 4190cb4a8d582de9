#pragma once
// Backup streams as Windows has them, with faults a test can ask for (winecompat/BackupStreams.h).
#include "winecompat/BackupStreams.h"

namespace kefltest
{
using winecompat::BackupStreamFaults;
using winecompat::CBackupStreamFaults;
using winecompat::CBackupStreamPatches;
using winecompat::LiveBackupContexts;
} // namespace kefltest
