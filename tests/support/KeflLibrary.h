#pragma once
// KEFL.dll loaded the way the recovery host loads it: by name from the host's folder, its two
// factories looked up by their export names. A test fails when it cannot be loaded.
#include "VESK.h"
#include "VeskCredentials.h"
#include "platform/UniqueHandle.h"

#include <gtest/gtest.h>

#include <memory>

namespace kefltest
{

using CVeskPtr = std::unique_ptr<morvane::VESK>;

class CKeflLibrary
{
public:
    CKeflLibrary() { EXPECT_TRUE(m_hModule) << "LoadLibrary(KEFL.dll) failed with error " << m_dwLoadError; }

    HMODULE Module() const { return m_hModule.get(); }
    CVeskPtr Factory() const { return CVeskPtr(Export<morvane::FactoryFn>("Factory")()); }
    std::unique_ptr<morvane::VeskCredentials> CredentialsFactory() const
    {
        return std::unique_ptr<morvane::VeskCredentials>(
            Export<morvane::CredentialsFactoryFn>("CredentialsFactory")());
    }
    // Unloads the library; the next CKeflLibrary loads it afresh.
    void Unload() { m_hModule.reset(); }

private:
    template <class Fn> Fn Export(const char* pszName) const
    {
        const auto pfn =
            reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(m_hModule.get(), pszName)));
        EXPECT_NE(nullptr, pfn) << "KEFL.dll exports no " << pszName;
        return pfn;
    }

    morvane::CUniqueLibrary m_hModule{::LoadLibraryW(L"KEFL.dll")};
    DWORD m_dwLoadError = ::GetLastError();
};

} // namespace kefltest
