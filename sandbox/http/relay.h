#ifndef TALLOWIN_SANDBOX_HTTP_RELAY_H
#define TALLOWIN_SANDBOX_HTTP_RELAY_H

#include <cstddef>
#include <string>

#include "sandbox/http/endsignal.h"

/// Carrying bytes both ways between two sockets.
namespace sandbox {

/// One direction of a relay. Without a destination it keeps what comes. Used by one thread.
class Flow {
public:
    /// Stands for "no socket".
    static constexpr int kNowhere = -1;

    /// Whether the end of the source is passed on to the destination (half-close).
    enum class AtEnd { kTell, kLeave };

    /// Both sockets are borrowed. `ahead` came from the source before.
    Flow(int from, int to, std::string ahead, AtEnd atEnd);

    [[nodiscard]] int from() const { return m_From; }
    [[nodiscard]] int to() const { return m_To; }
    [[nodiscard]] AtEnd atEnd() const { return m_AtEnd; }

    [[nodiscard]] bool wantsToRead() const { return !m_SourceEnded && (m_To == kNowhere || m_Waiting.empty()); }
    [[nodiscard]] bool wantsToWrite() const { return !m_Waiting.empty(); }

    /// Whether the source has sent a byte, or ended.
    [[nodiscard]] bool started() const { return m_SourceEnded || !m_Begin.empty(); }

    /// Whether the source has ended and everything has arrived.
    [[nodiscard]] bool ended() const { return m_SourceEnded && m_Waiting.empty(); }

    /// Whether more bytes arrived than a flow without a destination keeps.
    [[nodiscard]] bool overflowed() const { return m_Overflowed; }

    /// The first bytes received, `ahead` included; without a destination, all of them.
    [[nodiscard]] std::string const& begin() const { return m_Begin; }

    /// Reads or writes as much as is possible without waiting. False when the connection is broken.
    bool read();
    bool write();

    /// Transfers nothing more.
    void abandon();

private:
    void take(char const* bytes, std::size_t size);
    void tellEnd();

    int m_From;
    int m_To;
    AtEnd m_AtEnd;
    std::string m_Waiting;  ///< Has been read and not yet written. Empty without a destination.
    std::string m_Begin;
    bool m_SourceEnded = false;
    bool m_Overflowed = false;
};

/// How the relay of one connection ended.
enum class Outcome { kComplete, kClientLost, kTargetLost, kTimedOut, kTooLong, kStopped };

/// How long a relay may take.
struct RelayTimeouts {
    EndSignal::Clock::time_point
        m_ResponseBy;  ///< The response must have begun by then; be complete when it is collected.

    /// Between two signs of life once nothing more comes up: the client waits for the response or has gone, which looks
    /// the same.
    EndSignal::Clock::duration m_IdleTimeout;
};

/// Carries `up`, from the client to the target, and `down`, the other direction. Nothing goes down before something has
/// come up. It is over when `down` has ended; when that end is passed on, both must have ended. Once `ending` is
/// raised, only what is at hand is carried.
Outcome carry(Flow& up, Flow& down, RelayTimeouts const& timeouts, EndSignal const& ending);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_RELAY_H
