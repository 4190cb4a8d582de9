#pragma once
// BackupRead and BackupWrite as Windows has them, for a module whose import table is patched to
// use them (Wine 8 answers both with ERROR_NOT_SUPPORTED). Only the unnamed data stream of a file
// is read and written; the stream's context lives in *lpContext between calls and is freed by a
// call with bAbort = TRUE. Faults can be asked for one file by its name.
#include <windows.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace winecompat
{

BOOL WINAPI BackupReadAsWindows(HANDLE hFile, LPBYTE pbBuffer, DWORD cbToRead, LPDWORD pcbRead, BOOL bAbort,
                                BOOL bProcessSecurity, LPVOID* ppContext);
BOOL WINAPI BackupWriteAsWindows(HANDLE hFile, LPBYTE pbBuffer, DWORD cbToWrite, LPDWORD pcbWritten,
                                 BOOL bAbort, BOOL bProcessSecurity, LPVOID* ppContext);

// What the stand-ins do wrong on purpose, for the file whose name (last path part) is sFileName.
struct CBackupStreamFaults
{
    std::wstring sReadFailFile; // BackupRead fails on its second call for this file
    DWORD dwReadError = ERROR_CRC;
    std::wstring sWriteFailFile; // BackupWrite fails on its second call for this file
    DWORD dwWriteError = ERROR_DISK_FULL;
    std::wstring sShortWriteFile; // BackupWrite takes cbShortWrite bytes once, then nothing
    DWORD cbShortWrite = 1000;
    // Every file: BackupWrite takes half of one large buffer, as a write may, and all of the rest.
    bool bHalfOfOneLargeWrite = false;
};

// The faults in force; reset by CBackupStreamPatches.
CBackupStreamFaults& BackupStreamFaults();
// Contexts handed out and not yet freed by an abort call.
int LiveBackupContexts();

class CIatPatch;

// Puts both stand-ins into hModule's import table (KERNEL32.dll) for the life of the object.
class CBackupStreamPatches
{
public:
    explicit CBackupStreamPatches(HMODULE hModule);
    ~CBackupStreamPatches();
    bool IsApplied() const;

private:
    std::vector<std::unique_ptr<CIatPatch>> m_vPatches;
};

} // namespace winecompat
