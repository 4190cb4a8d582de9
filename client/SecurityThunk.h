#pragma once
// The security objects of one ownership change of a hard link's target: what was read from the
// file (owner, DACL and the descriptor that holds them) and the SIDs made for the change.
#include <windows.h>

namespace morvane
{

struct SecurityThunk
{
    SecurityThunk() = default;
    // Releases what it owns once bOwnsAllocations is set; see SecurityThunk.cpp for which members
    // are released.
    ~SecurityThunk();
    SecurityThunk(const SecurityThunk&) = delete;
    SecurityThunk& operator=(const SecurityThunk&) = delete;

    PSID OwnerSID = nullptr;                // points into SecDesc (GetNamedSecurityInfoW)
    PSID GroupSID = nullptr;                // points into SecDesc when read with the owner
    PSID AdminSID = nullptr;                // AllocateAndInitializeSid
    PSID EveryoneSID = nullptr;             // AllocateAndInitializeSid
    PACL DACL = nullptr;                    // points into SecDesc (GetNamedSecurityInfoW)
    PSECURITY_DESCRIPTOR SecDesc = nullptr; // LocalAlloc'd by GetNamedSecurityInfoW
    bool bOwnsAllocations = false;
};

} // namespace morvane
