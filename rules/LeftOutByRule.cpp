#include "rules/LeftOutByRule.h"

#include <algorithm>
#include <iterator>

namespace morvane
{

bool IsLeftOutByRule(const std::wstring& sDstPath, bool bFolder)
{
    // A folder by its own name; a file by the folder it is in, or by its name at the root.
    static const wchar_t* const kFolders[] = {L":\\RECYCLER", L":\\$Recycle.Bin", L":\\System Volume Information"};
    static const wchar_t* const kFiles[] = {L":\\RECYCLER\\", L":\\$Recycle.Bin\\", L":\\System Volume Information\\",
                                            L":\\hiberfil.sys", L":\\pagefile.sys"};
    const auto contains = [&sDstPath](const wchar_t* pwszPart) { return sDstPath.find(pwszPart) != std::wstring::npos; };
    return bFolder ? std::any_of(std::begin(kFolders), std::end(kFolders), contains)
                   : std::any_of(std::begin(kFiles), std::end(kFiles), contains);
}

} // namespace morvane
