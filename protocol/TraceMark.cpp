#include "protocol/TraceMark.h"

#include "platform/ModulePath.h"
#include "rules/TraceFiles.h"

namespace keflhost
{
namespace
{

// The file's first bytes (its first line and more): its timestamps and threads tell one generation
// of the trace from the next.
constexpr DWORD kHeadBytes = 256;

std::string Head(HANDLE hTrace, DWORD cb)
{
    std::string sHead(cb, '\0');
    DWORD cbRead = 0;
    LARGE_INTEGER liStart = {};
    if (!::SetFilePointerEx(hTrace, liStart, nullptr, FILE_BEGIN) ||
        !::ReadFile(hTrace, sHead.data(), cb, &cbRead, nullptr))
        return {};
    sHead.resize(cbRead);
    return sHead;
}

} // namespace

std::wstring LibraryTracePath()
{
    return morvane::TraceLogFolder(morvane::ProgramFolder()) + L"\\" + morvane::kClientTraceFileName;
}

std::wstring PreviousTracePath(const std::wstring& sPath)
{
    return sPath.substr(0, sPath.rfind(L'.')) + L".old";
}

CTraceMark TakeTraceMark(const std::wstring& sPath)
{
    CTraceMark mark;
    const morvane::CUniqueFile hTrace = OpenTrace(sPath);
    if (!hTrace)
        return mark;
    mark.ullOffset = TraceSize(hTrace.get());
    mark.sHead = Head(hTrace.get(), kHeadBytes);
    return mark;
}

morvane::CUniqueFile OpenTrace(const std::wstring& sPath)
{
    return morvane::CUniqueFile(::CreateFileW(sPath.c_str(), GENERIC_READ,
                                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                              OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
}

uint64_t TraceSize(HANDLE hTrace)
{
    LARGE_INTEGER liSize = {};
    return ::GetFileSizeEx(hTrace, &liSize) ? static_cast<uint64_t>(liSize.QuadPart) : 0;
}

bool IsMarkedGeneration(HANDLE hTrace, const CTraceMark& mark)
{
    return Head(hTrace, static_cast<DWORD>(mark.sHead.size())) == mark.sHead;
}

} // namespace keflhost
