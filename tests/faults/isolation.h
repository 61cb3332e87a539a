/// Runs of a call in processes of their own, with a report to the test.
#ifndef TALLOWIN_TESTS_FAULTS_ISOLATION_H
#define TALLOWIN_TESTS_FAULTS_ISOLATION_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

namespace kvxtest {

/// What a run reports. Lies in memory that the child shares with the test.
struct Report {
    bool m_Reached;       ///< The fault took place: the run got as far as the call that fails.
    bool m_Finished;      ///< The child came to its end.
    std::int32_t m_Code;  ///< The result of the call.
    long m_Count;         ///< For use by the test.
    char m_Text[3000];    ///< What is wrong, a line each; empty when nothing is.
    char m_Stack[3000];   ///< The calls that led to the fault, a line each.

    /// Adds a line to `m_Text`, as far as there is room.
    void add(std::string const& line);
    void setStack(std::string const& lines);
};

/// Runs `call` in a child process and returns its report. A child that dies or hangs is reported in the text.
/// The child prints nowhere and ends without clean-up.
Report inIsolation(std::function<void(Report&)> const& call);

/// The same for many runs in one child: `call` runs with the numbers from `first` on, up to `count` of them, until one
/// is not reached. After a death the next child goes on behind the number that died. `onReport` gets all of them.
void manyInIsolation(long first, long step, long count, std::function<void(long number, Report&)> const& call,
                     std::function<void(long number, Report const&)> const& onReport);

/// A process beside the test, ended with it.
class SideProcess {
public:
    /// Runs in the process; calls its argument with a port when it is ready, and must not return.
    using Serve = std::function<void(std::function<void(std::uint16_t)> const& isReady)>;

    explicit SideProcess(Serve const& serve);
    SideProcess(SideProcess const&) = delete;
    SideProcess& operator=(SideProcess const&) = delete;
    ~SideProcess();

    [[nodiscard]] std::uint16_t port() const { return m_Port; }

private:
    pid_t m_Id = -1;
    std::uint16_t m_Port = 0;
};

}  // namespace kvxtest

#endif
