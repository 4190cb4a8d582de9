#include "support/KeflLibrary.h"

#include <gtest/gtest.h>

namespace kefltest
{

CKeflLibrary::CKeflLibrary() : m_hModule(::LoadLibraryW(L"KEFL.dll"))
{
    const DWORD dwError = ::GetLastError();
    EXPECT_TRUE(m_hModule) << "LoadLibrary(KEFL.dll) failed with error " << dwError;
    if (!m_hModule)
        return;
    m_pfnFactory = reinterpret_cast<morvane::FactoryFn>(
        reinterpret_cast<void*>(::GetProcAddress(m_hModule.get(), "Factory")));
    m_pfnCredentialsFactory = reinterpret_cast<morvane::CredentialsFactoryFn>(
        reinterpret_cast<void*>(::GetProcAddress(m_hModule.get(), "CredentialsFactory")));
    EXPECT_NE(nullptr, m_pfnFactory) << "KEFL.dll exports no Factory";
    EXPECT_NE(nullptr, m_pfnCredentialsFactory) << "KEFL.dll exports no CredentialsFactory";
}

CKeflLibrary::~CKeflLibrary() = default;

CVeskPtr CKeflLibrary::Factory() const
{
    return CVeskPtr(m_pfnFactory ? m_pfnFactory() : nullptr);
}

std::unique_ptr<morvane::VeskCredentials> CKeflLibrary::CredentialsFactory() const
{
    return std::unique_ptr<morvane::VeskCredentials>(m_pfnCredentialsFactory ? m_pfnCredentialsFactory()
                                                                             : nullptr);
}

} // namespace kefltest
