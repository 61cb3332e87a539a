/// Real programs as peers of a test.
#ifndef TALLOWIN_TESTS_SUPPORT_CHILD_PROCESS_H
#define TALLOWIN_TESTS_SUPPORT_CHILD_PROCESS_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kvxtest {

/// A program that runs while this lives. It is ended by its process id.
class ChildProcess {
public:
    /// Starts `arguments` (the first one the program, looked up in PATH, /usr/sbin and /sbin too) in `directory`.
    /// Its output, both streams, goes to `logFile`. Throws std::runtime_error when it cannot be started.
    ChildProcess(std::vector<std::string> const& arguments, std::string const& directory, std::string const& logFile);
    ChildProcess(ChildProcess const&) = delete;
    ChildProcess& operator=(ChildProcess const&) = delete;

    /// Asks it to end; kills it when patience is over.
    ~ChildProcess();

    [[nodiscard]] pid_t id() const { return m_Id; }

    /// Whether it still runs.
    [[nodiscard]] bool isRunning();

    /// Waits until it accepts connections on `port` of 127.0.0.1. False when it ended, or patience is over.
    [[nodiscard]] bool waitForPort(std::uint16_t port);

    /// Waits until the log file holds `text` followed by a whole line, and returns the rest of that line. Empty when it
    /// ended, or patience is over.
    [[nodiscard]] std::string waitForLine(std::string const& text);

private:
    std::string m_Log;
    pid_t m_Id = -1;
    bool m_Ended = false;
};

/// A port of 127.0.0.1 that was free a moment ago.
std::uint16_t freePort();

/// A file's content; empty when it cannot be read.
std::string contentOf(std::string const& path);

}  // namespace kvxtest

#endif
