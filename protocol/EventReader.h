#pragma once
// keflhost's reading of the restore process's stream, in whatever pieces the pipe gives. Every
// line is checked: one that is no event of this protocol, a first line that is no hello of its
// version, or a stream that stops in the middle of a line, is an error that says which line and
// why.
#include "protocol/Events.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace keflhost
{

class CEventReader
{
public:
    // The bytes as they came; each whole line becomes an event in vEvents. False, with the
    // error, at the first line that is not an event of this protocol.
    bool Feed(std::string_view sBytes, std::vector<CEvent>& vEvents, std::wstring& sError);
    // The stream has ended: false, with the error, when it stopped in the middle of a line.
    bool End(std::wstring& sError) const;

private:
    bool Line(std::string_view sLine, std::vector<CEvent>& vEvents, std::wstring& sError);

    std::string m_sPartial;
    size_t m_cLines = 0;
};

} // namespace keflhost
