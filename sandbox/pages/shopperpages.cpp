#include "sandbox/pages/shopperpages.h"

#include <ctime>
#include <optional>

#include "sandbox/pages/pagetexts.h"
#include "sandbox/text/httpstatus.h"
#include "sandbox/text/utctime.h"

/// The payment page. Pages that show a message are in shopperpages_message.cpp.
namespace sandbox {

namespace {

std::string decisionButton(std::string const& value, std::string const& label, std::string const& more = "") {
    return "<button name=\"decision\" value=\"" + value + "\"" + more + ">" + escapeHtml(label) + "</button>\n";
}

std::string valueOr(Payment const& payment, char const* name, std::string const& otherwise) {
    std::string const value = payment.attribute(name).value_or("");
    return value.empty() ? otherwise : value;
}

/// The expiration time as HTML, readable in every language: "2024-01-31 23:59:07 UTC".
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
    std::string const notGiven = language[PageText::kNotGiven];
    std::string const description = valueOr(payment, "DESCRIPTION", "");
    return "<dl>\n" +
           entry(language[PageText::kAmount], escapeHtml(amountText(payment, notGiven)), "<dd class=\"amount\">") +
           entry(language[PageText::kOrder], escapeHtml(valueOr(payment, "ORDERID", notGiven))) +
           (description.empty() ? "" : entry(language[PageText::kDescription], escapeHtml(description))) +
           entry(language[PageText::kMerchant], escapeHtml(payment.m_Account)) +
           entry(language[PageText::kMerchantNumber], escapeHtml(customer)) +
           entry(language[PageText::kPayableUntil], expirationContent(valueOr(payment, "EXPIRATION", notGiven))) +
           entry(language[PageText::kPaymentNumber], escapeHtml(payment.m_Id)) + "</dl>\n";
}

std::string decisionForm(StoredPayment const& stored, Language const& language) {
    return "<form method=\"post\" action=\"/pay/decision\">\n" + hiddenField("payment", stored.m_Payment.m_Id) +
           hiddenField("key", stored.m_FormKey) +
           decisionButton("pay", language[PageText::kPay], " class=\"primary\"") +
           decisionButton("decline", language[PageText::kDecline]) +
           decisionButton("cancel", language[PageText::kCancel]) + "</form>\n";
}

}  // namespace

HttpResponse paymentPage(StoredPayment const& stored, std::string const& customer) {
    Payment const& payment = stored.m_Payment;
    Language const& language = languageFor(valueOr(payment, "LANGID", ""));
    return htmlPage(httpstatus::kOk, language[PageText::kTitle],
                    section("order", language[PageText::kOrderHeading], orderData(payment, customer, language)) +
                        section("decision", language[PageText::kDecisionHeading], decisionForm(stored, language)),
                    language);
}

std::string amountText(Payment const& payment, std::string const& notGiven) {
    std::string const currency = valueOr(payment, "CURRENCY", "");
    return valueOr(payment, "AMOUNT", notGiven) + (currency.empty() ? "" : " " + currency);
}

}  // namespace sandbox
