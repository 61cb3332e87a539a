#include "sandbox/proxy/proxy.h"

#include <cstddef>
#include <exception>
#include <optional>
#include <utility>

#include "sandbox/http/connection.h"
#include "sandbox/http/delivery.h"
#include "sandbox/http/httptext.h"
#include "sandbox/http/links.h"
#include "sandbox/http/localsocket.h"
#include "sandbox/http/relay.h"
#include "sandbox/http/requeststream.h"
#include "sandbox/proxy/proxyrequest.h"
#include "sandbox/service/protocol.h"
#include "sandbox/text/refusal.h"

namespace sandbox {

namespace {

using Clock = EndSignal::Clock;

constexpr int kAuthenticate = 407;
constexpr int kLineTooLong = 414;
constexpr int kFailed = 500;
constexpr int kBadGateway = 502;
constexpr int kUnavailable = 503;
constexpr int kTooLate = 504;

/// Merchants read it at one go and begin to speak TLS right then: it is short, and nothing comes behind it.
constexpr char kEstablished[] = "HTTP/1.0 200 Connection established\r\n\r\n";

/// What comes instead of the answer when nothing is to be asked of the target.
std::string failingAnswer(Fault const& fault) {
    switch (fault.kind) {
        case FaultKind::ProxyAuthentication:
            return textAnswer(kAuthenticate, "the proxy asks for credentials",
                              "Proxy-Authenticate: Basic realm=\"sandbox\"\r\n");
        case FaultKind::HttpStatus:
            return textAnswer(statusOf(fault), textOf(fault));
        default:
            return "";
    }
}

bool leavesTunnel(FaultKind kind) {
    return kind == FaultKind::Delay || kind == FaultKind::Bytewise;
}

/// The answer to a request of which nothing has been answered.
Refusal refusalOf(Outcome outcome, Place const& place) {
    switch (outcome) {
        case Outcome::TooLate:
            return Refusal(place.text() + " does not answer", kTooLate);
        case Outcome::TooLong:
            return Refusal("the answer of " + place.text() + " is too long for a fault", kBadGateway);
        default:
            return Refusal("the sandbox is stopping", kUnavailable);
    }
}

char const* lossOf(Outcome outcome) {
    switch (outcome) {
        case Outcome::ClientLost:
            return "the client reset the connection";
        case Outcome::TargetLost:
            return "the target reset the connection";
        default:
            return "the sandbox stopped within the answer";
    }
}

/// One request while it is served.
class ProxyTurn {
public:
    ProxyTurn(Site const& site, Connection& connection, std::chrono::milliseconds patience, EndSignal const& ending)
        : m_Site(site), m_Connection(connection), m_Patience(patience), m_Ending(ending) {
        m_Record.kind = ExchangeKind::Proxy;
        m_Record.time = site.clock.text();
        m_Record.verdict = "ok";
    }

    void serve() {
        try {
            std::string text = readFirstLine(m_Connection);
            if (!text.empty()) {
                answerOrRefuse(std::move(text));
            }
        } catch (std::exception const& failure) {
            if (m_Answering) {
                m_Connection.reset();
                return;
            }
            deliver(m_Connection, textAnswer(kFailed, std::string("The sandbox failed: ") + failure.what()),
                    std::nullopt);
        }
    }

private:
    void answerOrRefuse(std::string text) {
        try {
            m_Record.request = keptRequest(text.substr(0, text.find('\n')));
            if (text.size() > kLongestRequestLine && text.find('\n') == std::string::npos) {
                throw Refusal("the request line is too long", kLineTooLong);
            }
            ProxyRequest const request = readProxyRequest(m_Connection, std::move(text));
            m_Begin = Clock::now();
            m_Record.request = keptRequest(request.line + request.fields + request.ahead);
            request.method == "CONNECT" ? answerConnect(request) : answerPlain(request);
        } catch (Refusal const& refusal) {
            m_Record.verdict = refusal.what();
            answer(textAnswer(refusal.status(), refusal.what()));
        }
    }

    void answerConnect(ProxyRequest const& request) {
        Place const place = parsePlace(request.target, std::nullopt);
        m_Record.path = keptText("CONNECT " + place.text());
        if (!failsBefore()) {
            tunnel(place, request);
        }
    }

    void answerPlain(ProxyRequest const& request) {
        HttpAddress const address = parseHttpAddress(request.target);
        m_Record.path = keptText(request.target.substr(0, request.target.find('?')));
        if (!failsBefore()) {
            forward(address, request);
        }
    }

    /// Takes the fault that is armed for this request; true when it has been answered without the target.
    bool failsBefore() {
        m_Fault = m_Site.faults.take(ExchangeKind::Proxy, "");
        if (!m_Fault) {
            return false;
        }
        m_Record.fault = faultText(*m_Fault);
        if (faultRow(m_Fault->kind).carriedOut) {
            return false;
        }
        m_Record.verdict = "not looked at";
        answer(failingAnswer(*m_Fault));
        return true;
    }

    void tunnel(Place const& place, ProxyRequest const& request) {
        LocalSocket const target(place, Clock::now() + m_Patience, m_Ending);
        if (m_Fault && !m_Fault->bytes) {
            // Unless told otherwise the middle of an answer is that of its body, and here is none.
            m_Fault->bytes = sizeof kEstablished / 2;
        }
        answer(kEstablished);
        if (m_Fault && !leavesTunnel(m_Fault->kind)) {
            return;
        }
        Flow up(m_Connection.socket(), target.get(), request.ahead, Flow::AtEnd::Tell);
        Flow down(target.get(), m_Connection.socket(), "", Flow::AtEnd::Tell);
        carry(up, down, {Clock::time_point::max(), m_Patience}, m_Ending);
        if (!down.ended()) {
            // A mere end would say that this was all.
            m_Connection.reset();
        }
    }

    void forward(HttpAddress const& address, ProxyRequest const& request) {
        Clock::time_point const answerBy = Clock::now() + m_Patience;
        LocalSocket const target(address.place, answerBy, m_Ending);
        std::string const head = request.method + " " + address.target + " HTTP/1.0\r\n" + request.fields;
        Flow up(m_Connection.socket(), target.get(), head + request.ahead, Flow::AtEnd::Tell);
        // An answer that a fault happens to is collected first; any other goes on as it comes.
        Flow down(target.get(), m_Fault ? Flow::kNowhere : m_Connection.socket(), "", Flow::AtEnd::Leave);
        Outcome const outcome = carry(up, down, {answerBy, m_Patience}, m_Ending);
        std::string const body = up.begin().size() > head.size() ? up.begin().substr(head.size()) : "";
        m_Record.request = keptRequest(request.line + request.fields + body);
        finish(outcome, address.place, down.begin());
    }

    /// `answered` has been sent unless there is a fault.
    void finish(Outcome outcome, Place const& place, std::string const& answered) {
        bool const lost = outcome == Outcome::ClientLost || outcome == Outcome::TargetLost;
        m_Answering = !m_Fault && !answered.empty();
        if (outcome == Outcome::Complete && m_Fault) {
            answer(answered);
        } else if (outcome == Outcome::Complete) {
            record(answered);
        } else if (lost || m_Answering) {
            // A client that found a mere end would take what it has for all of it.
            m_Connection.reset();
            m_Record.verdict = lossOf(outcome);
            record(answered);
        } else {
            throw refusalOf(outcome, place);
        }
    }

    /// Records the exchange and sends the answer the way the fault wants it.
    void answer(std::string const& text) {
        record(text);
        m_Answering = true;
        deliver(m_Connection, text, m_Fault);
        if (m_Fault) {
            m_Site.store.noteDelivery(m_Record.number, deliveryText({m_Connection.written(), m_Connection.isReset()},
                                                                    microsecondsSince(m_Begin)));
        }
    }

    void record(std::string const& answer) {
        m_Record.answer = keptText(answer);
        m_Record.microseconds = microsecondsSince(m_Begin);
        m_Record.number = m_Site.store.addExchange(m_Record);
    }

    Site const& m_Site;        ///< Borrowed, as is all that has an "&".
    Connection& m_Connection;  ///< To the client.
    std::chrono::milliseconds m_Patience;
    EndSignal const& m_Ending;
    Clock::time_point m_Begin = Clock::now();  ///< When the request was complete.
    Exchange m_Record;
    std::optional<Fault> m_Fault;
    bool m_Answering = false;  ///< Something of the answer has been sent.
};

}  // namespace

Proxy::Proxy(std::uint16_t port, Site const& site, Patience patience)
    : m_Site(site), m_Patience(patience), m_Acceptor(port) {}

Proxy::~Proxy() {
    stop();
}

std::string Proxy::baseUrl() const {
    return "http://127.0.0.1:" + std::to_string(port());
}

void Proxy::start() {
    m_Acceptor.start([this](int socket) { serve(socket); });
}

void Proxy::refuseUntil(Acceptor::Clock::time_point moment) {
    m_Acceptor.refuseUntil(moment);
}

void Proxy::stop() {
    m_Acceptor.stop();
}

void Proxy::serve(int socket) {
    Connection connection(socket, nullptr, m_Acceptor.ending(), m_Patience.request);
    ProxyTurn(m_Site, connection, m_Patience.answer, m_Acceptor.ending()).serve();
}

}  // namespace sandbox
