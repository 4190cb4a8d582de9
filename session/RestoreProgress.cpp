#include "session/RestoreProgress.h"

#include <algorithm>

namespace morvane
{

CRestoreProgress::CRestoreProgress(ProgMsg& msg, const CHostChannel& channel, uint64_t ullTotal)
    : m_msg(msg), m_channel(channel),
      m_dwCallingThread(::GetCurrentThreadId()), m_ullTotal(ullTotal)
{
    m_msg.ullTotal = ullTotal;
}

void CRestoreProgress::Read(uint64_t cbRead, uint64_t cbBeyondSize)
{
    m_ullTotal += cbBeyondSize;
    m_ullBytesDone += cbRead;
    if (OnCallingThread())
        Report();
}

void CRestoreProgress::EntryDone(bool bRestored)
{
    if (!bRestored)
        m_bFailed = true;
    ++m_ullDone;
    if (OnCallingThread())
        Report();
}

void CRestoreProgress::Skipped(uint64_t ullSize) noexcept
{
    uint64_t ullTotal = m_ullTotal.load();
    while (!m_ullTotal.compare_exchange_weak(ullTotal, ullTotal - std::min(ullTotal, ullSize)))
    {
    }
}

void CRestoreProgress::Report()
{
    const uint64_t ullBytesDone = m_ullBytesDone.load();
    const uint64_t ullTotal = m_ullTotal.load();
    const uint64_t ullDone = m_ullDone.load();
    if (ullBytesDone == m_msg.ullBytesDone && ullTotal == m_msg.ullTotal && ullDone == m_msg.ullDone)
        return;
    m_msg.ullBytesDone = ullBytesDone;
    m_msg.ullTotal = ullTotal;
    m_msg.ullDone = ullDone;
    m_channel.ReportProgress(m_msg);
}

} // namespace morvane
