#ifndef TALLOWIN_SANDBOX_HTTP_THREADPOOL_H
#define TALLOWIN_SANDBOX_HTTP_THREADPOOL_H

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <thread>

namespace sandbox {

/// Threads that are started while this lives begin with every signal blocked: signals belong to the program, and a peer
/// that goes away under TLS must not raise SIGPIPE.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_Before);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_Before, nullptr); }
    SignalsBlocked(SignalsBlocked const&) = delete;
    SignalsBlocked& operator=(SignalsBlocked const&) = delete;

private:
    sigset_t m_Before{};
};

/// Threads for tasks that may take long. No task waits for another one: an idle thread takes it, or a new one starts.
/// Threads end when they were idle for some time, or when enough others are idle.
class ThreadPool {
public:
    /// Must not throw.
    using Task = std::function<void()>;

    /// How many idle threads are kept.
    static constexpr std::size_t kMaxIdle = 32;

    /// A thread ends when it was idle for `idleTime`.
    explicit ThreadPool(std::chrono::milliseconds idleTime = std::chrono::seconds(5)) : m_IdleTime(idleTime) {}

    /// Stops.
    ~ThreadPool();
    ThreadPool(ThreadPool const&) = delete;
    ThreadPool& operator=(ThreadPool const&) = delete;

    /// Begins to run `task`. False, with nothing begun, when the system has no thread to give. Not to be called after
    /// stop().
    [[nodiscard]] bool run(Task task);

    /// Returns when all tasks are done and no thread is left.
    void stop();

private:
    using Threads = std::list<std::thread>;

    void work(Task task, Threads::iterator self);
    bool awaitTask(Task& task);

    std::chrono::milliseconds m_IdleTime;
    std::mutex m_Mutex;               ///< Guards all below.
    std::condition_variable m_Given;  ///< A task was added, or it is stopping.
    std::condition_variable m_Left;   ///< A thread has ended.
    std::deque<Task> m_Tasks;         ///< At most as many as threads are idle.
    std::size_t m_Idle = 0;           ///< Threads that wait for a task.
    bool m_Stopping = false;
    Threads m_Threads;
    Threads m_Ended;  ///< Are to be joined.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_THREADPOOL_H
