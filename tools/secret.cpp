// Reads byte by byte into memory that is wiped, so that no buffer of the input library keeps a copy. On the terminal
// the echo is off while the line is typed. A signal that ends or stops the program meanwhile is caught, the echo comes
// back, and the signal is raised again.

#include "tools/secret.h"

#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>

#include "tools/descriptor.h"
#include "tools/toolfailure.h"

namespace tool {

namespace {

volatile std::sig_atomic_t g_Signal = 0;

extern "C" void noteSignal(int number) {
    g_Signal = number;
}

/// Notes the signals that end or stop a program on a terminal, in place of their actions.
class NotedSignals {
public:
    NotedSignals() {
        g_Signal = 0;
        struct sigaction action = {};
        action.sa_handler = noteSignal;
        sigset_t signals;
        ::sigemptyset(&signals);
        for (std::size_t index = 0; index < kSignals.size(); ++index) {
            ::sigaction(kSignals[index], &action, &m_Old[index]);
            ::sigaddset(&signals, kSignals[index]);
        }
        ::sigprocmask(SIG_BLOCK, &signals, &m_OldMask);
    }
    NotedSignals(NotedSignals const&) = delete;
    NotedSignals& operator=(NotedSignals const&) = delete;
    ~NotedSignals() {
        for (std::size_t index = 0; index < kSignals.size(); ++index) {
            ::sigaction(kSignals[index], &m_Old[index], nullptr);
        }
        ::sigprocmask(SIG_SETMASK, &m_OldMask, nullptr);
    }

    /// Waits for input. False when a signal came first.
    [[nodiscard]] bool awaitInput(int descriptor) const {
        pollfd input{descriptor, POLLIN, 0};
        while (g_Signal == 0 && ::ppoll(&input, 1, nullptr, &m_OldMask) < 0 && errno == EINTR) {
        }
        return g_Signal == 0;
    }

private:
    static constexpr std::array<int, 5> kSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};
    std::array<struct sigaction, kSignals.size()> m_Old = {};
    sigset_t m_OldMask = {};
};

class SilentTerminal {
public:
    explicit SilentTerminal(int terminal) : m_Terminal(terminal) {
        m_IsSilent = ::tcgetattr(terminal, &m_Old) == 0;
        termios silent = m_Old;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        if (!m_IsSilent || ::tcsetattr(terminal, TCSAFLUSH, &silent) != 0) {
            m_IsSilent = false;
            throw ToolFailure("cannot switch off the echo of the terminal; give the password with --password-file");
        }
    }
    SilentTerminal(SilentTerminal const&) = delete;
    SilentTerminal& operator=(SilentTerminal const&) = delete;
    ~SilentTerminal() {
        if (m_IsSilent) {
            ::tcsetattr(m_Terminal, TCSAFLUSH, &m_Old);
        }
    }

private:
    int m_Terminal;
    termios m_Old = {};
    bool m_IsSilent = false;
};

enum class End { kLine, kInput, kSignal };

/// Reads up to a line end, which it drops together with a carriage return before it. `signals` is null where they have
/// their usual effect.
End readLine(int descriptor, NotedSignals const* signals, Secret& secret) {
    bool hasReturn = false;
    for (;;) {
        if (signals != nullptr && !signals->awaitInput(descriptor)) {
            return End::kSignal;
        }
        char character = '\0';
        ssize_t const count = ::read(descriptor, &character, 1);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            throw ToolFailure(systemFailure("cannot read the password", errno));
        }
        if (count == 0 || character == '\n') {
            return count == 0 ? End::kInput : End::kLine;
        }
        if (hasReturn) {
            secret.append('\r');
        }
        hasReturn = character == '\r';
        if (!hasReturn) {
            secret.append(character);
        }
    }
}

Secret readFrom(int descriptor) {
    Secret secret;
    if (readLine(descriptor, nullptr, secret) == End::kInput && secret.length() == 0) {
        throw ToolFailure("there is no password in the input", "give it on standard input or with --password-file");
    }
    return secret;
}

/// One try; false when a signal interrupted it, which it has raised again after the terminal was as before.
bool askOnce(int terminal, std::string const& prompt, Secret& secret) {
    End end = End::kSignal;
    {
        NotedSignals const noted;
        SilentTerminal const silent(terminal);
        [[maybe_unused]] ssize_t const asked = ::write(terminal, prompt.data(), prompt.size());
        end = readLine(terminal, &noted, secret);
        [[maybe_unused]] ssize_t const ended = ::write(terminal, "\n", 1);
    }
    if (end == End::kSignal) {
        std::raise(static_cast<int>(g_Signal));
    }
    return end != End::kSignal;
}

Secret ask(std::string const& prompt) {
    Descriptor const terminal(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
    int const descriptor = terminal.get() < 0 ? STDIN_FILENO : terminal.get();
    for (;;) {
        Secret secret;
        if (askOnce(descriptor, prompt, secret)) {
            return secret;
        }
    }
}

}  // namespace

Secret::Secret() : m_Text(new char[kMaxLength + 1]()) {}

Secret::~Secret() {
    if (m_Text != nullptr) {
        ::explicit_bzero(m_Text.get(), kMaxLength + 1);
    }
}

void Secret::append(char character) {
    if (character == '\0') {
        throw ToolFailure("the password has a zero byte");
    }
    if (m_Length == kMaxLength) {
        throw ToolFailure("the password is longer than 4096 bytes");
    }
    m_Text[m_Length++] = character;
}

bool Secret::contains(char character) const {
    char const* const end = m_Text.get() + m_Length;
    return std::find(text(), end, character) != end;
}

bool Secret::isSevenBit() const {
    return std::none_of(text(), text() + m_Length,
                        [](char character) { return static_cast<unsigned char>(character) > 0x7F; });
}

Secret readSecret(StandardStreams const& streams, std::string const& file, std::string const& prompt) {
    if (!file.empty() && file != "-") {
        Descriptor const input(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
        if (input.get() < 0) {
            throw ToolFailure(systemFailure("cannot open the password file", errno));
        }
        return readFrom(input.get());
    }
    return file.empty() && streams.isInputTerminal() ? ask(prompt) : readFrom(STDIN_FILENO);
}

}  // namespace tool
