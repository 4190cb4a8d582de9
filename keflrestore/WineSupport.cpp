#include "keflrestore/WineSupport.h"

#include "platform/ModulePath.h"
#include "platform/WindowsVersion.h"

namespace keflhost
{
namespace
{

// Where keflwine.dll is looked for: the environment's KEFL_WINE_STAND_INS, else beside this program.
std::wstring KeflWinePath()
{
    wchar_t wszPath[MAX_PATH] = {};
    const DWORD cch = ::GetEnvironmentVariableW(L"KEFL_WINE_STAND_INS", wszPath, MAX_PATH);
    if (cch > 0 && cch < MAX_PATH)
        return wszPath;
    return morvane::ProgramFolder() + L"\\keflwine.dll";
}

template <typename Fn> Fn Export(HMODULE hModule, const char* pszName)
{
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(hModule, pszName)));
}

} // namespace

CWineSupport::CWineSupport(HMODULE hKefl)
{
    if (!morvane::RunsUnderWine())
        return;
    m_hKeflWine.reset(::LoadLibraryW(KeflWinePath().c_str()));
    if (!m_hKeflWine)
        return;
    const auto pfnInstall = Export<KeflWineInstallFn>(m_hKeflWine.get(), "KeflWineInstall");
    m_pfnRemove = Export<KeflWineRemoveFn>(m_hKeflWine.get(), "KeflWineRemove");
    m_pfnRecordedLinks = Export<KeflWineRecordedLinksFn>(m_hKeflWine.get(), "KeflWineRecordedLinks");
    if (pfnInstall && m_pfnRemove && m_pfnRecordedLinks)
        m_pStandIns = pfnInstall(hKefl);
}

CWineSupport::~CWineSupport()
{
    if (m_pStandIns)
        m_pfnRemove(m_pStandIns);
}

std::vector<CRecordedLink> CWineSupport::RecordedLinks() const
{
    std::vector<CRecordedLink> vRecorded;
    if (m_pStandIns)
        m_pfnRecordedLinks(
            [](void* pContext, const wchar_t* pwszKind, const wchar_t* pwszLink, const wchar_t* pwszTarget)
            { static_cast<std::vector<CRecordedLink>*>(pContext)->push_back({pwszKind, pwszLink, pwszTarget}); },
            &vRecorded);
    return vRecorded;
}

} // namespace keflhost
