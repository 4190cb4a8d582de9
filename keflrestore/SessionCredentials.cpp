#include "keflrestore/SessionCredentials.h"

#include "platform/FormatText.h"

#include <windows.h>

#include <cstdio>
#include <vector>

namespace keflhost
{
namespace
{

bool IsSet(const SYSTEMTIME& st)
{
    return st.wDay != 0;
}

// A temporary file that is deleted again whatever happens.
class CTempAnswerFile
{
public:
    CTempAnswerFile()
    {
        wchar_t wszDir[MAX_PATH] = {};
        wchar_t wszPath[MAX_PATH] = {};
        if (::GetTempPathW(MAX_PATH, wszDir) && ::GetTempFileNameW(wszDir, L"kfl", 0, wszPath))
            m_sPath = wszPath;
    }
    ~CTempAnswerFile()
    {
        if (!m_sPath.empty())
            ::DeleteFileW(m_sPath.c_str());
    }
    CTempAnswerFile(const CTempAnswerFile&) = delete;
    CTempAnswerFile& operator=(const CTempAnswerFile&) = delete;
    const std::wstring& Path() const { return m_sPath; }

private:
    std::wstring m_sPath;
};

} // namespace

CCredentialsPtr CredentialsFromAnswerFile(morvane::CredentialsFactoryFn pfnFactory,
                                          const std::wstring& sAnsFile,
                                          const CEventSender& events)
{
    CCredentialsPtr pCredentials(pfnFactory());
    if (!pCredentials)
    {
        events.Say(L"keflhost: KEFL.dll's CredentialsFactory made no credentials");
        return nullptr;
    }
    if (!pCredentials->GetCredentialsFromAnsFile(sAnsFile))
    {
        events.Say(L"keflhost: the answer file " + sAnsFile + L" names no backup location");
        return nullptr;
    }
    return pCredentials;
}

CCredentialsPtr CredentialsFromLocation(morvane::CredentialsFactoryFn pfnFactory,
                                        const std::wstring& sLocation, const std::wstring& sPit,
                                        const CEventSender& events)
{
    CTempAnswerFile ansFile;
    if (ansFile.Path().empty())
    {
        events.Say(L"keflhost: cannot make a temporary answer file, error " +
                  std::to_wstring(::GetLastError()));
        return nullptr;
    }
    const wchar_t kSection[] = L"ZovaBackupLocation";
    ::WritePrivateProfileStringW(kSection, L"Location", sLocation.c_str(), ansFile.Path().c_str());
    ::WritePrivateProfileStringW(kSection, L"PointInTime", sPit.c_str(), ansFile.Path().c_str());
    CCredentialsPtr pCredentials = CredentialsFromAnswerFile(pfnFactory, ansFile.Path(), events);
    // The library takes an unusable point in time for "the latest backup"; a user who typed one
    // wants to hear that it was not taken.
    if (pCredentials && !sPit.empty() && !IsSet(pCredentials->m_Pit))
    {
        events.Say(L"keflhost: \"" + sPit + L"\" is not a valid point in time (dd/mm/yyyy hh:mm:ss)");
        return nullptr;
    }
    return pCredentials;
}

void PrintCredentials(morvane::VeskCredentials& credentials, std::wstring& sLocation,
                      std::wstring& sPointInTime, const CEventSender& events)
{
    auto& kefl = static_cast<morvane::KeflCredentials&>(credentials);
    sLocation = kefl.m_sTargetPath;
    events.Say(L"Location:      " + sLocation);
    const SYSTEMTIME& st = credentials.m_Pit;
    if (!IsSet(st))
    {
        sPointInTime.clear();
        events.Say(L"Point in time: the latest backup");
        return;
    }
    wchar_t wszPit[32];
    (void)morvane::FormatInto(wszPit, L"%2.2u/%2.2u/%4.4u %2.2u:%2.2u:%2.2u", st.wDay, st.wMonth, st.wYear,
                              st.wHour, st.wMinute, st.wSecond); // 29 characters at most
    sPointInTime = wszPit;
    events.Say(L"Point in time: " + sPointInTime);
}

} // namespace keflhost
