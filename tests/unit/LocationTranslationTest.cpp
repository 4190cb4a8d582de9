// Drive letters, volume names and shares. Local drives are Wine's real volumes (the prefix's
// letters have volume names); shares and providers are presented as Windows presents them.
#include "support/IatPatch.h"
#include "support/RecoveryEnvironment.h"
#include "support/TraceLog.h"
#include "trace/TraceObjects.h"
#include "volumes/LocationTranslation.h"

#include <gtest/gtest.h>

#include <windows.h>
#include <winnetwk.h>

#include <cstring>
#include <cwchar>
#include <map>
#include <memory>
#include <vector>

using namespace kefltest;
using morvane::CheckIfWebDAV;
using morvane::ConvertDLtoVOL;
using morvane::ConvertVOLtoDL;

namespace
{

using GetVolumePathNameFn = BOOL(WINAPI*)(LPCWSTR, LPWSTR, DWORD);
GetVolumePathNameFn g_pfnRealGetVolumePathName = nullptr;

// Windows answers the volume root for a volume-name path and "\\server\share\" for a UNC path;
// Wine 8 fails both. Every other path goes to the real call.
BOOL WINAPI GetVolumePathNameAsWindows(LPCWSTR pwszPath, LPWSTR pwszVolumePath, DWORD cch)
{
    const std::wstring sPath = pwszPath;
    size_t cchRoot = 0;
    if (sPath.rfind(L"\\\\?\\Volume{", 0) == 0)
        cchRoot = sPath.find(L'}') + 2;
    else if (sPath.rfind(L"\\\\", 0) == 0)
        cchRoot = sPath.find(L'\\', sPath.find(L'\\', 2) + 1) + 1;
    if (cchRoot == 0)
        return g_pfnRealGetVolumePathName(pwszPath, pwszVolumePath, cch);
    const std::wstring sRoot =
        cchRoot <= sPath.size() && cchRoot > 0 ? sPath.substr(0, cchRoot) : sPath + L"\\";
    wcsncpy_s(pwszVolumePath, cch, sRoot.c_str(), _TRUNCATE);
    return TRUE;
}

// Mapped network drives as a test lays them out: letter -> connection; drive types of the rest.
std::map<wchar_t, std::wstring> g_mapShares;
std::map<wchar_t, UINT> g_mapDriveTypes;
int g_iDriveTypeCalls = 0;

UINT WINAPI GetDriveTypeAsLaidOut(LPCWSTR pwszRoot)
{
    ++g_iDriveTypeCalls;
    const wchar_t wcLetter = static_cast<wchar_t>(towupper(pwszRoot[0]));
    if (g_mapShares.count(wcLetter))
        return DRIVE_REMOTE;
    const auto it = g_mapDriveTypes.find(wcLetter);
    return it == g_mapDriveTypes.end() ? DRIVE_NO_ROOT_DIR : it->second;
}

DWORD WINAPI WNetGetConnectionAsLaidOut(LPCWSTR pwszLocal, LPWSTR pwszRemote, LPDWORD pcch)
{
    const auto it = g_mapShares.find(static_cast<wchar_t>(towupper(pwszLocal[0])));
    if (it == g_mapShares.end() || pwszLocal[1] != L':' || pwszLocal[2] != L'\0')
        return ERROR_NOT_CONNECTED;
    wcsncpy_s(pwszRemote, *pcch, it->second.c_str(), _TRUNCATE);
    return NO_ERROR;
}

// The provider that serves a share; the first answer asks for a bigger buffer, as Windows does
// when the strings do not fit.
std::wstring g_sProvider;
int g_iResourceCalls = 0;
DWORD WINAPI WNetGetResourceInformationAsWindows(LPNETRESOURCEW, LPVOID pBuffer, LPDWORD pcb,
                                                 LPWSTR* ppSystem)
{
    ++g_iResourceCalls;
    const DWORD cbNeeded =
        static_cast<DWORD>(sizeof(NETRESOURCEW) + (g_sProvider.size() + 1) * sizeof(wchar_t));
    if (*pcb < cbNeeded)
    {
        *pcb = cbNeeded;
        return ERROR_MORE_DATA;
    }
    auto* pResource = static_cast<NETRESOURCEW*>(pBuffer);
    auto* pwszStrings = reinterpret_cast<wchar_t*>(pResource + 1);
    wcscpy_s(pwszStrings, g_sProvider.size() + 1, g_sProvider.c_str());
    pResource->lpProvider = g_sProvider.empty() ? nullptr : pwszStrings;
    *ppSystem = nullptr;
    return NO_ERROR;
}

std::vector<std::wstring> KeflLog()
{
    return ReadLogLines(LogDir() + L"\\KEFL_trace.log");
}

class LocationFixture : public testing::Test
{
protected:
    void SetUp() override
    {
        ResetHostConfiguration();
        WriteTraceIni({{L"KEFL_TraceLevel", L"4"}});
        morvane::g_KeflTrace.ReadTraceLevel(); // verbose lines too
        g_mapShares.clear();
        g_mapDriveTypes.clear();
        g_iDriveTypeCalls = 0;
        g_iResourceCalls = 0;
        m_pVolumePath =
            std::make_unique<CIatPatch>(::GetModuleHandleW(nullptr), "KERNEL32.dll", "GetVolumePathNameW",
                                        reinterpret_cast<const void*>(&GetVolumePathNameAsWindows));
        g_pfnRealGetVolumePathName = reinterpret_cast<GetVolumePathNameFn>(m_pVolumePath->Original());
    }
    void TearDown() override { ResetHostConfiguration(); }

    // Present mapped shares: GetDriveTypeW and WNetGetConnectionW answer from the lay-out.
    void PresentShares()
    {
        m_pDriveType =
            std::make_unique<CIatPatch>(::GetModuleHandleW(nullptr), "KERNEL32.dll", "GetDriveTypeW",
                                        reinterpret_cast<const void*>(&GetDriveTypeAsLaidOut));
        m_pConnection =
            std::make_unique<CIatPatch>(::GetModuleHandleW(nullptr), "MPR.dll", "WNetGetConnectionW",
                                        reinterpret_cast<const void*>(&WNetGetConnectionAsLaidOut));
        ASSERT_TRUE(m_pDriveType->IsApplied() && m_pConnection->IsApplied());
    }
    std::unique_ptr<CIatPatch> m_pVolumePath, m_pDriveType, m_pConnection;
};

} // namespace

TEST_F(LocationFixture, LocalPathsRoundTripThroughTheVolumeName)
{
    ASSERT_TRUE(m_pVolumePath->IsApplied());
    std::wstring sVolume;
    ASSERT_TRUE(ConvertDLtoVOL(L"E:\\Backups\\Full", sVolume));
    EXPECT_EQ(0u, sVolume.rfind(L"\\\\?\\Volume{", 0)) << testing::PrintToString(sVolume);
    EXPECT_EQ(L"}\\Backups\\Full", sVolume.substr(sVolume.find(L'}')));

    std::wstring sLocal;
    ASSERT_TRUE(ConvertVOLtoDL(sVolume, sLocal));
    EXPECT_EQ(L"E:\\Backups\\Full", sLocal);
    ASSERT_TRUE(ConvertVOLtoDL(sVolume.substr(0, sVolume.find(L'}') + 2), sLocal));
    EXPECT_EQ(L"E:", sLocal) << "the volume root, without its backslash";

    ASSERT_TRUE(ConvertDLtoVOL(L"E:\\Backups\\", sVolume));
    ASSERT_TRUE(ConvertVOLtoDL(sVolume, sLocal));
    EXPECT_EQ(L"E:\\Backups", sLocal) << "one trailing backslash is removed";
    EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::ConvertVOLtoDL : Assuming local drive"));
}

TEST_F(LocationFixture, UncPathsNeedNoTranslation)
{
    PresentShares();
    std::wstring sOut;
    EXPECT_TRUE(ConvertDLtoVOL(L"\\\\nas\\backups\\pc01", sOut));
    EXPECT_EQ(L"\\\\nas\\backups\\pc01", sOut);
    EXPECT_EQ(0, g_iDriveTypeCalls) << "no drive is asked about";
}

TEST_F(LocationFixture, RefusesUnusedLettersAndRamDisks)
{
    std::wstring sOut;
    EXPECT_FALSE(ConvertDLtoVOL(L"Q:\\Backups", sOut)) << "no such drive";
    EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::ConvertDLtoVOL : ... ending(Unknown drive type)"));
    PresentShares();
    g_mapDriveTypes[L'Q'] = DRIVE_RAMDISK;
    EXPECT_FALSE(ConvertDLtoVOL(L"Q:\\Backups", sOut)) << "a RAM disk does not outlive the recovery";
}

// A volume reached only through folder mount points, then also through a letter.
BOOL WINAPI VolumeMountedInFolder(LPCWSTR, LPWCH pwszList, DWORD, PDWORD pcch)
{
    static const wchar_t kList[] = L"E:\\Mount\\Data\\\0";
    std::memcpy(pwszList, kList, sizeof(kList));
    *pcch = sizeof(kList) / sizeof(wchar_t);
    return TRUE;
}
BOOL WINAPI VolumeMountedInFolderAndLetter(LPCWSTR, LPWCH pwszList, DWORD, PDWORD pcch)
{
    static const wchar_t kList[] = L"E:\\Mount\\Data\\\0G:\\\0";
    std::memcpy(pwszList, kList, sizeof(kList));
    *pcch = sizeof(kList) / sizeof(wchar_t);
    return TRUE;
}

TEST_F(LocationFixture, TakesTheFirstDriveLetterOfTheVolume)
{
    const std::wstring sVolume = L"\\\\?\\Volume{00000000-0000-0000-0000-0000000000aa}\\Backups";
    std::wstring sOut;
    {
        CIatPatch folderOnly(::GetModuleHandleW(nullptr), "KERNEL32.dll", "GetVolumePathNamesForVolumeNameW",
                             reinterpret_cast<const void*>(&VolumeMountedInFolder));
        EXPECT_FALSE(ConvertVOLtoDL(sVolume, sOut));
        EXPECT_TRUE(HasText(
            KeflLog(), L"KEFLImpl::ConvertVOLtoDL : ... ending(Couldn't find corresponding drive letter)"));
    }
    CIatPatch folderAndLetter(::GetModuleHandleW(nullptr), "KERNEL32.dll", "GetVolumePathNamesForVolumeNameW",
                              reinterpret_cast<const void*>(&VolumeMountedInFolderAndLetter));
    EXPECT_TRUE(ConvertVOLtoDL(sVolume, sOut));
    EXPECT_EQ(L"G:\\Backups", sOut);
}

TEST_F(LocationFixture, MappedDrivesTranslateToTheirShare)
{
    PresentShares();
    g_mapShares[L'Y'] = L"\\\\nas\\backups";
    std::wstring sOut;
    EXPECT_TRUE(ConvertDLtoVOL(L"Y:\\pc01\\Full", sOut));
    EXPECT_EQ(L"\\\\nas\\backups\\pc01\\Full", sOut);
    EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::ConvertDLtoVOL : wszLocalName = \"Y:\""));

    g_mapShares.erase(L'Y');
    g_mapDriveTypes[L'Y'] = DRIVE_REMOTE; // remote, but not connected
    EXPECT_FALSE(ConvertDLtoVOL(L"Y:\\pc01", sOut));
    const auto vLines = KeflLog();
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::ConvertDLtoVOL : dwLastError = 2250"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::ConvertDLtoVOL : ... ending(WNetGetConnection failed)"));
}

TEST_F(LocationFixture, SharesFindTheirLetterFromZDownwards)
{
    PresentShares();
    g_mapShares[L'M'] = L"\\\\nas\\backups";
    g_mapShares[L'Y'] = L"\\\\nas\\backups";
    g_mapDriveTypes[L'Z'] = 9; // a type Windows does not document
    std::wstring sOut;
    ASSERT_TRUE(ConvertVOLtoDL(L"\\\\nas\\backups\\pc01", sOut));
    EXPECT_EQ(L"Y:\\pc01", sOut) << "Y comes before M";
    const auto vLines = KeflLog();
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::ConvertVOLtoDL : Assuming network share"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::ConvertVOLtoDL : uiDriveType = DRIVE_REMOTE"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::ConvertVOLtoDL : uiDriveType = 9"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::ConvertVOLtoDL : Undocumented Drive Type"));

    ASSERT_TRUE(ConvertVOLtoDL(L"\\\\nas\\backups\\", sOut));
    EXPECT_EQ(L"Y:", sOut);
}

TEST_F(LocationFixture, ShareComparisonIsAPrefixTestThatMindsCase)
{
    PresentShares();
    g_mapShares[L'K'] = L"\\\\NAS\\Backups";
    std::wstring sOut;
    EXPECT_FALSE(ConvertVOLtoDL(L"\\\\nas\\backups\\pc01", sOut)) << "another case is another share";

    // A connection that only begins with the share matches, and its own length is replaced.
    g_mapShares[L'P'] = L"\\\\nas\\backups2";
    ASSERT_TRUE(ConvertVOLtoDL(L"\\\\nas\\backups\\pc01", sOut));
    EXPECT_EQ(L"P:pc01", sOut);
}

TEST_F(LocationFixture, SharePathThatWindowsCannotResolveFails)
{
    m_pVolumePath.reset(); // Wine's own answer for a share: a failure
    std::wstring sOut;
    EXPECT_FALSE(ConvertVOLtoDL(L"\\\\nas\\backups\\pc01", sOut));
    EXPECT_TRUE(HasText(KeflLog(), L"KEFLImpl::ConvertVOLtoDL : .... ending(GetVolumePathName failed)"));
}

TEST_F(LocationFixture, TellsWebDavFromWindowsSharesByProvider)
{
    CIatPatch provider(::GetModuleHandleW(nullptr), "MPR.dll", "WNetGetResourceInformationW",
                       reinterpret_cast<const void*>(&WNetGetResourceInformationAsWindows));
    ASSERT_TRUE(provider.IsApplied());
    bool bIsWebDAV = false;
    g_sProvider = L"web client NETWORK";
    EXPECT_TRUE(CheckIfWebDAV(L"\\\\dav.example\\DavWWWRoot\\backups", bIsWebDAV));
    EXPECT_TRUE(bIsWebDAV);
    EXPECT_EQ(2, g_iResourceCalls) << "one call to learn the size, one with the grown buffer";

    g_sProvider = L"Microsoft Windows Network";
    EXPECT_TRUE(CheckIfWebDAV(L"\\\\nas\\backups", bIsWebDAV));
    EXPECT_FALSE(bIsWebDAV);

    bIsWebDAV = true;
    g_sProvider = L"";
    EXPECT_FALSE(CheckIfWebDAV(L"\\\\nas\\backups", bIsWebDAV)) << "no provider";
    EXPECT_TRUE(bIsWebDAV) << "left as it was";
    g_sProvider = L"Some Other Network";
    EXPECT_FALSE(CheckIfWebDAV(L"\\\\nas\\backups", bIsWebDAV));

    const auto vLines = KeflLog();
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::CheckIfWebDAV : Is WebDAV share"));
    EXPECT_TRUE(HasText(vLines, L"KEFLImpl::CheckIfWebDAV : Is Microsoft share"));
}

TEST_F(LocationFixture, ShareUnknownToTheNetworkIsNeitherKind)
{
    // Wine has no network provider: the call fails and the path is no share the restore knows.
    bool bIsWebDAV = true;
    EXPECT_FALSE(CheckIfWebDAV(L"\\\\nas\\backups", bIsWebDAV));
    EXPECT_TRUE(bIsWebDAV);
}
