/// Threads whose waiting can be observed.
#ifndef TALLOWIN_TESTS_JNI_WORKER_H
#define TALLOWIN_TESTS_JNI_WORKER_H

#include <sys/types.h>

#include <functional>
#include <future>
#include <thread>

namespace kvxtest {

/// Runs something on a thread of its own. The test program ends when that outlasts all patience.
class Worker {
public:
    explicit Worker(std::function<void()> const& work);
    Worker(Worker const&) = delete;
    Worker& operator=(Worker const&) = delete;

    /// Waits for the end of the work.
    ~Worker();

    /// Waits until the thread either sleeps, waiting for something, or has done its work. True when it sleeps.
    [[nodiscard]] bool waits();

    /// Waits for the end of the work. False when patience is over.
    [[nodiscard]] bool finishes() const;

private:
    [[nodiscard]] bool isAsleep() const;

    std::promise<pid_t> m_Started;
    std::promise<void> m_Done;
    std::shared_future<pid_t> m_Id;
    std::shared_future<void> m_End;
    std::thread m_Thread;
};

}  // namespace kvxtest

#endif
