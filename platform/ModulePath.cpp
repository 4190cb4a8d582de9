#include "platform/ModulePath.h"

#include <vector>

namespace morvane
{

bool GetModulePath(HMODULE hModule, std::wstring& sPath, DWORD& dwLastError)
{
    constexpr DWORD kGrowChars = 260;
    std::vector<wchar_t> buf(kGrowChars);
    for (;;)
    {
        ::SetLastError(ERROR_SUCCESS); // success does not reset the last error by itself
        const DWORD cch = ::GetModuleFileNameW(hModule, buf.data(), static_cast<DWORD>(buf.size()));
        dwLastError = ::GetLastError();
        if (dwLastError == ERROR_INSUFFICIENT_BUFFER)
        {
            buf.resize(buf.size() + kGrowChars);
            continue;
        }
        if (cch == 0 || dwLastError != ERROR_SUCCESS)
        {
            if (dwLastError == ERROR_SUCCESS)
                dwLastError = ERROR_INVALID_HANDLE;
            return false;
        }
        sPath.assign(buf.data(), cch);
        return true;
    }
}

std::wstring ProgramFolder()
{
    std::wstring sProgram;
    DWORD dwLastError = 0;
    if (!GetModulePath(nullptr, sProgram, dwLastError) || sProgram.rfind(L'\\') == std::wstring::npos)
        return L".";
    return sProgram.substr(0, sProgram.rfind(L'\\'));
}

} // namespace morvane
