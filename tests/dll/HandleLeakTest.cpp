// Every handle KEFL.dll gets during a whole session, failures included, is given back by the
// session's end. Counted at KEFL.dll's import table: Wine counts no handles of a process.
#include "dll/SessionFixture.h"

#include "support/BackupStreams.h"

#include <mutex>

using namespace kefltest;

namespace
{

// The live handles by kind, each with the call that made it, and what each kind saw opened and
// released. The command monitor thread closes handles too, hence the lock.
std::mutex g_lock;
std::map<std::string, std::map<HANDLE, std::string>> g_live;
std::map<std::string, std::pair<int, int>> g_counts;

// What gives KEFL.dll handles: the answer (iOut -1) or argument iOut; a second one of the kind
// through argument iOut2, or a thread right behind the first (iOut2 == iOut: PROCESS_INFORMATION).
// Without a kind, a call that takes back its first argument; a find handle only FindClose takes back.
struct CCall
{
    const char *pszDll, *pszCall, *pszKind = nullptr;
    int iOut = -1, iOut2 = -1;
};
constexpr CCall kCalls[] = {{"KERNEL32.dll", "CreateFileW", "file"},
                            {"KERNEL32.dll", "FindFirstFileW", "find"},
                            {"KERNEL32.dll", "CreateMutexW", "mutex"},
                            {"KERNEL32.dll", "CreateEventW", "event"},
                            {"KERNEL32.dll", "CreateThread", "thread"},
                            {"KERNEL32.dll", "CreatePipe", "pipe", 0, 1},
                            {"KERNEL32.dll", "CreateProcessW", "process", 9, 9},
                            {"KERNEL32.dll", "DuplicateHandle", "duplicate", 3},
                            {"ADVAPI32.dll", "OpenProcessToken", "token", 2},
                            {"KERNEL32.dll", "CloseHandle"},
                            {"KERNEL32.dll", "FindClose"}};

void Opened(const char* pszKind, HANDLE h, const char* pszCall)
{
    const std::lock_guard lock(g_lock);
    g_live[pszKind][h] = pszCall, ++g_counts[pszKind].first;
}

// kCalls[i] passed on by KEFL.dll's imports, what a successful call made or took back recorded.
template <size_t i, class R, class... A> void Count(CPatches& patches, HMODULE hKefl, R (*)(A...))
{
    static R (*s_pfnReal)(A...) = nullptr;
    static constexpr CCall c = kCalls[i];
    s_pfnReal = patches.Patch(
        hKefl, c.pszDll, c.pszCall,
        +[](A... a)
        {
            R r = s_pfnReal(a...);
            const uintptr_t auArgs[] = {(uintptr_t)a...};
            auto ph = reinterpret_cast<HANDLE*>(&r);
            if constexpr (c.iOut >= 0)
                ph = reinterpret_cast<HANDLE*>(auArgs[c.iOut]);
            // Failed (FALSE, NULL or invalid), or a DuplicateHandle that only closes.
            if (const intptr_t iR = (intptr_t)r; iR == 0 || iR == -1 || !ph)
                return r;
            if constexpr (c.pszKind == nullptr)
            {
                const std::lock_guard lock(g_lock);
                for (auto& [sKind, handles] : g_live)
                    if ((sKind == "find") == (c.pszCall == kCalls[10].pszCall) &&
                        handles.erase(reinterpret_cast<HANDLE>(auArgs[0])))
                        ++g_counts[sKind].second;
                return r;
            }
            Opened(c.pszKind, ph[0], c.pszCall);
            if constexpr (c.iOut2 >= 0)
                Opened(c.iOut2 == c.iOut ? "thread" : c.pszKind,
                       c.iOut2 == c.iOut ? ph[1] : *reinterpret_cast<HANDLE*>(auArgs[c.iOut2]), c.pszCall);
            return r;
        });
}

} // namespace

using HandleLeakTest = SessionFixture;

TEST_F(HandleLeakTest, ASessionWithFailuresGivesBackEveryHandleItGot)
{
    const HMODULE h = m_pLibrary->Module();
    const CBackupStreamPatches streams(h);
    const auto calls = std::tuple(&::CreateFileW, &::FindFirstFileW, &::CreateMutexW, &::CreateEventW,
                                  &::CreateThread, &::CreatePipe, &::CreateProcessW, &::DuplicateHandle,
                                  &::OpenProcessToken, &::CloseHandle, &::FindClose);
    [&]<size_t... i>(std::index_sequence<i...>)
    {
        (Count<i>(m_patches, h, std::get<i>(calls)), ...);
    }
    (std::make_index_sequence<std::size(kCalls)>());
    g_live.clear(), g_counts.clear();
    // The configuration copied to R:\Cfg from drive D:; a junction (Wine makes none) and a hard link
    // to a missing file fail.
    RemoveTree(L"E:", true), RemoveTree(L"R:\\Cfg");
    WriteTextFile(HostDir() + L"\\qtx.ini", "[File Locations]\r\nConfig=R:\\Cfg\r\n");
    WriteTextFile(L"R:\\Backup\\#\\disrec.ini",
                  "[WinDir]\r\nDriveLetter=C\r\nDirectory=\\W\r\nPhysicalDrive=0\r\n"
                  "BootDriveLetter=D\r\n[PhysicalDrive0]\r\nPartitionStyle=0\r\n");
    WriteTextFile(L"R:\\Backup\\#\\JPoint.dat", "[E:\\J]\r\nTarget=E:\\z\r\nBackupTarget=R:\\x\r\n");
    WriteTextFile(L"R:\\Backup\\#\\HPoint.dat", "[1]\r\nH1=E:\\Missing.txt\r\nH2=E:\\good.txt\r\n");
    // E: restored but for held.txt, which the test holds open, and the folder "blocked", where a file is.
    for (const wchar_t* pwszFolder : {L"D\\ZOVACFG", L"E\\z", L"E\\blocked"})
        MakeFolders(L"R:\\Backup\\" + std::wstring(pwszFolder));
    for (const wchar_t* pwszName : {L"good.txt", L"held.txt", L"z\\after.txt", L"blocked\\in.txt"})
        WriteBytes(L"R:\\Backup\\E\\" + std::wstring(pwszName), Pattern(100000, 1));
    WriteBytes(L"E:\\blocked", "a file where a folder goes"), WriteBytes(L"E:\\held.txt", "held");
    const morvane::CUniqueFile hHeld(
        ::CreateFileW(L"E:\\held.txt", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));

    ::FreeConsole(); // Wine cannot open "CONIN$" of the test program's own console
    ASSERT_TRUE(m_pClient->Init(Credentials(kBackup).get())) << testing::PrintToString(ErrorText());
    std::vector<morvane::Filespace> vFilespaces;
    EXPECT_TRUE(m_pClient->GetFilespaceList(vFilespaces)) << testing::PrintToString(ErrorText());
    morvane::Filespace fs{};
    fs.wcFsDriveLetter = L'E';
    EXPECT_FALSE(m_pClient->RestoreFilespace(fs));
    m_pClient->RestoreLinks();
    EXPECT_TRUE(m_pClient->Fini());

    for (const wchar_t* pwszDone :
         {L"KEFLImpl::GetConfig : sCmd = \"XCOPY /e /h /r /y \"R:\\Backup\\#\\*\" \"R:\\Cfg\"\"",
          L"KEFLImpl::CopyFileWithProgress : dwLastError = 32",
          L"KEFLImpl::CopyFileWithProgress : dwLastError = 3",
          L"KEFLImpl::CreateJunction : ... ending(DeviceIoControl(FSCTL_SET_REPARSE_POINT) failed)",
          L"KEFLImpl::CreateHardLinkW : dwLastError = 2"})
        EXPECT_TRUE(HasText(KeflLog(), pwszDone)) << testing::PrintToString(std::wstring(pwszDone));
    const std::lock_guard lock(g_lock);
    std::map<std::string, size_t> leaked;
    std::string sLeaks, sCounts;
    for (const auto& [sKind, handles] : g_live)
        for (const auto& [hLeaked, sCall] : handles)
            ++leaked[sKind], sLeaks += sKind + " from " + sCall + "; ";
    for (const auto& [sKind, counts] : g_counts)
        sCounts += sKind + " " + std::to_string(counts.first) + "/" + std::to_string(counts.second) + "; ";
    EXPECT_EQ((std::map<std::string, size_t>{}), leaked) << sLeaks << "\nopened/released: " << sCounts;
}
