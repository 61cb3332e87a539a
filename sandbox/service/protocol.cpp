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
#include "sandbox/text/httperror.h"
#include "sandbox/text/utctime.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr std::size_t kMostKept = 64 * 1024;

/// How an address answers a request that is turned down.
enum class ErrorForm { kErrorMessage, kPage };

/// One address of the protocol.
struct Endpoint {
    char const* m_Method;
    char const* m_Path;
    HttpResponse (*m_Handler)(RequestContext const& context);
    ErrorForm m_ErrorForm;
};

// clang-format off
constexpr Endpoint kEndpoints[] = {
    {"GET",  "/auto",         handleAuto,     ErrorForm::kErrorMessage},
    {"GET",  "/pay",          handlePay,      ErrorForm::kPage},
    {"POST", "/pay/decision", handleDecision, ErrorForm::kPage},
    {"GET",  "/capture",      handleCapture,  ErrorForm::kErrorMessage},
};
// clang-format on

struct TypeRow {
    char const* m_Type;
    ExchangeKind m_Kind;
};

// clang-format off
constexpr TypeRow kTypes[] = {
    {"SetupRequest",        ExchangeKind::kSetup},
    {"LoadDefaultsRequest", ExchangeKind::kDefaults},
    {"KeyQueryRequest",     ExchangeKind::kKeyQuery},
    {"KeyExportRequest",    ExchangeKind::kKeyExport},
    {"PayInit",             ExchangeKind::kPage},
    {"PayConfirm",          ExchangeKind::kCapture},
    {"PayCompleteRequest",  ExchangeKind::kComplete},
    {"StatusRequest",       ExchangeKind::kStatus},
};
// clang-format on

/// The payment page is asked for whatever the message is; elsewhere its type tells.
ExchangeKind kindOf(Endpoint const& endpoint, Message const& message) {
    if (endpoint.m_Handler == handlePay) {
        return ExchangeKind::kPage;
    }
    for (TypeRow const& row : kTypes) {
        if (message.type() == row.m_Type && row.m_Kind != ExchangeKind::kPage) {
            return row.m_Kind;
        }
    }
    return ExchangeKind::kOther;
}

/// The order of the payment that the message names by its token, which is one of the account that the key belongs to.
std::string orderOf(Services const& services, Message const& message) {
    std::optional<MerchantKey> const key = services.m_Store.merchantKey(message.find("KEYID").value_or(""));
    std::optional<std::string> const token = message.find("TOKEN");
    return key && token ? services.m_Store.orderOfToken(key->m_Account, *token) : "";
}

/// Notes what the request is about, from what it says of itself. What cannot be read stays unnoted: telling what is
/// wrong with the request comes later.
void identify(Services const& services, Endpoint const& endpoint, HttpRequest const& request, Exchange& exchange) {
    exchange.m_Kind = endpoint.m_Handler == handlePay ? ExchangeKind::kPage : ExchangeKind::kOther;
    if (endpoint.m_Handler == handleDecision) {
        exchange.m_Kind = ExchangeKind::kDecision;
    }
    try {
        if (exchange.m_Kind == ExchangeKind::kDecision) {
            auto const payment = services.m_Store.paymentById(Query(request.m_Body).value("payment").value_or(""));
            exchange.m_Order = payment ? payment->m_Payment.attribute("ORDERID").value_or("") : "";
            return;
        }
        exchange.m_Data = Query(request.m_Query).value("DATA").value_or("");
        Message const message = Message::parse(exchange.m_Data);
        exchange.m_Kind = kindOf(endpoint, message);
        exchange.m_Order = message.find("ORDERID").value_or(orderOf(services, message));
    } catch (HttpError const&) {
    }
}

/// What comes instead of the answer when the request is not to be carried out.
HttpResponse faultResponse(Fault const& fault) {
    if (fault.m_Kind == FaultKind::kError) {
        return messageResponse(errorMessage(textOf(fault)));
    }
    if (fault.m_Kind == FaultKind::kHttpStatus) {
        return {statusOf(fault), "text/plain; charset=utf-8", textOf(fault) + "\n"};
    }
    return {};
}

HttpResponse methodNotAllowed(Endpoint const& endpoint) {
    HttpResponse response{405, "text/plain; charset=utf-8",
                          std::string(endpoint.m_Path) + " takes " + endpoint.m_Method + ".\n"};
    response.m_Allow = endpoint.m_Method;
    return response;
}

HttpResponse errorResponse(Endpoint const& endpoint, HttpError const& error, Exchange const& exchange) {
    if (endpoint.m_ErrorForm == ErrorForm::kPage) {
        return errorPage(error.status(), error.what(), exchange);
    }
    return messageResponse(errorMessage(error.what()));
}

/// The answer with another type of message. Confirmations are made wrong where they are signed.
void mistakeType(HttpResponse& response) {
    Message const expected = Message::parse(response.m_Body);
    Message message(kUnexpectedType);
    for (auto const& [name, value] : expected.attributes()) {
        if (name != "MSGTYPE") {
            message.set(name, value);
        }
    }
    response.m_Body = message.text();
}

HttpResponse carryOut(Endpoint const& endpoint, RequestContext const& context) {
    try {
        HttpResponse response = endpoint.m_Handler(context);
        if (context.m_Fault && context.m_Fault->m_Kind == FaultKind::kWrongType &&
            endpoint.m_ErrorForm == ErrorForm::kErrorMessage) {
            mistakeType(response);
        }
        return response;
    } catch (HttpError const& error) {
        context.m_Exchange.m_Verdict = error.what();
        context.m_Exchange.m_Steps.push_back({"Turned down", error.what(), false});
        return errorResponse(endpoint, error, context.m_Exchange);
    }
}

/// Adds an exchange when it has ended.
class StoredExchangeLog : public ExchangeLog {
public:
    StoredExchangeLog(Store& store, Exchange exchange, std::int64_t begun, std::chrono::steady_clock::time_point begin)
        : m_Store(store), m_Exchange(std::move(exchange)), m_Begun(begun), m_Begin(begin) {}

    void responseReady(std::string const& response) override {
        m_Exchange.m_Response = keptText(response);
        m_Exchange.m_Microseconds = microsecondsSince(m_Begin);
        m_Exchange.m_Number = m_Store.addExchange(m_Exchange, m_Begun);
    }

    void responseSent(Delivery const& delivery) override {
        if (!m_Exchange.m_Fault.empty()) {
            m_Store.noteDelivery(m_Exchange.m_Number, deliveryText(delivery, microsecondsSince(m_Begin)));
        }
    }

private:
    Store& m_Store;  ///< Borrowed.
    Exchange m_Exchange;
    std::int64_t m_Begun;
    std::chrono::steady_clock::time_point m_Begin;
};

/// The answer to a request that has been identified, or what a fault or a failure puts in its place.
HttpResponse handleIdentified(Endpoint const& endpoint, RequestContext const& context) {
    if (context.m_Fault && !faultRow(context.m_Fault->m_Kind).m_CarriedOut) {
        context.m_Exchange.m_Verdict = "not looked at";
        return faultResponse(*context.m_Fault);
    }
    try {
        return carryOut(endpoint, context);
    } catch (std::exception const& failure) {
        context.m_Exchange.m_Verdict = std::string("the sandbox failed: ") + failure.what();
        return failureResponse(failure.what());
    }
}

HttpResponse handleLogged(Services const& services, Endpoint const& endpoint, HttpRequest const& request) {
    auto const begin = std::chrono::steady_clock::now();
    Exchange exchange;
    exchange.m_Time = services.m_Clock.text();
    exchange.m_Path = request.m_Path;
    exchange.m_Verdict = "ok";
    exchange.m_Request = keptRequest(request.m_Raw);
    identify(services, endpoint, request, exchange);
    std::int64_t const begun = services.m_Store.beginExchange(exchange);
    // The control port has no faults, and uses none up.
    bool const mayFail = request.m_BaseUrl != services.m_Addresses.m_Control;
    std::optional<Fault> const fault =
        mayFail ? services.m_Faults.take(exchange.m_Kind, exchange.m_Order) : std::nullopt;
    HttpResponse response = handleIdentified(endpoint, {services, request, exchange, fault});
    if (fault) {
        exchange.m_Fault = faultText(*fault);
        response.m_Fault = fault;
    }
    response.m_Log = std::make_shared<StoredExchangeLog>(services.m_Store, std::move(exchange), begun, begin);
    return response;
}

}  // namespace

std::optional<HttpResponse> handleProtocol(Services const& services, HttpRequest const& request) {
    for (Endpoint const& endpoint : kEndpoints) {
        if (request.m_Path == endpoint.m_Path) {
            return request.m_Method == endpoint.m_Method ? handleLogged(services, endpoint, request)
                                                         : methodNotAllowed(endpoint);
        }
    }
    return std::nullopt;
}

HttpResponse failureResponse(std::string const& what) {
    return {500, "text/plain; charset=utf-8", "The sandbox failed: " + what + "\n"};
}

std::int64_t microsecondsSince(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - begin).count();
}

std::string deliveryText(Delivery const& delivery, std::int64_t microseconds) {
    return std::to_string(delivery.m_Bytes) + " bytes, then " + (delivery.m_Reset ? "a reset" : "the end") +
           ", after " + millisecondsText(microseconds);
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
