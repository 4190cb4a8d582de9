#include "VeskCredentials.h"

#include "credentials/AnswerFileNames.h"
#include "trace/TraceObjects.h"
#include "platform/FormatText.h"

#include <cstdio>
#include <sstream>

namespace morvane
{
namespace
{

bool IsLeapYear(unsigned uiYear)
{
    return uiYear % 4 == 0 && (uiYear % 100 != 0 || uiYear % 400 == 0);
}

unsigned DaysInMonth(unsigned uiMonth, unsigned uiYear)
{
    static const unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return uiMonth == 2 && IsLeapYear(uiYear) ? 29 : kDays[uiMonth - 1];
}

// The failure trace of a point-in-time check: the field, its value, the reason.
bool FailField(const wchar_t* pwszField, WORD wValue, const wchar_t* pwszReason)
{
    static const wchar_t kFn[] = L"VeskCredentials::ParsePit";
    g_KeflTrace.TraceValue(TRACE_ERROR, kFn, pwszField, static_cast<int64_t>(wValue));
    g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, pwszReason);
    return false;
}

} // namespace

VeskCredentials::VeskCredentials(const std::wstring& sProduct) : m_Pit(), m_sProduct(sProduct)
{
    g_KeflTrace.TraceValue(TRACE_VERBOSE, L"VeskCredentials::VeskCredentials", L"sProduct", m_sProduct);
}

VeskCredentials::~VeskCredentials()
{
    g_KeflTrace.TraceValue(TRACE_VERBOSE, L"VeskCredentials::~VeskCredentials", L"m_sProduct", m_sProduct);
}

void VeskCredentials::Clear()
{
    m_Pit = SYSTEMTIME();
}

bool VeskCredentials::ParsePit(const std::wstring& sPit)
{
    static const wchar_t kFn[] = L"VeskCredentials::ParsePit";
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"sPit", sPit);
    if (sPit.empty())
    {
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Empty PIT string)");
        return false;
    }

    std::wistringstream ss(sPit);
    wchar_t wcSeparator = 0;
    ss >> m_Pit.wDay;
    ss.get(wcSeparator);
    ss >> m_Pit.wMonth;
    ss.get(wcSeparator);
    ss >> m_Pit.wYear >> m_Pit.wHour;
    ss.get(wcSeparator);
    ss >> m_Pit.wMinute;
    ss.get(wcSeparator);
    ss >> m_Pit.wSecond;
    // Read whole: every number there and nothing after the seconds but blanks.
    const bool bReadWhole = !ss.fail() && (ss >> std::ws).eof();

    if (m_Pit.wMonth < 1 || m_Pit.wMonth > 12)
        return FailField(L"m_Pit.wMonth", m_Pit.wMonth, L"... ending(Month out of range)");
    // The years that a Windows file time can express.
    if (m_Pit.wYear < 1601 || m_Pit.wYear > 30827)
        return FailField(L"m_Pit.wYear", m_Pit.wYear, L"... ending(Year out of range)");
    if (m_Pit.wHour > 23)
        return FailField(L"m_Pit.wHour", m_Pit.wHour, L"... ending(Hour out of range)");
    if (m_Pit.wMinute > 59)
        return FailField(L"m_Pit.wMinute", m_Pit.wMinute, L"... ending(Minute out of range)");
    if (m_Pit.wSecond > 59)
        return FailField(L"m_Pit.wSecond", m_Pit.wSecond, L"... ending(Second out of range)");
    if (m_Pit.wDay < 1 || m_Pit.wDay > DaysInMonth(m_Pit.wMonth, m_Pit.wYear))
        return FailField(L"m_Pit.wDay", m_Pit.wDay, L"... ending(Day out of range)");
    // Fields that were never read keep older values, which may pass the checks above.
    if (!bReadWhole)
    {
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Unreadable PIT string)");
        return false;
    }
    g_KeflTrace.TraceTime(TRACE_INFO, kFn, L"m_Pit", m_Pit);
    return true;
}

bool VeskCredentials::GetPitFromAnsFile(const std::wstring& sAnsFile)
{
    static const wchar_t kFn[] = L"VeskCredentials::GetPitFromAnsFile";
    if (g_sAnsSection.empty())
    {
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(BackupLocation not valid)");
        return false;
    }
    wchar_t wszPit[20] = {};
    ::GetPrivateProfileStringW(g_sAnsSection.c_str(), g_sAnsPitKey.c_str(), L"", wszPit, 20,
                               sAnsFile.c_str());
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"wszPit", wszPit);
    if (wszPit[0] == L'\0')
        return true; // no point in time: the latest backup
    if (!ParsePit(wszPit))
    {
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(PointInTime not valid)");
        return false;
    }
    return true;
}

bool VeskCredentials::SetAnsFileFromPit(const std::wstring& sAnsFile)
{
    static const wchar_t kFn[] = L"VeskCredentials::SetAnsFileFromPit";
    if (g_sAnsSection.empty())
    {
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(BackupLocation not valid)");
        return false;
    }
    wchar_t wszPit[20] = {};
    if (m_Pit.wDay != 0 && !FormatInto(wszPit, L"%2.2u/%2.2u/%4.4u %2.2u:%2.2u:%2.2u", m_Pit.wDay,
                                       m_Pit.wMonth, m_Pit.wYear, m_Pit.wHour, m_Pit.wMinute, m_Pit.wSecond))
    {
        // A five-digit year does not fit the value that readers take; writing it cut would
        // name another time.
        g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(PointInTime does not fit)");
        return false;
    }
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"wszPit", wszPit);
    return ::WritePrivateProfileStringW(g_sAnsSection.c_str(), g_sAnsPitKey.c_str(), wszPit,
                                        sAnsFile.c_str()) != FALSE;
}

} // namespace morvane
