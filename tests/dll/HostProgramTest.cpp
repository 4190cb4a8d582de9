// Our command-line host, run as a user runs it: its output, report and exit status.
#include "dll/KeflFixture.h"
#include "keflhost/LibraryTrace.h"
#include "keflhost/RestoreFollower.h"
#include "keflhost/RestoreVerify.h"
#include "support/Patches.h"

#include <nlohmann/json.hpp>

#include <tlhelp32.h>

#include <atomic>
#include <functional>
#include <map>
#include <thread>
#include <tuple>

using namespace kefltest;

namespace
{

// Runs keflhost.exe from the host folder: its exit code, and its output (standard output and error).
// While it runs, whileRunning is called on a thread of its own.
std::pair<DWORD, std::string> RunHost(const std::wstring& sArguments,
                                      const std::function<void()>& whileRunning = {})
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
    std::thread during(whileRunning ? whileRunning : [] {});
    std::pair<DWORD, std::string> run{0xFFFFFFFF, ""};
    char buf[4096];
    for (DWORD cbRead = 0; ::ReadFile(hRead.get(), buf, sizeof(buf), &cbRead, nullptr) && cbRead > 0;)
        run.second.append(buf, cbRead);
    ::WaitForSingleObject(hProcess.get(), 60000);
    ::GetExitCodeProcess(hProcess.get(), &run.first);
    during.join();
    return run;
}

// A backup of one drive folder F (the configuration's drive) with these files, each "x", below sRoot.
void MakeHostBackup(const std::wstring& sRoot, std::initializer_list<const wchar_t*> files = {})
{
    MakeFolders(sRoot + L"\\F\\ZOVACFG");
    MakeFolders(sRoot + L"\\#");
    for (const std::wstring sFile : files)
    {
        MakeFolders(sRoot + L"\\F\\" + sFile.substr(0, sFile.rfind(L'\\') + 1));
        WriteBytes(sRoot + L"\\F\\" + sFile, "x");
    }
    WriteTextFile(sRoot + L"\\#\\disrec.ini", "[WinDir]\r\nDriveLetter=F\r\nPhysicalDrive=0\r\n"
                                              "Directory=F:\\Windows\r\nBootDriveLetter=F\r\n");
    WriteTextFile(sRoot + L"\\#\\HPoint.dat", "");
}

// A process of ours, found by the name of its program among the running ones; null when none is.
morvane::CUniqueHandle FindProcess(const wchar_t* pwszProgram)
{
    const morvane::CUniqueHandle hSnapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL b = ::Process32FirstW(hSnapshot.get(), &entry); b;
         b = ::Process32NextW(hSnapshot.get(), &entry))
        if (_wcsicmp(entry.szExeFile, pwszProgram) == 0)
            return morvane::CUniqueHandle(::OpenProcess(PROCESS_TERMINATE, FALSE, entry.th32ProcessID));
    return {};
}

// Each test's backups lie below R:\Host; what the host restores lands on F:.
class HostProgramTest : public KeflFixture
{
protected:
    void SetUp() override
    {
        KeflFixture::SetUp();
        Clean();
    }
    void TearDown() override
    {
        Clean();
        KeflFixture::TearDown();
    }
    static void Clean()
    {
        RemoveTree(L"R:\\Host");
        RemoveTree(L"F:", true);
    }
};

// The report that keflhost wrote; discarded when it is no JSON.
nlohmann::json ReadReport(const std::wstring& sPath)
{
    return nlohmann::json::parse(ReadBytes(sPath), nullptr, false);
}

} // namespace

TEST_F(HostProgramTest, AnswersEachArgumentErrorWithItsExitCode)
{
    const std::tuple<const wchar_t*, DWORD, const char*> cases[] = {
        {L"--help", 0, "Exit status: 0 everything restored"},
        {L"--unknown", 1, "usage: keflhost"},
        {L"--pit \"05/11/2015 14:03:09\"", 1, "usage:"},           // a point in time needs a location
        {L"--answer-file a.ini --location R:\\Host", 1, "usage:"}, // one source only
        {L"--verify", 1, "usage:"},                                // verifying needs credentials
        {L"--location R:\\Host --pit \"31/04/2016 00:00:00\"", 1, "is not a valid point in time"},
        {L"--location R:\\NoSuchBackup", 1, "says:\n    KEFLImpl::Init: PathIsDirectory failed"},
        {L"--location R:\\Host\\Empty", 1, "keflhost: the backup holds no filespaces"}, // no drive folder
    };
    MakeFolders(L"R:\\Host\\Empty\\#");
    WriteTextFile(L"R:\\Host\\Empty\\#\\HPoint.dat", "");
    for (const auto& [pwszArguments, dwExitCode, pszSaid] : cases)
    {
        const auto [dwActual, sOutput] = RunHost(pwszArguments);
        EXPECT_EQ(dwExitCode, dwActual) << testing::PrintToString(std::wstring(pwszArguments));
        EXPECT_NE(std::string::npos, sOutput.find(pszSaid)) << pszSaid << " in:\n" << sOutput;
    }
}

TEST_F(HostProgramTest, RestoresVerifiesAndNamesEveryFailureWithItsError)
{
    // One drive folder F (restored onto the target drive F:, all but the page file in its root) with the
    // configuration and two hard-link groups held as copies: one whose copies are alike, one whose older copy
    // differs (the link pass makes it the newer file, which the verification must notice).
    const std::wstring sBackup = L"R:\\Host\\Sample";
    MakeHostBackup(sBackup);
    MakeFolders(sBackup + L"\\F\\Data");
    MakeFolders(sBackup + L"\\F\\Blocked\\inner");
    for (const wchar_t* pwszFile :
         {L"Data\\big.bin", L"Data\\copy.bin", L"Data\\locked.bin", L"Data\\new.bin",
          L"Blocked\\inner\\x.txt", L"Data\\orphan.bin", L"pagefile.sys"})
        WriteBytes(sBackup + L"\\F\\" + pwszFile, Pattern(200000, 12));
    WriteBytes(sBackup + L"\\F\\Data\\old.bin", Pattern(200000, 13));
    for (int i = 1; i <= 20; ++i) // more failures than the screen shows, once the folder cannot be made
        WriteBytes(sBackup + L"\\F\\Blocked\\inner\\x" + std::to_wstring(i) + L".txt", "x");
    WriteTextFile(L"R:\\Host\\Sample.ini", "[ZovaBackupLocation]\r\nLocation=R:\\Host\\Sample\r\n");
    const std::string sFirstGroup = "[1]\r\nH1=F:\\Data\\big.bin\r\nH2=F:\\Data\\copy.bin\r\n";
    WriteTextFile(sBackup + L"\\#\\HPoint.dat", sFirstGroup);

    const auto [dwListed, sListed] = RunHost(L"--answer-file R:\\Host\\Sample.ini --list");
    EXPECT_EQ(0u, dwListed) << sListed;
    EXPECT_NE(std::string::npos, sListed.find("  F:   F:\\   [BOOT SYSTEM]")) << sListed;
    const auto [dwClean, sClean] = RunHost(L"--answer-file R:\\Host\\Sample.ini --verify");
    EXPECT_EQ(0u, dwClean) << sClean;
    for (const char* pszExpected :
         {"F:  27 of 27 files and 4 of 4 folders came back; 1 left out by rule",
          "Links: junctions 0 of 0, symbolic links 0 of 0, hard links 1 of 1",
          "Verified 27 files (1.3 MiB) against the backup: no differences"})
        EXPECT_NE(std::string::npos, sClean.find(pszExpected)) << pszExpected << " in:\n" << sClean;
    EXPECT_EQ(2u, FileIdentity(L"F:\\Data\\copy.bin").dwLinks) << "one file, two names";

    // Again over the same tree, with what goes wrong in a recovery: a restored file that something
    // holds open, a file where a folder must go, a hard link to a file the backup lacks, and copies
    // of one hard link that differ.
    WriteTextFile(sBackup + L"\\#\\HPoint.dat",
                  sFirstGroup + "[2]\r\nH1=F:\\Data\\missing.bin\r\nH2=F:\\Data\\orphan.bin\r\n"
                                "[3]\r\nH1=F:\\Data\\new.bin\r\nH2=F:\\Data\\old.bin\r\n");
    RemoveTree(L"F:\\Blocked");
    WriteBytes(L"F:\\Blocked", "a file, not a folder");
    morvane::CUniqueFile hLocked(
        ::CreateFileW(L"F:\\Data\\locked.bin", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(hLocked);
    const auto [dwExitCode, sOutput] =
        RunHost(L"--answer-file R:\\Host\\Sample.ini --verify --report R:\\Host\\Sample-report.json");
    hLocked.reset();
    EXPECT_EQ(2u | 4u | 8u, dwExitCode) << "files failed, links failed, differences:\n" << sOutput;
    for (const char* pszExpected :
         {"    folder F:\\Blocked\\inner: error 3: ", "    file F:\\Blocked\\inner\\x",
          "    hard link F:\\Data\\orphan.bin: error 2: ",
          "Links: junctions 0 of 0, symbolic links 0 of 0, hard links 2 of 3 (1 failed)",
          "    F:\\Data\\old.bin: differs from byte 0",
          "    F:\\Data\\locked.bin: not readable: error 32: ", "    F:\\Blocked: folder missing",
          "    folder F:\\Blocked: error 183: ", "Files and folders not restored (24):",
          "    ... and 4 more, all of them in the report"})
        EXPECT_NE(std::string::npos, sOutput.find(pszExpected)) << pszExpected << " in:\n" << sOutput;
    EXPECT_TRUE(ReadBytes(L"F:\\Data\\orphan.bin") == Pattern(200000, 12))
        << "the copy stays where no link was made";

    const nlohmann::json report = ReadReport(L"R:\\Host\\Sample-report.json");
    ASSERT_FALSE(report.is_discarded());
    EXPECT_EQ("R:\\Host\\Sample", report["credentials"].value("location", ""));
    const nlohmann::json& fs = report["filespaces"][0];
    EXPECT_EQ("failed", fs.value("result", ""));
    std::map<int, int> errors; // every failure, not only those on screen: error, how many
    for (const nlohmann::json& failure : fs["failures"])
        ++errors[failure.value("error", 0)];
    EXPECT_EQ((std::map<int, int>{{3, 22}, {32, 1}, {183, 1}}), errors) << report.dump();
    EXPECT_EQ(3u, fs["verify"]["differences"].size()) << report.dump();
    EXPECT_EQ(1, report["links"]["hardLinks"].value("failed", 0)) << report.dump();
}

TEST_F(HostProgramTest, SaysThatFailuresPastTheTraceSizeLimitMayBeMissing)
{
    // At level 4 each file of a deep folder writes its long path and a few lines more, about
    // 2 KB: 700 files pass a limit of 1 MiB by a third. The folder that cannot be made fails either way.
    kefltest::WriteTraceIni({{L"KEFL_TraceLevel", L"4"}, {L"KEFL_TraceMaxMB", L"1"}});
    MakeHostBackup(L"R:\\Host\\Capped", {L"Blocked\\inner\\x.txt"});
    std::wstring sDeep = L"R:\\Host\\Capped\\F\\Deep\\";
    for (wchar_t wc : {L'a', L'b', L'c', L'd', L'e'})
        sDeep += std::wstring(240, wc) + L"\\";
    MakeFolders(sDeep);
    for (int i = 0; i < 700; ++i)
        WriteBytes(sDeep + std::to_wstring(i) + std::wstring(200, L'g'), "x");
    WriteBytes(L"F:\\Blocked", "a file, not a folder");

    const auto [dwExitCode, sOutput] = RunHost(L"--location R:\\Host\\Capped --report R:\\Host\\Capped.json");
    EXPECT_EQ(2u, dwExitCode) << sOutput;
    EXPECT_NE(std::string::npos, sOutput.find("    folder F:\\Blocked\\inner: error 3: ")) << sOutput;
    EXPECT_NE(std::string::npos,
              sOutput.find("  the library's trace says \"Trace file reached its size limit "
                           "of 1 MiB: information and verbose lines are no longer "
                           "written\": failures past that may be missing"));
    const nlohmann::json report = ReadReport(L"R:\\Host\\Capped.json");
    EXPECT_NE(std::string::npos,
              report["filespaces"][0].value("failuresMayBeMissing", "").find("size limit of 1 MiB"));
}

TEST_F(HostProgramTest, FindsItsTraceAgainAfterAnotherLoadOfTheLibraryStartedItAnew)
{
    const auto Failed = [](const char* pszPath)
    {
        return "[2026-11-23 16:50:49.027]:0a3c:[E]: KEFLImpl::RestoreFilespace : sDst = \"" +
               std::string(pszPath) +
               "\"\n[2026-11-23 16:50:49.027]:0a3c:[E]: KEFLImpl::RestoreFilespace : Failed to copy file\n";
    };
    const keflhost::CLibraryTrace trace(KeflLogPath());
    const auto Read = [&](const keflhost::CTraceMark& mark)
    {
        const keflhost::CTraceFindings findings = trace.ReadFrom(mark);
        std::wstring sRead = findings.bEarlierLinesLost ? L"lost " : L"";
        for (const keflhost::CFailure& failure : findings.vFailures)
            sRead += failure.sPath + L" ";
        return sRead;
    };
    Load();
    WriteBytes(KeflLogPath(), Failed("E:\\before"));
    const keflhost::CTraceMark mark = keflhost::TakeTraceMark(trace.Path());
    WriteBytes(KeflLogPath(), Failed("E:\\before") + Failed("E:\\a"));
    // Each load of the library moves the trace to KEFL_trace.old and starts it anew.
    m_pLibrary.reset();
    Load();
    WriteBytes(KeflLogPath(), Failed("E:\\b"));
    EXPECT_EQ(L"E:\\a E:\\b ", Read(mark));
    // A second load replaces the generation that was marked: what it held is lost, and said to be.
    m_pLibrary.reset();
    Load();
    EXPECT_EQ(L"lost ", Read(mark));
}

TEST(HostVerifyTest, LeavesJunctionsAndSymbolicLinksToTheLinkPass)
{
    kefltest::CPatches patches;
    ShowReparsePoints(patches, ::GetModuleHandleW(nullptr));
    // In the backup, what Wine shows of the links; restored, the link pass has not made them yet.
    MakeFolders(L"R:\\HostVerify\\E\\Junction");
    MakeFolders(L"R:\\HostVerify\\Restored");
    for (const wchar_t* pwszFile :
         {L"E\\a.txt", L"E\\Junction\\in.txt", L"E\\FileLink.txt", L"E\\Deduplicated.bin", L"Restored\\a.txt",
          L"Restored\\Deduplicated.bin"})
        WriteBytes(L"R:\\HostVerify\\" + std::wstring(pwszFile), "x");
    const std::atomic<bool> bGoOn{false};
    const std::atomic<bool> bStop{true}; // the user's Ctrl+C: nothing more is compared
    const keflhost::CVerification verification = keflhost::VerifyFilespace(
        L"R:\\HostVerify\\E", L"R:\\HostVerify\\Restored", [](uint64_t, uint64_t) {}, bGoOn);
    const keflhost::CVerification stopped = keflhost::VerifyFilespace(
        L"R:\\HostVerify\\E", L"R:\\HostVerify\\Restored", [](uint64_t, uint64_t) {}, bStop);
    EXPECT_TRUE(stopped.bStopped && stopped.ullFiles == 0 && stopped.vDifferences.empty());
    RemoveTree(L"R:\\HostVerify");
    EXPECT_EQ(2u, verification.ullFiles) << "a.txt, and Deduplicated.bin: a reparse point that holds data";
    EXPECT_EQ(0u, verification.ullFolders);
    for (const keflhost::CDifference& difference : verification.vDifferences)
        ADD_FAILURE() << testing::PrintToString(difference.sPath + L": " + difference.sWhat);
}

TEST_F(HostProgramTest, ReportsARestoreProcessKilledMidwayAndASecondRunRestoresTheRest)
{
    // The restore waits for a backup file that another program holds; meanwhile its process dies.
    MakeHostBackup(L"R:\\Host\\Killed", {L"a.txt", L"held.bin", L"z.txt"});
    WriteBytes(L"F:\\a.txt", "an earlier state's file of two names");
    ASSERT_TRUE(::CreateHardLinkW(L"F:\\z.txt", L"F:\\a.txt", nullptr));
    morvane::CUniqueFile hHeld(::CreateFileW(L"R:\\Host\\Killed\\F\\held.bin", GENERIC_READ, 0, nullptr,
                                             OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(hHeld);
    // Once the restore process waits for sHeld: the program's process is ended as a crash ends it.
    const auto KillWhenHeld = [](const wchar_t* pwszProgram, const std::wstring& sHeld)
    {
        for (int i = 0; i < 600; ++i)
        {
            if (HasText(KeflLog(), L"KEFLImpl::RestoreFilespace : sDst = \"" + sHeld + L"\""))
                if (const morvane::CUniqueHandle hProcess = FindProcess(pwszProgram))
                    return void(::TerminateProcess(hProcess.get(), 0xC0000005));
            ::Sleep(50);
        }
    };
    const auto killWhenHeld = [&] { KillWhenHeld(L"keflrestore.exe", L"F:\\held.bin"); };
    const auto [dwExitCode, sOutput] =
        RunHost(L"--location R:\\Host\\Killed --report R:\\Host\\Killed.json", killWhenHeld);
    EXPECT_EQ(16u | 2u, dwExitCode) << sOutput;
    EXPECT_NE(std::string::npos, sOutput.find("cut short while restoring F:")) << sOutput;
    EXPECT_NE(std::string::npos, sOutput.find("exit code 0xC0000005: an access violation")) << sOutput;
    EXPECT_EQ("cut short", ReadReport(L"R:\\Host\\Killed.json")["filespaces"][0].value("result", ""));
    hHeld.reset();
    const std::string sTraceIni = ReadBytes(L"Z:\\DURN\\trace.ini");
    const auto [dwAgain, sAgain] = RunHost(L"--location R:\\Host\\Killed --resume");
    EXPECT_EQ(sTraceIni, ReadBytes(L"Z:\\DURN\\trace.ini")) << "the setting is the run's alone";
    EXPECT_EQ(0u, dwAgain) << sAgain;
    EXPECT_NE(std::string::npos, sAgain.find("Resuming: a file an earlier run restored whole")) << sAgain;
    EXPECT_EQ("x", ReadBytes(L"F:\\held.bin"));
    EXPECT_EQ(1u, FileIdentity(L"F:\\z.txt").dwLinks);
    for (const auto& [sRel, metadata] : ReadMetadata(L"F:"))
        EXPECT_EQ(std::wstring::npos, sRel.find(L"~kefl")) << "a name moved aside is gone";
    // keflhost itself killed while its restore process waits: the job takes that process with it.
    MakeHostBackup(L"R:\\Host\\Orphan", {L"held2.bin"});
    hHeld.reset(::CreateFileW(L"R:\\Host\\Orphan\\F\\held2.bin", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    bool bOrphaned = true;
    RunHost(L"--location R:\\Host\\Orphan",
            [&]
            {
                KillWhenHeld(L"keflhost.exe", L"F:\\held2.bin");
                for (int i = 0; i < 20 && FindProcess(L"keflrestore.exe"); ++i)
                    ::Sleep(50);
                bOrphaned = FindProcess(L"keflrestore.exe").is_valid();
            });
    EXPECT_FALSE(bOrphaned) << "the restore process outlived keflhost by a second";
}
