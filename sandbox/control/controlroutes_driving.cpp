// The control API's addresses that drive the service from a test: deciding payments, waiting for what becomes of them,
// standing decisions, notifications.
//
// A wait is a request that is answered when the payment has come to the state, or after its seconds. It blocks the
// thread of its connection alone, and ends early when the service stops.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "sandbox/control/control.h"
#include "sandbox/control/controlfilters.h"
#include "sandbox/control/controljson.h"
#include "sandbox/service/notifier.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

using Clock = std::chrono::steady_clock;
using nlohmann::json;

constexpr char kNotified[] = "notified";
constexpr std::int64_t kMaxWait = 60;
constexpr std::int64_t kUsualWait = 10;

/// The segment of the path with this number, from 0.
std::string segment(std::string const& path, int number) {
    std::size_t from = 1;
    while (number-- > 0) {
        from = path.find('/', from) + 1;
    }
    return path.substr(from, path.find('/', from) - from);
}

/// The payments that a request names: by the identifier in the path, or by `order` or `token` of the query.
Filter namedPayments(HttpRequest const& request) {
    Filter named;
    named.m_Account = request.m_Query.value("account");
    named.m_Order = request.m_Query.value("order");
    named.m_Token = request.m_Query.value("token");
    std::string const id = segment(request.m_Path, 2);
    if (id != "decision" && id != "newest") {
        named.m_Payment = id;
    }
    if (int{named.m_Payment.has_value()} + int{named.m_Order.has_value()} + int{named.m_Token.has_value()} != 1) {
        throw HttpError("a payment is named by one of its identifier, order and token");
    }
    return named;
}

/// The newest of the named payments. Throws HttpError when there is none.
Payment requirePayment(Services const& services, Filter const& named) {
    std::optional<Payment> payment = services.m_Store.newestPayment(named);
    if (!payment) {
        throw HttpError("there is no such payment", httpstatus::kNotFound);
    }
    return *payment;
}

bool hasBeen(Payment const& payment, std::string const& state) {
    return std::any_of(payment.m_History.begin(), payment.m_History.end(),
                       [&state](HistoryEntry const& step) { return stateName(step.m_State) == state; });
}

/// Whether the payment has come to what `until` names: a state, or the end of its notifications.
bool hasCome(Services const& services, Payment const& payment, std::string const& until) {
    if (until != kNotified) {
        return hasBeen(payment, until);
    }
    std::vector<Notification> const all = services.m_Store.notificationsOf(payment.m_Id);
    return !all.empty() &&
           std::none_of(all.begin(), all.end(), [](Notification const& each) { return each.m_Pending; });
}

/// How long to wait. Throws HttpError.
std::chrono::seconds readWait(Query const& query) {
    std::optional<std::int64_t> const seconds =
        wholeNumber(query.value("seconds").value_or(std::to_string(kUsualWait)));
    if (!seconds || *seconds < 0 || *seconds > kMaxWait) {
        throw HttpError("seconds must be a whole number from 0 to " + std::to_string(kMaxWait));
    }
    return std::chrono::seconds(*seconds);
}

void checkUntil(std::string const& until) {
    if (until == kNotified) {
        return;
    }
    try {
        stateFromName(until);
    } catch (std::runtime_error const&) {
        throw HttpError("until must be the state of a payment or \"notified\", not '" + until + "'");
    }
}

Payment presentPayment(Services const& services, Filter const& named) {
    makeDueMoves(services);
    expireWhenOverdue(services, requirePayment(services, named));
    return requirePayment(services, named);
}

/// The payment once it has come to `until`. One that is named by order or token need not be there at first. Throws
/// HttpError when it has not come in time.
Payment awaitPayment(Services const& services, Filter const& named, std::string const& until,
                     std::chrono::seconds wait) {
    Clock::time_point const deadline = Clock::now() + wait;
    bool goesOn = true;
    for (;;) {
        std::uint64_t const seen = services.m_Store.events().changes();
        bool const isLast = !goesOn || Clock::now() >= deadline;
        if (named.m_Payment || isLast || services.m_Store.newestPayment(named)) {
            Payment const payment = presentPayment(services, named);
            if (hasCome(services, payment, until)) {
                return payment;
            }
            if (isLast) {
                throw HttpError("the payment is " + std::string(stateName(payment.m_State)) + ", not " + until +
                                    ", after " + std::to_string(wait.count()) + " seconds",
                                httpstatus::kConflict);
            }
        }
        goesOn = services.m_Store.events().awaitChange(seen, deadline);
    }
}

}  // namespace

HttpResponse getPayment(Services const& services, HttpRequest const& request) {
    refuseUnknown(request.m_Query, {"account", "order", "token", "until", "seconds"});
    Filter const named = namedPayments(request);
    std::optional<std::string> const until = request.m_Query.value("until");
    std::chrono::seconds const wait = readWait(request.m_Query);
    if (until) {
        checkUntil(*until);
    }
    Payment const payment = until ? awaitPayment(services, named, *until, wait) : presentPayment(services, named);
    return jsonResponse(httpstatus::kOk, paymentJson(payment, services.m_Store.notificationsOf(payment.m_Id)));
}

HttpResponse decidePayment(Services const& services, HttpRequest const& request) {
    Decision const& wanted = namedDecision(requireText(readObject(request.m_Body, {"decision"}), "decision"));
    refuseUnknown(request.m_Query, {"account", "order", "token"});
    Payment payment = requirePayment(services, namedPayments(request));
    std::vector<CheckStep> steps;
    FaultEffect const effect = takeDecisionFault(services, payment, steps);
    std::optional<Outcome> const outcome = decide(services, effect, payment, wanted, "the control API chose");
    if (!outcome) {
        throw HttpError("the payment is " + std::string(stateName(payment.m_State)) + " already",
                        httpstatus::kConflict);
    }
    ReturnedConfirmation const returned = returnedConfirmation(services, effect, payment, *outcome);
    Query const query(returned.m_Query);
    json out = {{"id", payment.m_Id}, {"state", stateName(payment.m_State)}, {"result", stateName(outcome->m_Result)}};
    putBytes(out, "link", returned.m_Link);
    putBytes(out, "data", query.value("DATA").value());
    putBytes(out, "signature", query.value("SIGNATURE").value());
    putBytes(out, "fault", effect.m_Fault ? faultText(*effect.m_Fault) : "");
    out["steps"] = json::array();
    for (CheckStep const& step : steps) {
        out["steps"].push_back(step.m_What + ": " + step.m_Found);
    }
    return jsonResponse(httpstatus::kOk, out);
}

HttpResponse getDecisions(Services const& services, HttpRequest const& request) {
    return jsonResponse(httpstatus::kOk, {{"decisions", services.m_Decisions.all(readAccount(request.m_Query))}});
}

HttpResponse addDecision(Services const& services, HttpRequest const& request) {
    StandingDecision decision = readDecision(parseObject(request.m_Body));
    decision.m_Id = services.m_Decisions.add(decision);
    return jsonResponse(httpstatus::kCreated, decision);
}

HttpResponse removeDecision(Services const& services, HttpRequest const& request) {
    std::string const name = segment(request.m_Path, 2);
    std::optional<std::int64_t> const id = wholeNumber(name);
    if (!id || !services.m_Decisions.remove(*id)) {
        throw HttpError("there is no standing decision '" + name + "'", httpstatus::kNotFound);
    }
    return getDecisions(services, request);
}

HttpResponse removeAllDecisions(Services const& services, HttpRequest const& request) {
    services.m_Decisions.removeAll(readAccount(request.m_Query));
    return getDecisions(services, request);
}

HttpResponse getNotifications(Services const& services, HttpRequest const& request) {
    std::optional<std::string> const payment = request.m_Query.value("payment");
    return jsonResponse(httpstatus::kOk, {{"notifications", payment ? services.m_Store.notificationsOf(*payment)
                                                                    : services.m_Store.notifications()}});
}

HttpResponse resendNotification(Services const& services, HttpRequest const& request) {
    if (!request.m_Body.empty()) {
        readObject(request.m_Body, {});
    }
    std::string const name = segment(request.m_Path, 2);
    std::optional<std::int64_t> const number = wholeNumber(name);
    std::optional<Notification> const again = number ? services.m_Store.repeatNotification(*number) : std::nullopt;
    if (!again) {
        throw HttpError("there is no notification '" + name + "'", httpstatus::kNotFound);
    }
    services.m_Notifier.wake();
    return jsonResponse(httpstatus::kCreated, *again);
}

}  // namespace sandbox
