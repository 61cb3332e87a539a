// The addresses of the protocol: one table, and what all of them have in common.
// handleLogged() goes through these steps: parse (makeContext), find out what it is about (identify), report the
// request to the store as begun, take the fault that is armed for it, call the handler of the address (endpoints_auto,
// _pay, _capture), and attach the log that stores the exchange once the response is ready. What a request changes is on
// record together with the request, so that a kill before the response leaves a trace of it.
#include "sandbox/service/endpoints.h"

#include <chrono>
#include <cstddef>
#include <exception>
#include <memory>
#include <utility>

#include "diagnosis/diagnosis.h"
#include "diagnosis/explanation.h"
#include "sandbox/crypto/credentials.h"
#include "sandbox/crypto/signature.h"
#include "sandbox/pages/shopperpages.h"
#include "sandbox/service/contentcheck.h"
#include "sandbox/service/storedevidence.h"
#include "sandbox/text/rowwith.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

/// The bytes of the signature. Throws HttpError.
std::string takeSignature(Query const& query, Exchange& exchange) {
    std::optional<std::string> const text = query.value("SIGNATURE");
    if (!text || text->empty()) {
        throw HttpError("SIGNATURE is missing");
    }
    exchange.m_Signature = *text;
    std::optional<std::string> bytes = fromHex(*text);
    if (!bytes) {
        throw HttpError("SIGNATURE is not lower-case hexadecimal");
    }
    exchange.m_Steps.push_back({"SIGNATURE is hexadecimal", std::to_string(bytes->size()) + " bytes"});
    return *bytes;
}

/// Throws HttpError with what is wrong, as far as that can be found out.
void checkSignature(std::string const& keyId, std::string const& blob, std::string const& text,
                    std::string const& signature, Exchange& exchange) {
    KeyHolder const key = readPublicKeyBlob(blob);
    std::optional<std::string> const held = signedDigest(key.get(), signature);
    std::string const expected = digestOf(text, Widening::kZero);
    bool const good = held == expected;
    exchange.m_Steps.push_back({"Digest of DATA, each byte zero-extended to two", toHex(expected)});
    exchange.m_Steps.push_back({"Digest that SIGNATURE holds", held ? toHex(*held) : "none under this key", good});
    if (good) {
        return;
    }
    if (verifyText(key.get(), text, Widening::kSign, signature)) {
        throw HttpError("SIGNATURE was made over sign-extended bytes, a merchant signs zero-extended ones");
    }
    throw HttpError("SIGNATURE is not one of DATA under the key '" + keyId + "'");
}

/// How an address responds to a request that is turned down.
enum class ErrorForm { kErrorMessage, kPage };

constexpr char kPayPath[] = "/pay";

// The signature of a longer message is not explained: that would hold up the response.
constexpr std::size_t kMaxExplained = std::size_t{16} * 1024;

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
    {"GET",  kPayPath,        handlePay,      ErrorForm::kPage},
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
    {"PayConfirm",          ExchangeKind::kCapture},
    {"PayCompleteRequest",  ExchangeKind::kComplete},
    {"StatusRequest",       ExchangeKind::kStatus},
};
// clang-format on

/// A request to `/pay` asks for the payment page whatever its message is; elsewhere the type decides.
ExchangeKind kindOf(Endpoint const& endpoint, Message const& message) {
    if (endpoint.m_Handler == handlePay) {
        return ExchangeKind::kPage;
    }
    TypeRow const* const row = rowWith(kTypes, &TypeRow::m_Type, message.type());
    return row != nullptr ? row->m_Kind : ExchangeKind::kOther;
}

/// The account that the credentials name, which are not checked yet; empty when they cannot be read.
std::string accountOfCredentials(HttpRequest const& request) {
    try {
        std::string const user = readBasicHeader(request.m_Authorization).m_User;
        return user.find('\0') == std::string::npos ? user : "";
    } catch (HttpError const&) {
        return "";
    }
}

/// The payment that a posted form decides on; nothing when it names none.
std::optional<StoredPayment> paymentOfForm(Services const& services, Query const& form) {
    try {
        return services.m_Store.paymentById(form.value("payment").value_or(""), Store::History::kLeft);
    } catch (HttpError const&) {
        return std::nullopt;
    }
}

/// Reads the key of a signed message, and the payment that its token names when the message does not say all about it.
/// The payment is one of the account that the key belongs to.
void identifySigned(Endpoint const& endpoint, RequestContext& context, Message const& message) {
    Exchange& exchange = context.m_Exchange;
    Store& store = context.m_Services.m_Store;
    std::optional<std::string> const order = message.find("ORDERID");
    exchange.m_Token = message.find("TOKEN").value_or("");
    context.m_Signer = store.merchantKey(message.find("KEYID").value_or(""));
    if (context.m_Signer) {
        exchange.m_Account = context.m_Signer->m_Account;
        if (endpoint.m_Handler == handleCapture || !order) {
            context.m_Payment = store.paymentByToken(exchange.m_Account, exchange.m_Token, Store::History::kLeft);
        }
    }
    std::string const known =
        context.m_Payment ? context.m_Payment->m_Payment.attribute("ORDERID").value_or("") : std::string();
    exchange.m_Payment = context.m_Payment ? context.m_Payment->m_Payment.m_Id : "";
    exchange.m_Order = order.value_or(known);
}

/// Fills in what the request is about, from what it says of itself. What cannot be read stays empty: the handler
/// reports what is wrong with the request.
void identify(Endpoint const& endpoint, RequestContext& context) {
    Exchange& exchange = context.m_Exchange;
    if (endpoint.m_Handler == handleDecision) {
        exchange.m_Kind = ExchangeKind::kDecision;
        context.m_Payment = paymentOfForm(context.m_Services, context.m_Form);
        if (context.m_Payment) {
            Payment const& payment = context.m_Payment->m_Payment;
            exchange.m_Account = payment.m_Account;
            exchange.m_Order = payment.attribute("ORDERID").value_or("");
            exchange.m_Token = payment.m_Token;
            exchange.m_Payment = payment.m_Id;
        }
        return;
    }
    exchange.m_Kind = endpoint.m_Handler == handlePay ? ExchangeKind::kPage : ExchangeKind::kOther;
    exchange.m_Data = context.m_Data.value_or("");
    std::optional<Message> const& message = context.m_Message;
    if (message) {
        exchange.m_Kind = kindOf(endpoint, *message);
    }
    if (endpoint.m_Handler == handleAuto) {
        exchange.m_Account = accountOfCredentials(context.m_Request);
        exchange.m_Order = message ? message->find("ORDERID").value_or("") : "";
    } else if (message) {
        identifySigned(endpoint, context, *message);
    }
}

RequestContext makeContext(Services const& services, HttpRequest const& request, Exchange& exchange) {
    RequestContext context{services, request, exchange, Query(request.m_Body)};
    try {
        std::string const text = request.m_Query.value("DATA").value_or("");
        bool const isAccepted = services.m_Lenient && request.m_Path == kPayPath && isEncodedAgain(text);
        context.m_Data = isAccepted ? percentDecode(text).value_or(text) : text;
        if (isEncodedAgain(*context.m_Data)) {
            throw HttpError("DATA is percent-encoded twice");
        }
        context.m_Message = Message::parse(*context.m_Data);
    } catch (HttpError const& error) {
        context.m_Unreadable = error;
    }
    return context;
}

/// The response when the request is not to be carried out.
HttpResponse faultResponse(Fault const& fault) {
    if (fault.m_Kind == FaultKind::kError) {
        return messageResponse(errorMessage(textOf(fault)));
    }
    if (fault.m_Kind == FaultKind::kHttpStatus) {
        return plainResponse(statusOf(fault), textOf(fault));
    }
    return {};
}

HttpResponse methodNotAllowed(Endpoint const& endpoint) {
    HttpResponse response = plainResponse(httpstatus::kMethodNotAllowed,
                                          std::string(endpoint.m_Path) + " takes " + endpoint.m_Method + ".");
    response.m_Allow = endpoint.m_Method;
    return response;
}

/// What is wrong with the signature of a request; empty when it is valid, there is none, or the message is long.
diagnosis::Explanation explanationFor(Services const& services, Exchange const& exchange) {
    if (exchange.m_Data.empty() || exchange.m_Data.size() > kMaxExplained || exchange.m_Signature.empty()) {
        return {};
    }
    diagnosis::Evidence const evidence = storedEvidence(services);
    diagnosis::Diagnosis const result = diagnose(evidence, exchange.m_Data, exchange.m_Signature);
    return result.m_Right ? diagnosis::Explanation() : explain(evidence.m_Wording, result);
}

HttpResponse errorResponse(Endpoint const& endpoint, HttpError const& error, RequestContext const& context) {
    if (endpoint.m_ErrorForm == ErrorForm::kPage) {
        return errorPage(error.status(), error.what(), context.m_Exchange,
                         explanationFor(context.m_Services, context.m_Exchange));
    }
    return messageResponse(errorMessage(error.what()));
}

/// The response with another type of message. Confirmations are made wrong where they are signed.
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
        if (context.m_Effect.is(FaultKind::kWrongType) && endpoint.m_ErrorForm == ErrorForm::kErrorMessage) {
            mistakeType(response);
        }
        return response;
    } catch (HttpError const& error) {
        context.m_Exchange.m_Verdict = error.what();
        context.m_Exchange.m_Steps.push_back({"Turned down", error.what(), false});
        return errorResponse(endpoint, error, context);
    }
}

/// The response to a request that has been identified, or the response that a fault or a failure puts in its place.
HttpResponse handleIdentified(Endpoint const& endpoint, RequestContext const& context) {
    std::optional<Fault> const& fault = context.m_Effect.m_Fault;
    // A refusal of captures is for a payment whose merchant may ask for it: that is looked at first.
    bool const isLookedAt = context.m_Effect.is(FaultKind::kRefuseCapture);
    if (fault && !isLookedAt && !faultRow(fault->m_Kind).m_CarriedOut) {
        context.m_Exchange.m_Verdict = "not looked at";
        return faultResponse(*fault);
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
    auto stored = std::make_unique<Store::Request>(services.m_Store);
    Exchange exchange;
    exchange.m_Path = request.m_Path;
    exchange.m_Verdict = "ok";
    exchange.m_Request = keptRequest(request.m_Raw);
    RequestContext context = makeContext(services, request, exchange);
    identify(endpoint, context);
    exchange.m_Time = services.m_Clock.text(exchange.m_Account);
    stored->begin(exchange);
    // The control port has no faults, and uses none up.
    bool const mayFail = request.m_BaseUrl != services.m_Addresses.m_Control.m_Url;
    if (mayFail) {
        Payment const* const payment = context.m_Payment ? &context.m_Payment->m_Payment : nullptr;
        context.m_Effect =
            takeFault(services, exchange.m_Kind, exchange.m_Order, exchange.m_Account, payment, exchange.m_Steps);
    }
    HttpResponse response = handleIdentified(endpoint, context);
    if (std::optional<Fault> const& fault = context.m_Effect.m_Fault) {
        exchange.m_Fault = faultText(*fault);
        response.m_Fault = fault;
    }
    response.m_Log = std::make_shared<ExchangeLog>(services.m_Store, std::move(stored), std::move(exchange), begin);
    return response;
}

}  // namespace

std::string const& requireData(RequestContext const& context) {
    if (!context.m_Data) {
        throw HttpError(*context.m_Unreadable);
    }
    if (context.m_Data->empty()) {
        throw HttpError("DATA is missing");
    }
    context.m_Exchange.m_Steps.push_back(
        {"DATA is percent-encoded", std::to_string(context.m_Data->size()) + " bytes"});
    return *context.m_Data;
}

Message const& requireMessage(RequestContext const& context) {
    if (!context.m_Message) {
        throw HttpError(*context.m_Unreadable);
    }
    context.m_Exchange.m_Steps.push_back({"DATA is a message", context.m_Message->type()});
    return *context.m_Message;
}

SignedMessage openSignedMessage(RequestContext const& context) {
    std::string const& text = requireData(context);
    std::string const signature = takeSignature(context.m_Request.m_Query, context.m_Exchange);
    Message const& message = requireMessage(context);
    std::string const keyId = message.require("KEYID");
    std::optional<MerchantKey> const& key = context.m_Signer;
    if (!key) {
        throw HttpError("KEYID names no merchant key that was published here: '" + keyId + "'");
    }
    context.m_Exchange.m_Steps.push_back({"KEYID names a key", keyId + " of the account " + key->m_Account});
    checkSignature(keyId, key->m_Blob, text, signature, context.m_Exchange);
    return {message, text, key->m_Account};
}

std::optional<HttpResponse> handleProtocol(Services const& services, HttpRequest const& request) {
    for (Endpoint const& endpoint : kEndpoints) {
        if (request.m_Path == endpoint.m_Path) {
            return request.m_Method == endpoint.m_Method ? handleLogged(services, endpoint, request)
                                                         : methodNotAllowed(endpoint);
        }
    }
    return std::nullopt;
}

HttpResponse messageResponse(std::string const& text) {
    return {httpstatus::kOk, "text/xml", text};
}

HttpResponse failureResponse(std::string const& what) {
    return plainResponse(httpstatus::kInternalServerError, "The sandbox failed: " + what);
}

}  // namespace sandbox
