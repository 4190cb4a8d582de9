#pragma once
// The progress of one filespace restore, counted by whichever thread copies a file and told to the
// host by the thread that called RestoreFilespace only: a host's callback need not be thread-safe.
//
// Bytes done never pass the total: a copy raises the total by what it reads beyond the file's
// size as the walk saw it (stream headers, a file grown since) before it adds the bytes done, and
// a report reads the bytes done before the total.
#include "VESK.h"
#include "channel/HostChannel.h"

#include <windows.h>

#include <atomic>
#include <cstdint>

namespace morvane
{

class CRestoreProgress
{
public:
    // msg holds the filespace's path and letter; ullTotal is the walk's sum of file sizes.
    CRestoreProgress(ProgMsg& msg, const CHostChannel& channel, uint64_t ullTotal);

    // Any thread, during a copy: cbRead bytes read, cbBeyondSize of them past the file's size.
    // On the calling thread the host hears of it at once.
    void Read(uint64_t cbRead, uint64_t cbBeyondSize);
    // Any thread: an entry (folder or file) is done, restored or not.
    void EntryDone(bool bRestored);
    // The calling thread: a file of ullSize bytes is left out by rule.
    void Skipped(uint64_t ullSize) noexcept;
    // The calling thread: tells the host the counts when they changed since the last report.
    void Report();
    bool AnyFailed() const { return m_bFailed.load(); }
    uint64_t BytesDone() const { return m_ullBytesDone.load(); }

private:
    bool OnCallingThread() const { return ::GetCurrentThreadId() == m_dwCallingThread; }

    ProgMsg& m_msg;
    const CHostChannel& m_channel;
    DWORD m_dwCallingThread;
    std::atomic<uint64_t> m_ullBytesDone{0};
    std::atomic<uint64_t> m_ullTotal;
    std::atomic<uint64_t> m_ullDone{0};
    std::atomic<bool> m_bFailed{false};
};

} // namespace morvane
