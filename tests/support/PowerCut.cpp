#include "support/PowerCut.h"

#include "support/RecoveryEnvironment.h"

#include <mutex>
#include <set>

namespace kefltest
{
namespace
{

std::mutex g_lock;
std::set<std::wstring> g_unflushed; // files written since the last flush that reached the disk
std::set<std::wstring> g_lost;      // of those, the files already zeroed
int g_iWritesLeft = 0;
bool g_bPowerOff = false;
decltype(&::BackupWrite) g_pfnBackupWrite = nullptr;
decltype(&::FlushFileBuffers) g_pfnFlush = nullptr;

std::wstring FinalPath(HANDLE h)
{
    wchar_t wszPath[1024] = {};
    return ::GetFinalPathNameByHandleW(h, wszPath, 1024, 0) ? wszPath : L"";
}

// A file as the disk brings it back: zeros of its size, its times and attributes as they were. Done
// at the failure for every file closed by then, so that its change time is the failure's, as the
// disk's metadata would have it.
void Lose(const std::wstring& sPath)
{
    WIN32_FILE_ATTRIBUTE_DATA data{};
    EXPECT_TRUE(::GetFileAttributesExW(sPath.c_str(), GetFileExInfoStandard, &data)) << ::GetLastError();
    ::SetFileAttributesW(sPath.c_str(), FILE_ATTRIBUTE_NORMAL);
    WriteBytes(sPath, std::string(data.nFileSizeLow, '\0')); // test files stay below 4 GiB
    const FILETIME ft[] = {data.ftCreationTime, data.ftLastAccessTime, data.ftLastWriteTime};
    WriteMetadata(sPath, {data.dwFileAttributes, std::bit_cast<std::array<uint64_t, 3>>(ft)});
    g_lost.insert(sPath);
}

BOOL WINAPI BackupWriteNoted(HANDLE h, LPBYTE pb, DWORD cb, LPDWORD pcbWritten, BOOL bAbort, BOOL bSecurity,
                             LPVOID* ppContext)
{
    {
        const std::lock_guard lock(g_lock);
        const std::wstring sPath = FinalPath(h);
        if (!bAbort && !g_bPowerOff && --g_iWritesLeft == 0)
        {
            g_bPowerOff = true;
            for (const std::wstring& sClosed : g_unflushed)
                if (sClosed != sPath)
                    Lose(sClosed);
        }
        if (!bAbort)
            g_unflushed.insert(sPath);
    }
    return g_pfnBackupWrite(h, pb, cb, pcbWritten, bAbort, bSecurity, ppContext);
}

BOOL WINAPI FlushUntilThePowerFails(HANDLE h)
{
    if (!FinalPath(h).empty()) // a file's own flush: the checkpoint's record reaches the disk
        return g_pfnFlush(h);
    const std::lock_guard lock(g_lock);
    if (g_bPowerOff)
        return WithLastError(ERROR_NOT_READY, FALSE);
    const BOOL bFlushed = g_pfnFlush(h);
    if (bFlushed)
        g_unflushed.clear();
    return bFlushed;
}

} // namespace

CPowerCut::CPowerCut(CPatches& patches, HMODULE hModule, int iFailingWrite)
{
    const std::lock_guard lock(g_lock);
    g_unflushed.clear();
    g_lost.clear();
    g_iWritesLeft = iFailingWrite;
    g_bPowerOff = false;
    g_pfnBackupWrite = patches.Patch(hModule, "KERNEL32.dll", "BackupWrite", &BackupWriteNoted);
    g_pfnFlush = patches.Patch(hModule, "KERNEL32.dll", "FlushFileBuffers", &FlushUntilThePowerFails);
}

size_t CPowerCut::Restart()
{
    const std::lock_guard lock(g_lock);
    for (const std::wstring& sPath : g_unflushed)
        if (!g_lost.contains(sPath))
            Lose(sPath);
    return g_unflushed.size();
}

} // namespace kefltest
