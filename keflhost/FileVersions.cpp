#include "keflhost/FileVersions.h"

#include "KeflBuildVersion.h"
#include "platform/FormatText.h"

#include <windows.h>

#include <cwchar>
#include <string>
#include <vector>

namespace keflhost
{

std::wstring ProductVersionOf(const std::wstring& sPath)
{
    DWORD dwHandle = 0;
    const DWORD cbInfo = ::GetFileVersionInfoSizeW(sPath.c_str(), &dwHandle);
    if (cbInfo == 0)
        return L"";
    std::vector<BYTE> vInfo(cbInfo);
    if (!::GetFileVersionInfoW(sPath.c_str(), 0, cbInfo, vInfo.data()))
        return L"";
    // The first language and code page the file lists.
    struct CTranslation
    {
        WORD wLanguage;
        WORD wCodePage;
    };
    CTranslation* pTranslation = nullptr;
    UINT cbTranslation = 0;
    if (!::VerQueryValueW(vInfo.data(), L"\\VarFileInfo\\Translation", reinterpret_cast<void**>(&pTranslation),
                          &cbTranslation) ||
        cbTranslation < sizeof(CTranslation))
        return L"";
    wchar_t wszBlock[64];
    (void)morvane::FormatInto(wszBlock, L"\\StringFileInfo\\%04x%04x\\ProductVersion", pTranslation->wLanguage,
                              pTranslation->wCodePage); // 40 characters

    wchar_t* pwszValue = nullptr;
    UINT cchValue = 0;
    if (!::VerQueryValueW(vInfo.data(), wszBlock, reinterpret_cast<void**>(&pwszValue), &cchValue) || !pwszValue)
        return L"";
    return pwszValue;
}

std::wstring DescribeVersions(const std::wstring& sFolder)
{
    // The names in a column as wide as the longest, keflrestore.exe, and two spaces.
    const auto line = [](const std::wstring& sName, const std::wstring& sVersion)
    { return sName + std::wstring(17 - sName.size(), L' ') + (sVersion.empty() ? L"(no version found)" : sVersion); };
    std::wstring sText = line(L"keflhost.exe", KEFL_BUILD_VERSION_WSTR);
    for (const wchar_t* pwszFile : {L"keflrestore.exe", L"KEFL.dll"})
        sText += L"\n" + line(pwszFile, ProductVersionOf(sFolder + L"\\" + pwszFile));
    return sText;
}

} // namespace keflhost
