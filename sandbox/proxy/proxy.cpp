// One request to the proxy: read the head, connect, forward or tunnel, store the exchange.
// A plain request is forwarded as it comes. A response that a fault applies to is collected first, stored, and sent the
// way the fault wants it. The exchange of a tunnel is stored before its bytes flow.
// An error before the first byte of the response becomes a response with its status. After that the connection is
// reset, because a mere end would make a cut response look complete.
// carry() relays both ways on one thread, with poll(). Each round waits for what the two flows can do next, then writes
// up, reads up, writes down and reads down. The order matters: when writing up fails, only that direction ends, since
// the target may have responded without reading everything.
// Odd: nothing goes down before something came up, so a target that speaks first is held back. After the service began
// to stop, at most kLastRounds more rounds carry what is at hand.
#include "sandbox/proxy/proxy.h"

#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <exception>
#include <optional>
#include <string>
#include <utility>

#include "sandbox/http/delivery.h"
#include "sandbox/http/endsignal.h"
#include "sandbox/http/httptext.h"
#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

using Clock = EndSignal::Clock;

constexpr std::size_t kPieceBytes = std::size_t{64} * 1024;
constexpr std::size_t kMaxRemembered = std::size_t{128} * 1024;  // of what goes on to a destination
constexpr std::size_t kMaxCollected = std::size_t{8} * 1024 * 1024;
constexpr int kLastRounds = 64;

/// Whether a call on a socket that does not block has failed for good.
bool isBroken() {
    return errno != EAGAIN && errno != EINTR;
}

/// One direction of a relay. Without a destination it keeps what comes. Used by one thread.
class Flow {
public:
    /// Stands for "no socket".
    static constexpr int kNowhere = -1;

    /// Whether the end of the source is passed on to the destination (half-close).
    enum class AtEnd { kPassOn, kLeave };

    /// Both sockets are borrowed. `ahead` came from the source before.
    Flow(int from, int to, std::string const& ahead, AtEnd atEnd) : m_From(from), m_To(to), m_AtEnd(atEnd) {
        take(ahead.data(), ahead.size());
    }

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
    bool read() {
        std::array<char, kPieceBytes> piece;
        ssize_t const count = ::recv(m_From, piece.data(), piece.size(), MSG_DONTWAIT);
        if (count < 0) {
            return !isBroken();
        }
        m_SourceEnded = count == 0;
        take(piece.data(), static_cast<std::size_t>(count));
        passOnEnd();
        return true;
    }
    bool write() {
        ssize_t const count = ::send(m_To, m_Waiting.data(), m_Waiting.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0) {
            return !isBroken();
        }
        m_Waiting.erase(0, static_cast<std::size_t>(count));
        passOnEnd();
        return true;
    }

    /// Transfers nothing more.
    void abandon() {
        m_SourceEnded = true;
        m_Waiting.clear();
    }

private:
    void take(char const* bytes, std::size_t size) {
        std::size_t const most = m_To == kNowhere ? kMaxCollected : kMaxRemembered;
        m_Overflowed = m_To == kNowhere && size > most - m_Begin.size();
        m_Begin.append(bytes, std::min(size, most - m_Begin.size()));
        if (m_To != kNowhere) {
            m_Waiting.append(bytes, size);
        }
    }
    void passOnEnd() const {
        if (ended() && m_AtEnd == AtEnd::kPassOn) {
            ::shutdown(m_To, SHUT_WR);
        }
    }

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
    Clock::time_point m_ResponseBy;  ///< The response must have begun by then; be complete when it is collected.

    /// Between two signs of life once nothing more comes up: the client waits for the response or has gone, which looks
    /// the same.
    Clock::duration m_IdleTimeout;
};

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

/// Carries `up`, from the client to the target, and `down`, the other direction. Nothing goes down before something has
/// come up. It is over when `down` has ended; when that end is passed on, both must have ended. Once `ending` is
/// raised, only what is at hand is carried.
Outcome carry(Flow& up, Flow& down, RelayTimeouts const& timeouts, EndSignal const& ending) {
    int roundsLeft = kLastRounds;
    Clock::time_point quietUntil = Clock::time_point::max();
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
            quietUntil = Clock::now() + timeouts.m_IdleTimeout;
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

/// Merchants read it with one call and begin TLS right after it: it is short, and nothing follows it.
constexpr char kEstablished[] = "HTTP/1.0 200 Connection established\r\n\r\n";

constexpr std::size_t kMaxFieldBytes = std::size_t{64} * 1024;

/// The response when the fault keeps the request from the target.
std::string faultResponse(Fault const& fault) {
    switch (fault.m_Kind) {
        case FaultKind::kProxyAuthentication:
            return textResponse(httpstatus::kProxyAuthenticationRequired, "the proxy asks for credentials",
                                "Proxy-Authenticate: Basic realm=\"sandbox\"\r\n");
        case FaultKind::kHttpStatus:
            return textResponse(statusOf(fault), textOf(fault));
        default:
            return "";
    }
}

bool leavesTunnel(FaultKind kind) {
    return kind == FaultKind::kDelay || kind == FaultKind::kBytewise;
}

/// The error of a request whose response has not begun.
HttpError errorFor(Outcome outcome, HostPort const& hostPort) {
    switch (outcome) {
        case Outcome::kTimedOut:
            return HttpError(hostPort.text() + " does not answer", httpstatus::kGatewayTimeout);
        case Outcome::kTooLong:
            return HttpError("the answer of " + hostPort.text() + " is too long for a fault", httpstatus::kBadGateway);
        default:
            return HttpError("the sandbox is stopping", httpstatus::kServiceUnavailable);
    }
}

char const* lossOf(Outcome outcome) {
    switch (outcome) {
        case Outcome::kClientLost:
            return "the client reset the connection";
        case Outcome::kTargetLost:
            return "the target reset the connection";
        default:
            return "the sandbox stopped within the answer";
    }
}

/// The parts of a request to the proxy.
struct ProxyRequest {
    std::string m_Line;    ///< The first line, with its line end.
    std::string m_Method;  ///< In it.
    std::string m_Target;  ///< In it, as it came.
    std::string m_Fields;  ///< The header lines and the empty one, without the credentials for the proxy.
    std::string m_Ahead;   ///< What was read together with the head and follows it.
};

/// Reads on until the head is complete and returns its length. Throws HttpError when it does not become so.
std::size_t completeHead(Connection& connection, std::string& text) {
    std::size_t const longest = text.find('\n') + kMaxFieldBytes;
    std::optional<std::size_t> end = bodyBegin(text);
    while (!end) {
        if (text.size() > longest) {
            throw HttpError("the head of the request is too long");
        }
        char piece[4096];
        ssize_t const count = connection.read(piece, sizeof piece);
        if (count <= 0) {
            throw HttpError("the request ended within its head");
        }
        text.append(piece, static_cast<std::size_t>(count));
        end = bodyBegin(text);
    }
    return *end;
}

/// `fields` without the credentials for the proxy, which are neither forwarded nor stored.
std::string withoutProxyCredentials(std::string const& fields) {
    std::string const name = "Proxy-Authorization:";
    std::string kept;
    std::size_t from = 0;
    while (from < fields.size()) {
        std::size_t const to = std::min(fields.find('\n', from), fields.size() - 1) + 1;
        if (::strncasecmp(fields.c_str() + from, name.c_str(), name.size()) != 0) {
            kept.append(fields, from, to - from);
        }
        from = to;
    }
    return kept;
}

/// Splits the first line, given without its line end. Throws HttpError.
ProxyRequest splitLine(std::string const& line) {
    std::optional<RequestLine> const parsed = parseRequestLine(line);
    if (!parsed || parsed->m_Method.empty() || (parsed->m_Version != "HTTP/1.0" && parsed->m_Version != "HTTP/1.1")) {
        throw HttpError("the request line does not have the form METHOD ADDRESS HTTP/1.0");
    }
    std::size_t const from = parsed->m_Method.size() + 1;
    ProxyRequest request;
    request.m_Method = parsed->m_Method;
    // The parsed target has lost its scheme and its authority.
    request.m_Target = line.substr(from, line.size() - from - parsed->m_Version.size() - 1);
    if (request.m_Target.compare(0, 1, "/") == 0) {
        throw HttpError("this is a proxy: it takes an address that begins with http://, or CONNECT and host:port");
    }
    return request;
}

/// Reads the head of a request whose beginning, its first line if there is one, is `text`. Throws HttpError.
ProxyRequest readProxyRequest(Connection& connection, std::string text) {
    std::size_t const lineEnd = text.find('\n');
    if (lineEnd == std::string::npos) {
        throw HttpError("the request ended within its first line");
    }
    std::size_t const length = lineEnd > 0 && text[lineEnd - 1] == '\r' ? lineEnd - 1 : lineEnd;
    ProxyRequest request = splitLine(text.substr(0, length));
    std::size_t const end = completeHead(connection, text);
    request.m_Line = text.substr(0, lineEnd + 1);
    request.m_Fields = withoutProxyCredentials(text.substr(lineEnd + 1, end - lineEnd - 1));
    request.m_Ahead = text.substr(end);
    return request;
}

/// One request while it is served.
class ProxySession {
public:
    ProxySession(Services const& services, Connection& connection, std::chrono::milliseconds timeout)
        : m_Services(services), m_Connection(connection), m_Timeout(timeout) {
        m_Exchange.m_Kind = ExchangeKind::kProxy;
        m_Exchange.m_Time = services.m_Clock.text();
        m_Exchange.m_Verdict = "ok";
    }

    void serve() {
        try {
            std::string text = readFirstLine(m_Connection);
            if (!text.empty()) {
                handleOrRefuse(std::move(text));
            }
        } catch (std::exception const& failure) {
            if (m_Responding) {
                m_Connection.reset();
                return;
            }
            deliver(m_Connection, failureText(failure.what()), std::nullopt);
        }
    }

private:
    void handleOrRefuse(std::string text) {
        try {
            m_Exchange.m_Request = keptRequest(text.substr(0, text.find('\n')));
            if (text.size() > kMaxRequestLine && text.find('\n') == std::string::npos) {
                throw HttpError("the request line is too long", httpstatus::kUriTooLong);
            }
            ProxyRequest const request = readProxyRequest(m_Connection, std::move(text));
            m_Begin = Clock::now();
            m_Exchange.m_Request = keptRequest(request.m_Line + request.m_Fields + request.m_Ahead);
            request.m_Method == "CONNECT" ? handleConnect(request) : handlePlain(request);
        } catch (HttpError const& error) {
            m_Exchange.m_Verdict = error.what();
            send(textResponse(error.status(), error.what()));
        }
    }

    void handleConnect(ProxyRequest const& request) {
        HostPort const hostPort = parseHostPort(request.m_Target, std::nullopt);
        m_Exchange.m_Path = keptText("CONNECT " + hostPort.text());
        if (!failsBefore()) {
            tunnel(hostPort, request);
        }
    }

    void handlePlain(ProxyRequest const& request) {
        HttpAddress const address = parseHttpAddress(request.m_Target);
        m_Exchange.m_Path = keptText(request.m_Target.substr(0, request.m_Target.find('?')));
        if (!failsBefore()) {
            forward(address, request);
        }
    }

    /// Takes the fault that is armed for this request; true when the response was sent without the target.
    bool failsBefore() {
        m_Fault = m_Services.m_Faults.take(ExchangeKind::kProxy, "");
        if (!m_Fault) {
            return false;
        }
        m_Exchange.m_Fault = faultText(*m_Fault);
        if (faultRow(m_Fault->m_Kind).m_CarriedOut) {
            return false;
        }
        m_Exchange.m_Verdict = "not looked at";
        send(faultResponse(*m_Fault));
        return true;
    }

    void tunnel(HostPort const& hostPort, ProxyRequest const& request) {
        FileDescriptor const target = connectLocally(hostPort, Clock::now() + m_Timeout, m_Ending);
        if (m_Fault && !m_Fault->m_Bytes) {
            // Without a given number the middle is that of the body, and this response has none.
            m_Fault->m_Bytes = sizeof kEstablished / 2;
        }
        send(kEstablished);
        if (m_Fault && !leavesTunnel(m_Fault->m_Kind)) {
            return;
        }
        Flow up(m_Connection.socket(), target.get(), request.m_Ahead, Flow::AtEnd::kPassOn);
        Flow down(target.get(), m_Connection.socket(), "", Flow::AtEnd::kPassOn);
        carry(up, down, {Clock::time_point::max(), m_Timeout}, m_Ending);
        if (!down.ended()) {
            // A mere end would look like the whole.
            m_Connection.reset();
        }
    }

    void forward(HttpAddress const& address, ProxyRequest const& request) {
        Clock::time_point const responseBy = Clock::now() + m_Timeout;
        FileDescriptor const target = connectLocally(address.m_HostPort, responseBy, m_Ending);
        std::string const head = request.m_Method + " " + address.m_Target + " HTTP/1.0\r\n" + request.m_Fields;
        Flow up(m_Connection.socket(), target.get(), head + request.m_Ahead, Flow::AtEnd::kPassOn);
        // A response that a fault applies to is collected first; any other is forwarded as it comes.
        Flow down(target.get(), m_Fault ? Flow::kNowhere : m_Connection.socket(), "", Flow::AtEnd::kLeave);
        Outcome const outcome = carry(up, down, {responseBy, m_Timeout}, m_Ending);
        std::string const body = up.begin().size() > head.size() ? up.begin().substr(head.size()) : "";
        m_Exchange.m_Request = keptRequest(request.m_Line + request.m_Fields + body);
        finish(outcome, address.m_HostPort, down.begin());
    }

    /// `received` has been sent to the client already unless there is a fault.
    void finish(Outcome outcome, HostPort const& hostPort, std::string const& received) {
        bool const lost = outcome == Outcome::kClientLost || outcome == Outcome::kTargetLost;
        m_Responding = !m_Fault && !received.empty();
        if (outcome == Outcome::kComplete && m_Fault) {
            send(received);
        } else if (outcome == Outcome::kComplete) {
            storeExchange(received);
        } else if (lost || m_Responding) {
            // A mere end would make the client take the part for the whole.
            m_Connection.reset();
            m_Exchange.m_Verdict = lossOf(outcome);
            storeExchange(received);
        } else {
            throw errorFor(outcome, hostPort);
        }
    }

    /// Stores the exchange and sends the response the way the fault wants it.
    void send(std::string const& text) {
        storeExchange(text);
        m_Responding = true;
        deliver(m_Connection, text, m_Fault);
        if (m_Fault) {
            m_Services.m_Store.setDelivery(
                m_Exchange.m_Number,
                deliveryText(m_Connection.written(), m_Connection.isReset(), microsecondsSince(m_Begin)));
        }
    }

    void storeExchange(std::string const& response) {
        m_Exchange.m_Response = keptText(response);
        m_Exchange.m_Microseconds = microsecondsSince(m_Begin);
        m_Exchange.m_Number = m_Services.m_Store.addExchange(m_Exchange);
    }

    Services const& m_Services;  ///< Borrowed, as is all that has an "&".
    Connection& m_Connection;    ///< To the client.
    std::chrono::milliseconds m_Timeout;
    EndSignal const& m_Ending = m_Connection.ending();
    Clock::time_point m_Begin = Clock::now();  ///< When the request was complete.
    Exchange m_Exchange;
    std::optional<Fault> m_Fault;
    bool m_Responding = false;  ///< A part of the response has been sent.
};

}  // namespace

void serveProxyRequest(Services const& services, Connection& connection, std::chrono::milliseconds timeout) {
    ProxySession(services, connection, timeout).serve();
}

}  // namespace sandbox
