#include "platform/ErrorText.h"

#include "platform/UniqueHandle.h"

namespace morvane
{

std::wstring ErrorText(DWORD dwError)
{
    if (dwError == 0)
        return L"";
    std::wstring sText = L"error " + std::to_wstring(dwError);
    CUniqueLocalMem hText;
    wchar_t* pwszText = nullptr;
    const DWORD cch = ::FormatMessageW(
        FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
        dwError, 0, reinterpret_cast<wchar_t*>(&pwszText), 0, nullptr);
    hText.reset(pwszText);
    if (cch == 0 || !pwszText)
        return sText;
    std::wstring sMessage(pwszText, cch);
    while (!sMessage.empty() && (sMessage.back() == L'\n' || sMessage.back() == L'\r' || sMessage.back() == L' '))
        sMessage.pop_back();
    return sText + L": " + sMessage;
}

} // namespace morvane
