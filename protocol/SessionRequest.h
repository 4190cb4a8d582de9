#pragma once
// What keflhost asks of its restore process, passed on the restore process's command line.
#include <string>
#include <vector>

namespace keflhost
{

struct CSessionRequest
{
    std::wstring sAnsFile;
    std::wstring sLocation;
    std::wstring sPit;
    bool bListOnly = false;
    // Drive letters ("C") or mount-point folders ("C:\Mount\Data"); empty: every filespace.
    std::vector<std::wstring> vSelected;
};

// The restore process's arguments for a request, and back; false for arguments it does not know.
std::wstring SessionArguments(const CSessionRequest& request);
bool ParseSessionArguments(int argc, wchar_t** argv, CSessionRequest& request);

} // namespace keflhost
