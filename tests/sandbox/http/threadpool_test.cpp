#include "sandbox/http/threadpool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <future>
#include <iterator>
#include <vector>

#include "tests/support/waiting.h"

/// The threads that serve connections.
namespace {

using sandbox::ThreadPool;

constexpr std::size_t kMany = 100;

std::ptrdiff_t countThreads() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

/// Runs tasks that wait until all of them have begun. Whether all began.
bool runTogether(ThreadPool& pool) {
    std::atomic<std::size_t> begun{0};
    std::promise<void> all;
    std::shared_future<void> const allBegun = all.get_future().share();
    std::vector<std::promise<void>> done(kMany);
    for (std::promise<void>& each : done) {
        bool const running = pool.run([&begun, &all, allBegun, &each] {
            if (++begun == kMany) {
                all.set_value();
            }
            allBegun.wait_for(kvxtest::kTimeout);
            each.set_value();
        });
        EXPECT_TRUE(running);
    }
    for (std::promise<void>& each : done) {
        each.get_future().wait();
    }
    return begun == kMany;
}

TEST(ThreadPool, LetsNoTaskWaitForAnother) {
    ThreadPool pool;
    EXPECT_TRUE(runTogether(pool));
    EXPECT_TRUE(runTogether(pool));
}

TEST(ThreadPool, StopsWhenAllTasksAreDone) {
    std::ptrdiff_t const before = countThreads();
    std::atomic<std::size_t> done{0};
    ThreadPool pool;
    for (std::size_t number = 0; number < kMany; ++number) {
        EXPECT_TRUE(pool.run([&done] { ++done; }));
    }
    pool.stop();
    EXPECT_EQ(done, kMany);
    // A thread that was joined may stand there for another moment.
    EXPECT_TRUE(kvxtest::waitUntil([before] { return countThreads() == before; }));
}

TEST(ThreadPool, HasSomeThreadsForAWhile) {
    std::ptrdiff_t const before = countThreads();
    ThreadPool pool(std::chrono::hours(1));
    EXPECT_TRUE(runTogether(pool));
    EXPECT_TRUE(kvxtest::waitUntil(
        [before] { return countThreads() - before == static_cast<std::ptrdiff_t>(ThreadPool::kMaxIdle); }));
    ThreadPool brief(std::chrono::milliseconds(1));
    EXPECT_TRUE(runTogether(brief));
    EXPECT_TRUE(kvxtest::waitUntil(
        [before] { return countThreads() - before == static_cast<std::ptrdiff_t>(ThreadPool::kMaxIdle); }));
}

}  // namespace
