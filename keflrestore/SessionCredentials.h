#pragma once
// Credentials for the restore, made by the library's CredentialsFactory and filled the way the
// recovery host fills them: from the recovery answer file, or from a location and point in time
// that the user typed.
#include "VESK.h"
#include "VeskCredentials.h"
#include "keflrestore/EventSender.h"

#include <memory>
#include <string>

namespace keflhost
{

struct CCredentialsDeleter
{
    void operator()(morvane::VeskCredentials* p) const { delete p; }
};
using CCredentialsPtr = std::unique_ptr<morvane::VeskCredentials, CCredentialsDeleter>;

// Reads the answer file; null (with the reason said to keflhost) when it names no location.
CCredentialsPtr CredentialsFromAnswerFile(morvane::CredentialsFactoryFn pfnFactory,
                                          const std::wstring& sAnsFile,
                                          const CEventSender& events);
// A location and an optional point in time ("dd/mm/yyyy hh:mm:ss"), passed through an answer
// file of their own so that the library checks them as it checks the host's. Null (with the
// reason said to keflhost) when the point in time is not valid.
CCredentialsPtr CredentialsFromLocation(morvane::CredentialsFactoryFn pfnFactory,
                                        const std::wstring& sLocation, const std::wstring& sPit,
                                        const CEventSender& events);
// Says where the backup is and which point in time is restored, and hands both back.
void PrintCredentials(morvane::VeskCredentials& credentials, std::wstring& sLocation,
                      std::wstring& sPointInTime, const CEventSender& events);

} // namespace keflhost
