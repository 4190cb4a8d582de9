// Mending a group of hard links, taking ownership of a target whose plain link is refused.
#include "unit/BaseServicesFixture.h"

#include <aclapi.h>
#include <sddl.h>

using namespace kefltest;

namespace
{

const std::wstring kDir = std::wstring(kWorkDir) + L"\\";

// The names of one section in the work folder.
struct CSection
{
    explicit CSection(std::initializer_list<const wchar_t*> names)
        : vNames(names.size()), vEntries(names.size())
    {
        for (size_t i = 0; i < vNames.size(); ++i)
            list.push_back(&(vEntries[i] = {(vNames[i] = kDir + names.begin()[i]).c_str()}));
    }
    std::vector<std::wstring> vNames;
    std::vector<morvane::HardLinkEntry> vEntries;
    morvane::HardLinkList list;
};

using HardLinkRepair = BaseServicesFixture;

// A client of its own, which mends through the base class but records that it was asked.
class CRecordingClient : public CTestVESKImpl
{
public:
    bool FixHardLinks(const std::wstring& sSection, morvane::HardLinkList& hardLinks) override
    {
        vCalls.push_back(sSection + L":" + std::to_wstring(hardLinks.size()));
        return VESKImpl::FixHardLinks(sSection, hardLinks);
    }
    std::vector<std::wstring> vCalls;
};

TEST_F(HardLinkRepair, MissingNamesAreLinkedToTheFirstExistingFileThroughTheVirtualTable)
{
    WriteTextFile(kDir + L"first.txt", "first");
    WriteTextFile(kDir + L"second.txt", "second");
    const wchar_t kPending[] = L"Temp\\PendingDeletes\\$$DeleteMe.1234";
    CSection section({L"m1", kPending, L"first.txt", L"second.txt", L"new\\deep\\m2"});
    CRecordingClient client;
    EXPECT_TRUE(client.ProcessSection(L"Files", section.list));

    EXPECT_EQ(std::vector<std::wstring>{L"Files:5"}, client.vCalls) << "a derived client's FixHardLinks";
    const CFileIdentity first = FileIdentity(kDir + L"first.txt");
    EXPECT_EQ(3u, first.dwLinks);
    for (const wchar_t* pwszLink : {L"m1", L"new\\deep\\m2"})
        EXPECT_EQ(first.ullIndex, FileIdentity(kDir + pwszLink).ullIndex) << testing::PrintToString(pwszLink);
    EXPECT_EQ(1u, FileIdentity(kDir + L"second.txt").dwLinks) << "another existing file is left alone";
    EXPECT_FALSE(FileExists(kDir + kPending)) << "names pending deletion are skipped";
}

// The ownership path: CreateHardLinkW refuses (as Windows does for a target the caller may not
// write) until a DACL was set. Wine 8 keeps no owner or DACL set, so the stand-in records them.
std::vector<std::wstring> g_vSecurityCalls;
std::vector<std::string> g_vDacls;
decltype(&::CreateHardLinkW) g_pfnRealCreateHardLink = nullptr;

std::wstring SidText(PSID pSid)
{
    LPWSTR pwszSid = nullptr;
    ::ConvertSidToStringSidW(pSid, &pwszSid);
    morvane::CUniqueLocalMem hText(pwszSid);
    return pwszSid ? pwszSid : L"<none>";
}
BOOL WINAPI RefusingCreateHardLink(LPCWSTR pwszLink, LPCWSTR pwszTarget, LPSECURITY_ATTRIBUTES pSa)
{
    g_vSecurityCalls.push_back(g_vDacls.empty() ? L"CreateHardLink refused" : L"CreateHardLink");
    ::SetLastError(ERROR_ACCESS_DENIED);
    return !g_vDacls.empty() && g_pfnRealCreateHardLink(pwszLink, pwszTarget, pSa);
}
DWORD WINAPI RecordingSetSecurity(LPWSTR, SE_OBJECT_TYPE, SECURITY_INFORMATION si, PSID pOwner, PSID,
                                  PACL pDacl, PACL)
{
    if (si != OWNER_SECURITY_INFORMATION)
        g_vDacls.emplace_back(reinterpret_cast<const char*>(pDacl), pDacl->AclSize);
    g_vSecurityCalls.push_back(si == OWNER_SECURITY_INFORMATION ? L"owner " + SidText(pOwner) : L"DACL");
    return ERROR_SUCCESS;
}

TEST_F(HardLinkRepair, ARefusedLinkIsMadeAsOwnerAndTheSecurityPutBack)
{
    WriteTextFile(kDir + L"target.txt", "target");
    PSID pOwner = nullptr;
    PACL pDacl = nullptr;
    PSECURITY_DESCRIPTOR pSd = nullptr;
    ASSERT_EQ(DWORD(ERROR_SUCCESS),
              ::GetNamedSecurityInfoW((kDir + L"target.txt").c_str(), SE_FILE_OBJECT,
                                      OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &pOwner,
                                      nullptr, &pDacl, nullptr, &pSd));
    morvane::CUniqueLocalMem hSd(pSd);
    g_vSecurityCalls.clear();
    g_vDacls.clear();
    g_pfnRealCreateHardLink =
        m_patches.Patch(m_hExe, "KERNEL32.dll", "CreateHardLinkW", &RefusingCreateHardLink);
    m_patches.Patch(m_hExe, "ADVAPI32.dll", "SetNamedSecurityInfoW", &RecordingSetSecurity);
    CSection section({L"target.txt", L"link.txt"});
    EXPECT_TRUE(m_impl.ProcessSection(L"Files", section.list));

    // Owner: the administrators; DACL: all rights (0x1FFFFF) granted; the link; then both put back.
    EXPECT_EQ((std::vector<std::wstring>{L"CreateHardLink refused", L"owner S-1-5-32-544", L"DACL",
                                         L"CreateHardLink", L"DACL", L"owner " + SidText(pOwner)}),
              g_vSecurityCalls);
    EXPECT_NE(std::string::npos, g_vDacls.at(0).find(std::string("\xFF\xFF\x1F\x00", 4)));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(pDacl), pDacl->AclSize), g_vDacls.at(1));
    EXPECT_EQ(FileIdentity(kDir + L"target.txt").ullIndex, FileIdentity(kDir + L"link.txt").ullIndex);
}

} // namespace
