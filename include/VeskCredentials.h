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

    // Reads "dd/mm/yyyy hh:mm:ss" (any single character as separator) into m_Pit and checks it.
    bool ParsePit(const std::wstring& sPit);
    // The point in time of the answer file; an absent value leaves m_Pit as it is.
    bool GetPitFromAnsFile(const std::wstring& sAnsFile);
    // Writes m_Pit to the answer file, empty when no point in time is set.
    bool SetAnsFileFromPit(const std::wstring& sAnsFile);

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

    // Exported for hosts. Equal: the same location (case counts) and the same point in time to
    // the millisecond, day of week included. An assignment that cannot copy (no memory) leaves
    // the object as it was.
    KeflCredentials(const KeflCredentials& other) = default;
    KeflCredentials& operator=(const KeflCredentials& other) noexcept;
    bool operator==(const KeflCredentials& other) const;
    bool operator!=(const KeflCredentials& other) const;

    std::wstring m_sTargetPath; // the backup location: drive-letter, UNC or WebDAV folder
};

} // namespace morvane
