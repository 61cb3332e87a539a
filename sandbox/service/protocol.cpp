#include "sandbox/service/protocol.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <utility>

#include "sandbox/pages/shopperpages.h"
#include "sandbox/text/refusal.h"
#include "sandbox/text/utctime.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr std::size_t kMostKept = 64 * 1024;

/// How an address answers a request that is turned down.
enum class RefusalForm { ErrorMessage, Page };

/// One address of the protocol.
struct Endpoint {
    char const* method;
    char const* path;
    HttpReply (*answer)(Call const& call);
    RefusalForm refusal;
};

// clang-format off
constexpr Endpoint kEndpoints[] = {
    {"GET",  "/auto",         answerAuto,     RefusalForm::ErrorMessage},
    {"GET",  "/pay",          answerPay,      RefusalForm::Page},
    {"POST", "/pay/decision", answerDecision, RefusalForm::Page},
    {"GET",  "/capture",      answerCapture,  RefusalForm::ErrorMessage},
};
// clang-format on

struct TypeRow {
    char const* type;
    ExchangeKind kind;
};

// clang-format off
constexpr TypeRow kTypes[] = {
    {"SetupRequest",        ExchangeKind::Setup},
    {"LoadDefaultsRequest", ExchangeKind::Defaults},
    {"KeyQueryRequest",     ExchangeKind::KeyQuery},
    {"KeyExportRequest",    ExchangeKind::KeyExport},
    {"PayInit",             ExchangeKind::Page},
    {"PayConfirm",          ExchangeKind::Capture},
    {"PayCompleteRequest",  ExchangeKind::Complete},
    {"StatusRequest",       ExchangeKind::Status},
};
// clang-format on

/// The payment page is asked for whatever the message is; elsewhere its type tells.
ExchangeKind kindOf(Endpoint const& endpoint, Message const& message) {
    if (endpoint.answer == answerPay) {
        return ExchangeKind::Page;
    }
    for (TypeRow const& row : kTypes) {
        if (message.type() == row.type && row.kind != ExchangeKind::Page) {
            return row.kind;
        }
    }
    return ExchangeKind::Other;
}

/// The order of the payment that the message names by its token, which is one of the account that the key belongs to.
std::string orderOf(Site const& site, Message const& message) {
    std::optional<MerchantKey> const key = site.store.merchantKey(message.find("KEYID").value_or(""));
    std::optional<std::string> const token = message.find("TOKEN");
    return key && token ? site.store.orderOfToken(key->account, *token) : "";
}

/// Notes what the request is about, from what it says of itself. What cannot be read stays unnoted: telling what is
/// wrong with the request comes later.
void identify(Site const& site, Endpoint const& endpoint, HttpRequest const& request, Exchange& record) {
    record.kind = endpoint.answer == answerPay ? ExchangeKind::Page : ExchangeKind::Other;
    if (endpoint.answer == answerDecision) {
        record.kind = ExchangeKind::Decision;
    }
    try {
        if (record.kind == ExchangeKind::Decision) {
            auto const payment = site.store.paymentById(Query(request.body).value("payment").value_or(""));
            record.order = payment ? payment->payment.attribute("ORDERID").value_or("") : "";
            return;
        }
        record.data = Query(request.query).value("DATA").value_or("");
        Message const message = Message::parse(record.data);
        record.kind = kindOf(endpoint, message);
        record.order = message.find("ORDERID").value_or(orderOf(site, message));
    } catch (Refusal const&) {
    }
}

/// What comes instead of the answer when the request is not to be carried out.
HttpReply failingReply(Fault const& fault) {
    if (fault.kind == FaultKind::Error) {
        return messageReply(errorMessage(textOf(fault)));
    }
    if (fault.kind == FaultKind::HttpStatus) {
        return {statusOf(fault), "text/plain; charset=utf-8", textOf(fault) + "\n"};
    }
    return {};
}

HttpReply otherMethodReply(Endpoint const& endpoint) {
    HttpReply reply{405, "text/plain; charset=utf-8", std::string(endpoint.path) + " takes " + endpoint.method + ".\n"};
    reply.allow = endpoint.method;
    return reply;
}

HttpReply refusedReply(Endpoint const& endpoint, Refusal const& refusal, Exchange const& record) {
    if (endpoint.refusal == RefusalForm::Page) {
        return refusalPage(refusal.status(), refusal.what(), record);
    }
    return messageReply(errorMessage(refusal.what()));
}

/// The answer with another type of message. Confirmations are made wrong where they are signed.
void mistakeType(HttpReply& reply) {
    Message const expected = Message::parse(reply.body);
    Message message(kUnexpectedType);
    for (auto const& [name, value] : expected.attributes()) {
        if (name != "MSGTYPE") {
            message.set(name, value);
        }
    }
    reply.body = message.text();
}

HttpReply carryOut(Endpoint const& endpoint, Call const& call) {
    try {
        HttpReply reply = endpoint.answer(call);
        if (call.fault && call.fault->kind == FaultKind::WrongType && endpoint.refusal == RefusalForm::ErrorMessage) {
            mistakeType(reply);
        }
        return reply;
    } catch (Refusal const& refusal) {
        call.record.verdict = refusal.what();
        call.record.steps.push_back({"Turned down", refusal.what(), false});
        return refusedReply(endpoint, refusal, call.record);
    }
}

/// Adds an exchange when it has ended.
class Record : public ExchangeLog {
public:
    Record(Store& store, Exchange exchange, std::int64_t begun, std::chrono::steady_clock::time_point begin)
        : m_Store(store), m_Exchange(std::move(exchange)), m_Begun(begun), m_Begin(begin) {}

    void answered(std::string const& answer) override {
        m_Exchange.answer = keptText(answer);
        m_Exchange.microseconds = microsecondsSince(m_Begin);
        m_Exchange.number = m_Store.addExchange(m_Exchange, m_Begun);
    }

    void delivered(Delivery const& delivery) override {
        if (!m_Exchange.fault.empty()) {
            m_Store.noteDelivery(m_Exchange.number, deliveryText(delivery, microsecondsSince(m_Begin)));
        }
    }

private:
    Store& m_Store;  ///< Borrowed.
    Exchange m_Exchange;
    std::int64_t m_Begun;
    std::chrono::steady_clock::time_point m_Begin;
};

/// The answer to a request that has been identified, or what a fault or a failure puts in its place.
HttpReply answerIdentified(Endpoint const& endpoint, Call const& call) {
    if (call.fault && !faultRow(call.fault->kind).carriedOut) {
        call.record.verdict = "not looked at";
        return failingReply(*call.fault);
    }
    try {
        return carryOut(endpoint, call);
    } catch (std::exception const& failure) {
        call.record.verdict = std::string("the sandbox failed: ") + failure.what();
        return failureReply(failure.what());
    }
}

HttpReply answerRecorded(Site const& site, Endpoint const& endpoint, HttpRequest const& request) {
    auto const begin = std::chrono::steady_clock::now();
    Exchange record;
    record.time = site.clock.text();
    record.path = request.path;
    record.verdict = "ok";
    record.request = keptRequest(request.raw);
    identify(site, endpoint, request, record);
    std::int64_t const begun = site.store.beginExchange(record);
    // The control port has no faults, and uses none up.
    bool const mayFail = request.baseUrl != site.addresses.control;
    std::optional<Fault> const fault = mayFail ? site.faults.take(record.kind, record.order) : std::nullopt;
    HttpReply reply = answerIdentified(endpoint, {site, request, record, fault});
    if (fault) {
        record.fault = faultText(*fault);
        reply.fault = fault;
    }
    reply.log = std::make_shared<Record>(site.store, std::move(record), begun, begin);
    return reply;
}

}  // namespace

std::optional<HttpReply> answerProtocol(Site const& site, HttpRequest const& request) {
    for (Endpoint const& endpoint : kEndpoints) {
        if (request.path == endpoint.path) {
            return request.method == endpoint.method ? answerRecorded(site, endpoint, request)
                                                     : otherMethodReply(endpoint);
        }
    }
    return std::nullopt;
}

HttpReply failureReply(std::string const& what) {
    return {500, "text/plain; charset=utf-8", "The sandbox failed: " + what + "\n"};
}

std::int64_t microsecondsSince(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - begin).count();
}

std::string deliveryText(Delivery const& delivery, std::int64_t microseconds) {
    return std::to_string(delivery.bytes) + " bytes, then " + (delivery.reset ? "a reset" : "the end") + ", after " +
           millisecondsText(microseconds);
}

std::string keptText(std::string const& text) {
    return text.size() <= kMostKept ? text : text.substr(0, kMostKept) + "... (cut)";
}

std::string keptRequest(std::string const& raw) {
    std::string kept;
    std::size_t from = 0;
    bool inHead = true;
    while (inHead && from < raw.size()) {
        std::size_t const lineEnd = std::min(raw.find('\n', from), raw.size() - 1) + 1;
        std::string line = raw.substr(from, lineEnd - from);
        std::string const name = "authorization:";
        bool covered = line.size() >= name.size();
        for (std::size_t at = 0; covered && at < name.size(); ++at) {
            covered = line[at] == name[at] || line[at] == name[at] - ('a' - 'A');
        }
        kept += covered ? "Authorization: (covered)\r\n" : line;
        inHead = line != "\r\n" && line != "\n";
        from = lineEnd;
    }
    return keptText(kept + raw.substr(std::min(from, raw.size())));
}

}  // namespace sandbox
