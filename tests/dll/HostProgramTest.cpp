// Our command-line host, run as a user runs it: its output and exit code.
#include "dll/KeflFixture.h"

using namespace kefltest;

namespace
{

// Runs keflhost.exe from the host folder: its exit code, and its output (standard output and error).
std::pair<DWORD, std::string> RunHost(const std::wstring& sArguments)
{
    SECURITY_ATTRIBUTES sa = {sizeof(sa), nullptr, TRUE};
    morvane::CUniqueHandle hRead, hWrite;
    EXPECT_TRUE(::CreatePipe(hRead.put(), hWrite.put(), &sa, 0));
    ::SetHandleInformation(hRead.get(), HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
    si.hStdOutput = si.hStdError = hWrite.get();
    std::wstring sCommand = L"\"" + HostDir() + L"\\keflhost.exe\" " + sArguments;
    PROCESS_INFORMATION pi = {};
    EXPECT_TRUE(
        ::CreateProcessW(nullptr, sCommand.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi));
    morvane::CUniqueHandle hProcess(pi.hProcess), hThread(pi.hThread);
    hWrite.reset(); // the pipe ends when the host's copy closes
    std::pair<DWORD, std::string> run{0xFFFFFFFF, ""};
    char buf[4096];
    for (DWORD cbRead = 0; ::ReadFile(hRead.get(), buf, sizeof(buf), &cbRead, nullptr) && cbRead > 0;)
        run.second.append(buf, cbRead);
    ::WaitForSingleObject(hProcess.get(), 60000);
    ::GetExitCodeProcess(hProcess.get(), &run.first);
    return run;
}

} // namespace

TEST_F(KeflFixture, HostAnswersEachArgumentErrorWithItsExitCode)
{
    const std::pair<const wchar_t*, DWORD> cases[] = {
        {L"--help", 0},
        {L"--unknown", 2},
        {L"--pit \"05/11/2015 14:03:09\"", 2},                       // a point in time needs a location
        {L"--answer-file a.ini --location R:\\Backup", 2},           // one source only
        {L"--list", 2},                                              // listing needs credentials
        {L"--location R:\\Backup --pit \"31/04/2016 00:00:00\"", 3}, // not a valid point in time
    };
    for (const auto& [pwszArguments, dwExitCode] : cases)
        EXPECT_EQ(dwExitCode, RunHost(pwszArguments).first)
            << testing::PrintToString(std::wstring(pwszArguments));
}

TEST_F(KeflFixture, HostRunsTheWholeSequenceTwiceOverOneTree)
{
    // One drive folder F (restored onto the target drive F:) holding the configuration and a
    // hard-link group held as two copies; the answer file that names the backup.
    RemoveTree(L"F:\\Data");
    RemoveTree(L"R:\\HostSample");
    for (const wchar_t* pwszDir : {L"\\F\\ZOVACFG", L"\\F\\Data", L"\\#"})
        MakeFolders(L"R:\\HostSample" + std::wstring(pwszDir));
    for (const wchar_t* pwszFile : {L"\\F\\Data\\big.bin", L"\\F\\Data\\copy.bin"})
        WriteBytes(L"R:\\HostSample" + std::wstring(pwszFile), Pattern(200000, 12));
    WriteTextFile(
        L"R:\\HostSample\\#\\disrec.ini",
        "[WinDir]\r\nDriveLetter=F\r\nPhysicalDrive=0\r\nDirectory=F:\\Windows\r\nBootDriveLetter=F\r\n");
    WriteTextFile(L"R:\\HostSample\\#\\HPoint.dat",
                  "[1]\r\nH1=F:\\Data\\big.bin\r\nH2=F:\\Data\\copy.bin\r\n");
    WriteTextFile(L"R:\\HostSample.ini", "[ZovaBackupLocation]\r\nLocation=R:\\HostSample\r\n");

    const auto [dwListed, sListed] = RunHost(L"--answer-file R:\\HostSample.ini --list");
    EXPECT_EQ(0u, dwListed) << sListed;
    EXPECT_NE(std::string::npos, sListed.find("  F:   F:\\   [BOOT SYSTEM]")) << sListed;
    for (int iRun = 1; iRun <= 2; ++iRun)
    {
        const auto [dwExitCode, sOutput] = RunHost(L"--answer-file R:\\HostSample.ini");
        EXPECT_EQ(0u, dwExitCode) << "run " << iRun << ":\n" << sOutput;
        EXPECT_NE(std::string::npos, sOutput.find("Restored 1 of 1 filespaces.")) << sOutput;
        EXPECT_TRUE(ReadBytes(L"F:\\Data\\copy.bin") == Pattern(200000, 12)) << "run " << iRun;
        EXPECT_EQ(2u, FileIdentity(L"F:\\Data\\copy.bin").dwLinks)
            << "run " << iRun << ": one file, two names";
        EXPECT_EQ(ReadMetadata(L"R:\\HostSample\\F").at(L"\\Data").times[2],
                  ReadMetadata(L"F:").at(L"\\Data").times[2])
            << "run " << iRun << ": the folder's time kept through the link pass";
    }
    RemoveTree(L"R:\\HostSample");
    RemoveTree(L"F:\\Data");
    RemoveFile(L"R:\\HostSample.ini");
}
