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

    // The first existing name, in the list's order, is what every missing name is linked to.
    const wchar_t* wszTarget = nullptr;
    for (const HardLinkEntry* pEntry : hardLinks)
    {
        if (pEntry != nullptr && pEntry->bExists && pEntry->wszFileName != nullptr)
        {
            wszTarget = pEntry->wszFileName;
            break;
        }
    }
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
    static const wchar_t kFn[] = L"VESKImpl::MyCreateHardLink";
    auto fail = [](const wchar_t* pwszReason) -> bool
    {
        g_VeskTrace.TraceMessage(TRACE_ERROR, kFn, pwszReason);
        return false;
    };
    auto failWith = [](const wchar_t* pwszReason, const wchar_t* pwszName, DWORD dwError) -> bool
    {
        g_VeskTrace.TraceMessage(TRACE_ERROR, kFn, pwszReason);
        g_VeskTrace.TraceValue(TRACE_ERROR, kFn, pwszName, static_cast<int64_t>(dwError));
        return false;
    };
    auto linked = []() -> bool
    {
        g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending(Created Hard-Link OK)");
        return true;
    };
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"starting ...");
    if (sLink.empty())
        return fail(L"... ending(Invalid parameter - Link)");
    if (sTarget.empty())
        return fail(L"... ending(Invalid parameter - Target)");

    if (::CreateHardLinkW(sLink.c_str(), sTarget.c_str(), nullptr))
        return linked();
    DWORD dwLastError = ::GetLastError();
    if (dwLastError == ERROR_PATH_NOT_FOUND)
    {
        CreateParentDir(sLink);
        if (::CreateHardLinkW(sLink.c_str(), sTarget.c_str(), nullptr))
            return linked();
        dwLastError = ::GetLastError();
    }
    if (dwLastError != ERROR_ACCESS_DENIED)
        return failWith(L"... ending(CreateHardLink failed)", L"dwLastError", dwLastError);

    // Refused: the target's owner and DACL are read, the administrators made its owner and the
    // current user given full access, the link made, and the old DACL and owner put back.
    SecurityThunk thunk;
    DWORD dwRc = ::GetNamedSecurityInfoW(sTarget.c_str(), SE_FILE_OBJECT,
                                         OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                         &thunk.OwnerSID, nullptr, &thunk.DACL, nullptr, &thunk.SecDesc);
    if (dwRc != ERROR_SUCCESS)
        return failWith(L"... ending(GetNamedSecurityInfo(Owner/DACL) failed", L"dwRc", dwRc);
    thunk.bOwnsAllocations = true;

    SID_IDENTIFIER_AUTHORITY ntAuthority = SECURITY_NT_AUTHORITY;
    if (!::AllocateAndInitializeSid(&ntAuthority, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 0,
                                    0, 0, 0, 0, 0, &thunk.AdminSID))
    {
        dwLastError = ::GetLastError();
        thunk.AdminSID = nullptr;
        return failWith(L"... ending(AllocateAndInitializeSid failed)", L"dwLastError", dwLastError);
    }

    if (!SetPrivilege(L"SeTakeOwnershipPrivilege", true))
        return fail(L"... ending(SetPrivilege(SE_TAKE_OWNERSHIP_NAME, true) failed)");

    dwRc = ::SetNamedSecurityInfoW(const_cast<LPWSTR>(sTarget.c_str()), SE_FILE_OBJECT,
                                   OWNER_SECURITY_INFORMATION, thunk.AdminSID, nullptr, nullptr, nullptr);
    if (dwRc != ERROR_SUCCESS)
        return failWith(L"... ending(SetNamedSecurityInfo(new owner) failed)", L"dwRc", dwRc);

    EXPLICIT_ACCESSW ea = {};
    ea.grfAccessPermissions = 0x1FFFFF; // all standard rights and all file rights (FILE_ALL_ACCESS)
    ea.grfAccessMode = GRANT_ACCESS;
    ea.grfInheritance = NO_INHERITANCE;
    ea.Trustee.TrusteeForm = TRUSTEE_IS_NAME;
    ea.Trustee.TrusteeType = TRUSTEE_IS_USER;
    ea.Trustee.ptstrName = const_cast<LPWSTR>(L"CURRENT_USER");
    CUniqueLocalMem newDacl;
    PACL pNewDacl = nullptr;
    dwRc = ::SetEntriesInAclW(1, &ea, thunk.DACL, &pNewDacl);
    newDacl.reset(pNewDacl);
    if (dwRc != ERROR_SUCCESS)
        return failWith(L"... ending(SetEntriesInAcl failed)", L"dwRc", dwRc);

    dwRc = ::SetNamedSecurityInfoW(const_cast<LPWSTR>(sTarget.c_str()), SE_FILE_OBJECT,
                                   DACL_SECURITY_INFORMATION, nullptr, nullptr, pNewDacl, nullptr);
    if (dwRc != ERROR_SUCCESS)
        return failWith(L"... ending(SetNamedSecurityInfo(new DACL) failed)", L"dwRc", dwRc);

    if (!::CreateHardLinkW(sLink.c_str(), sTarget.c_str(), nullptr))
    {
        // The target keeps the administrators as owner and the widened DACL.
        dwLastError = ::GetLastError();
        return failWith(L"... ending(CreateHardLink failed)", L"dwLastError", dwLastError);
    }

    dwRc = ::SetNamedSecurityInfoW(const_cast<LPWSTR>(sTarget.c_str()), SE_FILE_OBJECT,
                                   DACL_SECURITY_INFORMATION, nullptr, nullptr, thunk.DACL, nullptr);
    if (dwRc != ERROR_SUCCESS)
        failWith(L"... ending(SetNamedSecurityInfo(old DACL) failed)", L"dwRc", dwRc);
    dwRc = ::SetNamedSecurityInfoW(const_cast<LPWSTR>(sTarget.c_str()), SE_FILE_OBJECT,
                                   OWNER_SECURITY_INFORMATION, thunk.OwnerSID, nullptr, nullptr, nullptr);
    if (dwRc != ERROR_SUCCESS)
        failWith(L"... ending(SetNamedSecurityInfo(old owner) failed)", L"dwRc", dwRc);
    if (!SetPrivilege(L"SeTakeOwnershipPrivilege", false))
        fail(L"... ending(SetPrivilege(SE_TAKE_OWNERSHIP_NAME) failed)");
    return linked();
}

} // namespace morvane
