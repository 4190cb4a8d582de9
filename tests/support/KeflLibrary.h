#pragma once
// KEFL.dll loaded the way the recovery host loads it: by name from the host's folder, its two
// factories looked up by their export names.
#include "VESK.h"
#include "VeskCredentials.h"
#include "platform/UniqueHandle.h"

#include <memory>

namespace kefltest
{

struct CVeskDeleter
{
    void operator()(morvane::VESK* p) const { delete p; }
};
using CVeskPtr = std::unique_ptr<morvane::VESK, CVeskDeleter>;

class CKeflLibrary
{
public:
    // Loads KEFL.dll; a test fails (fatally) when it cannot.
    CKeflLibrary();
    ~CKeflLibrary();

    HMODULE Module() const { return m_hModule.get(); }
    CVeskPtr Factory() const;
    std::unique_ptr<morvane::VeskCredentials> CredentialsFactory() const;
    // Unloads the library; the next CKeflLibrary loads it afresh.
    void Unload() { m_hModule.reset(); }

private:
    morvane::CUniqueLibrary m_hModule;
    morvane::FactoryFn m_pfnFactory = nullptr;
    morvane::CredentialsFactoryFn m_pfnCredentialsFactory = nullptr;
};

} // namespace kefltest
