#include "dll/SessionFixture.h"

#include "platform/UniqueHandle.h"

#include <winnetwk.h>

#include <cstring>
#include <cwchar>

using namespace kefltest;

namespace
{

using GetVolumePathNameFn = BOOL(WINAPI*)(LPCWSTR, LPWSTR, DWORD);
GetVolumePathNameFn g_pfnRealGetVolumePathName = nullptr;

// Windows answers the volume root for a volume-name path; Wine 8 fails it. Other paths go to the
// real call.
BOOL WINAPI GetVolumePathNameAsWindows(LPCWSTR pwszPath, LPWSTR pwszVolumePath, DWORD cch)
{
    const std::wstring sPath = pwszPath;
    if (sPath.rfind(L"\\\\?\\Volume{", 0) != 0 || sPath.find(L'}') == std::wstring::npos)
        return g_pfnRealGetVolumePathName(pwszPath, pwszVolumePath, cch);
    wcsncpy_s(pwszVolumePath, cch, sPath.substr(0, sPath.find(L'}') + 2).c_str(), _TRUNCATE);
    return TRUE;
}

// Windows' file-sharing provider claims every path of the form \\name\name..., a local volume
// name (\\?\Volume{...}\...) included, and names itself; Wine 8 has no network provider at all.
DWORD WINAPI WNetGetResourceInformationAsWindows(LPNETRESOURCEW pResource, LPVOID pBuffer, LPDWORD pcb,
                                                 LPWSTR* ppSystem)
{
    static const wchar_t kProvider[] = L"Microsoft Windows Network";
    const DWORD cbNeeded = static_cast<DWORD>(sizeof(NETRESOURCEW) + sizeof(kProvider));
    const wchar_t* pwszName = pResource->lpRemoteName;
    if (!pwszName || std::wcsncmp(pwszName, L"\\\\", 2) != 0)
        return ERROR_BAD_NET_NAME;
    if (*pcb < cbNeeded)
    {
        *pcb = cbNeeded;
        return ERROR_MORE_DATA;
    }
    auto* pOut = static_cast<NETRESOURCEW*>(pBuffer);
    auto* pwszProvider = reinterpret_cast<wchar_t*>(pOut + 1);
    std::memcpy(pwszProvider, kProvider, sizeof(kProvider));
    pOut->lpProvider = pwszProvider;
    *ppSystem = nullptr;
    return NO_ERROR;
}

} // namespace

void SessionFixture::SetUp()
{
    KeflFixture::SetUp();
    s_vMessages.clear();
    RemoveTree(kBackup);
    MakeBackup(kBackup);
    Load(Verbose());
    const HMODULE hKefl = m_pLibrary->Module();
    m_vPatches.push_back(
        std::make_unique<CIatPatch>(hKefl, "KERNEL32.dll", "GetVolumePathNameW",
                                    reinterpret_cast<const void*>(&GetVolumePathNameAsWindows)));
    g_pfnRealGetVolumePathName = reinterpret_cast<GetVolumePathNameFn>(m_vPatches.back()->Original());
    m_vPatches.push_back(
        std::make_unique<CIatPatch>(hKefl, "MPR.dll", "WNetGetResourceInformationW",
                                    reinterpret_cast<const void*>(&WNetGetResourceInformationAsWindows)));
    for (const auto& pPatch : m_vPatches)
        ASSERT_TRUE(pPatch->IsApplied());
    m_pClient = m_pLibrary->Factory();
    m_pClient->SetLogMsgCallbackFn(&RecordMessage, 0);
}

void SessionFixture::TearDown()
{
    if (m_pClient)
        m_pClient->Fini();
    m_pClient.reset();
    m_vPatches.clear();
    RemoveTree(kBackup);
    KeflFixture::TearDown();
}

void SessionFixture::MakeBackup(const std::wstring& sRoot)
{
    for (const wchar_t* pwszDir : {L"", L"\\C", L"\\C\\Windows", L"\\D", L"\\#"})
        ::CreateDirectoryW((sRoot + pwszDir).c_str(), nullptr);
    WriteTextFile(sRoot + L"\\#\\JPoint.dat", "[C:\\Documents and Settings]\r\nTarget=C:\\Users\r\n"
                                              "BackupTarget=R:\\Backup\\C\\Users\r\nAttr=1040\r\n");
    WriteTextFile(sRoot + L"\\#\\MPoint.dat", "");
    WriteTextFile(sRoot + L"\\#\\HPoint.dat",
                  "[1]\r\nB=R:\\Backup\\C\\Windows\\notepad.exe\r\n"
                  "H1=C:\\Windows\\notepad.exe\r\nH2=C:\\Windows\\System32\\notepad.exe\r\n");
    WriteTextFile(sRoot + L"\\#\\SPoint.dat",
                  "[C:\\link]\r\nTarget=C:\\Windows\r\nBackupTarget=R:\\Backup\\C\\Windows\r\n");
}

void SessionFixture::RemoveTree(const std::wstring& sDir)
{
    WIN32_FIND_DATAW fd;
    morvane::CUniqueFind hFind(::FindFirstFileW((sDir + L"\\*").c_str(), &fd));
    if (hFind)
    {
        do
        {
            const std::wstring sName = fd.cFileName;
            if (sName == L"." || sName == L"..")
                continue;
            const std::wstring sPath = sDir + L"\\" + sName;
            if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                RemoveTree(sPath);
            else
            {
                ::SetFileAttributesW(sPath.c_str(), FILE_ATTRIBUTE_NORMAL);
                ::DeleteFileW(sPath.c_str());
            }
        } while (::FindNextFileW(hFind.get(), &fd));
    }
    hFind.reset();
    ::RemoveDirectoryW(sDir.c_str());
}

std::unique_ptr<morvane::VeskCredentials> SessionFixture::Credentials(const std::wstring& sLocation) const
{
    auto pCredentials = m_pLibrary->CredentialsFactory();
    static_cast<morvane::KeflCredentials*>(pCredentials.get())->m_sTargetPath = sLocation;
    return pCredentials;
}

int32_t SessionFixture::RecordMessage(uint32_t uiSeverity, std::wstring sMessage, uint64_t)
{
    s_vMessages.push_back({uiSeverity, sMessage});
    return 0;
}

bool SessionFixture::HasMessage(uint32_t uiSeverity, const std::wstring& sText) const
{
    for (const CMessage& message : s_vMessages)
        if (message.uiSeverity == uiSeverity && message.sText == sText)
            return true;
    return false;
}

std::wstring SessionFixture::ErrorText() const
{
    std::wstring sText;
    m_pClient->GetLastErrorMsg(sText);
    return sText;
}
