#include "protocol/SessionRequest.h"

namespace keflhost
{
namespace
{

// One argument as Windows' command-line parsing takes it back: quoted, with a quote escaped and
// the backslashes before a quote (or before the closing one) doubled.
std::wstring Quoted(const std::wstring& sArg)
{
    std::wstring sQuoted = L"\"";
    size_t cBackslashes = 0;
    for (const wchar_t wc : sArg)
    {
        if (wc == L'\\')
        {
            ++cBackslashes;
            continue;
        }
        sQuoted.append(wc == L'"' ? 2 * cBackslashes + 1 : cBackslashes, L'\\');
        cBackslashes = 0;
        sQuoted += wc;
    }
    sQuoted.append(2 * cBackslashes, L'\\');
    return sQuoted + L"\"";
}

} // namespace

std::wstring SessionArguments(const CSessionRequest& request)
{
    std::wstring sArgs;
    const auto add = [&sArgs](const wchar_t* pwszOption, const std::wstring& sValue)
    {
        if (!sValue.empty())
            sArgs += std::wstring(L" ") + pwszOption + L" " + Quoted(sValue);
    };
    add(L"--answer-file", request.sAnsFile);
    add(L"--location", request.sLocation);
    add(L"--pit", request.sPit);
    for (const std::wstring& sSelected : request.vSelected)
        add(L"--restore", sSelected);
    if (request.bListOnly)
        sArgs += L" --list";
    return sArgs;
}

bool ParseSessionArguments(int argc, wchar_t** argv, CSessionRequest& request)
{
    for (int i = 1; i < argc; ++i)
    {
        const std::wstring sArg = argv[i];
        const bool bHasValue = i + 1 < argc;
        if (sArg == L"--list")
            request.bListOnly = true;
        else if (sArg == L"--answer-file" && bHasValue)
            request.sAnsFile = argv[++i];
        else if (sArg == L"--location" && bHasValue)
            request.sLocation = argv[++i];
        else if (sArg == L"--pit" && bHasValue)
            request.sPit = argv[++i];
        else if (sArg == L"--restore" && bHasValue)
            request.vSelected.emplace_back(argv[++i]);
        else
            return false;
    }
    return true;
}

} // namespace keflhost
