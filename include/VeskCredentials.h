#pragma once
// The credentials that a host hands to a client's Init: where the backup lies and which point in
// time to restore. VeskCredentials is shared by all clients; KeflCredentials is this library's.
#include <windows.h>

#include <string>

namespace morvane
{

class VeskCredentials
{
public:
    explicit VeskCredentials(const std::wstring& sProduct = std::wstring());
    virtual ~VeskCredentials();
    virtual void Clear();
    virtual bool Check() = 0;
    virtual bool GetCredentialsFromAnsFile(const std::wstring& sAnsFile) = 0;
    virtual bool SetAnsFileFromCredentials(const std::wstring& sAnsFile) = 0;

    SYSTEMTIME m_Pit; // all zero: no point in time, restore the latest backup
    std::wstring m_sProduct;
};

class KeflCredentials : public VeskCredentials
{
public:
    KeflCredentials();
    ~KeflCredentials() override;
    void Clear() override;
    bool Check() override;
    bool GetCredentialsFromAnsFile(const std::wstring& sAnsFile) override;
    bool SetAnsFileFromCredentials(const std::wstring& sAnsFile) override;

    std::wstring m_sTargetPath; // the backup location: drive-letter, UNC or WebDAV folder
};

} // namespace morvane
