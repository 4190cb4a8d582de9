#include "keflhost/RestoreVerify.h"

#include "platform/ErrorText.h"
#include "rules/LeftOutByRule.h"
#include "platform/UniqueHandle.h"

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace keflhost
{
namespace
{

// One buffer for the whole verification, half for each side.
constexpr DWORD kHalfBytes = 512 * 1024;

std::wstring Long(const std::wstring& sPath)
{
    return sPath.rfind(L"\\\\", 0) == 0 ? sPath : L"\\\\?\\" + sPath;
}

// Calls fn(relative path, find data) for every entry below sRoot, a folder before its content.
// Folders waiting to be listed are kept in a list rather than on the stack: a backup can be as
// deep as paths go. A folder that cannot be listed goes into pErrors, when given. Junctions and
// symbolic links are left out as the restore leaves them out, for the link pass to make again:
// neither followed (a link may lead back up the tree) nor compared as files.
template <typename Fn>
void Walk(const std::wstring& sRoot, Fn&& fn, std::vector<CDifference>* pErrors, const std::atomic<bool>& bStop)
{
    std::vector<std::wstring> vPending{std::wstring()};
    while (!vPending.empty() && !bStop)
    {
        const std::wstring sRelative = std::move(vPending.back());
        vPending.pop_back();
        WIN32_FIND_DATAW fd;
        morvane::CUniqueFind hFind(::FindFirstFileW(Long(sRoot + sRelative + L"\\*").c_str(), &fd));
        if (!hFind)
        {
            const DWORD dwError = ::GetLastError();
            if (pErrors)
                pErrors->push_back({sRoot + sRelative, L"backup folder not listed: " + morvane::ErrorText(dwError)});
            continue;
        }
        do
        {
            const std::wstring sName = fd.cFileName;
            if (sName == L"." || sName == L".." ||
                ((fd.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) && IsReparseTagNameSurrogate(fd.dwReserved0)))
                continue;
            std::wstring sPath = sRelative;
            sPath += L'\\';
            sPath += sName;
            const bool bFolder = (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
            if (fn(sPath, fd) && bFolder)
                vPending.push_back(sPath);
        } while (!bStop && ::FindNextFileW(hFind.get(), &fd));
    }
}

uint64_t SizeOf(const WIN32_FIND_DATAW& fd)
{
    return (static_cast<uint64_t>(fd.nFileSizeHigh) << 32) | fd.nFileSizeLow;
}

morvane::CUniqueFile OpenForReading(const std::wstring& sPath)
{
    return morvane::CUniqueFile(
        ::CreateFileW(Long(sPath).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                      OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
}

// Reads up to cb bytes, fewer only at the end of the file.
bool ReadFull(HANDLE hFile, BYTE* pBuffer, DWORD cb, DWORD& cbRead)
{
    cbRead = 0;
    while (cbRead < cb)
    {
        DWORD cbChunk = 0;
        if (!::ReadFile(hFile, pBuffer + cbRead, cb - cbRead, &cbChunk, nullptr))
            return false;
        if (cbChunk == 0)
            break;
        cbRead += cbChunk;
    }
    return true;
}

// Empty when the two files hold the same bytes; otherwise what differs.
std::wstring CompareFile(const std::wstring& sSrc, const std::wstring& sDst, uint64_t ullSrcSize,
                         BYTE* pBuffer, const std::function<void(uint64_t)>& advance)
{
    morvane::CUniqueFile hDst = OpenForReading(sDst);
    if (!hDst)
    {
        const DWORD dwError = ::GetLastError();
        return dwError == ERROR_FILE_NOT_FOUND || dwError == ERROR_PATH_NOT_FOUND
                   ? L"missing"
                   : L"not readable: " + morvane::ErrorText(dwError);
    }
    LARGE_INTEGER liDstSize = {};
    ::GetFileSizeEx(hDst.get(), &liDstSize);
    if (static_cast<uint64_t>(liDstSize.QuadPart) != ullSrcSize)
        return L"size " + std::to_wstring(ullSrcSize) + L" in the backup, " +
               std::to_wstring(liDstSize.QuadPart) + L" restored";
    morvane::CUniqueFile hSrc = OpenForReading(sSrc);
    if (!hSrc)
    {
        const DWORD dwLastError = ::GetLastError();
        return L"backup copy not readable: " + morvane::ErrorText(dwLastError);
    }
    BYTE* const pSrc = pBuffer;
    BYTE* const pDst = pBuffer + kHalfBytes;
    for (uint64_t ullOffset = 0;;)
    {
        DWORD cbSrc = 0;
        DWORD cbDst = 0;
        if (!ReadFull(hSrc.get(), pSrc, kHalfBytes, cbSrc))
        {
            const DWORD dwLastError = ::GetLastError();
            return L"backup copy not readable: " + morvane::ErrorText(dwLastError);
        }
        if (!ReadFull(hDst.get(), pDst, kHalfBytes, cbDst))
        {
            const DWORD dwLastError = ::GetLastError();
            return L"not readable: " + morvane::ErrorText(dwLastError);
        }
        const DWORD cbCommon = std::min(cbSrc, cbDst);
        if (std::memcmp(pSrc, pDst, cbCommon) != 0 || cbSrc != cbDst)
        {
            const auto pairMismatch = std::mismatch(pSrc, pSrc + cbCommon, pDst);
            return L"differs from byte " + std::to_wstring(ullOffset + (pairMismatch.first - pSrc));
        }
        advance(cbSrc);
        ullOffset += cbSrc;
        if (cbSrc < kHalfBytes)
            return L"";
    }
}

} // namespace

CVerification VerifyFilespace(const std::wstring& sSrcFolder, const std::wstring& sDstFolder,
                              const VerifyProgressFn& progress, const std::atomic<bool>& bStop)
{
    CVerification result;
    // First what there is to compare, for the progress; then the comparison.
    uint64_t ullTotal = 0;
    Walk(
        sSrcFolder,
        [&](const std::wstring& sRelative, const WIN32_FIND_DATAW& fd)
        {
            const bool bFolder = (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
            if (morvane::IsLeftOutByRule(sDstFolder + sRelative, bFolder))
                return false;
            if (!bFolder)
                ullTotal += SizeOf(fd);
            return true;
        },
        nullptr, bStop);

    std::unique_ptr<BYTE[]> pBuffer(new BYTE[size_t{2} * kHalfBytes]);
    uint64_t ullDone = 0;
    const auto advance = [&](uint64_t cb)
    {
        ullDone += cb;
        progress(ullDone, std::max(ullTotal, ullDone));
    };
    Walk(
        sSrcFolder,
        [&](const std::wstring& sRelative, const WIN32_FIND_DATAW& fd)
        {
            const std::wstring sDst = sDstFolder + sRelative;
            const bool bFolder = (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
            if (morvane::IsLeftOutByRule(sDst, bFolder))
                return false;
            if (bFolder)
            {
                ++result.ullFolders;
                const DWORD dwAttributes = ::GetFileAttributesW(Long(sDst).c_str());
                if (dwAttributes == INVALID_FILE_ATTRIBUTES || !(dwAttributes & FILE_ATTRIBUTE_DIRECTORY))
                {
                    result.vDifferences.push_back({sDst, L"folder missing"});
                    return false;
                }
                return true;
            }
            ++result.ullFiles;
            const uint64_t ullSize = SizeOf(fd);
            const uint64_t ullDoneBefore = ullDone;
            const std::wstring sWhat =
                CompareFile(sSrcFolder + sRelative, sDst, ullSize, pBuffer.get(), advance);
            if (!sWhat.empty())
            {
                result.vDifferences.push_back({sDst, sWhat});
                // What could not be compared counts as passed over, so that the bar still ends full.
                advance(ullSize - std::min(ullSize, ullDone - ullDoneBefore));
            }
            result.ullBytes += ullSize;
            return false;
        },
        &result.vDifferences, bStop);
    progress(ullDone, std::max(ullTotal, ullDone));
    result.bStopped = bStop;
    return result;
}

} // namespace keflhost
