#pragma once
// A restore session against a fixture backup on the backup drive R:, driven through KEFL.dll as
// the host drives it, with the Wine gaps that the session meets stood in for at KEFL.dll's
// import table.
#include "dll/KeflFixture.h"
#include "support/IatPatch.h"
#include "winecompat/LocationStandIns.h"

#include <memory>
#include <string>
#include <vector>

class SessionFixture : public KeflFixture
{
protected:
    static constexpr wchar_t kBackup[] = L"R:\\Backup";

    void SetUp() override;
    void TearDown() override;

    // The backup as a file-copy backup lays it out: drive folders C and D, the data folder "#"
    // with the four link-point files.
    static void MakeBackup(const std::wstring& sRoot);

    // Credentials for sLocation from the library's CredentialsFactory.
    std::unique_ptr<morvane::VeskCredentials> Credentials(const std::wstring& sLocation) const;

    std::wstring ErrorText() const;

    kefltest::CVeskPtr m_pClient;
    std::unique_ptr<winecompat::CLocationPatches> m_pLocation;
    // Further substitutions of a test, undone at its end.
    std::vector<std::unique_ptr<kefltest::CIatPatch>> m_vPatches;
};
