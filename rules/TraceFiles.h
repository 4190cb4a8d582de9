#pragma once
// Where the library's trace reads its settings and writes its logs. On the recovery system
// (Windows PE 5.2) the host's configuration folder holds trace.ini and, unless qtx.ini beside the
// host says otherwise, the log folder; anywhere else the host's own folder does. A host that reads
// the library's trace finds it here, as the library does.
#include <cstdint>
#include <string>

namespace morvane
{

// The client's trace log, in the log folder.
constexpr wchar_t kClientTraceFileName[] = L"KEFL_trace.log";

// sHostDir: the folder of the program that loaded the library; uiOSCode: CWindowsVersion's code.
std::wstring TraceIniPath(const std::wstring& sHostDir, uint32_t uiOSCode);
// qtx.ini's [File Locations] Logfiles, else the default for the system.
std::wstring LogFolder(const std::wstring& sHostDir, uint32_t uiOSCode);
// The folder of the library's trace logs. A trace resolves it while it is being made, before it
// records the system's code: qtx.ini's folder, else the host's own Logfiles, on the recovery
// system too.
std::wstring TraceLogFolder(const std::wstring& sHostDir);

} // namespace morvane
