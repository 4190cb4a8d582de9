#include "platform/ProfileString.h"

#include <windows.h>

namespace morvane
{

std::wstring ReadProfileString(const wchar_t* pwszSection, const wchar_t* pwszKey, const wchar_t* pwszDefault,
                               const wchar_t* pwszFile)
{
    // A value that does not fit comes back cut to the buffer's size less one: then try again with
    // twice the room. 260 first, the size most values take; no path is longer than 32,767.
    std::wstring sValue(260, L'\0');
    for (;;)
    {
        const DWORD cch = ::GetPrivateProfileStringW(pwszSection, pwszKey, pwszDefault, sValue.data(),
                                                     static_cast<DWORD>(sValue.size()), pwszFile);
        if (cch + 1 < sValue.size() || sValue.size() > 32768)
        {
            sValue.resize(cch);
            return sValue;
        }
        sValue.resize(sValue.size() * 2);
    }
}

} // namespace morvane
