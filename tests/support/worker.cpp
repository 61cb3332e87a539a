#include "tests/support/worker.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "tests/support/waiting.h"

namespace kvxtest {

Worker::Worker(std::function<void()> const& function)
    : m_Id(m_Started.get_future()), m_End(m_Done.get_future()), m_Thread([this, function] {
          m_Started.set_value(idOfThisThread());
          function();
          m_Done.set_value();
      }) {}

Worker::~Worker() {
    if (!finishes()) {
        std::fputs("a test thread does not return\n", stderr);
        std::abort();
    }
    m_Thread.join();
}

bool Worker::blocks() {
    auto const end = std::chrono::steady_clock::now() + kTimeout;
    while (std::chrono::steady_clock::now() < end &&
           m_End.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        if (isBlocked()) {
            return true;
        }
        std::this_thread::yield();
    }
    return false;
}

bool Worker::finishes() const {
    return m_End.wait_for(kTimeout) == std::future_status::ready;
}

bool Worker::isBlocked() const {
    if (m_Id.wait_for(kTimeout) != std::future_status::ready) {
        return false;
    }
    return kvxtest::isBlocked(m_Id.get());
}

}  // namespace kvxtest
