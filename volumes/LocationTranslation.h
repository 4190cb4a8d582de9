#pragma once
// The backup location in a form that survives the recovery console's new drive letters: a
// volume-name path for a local disk, the share's UNC path for a network drive, and back to the
// drive letter under which it is mounted now. These are KEFLImpl's operations of the same names
// and trace under "KEFLImpl::ConvertDLtoVOL", "KEFLImpl::ConvertVOLtoDL", "KEFLImpl::CheckIfWebDAV".
// On failure sPathOut may already hold a copy of sPathIn; callers must not use it then.
#include <string>

namespace morvane
{

// "E:\Backups" -> "\\?\Volume{guid}\Backups"; "Y:\Backups" (mapped) -> "\\server\share\Backups";
// a UNC path stays as it is.
bool ConvertDLtoVOL(const std::wstring& sPathIn, std::wstring& sPathOut);
// The reverse: the letter that now shows the volume or share, without a trailing backslash.
bool ConvertVOLtoDL(const std::wstring& sPathIn, std::wstring& sPathOut);
// Whether a UNC path is served by the WebDAV client or by the Windows file-sharing provider;
// false (bIsWebDAV untouched) when it is neither.
bool CheckIfWebDAV(const std::wstring& sPath, bool& bIsWebDAV);

} // namespace morvane
