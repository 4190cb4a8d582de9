#include "host/ResumeSetting.h"

#include "platform/ModulePath.h"
#include "platform/ProfileString.h"
#include "platform/WindowsVersion.h"

#include <windows.h>

namespace keflhost
{
namespace
{

const wchar_t kSection[] = L"Main";
const wchar_t kKey[] = L"KEFL_SkipUnchanged";
// A value no setting has: the key is missing.
const wchar_t kMissing[] = L"\x01missing";

// Where the library reads trace.ini: the recovery system's configuration folder, else beside it.
std::wstring TraceIniPath()
{
    if (morvane::CWindowsVersion::Instance().GetCode() == morvane::OSCODE_WINPE_52)
        return L"Z:\\DURN\\trace.ini";
    std::wstring sModule;
    DWORD dwLastError = 0;
    if (!morvane::GetModulePath(nullptr, sModule, dwLastError) || sModule.rfind(L'\\') == std::wstring::npos)
        return L"trace.ini";
    return sModule.substr(0, sModule.rfind(L'\\')) + L"\\trace.ini";
}

} // namespace

CResumeSetting::CResumeSetting() : m_sIniPath(TraceIniPath())
{
    m_bHadFile = ::GetFileAttributesW(m_sIniPath.c_str()) != INVALID_FILE_ATTRIBUTES;
    m_sEarlier = morvane::ReadProfileString(kSection, kKey, kMissing, m_sIniPath.c_str());
    m_bHadKey = m_sEarlier != kMissing;
    ::WritePrivateProfileStringW(kSection, kKey, L"1", m_sIniPath.c_str());
}

CResumeSetting::~CResumeSetting()
{
    if (!m_bHadFile)
    {
        ::DeleteFileW(m_sIniPath.c_str());
        return;
    }
    ::WritePrivateProfileStringW(kSection, kKey, m_bHadKey ? m_sEarlier.c_str() : nullptr, m_sIniPath.c_str());
}

} // namespace keflhost
