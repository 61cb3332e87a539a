#include "tests/support/waiting.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>

namespace kvxtest {

pid_t idOfThisThread() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

bool isBlocked(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string stat;
    std::getline(file, stat);
    std::size_t const name = stat.rfind(") ");  // the thread name before it may contain any character
    return name != std::string::npos && stat[name + 2] == 'S';
}

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
