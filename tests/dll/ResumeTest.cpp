// A restore run again after an interruption, with KEFL_SkipUnchanged=1: what an earlier run
// restored whole is kept, and only what differs from the backup is read from it again.
#include "dll/SessionFixture.h"

#include "winecompat/BackupStreams.h"

#include <algorithm>

using namespace kefltest;

namespace
{

// Opens of the backup's copies of drive E, counted at KEFL.dll's import table.
decltype(&::CreateFileW) g_pfnRealCreateFile = nullptr;
int g_iBackupOpens = 0;

HANDLE WINAPI CountBackupOpens(LPCWSTR pwszPath, DWORD dwAccess, DWORD dwShare, LPSECURITY_ATTRIBUTES pSa,
                               DWORD dwDisposition, DWORD dwFlags, HANDLE hTemplate)
{
    if (std::wcsstr(pwszPath, L"\\Backup\\E\\"))
        ++g_iBackupOpens;
    return g_pfnRealCreateFile(pwszPath, dwAccess, dwShare, pSa, dwDisposition, dwFlags, hTemplate);
}

enum class Change
{
    None,      // kept
    Deleted,   // copied again
    Cut,       // shorter, with the time of the interruption: copied again
    Rewritten, // the same size, a later time: copied again
};

} // namespace

TEST_F(SessionFixture, ASecondRestoreWithSkipUnchangedReadsOnlyWhatDiffers)
{
    const struct
    {
        const wchar_t* pwszName;
        Change change;
    } kFiles[] = {{L"kept.bin", Change::None},         {L"Sub\\kept.bin", Change::None},
                  {L"deleted.bin", Change::Deleted},   {L"Sub\\cut.bin", Change::Cut},
                  {L"rewritten.bin", Change::Rewritten}, {L"empty.bin", Change::None}};
    const winecompat::CBackupStreamPatches streams(m_pLibrary->Module());
    g_pfnRealCreateFile = m_patches.Patch(m_pLibrary->Module(), "KERNEL32.dll", "CreateFileW", &CountBackupOpens);
    RemoveTree(L"E:", true);
    MakeFolders(std::wstring(kBackup) + L"\\E\\Sub");
    uint32_t uiSeed = 0;
    for (const auto& file : kFiles)
        WriteBytes(std::wstring(kBackup) + L"\\E\\" + file.pwszName,
                   Pattern(std::wcsstr(file.pwszName, L"empty") ? 0 : 100000, ++uiSeed));
    ASSERT_TRUE(m_pClient->Init(Credentials(kBackup).get()));
    morvane::Filespace fs{};
    fs.wcFsDriveLetter = L'E';
    const auto Restore = [&](const wchar_t* pwszSkip)
    {
        WriteTraceIni({{L"KEFL_SkipUnchanged", pwszSkip}, {L"KEFL_RestoreThreads", L"8"}});
        g_iBackupOpens = 0;
        g_vProgress.clear();
        m_pClient->SetProgMsgCallbackFn(&RecordProgress, 0);
        EXPECT_TRUE(m_pClient->RestoreFilespace(fs)) << testing::PrintToString(ErrorText());
        EXPECT_EQ(g_vProgress.back().ullTotal, g_vProgress.back().ullBytesDone) << "progress ends at the total";
        return g_iBackupOpens;
    };
    EXPECT_EQ(6, Restore(L"1")) << "a first restore finds nothing to keep";
    for (const auto& file : kFiles)
    {
        const std::wstring sRestored = std::wstring(L"E:\\") + file.pwszName;
        if (file.change == Change::Deleted)
            RemoveFile(sRestored);
        if (file.change == Change::Cut)
            WriteBytes(sRestored, ReadBytes(sRestored).substr(0, 5000));
        if (file.change == Change::Rewritten)
            WriteBytes(sRestored, Pattern(100000, 99));
    }
    EXPECT_EQ(3, Restore(L"1")) << "the deleted, the cut and the rewritten file";
    const auto backup = ReadMetadata(std::wstring(kBackup) + L"\\E");
    const auto restored = ReadMetadata(L"E:");
    for (const auto& file : kFiles)
    {
        const std::wstring sRel = std::wstring(L"\\") + file.pwszName;
        EXPECT_TRUE(ReadBytes(L"E:" + sRel) == ReadBytes(std::wstring(kBackup) + L"\\E" + sRel)) << testing::PrintToString(sRel);
        EXPECT_EQ(backup.at(sRel).times[2], restored.at(sRel).times[2]) << testing::PrintToString(sRel);
    }
    EXPECT_EQ(6, Restore(L"0")) << "without the setting, every file is copied";
    RemoveTree(L"E:", true);
}
