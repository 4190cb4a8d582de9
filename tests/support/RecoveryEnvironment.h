#pragma once
// The recovery system as the tests see it: the host's folders and the files that configure the
// module. On Wine the prefix made by wine/prepare-env.sh provides the drive letters; on Windows
// the same letters must be mapped by hand.
#include "VESK.h"
#include "support/Recorders.h"

#include <windows.h>

#include <array>
#include <map>
#include <string>

namespace kefltest
{

// Where the host (and this test program) is installed, and where the module writes its trace logs when
// qtx.ini names no other folder.
std::wstring HostDir();
std::wstring LogDir();
// The host's own log folder (Version.log) when qtx.ini names none: on the recovery system in the
// configuration drive, else beside the host.
std::wstring HostLogDir();

// Writes trace.ini's section "Main" with the given keys where the module reads it: in the configuration
// folder on the recovery system, else beside the host.
void WriteTraceIni(const std::map<std::wstring, std::wstring>& keys);
// A whole text file, with a modification time of its own: no profile cache answers with an older copy.
void WriteTextFile(const std::wstring& sPath, const std::string& sText);
// A UTF-16 file as Windows' own tools write one: the byte-order mark FF FE, then UTF-16LE.
void WriteUtf16File(const std::wstring& sPath, const std::wstring& sText);
void RemoveFile(const std::wstring& sPath);
// The helpers below take drive paths of any length, through their "\\?\" form (LongPath).
// RemoveTree removes a folder and everything in it, read-only files too, or a single file; with
// bKeepRoot the folder itself stays, emptied. MakeFolders makes every missing folder of a path.
void RemoveTree(const std::wstring& sPath, bool bKeepRoot = false);
bool FileExists(const std::wstring& sPath);
std::wstring LongPath(const std::wstring& sPath);
void MakeFolders(const std::wstring& sPath);
// A file's whole content; ReadBytes answers "<missing>" for a file it cannot open.
void WriteBytes(const std::wstring& sPath, const std::string& sBytes);
std::string ReadBytes(const std::wstring& sPath);
// cb bytes of a repeatable pseudo-random pattern: two seeds give two different contents.
std::string Pattern(size_t cb, uint32_t uiSeed);
// A file's link count and index on its volume: two names of one file have the same index.
struct CFileIdentity
{
    DWORD dwLinks = 0;
    uint64_t ullIndex = 0;
};
CFileIdentity FileIdentity(const std::wstring& sPath);
// What a restore gives back of a file or folder beside its bytes: the attributes it restores and
// the creation, last-access and last-write times, by path below sRoot (of sRel and what is below it),
// without the volume's own folder at the top, "System Volume Information".
struct CMetadata
{
    DWORD dwAttributes = 0;
    std::array<uint64_t, 3> times = {}; // creation, last access, last write
    bool operator==(const CMetadata&) const = default;
};
std::map<std::wstring, CMetadata> ReadMetadata(const std::wstring& sRoot, const std::wstring& sRel = L"");
void WriteMetadata(const std::wstring& sPath, const CMetadata& metadata);

// Removes trace.ini and qtx.ini, so that every test starts from the module's defaults.
void ResetHostConfiguration();

} // namespace kefltest
