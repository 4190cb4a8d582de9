#include "winecompat/BackupStreams.h"

#include "winecompat/IatPatch.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>

namespace winecompat
{
namespace
{

// The fixed part of WIN32_STREAM_ID, before the stream's name.
constexpr DWORD kHeaderBytes = static_cast<DWORD>(offsetof(WIN32_STREAM_ID, cStreamName));

CBackupStreamFaults g_Faults;
// A buffer this large or larger is cut in half by bHalfOfOneLargeWrite.
constexpr DWORD kLargeWrite = 4096;
std::atomic<int> g_iLiveContexts{0}; // the restore copies on several threads

struct CStreamContext
{
    bool bReadFault = false;
    bool bWriteFault = false;
    bool bShortWrite = false;
    bool bHalfTaken = false;
    int iCalls = 0;
    // Reading: the header still to hand out and the data bytes left.
    BYTE abHeader[kHeaderBytes] = {};
    DWORD cbHeaderDone = 0;
    uint64_t ullDataLeft = 0;
    // Writing: the header gathered so far, then the current stream's name and data bytes left.
    uint64_t ullNameLeft = 0;
    bool bDataStream = false;
};

// The last part of the file's path, "" when Windows cannot name the handle.
std::wstring HandleFileName(HANDLE hFile)
{
    wchar_t wszPath[4096] = {};
    const DWORD cch = ::GetFinalPathNameByHandleW(hFile, wszPath, 4096, FILE_NAME_NORMALIZED);
    if (cch == 0 || cch >= 4096)
        return std::wstring();
    const std::wstring sPath = wszPath;
    const size_t pos = sPath.find_last_of(L"\\/");
    return pos == std::wstring::npos ? sPath : sPath.substr(pos + 1);
}

bool IsFile(const std::wstring& sName, const std::wstring& sFaultFile)
{
    return !sFaultFile.empty() && _wcsicmp(sName.c_str(), sFaultFile.c_str()) == 0;
}

BOOL Abort(LPVOID* ppContext)
{
    if (*ppContext)
    {
        delete static_cast<CStreamContext*>(*ppContext);
        *ppContext = nullptr;
        --g_iLiveContexts;
    }
    return TRUE;
}

CStreamContext* NewContext(HANDLE hFile, LPVOID* ppContext)
{
    auto* pContext = new CStreamContext;
    // The name is looked up only when a fault is asked for: benchmarks use these stand-ins too.
    const bool bAnyFault = !g_Faults.sReadFailFile.empty() || !g_Faults.sWriteFailFile.empty() ||
                           !g_Faults.sShortWriteFile.empty();
    const std::wstring sName = bAnyFault ? HandleFileName(hFile) : std::wstring();
    pContext->bReadFault = IsFile(sName, g_Faults.sReadFailFile);
    pContext->bWriteFault = IsFile(sName, g_Faults.sWriteFailFile);
    pContext->bShortWrite = IsFile(sName, g_Faults.sShortWriteFile);
    *ppContext = pContext;
    ++g_iLiveContexts;
    return pContext;
}

} // namespace

CBackupStreamFaults& BackupStreamFaults()
{
    return g_Faults;
}

int LiveBackupContexts()
{
    return g_iLiveContexts;
}

// Windows' BackupRead of a file without alternate streams, security not asked for: one
// WIN32_STREAM_ID of a BACKUP_DATA stream (no name, Size = the file's size), then the file's bytes,
// then a successful call that reads nothing.
BOOL WINAPI BackupReadAsWindows(HANDLE hFile, LPBYTE pbBuffer, DWORD cbToRead, LPDWORD pcbRead, BOOL bAbort,
                                BOOL /*bProcessSecurity*/, LPVOID* ppContext)
{
    if (bAbort)
        return Abort(ppContext);
    *pcbRead = 0;
    auto* pContext = static_cast<CStreamContext*>(*ppContext);
    if (!pContext)
    {
        LARGE_INTEGER size = {};
        if (!::GetFileSizeEx(hFile, &size))
            return FALSE;
        pContext = NewContext(hFile, ppContext);
        WIN32_STREAM_ID header = {};
        header.dwStreamId = BACKUP_DATA;
        header.Size.QuadPart = size.QuadPart;
        std::memcpy(pContext->abHeader, &header, kHeaderBytes);
        pContext->ullDataLeft = static_cast<uint64_t>(size.QuadPart);
    }
    if (++pContext->iCalls == 2 && pContext->bReadFault)
    {
        ::SetLastError(g_Faults.dwReadError);
        return FALSE;
    }
    DWORD cbDone = 0;
    if (pContext->cbHeaderDone < kHeaderBytes)
    {
        const DWORD cb = std::min(cbToRead, kHeaderBytes - pContext->cbHeaderDone);
        std::memcpy(pbBuffer, pContext->abHeader + pContext->cbHeaderDone, cb);
        pContext->cbHeaderDone += cb;
        cbDone = cb;
    }
    const DWORD cbData = static_cast<DWORD>(std::min<uint64_t>(cbToRead - cbDone, pContext->ullDataLeft));
    if (cbData > 0)
    {
        DWORD cbRead = 0;
        if (!::ReadFile(hFile, pbBuffer + cbDone, cbData, &cbRead, nullptr))
            return FALSE;
        pContext->ullDataLeft -= cbRead;
        cbDone += cbRead;
    }
    *pcbRead = cbDone;
    return TRUE;
}

// Windows' BackupWrite: the bytes are a series of WIN32_STREAM_ID headers, each followed by its
// stream's name and data; the data of a BACKUP_DATA stream goes into the file, other streams are
// passed over. Every byte handed over is taken, unless the file takes fewer: then the count says
// how many were.
BOOL WINAPI BackupWriteAsWindows(HANDLE hFile, LPBYTE pbBuffer, DWORD cbToWrite, LPDWORD pcbWritten,
                                 BOOL bAbort, BOOL /*bProcessSecurity*/, LPVOID* ppContext)
{
    if (bAbort)
        return Abort(ppContext);
    *pcbWritten = 0;
    auto* pContext = static_cast<CStreamContext*>(*ppContext);
    if (!pContext)
        pContext = NewContext(hFile, ppContext);
    ++pContext->iCalls;
    if (pContext->iCalls == 2 && pContext->bWriteFault)
    {
        ::SetLastError(g_Faults.dwWriteError);
        return FALSE;
    }
    if (pContext->bShortWrite)
    {
        if (pContext->iCalls > 1)
            return TRUE; // a destination that takes nothing more
        cbToWrite = std::min(cbToWrite, g_Faults.cbShortWrite);
    }
    if (g_Faults.bHalfOfOneLargeWrite && !pContext->bHalfTaken && cbToWrite >= kLargeWrite)
    {
        pContext->bHalfTaken = true;
        cbToWrite /= 2;
    }

    DWORD cbDone = 0;
    while (cbDone < cbToWrite)
    {
        if (pContext->cbHeaderDone < kHeaderBytes)
        {
            const DWORD cb = std::min(cbToWrite - cbDone, kHeaderBytes - pContext->cbHeaderDone);
            std::memcpy(pContext->abHeader + pContext->cbHeaderDone, pbBuffer + cbDone, cb);
            pContext->cbHeaderDone += cb;
            cbDone += cb;
            if (pContext->cbHeaderDone == kHeaderBytes)
            {
                WIN32_STREAM_ID header = {};
                std::memcpy(&header, pContext->abHeader, kHeaderBytes);
                pContext->bDataStream = header.dwStreamId == BACKUP_DATA;
                pContext->ullNameLeft = header.dwStreamNameSize;
                pContext->ullDataLeft = static_cast<uint64_t>(header.Size.QuadPart);
            }
            continue;
        }
        if (pContext->ullNameLeft > 0)
        {
            const DWORD cb =
                static_cast<DWORD>(std::min<uint64_t>(cbToWrite - cbDone, pContext->ullNameLeft));
            pContext->ullNameLeft -= cb;
            cbDone += cb;
            continue;
        }
        const DWORD cb = static_cast<DWORD>(std::min<uint64_t>(cbToWrite - cbDone, pContext->ullDataLeft));
        if (cb > 0)
        {
            if (pContext->bDataStream)
            {
                DWORD cbWritten = 0;
                if (!::WriteFile(hFile, pbBuffer + cbDone, cb, &cbWritten, nullptr))
                    return FALSE;
                if (cbWritten < cb) // the file took less (a full disk): so does the stream
                {
                    pContext->ullDataLeft -= cbWritten;
                    *pcbWritten = cbDone + cbWritten;
                    return TRUE;
                }
            }
            pContext->ullDataLeft -= cb;
            cbDone += cb;
        }
        if (pContext->ullDataLeft == 0)
            pContext->cbHeaderDone = 0; // the next stream's header follows
    }
    *pcbWritten = cbDone;
    return TRUE;
}

CBackupStreamPatches::CBackupStreamPatches(HMODULE hModule)
{
    g_Faults = CBackupStreamFaults();
    m_vPatches.push_back(std::make_unique<CIatPatch>(hModule, "KERNEL32.dll", "BackupRead",
                                                     reinterpret_cast<const void*>(&BackupReadAsWindows)));
    m_vPatches.push_back(std::make_unique<CIatPatch>(hModule, "KERNEL32.dll", "BackupWrite",
                                                     reinterpret_cast<const void*>(&BackupWriteAsWindows)));
}

CBackupStreamPatches::~CBackupStreamPatches()
{
    g_Faults = CBackupStreamFaults();
}

bool CBackupStreamPatches::IsApplied() const
{
    return std::all_of(m_vPatches.begin(), m_vPatches.end(), [](const auto& p) { return p->IsApplied(); });
}

} // namespace winecompat
