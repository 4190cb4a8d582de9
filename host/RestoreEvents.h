#pragma once
// What the restore process tells keflhost, over the pipe that is its standard output: one JSON
// object a line (UTF-8), each naming its "event". The first line is "hello" with the protocol's
// version; the last is "end". keflhost reads the stream in whatever pieces the pipe gives and
// checks every line: one that is not a JSON object, names no event, lacks a field its event
// needs, or a stream that stops in the middle of a line, is an error that says which line and
// why. What a stream that stops without "end" means (a crash, a kill) is the reader's caller's.
//
// The events, in the order the restore process sends them:
//   hello        protocol, description, version, capabilities [{name, yes}], wine
//   line         text: a line the restore process printed (its credentials, say)
//   credentials  location, pointInTime
//   message      severity, text: one of the library's messages
//   notStarted   why, error, trace: the session could not start or list
//   filespaces   list [{name, path, mountDir, flags, drive, time}]
//   begin        filespace, trace: a filespace's restore begins
//   progress     state, title, text, path, drive, bytesDone, total, done
//   restored     name, result ("restored" or "failed"), error, trace: its restore ended
//   notInBackup  name: asked for, not in the backup
//   links        trace: the link passes begin
//   linksDone    recorded [{kind, link, target}] (what Wine's stand-ins recorded, not made), trace
//   end
// A trace is where the library's trace stood at that moment ({offset, head}: its size and its
// first bytes in hexadecimal), taken by the restore process itself: keflhost reads a step's
// failures between the two marks around it, and after a crash from the first mark on.
#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace keflhost
{

constexpr int kProtocolVersion = 1;

using CEvent = nlohmann::json;

// The event's line: the object on one line, its end of line after it. Text that is not valid
// UTF-8 is replaced, never refused.
std::string EventLine(const CEvent& event);
// A wide text as the events carry it, and back.
std::string Text(std::wstring_view sText);
std::wstring Wide(const CEvent& event, const char* pszField);

class CEventReader
{
public:
    // The bytes as they came; each whole line becomes an event in vEvents. False, with the
    // error, at the first line that is not an event of this protocol.
    bool Feed(std::string_view sBytes, std::vector<CEvent>& vEvents, std::wstring& sError);
    // The stream has ended: false, with the error, when it stopped in the middle of a line.
    bool End(std::wstring& sError) const;
    size_t Lines() const { return m_cLines; }

private:
    bool Line(std::string_view sLine, std::vector<CEvent>& vEvents, std::wstring& sError);

    std::string m_sPartial;
    size_t m_cLines = 0;
};

} // namespace keflhost
