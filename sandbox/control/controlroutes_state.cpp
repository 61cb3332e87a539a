#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "sandbox/control/controljson.h"
#include "sandbox/control/controlroutes.h"
#include "sandbox/crypto/signature.h"
#include "sandbox/service/notifier.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/text/refusal.h"
#include "sandbox/text/wiretext.h"

/// What the control API tells and changes besides faults.
namespace sandbox {

namespace {

constexpr int kCreated = 201;

nlohmann::json addressesJson(Addresses const& addresses) {
    nlohmann::json out = {{"plain", addresses.plain}, {"control", addresses.control}};
    if (!addresses.tls.empty()) {
        out["tls"] = addresses.tls;
    }
    if (!addresses.proxy.empty()) {
        out["proxy"] = addresses.proxy;
    }
    return out;
}

nlohmann::json clockJson(Site const& site) {
    return {{"present", site.clock.text()}, {"ahead", site.clock.ahead()}};
}

/// Exchanges are numbered from 1 and never removed.
std::int64_t exchangeCount(Site const& site) {
    std::vector<Exchange> const latest = site.store.latestExchanges(1);
    return latest.empty() ? 0 : latest.front().number;
}

nlohmann::json countsJson(Site const& site) {
    return {{"accounts", site.store.accounts().size()},
            {"payments", site.store.payments().size()},
            {"notifications", site.store.notifications().size()},
            {"exchanges", exchangeCount(site)},
            {"serverKeys", site.keys.all().size()},
            {"merchantKeys", site.store.merchantKeys().size()},
            {"faults", site.faults.armed().size()}};
}

/// What a query asks of payments; nothing for any.
struct PaymentFilter {
    std::optional<std::string> order;
    std::optional<std::string> id;
    std::optional<std::string> state;

    [[nodiscard]] bool admits(Payment const& payment) const {
        return (!id || payment.id == *id) && (!state || stateName(payment.state) == *state) &&
               (!order || payment.attribute("ORDERID").value_or("") == *order);
    }
};

PaymentFilter readFilter(Query const& query) {
    PaymentFilter const filter{query.value("order"), query.value("id"), query.value("state")};
    if (filter.state) {
        try {
            stateFromName(*filter.state);
        } catch (std::runtime_error const&) {
            throw Refusal("no payment has the state '" + *filter.state + "'");
        }
    }
    return filter;
}

std::int64_t readAfter(Query const& query) {
    std::string const text = query.value("after").value_or("0");
    std::optional<std::int64_t> const after = wholeNumber(text);
    if (!after) {
        throw Refusal("after must be the number of an exchange, not '" + text + "'");
    }
    return *after;
}

void checkAccount(std::string const& user, std::string const& password) {
    if (user.empty() || user.find(':') != std::string::npos) {
        throw Refusal("a user must have a name, and no colon in it: the credentials end it there");
    }
    if (user.find('\0') != std::string::npos || password.find('\0') != std::string::npos) {
        throw Refusal("neither user nor password can hold a zero byte: merchants cannot send it");
    }
}

}  // namespace

HttpReply tellService(Site const& site, HttpRequest const&) {
    return jsonReply(200, {{"addresses", addressesJson(site.addresses)},
                           {"serverKeyId", site.keys.current()->id},
                           {"clock", clockJson(site)},
                           {"counts", countsJson(site)}});
}

HttpReply tellPayments(Site const& site, HttpRequest const& request) {
    PaymentFilter const filter = readFilter(Query(request.query));
    std::vector<Payment> const all = presentPayments(site);
    std::vector<Notification> const notifications = site.store.notifications();
    nlohmann::json payments = nlohmann::json::array();
    for (Payment const& payment : all) {
        if (filter.admits(payment)) {
            payments.push_back(paymentJson(payment, notifications));
        }
    }
    return jsonReply(200, {{"payments", payments}});
}

HttpReply tellExchanges(Site const& site, HttpRequest const& request) {
    nlohmann::json exchanges = nlohmann::json::array();
    for (Exchange const& exchange : site.store.exchanges(readAfter(Query(request.query)))) {
        exchanges.push_back(exchangeJson(exchange));
    }
    return jsonReply(200, {{"exchanges", exchanges}});
}

HttpReply tellKeys(Site const& site, HttpRequest const&) {
    nlohmann::json server = nlohmann::json::array();
    std::string const current = site.keys.current()->id;
    for (KeyRing::Key const& key : site.keys.all()) {
        server.push_back({{"id", key->id},
                          {"current", key->id == current},
                          {"bits", EVP_PKEY_get_bits(key->key.get())},
                          {"blob", publicKeyBlob(key->key.get())}});
    }
    nlohmann::json merchants = nlohmann::json::array();
    for (PublishedKey const& published : site.store.merchantKeys()) {
        nlohmann::json key = {{"id", published.id},
                              {"time", published.time},
                              {"bits", EVP_PKEY_get_bits(readPublicKeyBlob(published.key.blob).get())}};
        putBytes(key, "account", published.key.account);
        merchants.push_back(std::move(key));
    }
    return jsonReply(200, {{"server", server}, {"merchants", merchants}});
}

HttpReply rotateKey(Site const& site, HttpRequest const& request) {
    if (!request.body.empty()) {
        readObject(request.body, {});
    }
    return jsonReply(kCreated, {{"id", site.keys.rotate()->id}});
}

HttpReply putAccount(Site const& site, HttpRequest const& request) {
    nlohmann::json const object = readObject(request.body, {"user", "password"});
    std::string const user = requireText(object, "user");
    std::string const password = requireText(object, "password");
    checkAccount(user, password);
    std::vector<std::string> const known = site.store.accounts();
    bool const isNew = std::find(known.begin(), known.end(), user) == known.end();
    site.store.putAccount(user, password);
    return jsonReply(isNew ? kCreated : 200, {{"user", user}, {"customer", site.store.customerOf(user)}});
}

HttpReply setClock(Site const& site, HttpRequest const& request) {
    setClockAhead(site, requireNumber(readObject(request.body, {"ahead"}), "ahead"));
    return jsonReply(200, clockJson(site));
}

std::optional<std::int64_t> wholeNumber(std::string const& text) {
    std::int64_t number = 0;
    char const* const end = text.data() + text.size();
    std::from_chars_result const read = std::from_chars(text.data(), end, number);
    return read.ec == std::errc() && read.ptr == end ? std::optional<std::int64_t>(number) : std::nullopt;
}

void setClockAhead(Site const& site, std::int64_t seconds) {
    if (seconds < -kFarthestAhead || seconds > kFarthestAhead) {
        throw Refusal("the clock can be set ahead or back by up to " + std::to_string(kFarthestAhead) +
                      " seconds, which is ten years");
    }
    site.clock.setAhead(seconds);
    site.notifier.wake();
}

}  // namespace sandbox
