// Mending a group of hard links: which names are linked to which, the traces, and taking
// ownership of a target whose plain link is refused. Hard links are real under Wine.
#include "support/IatPatch.h"
#include "trace/TraceObjects.h"
#include "unit/BaseServicesFixture.h"

#include <aclapi.h>
#include <sddl.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>

using namespace kefltest;
using morvane::HardLinkEntry;
using morvane::HardLinkList;

namespace
{

const wchar_t kRoot[] = L"E:\\HardLinks";

// The names of one section; the entries point into vNames.
struct CSection
{
    explicit CSection(std::initializer_list<std::wstring> names) : vNames(names), vEntries(vNames.size())
    {
        for (size_t i = 0; i < vNames.size(); ++i)
        {
            vEntries[i].wszFileName = vNames[i].c_str();
            list.push_back(&vEntries[i]);
        }
    }
    std::vector<std::wstring> vNames;
    std::vector<HardLinkEntry> vEntries;
    HardLinkList list;
};

struct CFileId
{
    DWORD nLinks = 0;
    uint64_t ullIndex = 0;
};
std::optional<CFileId> FileIdOf(const std::wstring& sPath)
{
    morvane::CUniqueFile hFile(::CreateFileW(sPath.c_str(), 0,
                                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                             OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    BY_HANDLE_FILE_INFORMATION info = {};
    if (!hFile || !::GetFileInformationByHandle(hFile.get(), &info))
        return std::nullopt;
    return CFileId{info.nNumberOfLinks, (uint64_t(info.nFileIndexHigh) << 32) | info.nFileIndexLow};
}

std::wstring SidText(PSID pSid)
{
    LPWSTR pwszSid = nullptr;
    if (pSid == nullptr || !::ConvertSidToStringSidW(pSid, &pwszSid))
        return L"<none>";
    morvane::CUniqueLocalMem hText(pwszSid);
    return pwszSid;
}

std::string AclBytes(const ACL* pAcl)
{
    return pAcl ? std::string(reinterpret_cast<const char*>(pAcl), pAcl->AclSize) : std::string("<null>");
}

// A file's owner (as text) and DACL (as bytes).
struct CFileSecurity
{
    std::wstring sOwner;
    std::string sDacl;
};
} // namespace

class HardLinkFixture : public BaseServicesFixture
{
protected:
    void SetUp() override
    {
        BaseServicesFixture::SetUp();
        morvane::g_VeskTrace.SetTraceLevel(4); // setting 4: verbose lines too
        RemoveTree(L"\\\\?\\E:\\HardLinks");
        ASSERT_TRUE(::CreateDirectoryW(kRoot, nullptr));
        m_cLinesBefore = VeskLog().size();
    }
    void TearDown() override
    {
        RemoveTree(L"\\\\?\\E:\\HardLinks");
        morvane::g_VeskTrace.ReadTraceLevel();
        BaseServicesFixture::TearDown();
    }

    static std::wstring PathOf(const wchar_t* pwszName) { return std::wstring(kRoot) + L"\\" + pwszName; }
    // The lines this test wrote, and the texts of those with one marker.
    std::vector<std::wstring> NewLines() const
    {
        auto vLines = VeskLog();
        vLines.erase(vLines.begin(), vLines.begin() + std::min(m_cLinesBefore, vLines.size()));
        return vLines;
    }
    std::vector<std::wstring> NewTexts(const wchar_t* pwszMarker) const
    {
        return TextsWithMarker(NewLines(), pwszMarker);
    }
    static bool Contains(const std::vector<std::wstring>& vTexts, const std::wstring& sText)
    {
        return std::find(vTexts.begin(), vTexts.end(), sText) != vTexts.end();
    }

    size_t m_cLinesBefore = 0;
};

TEST_F(HardLinkFixture, AllNamesExistOrNoneExists)
{
    WriteTextFile(PathOf(L"a.txt"), "a");
    WriteTextFile(PathOf(L"b.txt"), "b");
    CSection all({PathOf(L"a.txt"), PathOf(L"b.txt")});
    EXPECT_TRUE(m_impl.ProcessSection(L"Files", all.list));
    EXPECT_TRUE(all.vEntries[0].bExists && all.vEntries[1].bExists);
    EXPECT_EQ(1u, FileIdOf(PathOf(L"a.txt")).value().nLinks);
    EXPECT_EQ(1u, FileIdOf(PathOf(L"b.txt")).value().nLinks);

    CSection none({PathOf(L"x.txt"), PathOf(L"y.txt")});
    none.vEntries[0].bExists = true; // a stale mark is corrected
    EXPECT_TRUE(m_impl.ProcessSection(L"Files", none.list));
    EXPECT_FALSE(none.vEntries[0].bExists || none.vEntries[1].bExists);
    // Asked directly, there is nothing to link to.
    EXPECT_FALSE(m_impl.FixHardLinks(L"Files", none.list));
    EXPECT_FALSE(FileExists(PathOf(L"x.txt")));

    EXPECT_TRUE(
        Contains(NewTexts(L":[I]: "), L"VESKImpl::ProcessSection : Section complete - no action necessary"));
    EXPECT_TRUE(
        Contains(NewTexts(L":[W]: "), L"VESKImpl::ProcessSection : No targets exist - no action possible"));
    EXPECT_TRUE(Contains(NewTexts(L":[E]: "), L"VESKImpl::FixHardLinks : ... ending(No existing targets)"));
}

TEST_F(HardLinkFixture, MissingNamesAreLinkedToTheFirstExistingOne)
{
    WriteTextFile(PathOf(L"first.txt"), "first");
    WriteTextFile(PathOf(L"second.txt"), "second");
    CSection section({PathOf(L"missing.txt"), PathOf(L"first.txt"), PathOf(L"second.txt"),
                      PathOf(L"new\\deep\\folder\\missing2.txt")});
    section.list.push_back(nullptr); // passed over like a nameless entry
    HardLinkEntry nameless;
    section.list.push_back(&nameless);

    EXPECT_TRUE(m_impl.ProcessSection(L"Files", section.list));
    const auto first = FileIdOf(PathOf(L"first.txt"));
    ASSERT_TRUE(first);
    EXPECT_EQ(3u, first->nLinks);
    for (const wchar_t* pwszLink : {L"missing.txt", L"new\\deep\\folder\\missing2.txt"})
    {
        const auto link = FileIdOf(PathOf(pwszLink));
        ASSERT_TRUE(link) << testing::PrintToString(pwszLink);
        EXPECT_EQ(first->ullIndex, link->ullIndex);
    }
    // The second existing name is another file and is left alone.
    const auto second = FileIdOf(PathOf(L"second.txt")).value();
    EXPECT_EQ(1u, second.nLinks);
    EXPECT_NE(first->ullIndex, second.ullIndex);
    EXPECT_EQ("second", ReadFileBytes(PathOf(L"second.txt")));

    const auto vInfo = NewTexts(L":[I]: ");
    EXPECT_TRUE(Contains(vInfo, L"VESKImpl::FixHardLinks : sSection = \"Files\""));
    EXPECT_TRUE(Contains(vInfo, L"VESKImpl::FixHardLinks : HardLinkList.size() = 6"));
    EXPECT_TRUE(Contains(vInfo, L"VESKImpl::FixHardLinks : Created hardlink :"));
    EXPECT_TRUE(Contains(vInfo, L"VESKImpl::FixHardLinks : [link] ->  : (*chlit)->wszFileName = \"" +
                                    PathOf(L"new\\deep\\folder\\missing2.txt") + L"\""));
    EXPECT_TRUE(Contains(vInfo, L"VESKImpl::FixHardLinks : [target]   : wszTarget = \"" +
                                    PathOf(L"first.txt") + L"\""));
    EXPECT_TRUE(Contains(NewTexts(L":[V]: "), L"VESKImpl::FixHardLinks : ... ending"));
    EXPECT_TRUE(Contains(NewTexts(L":[V]: "), L"VESKImpl::ProcessSection : ... ending"));
}

TEST_F(HardLinkFixture, DirectoryIsNeverTheTargetAndPendingDeletesAreSkipped)
{
    ASSERT_TRUE(::CreateDirectoryW(PathOf(L"dir").c_str(), nullptr));
    WriteTextFile(PathOf(L"file.txt"), "file");
    const std::wstring sPending = PathOf(L"Temp\\PendingDeletes\\$$DeleteMe.1234");
    CSection section({PathOf(L"dir"), sPending, PathOf(L"file.txt"), PathOf(L"missing.txt")});

    // The folder's name cannot be made a link: an error, after the other names were mended.
    EXPECT_FALSE(m_impl.ProcessSection(L"Files", section.list));
    EXPECT_FALSE(section.vEntries[0].bExists);
    EXPECT_EQ(FileIdOf(PathOf(L"file.txt")).value().ullIndex,
              FileIdOf(PathOf(L"missing.txt")).value().ullIndex);
    EXPECT_FALSE(FileExists(sPending));
    EXPECT_EQ(FILE_ATTRIBUTE_DIRECTORY,
              ::GetFileAttributesW(PathOf(L"dir").c_str()) & FILE_ATTRIBUTE_DIRECTORY);

    const auto vErrors = NewTexts(L":[E]: ");
    EXPECT_TRUE(
        Contains(vErrors, L"VESKImpl::ProcessSection : (*hlit)->wszFileName = \"" + PathOf(L"dir") + L"\""));
    EXPECT_TRUE(Contains(vErrors, L"VESKImpl::ProcessSection : Exists as a directory!"));
    EXPECT_TRUE(Contains(vErrors, L"VESKImpl::FixHardLinks : CreateHardLink failed"));
    EXPECT_TRUE(Contains(vErrors, L"VESKImpl::FixHardLinks : [link] ->  : (*chlit)->wszFileName = \"" +
                                      PathOf(L"dir") + L"\""));
    EXPECT_TRUE(Contains(vErrors, L"VESKImpl::FixHardLinks : [target]   : wszTarget = \"" +
                                      PathOf(L"file.txt") + L"\""));
    EXPECT_TRUE(Contains(vErrors, L"VESKImpl::FixHardLinks : ... ending(With errors)"));
    EXPECT_TRUE(Contains(vErrors, L"VESKImpl::ProcessSection : ... ending(With error)"));
    EXPECT_TRUE(Contains(NewTexts(L":[I]: "), L"VESKImpl::FixHardLinks : Skipping hardlink :"));
}

TEST_F(HardLinkFixture, InvalidOneElementAndEmptySections)
{
    WriteTextFile(PathOf(L"only.txt"), "only");
    CSection one({PathOf(L"only.txt")});
    CSection empty({});
    EXPECT_TRUE(m_impl.FixHardLinks(L"Files", one.list));
    EXPECT_FALSE(m_impl.FixHardLinks(L"Files", empty.list));
    EXPECT_FALSE(m_impl.FixHardLinks(L"", one.list));
    EXPECT_FALSE(m_impl.ProcessSection(L"", one.list));
    EXPECT_TRUE(m_impl.ProcessSection(L"Files", empty.list)) << "nothing missing";
    EXPECT_FALSE(m_impl.MyCreateHardLink(L"", PathOf(L"only.txt")));
    EXPECT_FALSE(m_impl.MyCreateHardLink(PathOf(L"link.txt"), L""));
    EXPECT_FALSE(m_impl.MyCreateHardLink(PathOf(L"link.txt"), PathOf(L"absent.txt")));
    EXPECT_EQ(1u, FileIdOf(PathOf(L"only.txt")).value().nLinks);

    EXPECT_TRUE(Contains(NewTexts(L":[I]: "),
                         L"VESKImpl::FixHardLinks : ... ending(Hard-Link section with only one element)"));
    const auto vErrors = NewTexts(L":[E]: ");
    for (const wchar_t* pwszText : {L"VESKImpl::FixHardLinks : ... ending(Empty Hard-Link section)",
                                    L"VESKImpl::FixHardLinks : ... ending(Invalid section)",
                                    L"VESKImpl::ProcessSection : ... ending(Invalid section name)",
                                    L"VESKImpl::MyCreateHardLink : ... ending(Invalid parameter - Link)",
                                    L"VESKImpl::MyCreateHardLink : ... ending(Invalid parameter - Target)",
                                    L"VESKImpl::MyCreateHardLink : ... ending(CreateHardLink failed)",
                                    L"VESKImpl::MyCreateHardLink : dwLastError = 2"})
        EXPECT_TRUE(Contains(vErrors, pwszText)) << testing::PrintToString(pwszText);
}

// A client that mends links its own way.
class CFixRecorder : public CTestVESKImpl
{
public:
    bool FixHardLinks(const std::wstring& sSection, HardLinkList& hardLinks) override
    {
        vCalls.push_back(sSection + L":" + std::to_wstring(hardLinks.size()));
        return bAnswer;
    }
    std::vector<std::wstring> vCalls;
    bool bAnswer = true;
};

TEST_F(HardLinkFixture, ProcessSectionCallsTheOverriddenFixHardLinks)
{
    WriteTextFile(PathOf(L"here.txt"), "here");
    CSection section({PathOf(L"here.txt"), PathOf(L"gone.txt")});
    CFixRecorder recorder;
    EXPECT_TRUE(recorder.ProcessSection(L"Files", section.list));
    recorder.bAnswer = false;
    EXPECT_FALSE(recorder.ProcessSection(L"Files", section.list));
    EXPECT_EQ((std::vector<std::wstring>{L"Files:2", L"Files:2"}), recorder.vCalls);
    EXPECT_FALSE(FileExists(PathOf(L"gone.txt")));
    EXPECT_TRUE(Contains(NewTexts(L":[V]: "), L"VESKImpl::ProcessSection : ... ending"));
    EXPECT_TRUE(Contains(NewTexts(L":[E]: "), L"VESKImpl::ProcessSection : ... ending(With error)"));
}

// The ownership path. CreateHardLinkW refuses, as Windows does for a target the caller may not
// write the attributes of, until the target's DACL has been widened. Wine 8 answers success to
// SetNamedSecurityInfoW on a file but keeps neither owner nor DACL (reading them back gives what it
// derives from the Unix file), so GetNamedSecurityInfoW and SetNamedSecurityInfoW are stood in by
// a descriptor the test keeps for the target, as Windows keeps it with the file; every call is
// recorded in order. SetEntriesInAclW is Wine's own (it knows "CURRENT_USER").
class HardLinkOwnershipFixture : public HardLinkFixture
{
protected:
    void SetUp() override
    {
        HardLinkFixture::SetUp();
        s_vCalls.clear();
        s_vDacls.clear();
        s_bDaclWidened = false;
        s_dwFailEntriesInAcl = ERROR_SUCCESS;
        WriteTextFile(PathOf(L"target.txt"), "target");
        // The target starts with what Wine reports for it.
        PSID pOwner = nullptr;
        PACL pDacl = nullptr;
        PSECURITY_DESCRIPTOR pSd = nullptr;
        ASSERT_EQ(DWORD(ERROR_SUCCESS),
                  ::GetNamedSecurityInfoW(PathOf(L"target.txt").c_str(), SE_FILE_OBJECT,
                                          OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &pOwner,
                                          nullptr, &pDacl, nullptr, &pSd));
        morvane::CUniqueLocalMem hSd(pSd);
        ASSERT_TRUE(pOwner && pDacl);
        s_owner = CopyOf(pOwner, ::GetLengthSid(pOwner));
        s_dacl = CopyOf(pDacl, pDacl->AclSize);
        m_before = Stored();
        Patch(m_pCreate, "KERNEL32.dll", "CreateHardLinkW",
              reinterpret_cast<const void*>(&RefusingCreateHardLink));
        Patch(m_pGet, "ADVAPI32.dll", "GetNamedSecurityInfoW",
              reinterpret_cast<const void*>(&StandInGetSecurity));
        Patch(m_pSet, "ADVAPI32.dll", "SetNamedSecurityInfoW",
              reinterpret_cast<const void*>(&StandInSetSecurity));
        Patch(m_pEntries, "ADVAPI32.dll", "SetEntriesInAclW",
              reinterpret_cast<const void*>(&RecordingSetEntriesInAcl));
    }
    void TearDown() override
    {
        m_pCreate.reset();
        m_pGet.reset();
        m_pSet.reset();
        m_pEntries.reset();
        HardLinkFixture::TearDown();
    }
    static void Patch(std::unique_ptr<CIatPatch>& pPatch, const char* pszDll, const char* pszFunction,
                      const void* pfnReplacement)
    {
        pPatch =
            std::make_unique<CIatPatch>(::GetModuleHandleW(nullptr), pszDll, pszFunction, pfnReplacement);
        ASSERT_TRUE(pPatch->IsApplied()) << pszFunction;
        s_originals[pszFunction] = pPatch->Original();
    }
    template <typename Fn> static Fn OriginalOf(const char* pszFunction)
    {
        return reinterpret_cast<Fn>(s_originals[pszFunction]);
    }
    // A SID or ACL kept DWORD-aligned.
    static std::vector<DWORD> CopyOf(const void* pData, size_t cb)
    {
        std::vector<DWORD> v((cb + 3) / 4);
        std::memcpy(v.data(), pData, cb);
        return v;
    }
    // The target's owner and DACL as kept.
    static CFileSecurity Stored()
    {
        return {SidText(const_cast<DWORD*>(s_owner.data())),
                AclBytes(reinterpret_cast<const ACL*>(s_dacl.data()))};
    }

    static BOOL WINAPI RefusingCreateHardLink(LPCWSTR pwszLink, LPCWSTR pwszTarget, LPSECURITY_ATTRIBUTES pSa)
    {
        // A missing folder is reported before access is checked, as Windows does.
        const std::wstring sLink(pwszLink);
        if (::GetFileAttributesW(sLink.substr(0, sLink.rfind(L'\\')).c_str()) == INVALID_FILE_ATTRIBUTES)
        {
            s_vCalls.push_back(L"CreateHardLink no folder");
            ::SetLastError(ERROR_PATH_NOT_FOUND);
            return FALSE;
        }
        if (!s_bDaclWidened)
        {
            s_vCalls.push_back(L"CreateHardLink refused");
            ::SetLastError(ERROR_ACCESS_DENIED);
            return FALSE;
        }
        s_vCalls.push_back(L"CreateHardLink");
        using Fn = BOOL(WINAPI*)(LPCWSTR, LPCWSTR, LPSECURITY_ATTRIBUTES);
        return OriginalOf<Fn>("CreateHardLinkW")(pwszLink, pwszTarget, pSa);
    }
    // Hands out the kept owner and DACL in one self-relative descriptor from LocalAlloc, with the
    // owner and DACL pointing into it, as Windows does.
    static DWORD WINAPI StandInGetSecurity(LPCWSTR, SE_OBJECT_TYPE type, SECURITY_INFORMATION si,
                                           PSID* ppOwner, PSID* ppGroup, PACL* ppDacl, PACL* ppSacl,
                                           PSECURITY_DESCRIPTOR* ppSd)
    {
        s_vCalls.push_back(L"Get " + std::to_wstring(type) + L"/" + std::to_wstring(si));
        SECURITY_DESCRIPTOR sd = {};
        ::InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
        ::SetSecurityDescriptorOwner(&sd, s_owner.data(), FALSE);
        ::SetSecurityDescriptorDacl(&sd, TRUE, reinterpret_cast<PACL>(s_dacl.data()), FALSE);
        DWORD cb = 0;
        ::MakeSelfRelativeSD(&sd, nullptr, &cb);
        PSECURITY_DESCRIPTOR pSelf = ::LocalAlloc(LMEM_FIXED, cb);
        if (pSelf == nullptr || !::MakeSelfRelativeSD(&sd, pSelf, &cb))
            return ERROR_NOT_ENOUGH_MEMORY;
        BOOL bDefaulted = FALSE, bPresent = FALSE;
        ::GetSecurityDescriptorOwner(pSelf, ppOwner, &bDefaulted);
        ::GetSecurityDescriptorDacl(pSelf, &bPresent, ppDacl, &bDefaulted);
        if (ppGroup)
            *ppGroup = nullptr;
        if (ppSacl)
            *ppSacl = nullptr;
        *ppSd = pSelf;
        return ERROR_SUCCESS;
    }
    static DWORD WINAPI StandInSetSecurity(LPWSTR, SE_OBJECT_TYPE, SECURITY_INFORMATION si, PSID pOwner, PSID,
                                           PACL pDacl, PACL)
    {
        if (si == OWNER_SECURITY_INFORMATION)
        {
            s_vCalls.push_back(L"Set owner " + SidText(pOwner));
            s_owner = CopyOf(pOwner, ::GetLengthSid(pOwner));
        }
        else if (si == DACL_SECURITY_INFORMATION)
        {
            s_vCalls.push_back(L"Set DACL");
            s_vDacls.push_back(AclBytes(pDacl));
            s_dacl = CopyOf(pDacl, pDacl->AclSize);
            s_bDaclWidened = true;
        }
        else
            s_vCalls.push_back(L"Set " + std::to_wstring(si));
        return ERROR_SUCCESS;
    }
    static DWORD WINAPI RecordingSetEntriesInAcl(ULONG cEntries, PEXPLICIT_ACCESSW pEntries, PACL pOld,
                                                 PACL* ppNew)
    {
        const EXPLICIT_ACCESSW& ea = pEntries[0];
        s_vCalls.push_back(L"SetEntriesInAcl " + std::to_wstring(cEntries) + L" " +
                           std::to_wstring(ea.grfAccessPermissions) + L" " +
                           std::to_wstring(ea.grfAccessMode) + L" " + std::to_wstring(ea.grfInheritance) +
                           L" " + std::to_wstring(ea.Trustee.TrusteeForm) + L" " +
                           std::to_wstring(ea.Trustee.TrusteeType) + L" " + ea.Trustee.ptstrName);
        if (s_dwFailEntriesInAcl != ERROR_SUCCESS)
            return s_dwFailEntriesInAcl;
        using Fn = DWORD(WINAPI*)(ULONG, PEXPLICIT_ACCESSW, PACL, PACL*);
        return OriginalOf<Fn>("SetEntriesInAclW")(cEntries, pEntries, pOld, ppNew);
    }

    static inline std::vector<std::wstring> s_vCalls;
    static inline std::vector<std::string> s_vDacls;
    static inline std::vector<DWORD> s_owner, s_dacl;
    static inline bool s_bDaclWidened = false;
    static inline DWORD s_dwFailEntriesInAcl = ERROR_SUCCESS;
    static inline std::map<std::string, void*> s_originals;

    CFileSecurity m_before;
    std::unique_ptr<CIatPatch> m_pCreate, m_pGet, m_pSet, m_pEntries;
};

TEST_F(HardLinkOwnershipFixture, RefusedLinkIsMadeAsOwnerAndTheSecurityPutBack)
{
    EXPECT_TRUE(m_impl.MyCreateHardLink(PathOf(L"link.txt"), PathOf(L"target.txt")));
    const std::wstring sWiden = L"SetEntriesInAcl 1 2097151 1 0 1 1 CURRENT_USER";
    EXPECT_EQ((std::vector<std::wstring>{L"CreateHardLink refused", L"Get 1/5", L"Set owner S-1-5-32-544",
                                         sWiden, L"Set DACL", L"CreateHardLink", L"Set DACL",
                                         L"Set owner " + m_before.sOwner}),
              s_vCalls);
    ASSERT_EQ(2u, s_vDacls.size());
    EXPECT_NE(m_before.sDacl, s_vDacls[0]) << "the widened DACL";
    const CFileSecurity after = Stored();
    EXPECT_EQ(m_before.sOwner, after.sOwner);
    EXPECT_EQ(m_before.sDacl, after.sDacl);
    EXPECT_EQ(FileIdOf(PathOf(L"target.txt")).value().ullIndex,
              FileIdOf(PathOf(L"link.txt")).value().ullIndex);
    EXPECT_EQ(2u, FileIdOf(PathOf(L"link.txt")).value().nLinks);

    EXPECT_TRUE(
        Contains(NewTexts(L":[V]: "), L"VESKImpl::MyCreateHardLink : ... ending(Created Hard-Link OK)"));
    EXPECT_TRUE(NewTexts(L":[E]: ").empty()) << testing::PrintToString(NewTexts(L":[E]: "));
    // Every member that was set is traced; only the descriptor and the administrators' SID are
    // freed (the owner and DACL point into the descriptor).
    const std::wstring sThunk = L"VESKImpl::SecurityThunk::~SecurityThunk : ";
    std::vector<std::wstring> vReleases;
    for (const auto& sText : NewTexts(L":[V]: "))
        if (sText.starts_with(sThunk))
            vReleases.push_back(sText.substr(sThunk.size()));
    EXPECT_EQ((std::vector<std::wstring>{L"FreeSid(OwnerSID)", L"FreeSid(AdminSID)", L"LocalFree(DACL)",
                                         L"LocalFree(SecDesc)"}),
              vReleases);
}

TEST_F(HardLinkOwnershipFixture, FailureOnTheWayLeavesTheNewOwnerAndNoLink)
{
    s_dwFailEntriesInAcl = ERROR_INVALID_PARAMETER;
    EXPECT_FALSE(m_impl.MyCreateHardLink(PathOf(L"link.txt"), PathOf(L"target.txt")));
    EXPECT_EQ((std::vector<std::wstring>{L"CreateHardLink refused", L"Get 1/5", L"Set owner S-1-5-32-544",
                                         L"SetEntriesInAcl 1 2097151 1 0 1 1 CURRENT_USER"}),
              s_vCalls);
    EXPECT_EQ(L"S-1-5-32-544", Stored().sOwner);
    EXPECT_EQ(m_before.sDacl, Stored().sDacl);
    EXPECT_FALSE(FileExists(PathOf(L"link.txt")));
    const auto vErrors = NewTexts(L":[E]: ");
    EXPECT_TRUE(Contains(vErrors, L"VESKImpl::MyCreateHardLink : ... ending(SetEntriesInAcl failed)"));
    EXPECT_TRUE(Contains(vErrors, L"VESKImpl::MyCreateHardLink : dwRc = 87"));
}

TEST_F(HardLinkOwnershipFixture, FixHardLinksTakesTheOwnershipPathToo)
{
    CSection section({PathOf(L"target.txt"), PathOf(L"sub\\link.txt")});
    section.vEntries[0].bExists = true;
    // The missing folder is made first (error 3), then the link is refused (error 5).
    EXPECT_TRUE(m_impl.FixHardLinks(L"Files", section.list));
    EXPECT_EQ(L"CreateHardLink no folder", s_vCalls.at(0));
    EXPECT_EQ(L"CreateHardLink refused", s_vCalls.at(1));
    EXPECT_EQ(L"CreateHardLink", s_vCalls.at(6));
    const auto link = FileIdOf(PathOf(L"sub\\link.txt"));
    ASSERT_TRUE(link);
    EXPECT_EQ(FileIdOf(PathOf(L"target.txt")).value().ullIndex, link->ullIndex);
    EXPECT_EQ(m_before.sOwner, Stored().sOwner);
}
