// The control API's addresses for everything but faults: status, payments, exchanges, keys, accounts, clock.
//
// Payments are expired first when they are overdue, so that a response never shows an outdated state. Setting the clock
// wakes the notifier, which then expires payments and sends their notifications.

#include <algorithm>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "sandbox/control/controljson.h"
#include "sandbox/control/controlroutes.h"
#include "sandbox/crypto/signature.h"
#include "sandbox/service/notifier.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/httpstatus.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

nlohmann::json addressesJson(Addresses const& addresses) {
    nlohmann::json out = {{"plain", addresses.m_Plain}, {"control", addresses.m_Control}};
    if (!addresses.m_Tls.empty()) {
        out["tls"] = addresses.m_Tls;
    }
    if (!addresses.m_Proxy.empty()) {
        out["proxy"] = addresses.m_Proxy;
    }
    return out;
}

nlohmann::json clockJson(Services const& services) {
    return {{"present", services.m_Clock.text()}, {"ahead", services.m_Clock.ahead()}};
}

/// Exchanges are numbered from 1 and never removed.
std::int64_t exchangeCount(Services const& services) {
    std::vector<Exchange> const latest = services.m_Store.latestExchanges(1);
    return latest.empty() ? 0 : latest.front().m_Number;
}

nlohmann::json countsJson(Services const& services) {
    return {{"accounts", services.m_Store.accounts().size()},
            {"payments", services.m_Store.payments().size()},
            {"notifications", services.m_Store.notifications().size()},
            {"exchanges", exchangeCount(services)},
            {"serverKeys", services.m_Keys.all().size()},
            {"merchantKeys", services.m_Store.merchantKeys().size()},
            {"faults", services.m_Faults.armed().size()},
            {"warnings", services.m_Store.warningCount()}};
}

/// Conditions on payments from the query; an absent one matches all.
struct PaymentFilter {
    std::optional<std::string> m_Order;
    std::optional<std::string> m_Id;
    std::optional<std::string> m_State;

    [[nodiscard]] bool admits(Payment const& payment) const {
        return (!m_Id || payment.m_Id == *m_Id) && (!m_State || stateName(payment.m_State) == *m_State) &&
               (!m_Order || payment.attribute("ORDERID").value_or("") == *m_Order);
    }
};

PaymentFilter readFilter(Query const& query) {
    PaymentFilter const filter{query.value("order"), query.value("id"), query.value("state")};
    if (filter.m_State) {
        try {
            stateFromName(*filter.m_State);
        } catch (std::runtime_error const&) {
            throw HttpError("unknown payment state '" + *filter.m_State + "'");
        }
    }
    return filter;
}

std::int64_t readAfter(Query const& query) {
    std::string const text = query.value("after").value_or("0");
    std::optional<std::int64_t> const after = wholeNumber(text);
    if (!after) {
        throw HttpError("after must be the number of an exchange, not '" + text + "'");
    }
    return *after;
}

void checkAccount(std::string const& user, std::string const& password) {
    if (user.empty() || user.find(':') != std::string::npos) {
        throw HttpError("the user name must not be empty or contain a colon, which separates it from the password");
    }
    if (user.find('\0') != std::string::npos || password.find('\0') != std::string::npos) {
        throw HttpError("user and password must not contain a zero byte, which merchants cannot send");
    }
}

}  // namespace

HttpResponse getStatus(Services const& services, HttpRequest const&) {
    return jsonResponse(httpstatus::kOk, {{"addresses", addressesJson(services.m_Addresses)},
                                          {"serverKeyId", services.m_Keys.current()->m_Id},
                                          {"clock", clockJson(services)},
                                          {"counts", countsJson(services)}});
}

HttpResponse getPayments(Services const& services, HttpRequest const& request) {
    PaymentFilter const filter = readFilter(request.m_Query);
    std::vector<Payment> const all = presentPayments(services);
    std::vector<Notification> const notifications = services.m_Store.notifications();
    nlohmann::json payments = nlohmann::json::array();
    for (Payment const& payment : all) {
        if (filter.admits(payment)) {
            payments.push_back(paymentJson(payment, notifications));
        }
    }
    return jsonResponse(httpstatus::kOk, {{"payments", payments}});
}

HttpResponse getExchanges(Services const& services, HttpRequest const& request) {
    nlohmann::json exchanges = nlohmann::json::array();
    for (Exchange const& exchange : services.m_Store.exchanges(readAfter(request.m_Query))) {
        exchanges.push_back(exchangeJson(exchange));
    }
    return jsonResponse(httpstatus::kOk, {{"exchanges", exchanges}});
}

HttpResponse getKeys(Services const& services, HttpRequest const&) {
    nlohmann::json server = nlohmann::json::array();
    std::string const current = services.m_Keys.current()->m_Id;
    for (KeyRing::Key const& key : services.m_Keys.all()) {
        server.push_back({{"id", key->m_Id},
                          {"current", key->m_Id == current},
                          {"bits", EVP_PKEY_get_bits(key->m_Key.get())},
                          {"blob", publicKeyBlob(key->m_Key.get())}});
    }
    nlohmann::json merchants = nlohmann::json::array();
    for (PublishedKey const& published : services.m_Store.merchantKeys()) {
        nlohmann::json key = {{"id", published.m_Id},
                              {"time", published.m_Time},
                              {"bits", EVP_PKEY_get_bits(readPublicKeyBlob(published.m_Key.m_Blob).get())}};
        putBytes(key, "account", published.m_Key.m_Account);
        merchants.push_back(std::move(key));
    }
    return jsonResponse(httpstatus::kOk, {{"server", server}, {"merchants", merchants}});
}

HttpResponse rotateKey(Services const& services, HttpRequest const& request) {
    if (!request.m_Body.empty()) {
        readObject(request.m_Body, {});
    }
    return jsonResponse(httpstatus::kCreated, {{"id", services.m_Keys.rotate()->m_Id}});
}

HttpResponse putAccount(Services const& services, HttpRequest const& request) {
    nlohmann::json const object = readObject(request.m_Body, {"user", "password"});
    std::string const user = requireText(object, "user");
    std::string const password = requireText(object, "password");
    checkAccount(user, password);
    std::vector<std::string> const known = services.m_Store.accounts();
    bool const isNew = std::find(known.begin(), known.end(), user) == known.end();
    services.m_Store.putAccount(user, password);
    return jsonResponse(isNew ? httpstatus::kCreated : httpstatus::kOk,
                        {{"user", user}, {"customer", services.m_Store.customerOf(user)}});
}

HttpResponse setClock(Services const& services, HttpRequest const& request) {
    setClockAhead(services, requireNumber(readObject(request.m_Body, {"ahead"}), "ahead"));
    return jsonResponse(httpstatus::kOk, clockJson(services));
}

void setClockAhead(Services const& services, std::int64_t seconds) {
    if (seconds < -kMaxSecondsAhead || seconds > kMaxSecondsAhead) {
        throw HttpError("the clock offset must be at most " + std::to_string(kMaxSecondsAhead) +
                        " seconds in either direction (ten years)");
    }
    services.m_Clock.setAhead(seconds);
    services.m_Notifier.wake();
}

}  // namespace sandbox
