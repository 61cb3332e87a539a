#include "sandbox/pages/shopperpages.h"

#include <ctime>
#include <optional>

#include "sandbox/pages/pagetexts.h"
#include "sandbox/text/utctime.h"

/// The pages made of payments; those that show a message stand in pages_message.cpp.
namespace sandbox {

namespace {

std::string decisionButton(std::string const& value, std::string const& label, std::string const& more = "") {
    return "<button name=\"decision\" value=\"" + value + "\"" + more + ">" + escapeHtml(label) + "</button>\n";
}

std::string valueOr(Payment const& payment, char const* name, std::string const& otherwise) {
    std::string const value = payment.attribute(name).value_or("");
    return value.empty() ? otherwise : value;
}

/// The end of the time to pay as HTML: readable in every language, "2024-01-31 23:59:07 UTC".
std::string expirationContent(std::string const& text) {
    std::optional<std::time_t> const moment = parseExpiration(text);
    if (!moment) {
        return escapeHtml(text);
    }
    std::string const machine = utcText(*moment);
    std::string shown = machine;
    shown.replace(shown.find('T'), 1, " ").replace(shown.find('Z'), 1, " UTC");
    return "<time datetime=\"" + machine + "\">" + shown + "</time>";
}

std::string orderData(Payment const& payment, std::string const& customer, Language const& language) {
    std::string const notGiven = language[PageText::NotGiven];
    std::string const description = valueOr(payment, "DESCRIPTION", "");
    return "<dl>\n" +
           entry(language[PageText::Amount], escapeHtml(amountText(payment, notGiven)), "<dd class=\"amount\">") +
           entry(language[PageText::Order], escapeHtml(valueOr(payment, "ORDERID", notGiven))) +
           (description.empty() ? "" : entry(language[PageText::Description], escapeHtml(description))) +
           entry(language[PageText::Merchant], escapeHtml(payment.account)) +
           entry(language[PageText::MerchantNumber], escapeHtml(customer)) +
           entry(language[PageText::PayableUntil], expirationContent(valueOr(payment, "EXPIRATION", notGiven))) +
           entry(language[PageText::PaymentNumber], escapeHtml(payment.id)) + "</dl>\n";
}

std::string decisionForm(PaymentRecord const& record, Language const& language) {
    return "<form method=\"post\" action=\"/pay/decision\">\n" + hiddenField("payment", record.payment.id) +
           hiddenField("key", record.formKey) + decisionButton("pay", language[PageText::Pay], " class=\"primary\"") +
           decisionButton("decline", language[PageText::Decline]) +
           decisionButton("cancel", language[PageText::Cancel]) + "</form>\n";
}

}  // namespace

HttpReply paymentPage(PaymentRecord const& record, std::string const& customer) {
    Payment const& payment = record.payment;
    Language const& language = languageFor(valueOr(payment, "LANGID", ""));
    return htmlPage(200, language[PageText::Title],
                    section("order", language[PageText::OrderHeading], orderData(payment, customer, language)) +
                        section("decision", language[PageText::DecisionHeading], decisionForm(record, language)),
                    language);
}

std::string amountText(Payment const& payment, std::string const& notGiven) {
    std::string const currency = valueOr(payment, "CURRENCY", "");
    return valueOr(payment, "AMOUNT", notGiven) + (currency.empty() ? "" : " " + currency);
}

}  // namespace sandbox
