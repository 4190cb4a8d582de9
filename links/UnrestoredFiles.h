#pragma once
// The files that a filespace restore could not copy whole. A hard link made to one of them would
// replace the link's own good copy with the damaged file, so the link pass asks here first. The
// restore records on several threads, hence the lock. A failure that cannot be recorded (no
// memory) makes every file count as unrestored: a link left unmade loses no name.
//
// A filespace's walk that has begun and not come to its end (a walk stopped by an exception
// hands over no more files, and those it never handed over are neither copied nor failed) leaves
// every file below its destination folder unrestored.
#include <mutex>
#include <set>
#include <string>

namespace morvane
{

class CUnrestoredFiles
{
public:
    // sPath as the restore names its destination ("E:\Docs\a.txt"); case does not matter.
    void Failed(const std::wstring& sPath) noexcept;
    void Restored(const std::wstring& sPath) noexcept;
    bool Contains(const std::wstring& sPath) const noexcept;
    // sFolder ("E:" or "E:\Mount\Data"): its walk begins, and ends having handed over every file.
    void WalkBegins(const std::wstring& sFolder) noexcept;
    void WalkEnded(const std::wstring& sFolder) noexcept;
    void Clear() noexcept;

private:
    struct CNoCase
    {
        bool operator()(const std::wstring& s1, const std::wstring& s2) const;
    };
    mutable std::mutex m_lock;
    std::set<std::wstring, CNoCase> m_paths;
    std::set<std::wstring, CNoCase> m_unfinishedFolders; // each with a backslash at its end
    bool m_bIncomplete = false;
};

} // namespace morvane
