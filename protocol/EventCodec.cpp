// The one encoder and decoder of the events: JSON through Debian's header-only nlohmann-json3.
#include "protocol/Events.h"

#include "platform/Utf8.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace keflhost
{
namespace
{

using json = nlohmann::json;

// The events' names on the wire, in the order of CEvent's alternatives.
constexpr const char* kNames[] = {"hello",    "line",     "credentials", "message",     "notStarted",
                                  "filespaces", "begin",  "progress",    "restored",    "notInBackup",
                                  "links",    "linksDone", "end"};
static_assert(std::size(kNames) == std::variant_size_v<CEvent>);

std::string Utf8(std::wstring_view sText)
{
    return morvane::ToUtf8(sText);
}

std::wstring Wide(const json& object, const char* pszField)
{
    return morvane::FromUtf8(object.at(pszField).get<std::string>());
}

json OptionalText(const std::optional<std::wstring>& sText)
{
    return sText ? json(Utf8(*sText)) : json();
}

std::optional<std::wstring> OptionalWide(const json& object, const char* pszField)
{
    if (object.at(pszField).is_null())
        return std::nullopt;
    return Wide(object, pszField);
}

// The first bytes go as hexadecimal digits.
json MarkJson(const std::optional<CTraceMark>& mark)
{
    if (!mark)
        return nullptr;
    static const char kDigits[] = "0123456789abcdef";
    std::string sHead;
    for (const unsigned char uc : mark->sHead)
        sHead += {kDigits[uc >> 4], kDigits[uc & 0xF]};
    return {{"offset", mark->ullOffset}, {"head", sHead}};
}

std::optional<CTraceMark> MarkFrom(const json& object)
{
    const json& mark = object.at("trace");
    if (mark.is_null())
        return std::nullopt;
    CTraceMark traceMark;
    traceMark.ullOffset = mark.at("offset").get<uint64_t>();
    const std::string sHex = mark.at("head").get<std::string>();
    for (size_t i = 0; i + 1 < sHex.size(); i += 2)
        traceMark.sHead.push_back(static_cast<char>(std::stoi(sHex.substr(i, 2), nullptr, 16)));
    return traceMark;
}

std::string Letter(wchar_t wcLetter)
{
    return wcLetter == L'\0' ? std::string() : Utf8(std::wstring(1, wcLetter));
}

wchar_t LetterFrom(const json& object, const char* pszField)
{
    const std::wstring sLetter = Wide(object, pszField);
    return sLetter.empty() ? L'\0' : sLetter[0];
}

json FilespaceJson(const morvane::Filespace& fs)
{
    const SYSTEMTIME& st = fs.stFsTime;
    return {{"name", Utf8(fs.sFsName)},
            {"path", Utf8(fs.sFsPath)},
            {"mountDir", Utf8(fs.sFsMountDir)},
            {"flags", fs.dwFsFlags},
            {"drive", Letter(fs.wcFsDriveLetter)},
            {"time", fs.bFsTimeValid ? json{st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond} : json()}};
}

morvane::Filespace FilespaceFrom(const json& object)
{
    morvane::Filespace fs{};
    fs.sFsName = Wide(object, "name");
    fs.sFsPath = Wide(object, "path");
    fs.sFsMountDir = Wide(object, "mountDir");
    fs.dwFsFlags = object.at("flags").get<uint32_t>();
    fs.wcFsDriveLetter = LetterFrom(object, "drive");
    const json& time = object.at("time");
    fs.bFsTimeValid = !time.is_null();
    if (fs.bFsTimeValid)
    {
        WORD* const apwField[] = {&fs.stFsTime.wYear, &fs.stFsTime.wMonth,  &fs.stFsTime.wDay,
                                  &fs.stFsTime.wHour, &fs.stFsTime.wMinute, &fs.stFsTime.wSecond};
        for (size_t i = 0; i < std::size(apwField); ++i)
            *apwField[i] = time.at(i).get<WORD>();
    }
    return fs;
}

// Each event's fields, without its name.
struct CFields
{
    json operator()(const HelloEvent& e) const
    {
        json capabilities = json::array();
        for (const CCapability& capability : e.vCapabilities)
            capabilities.push_back({{"name", Utf8(capability.sName)}, {"yes", capability.bYes}});
        return {{"protocol", e.iProtocol},
                {"description", OptionalText(e.sDescription)},
                {"version", OptionalText(e.sVersion)},
                {"capabilities", capabilities},
                {"wine", e.bWine}};
    }
    json operator()(const LineEvent& e) const { return {{"text", Utf8(e.sText)}}; }
    json operator()(const CredentialsEvent& e) const
    {
        return {{"location", Utf8(e.sLocation)}, {"pointInTime", Utf8(e.sPointInTime)}};
    }
    json operator()(const MessageEvent& e) const { return {{"severity", e.uiSeverity}, {"text", Utf8(e.sText)}}; }
    json operator()(const NotStartedEvent& e) const
    {
        return {{"why", Utf8(e.sWhy)}, {"error", Utf8(e.sError)}, {"trace", MarkJson(e.trace)}};
    }
    json operator()(const FilespacesEvent& e) const
    {
        json list = json::array();
        for (const morvane::Filespace& fs : e.vFilespaces)
            list.push_back(FilespaceJson(fs));
        return {{"list", list}};
    }
    json operator()(const BeginEvent& e) const
    {
        return {{"filespace", FilespaceJson(e.filespace)}, {"trace", MarkJson(e.trace)}};
    }
    json operator()(const ProgressEvent& e) const
    {
        const morvane::ProgMsg& msg = e.progress;
        return {{"state", msg.uiState},       {"title", Utf8(msg.sTitle)},
                {"text", Utf8(msg.sText)},    {"path", Utf8(msg.sPath)},
                {"drive", Letter(msg.wcDriveLetter)}, {"bytesDone", msg.ullBytesDone},
                {"total", msg.ullTotal},      {"done", msg.ullDone}};
    }
    json operator()(const RestoredEvent& e) const
    {
        return {{"name", Utf8(e.sName)},
                {"result", e.bRestored ? "restored" : "failed"},
                {"error", Utf8(e.sError)},
                {"trace", MarkJson(e.trace)}};
    }
    json operator()(const NotInBackupEvent& e) const { return {{"name", Utf8(e.sName)}}; }
    json operator()(const LinksEvent& e) const { return {{"trace", MarkJson(e.trace)}}; }
    json operator()(const LinksDoneEvent& e) const
    {
        json recorded = json::array();
        for (const CRecordedLink& link : e.vRecorded)
            recorded.push_back({{"kind", Utf8(link.sKind)}, {"link", Utf8(link.sLink)}, {"target", Utf8(link.sTarget)}});
        return {{"recorded", recorded}, {"trace", MarkJson(e.trace)}};
    }
    json operator()(const EndEvent&) const { return json::object(); }
};

CEvent HelloFrom(const json& o)
{
    HelloEvent e;
    e.iProtocol = o.at("protocol").get<int>();
    if (e.iProtocol != kProtocolVersion) // the rest is another protocol's: the reader refuses it
        return e;
    e.sDescription = OptionalWide(o, "description");
    e.sVersion = OptionalWide(o, "version");
    for (const json& capability : o.at("capabilities"))
        e.vCapabilities.push_back({Wide(capability, "name"), capability.at("yes").get<bool>()});
    e.bWine = o.at("wine").get<bool>();
    return e;
}

CEvent FilespacesFrom(const json& o)
{
    FilespacesEvent e;
    for (const json& fs : o.at("list"))
        e.vFilespaces.push_back(FilespaceFrom(fs));
    return e;
}

CEvent ProgressFrom(const json& o)
{
    ProgressEvent e{};
    morvane::ProgMsg& msg = e.progress;
    msg.uiState = o.at("state").get<uint32_t>();
    msg.sTitle = Wide(o, "title");
    msg.sText = Wide(o, "text");
    msg.sPath = Wide(o, "path");
    msg.wcDriveLetter = LetterFrom(o, "drive");
    msg.ullBytesDone = o.at("bytesDone").get<uint64_t>();
    msg.ullTotal = o.at("total").get<uint64_t>();
    msg.ullDone = o.at("done").get<uint64_t>();
    return e;
}

CEvent RestoredFrom(const json& o)
{
    const std::string sResult = o.at("result").get<std::string>();
    if (sResult != "restored" && sResult != "failed")
        throw std::invalid_argument("a result that is neither \"restored\" nor \"failed\"");
    return RestoredEvent{Wide(o, "name"), sResult == "restored", Wide(o, "error"), MarkFrom(o)};
}

CEvent LinksDoneFrom(const json& o)
{
    LinksDoneEvent e;
    for (const json& link : o.at("recorded"))
        e.vRecorded.push_back({Wide(link, "kind"), Wide(link, "link"), Wide(link, "target")});
    e.trace = MarkFrom(o);
    return e;
}

// In the order of kNames.
using DecodeFn = CEvent (*)(const json&);
const DecodeFn kDecoders[] = {
    &HelloFrom,
    [](const json& o) -> CEvent { return LineEvent{Wide(o, "text")}; },
    [](const json& o) -> CEvent { return CredentialsEvent{Wide(o, "location"), Wide(o, "pointInTime")}; },
    [](const json& o) -> CEvent { return MessageEvent{o.at("severity").get<uint32_t>(), Wide(o, "text")}; },
    [](const json& o) -> CEvent { return NotStartedEvent{Wide(o, "why"), Wide(o, "error"), MarkFrom(o)}; },
    &FilespacesFrom,
    [](const json& o) -> CEvent { return BeginEvent{FilespaceFrom(o.at("filespace")), MarkFrom(o)}; },
    &ProgressFrom,
    &RestoredFrom,
    [](const json& o) -> CEvent { return NotInBackupEvent{Wide(o, "name")}; },
    [](const json& o) -> CEvent { return LinksEvent{MarkFrom(o)}; },
    &LinksDoneFrom,
    [](const json&) -> CEvent { return EndEvent{}; },
};
static_assert(std::size(kDecoders) == std::size(kNames));

} // namespace

std::string EncodeEvent(const CEvent& event)
{
    json object = std::visit(CFields{}, event);
    object["event"] = kNames[event.index()];
    return object.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

Decoded DecodeEvent(std::string_view sLine, CEvent& event, std::string& sWhy)
{
    const json object = json::parse(sLine, nullptr, false);
    if (object.is_discarded() || !object.is_object())
    {
        sWhy = "not a JSON object: " + std::string(sLine.substr(0, 80));
        return Decoded::Invalid;
    }
    const auto itName = object.find("event");
    if (itName == object.end() || !itName->is_string())
    {
        sWhy = "names no event";
        return Decoded::Invalid;
    }
    const auto itKnown = std::find(std::begin(kNames), std::end(kNames), itName->get<std::string>());
    if (itKnown == std::end(kNames))
        return Decoded::Unknown;
    try
    {
        event = kDecoders[itKnown - std::begin(kNames)](object);
        return Decoded::Event;
    }
    catch (const std::exception& e) // a field missing or of the wrong kind
    {
        sWhy = "an event keflhost cannot read (" + std::string(sLine.substr(0, 120)) + "): " + e.what();
        return Decoded::Invalid;
    }
}

} // namespace keflhost
