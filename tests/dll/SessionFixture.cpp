#include "dll/SessionFixture.h"

#include "platform/UniqueHandle.h"

#include <cstring>
#include <cwchar>

using namespace kefltest;

void SessionFixture::SetUp()
{
    KeflFixture::SetUp();
    g_vMessages.clear();
    RemoveTree(kBackup);
    MakeBackup(kBackup);
    Load(Verbose());
    // Wine 8 cannot resolve a volume-name path to its volume and has no network provider.
    m_pLocation = std::make_unique<winecompat::CLocationPatches>(m_pLibrary->Module());
    ASSERT_TRUE(m_pLocation->IsApplied());
    m_pClient = m_pLibrary->Factory();
    m_pClient->SetLogMsgCallbackFn(&RecordMessage, 0);
}

void SessionFixture::TearDown()
{
    if (m_pClient)
        m_pClient->Fini();
    m_pClient.reset();
    m_vPatches.clear();
    m_pLocation.reset();
    RemoveTree(kBackup);
    KeflFixture::TearDown();
}

void SessionFixture::MakeBackup(const std::wstring& sRoot)
{
    for (const wchar_t* pwszDir : {L"", L"\\C", L"\\C\\Windows", L"\\D", L"\\#"})
        ::CreateDirectoryW((sRoot + pwszDir).c_str(), nullptr);
    WriteTextFile(sRoot + L"\\#\\JPoint.dat", "[C:\\Documents and Settings]\r\nTarget=C:\\Users\r\n"
                                              "BackupTarget=R:\\Backup\\C\\Users\r\nAttr=1040\r\n");
    WriteTextFile(sRoot + L"\\#\\MPoint.dat", "");
    WriteTextFile(sRoot + L"\\#\\HPoint.dat",
                  "[1]\r\nB=R:\\Backup\\C\\Windows\\notepad.exe\r\n"
                  "H1=C:\\Windows\\notepad.exe\r\nH2=C:\\Windows\\System32\\notepad.exe\r\n");
    WriteTextFile(sRoot + L"\\#\\SPoint.dat",
                  "[C:\\link]\r\nTarget=C:\\Windows\r\nBackupTarget=R:\\Backup\\C\\Windows\r\n");
}

std::unique_ptr<morvane::VeskCredentials> SessionFixture::Credentials(const std::wstring& sLocation) const
{
    auto pCredentials = m_pLibrary->CredentialsFactory();
    static_cast<morvane::KeflCredentials*>(pCredentials.get())->m_sTargetPath = sLocation;
    return pCredentials;
}

std::wstring SessionFixture::ErrorText() const
{
    std::wstring sText;
    m_pClient->GetLastErrorMsg(sText);
    return sText;
}
