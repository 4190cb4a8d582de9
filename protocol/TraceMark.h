#pragma once
// Where a step's lines begin in the library's trace: the trace's size then, and its first bytes,
// which tell the same file from one that another load of the library started anew (each load
// moves the file to the previous generation, ".old" for its extension). The restore process takes
// a mark right before and after each step; keflhost reads the lines between.
#include "platform/UniqueHandle.h"

#include <windows.h>

#include <cstdint>
#include <string>

namespace keflhost
{

struct CTraceMark
{
    uint64_t ullOffset = 0;
    std::string sHead;
};

// Where the library writes its trace, as the library finds its log folder from this program's.
std::wstring LibraryTracePath();
// The previous generation of the trace at sPath.
std::wstring PreviousTracePath(const std::wstring& sPath);
// A mark of the trace at sPath now; an empty one when there is no trace yet.
CTraceMark TakeTraceMark(const std::wstring& sPath);

// The trace opened for reading while the library goes on writing it.
morvane::CUniqueFile OpenTrace(const std::wstring& sPath);
// From the file itself: a folder entry's size can lag behind a file that another handle appends to.
uint64_t TraceSize(HANDLE hTrace);
// Whether the open trace is the generation that the mark was taken of.
bool IsMarkedGeneration(HANDLE hTrace, const CTraceMark& mark);

} // namespace keflhost
