// Programs started by tests, and calls in a forked copy of the test.
//
// A child dies with the test program, writes both output streams to one log file and is ended by its process id. A port
// counts as ready when a connection to it succeeds. All waits end at kTimeout.

#include "tests/support/processes.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "tests/support/directories.h"
#include "tests/support/rawserver.h"
#include "tests/support/waiting.h"

namespace kvxtest {

namespace {

/// Where a program lies. Servers are often installed outside a user's PATH.
std::string findProgram(std::string const& name) {
    char const* const path = ::getenv("PATH");
    std::istringstream directories(std::string(path == nullptr ? "/usr/bin:/bin" : path) + ":/usr/sbin:/sbin");
    for (std::string directory; std::getline(directories, directory, ':');) {
        std::string const candidate = directory + "/" + name;
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    throw std::runtime_error("no program " + name + " (scripts/setup installs it)");
}

/// The process id of a copy of this process that runs `call` and ends.
pid_t startCopy(std::function<int()> const& call) {
    pid_t const child = ::fork();
    if (child == 0) {
        int status = 99;
        try {
            status = call();
        } catch (...) {
            // The status reports it.
        }
        ::_exit(status);
    }
    return child;
}

int exitStatus(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool acceptsConnections(std::uint16_t port) {
    int const socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool const connected = ::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(socket);
    return connected;
}

}  // namespace

ChildProcess::ChildProcess(std::vector<std::string> const& arguments, std::string const& directory,
                           std::string const& logFile)
    : m_Log(logFile) {
    std::vector<char*> argv;
    for (std::string const& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    std::string const program = findProgram(arguments.front());
    m_Id = ::fork();
    if (m_Id == -1) {
        throw std::runtime_error(std::string("cannot start ") + program + ": " + std::strerror(errno));
    }
    if (m_Id == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        int const log = ::open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        int const nothing = ::open("/dev/null", O_RDONLY);
        ::dup2(nothing, STDIN_FILENO);
        ::dup2(log, STDOUT_FILENO);
        ::dup2(log, STDERR_FILENO);
        if (::chdir(directory.c_str()) == 0) {
            ::execv(program.c_str(), argv.data());
        }
        ::_exit(127);
    }
}

ChildProcess::~ChildProcess() {
    if (!isRunning()) {
        return;
    }
    ::kill(m_Id, SIGTERM);
    if (!waitUntil([this] { return !isRunning(); })) {
        ::kill(m_Id, SIGKILL);
        ::waitpid(m_Id, nullptr, 0);
    }
}

bool ChildProcess::isRunning() {
    m_Ended = m_Ended || ::waitpid(m_Id, nullptr, WNOHANG) == m_Id;
    return !m_Ended;
}

bool ChildProcess::waitForPort(std::uint16_t port) {
    bool const decided = waitUntil([&] { return !isRunning() || acceptsConnections(port); });
    return decided && isRunning();
}

std::string ChildProcess::waitForLine(std::string const& text) {
    std::string rest;
    bool const found = waitUntil([&] {
        std::string const log = contentOf(m_Log);
        std::size_t const at = log.find(text);
        std::size_t const end = at == std::string::npos ? at : log.find('\n', at);
        if (end != std::string::npos) {
            rest = log.substr(at + text.size(), end - at - text.size());
            return true;
        }
        return !isRunning();
    });
    return found ? rest : "";
}

std::uint16_t freePort() {
    return static_cast<std::uint16_t>(std::stoi(ClosedPort().text()));
}

int inChildProcess(std::function<int()> const& call) {
    pid_t const child = startCopy(call);
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return exitStatus(status);
}

int inChildProcess(std::function<int()> const& call, std::chrono::seconds limit) {
    pid_t const child = startCopy(call);
    int status = 0;
    if (!waitUntil([&] { return ::waitpid(child, &status, WNOHANG) == child; }, limit)) {
        ::kill(child, SIGKILL);
        EXPECT_EQ(::waitpid(child, &status, 0), child);
    }
    return exitStatus(status);
}

std::size_t countDescriptors() {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

}  // namespace kvxtest
