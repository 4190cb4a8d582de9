#pragma once
// Moving one name out of the way, or removing it, while the file's other names keep it. The restore
// uses it on a destination that an earlier run linked to other names, the link pass on the restored
// copy that stands where a link goes. Nothing here traces: the callers say what a failure means.
#include "platform/UniqueHandle.h"

#include <windows.h>

#include <string>

namespace morvane
{

// A name moved out of the way through one handle opened with DELETE: renamed to a short free name
// in its own folder ("~kefl<process>.<n>", so that a name of 255 characters can be moved too),
// then either removed through that handle (marked for removal, gone as the handle closes) or given
// its name back. The name is free from the rename on, whoever holds the file open.
class CNameAside
{
public:
    CNameAside() = default;
    CNameAside(CNameAside&&) = default;
    CNameAside& operator=(CNameAside&&) = default;
    CNameAside(const CNameAside&) = delete;
    CNameAside& operator=(const CNameAside&) = delete;

    // Moves the file (or link) at sPath aside. True with nothing moved when there is nothing at
    // sPath; false, with the error, when something is there and stays.
    bool Move(const std::wstring& sPath, DWORD& dwLastError);
    bool Moved() const { return m_hName.is_valid(); }
    // The name it has now, for the trace.
    const std::wstring& Aside() const { return m_sAside; }
    // Gives the file its name back; false, with the error, when it stays aside.
    bool PutBack(DWORD& dwLastError);
    // Removes it, a read-only file too, whose other names keep their attributes; false, with the
    // error, when the aside name stays.
    bool Remove(DWORD& dwLastError);

private:
    CUniqueFile m_hName;
    std::wstring m_sPath;
    std::wstring m_sAside;
};

// Removes the name sPath at once, a read-only file's too, through CNameAside: moved aside and
// marked on one handle, so that no process's death between the two leaves sPath's old file under
// its name. False, with the error, when the name stays.
bool RemoveName(const std::wstring& sPath, DWORD& dwLastError);

} // namespace morvane
