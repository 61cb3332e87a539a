#include "tests/faults/isolation.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

#include "core/kvxbase.h"
#include "foundation/tbexception.h"

namespace kvxtest {

namespace {

/// Runs of one child; a new child begins as cold as the test program is.
constexpr long kRunsPerChild = 64;

/// After this a child counts as hanging.
constexpr unsigned kSeconds = 60;

/// Memory of `Count` reports that children share.
template <long Count>
class SharedReports {
public:
    SharedReports()
        : m_Reports(static_cast<Report*>(
              ::mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        if (m_Reports == MAP_FAILED) {
            throw std::runtime_error("no shared memory");
        }
    }
    SharedReports(SharedReports const&) = delete;
    SharedReports& operator=(SharedReports const&) = delete;
    ~SharedReports() { ::munmap(m_Reports, kBytes); }

    Report& operator[](long index) { return m_Reports[index]; }
    void clear() { std::memset(static_cast<void*>(m_Reports), 0, kBytes); }

private:
    static constexpr std::size_t kBytes = sizeof(Report) * Count;

    Report* m_Reports;
};

/// Runs one call and turns an exception that leaves it into text.
void runGuarded(std::function<void(Report&)> const& call, Report& report) {
    try {
        call(report);
        report.m_Finished = true;
    } catch (TBFC_Exception const&) {
        report.add("a TBFC_Exception leaves the run");
    } catch (KVX_Exception const&) {
        report.add("a KVX_Exception leaves the run");
    } catch (std::bad_alloc const&) {
        report.add("std::bad_alloc leaves the run");
    } catch (std::exception const& failure) {
        report.add(std::string("an exception leaves the run: ") + failure.what());
    }
}

pid_t start(std::function<void()> const& body) {
    pid_t const child = ::fork();
    if (child == -1) {
        throw std::runtime_error("no process");
    }
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getenv("KVX_FAULTS_OUTPUT") == nullptr) {
            int const nowhere = ::open("/dev/null", O_WRONLY);
            ::dup2(nowhere, STDOUT_FILENO);
            ::dup2(nowhere, STDERR_FILENO);
            ::close(nowhere);
        }
        body();
        ::_exit(0);
    }
    return child;
}

/// Waits for the child. Empty unless it died.
std::string deathOf(pid_t child) {
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFSIGNALED(status)) {
        return WTERMSIG(status) == SIGALRM ? "the process hangs"
                                           : "the process dies of signal " + std::to_string(WTERMSIG(status));
    }
    return WEXITSTATUS(status) == 0 ? "" : "the process ends with status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

void Report::add(std::string const& line) {
    std::size_t const used = std::strlen(m_Text);
    std::size_t const room = sizeof m_Text - used - 2;
    std::size_t const copied = std::min(room, line.size());
    std::memcpy(m_Text + used, line.data(), copied);
    m_Text[used + copied] = '\n';
}

void Report::setStack(std::string const& lines) {
    std::size_t const copied = std::min(sizeof m_Stack - 1, lines.size());
    std::memcpy(m_Stack, lines.data(), copied);
    m_Stack[copied] = '\0';
}

Report inIsolation(std::function<void(Report&)> const& call) {
    static SharedReports<1> shared;
    shared.clear();
    std::string const death = deathOf(start([&] {
        ::alarm(kSeconds);
        runGuarded(call, shared[0]);
    }));
    if (!death.empty()) {
        shared[0].add(death);
    }
    return shared[0];
}

void manyInIsolation(long first, long step, long count, std::function<void(long number, Report&)> const& call,
                     std::function<void(long number, Report const&)> const& onReport) {
    static SharedReports<kRunsPerChild> shared;
    for (long done = 0; done < count;) {
        long const begin = done;
        long const end = std::min(count, begin + kRunsPerChild);
        shared.clear();
        std::string const death = deathOf(start([&] {
            for (long i = begin; i < end; ++i) {
                ::alarm(kSeconds);
                Report& report = shared[i - begin];
                long const number = first + i * step;
                runGuarded([&](Report& r) { call(number, r); }, report);
                if (!report.m_Finished || !report.m_Reached) {
                    return;
                }
            }
        }));
        bool isOver = false;
        for (; done < end && !isOver; ++done) {
            Report& report = shared[done - begin];
            bool const isLast = !report.m_Finished;
            if (isLast && !death.empty()) {
                report.m_Reached = true;
                report.add(death);
            }
            onReport(first + done * step, report);
            isOver = report.m_Finished && !report.m_Reached;
            if (isLast) {
                ++done;
                break;
            }
        }
        if (isOver) {
            return;
        }
    }
}

SideProcess::SideProcess(Serve const& serve) {
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    m_Id = start([&] {
        ::close(ends[0]);
        serve([&](std::uint16_t port) {
            if (::write(ends[1], &port, sizeof port) != sizeof port) {
                ::_exit(1);
            }
        });
    });
    ::close(ends[1]);
    bool const isReady = ::read(ends[0], &m_Port, sizeof m_Port) == sizeof m_Port;
    ::close(ends[0]);
    if (!isReady) {
        throw std::runtime_error("the side process has not begun");
    }
}

SideProcess::~SideProcess() {
    ::kill(m_Id, SIGKILL);
    ::waitpid(m_Id, nullptr, 0);
}

}  // namespace kvxtest
