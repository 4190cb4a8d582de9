// Reading the child's output: bytes from the pipe through a read buffer and a ring buffer, and
// lines made of them.
#include "runner/CommandRunner.h"

#include "trace/TraceObjects.h"

#include <algorithm>
#include <cstdlib>

namespace morvane
{

void CCommandRunner::ResetReadState()
{
    m_cbReadData = 0;
    m_uiReadPos = 0;
    m_uiRingHead = 0;
    m_uiRingTail = 0;
    m_bRingFull = false;
}

void CCommandRunner::FillRing()
{
    while (m_uiReadPos < m_cbReadData && !(m_uiRingHead == m_uiRingTail && m_bRingFull))
    {
        m_ringBuffer[m_uiRingHead] = m_readBuffer[m_uiReadPos++];
        m_uiRingHead = (m_uiRingHead + 1) % kBufferBytes;
        if (m_uiRingHead == m_uiRingTail)
            m_bRingFull = true;
    }
    // Set whether or not the ring filled up, as it always was: the ring holds at least one byte
    // now, and taking one clears the flag again.
    m_bRingFull = true;
}

bool CCommandRunner::ReadChar(char& c)
{
    static const wchar_t kFn[] = L"KEFLImpl::ReadChar";
    uint32_t uiEmptyPolls = 0;
    for (;;)
    {
        if (m_uiRingHead != m_uiRingTail || m_bRingFull)
        {
            c = m_ringBuffer[m_uiRingTail];
            m_uiRingTail = (m_uiRingTail + 1) % kBufferBytes;
            m_bRingFull = false;
            return true;
        }
        // Moving or reading bytes is no empty poll: the next round takes a byte.
        if (m_uiReadPos < m_cbReadData)
        {
            FillRing();
            continue;
        }

        ResetReadState();
        DWORD cbAvailable = 0;
        if (!::PeekNamedPipe(m_hPipeRead.get(), nullptr, 0, nullptr, &cbAvailable, nullptr))
        {
            const DWORD dwLastError = ::GetLastError();
            if (dwLastError == ERROR_BROKEN_PIPE)
            {
                g_KeflTrace.TraceMessage(TRACE_VERBOSE, kFn, L"PeekNamedPipe[STDOUT] input finished");
                // The monitor closed our copy of the write end after the child ended and every
                // byte has been read: the reader's handles of the run are done with.
                m_hPipeRead.reset();
                m_hConsoleIn.reset();
            }
            else
            {
                g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"PeekNamedPipe[STDOUT] error");
                g_KeflTrace.TraceValue(TRACE_ERROR, kFn, L"dwLastError", static_cast<int64_t>(dwLastError));
            }
            return false;
        }
        if (cbAvailable > 0)
        {
            const DWORD cbToRead = std::min<DWORD>(cbAvailable, kBufferBytes);
            DWORD cbRead = 0;
            if (!::ReadFile(m_hPipeRead.get(), m_readBuffer, cbToRead, &cbRead, nullptr))
            {
                const DWORD dwLastError = ::GetLastError();
                g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"ReadFile failed");
                g_KeflTrace.TraceValue(TRACE_ERROR, kFn, L"dwLastError", static_cast<int64_t>(dwLastError));
                return false;
            }
            if (cbRead != cbToRead)
            {
                g_KeflTrace.TraceMessage(TRACE_ERROR, kFn, L"... ending(Didn't read promised data amount)");
                return false;
            }
            m_cbReadData = cbRead;
            continue;
        }

        ::SleepEx(10, TRUE);
        if (++uiEmptyPolls < kPollsPerPass)
            continue;
        // About ten seconds of silence: the session may end the reading.
        uiEmptyPolls = 0;
        if (m_pfnReadProgress && m_pfnReadProgress(m_ullReadProgressCtx) == 1)
        {
            m_bFinished = true;
            return false;
        }
    }
}

bool CCommandRunner::GetLine(std::wstring& sLine, bool bTraceLine)
{
    static const wchar_t kFn[] = L"KEFLImpl::GetLine";
    wchar_t wszLine[kLineChars + 1];
    size_t cchLine = 0;
    for (;;)
    {
        if (cchLine == kLineChars)
        {
            // The rest of the line comes as the next line.
            g_KeflTrace.TraceMessage(TRACE_INFO, kFn, L"Long Line");
            break;
        }
        char c = '\0';
        if (!ReadChar(c))
            return false;
        if (c == '\f')
            continue;
        if (c == '\n')
            break;
        wchar_t wc = L'\0';
        if (std::mbtowc(&wc, &c, 1) < 0)
            wc = L'?';
        wszLine[cchLine++] = wc;
    }

    // The line feed itself was not stored; carriage returns and blanks before it go too.
    while (cchLine > 0 && (wszLine[cchLine - 1] == L'\r' || wszLine[cchLine - 1] == L' '))
        --cchLine;
    wszLine[cchLine] = L'\0';

    if (bTraceLine)
        g_KeflTrace.TraceValue(TRACE_INFO, kFn, L"wszLine", static_cast<const wchar_t*>(wszLine));
    sLine.assign(wszLine, cchLine);
    return true;
}

} // namespace morvane
