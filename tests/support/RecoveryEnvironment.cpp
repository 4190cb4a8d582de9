#include "support/RecoveryEnvironment.h"

#include "platform/UniqueHandle.h"
#include "platform/WindowsVersion.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <bit>

namespace kefltest
{

std::wstring HostDir()
{
    wchar_t wszPath[MAX_PATH] = {};
    const std::wstring sPath(wszPath, ::GetModuleFileNameW(nullptr, wszPath, MAX_PATH));
    return sPath.substr(0, sPath.rfind(L'\\'));
}

std::wstring LogDir()
{
    return HostDir() + L"\\Logfiles";
}

// The recovery system reports Windows 5.2 with the MiniNT key.
static bool OnRecoverySystem()
{
    return morvane::CWindowsVersion::Instance().GetCode() == morvane::OSCODE_WINPE_52;
}

std::wstring HostLogDir()
{
    return OnRecoverySystem() ? L"Z:\\DURN\\Logfiles" : L"X:\\Program Files\\Morvane\\DURN\\Logfiles";
}

static std::wstring TraceIniPath()
{
    return (OnRecoverySystem() ? std::wstring(L"Z:\\DURN") : HostDir()) + L"\\trace.ini";
}

void WriteTextFile(const std::wstring& sPath, const std::string& sText)
{
    WriteBytes(sPath, sText);
    // A time of its own for every write: Wine answers profile reads from a cache while a file's name and
    // modification time stay the same. In the past, a day back and a second apart: Wine reads a file dated in
    // the future or changed in the last seconds afresh on every call, which makes large files slow.
    static ULONGLONG s_ullTick = 0;
    FILETIME ft;
    ::GetSystemTimeAsFileTime(&ft);
    const ULONGLONG ullTime = ((ULONGLONG(ft.dwHighDateTime) << 32) | ft.dwLowDateTime) -
                              86400ULL * 10000000ULL + ++s_ullTick * 10000000ULL;
    ft = {static_cast<DWORD>(ullTime), static_cast<DWORD>(ullTime >> 32)};
    morvane::CUniqueFile hFile(::CreateFileW(LongPath(sPath).c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ,
                                             nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    EXPECT_TRUE(hFile && ::SetFileTime(hFile.get(), nullptr, nullptr, &ft)) << ::GetLastError();
}

void WriteTraceIni(const std::map<std::wstring, std::wstring>& keys)
{
    std::string sText = "[Main]\r\n";
    for (const auto& [sKey, sValue] : keys)
        sText +=
            std::string(sKey.begin(), sKey.end()) + "=" + std::string(sValue.begin(), sValue.end()) + "\r\n";
    WriteTextFile(TraceIniPath(), sText);
}

void WriteUtf16File(const std::wstring& sPath, const std::wstring& sText)
{
    // wchar_t is UTF-16LE on Windows: its bytes are the file's.
    WriteTextFile(sPath,
                  "\xFF\xFE" + std::string(reinterpret_cast<const char*>(sText.data()), sText.size() * 2));
}

void RemoveFile(const std::wstring& sPath)
{
    ::DeleteFileW(sPath.c_str());
}

void RemoveTree(const std::wstring& sPath, bool bKeepRoot)
{
    const std::wstring sDir = LongPath(sPath);
    const DWORD dwAttributes = ::GetFileAttributesW(sDir.c_str()); // none for "\\?\E:"
    if (!bKeepRoot) // read-only goes first, or the removal is refused
        ::SetFileAttributesW(sDir.c_str(), FILE_ATTRIBUTE_NORMAL);
    if (dwAttributes != INVALID_FILE_ATTRIBUTES && !(dwAttributes & FILE_ATTRIBUTE_DIRECTORY))
        return void(::DeleteFileW(sDir.c_str()));
    WIN32_FIND_DATAW fd;
    morvane::CUniqueFind hFind(::FindFirstFileW((sDir + L"\\*").c_str(), &fd));
    for (bool bMore = hFind.is_valid(); bMore; bMore = ::FindNextFileW(hFind.get(), &fd))
        if (std::wstring(fd.cFileName) != L"." && std::wstring(fd.cFileName) != L"..")
            RemoveTree(sDir + L"\\" + fd.cFileName);
    hFind.reset();
    if (!bKeepRoot)
        ::RemoveDirectoryW(sDir.c_str());
}

bool FileExists(const std::wstring& sPath)
{
    return ::GetFileAttributesW(LongPath(sPath).c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::wstring LongPath(const std::wstring& sPath)
{
    // Drive paths only: a UNC or relative path keeps its form.
    const bool bDrivePath = sPath.size() >= 2 && sPath[1] == L':';
    return bDrivePath ? L"\\\\?\\" + sPath : sPath;
}

void MakeFolders(const std::wstring& sPath)
{
    for (size_t pos = sPath.find(L'\\', 3); pos != std::wstring::npos; pos = sPath.find(L'\\', pos + 1))
        ::CreateDirectoryW(LongPath(sPath.substr(0, pos)).c_str(), nullptr);
    ::CreateDirectoryW(LongPath(sPath).c_str(), nullptr);
}

void WriteBytes(const std::wstring& sPath, const std::string& sBytes)
{
    morvane::CUniqueFile hFile(::CreateFileW(LongPath(sPath).c_str(), GENERIC_WRITE, 0, nullptr,
                                             CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(hFile) << "cannot create " << testing::PrintToString(sPath) << ", error " << ::GetLastError();
    DWORD cbWritten = 0;
    ASSERT_TRUE(
        ::WriteFile(hFile.get(), sBytes.data(), static_cast<DWORD>(sBytes.size()), &cbWritten, nullptr));
}

std::string ReadBytes(const std::wstring& sPath)
{
    morvane::CUniqueFile hFile(::CreateFileW(LongPath(sPath).c_str(), GENERIC_READ,
                                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                             OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    std::string sBytes;
    char buf[65536];
    DWORD cbRead = 0;
    while (hFile && ::ReadFile(hFile.get(), buf, sizeof(buf), &cbRead, nullptr) && cbRead > 0)
        sBytes.append(buf, cbRead);
    return hFile ? sBytes : "<missing>";
}

std::string Pattern(size_t cb, uint32_t uiSeed)
{
    std::string s(cb, '\0');
    uint32_t x = uiSeed * 2654435761u + 1;
    for (char& c : s)
    {
        x = x * 1664525u + 1013904223u;
        c = static_cast<char>(x >> 24);
    }
    return s;
}

CFileIdentity FileIdentity(const std::wstring& sPath)
{
    morvane::CUniqueFile hFile(::CreateFileW(LongPath(sPath).c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                             nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    BY_HANDLE_FILE_INFORMATION info{};
    if (!hFile || !::GetFileInformationByHandle(hFile.get(), &info))
        return {};
    return {info.nNumberOfLinks, (uint64_t(info.nFileIndexHigh) << 32) | info.nFileIndexLow};
}

void ResetHostConfiguration()
{
    RemoveFile(TraceIniPath());
    RemoveFile(HostDir() + L"\\qtx.ini");
}

std::map<std::wstring, CMetadata> ReadMetadata(const std::wstring& sRoot, const std::wstring& sRel)
{
    constexpr DWORD kRestored = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM |
                                FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_ARCHIVE |
                                FILE_ATTRIBUTE_NOT_CONTENT_INDEXED | FILE_ATTRIBUTE_OFFLINE;
    std::map<std::wstring, CMetadata> tree;
    WIN32_FIND_DATAW fd;
    morvane::CUniqueFind hFind(::FindFirstFileW(LongPath(sRoot + sRel + L"\\*").c_str(), &fd));
    for (bool bMore = hFind.is_valid(); bMore; bMore = ::FindNextFileW(hFind.get(), &fd))
    {
        const std::wstring sName = fd.cFileName, sPath = sRel + L"\\" + sName;
        // The volume's own folder holds the restore's checkpoint, no file of the tree.
        if (sName == L"." || sName == L".." || sPath == L"\\System Volume Information")
            continue;
        const FILETIME ft[] = {fd.ftCreationTime, fd.ftLastAccessTime, fd.ftLastWriteTime};
        tree[sPath] = {fd.dwFileAttributes & kRestored, std::bit_cast<std::array<uint64_t, 3>>(ft)};
        if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            tree.merge(ReadMetadata(sRoot, sPath));
    }
    return tree;
}

void WriteMetadata(const std::wstring& sPath, const CMetadata& metadata)
{
    const auto ft = std::bit_cast<std::array<FILETIME, 3>>(metadata.times);
    const DWORD dwAttributes = metadata.dwAttributes & ~FILE_ATTRIBUTE_DIRECTORY;
    morvane::CUniqueFile hFile(::CreateFileW(LongPath(sPath).c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ,
                                             nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    EXPECT_TRUE(hFile && ::SetFileTime(hFile.get(), &ft[0], &ft[1], &ft[2])) << ::GetLastError();
    hFile.reset();
    EXPECT_TRUE(
        ::SetFileAttributesW(LongPath(sPath).c_str(), dwAttributes ? dwAttributes : FILE_ATTRIBUTE_NORMAL))
        << ::GetLastError();
}

} // namespace kefltest
