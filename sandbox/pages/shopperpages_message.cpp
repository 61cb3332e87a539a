// The pages that show a message, in English: they are read by developers of a shop.
//
// Each page is a list of sections: the reason, advice chosen by HTTP status, the attributes of the message, DATA and
// SIGNATURE exactly as sent. A message that cannot be parsed is shown as text, with the reason.

#include <optional>

#include "sandbox/pages/shopperpages.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/httpstatus.h"
#include "sandbox/text/paymessage.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

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
    for (Advice const& advice : kAdvice) {
        if (advice.m_Status == status) {
            return advice.m_Text;
        }
    }
    return hasMessage ? kAdviceWithMessage : kAdviceWithoutMessage;
}

std::string messageSections(std::string const& data) {
    return section("message", "The message", attributesContent(data)) +
           section("data", "DATA, decoded", verbatim(data));
}

std::string signatureSection(std::string const& signature) {
    return section("signature", "SIGNATURE", verbatim(signature));
}

/// The sections for DATA and SIGNATURE of a query. Throws HttpError when the query cannot be parsed.
std::string signedSections(Query const& query) {
    std::optional<std::string> const data = query.value("DATA");
    std::optional<std::string> const signature = query.value("SIGNATURE");
    return (data ? messageSections(*data) : paragraph("The address contains no DATA.")) +
           (signature ? signatureSection(*signature) : paragraph("The address contains no SIGNATURE."));
}

}  // namespace

HttpResponse errorPage(int status, std::string const& reason, Exchange const& exchange) {
    bool const hasMessage = !exchange.m_Data.empty();
    return htmlPage(status, "Request rejected",
                    section("reason", "Reason", paragraph(reason)) +
                        section("advice", "What the merchant can do", paragraph(adviceFor(status, hasMessage))) +
                        (hasMessage ? messageSections(exchange.m_Data) : "") +
                        (exchange.m_Signature.empty() ? "" : signatureSection(exchange.m_Signature)));
}

HttpResponse decidedPage(int status, StoredPayment const& stored, std::string const& reason,
                         std::string const& address) {
    bool const tooLate = stored.m_Payment.m_State == PaymentState::kExpired;
    std::string const link = "<p><a href=\"" + escapeHtml(address) + "\">Back to the shop</a></p>\n";
    return htmlPage(status, tooLate ? "The payment has expired" : "The payment is already decided",
                    (address.empty() ? "" : link) + section("reason", "Reason", paragraph(reason)) +
                        messageSections(stored.m_Message));
}

HttpResponse outcomePage(Payment const& payment, std::string const& signedQuery) {
    return htmlPage(
        httpstatus::kOk, "The payment is " + std::string(stateName(payment.m_State)),
        paragraph("The merchant gave no return link. Such a link would have contained the following confirmation.") +
            signedSections(Query(signedQuery)) + section("query", "Query string", verbatim(signedQuery)));
}

HttpResponse returnedPage(HttpRequest const& request) {
    try {
        return htmlPage(httpstatus::kOk, "Back at the shop",
                        paragraph("A shop would verify this message here and check its RESULT. "
                                  "This page verifies nothing.") +
                            signedSections(request.m_Query));
    } catch (HttpError const& error) {
        return errorPage(error.status(), error.what(), {});
    }
}

std::string attributeTable(Attributes const& attributes) {
    std::string rows;
    for (auto const& [name, value] : attributes) {
        rows += "<tr><th scope=\"row\">" + escapeHtml(name) + "</th><td>" + escapeHtml(value) + "</td></tr>\n";
    }
    return "<table class=\"attributes\">\n<caption>Attributes</caption>\n<thead><tr><th "
           "scope=\"col\">Attribute</th><th scope=\"col\">Value</th></tr>"
           "</thead>\n<tbody>\n" +
           rows + "</tbody>\n</table>\n";
}

std::string attributesContent(std::string const& text) {
    try {
        return attributeTable(Message::parse(text).attributes());
    } catch (HttpError const& error) {
        return paragraph(std::string("The attributes cannot be read: ") + error.what() + ".");
    }
}

}  // namespace sandbox
