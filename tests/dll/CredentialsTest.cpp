// Credentials as the host makes them: from CredentialsFactory, read from and written to the
// recovery answer file, compared and copied with the operations that the library exports.
#include "dll/KeflFixture.h"
#include "support/Patches.h"

#include <cerrno>

using namespace kefltest;
using morvane::KeflCredentials;

TEST_F(KeflFixture, AnswerFilesRoundTripOrTellWhyTheirPointInTimeIsRefused)
{
    auto& library = Load();
    const std::wstring sIn = L"R:\\answer in.ini", sOut = L"R:\\answer out.ini";
    // An ANSI or UTF-16 answer file's point in time read and written back: what is written (day first;
    // nothing for the latest backup), and the field that a refusal names out of range, if it names one.
    const auto RoundTrip =
        [&](bool bUtf16, const wchar_t* pwszPit, const wchar_t* pwszWritten, const wchar_t* pwszOutOfRange)
    {
        SCOPED_TRACE(testing::PrintToString(pwszPit));
        const std::wstring sLocation = bUtf16 ? L"R:\\Sicherung\\B\x00fcro" : L"\\\\nas\\backups\\pc 01";
        const std::wstring sText = L"[Other]\r\nLocation=wrong\r\n[ZovaBackupLocation]\r\nLocation=" +
                                   sLocation + L"\r\nPointInTime=" + pwszPit + L"\r\n";
        bUtf16 ? WriteUtf16File(sIn, sText) : WriteTextFile(sIn, std::string(sText.begin(), sText.end()));
        RemoveFile(sOut);
        const size_t cLogLines = KeflLog().size();
        auto pCreds = library.CredentialsFactory();
        ASSERT_TRUE(pCreds->GetCredentialsFromAnsFile(sIn));
        ASSERT_TRUE(pCreds->SetAnsFileFromCredentials(sOut));
        wchar_t wszLocation[300] = {}, wszPit[40] = {};
        ::GetPrivateProfileStringW(L"ZovaBackupLocation", L"Location", L"", wszLocation, 300, sOut.c_str());
        ::GetPrivateProfileStringW(L"ZovaBackupLocation", L"PointInTime", L"-", wszPit, 40, sOut.c_str());
        EXPECT_EQ(sLocation, wszLocation);
        EXPECT_STREQ(pwszWritten, wszPit);
        const auto vLog = KeflLog();
        const std::wstring sWhy = L"VeskCredentials::ParsePit : ... ending(" +
                                  std::wstring(pwszOutOfRange ? pwszOutOfRange : L"") + L" out of range)";
        EXPECT_TRUE(!pwszOutOfRange || HasText({vLog.begin() + cLogLines, vLog.end()}, sWhy)) << sWhy;
    };
    // clang-format off
    // Taken. Leap years: every fourth, but not the centuries that 400 does not divide.
    for (const auto& [bUtf16, pwszPit, pwszWritten] :
         {std::tuple{false, L"05/11/2015 14:03:09", L"05/11/2015 14:03:09"},
          {true, L"6-7-2016  1.2.3", L"06/07/2016 01:02:03"}, {true, L"1/1/1601 0:0:0", L"01/01/1601 00:00:00"},
          {true, L"29/02/2000 10:00:00", L"29/02/2000 10:00:00"},
          {false, L"29/02/2024 10:00:00", L"29/02/2024 10:00:00"},
          {true, L"31/12/2016 00:00:00", L"31/12/2016 00:00:00"},
          {false, L"28/2/2100 23:59:59", L"28/02/2100 23:59:59"}})
        RoundTrip(bUtf16, pwszPit, pwszWritten, nullptr);
    // A field out of range: the month first, whatever else is wrong too; then year, hour, minute, second
    // and day.
    for (const auto& [bUtf16, pwszPit, pwszField] :
         {std::tuple{false, L"29/02/1900 10:00:00", L"Day"}, {true, L"29/02/2100 10:00:00", L"Day"},
          {false, L"31/04/2016 00:00:00", L"Day"}, {false, L"00/01/2016 00:00:00", L"Day"},
          {false, L"01/00/2016 00:00:00", L"Month"}, {false, L"32/13/1000 25:61:61", L"Month"},
          {false, L"32/12/1600 25:61:61", L"Year"}, {false, L"1/1/30828 0:0:0", L"Year"},
          {false, L"32/12/2016 24:61:61", L"Hour"}, {false, L"32/12/2016 23:60:61", L"Minute"},
          {false, L"32/12/2016 23:59:60", L"Second"}, {false, L"32/12/2016 23:59:59", L"Day"}})
        RoundTrip(bUtf16, pwszPit, L"", pwszField);
    // No point in time at all, refused without a field named: none it never reaches may pass.
    for (const auto& [bUtf16, pwszPit] :
         {std::pair{true, L""}, {false, L"yesterday"}, {false, L"05/11/2015 14:03"},
          {true, L"5/11/2015 1:2:3 and"}, {true, L"\x0665/11/2015 1:2:3"}, {false, L"99999/11/2015 1:2:3"},
          {false, L"-5/11/2015 1:2:3"}})
        RoundTrip(bUtf16, pwszPit, L"", nullptr);
    // clang-format on

    // Past the fields' usual sizes: a location longer than 260 characters is read whole; a year of
    // five digits does not fit the 19 characters that readers take, so it is refused, not written cut.
    const std::wstring sLong = L"R:\\" + std::wstring(300, L'd');
    WriteTextFile(sIn, "[ZovaBackupLocation]\r\nLocation=" + std::string(sLong.begin(), sLong.end()) +
                           "\r\nPointInTime=1/1/10000 0:0:0\r\n");
    auto pCreds = library.CredentialsFactory();
    ASSERT_TRUE(pCreds->GetCredentialsFromAnsFile(sIn));
    EXPECT_EQ(sLong, static_cast<KeflCredentials&>(*pCreds).m_sTargetPath);
    RemoveFile(sOut);
    EXPECT_FALSE(pCreds->SetAnsFileFromCredentials(sOut));
    wchar_t wszPit[40] = {};
    ::GetPrivateProfileStringW(L"ZovaBackupLocation", L"PointInTime", L"none", wszPit, 40, sOut.c_str());
    EXPECT_STREQ(L"none", wszPit);
}

TEST_F(KeflFixture, ExportedOperationsCompareEveryFieldAndCopy)
{
    auto exported = [hKefl = Load().Module()](const char* pszName)
    { return reinterpret_cast<void*>(::GetProcAddress(hKefl, pszName)); };
    for (const char* pszName :
         {"_ZN7morvane8VESKImplC1ERKS0_", "_ZN7morvane8VESKImplC2ERKS0_", "_ZN7morvane8VESKImplaSERKS0_",
          "_ZTVN7morvane8VESKImplE", "_ZN7morvane15KeflCredentialsaSERKS0_",
          "_ZNK7morvane15KeflCredentialseqERKS0_", "_ZNK7morvane15KeflCredentialsneERKS0_"})
        ASSERT_NE(nullptr, exported(pszName)) << pszName << " is not exported";
    using Compare = bool (*)(const KeflCredentials*, const KeflCredentials*);
    const auto pfnEqual = reinterpret_cast<Compare>(exported("_ZNK7morvane15KeflCredentialseqERKS0_"));
    const auto pfnNotEqual = reinterpret_cast<Compare>(exported("_ZNK7morvane15KeflCredentialsneERKS0_"));
    const auto pfnAssign = reinterpret_cast<KeflCredentials* (*)(KeflCredentials*, const KeflCredentials*)>(
        exported("_ZN7morvane15KeflCredentialsaSERKS0_"));
    auto pA = m_pLibrary->CredentialsFactory(), pB = m_pLibrary->CredentialsFactory();
    auto &a = static_cast<KeflCredentials&>(*pA), &b = static_cast<KeflCredentials&>(*pB);
    a.m_sTargetPath = L"R:\\Backup";
    a.m_Pit = SYSTEMTIME{2015, 11, 0, 5, 14, 3, 9, 0};
    EXPECT_EQ(&b, pfnAssign(&b, &a));
    EXPECT_TRUE(pfnEqual(&a, &b));
    EXPECT_FALSE(pfnNotEqual(&a, &b));
    // Every field of the point in time counts, in both of its halves, and the location's case.
    for (auto pwField : {&SYSTEMTIME::wYear, &SYSTEMTIME::wDayOfWeek, &SYSTEMTIME::wMilliseconds})
    {
        pfnAssign(&b, &a);
        ++(b.m_Pit.*pwField);
        EXPECT_FALSE(pfnEqual(&a, &b));
        EXPECT_TRUE(pfnNotEqual(&a, &b));
    }
    b.m_Pit = a.m_Pit;
    b.m_sTargetPath = L"r:\\backup";
    EXPECT_FALSE(pfnEqual(&a, &b)) << "the location's case";

    // A copy that runs out of memory in the library ends there, and the target keeps what it had.
    static decltype(&::malloc) s_pfnMalloc = nullptr;
    CPatches patches;
    s_pfnMalloc = patches.Patch(m_pLibrary->Module(), "msvcrt.dll", "malloc",
                                +[](size_t cb) -> void*
                                {
                                    if (cb < 1000)
                                        return s_pfnMalloc(cb);
                                    errno = ENOMEM;
                                    return nullptr;
                                });
    a.m_sTargetPath.assign(600, L'x');
    ++a.m_Pit.wYear;
    EXPECT_EQ(&b, pfnAssign(&b, &a));
    patches.Clear();
    EXPECT_TRUE(b.m_sTargetPath == L"r:\\backup" && b.m_Pit.wYear == 2015);
    EXPECT_TRUE(HasText(KeflLog(), L"KeflCredentials::operator= : .. ending(Memory allocation error)"));
}
