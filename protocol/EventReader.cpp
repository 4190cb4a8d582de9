#include "protocol/EventReader.h"

#include "platform/Utf8.h"

namespace keflhost
{
namespace
{

// A line this long is no event of ours: the stream is broken, and reading on would only fill
// memory.
constexpr size_t kMaxLineBytes = 16u << 20;

std::wstring LineError(size_t iLine, const std::string& sWhy)
{
    return L"line " + std::to_wstring(iLine) + L" from the restore process: " + morvane::FromUtf8(sWhy);
}

} // namespace

bool CEventReader::Feed(std::string_view sBytes, std::vector<CEvent>& vEvents, std::wstring& sError)
{
    for (size_t posEnd; (posEnd = sBytes.find('\n')) != std::string_view::npos; sBytes.remove_prefix(posEnd + 1))
    {
        m_sPartial.append(sBytes.substr(0, posEnd));
        const std::string sLine = std::move(m_sPartial);
        m_sPartial.clear();
        if (!Line(sLine, vEvents, sError))
            return false;
    }
    m_sPartial.append(sBytes);
    if (m_sPartial.size() <= kMaxLineBytes)
        return true;
    sError = LineError(m_cLines + 1, "longer than any event");
    return false;
}

bool CEventReader::End(std::wstring& sError) const
{
    if (m_sPartial.empty())
        return true;
    sError = LineError(m_cLines + 1, "cut off: the stream ended in the middle of it");
    return false;
}

bool CEventReader::Line(std::string_view sLine, std::vector<CEvent>& vEvents, std::wstring& sError)
{
    ++m_cLines;
    if (!sLine.empty() && sLine.back() == '\r')
        sLine.remove_suffix(1);
    CEvent event;
    std::string sWhy;
    const Decoded decoded = DecodeEvent(sLine, event, sWhy);
    // The first line says which protocol the rest speaks.
    const auto* pHello = std::get_if<HelloEvent>(&event);
    if (m_cLines == 1 && decoded != Decoded::Invalid &&
        (decoded != Decoded::Event || !pHello || pHello->iProtocol != kProtocolVersion))
        sWhy = "not a hello of protocol " + std::to_string(kProtocolVersion);
    if (!sWhy.empty())
    {
        sError = LineError(m_cLines, sWhy);
        return false;
    }
    if (decoded == Decoded::Event)
        vEvents.push_back(std::move(event));
    return true;
}

} // namespace keflhost
