#pragma once
// The threads that copy a filespace's files while the walk goes on. From a share every open, read
// and folder listing waits out a network round trip; with several files in flight those waits
// overlap instead of adding up.
//
// The walk hands each file over as a task; one worker does the whole of one task before it takes
// the next, so a file's trace lines all carry that worker's thread id. At most kTasksPerWorker
// tasks per worker wait in the queue: the walk never runs ahead into memory. The calling thread
// stays the one that talks to the host: while it waits for room in the queue or for the last
// tasks, it calls its own wait function whenever a task ends and at least every kReportMs.
//
// With one worker there is no thread: each task runs at once on the calling thread, as a plain
// loop over the files would run it.
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace morvane
{

class CCopyWorkers
{
public:
    using Task = std::function<void()>; // must not throw: it ends as the file's own failure
    using Wait = std::function<void()>;

    static constexpr uint32_t kDefaultWorkers = 8;
    static constexpr uint32_t kMaxWorkers = 64;
    static constexpr uint32_t kTasksPerWorker = 4;
    static constexpr uint32_t kReportMs = 100;

    // uiWorkers threads (1 to kMaxWorkers); threads that cannot be made leave fewer, and with
    // none the tasks run on the calling thread. wait is called on the calling thread only.
    CCopyWorkers(uint32_t uiWorkers, Wait wait);
    // Runs the tasks still queued, then ends the threads.
    ~CCopyWorkers();
    CCopyWorkers(const CCopyWorkers&) = delete;
    CCopyWorkers& operator=(const CCopyWorkers&) = delete;

    // Queues task, waiting while the queue is full; without threads, runs it now.
    void Submit(Task task);
    // Waits until every task submitted so far has ended.
    void Finish();
    uint32_t Workers() const { return static_cast<uint32_t>(m_vThreads.size()); }

private:
    void Work();

    Wait m_wait;
    std::mutex m_lock;
    std::condition_variable m_cvTask;  // a task was queued, or the workers are to end
    std::condition_variable m_cvEnded; // a task ended
    std::deque<Task> m_queue;
    uint32_t m_uiRunning = 0; // tasks taken from the queue and not yet ended
    bool m_bStop = false;
    std::vector<std::thread> m_vThreads;
};

} // namespace morvane
