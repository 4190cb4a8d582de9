#pragma once
// Proof that a filespace came back: every file of the backup compared with its restored copy,
// size and bytes, and every folder found, leaving out what the restore leaves out by rule and the
// junctions and symbolic links that the link pass makes.
#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace keflhost
{

struct CDifference
{
    std::wstring sPath; // the restored path
    std::wstring sWhat; // "missing", "size 10 in the backup, 12 restored", "differs from byte 4096", ...
};

struct CVerification
{
    uint64_t ullFiles = 0;
    uint64_t ullFolders = 0;
    uint64_t ullBytes = 0;
    std::vector<CDifference> vDifferences;
    bool bStopped = false; // the user stopped it before the end
};

// Bytes compared so far of the total to compare.
using VerifyProgressFn = std::function<void(uint64_t ullDone, uint64_t ullTotal)>;

// sSrcFolder is the filespace's folder in the backup, sDstFolder where it was restored to ("E:" or
// a mount point's folder). bStop set (the user's Ctrl+C) ends it after the file it compares.
CVerification VerifyFilespace(const std::wstring& sSrcFolder, const std::wstring& sDstFolder,
                              const VerifyProgressFn& progress, const std::atomic<bool>& bStop);

} // namespace keflhost
