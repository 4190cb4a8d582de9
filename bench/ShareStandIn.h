// A share stood in for on the backup drive R:: every open, read (BackupRead) and folder listing
// there waits out a network round trip. Put into KEFL.dll's import table (R: only: the restore's own
// drive and its trace stay local); the benchmarks add the same wait to their own copies.
#pragma once
#include "winecompat/IatPatch.h"

#include <windows.h>

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace sharestandin
{

inline DWORD g_dwRoundTripMs = 0;

inline void RoundTrip()
{
    if (g_dwRoundTripMs != 0)
        ::Sleep(g_dwRoundTripMs);
}

inline bool OnShare(const wchar_t* pwszPath)
{
    std::wstring sPath = pwszPath ? pwszPath : L"";
    if (sPath.rfind(L"\\\\?\\", 0) == 0)
        sPath.erase(0, 4);
    return sPath.size() >= 2 && (sPath[0] == L'R' || sPath[0] == L'r') && sPath[1] == L':';
}

// The handles and finds opened on the share: their reads and next entries wait too.
inline std::mutex g_lock;
inline std::set<HANDLE> g_onShare;
inline bool IsOnShare(HANDLE h)
{
    const std::lock_guard lock(g_lock);
    return g_onShare.count(h) != 0;
}
inline void Remember(HANDLE h)
{
    const std::lock_guard lock(g_lock);
    g_onShare.insert(h);
}

inline void* g_pfnCreateFile = nullptr;
inline void* g_pfnBackupRead = nullptr;
inline void* g_pfnFindFirst = nullptr;
inline void* g_pfnFindNext = nullptr;
inline void* g_pfnCloseHandle = nullptr;
inline void* g_pfnFindClose = nullptr;
template <typename Fn> Fn Real(void* pfn)
{
    return reinterpret_cast<Fn>(pfn);
}

inline HANDLE WINAPI ShareCreateFileW(LPCWSTR pwsz, DWORD dwAccess, DWORD dwShare, LPSECURITY_ATTRIBUTES psa,
                                      DWORD dwDisp, DWORD dwFlags, HANDLE hTemplate)
{
    const bool bShare = OnShare(pwsz);
    if (bShare)
        RoundTrip();
    const HANDLE h = Real<decltype(&::CreateFileW)>(g_pfnCreateFile)(pwsz, dwAccess, dwShare, psa, dwDisp,
                                                                     dwFlags, hTemplate);
    if (bShare && h != INVALID_HANDLE_VALUE)
        Remember(h);
    return h;
}
inline BOOL WINAPI ShareBackupRead(HANDLE h, LPBYTE pb, DWORD cb, LPDWORD pcb, BOOL bAbort, BOOL bSecurity,
                                   LPVOID* ppv)
{
    if (!bAbort && IsOnShare(h))
        RoundTrip();
    return Real<decltype(&::BackupRead)>(g_pfnBackupRead)(h, pb, cb, pcb, bAbort, bSecurity, ppv);
}
inline HANDLE WINAPI ShareFindFirstFileW(LPCWSTR pwsz, LPWIN32_FIND_DATAW pfd)
{
    const bool bShare = OnShare(pwsz);
    if (bShare)
        RoundTrip();
    const HANDLE h = Real<decltype(&::FindFirstFileW)>(g_pfnFindFirst)(pwsz, pfd);
    if (bShare && h != INVALID_HANDLE_VALUE)
        Remember(h);
    return h;
}
inline BOOL WINAPI ShareFindNextFileW(HANDLE h, LPWIN32_FIND_DATAW pfd)
{
    if (IsOnShare(h))
        RoundTrip();
    return Real<decltype(&::FindNextFileW)>(g_pfnFindNext)(h, pfd);
}
inline BOOL WINAPI ShareCloseHandle(HANDLE h)
{
    {
        const std::lock_guard lock(g_lock);
        g_onShare.erase(h);
    }
    return Real<decltype(&::CloseHandle)>(g_pfnCloseHandle)(h);
}
inline BOOL WINAPI ShareFindClose(HANDLE h)
{
    {
        const std::lock_guard lock(g_lock);
        g_onShare.erase(h);
    }
    return Real<decltype(&::FindClose)>(g_pfnFindClose)(h);
}

// The stand-in in KEFL.dll's imports, over the Wine stand-ins where there are any (BackupRead).
class CShareStandIn
{
public:
    explicit CShareStandIn(HMODULE h)
    {
        Put(h, "CreateFileW", &ShareCreateFileW, g_pfnCreateFile);
        Put(h, "BackupRead", &ShareBackupRead, g_pfnBackupRead);
        Put(h, "FindFirstFileW", &ShareFindFirstFileW, g_pfnFindFirst);
        Put(h, "FindNextFileW", &ShareFindNextFileW, g_pfnFindNext);
        Put(h, "CloseHandle", &ShareCloseHandle, g_pfnCloseHandle);
        Put(h, "FindClose", &ShareFindClose, g_pfnFindClose);
    }
    bool Applied() const
    {
        for (const auto& p : m_vPatches)
            if (!p->IsApplied())
                return false;
        return true;
    }

private:
    template <typename Fn> void Put(HMODULE h, const char* pszFunction, Fn pfn, void*& pfnReal)
    {
        m_vPatches.push_back(std::make_unique<winecompat::CIatPatch>(h, "KERNEL32.dll", pszFunction,
                                                                     reinterpret_cast<void*>(pfn)));
        pfnReal = const_cast<void*>(m_vPatches.back()->Original());
    }
    std::vector<std::unique_ptr<winecompat::CIatPatch>> m_vPatches;
};

} // namespace sharestandin
