#include "session/VolumeFlush.h"

#include "platform/UniqueHandle.h"
#include "trace/TraceObjects.h"

#include <windows.h>

namespace morvane
{
namespace
{

const wchar_t kFn[] = L"KEFLImpl::RestoreFilespace";

// "\\?\Volume{...}" for the volume that holds sFolder; a mount point's own volume, not the
// drive's. Without a volume name (a file system that has none), the drive itself: "\\.\E:".
std::wstring VolumeDevice(const std::wstring& sFolder)
{
    const std::wstring sVolumePath = VolumeRoot(sFolder);
    wchar_t wszVolumeName[64] = {};
    if (::GetVolumeNameForVolumeMountPointW(sVolumePath.c_str(), wszVolumeName, 64))
    {
        std::wstring sDevice = wszVolumeName;
        if (!sDevice.empty() && sDevice.back() == L'\\')
            sDevice.pop_back(); // with the backslash it names the root folder, not the volume
        return sDevice;
    }
    return L"\\\\.\\" + sVolumePath.substr(0, 2);
}

} // namespace

std::wstring VolumeRoot(const std::wstring& sFolder)
{
    wchar_t wszVolumePath[MAX_PATH + 1] = {};
    std::wstring sRoot = ::GetVolumePathNameW(sFolder.c_str(), wszVolumePath, MAX_PATH + 1) ? wszVolumePath : sFolder;
    if (!sRoot.empty() && sRoot.back() != L'\\')
        sRoot.push_back(L'\\');
    return sRoot;
}

bool FlushVolume(const std::wstring& sFolder)
{
    const std::wstring sDevice = VolumeDevice(sFolder);
    const CUniqueFile hVolume(::CreateFileW(sDevice.c_str(), GENERIC_READ | GENERIC_WRITE,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                                            nullptr));
    if (hVolume && ::FlushFileBuffers(hVolume.get()))
    {
        g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"Volume flushed", sDevice);
        return true;
    }
    const DWORD dwLastError = ::GetLastError(); // of the open or of the flush, whichever failed
    g_KeflTrace.TraceValue(TRACE_WARNING, kFn, L"Volume not flushed", sDevice);
    TraceLastError(kFn, dwLastError, TRACE_WARNING);
    return false;
}

} // namespace morvane
