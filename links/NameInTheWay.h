#pragma once
// What a restore finds at a name it is about to make, seen without following a reparse point, and
// the removal of a link that stands there. The target disk may hold what an earlier state left: a
// junction or symbolic link where the backup has a real folder or file. Writing through it would
// put the backup's files into whatever the link points to, so the link itself goes and the real
// folder or file is made. A volume mount point is no such link: the volume behind it is restored
// through it, as a filespace of its own.
#include <windows.h>

#include <string>

namespace morvane
{

enum class NameKind
{
    Nothing,
    Folder,           // a real folder
    File,             // a real file (a reparse point that holds data is a link here too)
    Link,             // a junction or symbolic link, to a folder or a file, or any other reparse point
    VolumeMountPoint, // a reparse point whose target is a volume ("\??\Volume{...}\")
};

// What stands at sPath (its long-path form); dwAttributes gets its attributes.
NameKind ExamineName(const std::wstring& sPath, DWORD& dwAttributes);

// Removes the link at sPath itself, never its target or anything below it; dwAttributes as
// ExamineName gave them. False, with the error, when it stays.
bool RemoveLink(const std::wstring& sPath, DWORD dwAttributes, DWORD& dwLastError);

} // namespace morvane
