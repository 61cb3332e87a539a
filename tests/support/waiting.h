/// Waiting for another thread or process.
#ifndef TALLOWIN_TESTS_SUPPORT_WAITING_H
#define TALLOWIN_TESTS_SUPPORT_WAITING_H

#include <chrono>
#include <functional>

namespace kvxtest {

/// The longest that any one wait of a test lasts. Only a failing test reaches it.
inline constexpr std::chrono::seconds kTimeout{20};

/// Asks `condition` again and again until it is true. False when `timeout` has passed.
[[nodiscard]] bool waitUntil(std::function<bool()> const& condition, std::chrono::seconds timeout = kTimeout);

}  // namespace kvxtest

#endif
