#include "VeskCredentials.h"

#include "trace/TraceObjects.h"

namespace morvane
{

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

} // namespace morvane
