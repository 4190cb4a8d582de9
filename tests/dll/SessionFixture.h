#pragma once
// A restore session against a fixture backup on the backup drive R:, driven through KEFL.dll as
// the host drives it, with the Wine gaps that the session meets stood in for at KEFL.dll's
// import table (Wine 8 cannot resolve a volume-name path to its volume and has no network provider).
#include "dll/KeflFixture.h"
#include "support/Patches.h"
#include "winecompat/LocationStandIns.h"

class SessionFixture : public KeflFixture
{
protected:
    static constexpr wchar_t kBackup[] = L"R:\\Backup";

    void SetUp() override
    {
        KeflFixture::SetUp();
        kefltest::g_vMessages.clear();
        kefltest::RemoveTree(kBackup);
        MakeBackup(kBackup);
        m_pLocation = std::make_unique<winecompat::CLocationPatches>(Load(Verbose()).Module());
        ASSERT_TRUE(m_pLocation->IsApplied());
        m_pClient = m_pLibrary->Factory();
        m_pClient->SetLogMsgCallbackFn(&kefltest::RecordMessage, 0);
    }
    void TearDown() override
    {
        if (m_pClient)
            m_pClient->Fini();
        m_pClient.reset();
        m_patches.Clear();
        m_pLocation.reset();
        kefltest::RemoveTree(kBackup);
        KeflFixture::TearDown();
    }

    // The backup as a file-copy backup lays it out: drive folders C and D, the data folder "#"
    // with the four link-point files (one hard-link group).
    static void MakeBackup(const std::wstring& sRoot)
    {
        for (const wchar_t* pwszDir : {L"\\C", L"\\D", L"\\#"})
            kefltest::MakeFolders(sRoot + pwszDir);
        for (const wchar_t* pwszFile : {L"\\#\\JPoint.dat", L"\\#\\MPoint.dat", L"\\#\\SPoint.dat"})
            kefltest::WriteTextFile(sRoot + pwszFile, "");
        kefltest::WriteTextFile(sRoot + L"\\#\\HPoint.dat", "[1]\r\nH1=C:\\a.exe\r\nH2=C:\\b.exe\r\n");
    }
    std::unique_ptr<morvane::VeskCredentials> Credentials(const std::wstring& sLocation) const
    {
        auto pCredentials = m_pLibrary->CredentialsFactory();
        static_cast<morvane::KeflCredentials*>(pCredentials.get())->m_sTargetPath = sLocation;
        return pCredentials;
    }
    std::wstring ErrorText() const
    {
        std::wstring sText;
        m_pClient->GetLastErrorMsg(sText);
        return sText;
    }

    kefltest::CVeskPtr m_pClient;
    std::unique_ptr<winecompat::CLocationPatches> m_pLocation;
    // A test's own substitutions in KEFL.dll's imports, undone at its end.
    kefltest::CPatches m_patches;
};
