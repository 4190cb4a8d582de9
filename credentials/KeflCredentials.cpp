#include "VeskCredentials.h"

#include "trace/TraceObjects.h"

namespace morvane
{

KeflCredentials::KeflCredentials() = default;

KeflCredentials::~KeflCredentials() = default;

void KeflCredentials::Clear()
{
    VeskCredentials::Clear();
    m_sTargetPath.clear();
}

bool KeflCredentials::Check()
{
    static const wchar_t kFn[] = L"KeflCredentials::Check";
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"m_sTargetPath", m_sTargetPath);
    g_KeflTrace.TraceTime(TRACE_INFO, kFn, L"m_Pit", m_Pit);
    return true;
}

// The answer-file form of the credentials is not built yet: both directions decline plainly.
bool KeflCredentials::GetCredentialsFromAnsFile(const std::wstring& sAnsFile)
{
    static const wchar_t kFn[] = L"KeflCredentials::GetCredentialsFromAnsFile";
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"sAnsFile", sAnsFile);
    g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Answer files are not supported yet)");
    return false;
}

bool KeflCredentials::SetAnsFileFromCredentials(const std::wstring& sAnsFile)
{
    static const wchar_t kFn[] = L"KeflCredentials::SetAnsFileFromCredentials";
    g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"sAnsFile", sAnsFile);
    g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Answer files are not supported yet)");
    return false;
}

} // namespace morvane
