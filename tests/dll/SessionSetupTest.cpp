// Starting a restore session: the credentials, the backup location, the link-point files.
#include "dll/SessionFixture.h"

#include <algorithm>
#include <shlwapi.h>

using namespace kefltest;

TEST_F(SessionFixture, InitTakesABackupFolderOrADriveRootAndStartsOverWhenCalledAgain)
{
    MakeBackup(L"F:");
    // A root is taken without looking at it as a folder: F:\ here cannot be looked at (access denied).
    static decltype(&::PathIsDirectoryW) s_pfnReal = nullptr;
    s_pfnReal = m_patches.Patch(m_pLibrary->Module(), "SHLWAPI.dll", "PathIsDirectoryW",
                                +[](LPCWSTR pwszPath) -> BOOL
                                {
                                    if (_wcsicmp(pwszPath, L"F:\\") != 0)
                                        return s_pfnReal(pwszPath);
                                    return WithLastError(ERROR_ACCESS_DENIED, FALSE);
                                });
    for (const wchar_t* pwszLocation : {kBackup, L"F:\\", kBackup})
    {
        RemoveFile(KeflLogPath());
        EXPECT_TRUE(m_pClient->Init(Credentials(pwszLocation).get()))
            << testing::PrintToString(std::wstring(pwszLocation)) << ": "
            << testing::PrintToString(ErrorText());
        EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::ParseHPoint : PointList.size() = 1"))
            << "link points loaded";
    }
    RemoveTree(L"F:", true);
}

TEST_F(SessionFixture, InitRefusesWhatIsNoBackup)
{
    const struct
    {
        const wchar_t* pwszLocation; // nullptr: credentials of another kind
        const wchar_t* pwszRemoved;  // from the backup, first
        const wchar_t* pwszError;    // the error message, also the last error text
        const wchar_t* pwszEnding;
    } cases[] = {
        {nullptr, nullptr, L"No error", L"Not an PSF credential"},
        {kBackup, L"R:\\Backup\\#\\HPoint.dat", L"No error", L"Couldn't parse HPoint.dat"},
        {L"R:\\No such backup", nullptr, L"Failed to initialize KEFL", L"PathIsDirectory failed"},
        {kBackup, L"R:\\Backup\\#", L"No ZOVA configuration found at target location",
         L"PathIsDirectory failed"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(testing::PrintToString(std::wstring(c.pwszEnding)));
        RemoveTree(c.pwszRemoved ? c.pwszRemoved : L"R:\\Nothing");
        RemoveFile(KeflLogPath());
        g_vMessages.clear();
        EXPECT_FALSE(m_pClient->Init(c.pwszLocation ? Credentials(c.pwszLocation).get() : nullptr));
        EXPECT_EQ(c.pwszError, ErrorText());
        EXPECT_EQ(ErrorText() == L"No error" ? 0 : 1,
                  std::ranges::count(g_vMessages, 3u, &CMessage::uiSeverity));
        EXPECT_TRUE(ErrorText() == L"No error" || HasMessage(3, c.pwszError));
        EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::Init : ... ending(" + std::wstring(c.pwszEnding) + L")"));
    }
}
