// KEFL.dll as the benchmarks drive it: loaded with the Wine stand-ins and the share's over them, a
// trace.ini of the benchmark's own, a backup of small files, and one restore of its drive E.
#pragma once
#include "VESK.h"
#include "VeskCredentials.h"
#include "bench/BenchFiles.h"
#include "bench/ShareStandIn.h"
#include "platform/UniqueHandle.h"
#include "winecompat/WineStandIns.h"

#include <windows.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace benchkefl
{

using morvane::CredentialsFactoryFn;
using morvane::FactoryFn;
using morvane::Filespace;
using morvane::KeflCredentials;
using morvane::VESK;
using morvane::VeskCredentials;

struct CKefl
{
    morvane::CUniqueLibrary hModule;
    std::unique_ptr<winecompat::CWineStandIns> pWine;
    std::unique_ptr<sharestandin::CShareStandIn> pShare;
    FactoryFn pfnFactory = nullptr;
    CredentialsFactoryFn pfnCredentialsFactory = nullptr;

    // bShare: the share's stand-in goes in too (at 0 ms it only looks each call up).
    bool Load(bool bShare = true)
    {
        hModule.reset(::LoadLibraryW(L"KEFL.dll"));
        if (!hModule)
            return false;
        pfnFactory =
            reinterpret_cast<FactoryFn>(reinterpret_cast<void*>(::GetProcAddress(hModule.get(), "Factory")));
        pfnCredentialsFactory = reinterpret_cast<CredentialsFactoryFn>(
            reinterpret_cast<void*>(::GetProcAddress(hModule.get(), "CredentialsFactory")));
        pWine = std::make_unique<winecompat::CWineStandIns>(hModule.get());
        if (bShare)
            pShare = std::make_unique<sharestandin::CShareStandIn>(hModule.get());
        return pfnFactory && pfnCredentialsFactory && (!bShare || pShare->Applied());
    }
};

// The host's trace.ini, which the library reads at Init.
inline const wchar_t kTraceIni[] = L"Z:\\DURN\\trace.ini";

// trace.ini with sText, dated a second later each time: Wine's profile cache would keep a file of
// an unchanged name and time.
inline void WriteTraceIni(const std::string& sText)
{
    static ULONGLONG s_ullStamp = 0;
    benchfiles::WriteBytes(kTraceIni, sText.data(), static_cast<DWORD>(sText.size()));
    const morvane::CUniqueFile hIni(
        ::CreateFileW(kTraceIni, FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    FILETIME ft;
    ::GetSystemTimeAsFileTime(&ft);
    ULARGE_INTEGER uli{{ft.dwLowDateTime, ft.dwHighDateTime}};
    uli.QuadPart += (++s_ullStamp) * 10000000ull;
    ft = {uli.LowPart, uli.HighPart};
    ::SetFileTime(hIni.get(), nullptr, nullptr, &ft);
}

// A backup in sBackup (its parent folder exists) whose drive E holds nFiles small files below
// E\Tree, in folders of 100, of 1 byte to 4 kB each.
inline bool MakeSmallFiles(const std::wstring& sBackup, size_t nFiles)
{
    const std::wstring sTree = sBackup + L"\\E\\Tree";
    for (const std::wstring& sDir : {sBackup, sBackup + L"\\#", sBackup + L"\\E", sTree})
        ::CreateDirectoryW(sDir.c_str(), nullptr);
    if (!benchfiles::WriteBytes(sBackup + L"\\#\\HPoint.dat", "", 0))
        return false;
    std::vector<char> vData(4096, 's');
    for (size_t i = 0; i < nFiles; ++i)
    {
        const std::wstring sDir = sTree + L"\\S" + std::to_wstring(i / 100);
        if (i % 100 == 0)
            ::CreateDirectoryW(sDir.c_str(), nullptr);
        if (!benchfiles::WriteBytes(sDir + L"\\s" + std::to_wstring(i) + L".dat", vData.data(),
                                    static_cast<DWORD>(1 + i * 977 % 4096)))
            return false;
    }
    return true;
}

// One restore of drive E from sBackup, as the host makes it; its seconds, < 0 when Init or the
// restore failed. atStart runs after Init, just before the clock starts; atEnd after the restore,
// before Fini.
inline double RestoreDriveE(const CKefl& kefl, const std::wstring& sBackup,
                            const std::function<void()>& atStart = {}, const std::function<void()>& atEnd = {})
{
    struct CDeleter
    {
        void operator()(VESK* p) const { delete p; }
    };
    std::unique_ptr<VESK, CDeleter> pClient(kefl.pfnFactory());
    std::unique_ptr<VeskCredentials> pCredentials(kefl.pfnCredentialsFactory());
    if (!pClient || !pCredentials)
        return -1.0;
    static_cast<KeflCredentials*>(pCredentials.get())->m_sTargetPath = sBackup;
    if (!pClient->Init(pCredentials.get()))
        return -1.0;
    Filespace fs{};
    fs.sFsName = L"E:";
    fs.sFsPath = L"E:\\";
    fs.wcFsDriveLetter = L'E';
    if (atStart)
        atStart();
    const double dStart = benchfiles::Seconds();
    const bool bOk = pClient->RestoreFilespace(fs); // its lines are written when it returns
    const double dSeconds = benchfiles::Seconds() - dStart;
    if (atEnd)
        atEnd();
    pClient->Fini();
    return bOk ? dSeconds : -1.0;
}

} // namespace benchkefl
