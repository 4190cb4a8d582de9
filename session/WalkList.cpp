#include "session/WalkList.h"

#include <cwchar>

namespace morvane
{

uint32_t CWalkList::Add(const WIN32_FIND_DATAW& fd, uint32_t uiParent)
{
    const size_t cchName = ::wcsnlen(fd.cFileName, MAX_PATH);
    // A name goes whole into one block; the rest of a block too short for it stays unused.
    if (m_vNameBlocks.empty() || m_cchNameBlockUsed + cchName > kNameBlockChars)
    {
        m_vNameBlocks.push_back(std::make_unique_for_overwrite<wchar_t[]>(kNameBlockChars));
        m_cchNameBlockUsed = 0;
    }
    if (m_uiSize % kEntriesPerBlock == 0 && m_uiSize / kEntriesPerBlock == m_vEntryBlocks.size())
        m_vEntryBlocks.push_back(std::make_unique_for_overwrite<CWalkEntry[]>(kEntriesPerBlock));

    wchar_t* const pwszName = m_vNameBlocks.back().get() + m_cchNameBlockUsed;
    std::wmemcpy(pwszName, fd.cFileName, cchName);
    CWalkEntry& entry = m_vEntryBlocks[m_uiSize / kEntriesPerBlock][m_uiSize % kEntriesPerBlock];
    entry.ftCreation = fd.ftCreationTime;
    entry.ftLastAccess = fd.ftLastAccessTime;
    entry.ftLastWrite = fd.ftLastWriteTime;
    entry.ullSize = (static_cast<uint64_t>(fd.nFileSizeHigh) << 32) | fd.nFileSizeLow;
    entry.ullName = (m_vNameBlocks.size() - 1) * kNameBlockChars + m_cchNameBlockUsed;
    entry.uiParent = uiParent;
    entry.dwAttributes = fd.dwFileAttributes;
    entry.cchName = static_cast<uint16_t>(cchName);
    m_cchNameBlockUsed += cchName;
    return m_uiSize++;
}

void CWalkList::AppendPath(uint32_t uiIndex, std::wstring& sPath) const
{
    // Measured first, then filled from the name backwards: no list of the ancestors is needed,
    // however deep the entry lies.
    size_t cchBelow = 0;
    for (uint32_t ui = uiIndex; ui != CWalkEntry::kNoParent; ui = Entry(ui).uiParent)
        cchBelow += 1 + Entry(ui).cchName;
    size_t pos = sPath.size() + cchBelow;
    sPath.resize(pos);
    for (uint32_t ui = uiIndex; ui != CWalkEntry::kNoParent; ui = Entry(ui).uiParent)
    {
        const CWalkEntry& entry = Entry(ui);
        pos -= entry.cchName;
        std::wmemcpy(&sPath[pos], Name(entry), entry.cchName);
        sPath[--pos] = L'\\';
    }
}

uint64_t CWalkList::HeapBytes() const
{
    return m_vEntryBlocks.size() * kEntriesPerBlock * sizeof(CWalkEntry) +
           m_vNameBlocks.size() * kNameBlockChars * sizeof(wchar_t) +
           m_vEntryBlocks.capacity() * sizeof(m_vEntryBlocks[0]) +
           m_vNameBlocks.capacity() * sizeof(m_vNameBlocks[0]);
}

} // namespace morvane
