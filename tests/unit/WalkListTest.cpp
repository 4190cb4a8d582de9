// The walk's compact list: names kept in shared blocks, parents by index, paths built back.
#include "session/WalkList.h"

#include <gtest/gtest.h>

#include <cwchar>

TEST(WalkListTest, BuildsEveryPathBackAcrossBlocksOfNamesAndEntries)
{
    // 5,000 entries with names of 1 to 255 characters (about 40 blocks of names, 2 of entries);
    // every 500th is a folder that holds the entries after it.
    morvane::CWalkList walk;
    std::vector<std::wstring> vExpected;
    WIN32_FIND_DATAW fd{};
    uint32_t uiParent = morvane::CWalkEntry::kNoParent;
    for (uint32_t ui = 0; ui < 5000; ++ui)
    {
        const std::wstring sName(1 + ui % 255, L"abcdefghij"[ui % 10]);
        std::wcscpy(fd.cFileName, sName.c_str());
        fd.dwFileAttributes = ui % 500 == 0 ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_ARCHIVE;
        fd.nFileSizeLow = ui;
        const uint32_t uiIndex = walk.Add(fd, uiParent);
        vExpected.push_back((uiParent == morvane::CWalkEntry::kNoParent ? L"" : vExpected[uiParent]) + L"\\" +
                            sName);
        if (walk.Entry(uiIndex).IsDirectory())
            uiParent = uiIndex;
    }
    ASSERT_EQ(5000u, walk.Size());
    for (uint32_t ui = 0; ui < walk.Size(); ++ui)
    {
        std::wstring sPath = L"R:\\B";
        walk.AppendPath(ui, sPath);
        ASSERT_EQ(L"R:\\B" + vExpected[ui], sPath) << "entry " << ui;
        ASSERT_EQ(ui, walk.Entry(ui).ullSize) << "entry " << ui;
    }
}
