#pragma once
// What the restore process does under Wine, which lacks a few Windows answers that a restore
// meets (volume paths, the network provider, backup streams, a usable console): where keflwine.dll
// is (beside this program in the test build, or where the environment's KEFL_WINE_STAND_INS
// names), its stand-ins go into KEFL.dll's import table, so that a whole restore runs as it would
// on Windows, and junctions and symbolic links are recorded instead of made. A release carries no
// keflwine.dll, and on Windows nothing of this is done.
#include "platform/UniqueHandle.h"
#include "protocol/Events.h"
#include "winecompat/KeflWine.h"

#include <windows.h>

#include <vector>

namespace keflhost
{

class CWineSupport
{
public:
    // Before the library's client is made: its look-up of CreateSymbolicLinkW meets the stand-in.
    explicit CWineSupport(HMODULE hKefl);
    ~CWineSupport();
    CWineSupport(const CWineSupport&) = delete;
    CWineSupport& operator=(const CWineSupport&) = delete;

    bool IsActive() const { return m_pStandIns != nullptr; }
    std::vector<CRecordedLink> RecordedLinks() const;

private:
    morvane::CUniqueLibrary m_hKeflWine;
    void* m_pStandIns = nullptr; // keflwine.dll's, removed through it
    KeflWineRemoveFn m_pfnRemove = nullptr;
    KeflWineRecordedLinksFn m_pfnRecordedLinks = nullptr;
};

} // namespace keflhost
