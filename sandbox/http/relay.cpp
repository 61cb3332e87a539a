// Carries bytes both ways between two sockets on one thread, with poll().
// Each round waits for what the two flows can do next, then writes up, reads up, writes down and reads down. The order
// matters: when writing up fails, only that direction ends, since the target may have responded without reading
// everything.
// Odd: nothing goes down before something came up, so a target that speaks first is held back. After the service began
// to stop, at most kLastRounds more rounds carry what is at hand.
#include "sandbox/http/relay.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace sandbox {

namespace {

constexpr std::size_t kPieceBytes = std::size_t{64} * 1024;
constexpr std::size_t kMaxRemembered = std::size_t{128} * 1024;  // of what goes on to a destination
constexpr std::size_t kMaxCollected = std::size_t{8} * 1024 * 1024;
constexpr int kLastRounds = 64;

/// Whether a call on a socket that does not block has failed for good.
bool isBroken() {
    return errno != EAGAIN && errno != EINTR;
}

/// Without wanted events the socket is left out, because poll() would report its end over and over.
pollfd waitFor(int socket, bool reading, bool writing) {
    short const events = static_cast<short>((reading ? POLLIN : 0) | (writing ? POLLOUT : 0));
    return {events != 0 ? socket : Flow::kNowhere, events, 0};
}

/// Whether to try what was waited for; what is wrong with the connection shows in trying.
bool isDue(pollfd const& wait, int event) {
    return (wait.events & event) != 0 && (wait.revents & (event | POLLERR | POLLHUP)) != 0;
}

bool isOver(Flow const& up, Flow const& down) {
    return down.ended() && (down.atEnd() == Flow::AtEnd::kLeave || up.ended());
}

}  // namespace

Flow::Flow(int from, int to, std::string ahead, AtEnd atEnd) : m_From(from), m_To(to), m_AtEnd(atEnd) {
    take(ahead.data(), ahead.size());
}

bool Flow::read() {
    std::array<char, kPieceBytes> piece;
    ssize_t const count = ::recv(m_From, piece.data(), piece.size(), MSG_DONTWAIT);
    if (count < 0) {
        return !isBroken();
    }
    m_SourceEnded = count == 0;
    take(piece.data(), static_cast<std::size_t>(count));
    tellEnd();
    return true;
}

bool Flow::write() {
    ssize_t const count = ::send(m_To, m_Waiting.data(), m_Waiting.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0) {
        return !isBroken();
    }
    m_Waiting.erase(0, static_cast<std::size_t>(count));
    tellEnd();
    return true;
}

void Flow::abandon() {
    m_SourceEnded = true;
    m_Waiting.clear();
}

void Flow::take(char const* bytes, std::size_t size) {
    std::size_t const most = m_To == kNowhere ? kMaxCollected : kMaxRemembered;
    m_Overflowed = m_To == kNowhere && size > most - m_Begin.size();
    m_Begin.append(bytes, std::min(size, most - m_Begin.size()));
    if (m_To != kNowhere) {
        m_Waiting.append(bytes, size);
    }
}

void Flow::tellEnd() {
    if (ended() && m_AtEnd == AtEnd::kTell) {
        ::shutdown(m_To, SHUT_WR);
    }
}

Outcome carry(Flow& up, Flow& down, RelayTimeouts const& timeouts, EndSignal const& ending) {
    int roundsLeft = kLastRounds;
    EndSignal::Clock::time_point quietUntil = EndSignal::Clock::time_point::max();
    while (!isOver(up, down)) {
        bool const stopping = ending.raised();
        if (stopping && --roundsLeft < 0) {
            return Outcome::kStopped;
        }
        std::array<pollfd, 2> waits = {
            waitFor(up.from(), up.wantsToRead() && !stopping, down.wantsToWrite()),
            waitFor(up.to(), down.wantsToRead() && up.started(), up.wantsToWrite()),
        };
        bool const responding = down.started() && down.to() != Flow::kNowhere;
        if (up.ended()) {
            quietUntil = EndSignal::Clock::now() + timeouts.m_IdleTimeout;
        }
        switch (ending.await(waits, responding ? quietUntil : std::min(timeouts.m_ResponseBy, quietUntil))) {
            case EndSignal::Wait::kReady:
                break;
            case EndSignal::Wait::kTimedOut:
                return Outcome::kTimedOut;
            case EndSignal::Wait::kEnded:
                return Outcome::kStopped;
        }
        auto const [client, target] = waits;
        if (isDue(target, POLLOUT) && !up.write()) {
            // Its response may be there all the same: a target that refuses a request need not read all of it.
            up.abandon();
        }
        // Stopping the service ends the client's direction as well. The target must not take that for the client's end.
        bool const clientGone = isDue(client, POLLIN) && !ending.raised() && !up.read();
        if (clientGone || (isDue(client, POLLOUT) && !down.write())) {
            return Outcome::kClientLost;
        }
        if (isDue(target, POLLIN) && !down.read()) {
            return Outcome::kTargetLost;
        }
        if (down.overflowed()) {
            return Outcome::kTooLong;
        }
    }
    return Outcome::kComplete;
}

}  // namespace sandbox
