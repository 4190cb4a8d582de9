#include "VESK.h"

#include "trace/TraceObjects.h"

namespace morvane
{

VESK::VESK(const std::wstring& sProduct) : m_sProduct(sProduct)
{
    g_KeflTrace.TraceValue(TRACE_VERBOSE, L"VESK::VESK", L"sProduct", sProduct);
}

VESK::~VESK()
{
    g_KeflTrace.TraceValue(TRACE_VERBOSE, L"VESK::~VESK", L"m_sProduct", m_sProduct);
}

} // namespace morvane
