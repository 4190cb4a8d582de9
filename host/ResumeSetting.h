#pragma once
// keflhost's --resume: the library keeps files that an earlier run restored whole when trace.ini
// says KEFL_SkipUnchanged=1. For one run keflhost sets that key in the trace.ini the library reads
// (the recovery system's Z:\DURN, else the host's folder) and puts back what was there after, also
// when the restore process crashed or was stopped: the administrator's setting outlives the run.
#include <string>

namespace keflhost
{

class CResumeSetting
{
public:
    CResumeSetting();
    ~CResumeSetting();
    CResumeSetting(const CResumeSetting&) = delete;
    CResumeSetting& operator=(const CResumeSetting&) = delete;
    const std::wstring& IniPath() const { return m_sIniPath; }

private:
    std::wstring m_sIniPath;
    std::wstring m_sEarlier; // the key's value before the run
    bool m_bHadKey = false;
    bool m_bHadFile = false; // a trace.ini made for the run goes with it
};

} // namespace keflhost
