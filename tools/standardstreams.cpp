#include "tools/standardstreams.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "tools/toolfailure.h"

namespace tool {

namespace {

/// Requires: descriptors below `descriptor` are open.
bool openWhenClosed(int descriptor) {
    bool const isClosed = ::fcntl(descriptor, F_GETFD) < 0;
    if (isClosed) {
        ::open("/dev/null", descriptor == STDIN_FILENO ? O_RDONLY : O_WRONLY);
    }
    return isClosed;
}

/// 0, or the system's error number.
int writeAll(int descriptor, std::string const& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        ssize_t const count = ::write(descriptor, text.data() + done, text.size() - done);
        if (count < 0 && errno == EAGAIN) {
            pollfd writable{descriptor, POLLOUT, 0};
            ::poll(&writable, 1, -1);
        } else if (count < 0 && errno != EINTR) {
            return errno;
        }
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return 0;
}

}  // namespace

StandardStreams::StandardStreams() {
    openWhenClosed(STDIN_FILENO);
    bool const isOutputClosed = openWhenClosed(STDOUT_FILENO);
    openWhenClosed(STDERR_FILENO);
    if (!isOutputClosed) {
        m_Output = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        ::dup2(STDERR_FILENO, STDOUT_FILENO);
    }
}

StandardStreams::~StandardStreams() {
    if (m_Output >= 0) {
        ::close(m_Output);
    }
}

bool StandardStreams::isInputTerminal() const {
    return ::isatty(STDIN_FILENO) != 0;
}

bool StandardStreams::isOutputTerminal() const {
    return m_Output >= 0 && ::isatty(m_Output) != 0;
}

bool StandardStreams::isErrorTerminal() const {
    return ::isatty(STDERR_FILENO) != 0;
}

void StandardStreams::requireOutput() const {
    if (m_Output < 0) {
        throw ToolFailure("standard output is closed; nothing was done");
    }
    pollfd output{m_Output, 0, 0};
    if (::poll(&output, 1, 0) > 0 && (output.revents & POLLERR) != 0) {
        throw ToolFailure("nobody reads standard output any more; nothing was done");
    }
}

void StandardStreams::write(std::string const& text) const {
    if (text.empty()) {
        return;
    }
    int const error = m_Output < 0 ? EBADF : writeAll(m_Output, text);
    if (error != 0) {
        throw ToolFailure(systemFailure("cannot write to standard output", error));
    }
}

void StandardStreams::writeError(std::string const& text) {
    writeAll(STDERR_FILENO, text);
}

void StandardStreams::silenceOthers() {
    int const nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(nowhere, STDOUT_FILENO);
    ::close(nowhere);
}

void StandardStreams::restore() const {
    if (m_Output >= 0) {
        ::dup2(m_Output, STDOUT_FILENO);
    }
}

}  // namespace tool
