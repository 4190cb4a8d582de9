// The events between keflhost and its restore process, and the request's arguments.
#include "protocol/EventReader.h"
#include "protocol/SessionRequest.h"

#include <gtest/gtest.h>
#include <shellapi.h>

TEST(ProtocolTest, EventsCutAnywhereByThePipeArriveWhole)
{
    morvane::Filespace fs{};
    fs.sFsMountDir = L"F:\\Gr\u00FC\u00DFe";
    fs.dwFsFlags = morvane::kFsFlagMountPoint;
    fs.wcFsDriveLetter = L'F';
    fs.bFsTimeValid = true;
    fs.stFsTime.wYear = 2015;
    const keflhost::CTraceMark mark{4096, std::string("\x00\xFF\n", 3)};
    const std::string sStream = keflhost::EncodeEvent(keflhost::HelloEvent{}) +
                                keflhost::EncodeEvent(keflhost::BeginEvent{fs, mark}) +
                                keflhost::EncodeEvent(keflhost::EndEvent{});
    keflhost::CEventReader reader;
    std::vector<keflhost::CEvent> vEvents; // each whole line joins them
    std::wstring sError;
    for (const char c : sStream) // one byte a read
        ASSERT_TRUE(reader.Feed(std::string_view(&c, 1), vEvents, sError)) << testing::PrintToString(sError);
    EXPECT_TRUE(reader.End(sError));
    ASSERT_EQ(3u, vEvents.size());
    const auto& begin = std::get<keflhost::BeginEvent>(vEvents[1]);
    EXPECT_EQ(fs.sFsMountDir, begin.filespace.sFsMountDir);
    EXPECT_EQ(2015, begin.filespace.stFsTime.wYear);
    EXPECT_EQ(mark.sHead, begin.trace.value().sHead);
    EXPECT_EQ(mark.ullOffset, begin.trace->ullOffset);
}

TEST(ProtocolTest, TheRequestReachesTheRestoreProcessAsItWasAsked)
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
