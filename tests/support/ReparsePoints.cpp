#include "support/Patches.h"

#include <map>
#include <string>

namespace kefltest
{
namespace
{

decltype(&::FindFirstFileW) g_pfnFindFirst = nullptr;
decltype(&::FindNextFileW) g_pfnFindNext = nullptr;

void MarkReparsePoint(WIN32_FIND_DATAW& fd)
{
    static const std::map<std::wstring, DWORD> kTags = {{L"Junction", IO_REPARSE_TAG_MOUNT_POINT},
                                                        {L"DirLink", IO_REPARSE_TAG_SYMLINK},
                                                        {L"FileLink.txt", IO_REPARSE_TAG_SYMLINK},
                                                        {L"Deduplicated.bin", 0x80000013}}; // data, no link
    const auto it = kTags.find(fd.cFileName);
    if (it == kTags.end())
        return;
    fd.dwFileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
    fd.dwReserved0 = it->second;
}

HANDLE WINAPI FindFirst(LPCWSTR pwszPattern, LPWIN32_FIND_DATAW pfd)
{
    const HANDLE hFind = g_pfnFindFirst(pwszPattern, pfd);
    if (hFind != INVALID_HANDLE_VALUE)
        MarkReparsePoint(*pfd);
    return hFind;
}

BOOL WINAPI FindNext(HANDLE hFind, LPWIN32_FIND_DATAW pfd)
{
    if (!g_pfnFindNext(hFind, pfd))
        return FALSE;
    MarkReparsePoint(*pfd);
    return TRUE;
}

} // namespace

void ShowReparsePoints(CPatches& patches, HMODULE hModule)
{
    g_pfnFindFirst = patches.Patch(hModule, "KERNEL32.dll", "FindFirstFileW", &FindFirst);
    g_pfnFindNext = patches.Patch(hModule, "KERNEL32.dll", "FindNextFileW", &FindNext);
}

} // namespace kefltest
