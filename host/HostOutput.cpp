#include "host/HostOutput.h"

#include <windows.h>

#include <cstdio>

namespace keflhost
{

void PrintLine(const std::wstring& sText)
{
    std::string sUtf8;
    if (!sText.empty())
    {
        const int cb = ::WideCharToMultiByte(CP_UTF8, 0, sText.data(), static_cast<int>(sText.size()),
                                             nullptr, 0, nullptr, nullptr);
        sUtf8.resize(cb > 0 ? static_cast<size_t>(cb) : 0);
        ::WideCharToMultiByte(CP_UTF8, 0, sText.data(), static_cast<int>(sText.size()), sUtf8.data(), cb,
                              nullptr, nullptr);
    }
    sUtf8 += '\n';
    std::fwrite(sUtf8.data(), 1, sUtf8.size(), stdout);
    std::fflush(stdout);
}

int32_t LogMsg(uint32_t uiSeverity, std::wstring sMessage, uint64_t /*ullContext*/)
{
    const wchar_t* pwszSeverity = uiSeverity == morvane::MSG_SEVERITY_ERROR     ? L"error"
                                  : uiSeverity == morvane::MSG_SEVERITY_WARNING ? L"warning"
                                                                                : L"info";
    PrintLine(std::wstring(L"[") + pwszSeverity + L"] " + sMessage);
    return 0;
}

} // namespace keflhost
