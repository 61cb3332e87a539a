#include "sandbox/pages/shopperpages.h"

#include <ctime>
#include <optional>

#include "sandbox/pages/languages.h"
#include "sandbox/pages/templates.h"
#include "sandbox/text/httpstatus.h"
#include "sandbox/text/utctime.h"

/// The payment page. Pages that show a message are in shopperpages_message.cpp.
namespace sandbox {

namespace {

std::string valueOr(Payment const& payment, char const* name, std::string const& otherwise) {
    std::string const value = payment.attribute(name).value_or("");
    return value.empty() ? otherwise : value;
}

}  // namespace

HttpResponse paymentPage(StoredPayment const& stored, std::string const& customer) {
    Payment const& payment = stored.m_Payment;
    Language const& language = languageFor(valueOr(payment, "LANGID", ""));
    auto const notGiven = language["notGiven"].get<std::string>();
    nlohmann::json content = {{"title", language["title"]},
                              {"language", language},
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
    return renderPage(httpstatus::kOk, "payment_page", content);
}

std::string amountText(Payment const& payment, std::string const& notGiven) {
    std::string const currency = valueOr(payment, "CURRENCY", "");
    return valueOr(payment, "AMOUNT", notGiven) + (currency.empty() ? "" : " " + currency);
}

std::string readableTime(std::string utc) {
    return replaceAll(replaceAll(utc, "T", " "), "Z", " UTC");
}

}  // namespace sandbox
