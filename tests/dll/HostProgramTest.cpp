// Our command-line host, run as a user runs it: its output, report and exit status.
#include "dll/KeflFixture.h"
#include "host/LibraryTrace.h"
#include "host/RestoreDriver.h"
#include "host/RestoreVerify.h"
#include "support/Patches.h"

#include <nlohmann/json.hpp>

#include <map>
#include <tuple>

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
    const struct
    {
        const wchar_t* pwszArguments;
        DWORD dwExitCode;
        const char* pszSaid;
    } cases[] = {
        {L"--help", 0, "Exit status: 0 everything restored"},
        {L"--unknown", 1, "usage: keflhost"},
        {L"--pit \"05/11/2015 14:03:09\"", 1, "usage:"},             // a point in time needs a location
        {L"--answer-file a.ini --location R:\\Backup", 1, "usage:"}, // one source only
        {L"--verify", 1, "usage:"},                                  // verifying needs credentials
        {L"--location R:\\Backup --pit \"31/04/2016 00:00:00\"", 1, "is not a valid point in time"},
        {L"--location R:\\NoSuchBackup", 1, "says:\n    KEFLImpl::Init: PathIsDirectory failed"},
        {L"--location R:\\HostEmpty", 1, "keflhost: the backup holds no filespaces"}, // only its data folder
    };
    MakeFolders(L"R:\\HostEmpty\\#");
    WriteTextFile(L"R:\\HostEmpty\\#\\HPoint.dat", "");
    for (const auto& [pwszArguments, dwExitCode, pszSaid] : cases)
    {
        const auto [dwActual, sOutput] = RunHost(pwszArguments);
        EXPECT_EQ(dwExitCode, dwActual) << testing::PrintToString(std::wstring(pwszArguments));
        EXPECT_NE(std::string::npos, sOutput.find(pszSaid)) << pszSaid << " in:\n" << sOutput;
    }
    RemoveTree(L"R:\\HostEmpty");
}

TEST_F(KeflFixture, HostRestoresVerifiesAndNamesEveryFailureWithItsError)
{
    // One drive folder F (restored onto the target drive F:, all but the page file in its root) with
    // the configuration and two hard-link
    // groups held as copies: one whose copies are alike, one whose older copy differs (the link pass
    // makes it the newer file, which the verification must notice).
    RemoveTree(L"F:\\Data");
    RemoveTree(L"F:\\Blocked");
    RemoveTree(L"R:\\HostSample");
    for (const wchar_t* pwszDir : {L"\\F\\ZOVACFG", L"\\F\\Data", L"\\F\\Blocked\\inner", L"\\#"})
        MakeFolders(L"R:\\HostSample" + std::wstring(pwszDir));
    for (const wchar_t* pwszFile :
         {L"\\F\\Data\\big.bin", L"\\F\\Data\\copy.bin", L"\\F\\Data\\locked.bin", L"\\F\\Data\\new.bin",
          L"\\F\\Blocked\\inner\\x.txt", L"\\F\\Data\\orphan.bin", L"\\F\\pagefile.sys"})
        WriteBytes(L"R:\\HostSample" + std::wstring(pwszFile), Pattern(200000, 12));
    WriteBytes(L"R:\\HostSample\\F\\Data\\old.bin", Pattern(200000, 13));
    for (int i = 1; i <= 20; ++i) // more failures than the screen shows, once the folder cannot be made
        WriteBytes(L"R:\\HostSample\\F\\Blocked\\inner\\x" + std::to_wstring(i) + L".txt", "x");
    WriteTextFile(
        L"R:\\HostSample\\#\\disrec.ini",
        "[WinDir]\r\nDriveLetter=F\r\nPhysicalDrive=0\r\nDirectory=F:\\Windows\r\nBootDriveLetter=F\r\n");
    WriteTextFile(L"R:\\HostSample.ini", "[ZovaBackupLocation]\r\nLocation=R:\\HostSample\r\n");
    const auto WriteHardLinks = [](const char* pszGroups)
    { WriteTextFile(L"R:\\HostSample\\#\\HPoint.dat", pszGroups); };
    WriteHardLinks("[1]\r\nH1=F:\\Data\\big.bin\r\nH2=F:\\Data\\copy.bin\r\n");

    const auto [dwListed, sListed] = RunHost(L"--answer-file R:\\HostSample.ini --list");
    EXPECT_EQ(0u, dwListed) << sListed;
    EXPECT_NE(std::string::npos, sListed.find("  F:   F:\\   [BOOT SYSTEM]")) << sListed;
    const auto [dwClean, sClean] = RunHost(L"--answer-file R:\\HostSample.ini --verify");
    EXPECT_EQ(0u, dwClean) << sClean;
    for (const char* pszExpected :
         {"Restored 1 of 1 filespaces.", "Links: junctions 0 of 0, symbolic links 0 of 0, hard links 1 of 1",
          "Verified 27 files (1.3 MiB) against the backup: no differences"})
        EXPECT_NE(std::string::npos, sClean.find(pszExpected)) << pszExpected << " in:\n" << sClean;
    EXPECT_EQ(2u, FileIdentity(L"F:\\Data\\copy.bin").dwLinks) << "one file, two names";

    // Again over the same tree, with what goes wrong in a recovery: a restored file that something
    // holds open, a file where a folder must go, a hard link to a file the backup lacks, and copies
    // of one hard link that differ.
    WriteHardLinks("[1]\r\nH1=F:\\Data\\big.bin\r\nH2=F:\\Data\\copy.bin\r\n"
                   "[2]\r\nH1=F:\\Data\\missing.bin\r\nH2=F:\\Data\\orphan.bin\r\n"
                   "[3]\r\nH1=F:\\Data\\new.bin\r\nH2=F:\\Data\\old.bin\r\n");
    RemoveTree(L"F:\\Blocked");
    WriteBytes(L"F:\\Blocked", "a file, not a folder");
    morvane::CUniqueFile hLocked(
        ::CreateFileW(L"F:\\Data\\locked.bin", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(hLocked);
    const auto [dwExitCode, sOutput] =
        RunHost(L"--answer-file R:\\HostSample.ini --verify --report R:\\HostSample-report.json");
    hLocked.reset();
    EXPECT_EQ(2u | 4u | 8u, dwExitCode) << "files failed, links failed, differences:\n" << sOutput;
    for (const char* pszExpected :
         {"    folder F:\\Blocked\\inner: error 3: ", "    file F:\\Blocked\\inner\\x",
          "    hard link F:\\Data\\orphan.bin: error 2: ",
          "Links: junctions 0 of 0, symbolic links 0 of 0, hard links 2 of 3 (1 failed)",
          "    F:\\Data\\old.bin: differs from byte 0",
          "    F:\\Data\\locked.bin: not readable: error 32: ", "    F:\\Blocked: folder missing",
          "Files and folders not restored (23):", "    ... and 3 more, all of them in the report"})
        EXPECT_NE(std::string::npos, sOutput.find(pszExpected)) << pszExpected << " in:\n" << sOutput;
    EXPECT_TRUE(ReadBytes(L"F:\\Data\\orphan.bin") == Pattern(200000, 12))
        << "the copy stays where no link was made";

    const std::string sReport = ReadBytes(L"R:\\HostSample-report.json");
    const nlohmann::json report = nlohmann::json::parse(sReport, nullptr, false);
    ASSERT_FALSE(report.is_discarded()) << sReport;
    EXPECT_EQ(14, report.value("exitStatus", -1));
    EXPECT_EQ("R:\\HostSample", report["credentials"].value("location", ""));
    const nlohmann::json& fs = report["filespaces"][0];
    EXPECT_EQ("failed", fs.value("result", ""));
    std::map<int, int> errors; // every failure, not only those on screen: error, how many
    std::string sHeld;
    for (const nlohmann::json& failure : fs["failures"])
    {
        const int iError = failure.value("error", 0);
        ++errors[iError];
        if (iError == 32)
            sHeld = failure.value("path", "");
    }
    EXPECT_EQ((std::map<int, int>{{3, 22}, {32, 1}}), errors) << sReport;
    EXPECT_EQ("F:\\Data\\locked.bin", sHeld);
    EXPECT_EQ(3u, fs["verify"]["differences"].size()) << sReport;
    EXPECT_EQ(1, report["links"]["hardLinks"].value("failed", 0)) << sReport;
    for (const wchar_t* pwszPath : {L"R:\\HostSample", L"F:\\Data", L"F:\\Blocked"})
        RemoveTree(pwszPath);
    RemoveFile(L"R:\\HostSample.ini");
    RemoveFile(L"R:\\HostSample-report.json");
}

TEST_F(KeflFixture, HostSaysThatFailuresPastTheTraceSizeLimitMayBeMissing)
{
    // At level 4 each file of a deep folder writes its long path and a few lines more, about
    // 2 KB: 700 files pass a limit of 1 MiB by a third. The folder that cannot be made fails either way.
    kefltest::WriteTraceIni({{L"KEFL_TraceLevel", L"4"}, {L"KEFL_TraceMaxMB", L"1"}});
    std::wstring sDeep = L"\\CappedDeep\\";
    for (wchar_t wc : {L'a', L'b', L'c', L'd', L'e'})
        sDeep += std::wstring(240, wc) + L"\\";
    for (const wchar_t* pwszDir : {L"\\F\\ZOVACFG", L"\\F\\CappedBlocked\\inner", L"\\#"})
        MakeFolders(L"R:\\HostCapped" + std::wstring(pwszDir));
    MakeFolders(L"R:\\HostCapped\\F" + sDeep);
    for (int i = 0; i < 700; ++i)
        WriteBytes(L"R:\\HostCapped\\F" + sDeep + std::to_wstring(i) + std::wstring(200, L'g'), "x");
    WriteBytes(L"R:\\HostCapped\\F\\CappedBlocked\\inner\\x.txt", "x");
    WriteTextFile(L"R:\\HostCapped\\#\\disrec.ini",
                  "[WinDir]\r\nDriveLetter=F\r\nPhysicalDrive=0\r\nDirectory=F:\\Windows\r\nBootDriveLetter=F\r\n");
    WriteTextFile(L"R:\\HostCapped\\#\\HPoint.dat", "");
    WriteBytes(L"F:\\CappedBlocked", "a file, not a folder");

    const auto [dwExitCode, sOutput] = RunHost(L"--location R:\\HostCapped --report R:\\HostCapped.json");
    EXPECT_EQ(2u, dwExitCode) << sOutput;
    EXPECT_NE(std::string::npos, sOutput.find("    folder F:\\CappedBlocked\\inner: error 3: ")) << sOutput;
    EXPECT_NE(std::string::npos, sOutput.find("  the library's trace says \"Trace file reached its size limit of 1 "
                                              "MiB: information and verbose lines are no longer written\": "
                                              "failures past that may be missing"));
    const nlohmann::json report = nlohmann::json::parse(ReadBytes(L"R:\\HostCapped.json"), nullptr, false);
    ASSERT_FALSE(report.is_discarded());
    EXPECT_NE(std::string::npos,
              report["filespaces"][0].value("failuresMayBeMissing", "").find("size limit of 1 MiB"));
    for (const wchar_t* pwszPath : {L"R:\\HostCapped", L"R:\\HostCapped.json", L"F:\\CappedDeep",
                                    L"F:\\CappedBlocked", L"F:\\ZOVACFG"})
        RemoveTree(pwszPath);
}

TEST_F(KeflFixture, HostFindsItsTraceAgainAfterAnotherLoadOfTheLibraryStartedItAnew)
{
    const auto Failed = [](const char* pszPath)
    {
        return "[2026-11-23 16:50:49.027]:0a3c:[E]: KEFLImpl::RestoreFilespace : sDst = \"" + std::string(pszPath) +
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
    const keflhost::CTraceMark mark = trace.Mark();
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

namespace
{

// Windows reports a junction or symbolic link in the find data: the reparse-point attribute and
// its tag. Wine makes neither; in the verification's listings these names stand for them.
decltype(&::FindFirstFileW) g_pfnFindFirst = nullptr;
decltype(&::FindNextFileW) g_pfnFindNext = nullptr;
BOOL AsReparsePoint(WIN32_FIND_DATAW* pfd)
{
    static const std::map<std::wstring, DWORD> kTags = {{L"Junction", IO_REPARSE_TAG_MOUNT_POINT},
                                                        {L"FileLink.txt", IO_REPARSE_TAG_SYMLINK},
                                                        {L"Deduplicated.bin", 0x80000013}}; // data, no link
    if (const auto it = kTags.find(pfd->cFileName); it != kTags.end())
        pfd->dwFileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT, pfd->dwReserved0 = it->second;
    return TRUE;
}

} // namespace

TEST(HostVerifyTest, LeavesJunctionsAndSymbolicLinksToTheLinkPass)
{
    kefltest::CPatches patches;
    g_pfnFindFirst = patches.Patch(::GetModuleHandleW(nullptr), "KERNEL32.dll", "FindFirstFileW",
                                   +[](LPCWSTR pwszPattern, LPWIN32_FIND_DATAW pfd)
                                   {
                                       const HANDLE hFind = g_pfnFindFirst(pwszPattern, pfd);
                                       if (hFind != INVALID_HANDLE_VALUE)
                                           AsReparsePoint(pfd);
                                       return hFind;
                                   });
    g_pfnFindNext = patches.Patch(::GetModuleHandleW(nullptr), "KERNEL32.dll", "FindNextFileW",
                                  +[](HANDLE hFind, LPWIN32_FIND_DATAW pfd) -> BOOL
                                  { return g_pfnFindNext(hFind, pfd) && AsReparsePoint(pfd); });
    // In the backup, what Wine shows of the links; restored, the link pass has not made them yet.
    MakeFolders(L"R:\\HostVerify\\E\\Junction");
    MakeFolders(L"R:\\HostVerify\\Restored");
    for (const wchar_t* pwszFile : {L"E\\a.txt", L"E\\Junction\\in.txt", L"E\\FileLink.txt",
                                    L"E\\Deduplicated.bin", L"Restored\\a.txt", L"Restored\\Deduplicated.bin"})
        WriteBytes(L"R:\\HostVerify\\" + std::wstring(pwszFile), "x");
    const keflhost::CVerification verification =
        keflhost::VerifyFilespace(L"R:\\HostVerify\\E", L"R:\\HostVerify\\Restored", [](uint64_t, uint64_t) {});
    RemoveTree(L"R:\\HostVerify");
    EXPECT_EQ(2u, verification.ullFiles) << "a.txt, and Deduplicated.bin: a reparse point that holds data";
    EXPECT_EQ(0u, verification.ullFolders);
    for (const keflhost::CDifference& difference : verification.vDifferences)
        ADD_FAILURE() << testing::PrintToString(difference.sPath + L": " + difference.sWhat);
}

TEST(HostExitStatusTest, AnErrorOfTheHostsOwnKeepsWhatIsKnownOnceARestoreBegan)
{
    // Began, a filespace restored (with a difference found), links failed: the status.
    for (const auto& [bBegan, bRestored, bDifferences, bLinksFailed, iStatus] :
         {std::tuple{false, false, false, false, 1}, {true, false, false, false, 2}, {true, true, false, true, 2 | 4},
          {true, true, true, false, 2 | 8}})
    {
        keflhost::CRunRecord record;
        record.bRestoreBegan = bBegan;
        if (bRestored)
            record.vFilespaces.emplace_back().sResult = L"restored";
        if (bDifferences)
            record.vFilespaces.back().verification.vDifferences.push_back({L"E:\\a", L"missing"});
        record.bLinksFailed = bLinksFailed;
        EXPECT_EQ(iStatus, keflhost::StoppedStatus(record)) << bBegan << bRestored << bDifferences << bLinksFailed;
    }
}
