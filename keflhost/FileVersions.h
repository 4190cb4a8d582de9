#pragma once
// The versions of keflhost's files, for --version: its own, and the version resources of the
// restore process and the library beside it, read from the files without loading them.
#include <string>

namespace keflhost
{

// The ProductVersion text of a file's version resource; empty when it has none or cannot be read.
std::wstring ProductVersionOf(const std::wstring& sPath);
// "keflhost.exe     <version>" and a line for each of keflrestore.exe and KEFL.dll in sFolder.
std::wstring DescribeVersions(const std::wstring& sFolder);

} // namespace keflhost
