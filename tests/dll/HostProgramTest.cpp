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

// The file behind a path: volume and index, and how many names it has.
BY_HANDLE_FILE_INFORMATION FileInfo(const std::wstring& sPath)
{
    BY_HANDLE_FILE_INFORMATION info = {};
    morvane::CUniqueFile hFile(::CreateFileW(sPath.c_str(), 0,
                                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                             OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (hFile)
        ::GetFileInformationByHandle(hFile.get(), &info);
    return info;
}

TEST_F(KeflFixture, HostRunsTheWholeSequenceAndRunsItAgainOverTheRestoredTree)
{
    // One drive folder F (restored onto the target drive F:), the data folder with the recovery
    // configuration, a junction, a symbolic link and a hard-link group held as two copies; the
    // answer file that names the backup.
    const std::wstring sBackup = L"R:\\HostSample";
    kefltest::RemoveTree(sBackup);
    kefltest::RemoveTree(L"F:\\Data");
    for (const wchar_t* pwszDir : {L"", L"\\F", L"\\F\\ZOVACFG", L"\\F\\Data", L"\\#"})
        ::CreateDirectoryW((sBackup + pwszDir).c_str(), nullptr);
    std::string sBig(200000, 'x');
    for (size_t i = 0; i < sBig.size(); ++i)
        sBig[i] = static_cast<char>(i * 7);
    WriteTextFile(sBackup + L"\\F\\Data\\big.bin", sBig);
    WriteTextFile(sBackup + L"\\F\\Data\\copy.bin", sBig);
    WriteTextFile(sBackup + L"\\#\\disrec.ini", "[WinDir]\r\nDriveLetter=F\r\nPhysicalDrive=0\r\n"
                                                "Directory=F:\\Windows\r\nBootDriveLetter=F\r\n");
    WriteTextFile(sBackup + L"\\#\\HPoint.dat", "[1]\r\nH1=F:\\Data\\big.bin\r\nH2=F:\\Data\\copy.bin\r\n");
    WriteTextFile(sBackup + L"\\#\\JPoint.dat", "[F:\\Old]\r\nTarget=F:\\Data\r\nBackupTarget=R:\\x\r\n");
    WriteTextFile(sBackup + L"\\#\\SPoint.dat",
                  "[F:\\latest.bin]\r\nTarget=F:\\Data\\big.bin\r\nBackupTarget=R:\\x\r\n");
    WriteTextFile(L"R:\\HostSample.ini", "[ZovaBackupLocation]\r\nLocation=R:\\HostSample\r\n");

    const CHostRun listed = RunHost(L"--answer-file R:\\HostSample.ini --list");
    EXPECT_EQ(0u, listed.dwExitCode) << listed.sOutput;
    EXPECT_NE(std::string::npos, listed.sOutput.find("  F:   F:\\   [BOOT SYSTEM]")) << listed.sOutput;
    EXPECT_FALSE(FileExists(L"F:\\Data\\big.bin")) << "--list restores nothing";

    for (int iRun = 1; iRun <= 2; ++iRun)
    {
        const CHostRun run = RunHost(L"--answer-file R:\\HostSample.ini");
        EXPECT_EQ(0u, run.dwExitCode) << "run " << iRun << ":\n" << run.sOutput;
        EXPECT_EQ(sBig, ReadFileBytes(L"F:\\Data\\big.bin")) << "run " << iRun;
        EXPECT_EQ(sBig, ReadFileBytes(L"F:\\Data\\copy.bin")) << "run " << iRun;
        const BY_HANDLE_FILE_INFORMATION first = FileInfo(L"F:\\Data\\big.bin");
        const BY_HANDLE_FILE_INFORMATION second = FileInfo(L"F:\\Data\\copy.bin");
        EXPECT_EQ(2u, first.nNumberOfLinks) << "run " << iRun << ": one file, two names";
        EXPECT_TRUE(first.nFileIndexLow == second.nFileIndexLow &&
                    first.nFileIndexHigh == second.nFileIndexHigh)
            << "run " << iRun;
        EXPECT_NE(std::string::npos, run.sOutput.find("] 100%")) << run.sOutput;
        EXPECT_NE(std::string::npos, run.sOutput.find("Restored 1 of 1 filespaces.")) << run.sOutput;
        // Under Wine junctions and symbolic links can only be recorded; the host must say so.
        if (run.sOutput.find("Running under Wine") != std::string::npos)
        {
            EXPECT_NE(std::string::npos,
                      run.sOutput.find("recorded, not made (Wine cannot): junction F:\\Old -> F:\\Data"))
                << run.sOutput;
            EXPECT_NE(
                std::string::npos,
                run.sOutput.find(
                    "recorded, not made (Wine cannot): symbolic link F:\\latest.bin -> F:\\Data\\big.bin"))
                << run.sOutput;
        }
    }

    const CHostRun unknown = RunHost(L"--answer-file R:\\HostSample.ini --restore Q");
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
