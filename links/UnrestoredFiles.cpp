#include "links/UnrestoredFiles.h"

#include <cwchar>

namespace morvane
{

namespace
{

// A folder as the start of the paths below it.
std::wstring FolderKey(const std::wstring& sFolder)
{
    return !sFolder.empty() && sFolder.back() == L'\\' ? sFolder : sFolder + L'\\';
}

} // namespace

bool CUnrestoredFiles::CNoCase::operator()(const std::wstring& s1, const std::wstring& s2) const
{
    return _wcsicmp(s1.c_str(), s2.c_str()) < 0;
}

void CUnrestoredFiles::Failed(const std::wstring& sPath) noexcept
{
    const std::lock_guard lock(m_lock);
    try
    {
        m_paths.insert(sPath);
    }
    catch (...) // no memory for the name: from now on no file counts as restored
    {
        m_bIncomplete = true;
    }
}

void CUnrestoredFiles::Restored(const std::wstring& sPath) noexcept
{
    const std::lock_guard lock(m_lock);
    if (!m_paths.empty())
        m_paths.erase(sPath);
}

bool CUnrestoredFiles::Contains(const std::wstring& sPath) const noexcept
{
    const std::lock_guard lock(m_lock);
    if (m_bIncomplete || m_paths.count(sPath) != 0)
        return true;
    for (const std::wstring& sFolder : m_unfinishedFolders)
        if (sPath.size() >= sFolder.size() && _wcsnicmp(sPath.c_str(), sFolder.c_str(), sFolder.size()) == 0)
            return true;
    return false;
}

void CUnrestoredFiles::WalkBegins(const std::wstring& sFolder) noexcept
{
    const std::lock_guard lock(m_lock);
    try
    {
        m_unfinishedFolders.insert(FolderKey(sFolder));
    }
    catch (...) // no memory for the mark: no file counts as restored
    {
        m_bIncomplete = true;
    }
}

void CUnrestoredFiles::WalkEnded(const std::wstring& sFolder) noexcept
{
    const std::lock_guard lock(m_lock);
    try
    {
        m_unfinishedFolders.erase(FolderKey(sFolder));
    }
    catch (...) // NOLINT(bugprone-empty-catch): no memory for the key: the folder stays unfinished
    {
    }
}

void CUnrestoredFiles::Clear() noexcept
{
    const std::lock_guard lock(m_lock);
    m_paths.clear();
    m_unfinishedFolders.clear();
    m_bIncomplete = false;
}

} // namespace morvane
