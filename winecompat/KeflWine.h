#pragma once
// keflwine.dll: the Wine stand-ins as a library of their own, for keflrestore. The test build puts
// it beside keflrestore.exe; a release has none, and keflrestore then runs KEFL.dll untouched. Only
// C types cross between the two modules, each with its own runtime.
#include <windows.h>

extern "C"
{
// Puts the stand-ins into hKefl's import table when running under Wine; null on Windows. The
// stand-ins stay until KeflWineRemove.
using KeflWineInstallFn = void* (*)(HMODULE hKefl);
using KeflWineRemoveFn = void (*)(void* pStandIns);
// Each junction and symbolic link recorded instead of made, in the order they came.
using KeflWineLinkFn = void (*)(void* pContext, const wchar_t* pwszKind, const wchar_t* pwszLink,
                                const wchar_t* pwszTarget);
using KeflWineRecordedLinksFn = void (*)(KeflWineLinkFn pfnLink, void* pContext);
}
