// keflrestore: keflhost's restore process. keflhost starts it with a pipe as its standard output
// and reads the events it sends there; an administrator never starts it by hand.
#include "keflrestore/RestoreSession.h"

#include "platform/UniqueHandle.h"

#include <windows.h>

#include <exception>

int wmain(int argc, wchar_t** argv)
{
    keflhost::CSessionRequest request;
    if (!keflhost::ParseSessionArguments(argc, argv, request))
        return 2;
    // The events go through a handle of this process's own, which no child inherits, and the
    // inherited standard output is closed: nothing the library does to the standard handles (its
    // console's set-up frees the console) reaches the pipe, and no child process it starts (XCOPY)
    // holds the pipe open or mixes its output into the events.
    HANDLE hEvents = nullptr;
    if (!::DuplicateHandle(::GetCurrentProcess(), ::GetStdHandle(STD_OUTPUT_HANDLE), ::GetCurrentProcess(),
                           &hEvents, 0, FALSE, DUPLICATE_SAME_ACCESS | DUPLICATE_CLOSE_SOURCE))
        return 2;
    const morvane::CUniqueFile hOwnedEvents(hEvents);
    const morvane::CUniqueFile hNul(::CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE,
                                                  FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                                                  nullptr));
    ::SetStdHandle(STD_OUTPUT_HANDLE, hNul.get());
    ::SetStdHandle(STD_ERROR_HANDLE, hNul.get());
    const keflhost::CEventSender events(hEvents);
    // An exception here ends the process as a crash would: keflhost says it was cut short.
    return keflhost::RunSession(request, events);
}
