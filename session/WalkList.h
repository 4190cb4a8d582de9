#pragma once
// What the count of a filespace's source tree found: every folder and file in walk order, with
// the totals that the progress shows.
#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace morvane
{

struct CWalkEntry
{
    std::wstring sPath; // full source path
    bool bDirectory = false;
    // As the find data gave them: what the restored copy gets back.
    DWORD dwAttributes = 0;
    FILETIME ftCreation = {};
    FILETIME ftLastAccess = {};
    FILETIME ftLastWrite = {};
};

struct CWalkList
{
    std::vector<CWalkEntry> vEntries;
    uint64_t ullFiles = 0;
    uint64_t ullDirectories = 0;
    uint64_t ullBytes = 0; // sum of the files' sizes
};

} // namespace morvane
