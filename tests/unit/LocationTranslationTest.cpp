// Drive letters, volume names and shares: local drives are Wine's real volumes, shares and providers
// are presented as Windows presents them. (x64 has one calling convention: replacements may be lambdas.)
#include "unit/BaseServicesFixture.h"
#include "volumes/LocationTranslation.h"

#include <winnetwk.h>

#include <map>

using namespace kefltest;
using namespace morvane;

namespace
{

std::map<wchar_t, std::wstring> s_mapShares; // mapped network drives: letter -> connection
std::wstring s_sProvider;                    // the provider that serves a share

class LocationTranslationTest : public BaseServicesFixture
{
protected:
    // Windows answers "\\?\Volume{guid}\" for a volume-name path and "\\server\share\" for a UNC path;
    // Wine 8 fails both. Drive-letter paths go to the real call.
    static inline decltype(&::GetVolumePathNameW) s_pfnGetVolumePathName = nullptr;
    void SetUp() override
    {
        BaseServicesFixture::SetUp();
        s_pfnGetVolumePathName = m_patches.Patch(
            m_hExe, "KERNEL32.dll", "GetVolumePathNameW",
            +[](LPCWSTR pwszPath, LPWSTR pwszRoot, DWORD cchRoot) -> BOOL
            {
                const std::wstring sPath = std::wstring(pwszPath) + L"\\";
                if (sPath.rfind(L"\\\\", 0) != 0)
                    return s_pfnGetVolumePathName(pwszPath, pwszRoot, cchRoot);
                size_t cch = 0; // up to the fourth backslash
                for (int i = 0; i < 4; ++i)
                    cch = sPath.find(L'\\', cch) + 1;
                return wcsncpy_s(pwszRoot, cchRoot, sPath.c_str(), cch) == 0;
            });
    }
};

} // namespace

TEST_F(LocationTranslationTest, LocalPathsRoundTripThroughTheVolumeName)
{
    std::wstring sVolume, sLocal;
    ASSERT_TRUE(ConvertDLtoVOL(L"E:\\Backups\\Full\\", sVolume));
    ASSERT_TRUE(ConvertVOLtoDL(sVolume, sLocal));
    EXPECT_EQ(L"E:\\Backups\\Full", sLocal) << "through " << sVolume.c_str();
}

TEST_F(LocationTranslationTest, ShareTakesTheFirstLetterFromZWhoseConnectionBeginsWithIt)
{
    m_patches.Patch(
        m_hExe, "KERNEL32.dll", "GetDriveTypeW",
        +[](LPCWSTR pwsz) -> UINT { return s_mapShares.count(pwsz[0]) ? DRIVE_REMOTE : DRIVE_NO_ROOT_DIR; });
    m_patches.Patch(
        m_hExe, "MPR.dll", "WNetGetConnectionW",
        +[](LPCWSTR pwszLocal, LPWSTR pwszRemote, LPDWORD pcch) -> DWORD
        { return wcsncpy_s(pwszRemote, *pcch, s_mapShares[pwszLocal[0]].c_str(), _TRUNCATE); });
    // Z: another case is another share. Y: a connection that only begins with the share matches, and
    // its own length is replaced. M: the share itself, but Y comes first.
    s_mapShares = {{L'Z', L"\\\\NAS\\Backups"}, {L'Y', L"\\\\nas\\backups2"}, {L'M', L"\\\\nas\\backups"}};
    std::wstring sOut;
    EXPECT_TRUE(ConvertVOLtoDL(L"\\\\nas\\backups\\pc01", sOut));
    EXPECT_EQ(L"Y:pc01", sOut);
}

TEST_F(LocationTranslationTest, WebDavIsToldFromWindowsSharesByProvider)
{
    // The provider's name behind the NETRESOURCEW; a buffer too small for both is told the size needed.
    m_patches.Patch(
        m_hExe, "MPR.dll", "WNetGetResourceInformationW",
        +[](LPNETRESOURCEW, LPVOID pBuffer, LPDWORD pcb, LPWSTR*) -> DWORD
        {
            auto* pResource = static_cast<NETRESOURCEW*>(pBuffer);
            if (*pcb < sizeof(NETRESOURCEW) + 128)
            {
                *pcb = sizeof(NETRESOURCEW) + 128;
                return DWORD(ERROR_MORE_DATA);
            }
            pResource->lpProvider = wcscpy(reinterpret_cast<wchar_t*>(pResource + 1), s_sProvider.c_str());
            return NO_ERROR;
        });
    // The answer, and bIsWebDAV after it: left alone for a share of neither kind.
    const auto Check = [](const wchar_t* pwszProvider, bool bIsWebDAV)
    {
        s_sProvider = pwszProvider;
        return std::pair(CheckIfWebDAV(L"\\\\nas\\backups", bIsWebDAV), bIsWebDAV);
    };
    EXPECT_EQ(std::pair(true, true), Check(L"web client NETWORK", false)) << "WebDAV, named in any case";
    EXPECT_EQ(std::pair(true, false), Check(L"Microsoft Windows Network", true));
    EXPECT_EQ(std::pair(false, true), Check(L"Some Other Network", true));
}
