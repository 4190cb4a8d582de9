// Credentials as the host makes them: from CredentialsFactory, read from and written to the
// recovery answer file, compared with the exported operators.
#include "dll/KeflFixture.h"

#include <cstring>

using namespace kefltest;
using morvane::KeflCredentials;

namespace
{

const wchar_t kAnswerDir[] = L"R:\\Answers";

std::wstring AnswerFile(const wchar_t* pwszName)
{
    ::CreateDirectoryW(kAnswerDir, nullptr);
    return std::wstring(kAnswerDir) + L"\\" + pwszName;
}

std::wstring ReadKey(const std::wstring& sPath, const wchar_t* pwszKey)
{
    wchar_t wsz[300] = {};
    ::GetPrivateProfileStringW(L"ZovaBackupLocation", pwszKey, L"<absent>", wsz, 300, sPath.c_str());
    return wsz;
}

SYSTEMTIME Pit(WORD wDay, WORD wMonth, WORD wYear, WORD wHour, WORD wMinute, WORD wSecond)
{
    SYSTEMTIME st = {};
    st.wDay = wDay;
    st.wMonth = wMonth;
    st.wYear = wYear;
    st.wHour = wHour;
    st.wMinute = wMinute;
    st.wSecond = wSecond;
    return st;
}

void ExpectPit(const SYSTEMTIME& expected, const SYSTEMTIME& actual, int iLine)
{
    EXPECT_EQ(0, std::memcmp(&expected, &actual, sizeof(SYSTEMTIME)))
        << "line " << iLine << ": expected " << expected.wDay << "/" << expected.wMonth << "/"
        << expected.wYear << " " << expected.wHour << ":" << expected.wMinute << ":" << expected.wSecond
        << ", got " << actual.wDay << "/" << actual.wMonth << "/" << actual.wYear << " " << actual.wHour
        << ":" << actual.wMinute << ":" << actual.wSecond << " (day of week " << actual.wDayOfWeek << ", ms "
        << actual.wMilliseconds << ")";
}

class CredentialsFixture : public KeflFixture
{
protected:
    void SetUp() override
    {
        KeflFixture::SetUp();
        Load(Verbose());
        m_pClient = m_pLibrary->Factory(); // reads the trace levels
    }
    void TearDown() override
    {
        m_pClient.reset();
        KeflFixture::TearDown();
    }
    std::unique_ptr<morvane::VeskCredentials> New() const { return m_pLibrary->CredentialsFactory(); }
    static KeflCredentials& Kefl(const std::unique_ptr<morvane::VeskCredentials>& p)
    {
        return *static_cast<KeflCredentials*>(p.get());
    }
    // The library's exported operators, looked up by the names a host links against.
    template <typename Fn> Fn Export(const char* pszName) const
    {
        auto pfn =
            reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(m_pLibrary->Module(), pszName)));
        EXPECT_NE(nullptr, pfn) << pszName << " is not exported";
        return pfn;
    }

    CVeskPtr m_pClient;
};

} // namespace

TEST_F(CredentialsFixture, ReadsLocationAndPointInTimeFromAnswerFiles)
{
    const std::wstring sAnsi = AnswerFile(L"ansi.ini");
    WriteTextFile(sAnsi, "[Other]\r\nLocation=wrong\r\n[ZovaBackupLocation]\r\nLocation=\\\\nas\\backups\\"
                         "pc01\r\nPointInTime=05/11/2015 14:03:09\r\n");
    auto pCreds = New();
    ASSERT_TRUE(pCreds->GetCredentialsFromAnsFile(sAnsi));
    EXPECT_EQ(L"\\\\nas\\backups\\pc01", Kefl(pCreds).m_sTargetPath);
    ExpectPit(Pit(5, 11, 2015, 14, 3, 9), pCreds->m_Pit, __LINE__);

    const std::wstring sUtf16 = AnswerFile(L"utf16.ini");
    WriteUtf16File(sUtf16,
                   L"[ZovaBackupLocation]\r\nLocation=R:\\Sicherung\\B\x00fcro\r\nPointInTime=29/02/2024 "
                   L"23:59:59\r\n");
    pCreds = New();
    ASSERT_TRUE(pCreds->GetCredentialsFromAnsFile(sUtf16));
    EXPECT_EQ(L"R:\\Sicherung\\B\x00fcro", Kefl(pCreds).m_sTargetPath);
    ExpectPit(Pit(29, 2, 2024, 23, 59, 59), pCreds->m_Pit, __LINE__);
    EXPECT_TRUE(pCreds->Check());
}

TEST_F(CredentialsFixture, MissingOrUnusablePointInTimeMeansTheLatestBackup)
{
    const std::wstring sPath = AnswerFile(L"nopit.ini");
    WriteTextFile(sPath, "[ZovaBackupLocation]\r\nLocation=R:\\Backup\r\n");
    auto pCreds = New();
    ASSERT_TRUE(pCreds->GetCredentialsFromAnsFile(sPath));
    ExpectPit(SYSTEMTIME{}, pCreds->m_Pit, __LINE__);

    WriteTextFile(sPath,
                  "[ZovaBackupLocation]\r\nLocation=R:\\Backup\r\nPointInTime=31/04/2016 00:00:00\r\n");
    pCreds->m_Pit = Pit(1, 1, 2020, 0, 0, 0);
    EXPECT_TRUE(pCreds->GetCredentialsFromAnsFile(sPath)) << "an invalid point in time is only a warning";
    ExpectPit(SYSTEMTIME{}, pCreds->m_Pit, __LINE__);
    const auto vLines = KeflLog();
    EXPECT_TRUE(HasText(vLines, L"VeskCredentials::ParsePit : ... ending(Day out of range)"));
    EXPECT_TRUE(HasText(vLines, L"VeskCredentials::GetPitFromAnsFile : ... ending(PointInTime not valid)"));
    EXPECT_TRUE(
        HasText(vLines, L"KeflCredentials::GetCredentialsFromAnsFile : ... ending(No valid Point-in-Time)"));
}

TEST_F(CredentialsFixture, RefusesAnswerFilesWithoutLocation)
{
    auto pCreds = New();
    EXPECT_FALSE(pCreds->GetCredentialsFromAnsFile(L""));
    EXPECT_FALSE(pCreds->GetCredentialsFromAnsFile(AnswerFile(L"no such file.ini")));
    const std::wstring sPath = AnswerFile(L"nolocation.ini");
    WriteTextFile(sPath, "[ZovaBackupLocation]\r\nPointInTime=05/11/2015 14:03:09\r\n");
    EXPECT_FALSE(pCreds->GetCredentialsFromAnsFile(sPath));
    EXPECT_EQ(L"", Kefl(pCreds).m_sTargetPath);
    const auto vLines = KeflLog();
    EXPECT_TRUE(HasText(
        vLines, L"KeflCredentials::GetCredentialsFromAnsFile : ... ending(Invalid answer file path)"));
    EXPECT_TRUE(
        HasText(vLines, L"KeflCredentials::GetCredentialsFromAnsFile : ... ending(Location not found)"));
}

TEST_F(CredentialsFixture, WritesWhatItReadsBack)
{
    const std::wstring sPath = AnswerFile(L"roundtrip.ini");
    RemoveFile(sPath);
    auto pCreds = New();
    Kefl(pCreds).m_sTargetPath = L"\\\\nas\\backups\\pc 01";
    pCreds->m_Pit = Pit(5, 11, 2015, 14, 3, 9);
    ASSERT_TRUE(pCreds->SetAnsFileFromCredentials(sPath));
    EXPECT_EQ(L"05/11/2015 14:03:09", ReadKey(sPath, L"PointInTime"));

    auto pRead = New();
    ASSERT_TRUE(pRead->GetCredentialsFromAnsFile(sPath));
    EXPECT_EQ(Kefl(pCreds).m_sTargetPath, Kefl(pRead).m_sTargetPath);
    ExpectPit(pCreds->m_Pit, pRead->m_Pit, __LINE__);

    // No point in time: an empty value, read back as none.
    pCreds->m_Pit = SYSTEMTIME{};
    ASSERT_TRUE(pCreds->SetAnsFileFromCredentials(sPath));
    EXPECT_EQ(L"", ReadKey(sPath, L"PointInTime"));
    ASSERT_TRUE(pRead->GetCredentialsFromAnsFile(sPath));
    EXPECT_EQ(5, pRead->m_Pit.wDay) << "an empty value leaves the point in time as it was";
}

TEST_F(CredentialsFixture, RefusesToWriteWithoutPathOrLocation)
{
    const std::wstring sPath = AnswerFile(L"refused.ini");
    RemoveFile(sPath);
    auto pCreds = New();
    EXPECT_FALSE(pCreds->SetAnsFileFromCredentials(sPath)) << "no location";
    EXPECT_FALSE(FileExists(sPath));
    Kefl(pCreds).m_sTargetPath = L"R:\\Backup";
    EXPECT_FALSE(pCreds->SetAnsFileFromCredentials(L""));
    const auto vLines = KeflLog();
    EXPECT_TRUE(HasText(
        vLines, L"KeflCredentials::SetAnsFileFromCredentials : ... ending(Location not in Credentials)"));
    EXPECT_TRUE(HasText(
        vLines, L"KeflCredentials::SetAnsFileFromCredentials : ... ending(Invalid answer file path)"));
}

TEST_F(CredentialsFixture, ClearEmptiesLocationAndPointInTime)
{
    auto pCreds = New();
    Kefl(pCreds).m_sTargetPath = L"R:\\Backup";
    pCreds->m_Pit = Pit(5, 11, 2015, 14, 3, 9);
    pCreds->Clear();
    EXPECT_EQ(L"", Kefl(pCreds).m_sTargetPath);
    ExpectPit(SYSTEMTIME{}, pCreds->m_Pit, __LINE__);
}

TEST_F(CredentialsFixture, ExportedOperatorsCompareEveryFieldAndCopy)
{
    using Compare = bool (*)(const KeflCredentials*, const KeflCredentials*);
    using Assign = KeflCredentials* (*)(KeflCredentials*, const KeflCredentials*);
    const auto pfnEqual = Export<Compare>("_ZNK7morvane15KeflCredentialseqERKS0_");
    const auto pfnNotEqual = Export<Compare>("_ZNK7morvane15KeflCredentialsneERKS0_");
    const auto pfnAssign = Export<Assign>("_ZN7morvane15KeflCredentialsaSERKS0_");
    ASSERT_TRUE(pfnEqual && pfnNotEqual && pfnAssign);

    auto pA = New();
    auto pB = New();
    KeflCredentials& a = Kefl(pA);
    KeflCredentials& b = Kefl(pB);
    a.m_sTargetPath = L"R:\\Backup";
    a.m_Pit = Pit(5, 11, 2015, 14, 3, 9);
    a.m_sProduct = L"copied product";
    EXPECT_EQ(&b, pfnAssign(&b, &a));
    EXPECT_EQ(L"R:\\Backup", b.m_sTargetPath);
    EXPECT_EQ(L"copied product", b.m_sProduct);
    EXPECT_TRUE(pfnEqual(&a, &b));
    EXPECT_FALSE(pfnNotEqual(&a, &b));

    b.m_Pit.wMilliseconds = 1;
    EXPECT_FALSE(pfnEqual(&a, &b)) << "milliseconds";
    EXPECT_TRUE(pfnNotEqual(&a, &b));
    b.m_Pit = a.m_Pit;
    b.m_Pit.wDayOfWeek = 4;
    EXPECT_FALSE(pfnEqual(&a, &b)) << "day of week";
    b.m_Pit = a.m_Pit;
    b.m_sTargetPath = L"r:\\backup";
    EXPECT_FALSE(pfnEqual(&a, &b)) << "the location's case";
    EXPECT_TRUE(pfnNotEqual(&a, &b));
}

TEST_F(KeflFixture, ExportsTheBaseServicesCopyOperations)
{
    Load();
    for (const char* pszName : {"_ZN7morvane8VESKImplC1ERKS0_", "_ZN7morvane8VESKImplC2ERKS0_",
                                "_ZN7morvane8VESKImplaSERKS0_", "_ZTVN7morvane8VESKImplE"})
        EXPECT_NE(nullptr, reinterpret_cast<void*>(::GetProcAddress(m_pLibrary->Module(), pszName)))
            << pszName;
}
