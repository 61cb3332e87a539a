#include "sandbox/http/threadpool.h"

#include <system_error>
#include <utility>

namespace sandbox {

namespace {

void joinAll(std::list<std::thread>& threads) {
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace

ThreadPool::~ThreadPool() {
    stop();
}

bool ThreadPool::run(Task task) {
    Threads ended;
    bool running = true;
    bool given = false;
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        ended.swap(m_Ended);
        if (m_Tasks.size() < m_Idle) {
            m_Tasks.push_back(std::move(task));
            given = true;
        } else {
            auto const self = m_Threads.emplace(m_Threads.end());
            try {
                *self = std::thread([this, self, task = std::move(task)]() mutable { work(std::move(task), self); });
            } catch (std::system_error const&) {
                m_Threads.erase(self);
                running = false;
            }
        }
    }
    if (given) {
        // Without the lock, which the thread that wakes up takes at once.
        m_Given.notify_one();
    }
    joinAll(ended);
    return running;
}

void ThreadPool::stop() {
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_Stopping = true;
    m_Given.notify_all();
    m_Left.wait(lock, [this] { return m_Threads.empty(); });
    joinAll(m_Ended);
    m_Ended.clear();
}

void ThreadPool::work(Task task, Threads::iterator self) {
    do {
        task();
        task = nullptr;
    } while (awaitTask(task));
    std::lock_guard<std::mutex> const lock(m_Mutex);
    m_Ended.splice(m_Ended.end(), m_Threads, self);
    m_Left.notify_all();
}

/// False when the thread is to end.
bool ThreadPool::awaitTask(Task& task) {
    std::unique_lock<std::mutex> lock(m_Mutex);
    if (m_Idle == kMaxIdle) {
        return false;
    }
    ++m_Idle;
    m_Given.wait_for(lock, m_IdleTime, [this] { return m_Stopping || !m_Tasks.empty(); });
    --m_Idle;
    if (m_Tasks.empty()) {
        return false;
    }
    task = std::move(m_Tasks.front());
    m_Tasks.pop_front();
    return true;
}

}  // namespace sandbox
