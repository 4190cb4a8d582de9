// The events between keflhost and its restore process, and the request's arguments.
#include "host/RestoreEvents.h"
#include "host/RestoreSession.h"

#include <gtest/gtest.h>
#include <shellapi.h>

TEST(RestoreEventsTest, EventsCutAnywhereByThePipeArriveWhole)
{
    const std::string sStream =
        keflhost::EventLine({{"event", "hello"}, {"protocol", keflhost::kProtocolVersion}}) +
        keflhost::EventLine({{"event", "line"}, {"text", keflhost::Text(L"F:\\Gr\u00FC\u00DFe")}}) +
        keflhost::EventLine({{"event", "end"}});
    keflhost::CEventReader reader;
    std::vector<keflhost::CEvent> vEvents; // each whole line joins them
    std::wstring sError;
    for (const char c : sStream) // one byte a read
        ASSERT_TRUE(reader.Feed(std::string_view(&c, 1), vEvents, sError)) << testing::PrintToString(sError);
    EXPECT_TRUE(reader.End(sError));
    ASSERT_EQ(3u, vEvents.size());
    EXPECT_EQ(L"F:\\Gr\u00FC\u00DFe", keflhost::Wide(vEvents[1], "text"));
}

TEST(RestoreEventsTest, TheRequestReachesTheRestoreProcessAsItWasAsked)
{
    keflhost::CSessionRequest request;
    request.sLocation = L"\\\\server\\share\\Back up\\"; // a closing backslash before the quote
    request.sPit = L"05/11/2015 14:03:09";
    request.vSelected = {L"C", L"C:\\Mount \"Data\""};
    request.bListOnly = true;
    int argc = 0;
    wchar_t** argv =
        ::CommandLineToArgvW((L"keflrestore.exe" + keflhost::SessionArguments(request)).c_str(), &argc);
    keflhost::CSessionRequest parsed;
    EXPECT_TRUE(keflhost::ParseSessionArguments(argc, argv, parsed));
    ::LocalFree(argv);
    EXPECT_EQ(request.sLocation, parsed.sLocation);
    EXPECT_EQ(request.sPit, parsed.sPit);
    EXPECT_EQ(request.vSelected, parsed.vSelected);
    EXPECT_TRUE(parsed.bListOnly);
}
