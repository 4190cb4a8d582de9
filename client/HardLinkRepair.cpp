// Mending one group of hard links, taking ownership of the target where the plain call is refused.
#include "client/SecurityThunk.h"
#include "client/VESKImpl.h"

#include "platform/UniqueHandle.h"
#include "trace/TraceObjects.h"

#include <aclapi.h>

#include <cwchar>

namespace morvane
{
namespace
{

// Names under this folder are files that were pending deletion when the backup was taken.
const wchar_t kPendingDeleteMarker[] = L"Temp\\PendingDeletes\\$$DeleteMe";

const wchar_t kCreateFn[] = L"VESKImpl::MyCreateHardLink";

// The link repair's ends: a failure traced with its reason (and the error it is about), or the
// link made.
bool LinkFailed(const wchar_t* pwszReason)
{
    g_VeskTrace.TraceMessage(TRACE_ERROR, kCreateFn, pwszReason);
    return false;
}
bool LinkFailedWith(const wchar_t* pwszReason, const wchar_t* pwszName, DWORD dwError)
{
    g_VeskTrace.TraceMessage(TRACE_ERROR, kCreateFn, pwszReason);
    g_VeskTrace.TraceValue(TRACE_ERROR, kCreateFn, pwszName, static_cast<int64_t>(dwError));
    return false;
}
bool LinkMade()
{
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, kCreateFn, L"... ending(Created Hard-Link OK)");
    return true;
}

// The first existing name, in the list's order: what every missing name is linked to. Null when
// none exists.
const wchar_t* FirstExistingName(const HardLinkList& hardLinks)
{
    for (const HardLinkEntry* pEntry : hardLinks)
    {
        if (pEntry != nullptr && pEntry->bExists && pEntry->wszFileName != nullptr)
            return pEntry->wszFileName;
    }
    return nullptr;
}

// Makes the administrators the owner of sTarget, having read its owner and DACL into thunk so that
// they can be put back. False (traced) at the first step that fails; what was changed stays so.
bool TakeOwnership(VESKImpl& client, const std::wstring& sTarget, SecurityThunk& thunk)
{
    DWORD dwRc = ::GetNamedSecurityInfoW(sTarget.c_str(), SE_FILE_OBJECT,
                                         OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                         &thunk.OwnerSID, nullptr, &thunk.DACL, nullptr, &thunk.SecDesc);
    if (dwRc != ERROR_SUCCESS)
        return LinkFailedWith(L"... ending(GetNamedSecurityInfo(Owner/DACL) failed", L"dwRc", dwRc);
    thunk.bOwnsAllocations = true;

    SID_IDENTIFIER_AUTHORITY ntAuthority = SECURITY_NT_AUTHORITY;
    if (!::AllocateAndInitializeSid(&ntAuthority, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 0,
                                    0, 0, 0, 0, 0, &thunk.AdminSID))
    {
        const DWORD dwLastError = ::GetLastError();
        thunk.AdminSID = nullptr;
        return LinkFailedWith(L"... ending(AllocateAndInitializeSid failed)", L"dwLastError", dwLastError);
    }

    if (!client.SetPrivilege(L"SeTakeOwnershipPrivilege", true))
        return LinkFailed(L"... ending(SetPrivilege(SE_TAKE_OWNERSHIP_NAME, true) failed)");

    dwRc = ::SetNamedSecurityInfoW(const_cast<LPWSTR>(sTarget.c_str()), SE_FILE_OBJECT,
                                   OWNER_SECURITY_INFORMATION, thunk.AdminSID, nullptr, nullptr, nullptr);
    if (dwRc != ERROR_SUCCESS)
        return LinkFailedWith(L"... ending(SetNamedSecurityInfo(new owner) failed)", L"dwRc", dwRc);
    return true;
}

// Gives the current user full access to sTarget: its DACL read into thunk with one entry added.
// The new DACL goes into newDacl, which the caller keeps until the repair ends. False (traced)
// when the DACL cannot be made or set.
bool GrantCurrentUserFullAccess(const std::wstring& sTarget, const SecurityThunk& thunk,
                                CUniqueLocalMem& newDacl)
{
    EXPLICIT_ACCESSW ea = {};
    ea.grfAccessPermissions = 0x1FFFFF; // all standard rights and all file rights (FILE_ALL_ACCESS)
    ea.grfAccessMode = GRANT_ACCESS;
    ea.grfInheritance = NO_INHERITANCE;
    ea.Trustee.TrusteeForm = TRUSTEE_IS_NAME;
    ea.Trustee.TrusteeType = TRUSTEE_IS_USER;
    ea.Trustee.ptstrName = const_cast<LPWSTR>(L"CURRENT_USER");
    PACL pNewDacl = nullptr;
    DWORD dwRc = ::SetEntriesInAclW(1, &ea, thunk.DACL, &pNewDacl);
    newDacl.reset(pNewDacl);
    if (dwRc != ERROR_SUCCESS)
        return LinkFailedWith(L"... ending(SetEntriesInAcl failed)", L"dwRc", dwRc);

    dwRc = ::SetNamedSecurityInfoW(const_cast<LPWSTR>(sTarget.c_str()), SE_FILE_OBJECT,
                                   DACL_SECURITY_INFORMATION, nullptr, nullptr, pNewDacl, nullptr);
    if (dwRc != ERROR_SUCCESS)
        return LinkFailedWith(L"... ending(SetNamedSecurityInfo(new DACL) failed)", L"dwRc", dwRc);
    return true;
}

// Puts sTarget's old DACL and owner back and drops the ownership privilege. Each failure is traced
// and none stops the others: the link is made, and what cannot be put back is for support staff.
void PutBackOwnerAndDacl(VESKImpl& client, const std::wstring& sTarget, const SecurityThunk& thunk)
{
    DWORD dwRc = ::SetNamedSecurityInfoW(const_cast<LPWSTR>(sTarget.c_str()), SE_FILE_OBJECT,
                                         DACL_SECURITY_INFORMATION, nullptr, nullptr, thunk.DACL, nullptr);
    if (dwRc != ERROR_SUCCESS)
        LinkFailedWith(L"... ending(SetNamedSecurityInfo(old DACL) failed)", L"dwRc", dwRc);
    dwRc = ::SetNamedSecurityInfoW(const_cast<LPWSTR>(sTarget.c_str()), SE_FILE_OBJECT,
                                   OWNER_SECURITY_INFORMATION, thunk.OwnerSID, nullptr, nullptr, nullptr);
    if (dwRc != ERROR_SUCCESS)
        LinkFailedWith(L"... ending(SetNamedSecurityInfo(old owner) failed)", L"dwRc", dwRc);
    if (!client.SetPrivilege(L"SeTakeOwnershipPrivilege", false))
        LinkFailed(L"... ending(SetPrivilege(SE_TAKE_OWNERSHIP_NAME) failed)");
}

// The link made where the plain call was refused: the administrators made the target's owner and
// the current user given full access, the link made, and the old DACL and owner put back.
bool LinkAsOwner(VESKImpl& client, const std::wstring& sLink, const std::wstring& sTarget)
{
    SecurityThunk thunk;
    // Lives until the old DACL and owner are back, and is released before the thunk's objects.
    CUniqueLocalMem newDacl;
    if (!TakeOwnership(client, sTarget, thunk) || !GrantCurrentUserFullAccess(sTarget, thunk, newDacl))
        return false;

    if (!::CreateHardLinkW(sLink.c_str(), sTarget.c_str(), nullptr))
    {
        // The target keeps the administrators as owner and the widened DACL.
        const DWORD dwLastError = ::GetLastError();
        return LinkFailedWith(L"... ending(CreateHardLink failed)", L"dwLastError", dwLastError);
    }
    PutBackOwnerAndDacl(client, sTarget, thunk);
    return LinkMade();
}

} // namespace

bool VESKImpl::ProcessSection(const std::wstring& sSection, HardLinkList& hardLinks)
{
    static const wchar_t kFn[] = L"VESKImpl::ProcessSection";
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    if (sSection.empty())
    {
        g_VeskTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Invalid section name)");
        return false;
    }

    size_t cExisting = 0;
    for (auto hlit = hardLinks.begin(); hlit != hardLinks.end(); ++hlit)
    {
        if (*hlit == nullptr || (*hlit)->wszFileName == nullptr)
            continue;
        const DWORD dwAttributes = ::GetFileAttributesW((*hlit)->wszFileName);
        if (dwAttributes == INVALID_FILE_ATTRIBUTES)
        {
            (*hlit)->bExists = false;
        }
        else if (dwAttributes & FILE_ATTRIBUTE_DIRECTORY)
        {
            // A folder cannot be a name of the file: it is not counted, and never becomes the
            // target of the others.
            g_VeskTrace.TraceValue(TRACE_ERROR, kFn, L"(*hlit)->wszFileName", (*hlit)->wszFileName);
            g_VeskTrace.TraceMessage(TRACE_ERROR, kFn, L"Exists as a directory!");
            (*hlit)->bExists = false;
        }
        else
        {
            (*hlit)->bExists = true;
            ++cExisting;
        }
    }

    if (cExisting == hardLinks.size())
    {
        g_VeskTrace.TraceMessage(TRACE_INFO, kFn, L"Section complete - no action necessary");
        return true;
    }
    if (cExisting == 0)
    {
        g_VeskTrace.TraceMessage(TRACE_WARNING, kFn, L"No targets exist - no action possible");
        return true;
    }
    // Through the virtual table: a derived client may mend the links its own way.
    if (!this->FixHardLinks(sSection, hardLinks))
    {
        g_VeskTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(With error)");
        return false;
    }
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return true;
}

bool VESKImpl::FixHardLinks(const std::wstring& sSection, HardLinkList& hardLinks)
{
    static const wchar_t kFn[] = L"VESKImpl::FixHardLinks";
    // The two value lines of each link carry their tag in the function part, so that they read
    // "VESKImpl::FixHardLinks : [link] ->  : (*chlit)->wszFileName = ..." and
    // "VESKImpl::FixHardLinks : [target]   : wszTarget = ...".
    static const wchar_t kLinkFn[] = L"VESKImpl::FixHardLinks : [link] -> ";
    static const wchar_t kTargetFn[] = L"VESKImpl::FixHardLinks : [target]  ";
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    if (sSection.empty())
    {
        g_VeskTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Invalid section)");
        return false;
    }
    g_VeskTrace.TraceValue(TRACE_INFO, kFn, L"sSection", sSection);
    if (hardLinks.empty())
    {
        g_VeskTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Empty Hard-Link section)");
        return false;
    }
    if (hardLinks.size() == 1)
    {
        g_VeskTrace.TraceMessage(TRACE_INFO, kFn, L"... ending(Hard-Link section with only one element)");
        return true;
    }
    g_VeskTrace.TraceValue(TRACE_INFO, kFn, L"HardLinkList.size()", static_cast<int64_t>(hardLinks.size()));

    // Restoring an owner other than ourselves needs this privilege; without it the plain links
    // may still work.
    if (!SetPrivilege(L"SeRestorePrivilege", true))
        g_VeskTrace.TraceMessage(TRACE_ERROR, kFn, L"SetPrivilege(SE_RESTORE_NAME) failed)");

    const wchar_t* wszTarget = FirstExistingName(hardLinks);
    if (wszTarget == nullptr)
    {
        g_VeskTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(No existing targets)");
        return false;
    }

    bool bErrors = false;
    for (auto chlit = hardLinks.cbegin(); chlit != hardLinks.cend(); ++chlit)
    {
        if (*chlit == nullptr || (*chlit)->bExists || (*chlit)->wszFileName == nullptr)
            continue;
        if (std::wcsstr((*chlit)->wszFileName, kPendingDeleteMarker) != nullptr)
        {
            g_VeskTrace.TraceMessage(TRACE_INFO, kFn, L"Skipping hardlink :");
            continue;
        }
        if (MyCreateHardLink((*chlit)->wszFileName, wszTarget))
        {
            g_VeskTrace.TraceMessage(TRACE_INFO, kFn, L"Created hardlink :");
            g_VeskTrace.TraceValue(TRACE_INFO, kLinkFn, L"(*chlit)->wszFileName", (*chlit)->wszFileName);
            g_VeskTrace.TraceValue(TRACE_INFO, kTargetFn, L"wszTarget", wszTarget);
        }
        else
        {
            g_VeskTrace.TraceMessage(TRACE_ERROR, kFn, L"CreateHardLink failed");
            g_VeskTrace.TraceValue(TRACE_ERROR, kLinkFn, L"(*chlit)->wszFileName", (*chlit)->wszFileName);
            g_VeskTrace.TraceValue(TRACE_ERROR, kTargetFn, L"wszTarget", wszTarget);
            bErrors = true;
        }
    }
    if (bErrors)
    {
        g_VeskTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(With errors)");
        return false;
    }
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    return true;
}

bool VESKImpl::MyCreateHardLink(const std::wstring& sLink, const std::wstring& sTarget)
{
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, kCreateFn, L"starting ...");
    if (sLink.empty())
        return LinkFailed(L"... ending(Invalid parameter - Link)");
    if (sTarget.empty())
        return LinkFailed(L"... ending(Invalid parameter - Target)");

    if (::CreateHardLinkW(sLink.c_str(), sTarget.c_str(), nullptr))
        return LinkMade();
    DWORD dwLastError = ::GetLastError();
    if (dwLastError == ERROR_PATH_NOT_FOUND)
    {
        CreateParentDir(sLink);
        if (::CreateHardLinkW(sLink.c_str(), sTarget.c_str(), nullptr))
            return LinkMade();
        dwLastError = ::GetLastError();
    }
    if (dwLastError != ERROR_ACCESS_DENIED)
        return LinkFailedWith(L"... ending(CreateHardLink failed)", L"dwLastError", dwLastError);
    return LinkAsOwner(*this, sLink, sTarget);
}

} // namespace morvane
