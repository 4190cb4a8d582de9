#include "keflrestore/EventSender.h"

namespace keflhost
{

void CEventSender::Send(const CEvent& event) const
{
    const std::string sLine = EncodeEvent(event);
    DWORD cbWritten = 0;
    if (!::WriteFile(m_hEvents, sLine.data(), static_cast<DWORD>(sLine.size()), &cbWritten, nullptr) ||
        cbWritten != sLine.size())
        ::ExitProcess(3); // keflhost is gone: nobody would hear of this restore
}

} // namespace keflhost
