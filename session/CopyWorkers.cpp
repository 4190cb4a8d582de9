#include "session/CopyWorkers.h"

#include <chrono>

namespace morvane
{

CCopyWorkers::CCopyWorkers(uint32_t uiWorkers, Wait wait) : m_wait(std::move(wait))
{
    if (uiWorkers <= 1)
        return;
    m_vThreads.reserve(uiWorkers);
    for (uint32_t i = 0; i < uiWorkers; ++i)
    {
        try
        {
            m_vThreads.emplace_back([this] { Work(); });
        }
        catch (...) // no thread (or no memory for one) to be had: the restore goes on with fewer
        {
            break;
        }
    }
}

CCopyWorkers::~CCopyWorkers()
{
    {
        const std::lock_guard lock(m_lock);
        m_bStop = true;
    }
    m_cvTask.notify_all();
    for (std::thread& thread : m_vThreads)
        thread.join();
}

void CCopyWorkers::Submit(Task task)
{
    if (m_vThreads.empty())
    {
        task();
        return;
    }
    std::unique_lock lock(m_lock);
    while (m_queue.size() >= kTasksPerWorker * m_vThreads.size())
    {
        m_cvEnded.wait_for(lock, std::chrono::milliseconds(kReportMs));
        lock.unlock();
        m_wait();
        lock.lock();
    }
    m_queue.push_back(std::move(task));
    lock.unlock();
    m_cvTask.notify_one();
}

void CCopyWorkers::Finish()
{
    std::unique_lock lock(m_lock);
    while (!m_queue.empty() || m_uiRunning > 0)
    {
        m_cvEnded.wait_for(lock, std::chrono::milliseconds(kReportMs));
        lock.unlock();
        m_wait();
        lock.lock();
    }
}

void CCopyWorkers::Work()
{
    std::unique_lock lock(m_lock);
    for (;;)
    {
        m_cvTask.wait(lock, [this] { return m_bStop || !m_queue.empty(); });
        // Queued tasks are run before the threads end: a file handed over is a file copied.
        if (m_queue.empty())
            return;
        Task task = std::move(m_queue.front());
        m_queue.pop_front();
        ++m_uiRunning;
        lock.unlock();
        task();
        task = nullptr; // what the task holds goes before the next one is taken
        lock.lock();
        --m_uiRunning;
        m_cvEnded.notify_all();
    }
}

} // namespace morvane
