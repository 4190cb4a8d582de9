// keflwine.dll's exports (KeflWine.h) over the stand-ins.
#include "winecompat/KeflWine.h"

#include "winecompat/WineStandIns.h"

#include <new>

extern "C" __declspec(dllexport) void* KeflWineInstall(HMODULE hKefl)
{
    if (!winecompat::IsWine())
        return nullptr;
    return new (std::nothrow) winecompat::CWineStandIns(hKefl);
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
