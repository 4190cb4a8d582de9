// What every benchmark does around the thing it measures: a clock, and making, counting and removing
// the trees it copies.
#pragma once
#include "platform/UniqueHandle.h"

#include <windows.h>

#include <string>

namespace benchfiles
{

// Seconds on the performance counter.
inline double Seconds()
{
    static const double s_dTicksPerSecond = []
    {
        LARGE_INTEGER li;
        ::QueryPerformanceFrequency(&li);
        return static_cast<double>(li.QuadPart);
    }();
    LARGE_INTEGER li;
    ::QueryPerformanceCounter(&li);
    return static_cast<double>(li.QuadPart) / s_dTicksPerSecond;
}

inline bool WriteBytes(const std::wstring& sPath, const void* pv, DWORD cb)
{
    const morvane::CUniqueFile hFile(::CreateFileW(sPath.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                                   FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD cbWritten = 0;
    return hFile && ::WriteFile(hFile.get(), pv, cb, &cbWritten, nullptr) && cbWritten == cb;
}

// Calls onEntry(path, find data) for each entry of sDir but "." and "..".
template <typename OnEntry> void ForEachEntry(const std::wstring& sDir, OnEntry onEntry)
{
    WIN32_FIND_DATAW fd;
    const morvane::CUniqueFind hFind(::FindFirstFileW((sDir + L"\\*").c_str(), &fd));
    if (!hFind)
        return;
    do
    {
        const std::wstring sName = fd.cFileName;
        if (sName != L"." && sName != L"..")
            onEntry(sDir + L"\\" + sName, fd);
    } while (::FindNextFileW(hFind.get(), &fd));
}

inline void RemoveTree(const std::wstring& sDir)
{
    ForEachEntry(sDir,
                 [](const std::wstring& sPath, const WIN32_FIND_DATAW& fd)
                 {
                     if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                         RemoveTree(sPath);
                     else
                         ::DeleteFileW(sPath.c_str());
                 });
    ::RemoveDirectoryW(sDir.c_str());
}

// The files below sDir: every copy is counted, since a method that drops files would look fast.
inline size_t CountFiles(const std::wstring& sDir)
{
    size_t n = 0;
    ForEachEntry(sDir, [&n](const std::wstring& sPath, const WIN32_FIND_DATAW& fd)
                 { n += (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) ? CountFiles(sPath) : 1; });
    return n;
}

} // namespace benchfiles
