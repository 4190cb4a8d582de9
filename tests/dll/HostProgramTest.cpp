// Our command-line host, run as a user runs it: its output and exit code.
#include "dll/KeflFixture.h"

using namespace kefltest;

namespace
{

struct CHostRun
{
    DWORD dwExitCode = 0xFFFFFFFF;
    std::string sOutput;
};

// Runs keflhost.exe from the host folder with its output captured.
CHostRun RunHost(const std::wstring& sArguments)
{
    CHostRun run;
    SECURITY_ATTRIBUTES sa = {sizeof(sa), nullptr, TRUE};
    morvane::CUniqueHandle hRead, hWrite;
    EXPECT_TRUE(::CreatePipe(hRead.put(), hWrite.put(), &sa, 0));
    ::SetHandleInformation(hRead.get(), HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
    si.hStdOutput = hWrite.get();
    si.hStdError = hWrite.get();
    std::wstring sCommand = L"\"" + HostDir() + L"\\keflhost.exe\" " + sArguments;
    PROCESS_INFORMATION pi = {};
    if (!::CreateProcessW(nullptr, sCommand.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi))
    {
        ADD_FAILURE() << "keflhost.exe did not start, error " << ::GetLastError();
        return run;
    }
    morvane::CUniqueHandle hProcess(pi.hProcess), hThread(pi.hThread);
    hWrite.reset(); // the pipe ends when the host's copy closes
    char buf[4096];
    DWORD cbRead = 0;
    while (::ReadFile(hRead.get(), buf, sizeof(buf), &cbRead, nullptr) && cbRead > 0)
        run.sOutput.append(buf, cbRead);
    ::WaitForSingleObject(hProcess.get(), 60000);
    ::GetExitCodeProcess(hProcess.get(), &run.dwExitCode);
    return run;
}

} // namespace

TEST_F(KeflFixture, HostPrintsTheClientAndItsCredentials)
{
    const CHostRun info = RunHost(L"");
    EXPECT_EQ(0u, info.dwExitCode) << info.sOutput;
    EXPECT_NE(std::string::npos, info.sOutput.find("Description:   Morvane Rekon for Plainsafe created on "));
    EXPECT_NE(std::string::npos, info.sOutput.find("  yes  hard links restored separately"));

    ::CreateDirectoryW(L"R:\\Answers", nullptr);
    WriteTextFile(L"R:\\Answers\\host.ini",
                  "[ZovaBackupLocation]\r\nLocation=R:\\Backup\r\nPointInTime=05/11/2015 14:03:09\r\n");
    const CHostRun withFile = RunHost(L"--answer-file R:\\Answers\\host.ini");
    EXPECT_NE(std::string::npos, withFile.sOutput.find("Location:      R:\\Backup\r\n")) << withFile.sOutput;
    EXPECT_NE(std::string::npos, withFile.sOutput.find("Point in time: 05/11/2015 14:03:09"))
        << withFile.sOutput;
}

TEST_F(KeflFixture, HostRestoresAWholeBackupWithProgressAndSummary)
{
    // One drive folder F (restored onto the target drive F:) and the data folder.
    const std::wstring sBackup = L"R:\\HostSample";
    for (const wchar_t* pwszDir : {L"", L"\\F", L"\\F\\ZOVACFG", L"\\F\\Data", L"\\#"})
        ::CreateDirectoryW((sBackup + pwszDir).c_str(), nullptr);
    std::string sBig(200000, 'x');
    for (size_t i = 0; i < sBig.size(); ++i)
        sBig[i] = static_cast<char>(i * 7);
    WriteTextFile(sBackup + L"\\F\\Data\\big.bin", sBig);
    WriteTextFile(sBackup + L"\\#\\disrec.ini", "[WinDir]\r\nDriveLetter=F\r\nPhysicalDrive=0\r\n"
                                                "Directory=F:\\Windows\r\nBootDriveLetter=F\r\n");
    WriteTextFile(sBackup + L"\\#\\HPoint.dat", "");
    ::DeleteFileW(L"F:\\Data\\big.bin");

    const CHostRun listed = RunHost(L"--location R:\\HostSample --list");
    EXPECT_EQ(0u, listed.dwExitCode) << listed.sOutput;
    EXPECT_NE(std::string::npos, listed.sOutput.find("  F:   F:\\   [BOOT SYSTEM]")) << listed.sOutput;
    EXPECT_TRUE(ReadFileBytes(L"F:\\Data\\big.bin").empty()) << "--list restores nothing";

    const CHostRun restored = RunHost(L"--location R:\\HostSample");
    EXPECT_EQ(0u, restored.dwExitCode) << restored.sOutput;
    EXPECT_EQ(sBig, ReadFileBytes(L"F:\\Data\\big.bin"));
    EXPECT_NE(std::string::npos,
              restored.sOutput.find("[info] Successfully restored drive letter F: from target location"))
        << restored.sOutput;
    EXPECT_NE(std::string::npos, restored.sOutput.find("] 100%")) << restored.sOutput;
    EXPECT_NE(std::string::npos, restored.sOutput.find("Restored 1 of 1 filespaces.")) << restored.sOutput;

    const CHostRun unknown = RunHost(L"--location R:\\HostSample --restore Q");
    EXPECT_EQ(5u, unknown.dwExitCode) << unknown.sOutput;
    EXPECT_NE(std::string::npos, unknown.sOutput.find("the backup holds no filespace Q")) << unknown.sOutput;
}

TEST_F(KeflFixture, HostRefusesAPointInTimeTheClientWouldNotTake)
{
    const CHostRun run = RunHost(L"--location R:\\Backup --pit \"31/04/2016 00:00:00\"");
    EXPECT_EQ(3u, run.dwExitCode) << run.sOutput;
    EXPECT_NE(std::string::npos, run.sOutput.find("is not a valid point in time")) << run.sOutput;

    EXPECT_EQ(2u, RunHost(L"--pit \"05/11/2015 14:03:09\"").dwExitCode) << "a point in time needs a location";
    EXPECT_EQ(2u, RunHost(L"--answer-file a.ini --location R:\\Backup").dwExitCode) << "one source only";
    EXPECT_EQ(2u, RunHost(L"--list").dwExitCode) << "listing needs credentials";
}
