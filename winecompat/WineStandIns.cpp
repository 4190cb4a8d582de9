#include "winecompat/WineStandIns.h"

#include "platform/UniqueHandle.h"
#include "platform/WindowsVersion.h"

namespace winecompat
{
namespace
{

// A console program whose standard handles Wine redirected has a console it cannot use: "CONIN$"
// does not open, and AllocConsole refuses while it is attached. Windows gives such a program a
// working console. Detaching lets the session's own AllocConsole make one that works.
void MakeConsoleUsable()
{
    morvane::CUniqueFile hConsoleIn(::CreateFileW(L"CONIN$", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                                                  nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!hConsoleIn)
        ::FreeConsole();
}

} // namespace

CWineStandIns::CWineStandIns(HMODULE hModule)
{
    if (!morvane::RunsUnderWine())
        return;
    m_pLocation = std::make_unique<CLocationPatches>(hModule);
    m_pStreams = std::make_unique<CBackupStreamPatches>(hModule);
    m_pLinks = std::make_unique<CLinkPatches>(hModule);
    MakeConsoleUsable();
}

} // namespace winecompat
