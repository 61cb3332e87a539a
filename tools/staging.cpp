// The signals are blocked in every thread and read from a descriptor by one that also waits for the end. So a signal
// finds a moment at which files can be removed, which a handler could not do. The other threads go on meanwhile, so the
// removal is repeated until nothing is left.

#include "tools/staging.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

#include "tools/accountfiles.h"
#include "tools/toolfailure.h"

namespace tool {

namespace {

constexpr mode_t kNewFolder = 0777;

std::string templateFor(std::string const& target) {
    std::filesystem::path const path(target);
    return (path.parent_path() / ('.' + path.filename().string() + ".setup-XXXXXX")).string();
}

void removeAll(std::string const& path) {
    constexpr int kTries = 100;
    for (int tries = 0; tries < kTries; ++tries) {
        std::error_code error;
        std::filesystem::remove_all(path, error);
        if (!error) {
            return;
        }
    }
}

sigset_t endingSignals() {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (int const number : {SIGINT, SIGTERM, SIGHUP}) {
        ::sigaddset(&signals, number);
    }
    return signals;
}

}  // namespace

Staging::Staging(std::string target) : m_Target(std::move(target)), m_Path(templateFor(m_Target)) {
    if (::mkdtemp(m_Path.data()) == nullptr) {
        int const error = errno;
        throw ToolFailure(systemFailure("cannot make the directory " + m_Target, error),
                          error == ENOENT ? "the folder that it is to stand in is missing" : "");
    }
    ::chmod(m_Path.c_str(), underMask(kNewFolder));
    sigset_t const signals = endingSignals();
    ::pthread_sigmask(SIG_BLOCK, &signals, &m_OldMask);
    m_End = ::eventfd(0, EFD_CLOEXEC);
    int const descriptor = ::signalfd(-1, &signals, SFD_CLOEXEC);
    m_Watcher = std::thread([this, descriptor] {
        awaitSignals(descriptor);
        ::close(descriptor);
    });
}

Staging::~Staging() {
    ::eventfd_write(m_End, 1);
    m_Watcher.join();
    ::close(m_End);
    removeAll(m_Path);
    ::pthread_sigmask(SIG_SETMASK, &m_OldMask, nullptr);
}

void Staging::awaitSignals(int signals) const {
    std::array<pollfd, 2> waits = {pollfd{signals, POLLIN, 0}, pollfd{m_End, POLLIN, 0}};
    while (::poll(waits.data(), waits.size(), -1) < 0 && errno == EINTR) {
    }
    signalfd_siginfo signal = {};
    if (waits[0].revents == 0 || ::read(signals, &signal, sizeof signal) != sizeof signal) {
        return;
    }
    removeAll(m_Path);
    int const number = static_cast<int>(signal.ssi_signo);
    ::signal(number, SIG_DFL);
    sigset_t const all = endingSignals();
    ::pthread_sigmask(SIG_UNBLOCK, &all, nullptr);
    ::raise(number);
}

void Staging::publish() {
    if (::rename(m_Path.c_str(), m_Target.c_str()) != 0) {
        int const error = errno;
        bool const isTaken = error == ENOTEMPTY || error == EEXIST || error == ENOTDIR;
        throw ToolFailure(isTaken ? m_Target + " has been made by another process meanwhile; it is left as it is"
                                  : systemFailure("cannot make the directory " + m_Target, error));
    }
    int const parent =
        ::open(std::filesystem::path(m_Target).parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (parent >= 0) {
        ::fsync(parent);
        ::close(parent);
    }
}

}  // namespace tool
