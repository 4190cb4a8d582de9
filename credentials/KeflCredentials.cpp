#include "VeskCredentials.h"

#include "credentials/AnswerFileNames.h"
#include "trace/TraceObjects.h"
#include "platform/ProfileString.h"

#include <cstring>

namespace morvane
{
namespace
{

// The start of both answer-file operations: entry trace and the path's check.
bool BeginAnswerFileOperation(const wchar_t* pwszFunction, const std::wstring& sAnsFile)
{
    g_KeflTrace.TraceMessage(TRACE_VERBOSE, pwszFunction, L"starting ...");
    g_KeflTrace.TraceValue(TRACE_INFO, pwszFunction, L"sAnsFile", sAnsFile);
    if (!sAnsFile.empty())
        return true;
    g_KeflTrace.TraceMessage(TRACE_ERROR, pwszFunction, L"... ending(Invalid answer file path)");
    return false;
}

// The credentials' operations are called by the host: what their work throws ends here, traced,
// as a failed answer.
template <class Work> bool AtEdge(const wchar_t* pwszFunction, Work work) noexcept
{
    const CTracesFlushedOnReturn flushed;
    return CatchAtEdge(work,
                       [pwszFunction](const CEdgeFailure& failure)
                       {
                           TraceFailedAtEdge(pwszFunction, failure);
                           return false;
                       });
}

} // namespace

KeflCredentials::KeflCredentials() = default;

KeflCredentials::~KeflCredentials() = default;

KeflCredentials& KeflCredentials::operator=(const KeflCredentials& other) noexcept
{
    static const wchar_t kFn[] = L"KeflCredentials::operator=";
    if (this == &other)
        return *this;
    // The host calls it: a copy that runs out of memory ends here. The strings are copied before
    // anything changes, so that a failed copy leaves this object as it was.
    AtEdge(kFn,
           [&]
           {
               std::wstring sProduct = other.m_sProduct;
               std::wstring sTargetPath = other.m_sTargetPath;
               m_Pit = other.m_Pit;
               m_sProduct.swap(sProduct);
               m_sTargetPath.swap(sTargetPath);
               return true;
           });
    return *this;
}

bool KeflCredentials::operator==(const KeflCredentials& other) const
{
    // Both halves of the point in time: year, month, day of week, day; hour to milliseconds.
    return m_sTargetPath == other.m_sTargetPath && std::memcmp(&m_Pit, &other.m_Pit, 8) == 0 &&
           std::memcmp(reinterpret_cast<const BYTE*>(&m_Pit) + 8,
                       reinterpret_cast<const BYTE*>(&other.m_Pit) + 8, 8) == 0;
}

bool KeflCredentials::operator!=(const KeflCredentials& other) const
{
    return !(*this == other);
}

void KeflCredentials::Clear()
{
    VeskCredentials::Clear();
    m_sTargetPath.clear();
}

bool KeflCredentials::Check()
{
    static const wchar_t kFn[] = L"KeflCredentials::Check";
    return AtEdge(kFn,
                  [&]
                  {
                      g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"m_sTargetPath", m_sTargetPath);
                      g_KeflTrace.TraceTime(TRACE_INFO, kFn, L"m_Pit", m_Pit);
                      return true;
                  });
}

bool KeflCredentials::GetCredentialsFromAnsFile(const std::wstring& sAnsFile)
{
    static const wchar_t kFn[] = L"KeflCredentials::GetCredentialsFromAnsFile";
    return AtEdge(kFn,
                  [&]
                  {
                      if (!BeginAnswerFileOperation(kFn, sAnsFile))
                          return false;
                      // A backup folder deeper than 260 characters is read whole, not cut into another
                      // folder's name.
                      m_sTargetPath = ReadProfileString(g_sAnsSection.c_str(), g_sAnsLocationKey.c_str(), L"",
                                                        sAnsFile.c_str());
                      g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"m_sTargetPath", m_sTargetPath);
                      if (m_sTargetPath.empty())
                      {
                          g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Location not found)");
                          return false;
                      }
                      // A point in time that cannot be used means the latest backup, not a failed restore.
                      if (!GetPitFromAnsFile(sAnsFile))
                      {
                          g_KeflTrace.TraceMessage(TRACE_WARNING, kFn, L"... ending(No valid Point-in-Time)");
                          m_Pit = SYSTEMTIME();
                          return true;
                      }
                      g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
                      return true;
                  });
}

bool KeflCredentials::SetAnsFileFromCredentials(const std::wstring& sAnsFile)
{
    static const wchar_t kFn[] = L"KeflCredentials::SetAnsFileFromCredentials";
    return AtEdge(
        kFn,
        [&]
        {
            if (!BeginAnswerFileOperation(kFn, sAnsFile))
                return false;
            // Empties the section in the system's own profile, not in the answer file: the answer
            // file's other keys of the section are kept and only the two below are rewritten.
            ::WriteProfileSectionW(g_sAnsSection.c_str(), L"\0");
            if (m_sTargetPath.empty())
            {
                g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Location not in Credentials)");
                return false;
            }
            ::WritePrivateProfileStringW(g_sAnsSection.c_str(), g_sAnsLocationKey.c_str(),
                                         m_sTargetPath.c_str(), sAnsFile.c_str());
            if (!SetAnsFileFromPit(sAnsFile))
            {
                g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Failed to set Point-in-Time)");
                return false;
            }
            g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
            return true;
        });
}

} // namespace morvane
