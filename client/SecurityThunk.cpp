// Releasing the security objects of one ownership change.
#include "client/SecurityThunk.h"

#include "platform/UniqueHandle.h"
#include "trace/TraceObjects.h"

namespace morvane
{

// Every member that is set is traced, in member order, as it always was. Only the objects that
// were allocated on their own are released, though: GetNamedSecurityInfoW returns the owner, the
// group and the DACL as pointers into the one security descriptor it allocates with LocalAlloc,
// so FreeSid or LocalFree on them would hand the heap a pointer it never gave out (heap
// corruption), and the descriptor's own LocalFree would then free that memory a second time.
// The descriptor is freed once with LocalFree, the SIDs made by AllocateAndInitializeSid with
// FreeSid.
SecurityThunk::~SecurityThunk()
{
    if (!bOwnsAllocations)
        return;
    static const wchar_t kFn[] = L"VESKImpl::SecurityThunk::~SecurityThunk";
    CLastErrorGuard keepError; // the caller may still report the error of its last call
    if (OwnerSID)
        g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"FreeSid(OwnerSID)"); // part of SecDesc
    if (GroupSID)
        g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"FreeSid(GroupSID)"); // part of SecDesc
    if (AdminSID)
    {
        g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"FreeSid(AdminSID)");
        ::FreeSid(AdminSID);
    }
    if (EveryoneSID)
    {
        g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"FreeSid(EveryoneSID)");
        ::FreeSid(EveryoneSID);
    }
    if (DACL)
        g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"LocalFree(DACL)"); // part of SecDesc
    if (SecDesc)
    {
        g_VeskTrace.TraceMessage(TRACE_VERBOSE, kFn, L"LocalFree(SecDesc)");
        ::LocalFree(SecDesc);
    }
}

} // namespace morvane
