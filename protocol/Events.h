#pragma once
// What the restore process tells keflhost, over the pipe that is its standard output: one event a
// line, each a JSON object (UTF-8) that names its "event". Both processes compile against these
// declarations and the one encoder and decoder below; neither spells an event's name or field.
// The first line is a hello with the protocol's version; the last is an end. What a stream that
// stops without its end means (a crash, a kill) is keflhost's to say.
//
// The events, in the order the restore process sends them:
//   hello        the library's description, version and capabilities; whether Wine stands in
//   line         a line the restore process printed (its credentials, say)
//   credentials  the backup's location and the point in time
//   message      one of the library's messages
//   notStarted   the session could not start or list
//   filespaces   the backup's filespaces
//   begin        a filespace's restore begins
//   progress     the library's progress
//   restored     a filespace's restore ended
//   notInBackup  a filespace asked for that the backup does not hold
//   links        the link passes begin
//   linksDone    the link passes ended (with what Wine's stand-ins recorded rather than made)
//   end
// A trace mark is where the library's trace stood at that moment, taken by the restore process
// itself: keflhost reads a step's failures between the two marks around it, and after a crash
// from the first mark on.
#include "VESK.h"
#include "protocol/TraceMark.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace keflhost
{

constexpr int kProtocolVersion = 1;

struct CCapability
{
    std::wstring sName;
    bool bYes = false;
};

struct HelloEvent
{
    int iProtocol = kProtocolVersion;
    std::optional<std::wstring> sDescription; // none: the library would not say
    std::optional<std::wstring> sVersion;
    std::vector<CCapability> vCapabilities;
    bool bWine = false; // junctions and symbolic links are recorded, not made
};

struct LineEvent
{
    std::wstring sText;
};

struct CredentialsEvent
{
    std::wstring sLocation;
    std::wstring sPointInTime; // empty: the latest backup
};

struct MessageEvent
{
    uint32_t uiSeverity = 0; // morvane::MSG_SEVERITY_*
    std::wstring sText;
};

struct NotStartedEvent
{
    std::wstring sWhy;
    std::wstring sError; // the library's last error text; may be empty or "No error"
    std::optional<CTraceMark> trace;
};

struct FilespacesEvent
{
    std::vector<morvane::Filespace> vFilespaces;
};

struct BeginEvent
{
    morvane::Filespace filespace;
    std::optional<CTraceMark> trace;
};

struct ProgressEvent
{
    morvane::ProgMsg progress;
};

struct RestoredEvent
{
    std::wstring sName;
    bool bRestored = false;
    std::wstring sError; // when not restored: the library's last error text
    std::optional<CTraceMark> trace;
};

struct NotInBackupEvent
{
    std::wstring sName; // as the administrator asked for it
};

struct LinksEvent
{
    std::optional<CTraceMark> trace;
};

struct CRecordedLink
{
    std::wstring sKind; // "junction" or "symbolic link"
    std::wstring sLink;
    std::wstring sTarget;
};

struct LinksDoneEvent
{
    std::vector<CRecordedLink> vRecorded; // under Wine: what the stand-ins recorded, not made
    std::optional<CTraceMark> trace;
};

struct EndEvent
{
};

using CEvent = std::variant<HelloEvent, LineEvent, CredentialsEvent, MessageEvent, NotStartedEvent, FilespacesEvent,
                            BeginEvent, ProgressEvent, RestoredEvent, NotInBackupEvent, LinksEvent, LinksDoneEvent,
                            EndEvent>;

// The event's line: the object on one line, its end of line after it. Text that is not valid
// UTF-16 is replaced, never refused.
std::string EncodeEvent(const CEvent& event);

enum class Decoded
{
    Event,   // event holds it
    Unknown, // an event of a later version of the protocol: passed over
    Invalid, // sWhy says what is wrong with it
};
// One line, without its end of line.
Decoded DecodeEvent(std::string_view sLine, CEvent& event, std::string& sWhy);

} // namespace keflhost
