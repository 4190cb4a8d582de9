// A restore run again after an interruption: KEFL.dll restores a tree of 10,000 small files (folders
// of 100, 1 byte to 4 kB) with 8 workers at the default trace level, then restores it again over its
// own result with trace.ini's KEFL_SkipUnchanged=1, locally and from a share (a 2 ms round trip on
// every open, read and listing of the backup drive, as kefl_share_bench stands it in). The listing
// of the backup still costs its round trips; the copies it keeps cost none. Each round prints both
// restores and their ratio. Targets (the median of the rounds' ratios): 0.2 locally, 0.3 at 2 ms.
// Every file is counted after each restore; it exits 2 when it could not measure, else 0.
//
//   kefl_resume_bench [--rounds N] [--files N]
#include "VESK.h"
#include "VeskCredentials.h"
#include "bench/BenchFiles.h"
#include "bench/ShareStandIn.h"
#include "platform/UniqueHandle.h"
#include "winecompat/WineStandIns.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

using namespace morvane;
using namespace benchfiles;
using namespace sharestandin;

namespace
{

const std::wstring kRoot = L"R:\\ResumeBench";
const std::wstring kBackup = kRoot + L"\\Backup";
const wchar_t kTraceIni[] = L"Z:\\DURN\\trace.ini";
const wchar_t kTraceIniSaved[] = L"Z:\\DURN\\trace.ini.resumebench";

struct CKefl
{
    CUniqueLibrary hModule;
    std::unique_ptr<winecompat::CWineStandIns> pWine;
    std::unique_ptr<CShareStandIn> pShare;
    FactoryFn pfnFactory = nullptr;
    CredentialsFactoryFn pfnCredentialsFactory = nullptr;
};

// trace.ini with the setting, dated a second later each time: Wine's profile cache would keep an
// unchanged name and time.
void WriteTraceIni(bool bSkipUnchanged)
{
    static ULONGLONG s_ullStamp = 0;
    const std::string sIni = std::string("[Main]\r\nKEFL_RestoreThreads=8\r\nKEFL_SkipUnchanged=") +
                             (bSkipUnchanged ? "1" : "0") + "\r\n";
    WriteBytes(kTraceIni, sIni.data(), static_cast<DWORD>(sIni.size()));
    const CUniqueFile hIni(::CreateFileW(kTraceIni, FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    FILETIME ft;
    ::GetSystemTimeAsFileTime(&ft);
    ULARGE_INTEGER uli{{ft.dwLowDateTime, ft.dwHighDateTime}};
    uli.QuadPart += (++s_ullStamp) * 10000000ull;
    ft = {uli.LowPart, uli.HighPart};
    ::SetFileTime(hIni.get(), nullptr, nullptr, &ft);
}

// One restore of drive E; its seconds, < 0 when it failed or left a file out.
double Restore(CKefl& kefl, bool bSkipUnchanged, size_t nFiles)
{
    WriteTraceIni(bSkipUnchanged);
    struct CDeleter
    {
        void operator()(VESK* p) const { delete p; }
    };
    std::unique_ptr<VESK, CDeleter> pClient(kefl.pfnFactory());
    std::unique_ptr<VeskCredentials> pCredentials(kefl.pfnCredentialsFactory());
    static_cast<KeflCredentials*>(pCredentials.get())->m_sTargetPath = kBackup;
    if (!pClient || !pCredentials || !pClient->Init(pCredentials.get()))
        return -1.0;
    Filespace fs{};
    fs.sFsPath = L"E:\\";
    fs.wcFsDriveLetter = L'E';
    const double dStart = Seconds();
    const bool bOk = pClient->RestoreFilespace(fs);
    const double dSeconds = Seconds() - dStart;
    pClient->Fini();
    return bOk && CountFiles(L"E:\\Tree") == nFiles ? dSeconds : -1.0;
}

bool MakeTree(size_t nFiles)
{
    const std::wstring sTree = kBackup + L"\\E\\Tree";
    for (const std::wstring& sDir : {kRoot, kBackup, kBackup + L"\\#", kBackup + L"\\E", sTree})
        ::CreateDirectoryW(sDir.c_str(), nullptr);
    std::vector<char> vData(4096, 'r');
    bool bOk = WriteBytes(kBackup + L"\\#\\HPoint.dat", "", 0);
    for (size_t i = 0; bOk && i < nFiles; ++i)
    {
        const std::wstring sDir = sTree + L"\\R" + std::to_wstring(i / 100);
        if (i % 100 == 0)
            ::CreateDirectoryW(sDir.c_str(), nullptr);
        bOk = WriteBytes(sDir + L"\\r" + std::to_wstring(i) + L".dat", vData.data(),
                         static_cast<DWORD>(1 + i * 977 % 4096));
    }
    return bOk;
}

bool Load(CKefl& kefl)
{
    kefl.hModule.reset(::LoadLibraryW(L"KEFL.dll"));
    if (!kefl.hModule)
        return false;
    kefl.pfnFactory =
        reinterpret_cast<FactoryFn>(reinterpret_cast<void*>(::GetProcAddress(kefl.hModule.get(), "Factory")));
    kefl.pfnCredentialsFactory = reinterpret_cast<CredentialsFactoryFn>(
        reinterpret_cast<void*>(::GetProcAddress(kefl.hModule.get(), "CredentialsFactory")));
    kefl.pWine = std::make_unique<winecompat::CWineStandIns>(kefl.hModule.get());
    kefl.pShare = std::make_unique<CShareStandIn>(kefl.hModule.get());
    return kefl.pfnFactory && kefl.pfnCredentialsFactory && kefl.pShare->Applied();
}

} // namespace

int main(int argc, char** argv)
{
    size_t nFiles = 10000;
    int iRounds = 3;
    for (int i = 1; i + 1 < argc; i += 2)
    {
        if (std::strcmp(argv[i], "--files") == 0)
            nFiles = static_cast<size_t>(std::strtoull(argv[i + 1], nullptr, 10));
        else if (std::strcmp(argv[i], "--rounds") == 0)
            iRounds = std::max(1, std::atoi(argv[i + 1]));
    }
    CKefl kefl;
    if (!Load(kefl))
        return std::wprintf(L"Cannot load KEFL.dll with its stand-ins\n"), 2;
    const bool bSavedIni = ::MoveFileExW(kTraceIni, kTraceIniSaved, MOVEFILE_REPLACE_EXISTING) != FALSE;
    RemoveTree(kRoot);
    if (!MakeTree(nFiles))
        return std::wprintf(L"Cannot make the tree\n"), 2;
    int iRc = 0;
    std::wprintf(L"%8ls %6ls %6ls  %12ls %12ls  %8ls\n", L"files", L"trip", L"round", L"first", L"again",
                 L"again/first");
    for (const DWORD dwMs : {0UL, 2UL})
    {
        g_dwRoundTripMs = dwMs;
        std::vector<double> vRatios;
        for (int iRound = 1; iRound <= iRounds; ++iRound)
        {
            RemoveTree(L"E:\\Tree");
            const double dFirst = Restore(kefl, false, nFiles);
            const double dAgain = Restore(kefl, true, nFiles);
            if (dFirst < 0 || dAgain < 0)
            {
                std::wprintf(L"  could not measure: a restore failed or left files out\n");
                iRc = 2;
                continue;
            }
            vRatios.push_back(dAgain / dFirst);
            std::wprintf(L"%8zu %4lums %6d  %9.3f ms %9.3f ms  %8.2f\n", nFiles, dwMs, iRound,
                         dFirst * 1000 / static_cast<double>(nFiles), dAgain * 1000 / static_cast<double>(nFiles),
                         vRatios.back());
            std::fflush(stdout);
        }
        if (vRatios.empty())
            continue;
        std::sort(vRatios.begin(), vRatios.end());
        const double dMedian = vRatios[vRatios.size() / 2];
        const double dTarget = dwMs == 0 ? 0.2 : 0.3;
        std::wprintf(L"  %lu ms: median again/first %.2f, target %.1f: %ls\n", dwMs, dMedian, dTarget,
                     dMedian <= dTarget ? L"PASS" : L"MISS");
    }
    RemoveTree(L"E:\\Tree");
    RemoveTree(kRoot);
    if (bSavedIni)
        ::MoveFileExW(kTraceIniSaved, kTraceIni, MOVEFILE_REPLACE_EXISTING);
    return iRc;
}
