// Making the missing folders above a path before a file is restored into it. Paths may carry the
// "\\?\" prefix and be longer than 260 characters, so the shell's path helpers (limited to 260)
// are not used here.
#include "folders/ParentFolders.h"

#include "trace/TraceObjects.h"

namespace morvane
{
namespace
{

bool IsDirectory(const std::wstring& sPath)
{
    const DWORD dwAttributes = ::GetFileAttributesW(sPath.c_str());
    return dwAttributes != INVALID_FILE_ATTRIBUTES && (dwAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// Length of the root that no stripping goes beyond: "C:\", "\\?\C:\", "\\server\share\",
// "\\?\UNC\server\share\" (0 for a relative path).
size_t RootLength(const std::wstring& sPath)
{
    auto afterComponents = [&](size_t posStart, int iComponents)
    {
        size_t pos = posStart;
        for (int i = 0; i < iComponents && pos != std::wstring::npos; ++i)
        {
            pos = sPath.find(L'\\', pos);
            if (pos != std::wstring::npos)
                ++pos;
        }
        return pos == std::wstring::npos ? sPath.size() : pos;
    };
    auto isDriveRoot = [&](size_t pos) { return sPath.size() >= pos + 2 && sPath[pos + 1] == L':'; };
    if (sPath.compare(0, 8, L"\\\\?\\UNC\\") == 0)
        return afterComponents(8, 2);
    if (sPath.compare(0, 4, L"\\\\?\\") == 0)
        return isDriveRoot(4) ? (sPath.size() > 6 ? 7 : sPath.size()) : afterComponents(4, 1);
    if (sPath.compare(0, 2, L"\\\\") == 0)
        return afterComponents(2, 2);
    if (isDriveRoot(0))
        return sPath.size() > 2 ? 3 : sPath.size();
    return 0;
}

// Removes the last component; false when only the root (or nothing) is left to remove.
bool StripLastComponent(std::wstring& sPath)
{
    const size_t cchRoot = RootLength(sPath);
    while (sPath.size() > cchRoot && sPath.back() == L'\\')
        sPath.pop_back();
    if (sPath.size() <= cchRoot)
        return false;
    const size_t posSlash = sPath.rfind(L'\\');
    if (posSlash == std::wstring::npos)
        return false; // a bare relative name has no folder above it
    sPath.resize(posSlash + 1 <= cchRoot ? cchRoot : posSlash);
    return true;
}

} // namespace

bool CreateParentFolders(const std::wstring& sPath)
{
    static const wchar_t kFn[] = L"VESKImpl::CreateParentDir";
    g_VeskTrace.TraceValue(TRACE_INFO, kFn, L"sPath", sPath);
    bool bRc = true;
    std::wstring wszParentDir = sPath;
    if (!IsDirectory(sPath) && StripLastComponent(wszParentDir))
    {
        for (;;)
        {
            if (IsDirectory(wszParentDir))
                break;
            if (!::CreateDirectoryW(wszParentDir.c_str(), nullptr) &&
                ::GetLastError() != ERROR_ALREADY_EXISTS)
            {
                // Its own parent is missing too: make that chain first, then this folder.
                if (!CreateParentFolders(wszParentDir))
                {
                    g_VeskTrace.TraceMessage(TRACE_ERROR, kFn, L"CreateParentDir failed");
                    g_VeskTrace.TraceValue(TRACE_ERROR, kFn, L"wszParentDir", wszParentDir);
                    bRc = false;
                    break;
                }
                if (!::CreateDirectoryW(wszParentDir.c_str(), nullptr))
                {
                    const DWORD dwLastError = ::GetLastError();
                    g_VeskTrace.TraceMessage(TRACE_ERROR, kFn, L"CreateDirectory failed");
                    g_VeskTrace.TraceValue(TRACE_ERROR, kFn, L"dwLastError",
                                           static_cast<int64_t>(dwLastError));
                    g_VeskTrace.TraceValue(TRACE_ERROR, kFn, L"wszParentDir", wszParentDir);
                    bRc = false;
                    break;
                }
            }
            if (!StripLastComponent(wszParentDir))
                break;
        }
    }
    g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"... ending");
    g_VeskTrace.TraceValue(TRACE_INFO, kFn, L"bRc", bRc);
    return bRc;
}

} // namespace morvane
