// One request to the proxy: read the head, connect, forward or tunnel, store the exchange.
// A plain request is forwarded as it comes. A response that a fault applies to is collected first, stored, and sent the
// way the fault wants it. The exchange of a tunnel is stored before its bytes flow.
// An error before the first byte of the response becomes a response with its status. After that the connection is
// reset, because a mere end would make a cut response look complete.
#include "sandbox/proxy/proxy.h"

#include <strings.h>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <optional>
#include <utility>

#include "sandbox/http/delivery.h"
#include "sandbox/http/exchangelog.h"
#include "sandbox/http/hostport.h"
#include "sandbox/http/httptext.h"
#include "sandbox/http/relay.h"
#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

using Clock = EndSignal::Clock;

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
        LocalSocket const target(hostPort, Clock::now() + m_Timeout, m_Ending);
        if (m_Fault && !m_Fault->m_Bytes) {
            // Without a given number the middle is that of the body, and this response has none.
            m_Fault->m_Bytes = sizeof kEstablished / 2;
        }
        send(kEstablished);
        if (m_Fault && !leavesTunnel(m_Fault->m_Kind)) {
            return;
        }
        Flow up(m_Connection.socket(), target.get(), request.m_Ahead, Flow::AtEnd::kTell);
        Flow down(target.get(), m_Connection.socket(), "", Flow::AtEnd::kTell);
        carry(up, down, {Clock::time_point::max(), m_Timeout}, m_Ending);
        if (!down.ended()) {
            // A mere end would look like the whole.
            m_Connection.reset();
        }
    }

    void forward(HttpAddress const& address, ProxyRequest const& request) {
        Clock::time_point const responseBy = Clock::now() + m_Timeout;
        LocalSocket const target(address.m_HostPort, responseBy, m_Ending);
        std::string const head = request.m_Method + " " + address.m_Target + " HTTP/1.0\r\n" + request.m_Fields;
        Flow up(m_Connection.socket(), target.get(), head + request.m_Ahead, Flow::AtEnd::kTell);
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
                deliveryText({m_Connection.written(), m_Connection.isReset()}, microsecondsSince(m_Begin)));
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
