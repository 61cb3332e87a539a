// The payment page, and the pages that show a message, which are in English: they are read by developers of a shop.
//
// One template for all that show a message: the reason, advice chosen by HTTP status, the attributes of the message,
// DATA and SIGNATURE exactly as sent. A message that cannot be parsed is shown as text, with the reason.

#include <ctime>
#include <optional>

#include "sandbox/pages/shopperpages.h"
#include "sandbox/pages/templates.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/paymessage.h"
#include "sandbox/text/rowwith.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

using nlohmann::json;

std::string valueOr(Payment const& payment, char const* name, std::string const& otherwise) {
    std::string const value = payment.attribute(name).value_or("");
    return value.empty() ? otherwise : value;
}

constexpr char kTemplate[] = "message_page";

/// What to do about an error.
struct Advice {
    int m_Status;
    char const* m_Text;
};

// clang-format off
constexpr Advice kAdvice[] = {
    {httpstatus::kForbidden, "Open the payment page again from the shop and use its buttons."},
    {httpstatus::kNotFound, "Check that the address or the form belongs to this service, and open the payment page again from the shop."},
    {httpstatus::kConflict, "Query the state of the payment before sending anything else for it. This request has not changed it."},
};
// clang-format on

constexpr char kAdviceWithMessage[] =
    "Compare the reason with the message below and correct the error. Then create and sign a new message, and send the "
    "shopper here again.";
constexpr char kAdviceWithoutMessage[] =
    "Compare the reason with the address or the form that was sent; it contains no message to show here. Then start "
    "again from the shop.";

char const* adviceFor(int status, bool hasMessage) {
    if (Advice const* const advice = rowWith(kAdvice, &Advice::m_Status, status)) {
        return advice->m_Text;
    }
    return hasMessage ? kAdviceWithMessage : kAdviceWithoutMessage;
}

/// Adds DATA and SIGNATURE of a query, or that it has none. Throws HttpError when the query cannot be parsed.
void addSigned(json& content, Query const& query) {
    std::optional<std::string> const data = query.value("DATA");
    std::optional<std::string> const signature = query.value("SIGNATURE");
    content["noData"] = !data;
    content["message"] = data ? messageContent(*data) : json();
    content["noSignature"] = !signature;
    content["signature"] = signature ? verbatim(*signature) : json();
}

/// "2024-01-31T23:59:07Z" as people read it in every language: "2024-01-31 23:59:07 UTC".
std::string readableTime(std::string utc) {
    return replaceAll(replaceAll(utc, "T", " "), "Z", " UTC");
}

/// The names and values for the template `attributes`.
json attributesContent(Attributes const& attributes) {
    json rows = json::array();
    for (auto const& [name, value] : attributes) {
        rows.push_back({{"name", name}, {"value", value}});
    }
    return rows;
}

}  // namespace

HttpResponse paymentPage(StoredPayment const& stored, std::string const& customer) {
    Payment const& payment = stored.m_Payment;
    Language const& language = languageFor(valueOr(payment, "LANGID", ""));
    auto const notGiven = language["notGiven"].get<std::string>();
    nlohmann::json content = {{"title", language["title"]},
                              {"amount", amountText(payment, notGiven)},
                              {"order", valueOr(payment, "ORDERID", notGiven)},
                              {"description", valueOr(payment, "DESCRIPTION", "")},
                              {"merchant", payment.m_Account},
                              {"customer", customer},
                              {"expiration", valueOr(payment, "EXPIRATION", notGiven)},
                              {"id", payment.m_Id},
                              {"formKey", stored.m_FormKey}};
    if (std::optional<std::time_t> const moment = parseExpiration(valueOr(payment, "EXPIRATION", ""))) {
        content["moment"] = utcText(*moment);
        content["expiration"] = readableTime(utcText(*moment));
    }
    return renderPage(httpstatus::kOk, "payment_page", content, language);
}

std::string amountText(Payment const& payment, std::string const& notGiven) {
    std::string const currency = valueOr(payment, "CURRENCY", "");
    return valueOr(payment, "AMOUNT", notGiven) + (currency.empty() ? "" : " " + currency);
}

HttpResponse errorPage(int status, std::string const& reason, Exchange const& exchange,
                       diagnosis::Explanation const& explanation) {
    std::string const& data = exchange.m_Data;
    std::string const& signature = exchange.m_Signature;
    json content = {{"title", "Request rejected"},
                    {"reason", reason},
                    {"advice", adviceFor(status, !data.empty())},
                    {"message", data.empty() ? json() : messageContent(data)},
                    {"signature", signature.empty() ? json() : verbatim(signature)}};
    if (!explanation.m_Sentence.empty()) {
        content["diagnosis"] = {{"sentence", explanation.m_Sentence}, {"change", explanation.m_Change}};
    }
    return renderPage(status, kTemplate, content);
}

HttpResponse decidedPage(int status, StoredPayment const& stored, std::string const& reason,
                         std::string const& address) {
    bool const tooLate = stored.m_Payment.m_State == PaymentState::kExpired;
    return renderPage(status, kTemplate,
                      {{"title", tooLate ? "The payment has expired" : "The payment is already decided"},
                       {"back", address},
                       {"reason", reason},
                       {"message", messageContent(stored.m_Message)}});
}

HttpResponse outcomePage(Payment const& payment, std::string const& signedQuery) {
    json content = {
        {"title", "The payment is " + std::string(stateName(payment.m_State))},
        {"lead", "The merchant gave no return link. Such a link would have contained the following confirmation."},
        {"query", verbatim(signedQuery)}};
    addSigned(content, Query(signedQuery));
    return renderPage(httpstatus::kOk, kTemplate, content);
}

HttpResponse returnedPage(HttpRequest const& request) {
    json content = {
        {"title", "Back at the shop"},
        {"lead", "A shop would verify this message here and check its RESULT. This page verifies nothing."}};
    try {
        addSigned(content, request.m_Query);
    } catch (HttpError const& error) {
        return errorPage(error.status(), error.what(), {});
    }
    return renderPage(httpstatus::kOk, kTemplate, content);
}

json messageContent(std::string const& text) {
    json content = verbatim(text);
    try {
        content["attributes"] = attributesContent(Message::parse(text).attributes());
        content["hasAttributes"] = true;
    } catch (HttpError const& error) {
        content["unreadable"] = std::string("The attributes cannot be read: ") + error.what() + ".";
    }
    return content;
}

}  // namespace sandbox
