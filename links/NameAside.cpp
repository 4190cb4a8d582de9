#include "links/NameAside.h"

#include <atomic>
#include <cstring>
#include <cwchar>
#include <vector>

namespace morvane
{
namespace
{

constexpr int kAsideNames = 100;

bool SetAttributes(HANDLE hFile, DWORD dwAttributes)
{
    FILE_BASIC_INFO basic{}; // times of 0 are left as they are
    basic.FileAttributes = dwAttributes != 0 ? dwAttributes : FILE_ATTRIBUTE_NORMAL;
    return ::SetFileInformationByHandle(hFile, FileBasicInfo, &basic, sizeof(basic)) != FALSE;
}

// Renames the file behind hName to sNewPath, a whole path. A bare name would do on Windows, which
// renames within the file's folder, but Wine 8 takes it relative to the current folder.
bool Rename(HANDLE hName, const std::wstring& sNewPath, DWORD& dwLastError)
{
    // The system's own form of the path: "\??\E:\..." where the caller has "\\?\E:\...".
    const std::wstring sNewName = L"\\??\\" + (sNewPath.rfind(L"\\\\?\\", 0) == 0 ? sNewPath.substr(4) : sNewPath);
    const size_t cbName = sNewName.size() * sizeof(wchar_t);
    std::vector<ULONGLONG> vBuffer((sizeof(FILE_RENAME_INFO) + cbName) / sizeof(ULONGLONG) + 1);
    auto* pInfo = reinterpret_cast<FILE_RENAME_INFO*>(vBuffer.data());
    pInfo->ReplaceIfExists = FALSE;
    pInfo->RootDirectory = nullptr;
    pInfo->FileNameLength = static_cast<DWORD>(cbName);
    std::memcpy(pInfo->FileName, sNewName.c_str(), cbName);
    if (::SetFileInformationByHandle(hName, FileRenameInfo, pInfo,
                                     static_cast<DWORD>(sizeof(FILE_RENAME_INFO) + cbName)))
        return true;
    dwLastError = ::GetLastError();
    return false;
}

bool MarkForRemoval(HANDLE hName, DWORD& dwLastError)
{
    FILE_DISPOSITION_INFO disposition{TRUE};
    if (::SetFileInformationByHandle(hName, FileDispositionInfo, &disposition, sizeof(disposition)))
        return true;
    dwLastError = ::GetLastError();
    return false;
}

// Marks the file for removal, a read-only one too: its bit is cleared for the mark and put back,
// so that the file's other names, if any, keep their attributes.
bool MarkReadOnlyToo(HANDLE hName, DWORD& dwLastError)
{
    FILE_BASIC_INFO basic{};
    if (!::GetFileInformationByHandleEx(hName, FileBasicInfo, &basic, sizeof(basic)))
    {
        dwLastError = ::GetLastError();
        return false;
    }
    const DWORD dwAttributes = basic.FileAttributes;
    const bool bReadOnly = (dwAttributes & FILE_ATTRIBUTE_READONLY) != 0;
    if (bReadOnly && !SetAttributes(hName, dwAttributes & ~FILE_ATTRIBUTE_READONLY))
    {
        dwLastError = ::GetLastError();
        return false;
    }
    const bool bMarked = MarkForRemoval(hName, dwLastError);
    if (bReadOnly)
        SetAttributes(hName, dwAttributes); // the other names' bit; a failure here loses no data
    return bMarked;
}

std::wstring FolderOf(const std::wstring& sPath)
{
    const size_t iSlash = sPath.find_last_of(L"\\/");
    return iSlash == std::wstring::npos ? std::wstring() : sPath.substr(0, iSlash + 1);
}

} // namespace

bool CNameAside::Move(const std::wstring& sPath, DWORD& dwLastError)
{
    m_hName.reset(::CreateFileW(sPath.c_str(), DELETE | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!m_hName)
    {
        dwLastError = ::GetLastError();
        return dwLastError == ERROR_FILE_NOT_FOUND || dwLastError == ERROR_PATH_NOT_FOUND;
    }
    // Unique within the process by the counter, between processes by the process id; a name left by
    // a process of the same id is stepped over.
    static std::atomic<uint32_t> s_uiNext{0};
    for (int iName = 0; iName < kAsideNames; ++iName)
    {
        wchar_t wszName[40] = {};
        _snwprintf(wszName, 39, L"~kefl%lx.%x", ::GetCurrentProcessId(), s_uiNext.fetch_add(1));
        if (Rename(m_hName.get(), FolderOf(sPath) + wszName, dwLastError))
        {
            m_sPath = sPath;
            m_sAside = FolderOf(sPath) + wszName;
            return true;
        }
        if (dwLastError != ERROR_ALREADY_EXISTS && dwLastError != ERROR_FILE_EXISTS)
            break;
    }
    m_hName.reset(); // every free name taken, or the rename refused: the file stays where it is
    return false;
}

bool CNameAside::PutBack(DWORD& dwLastError)
{
    if (!m_hName)
        return true;
    const bool bBack = Rename(m_hName.get(), m_sPath, dwLastError);
    m_hName.reset();
    return bBack;
}

bool CNameAside::Remove(DWORD& dwLastError)
{
    const bool bRemoved = !m_hName || MarkReadOnlyToo(m_hName.get(), dwLastError);
    m_hName.reset(); // the file goes with the handle
    return bRemoved;
}

bool RemoveName(const std::wstring& sPath, DWORD& dwLastError)
{
    CNameAside aside;
    if (!aside.Move(sPath, dwLastError))
        return false;
    if (!aside.Moved())
        return false; // nothing there: dwLastError says so
    dwLastError = ERROR_SUCCESS;
    return aside.Remove(dwLastError);
}

} // namespace morvane
