// One filespace copied back onto the recovered machine, file by file as backup streams.
#include "session/KEFLImpl.h"

namespace morvane
{

bool KEFLImpl::RestoreFilespace(Filespace& /*fs*/)
{
    return NotAvailable(L"KEFLImpl::RestoreFilespace");
}

bool KEFLImpl::CountFiles(const std::wstring& /*sFolder*/, CWalkList& /*walkList*/, ProgMsg& /*progress*/)
{
    return false;
}

bool KEFLImpl::CopyFileWithProgress(const std::wstring& /*sSrc*/, const std::wstring& /*sDst*/,
                                    ProgMsg& /*progress*/)
{
    return false;
}

} // namespace morvane
