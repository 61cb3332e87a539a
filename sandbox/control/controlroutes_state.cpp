// The control API's addresses for everything but faults: status, payments, exchanges, keys, accounts, clock.
//
// Payments are expired first when they are overdue, so that a response never shows an outdated state. Lists come in
// pages, so that neither time nor memory grows with what is stored. Setting the clock wakes the notifier, which then
// expires payments and sends their notifications.

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/control/control.h"
#include "sandbox/control/controlformat.h"
#include "sandbox/crypto/signature.h"
#include "sandbox/service/notifier.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

using nlohmann::json;

json addressesJson(Addresses const& addresses) {
    json out = {{"plain", addresses.m_Plain.m_Url}, {"control", addresses.m_Control.m_Url}};
    for (auto const& [name, address] : {std::pair("tls", addresses.m_Tls), {"proxy", addresses.m_Proxy}}) {
        if (!address.m_Url.empty()) {
            out[name] = address.m_Url;
        }
    }
    return out;
}

json clockJson(Services const& services, std::string const& account = "") {
    json out = {{"present", services.m_Clock.text(account)},
                {"ahead", services.m_Clock.ahead(account)},
                {"frozen", services.m_Clock.isFrozen(account)}};
    if (!account.empty()) {
        putBytes(out, "account", account);
    }
    return out;
}

/// The clock of all, and those of the accounts that have their own.
json clocksJson(Services const& services) {
    json out = clockJson(services);
    for (std::string const& account : services.m_Clock.owners()) {
        out["accounts"].push_back(clockJson(services, account));
    }
    return out;
}

json countsJson(Services const& services) {
    Counts const counts = services.m_Store.counts();
    return {{"accounts", counts.m_Accounts},
            {"payments", counts.m_Payments},
            {"notifications", counts.m_Notifications},
            {"exchanges", counts.m_Exchanges},
            {"serverKeys", services.m_Keys.all().size()},
            {"merchantKeys", counts.m_MerchantKeys},
            {"faults", services.m_Faults.armed().size()},
            {"warnings", counts.m_Warnings}};
}

/// A list under `name`; `next` is the bound that continues it, with the name that led here.
template <class Row>
HttpResponse listResponse(char const* name, json rows, Listing<Row> const& listing) {
    json content = {{name, std::move(rows)}};
    if (listing.m_More) {
        content["next"] = listing.m_Rows.back().m_Number;
    }
    return jsonResponse(content);
}

void checkAccount(std::string const& user, std::string const& password) {
    if (user.empty() || user.find(':') != std::string::npos) {
        throw HttpError("the user name must not be empty or contain a colon, which separates it from the password");
    }
    if (user.find('\0') != std::string::npos || password.find('\0') != std::string::npos) {
        throw HttpError("user and password must not contain a zero byte, which merchants cannot send");
    }
}

/// The member `account`, which must name an existing one. Throws HttpError.
std::string requireAccount(Services const& services, json const& object) {
    std::string account = requireText(object, "account");
    std::vector<std::string> const known = services.m_Store.accounts();
    if (std::find(known.begin(), known.end(), account) == known.end()) {
        throw HttpError("there is no account '" + account + "'", httpstatus::kNotFound);
    }
    return account;
}

void checkClockOffset(std::int64_t seconds) {
    if (seconds < -kMaxSecondsAhead || seconds > kMaxSecondsAhead) {
        throw HttpError("the clock offset must be at most " + std::to_string(kMaxSecondsAhead) +
                        " seconds in either direction (ten years)");
    }
}

/// Sets the clock of the account, or of all, as the members of `object` say. Throws HttpError.
void changeClock(Services const& services, json const& object, std::string const& account) {
    if (object.contains("frozen")) {
        if (!object.at("frozen").is_boolean()) {
            throw HttpError("the member 'frozen' must be true or false");
        }
        services.m_Clock.setFrozen(object.at("frozen").get<bool>(), account);
        services.m_Notifier.wake();
    } else if (object.contains("step")) {
        std::int64_t const seconds = requireNumber(object, "step");
        checkClockOffset(seconds);
        checkClockOffset(services.m_Clock.ahead(account) + seconds);
        services.m_Clock.step(seconds, account);
        services.m_Notifier.wake();
    } else {
        setClockAhead(services, requireNumber(object, "ahead"), account);
    }
}

HttpResponse getHealth(Services const& services, HttpRequest const&) {
    return jsonResponse({{"ready", services.m_Ready.load()}, {"version", KVX_VERSION}},
                        services.m_Ready ? httpstatus::kOk : httpstatus::kServiceUnavailable);
}

HttpResponse getStatus(Services const& services, HttpRequest const&) {
    return jsonResponse(statusJson(services));
}

HttpResponse getPayments(Services const& services, HttpRequest const& request) {
    ListQuery const query = readPaymentQuery(request.m_Query);
    bringUpToDate(services);
    Listing<Payment> const listing = services.m_Store.payments(query.m_Filter, query.m_Page);
    return listResponse("payments",
                        rowsOf(listing.m_Rows,
                               [&services](Payment const& payment) {
                                   return paymentJson(payment, services.m_Store.notificationsOf(payment.m_Id));
                               }),
                        listing);
}

HttpResponse getExchanges(Services const& services, HttpRequest const& request) {
    ListQuery const query = readExchangeQuery(request.m_Query);
    Listing<Exchange> const listing = services.m_Store.exchanges(query.m_Filter, query.m_Page);
    return listResponse("exchanges", listing.m_Rows, listing);
}

HttpResponse removeExchanges(Services const& services, HttpRequest const& request) {
    ListQuery const query = readRemovalQuery(request.m_Query);
    return jsonResponse({{"exchanges", services.m_Store.removeExchanges(query.m_Filter, query.m_Page)}});
}

HttpResponse reset(Services const& services, HttpRequest const& request) {
    json const object = request.m_Body.empty() ? json::object() : readObject(request.m_Body, {"account"});
    Filter filter;
    if (object.contains("account")) {
        filter.m_Account = requireAccount(services, object);
        services.m_Clock.follow(*filter.m_Account);
    } else {
        services.m_Clock.reset();
    }
    services.m_Faults.liftAll(filter.m_Account);
    services.m_Decisions.removeAll(filter.m_Account);
    std::int64_t const payments = services.m_Store.removePayments(filter.m_Account);
    std::int64_t const exchanges = services.m_Store.removeExchanges(filter, {});
    return jsonResponse({{"payments", payments}, {"exchanges", exchanges}});
}

HttpResponse getKeys(Services const& services, HttpRequest const&) {
    return jsonResponse(keysJson(services));
}

HttpResponse rotateKey(Services const& services, HttpRequest const& request) {
    if (!request.m_Body.empty()) {
        readObject(request.m_Body, {});
    }
    return jsonResponse({{"id", services.m_Keys.rotate()->m_Id}}, httpstatus::kCreated);
}

HttpResponse putAccount(Services const& services, HttpRequest const& request) {
    json const object = readObject(request.m_Body, {"user", "password"});
    std::string const user = requireText(object, "user");
    std::string const password = requireText(object, "password");
    checkAccount(user, password);
    std::vector<std::string> const known = services.m_Store.accounts();
    bool const isNew = std::find(known.begin(), known.end(), user) == known.end();
    services.m_Store.putAccount(user, password);
    return jsonResponse({{"user", user}, {"customer", services.m_Store.customerOf(user)}},
                        isNew ? httpstatus::kCreated : httpstatus::kOk);
}

HttpResponse setClock(Services const& services, HttpRequest const& request) {
    json const object = readObject(request.m_Body, {"ahead", "step", "frozen", "account"});
    if (object.size() > (object.contains("account") ? 2U : 1U)) {
        throw HttpError("only one of the members 'ahead', 'step' and 'frozen' can be given");
    }
    if (!object.contains("account")) {
        changeClock(services, object, "");
        return jsonResponse(clocksJson(services));
    }
    std::string const account = requireAccount(services, object);
    if (object.contains("ahead") && object["ahead"].is_null()) {
        services.m_Clock.follow(account);
        services.m_Notifier.wake();
    } else {
        changeClock(services, object, account);
    }
    return jsonResponse(clockJson(services, account));
}

}  // namespace

std::vector<ControlRoute> stateRoutes() {
    // clang-format off
    return {
        {"GET",    "/health",              getHealth},
        {"GET",    "/control",             getStatus},
        {"GET",    "/control/payments",    getPayments},
        {"GET",    "/control/exchanges",   getExchanges},
        {"DELETE", "/control/exchanges",   removeExchanges},
        {"POST",   "/control/reset",       reset},
        {"GET",    "/control/keys",        getKeys},
        {"POST",   "/control/keys/rotate", rotateKey},
        {"POST",   "/control/accounts",    putAccount},
        {"POST",   "/control/clock",       setClock},
    };
    // clang-format on
}

nlohmann::json statusJson(Services const& services) {
    return {{"version", KVX_VERSION},
            {"addresses", addressesJson(services.m_Addresses)},
            {"serverKeyId", services.m_Keys.current()->m_Id},
            {"clock", clocksJson(services)},
            {"counts", countsJson(services)}};
}

nlohmann::json keysJson(Services const& services) {
    std::string const current = services.m_Keys.current()->m_Id;
    auto const serverKey = [&current](KeyRing::Key const& key) {
        return json{{"id", key->m_Id},
                    {"current", key->m_Id == current},
                    {"bits", EVP_PKEY_get_bits(key->m_Key.get())},
                    {"blob", publicKeyBlob(key->m_Key.get())}};
    };
    auto const merchantKey = [](PublishedKey const& published) {
        json key = {{"id", published.m_Id},
                    {"time", published.m_Time},
                    {"bits", EVP_PKEY_get_bits(readPublicKeyBlob(published.m_Key.m_Blob).get())}};
        putBytes(key, "account", published.m_Key.m_Account);
        return key;
    };
    return {{"server", rowsOf(services.m_Keys.all(), serverKey)},
            {"merchants", rowsOf(services.m_Store.merchantKeys(), merchantKey)}};
}

void setClockAhead(Services const& services, std::int64_t seconds, std::string const& account) {
    checkClockOffset(seconds);
    services.m_Clock.setAhead(seconds, account);
    services.m_Notifier.wake();
}

}  // namespace sandbox
