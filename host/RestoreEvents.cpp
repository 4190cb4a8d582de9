#include "host/RestoreEvents.h"

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

std::string EventLine(const CEvent& event)
{
    return event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string Text(std::wstring_view sText)
{
    return morvane::ToUtf8(sText);
}

std::wstring Wide(const CEvent& event, const char* pszField)
{
    return morvane::FromUtf8(event.at(pszField).get<std::string>());
}

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
    CEvent event = CEvent::parse(sLine, nullptr, false);
    if (event.is_discarded() || !event.is_object())
    {
        sError = LineError(m_cLines, "not a JSON object: " + std::string(sLine.substr(0, 80)));
        return false;
    }
    const auto itName = event.find("event");
    if (itName == event.end() || !itName->is_string())
    {
        sError = LineError(m_cLines, "names no event");
        return false;
    }
    // The first line says which protocol the rest speaks.
    if (m_cLines == 1 && (*itName != "hello" || event.value("protocol", 0) != kProtocolVersion))
    {
        sError = LineError(m_cLines, "not a hello of protocol " + std::to_string(kProtocolVersion));
        return false;
    }
    vEvents.push_back(std::move(event));
    return true;
}

} // namespace keflhost
