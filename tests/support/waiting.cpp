#include "tests/support/waiting.h"

#include <thread>

namespace kvxtest {

bool waitUntil(std::function<bool()> const& condition, std::chrono::seconds timeout) {
    constexpr std::chrono::milliseconds kPause{2};
    auto const end = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(kPause);
    }
    return true;
}

}  // namespace kvxtest
