#pragma once
// Checkpoints of a filespace restore: the volume's cache written out, then the time of it recorded
// on that volume, so that a later resume can tell which files were whole on the disk.
//
// After a power cut, NTFS can bring back a file's size and times without its data pages: such a
// file reads as zeros and looks unchanged. A resume therefore trusts a file only when the restore
// finished it (set its times, which sets its change time) before the last checkpoint recorded on
// its volume: every write of that file came before the flush that preceded the record. The
// checkpoint's time is read from the file system's own clock, as the change time of the record
// itself, so that the two compare without a clock's drift or grain between them.
//
// The record is a file of 24 bytes, "System Volume Information\KEFL restore checkpoint" at the
// volume's root, where Windows keeps its own state and the restore never copies to: a magic,
// the time and a check of the time, written in place in one sector and flushed. A record that a
// power cut tore or emptied fails the check and counts as none: then nothing is trusted.
#include <cstdint>
#include <string>

namespace morvane
{

class CCheckpoints
{
public:
    struct CPolicy
    {
        uint64_t ullBytes;    // a checkpoint after this many bytes restored
        uint64_t ullSeconds;  // or after this long, whichever comes first
    };

    // sFolder is the filespace's destination root ("E:\" or a mount point's folder).
    CCheckpoints(const std::wstring& sFolder, const CPolicy& policy);

    // On the thread that restores: takes a checkpoint when one is due, ullBytesDone being the
    // filespace's bytes restored so far.
    void Due(uint64_t ullBytesDone);
    // The filespace's last checkpoint, once everything is written.
    void Final();

    // The change time (a FILETIME's 64 bits) up to which a file finished on the volume that holds
    // sFolder was on the disk at the last recorded checkpoint; 0 when none is recorded.
    static uint64_t TrustedBefore(const std::wstring& sFolder);

private:
    void Take();

    std::wstring m_sFolder;
    CPolicy m_policy;
    uint64_t m_ullBytesAtLast = 0;
    uint64_t m_ullTickAtLast;
};

} // namespace morvane
