/// Waiting for another thread or process.
#ifndef TALLOWIN_TESTS_SUPPORT_WAITING_H
#define TALLOWIN_TESTS_SUPPORT_WAITING_H

#include <sys/types.h>

#include <chrono>
#include <functional>

namespace kvxtest {

/// The longest that any one wait of a test lasts. Only a failing test reaches it.
inline constexpr std::chrono::seconds kTimeout{20};

/// The number by which the system knows this thread.
pid_t idOfThisThread();

/// Whether a thread of this process sleeps in a call of the system.
bool isBlocked(pid_t thread);

/// Asks `condition` again and again until it is true. False when `timeout` has passed.
[[nodiscard]] bool waitUntil(std::function<bool()> const& condition, std::chrono::seconds timeout = kTimeout);

}  // namespace kvxtest

#endif
