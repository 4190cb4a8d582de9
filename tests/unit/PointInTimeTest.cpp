// Reading and checking a point in time ("dd/mm/yyyy hh:mm:ss").
#include "VeskCredentials.h"
#include "support/RecoveryEnvironment.h"
#include "support/TraceLog.h"

#include <gtest/gtest.h>

using namespace kefltest;

namespace
{

struct CPitCase
{
    const wchar_t* pwszText;
    const wchar_t* pwszFailure; // the failure trace, null when the text is valid
};

std::vector<std::wstring> KeflErrors()
{
    return TextsWithMarker(ReadLogLines(LogDir() + L"\\KEFL_trace.log"), L":[E]: ");
}

} // namespace

TEST(PointInTime, ReadsDayFirstWithAnySeparator)
{
    morvane::KeflCredentials creds;
    ASSERT_TRUE(creds.ParsePit(L"05/11/2015 14:03:09"));
    EXPECT_EQ(2015, creds.m_Pit.wYear);
    EXPECT_EQ(11, creds.m_Pit.wMonth);
    EXPECT_EQ(5, creds.m_Pit.wDay);
    EXPECT_EQ(14, creds.m_Pit.wHour);
    EXPECT_EQ(3, creds.m_Pit.wMinute);
    EXPECT_EQ(9, creds.m_Pit.wSecond);
    EXPECT_EQ(0, creds.m_Pit.wDayOfWeek);
    EXPECT_EQ(0, creds.m_Pit.wMilliseconds);
    ASSERT_TRUE(creds.ParsePit(L"6-7-2016  1.2.3"));
    EXPECT_EQ(6, creds.m_Pit.wDay);
    EXPECT_EQ(3, creds.m_Pit.wSecond);
}

TEST(PointInTime, ChecksEachFieldInTurn)
{
    const CPitCase kCases[] = {
        {L"29/02/1900 10:00:00", L"... ending(Day out of range)"}, // 1900 is no leap year
        {L"29/02/2000 10:00:00", nullptr},
        {L"29/02/2024 10:00:00", nullptr},
        {L"29/02/2100 10:00:00", L"... ending(Day out of range)"},
        {L"28/02/2100 23:59:59", nullptr},
        {L"31/04/2016 00:00:00", L"... ending(Day out of range)"},
        {L"00/01/2016 00:00:00", L"... ending(Day out of range)"},
        {L"31/12/2016 00:00:00", nullptr},
        {L"30/06/2016 00:00:00", nullptr},
        // The month is checked first, whatever else is wrong too.
        {L"01/13/2016 00:00:00", L"... ending(Month out of range)"},
        {L"32/13/1000 25:61:61", L"... ending(Month out of range)"},
        {L"01/00/2016 00:00:00", L"... ending(Month out of range)"},
        {L"32/12/1600 25:61:61", L"... ending(Year out of range)"},
        {L"01/01/1601 00:00:00", nullptr},
        {L"01/01/30827 00:00:00", nullptr},
        {L"01/01/30828 00:00:00", L"... ending(Year out of range)"},
        {L"32/12/2016 24:61:61", L"... ending(Hour out of range)"},
        {L"32/12/2016 23:60:61", L"... ending(Minute out of range)"},
        {L"32/12/2016 23:59:60", L"... ending(Second out of range)"},
        {L"32/12/2016 23:59:59", L"... ending(Day out of range)"},
    };
    for (const CPitCase& c : kCases)
    {
        morvane::KeflCredentials creds;
        EXPECT_EQ(c.pwszFailure == nullptr, creds.ParsePit(c.pwszText)) << testing::PrintToString(c.pwszText);
        if (c.pwszFailure)
        {
            const auto vErrors = KeflErrors();
            ASSERT_FALSE(vErrors.empty());
            EXPECT_EQ(std::wstring(L"VeskCredentials::ParsePit : ") + c.pwszFailure, vErrors.back())
                << testing::PrintToString(c.pwszText);
        }
    }
}

TEST(PointInTime, RefusesGarbageClearly)
{
    const wchar_t* const kTexts[] = {
        L"",
        L"yesterday",
        L"//// ::",
        L"05/11/2015",                                  // no time
        L"05/11/2015 14:03",                            // no seconds
        L"05/11/2015 14:03:09 and then some more text", // 30 characters and more
        L"\x0665/11/2015 14:03:09",                     // an Arabic-Indic digit five
        L"99999/11/2015 14:03:09",
        L"-5/11/2015 14:03:09",
    };
    for (const wchar_t* pwszText : kTexts)
    {
        // A valid point in time first: fields that the garbage never reaches must not pass.
        morvane::KeflCredentials creds;
        ASSERT_TRUE(creds.ParsePit(L"05/11/2015 14:03:09"));
        EXPECT_FALSE(creds.ParsePit(pwszText)) << testing::PrintToString(pwszText);
    }
    morvane::KeflCredentials creds;
    creds.ParsePit(L"");
    EXPECT_EQ(L"VeskCredentials::ParsePit : ... ending(Empty PIT string)", KeflErrors().back());
}
