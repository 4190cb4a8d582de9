// keflwine.dll's exports (KeflWine.h) over the stand-ins.
#include "winecompat/KeflWine.h"

#include "platform/WindowsVersion.h"
#include "winecompat/WineStandIns.h"

extern "C" __declspec(dllexport) void* KeflWineInstall(HMODULE hKefl)
{
    if (!morvane::RunsUnderWine())
        return nullptr;
    // Nothing may leave through this C boundary: without its stand-ins the restore runs as on Windows.
    try
    {
        return new winecompat::CWineStandIns(hKefl);
    }
    catch (...)
    {
        return nullptr;
    }
}

extern "C" __declspec(dllexport) void KeflWineRemove(void* pStandIns)
{
    delete static_cast<winecompat::CWineStandIns*>(pStandIns);
}

extern "C" __declspec(dllexport) void KeflWineRecordedLinks(KeflWineLinkFn pfnLink, void* pContext)
{
    for (const winecompat::CRecordedLink& link : winecompat::CLinkPatches::RecordedLinks())
        pfnLink(pContext, link.sKind.c_str(), link.sLink.c_str(), link.sTarget.c_str());
}
