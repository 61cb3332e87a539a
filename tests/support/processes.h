/// Processes of a test: programs it starts and copies of itself.
#ifndef TALLOWIN_TESTS_SUPPORT_PROCESSES_H
#define TALLOWIN_TESTS_SUPPORT_PROCESSES_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kvxtest {

/// A program that runs while this lives. Ended by its process id.
class ChildProcess {
public:
    /// Starts `arguments` (the first one the program, looked up in PATH, /usr/sbin and /sbin too) in `directory`.
    /// Its output, both streams, goes to `logFile`. Throws std::runtime_error when it cannot be started.
    ChildProcess(std::vector<std::string> const& arguments, std::string const& directory, std::string const& logFile);
    ChildProcess(ChildProcess const&) = delete;
    ChildProcess& operator=(ChildProcess const&) = delete;

    /// Terminates the program; kills it after the timeout.
    ~ChildProcess();

    [[nodiscard]] pid_t id() const { return m_Id; }

    /// Whether it still runs.
    [[nodiscard]] bool isRunning();

    /// Waits until the program accepts connections on `port` of 127.0.0.1. False when it has ended, or at the timeout.
    [[nodiscard]] bool waitForPort(std::uint16_t port);

    /// Waits until the log file holds `text` followed by a whole line, and returns the rest of that line. Empty when
    /// the program has ended, or at the timeout.
    [[nodiscard]] std::string waitForLine(std::string const& text);

private:
    std::string m_Log;
    pid_t m_Id = -1;
    bool m_Ended = false;
};

/// A port of 127.0.0.1 that was free a moment ago.
std::uint16_t freePort();

/// Whether a child that is forked while other threads allocate may allocate too. It waits for ever under the address
/// sanitizer, whose own allocator knows nothing of forks.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kMayForkBesideThreads = false;
#else
inline constexpr bool kMayForkBesideThreads = true;
#endif

/// Runs `call` in a process of its own and returns its exit status, or 128 plus the signal that ended it.
/// The value of `call` is the exit status; an exception that leaves `call` gives status 99.
int inChildProcess(std::function<int()> const& call);

/// The same, but a process that has not ended after `limit` is killed, which counts as ended by signal 9.
int inChildProcess(std::function<int()> const& call, std::chrono::seconds limit);

/// How many descriptors this process has open.
std::size_t countDescriptors();

}  // namespace kvxtest

#endif
