#include "links/UnrestoredFiles.h"

#include <cwchar>

namespace morvane
{

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
    return m_bIncomplete || m_paths.count(sPath) != 0;
}

void CUnrestoredFiles::Clear() noexcept
{
    const std::lock_guard lock(m_lock);
    m_paths.clear();
    m_bIncomplete = false;
}

} // namespace morvane
