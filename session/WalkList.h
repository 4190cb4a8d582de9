#pragma once
// What the walk of a filespace's source tree found: every folder and file in walk order, with the
// totals that the progress shows. A file server's volume holds millions of entries and the
// recovery system has no page file, so an entry keeps only its own name (in a shared arena) and
// its parent's index; full paths are built when needed, into a buffer the caller reuses. Both the
// entries and the names grow in fixed-size blocks: growing never copies what is there, so the
// peak stays at the final size plus one block of each.
#include <windows.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace morvane
{

struct CWalkEntry
{
    static constexpr uint32_t kNoParent = 0xFFFFFFFF; // an entry at the top of the walked folder

    // As the find data gave them: what the restored copy gets back.
    FILETIME ftCreation;
    FILETIME ftLastAccess;
    FILETIME ftLastWrite;
    uint64_t ullSize;
    uint64_t ullName; // where the name starts in the arena
    uint32_t uiParent;
    DWORD dwAttributes;
    uint16_t cchName;

    bool IsDirectory() const { return (dwAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
};

// Millions of these are held at once: an entry stays within 64 bytes beside its name.
static_assert(sizeof(CWalkEntry) <= 64);

class CWalkList
{
public:
    // Appends an entry for the find data's file or folder; answers its index.
    uint32_t Add(const WIN32_FIND_DATAW& fd, uint32_t uiParent);

    uint32_t Size() const { return m_uiSize; }
    const CWalkEntry& Entry(uint32_t uiIndex) const
    {
        return m_vEntryBlocks[uiIndex / kEntriesPerBlock][uiIndex % kEntriesPerBlock];
    }
    const wchar_t* Name(const CWalkEntry& entry) const
    {
        return m_vNameBlocks[entry.ullName / kNameBlockChars].get() + entry.ullName % kNameBlockChars;
    }
    // Appends "\folder\...\name", the entry's path below the walked folder, to sPath.
    void AppendPath(uint32_t uiIndex, std::wstring& sPath) const;
    // What the list holds on the heap.
    uint64_t HeapBytes() const;

    uint64_t ullFiles = 0;
    uint64_t ullDirectories = 0;
    uint64_t ullBytes = 0; // sum of the files' sizes

private:
    static constexpr uint32_t kEntriesPerBlock = 4096;
    static constexpr uint64_t kNameBlockChars = 16384; // a name has at most 255 characters

    std::vector<std::unique_ptr<CWalkEntry[]>> m_vEntryBlocks;
    std::vector<std::unique_ptr<wchar_t[]>> m_vNameBlocks;
    uint32_t m_uiSize = 0;
    uint64_t m_cchNameBlockUsed = 0; // of the last name block
};

} // namespace morvane
