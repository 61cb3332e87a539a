// The control API's addresses that drive the service from a test: deciding payments, waiting for what becomes of them,
// standing decisions, faults, notifications, scenarios and snapshots.
// A wait is a request that is answered when the payment has come to the state, or after its seconds. It blocks the
// thread of its connection alone, and ends early when the service stops.
// A scenario is faults and standing decisions that are armed together, from one JSON text. All of it is read before
// anything is armed, so that one with an error changes nothing. The error names the place: line and column where the
// text is no JSON, else the step. What is armed goes into a snapshot as the scenario that would arm it again.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "sandbox/control/control.h"
#include "sandbox/control/controlformat.h"
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

struct Scenario {
    std::vector<Fault> m_Faults;
    std::vector<StandingDecision> m_Decisions;
};

void readStep(Scenario& scenario, json step, json const& account) {
    if (!step.is_object() || step.contains("kind") == step.contains("decision")) {
        throw HttpError("a step is an object with one of the members 'kind', of a fault, and 'decision'");
    }
    if (!account.is_null() && !step.contains("account")) {
        step["account"] = account;
    }
    if (step.contains("kind")) {
        scenario.m_Faults.push_back(readFault(step));
    } else {
        scenario.m_Decisions.push_back(readDecision(step));
    }
}

/// `name` stands for the text in errors.
Scenario readScenario(std::string const& text, std::string const& name) {
    json const object = parseObject(text, name);
    checkMembers(object, {"account", "steps"});
    if (!object.contains("steps") || !object.at("steps").is_array()) {
        throw HttpError("the member 'steps' is required and must be an array");
    }
    Scenario scenario;
    json const account = object.contains("account") ? json(requireText(object, "account")) : json();
    for (json const& step : object.at("steps")) {
        try {
            readStep(scenario, step, account);
        } catch (HttpError const& error) {
            throw HttpError("step " + std::to_string(&step - &object.at("steps").front() + 1) + ": " + error.what());
        }
    }
    return scenario;
}

/// What was armed.
json arm(Services const& services, Scenario const& scenario) {
    json out = {{"faults", json::array()}, {"decisions", json::array()}};
    for (Fault const& fault : scenario.m_Faults) {
        ArmedFault armed;
        armed.m_Fault = fault;
        armed.m_Id = services.m_Faults.arm(fault);
        out["faults"].push_back(armed);
    }
    for (StandingDecision decision : scenario.m_Decisions) {
        decision.m_Id = services.m_Decisions.add(decision);
        out["decisions"].push_back(decision);
    }
    return out;
}

/// What is armed at present, as the steps of a scenario: counts are those that are left.
json presentSteps(Services const& services) {
    json steps = json::array();
    auto const add = [&steps](json step, std::int64_t times, std::int64_t happened, std::int64_t skip) {
        for (char const* name : {"id", "happened", "skip"}) {
            step.erase(name);
        }
        step["times"] = times == 0 ? json("always") : json(times - happened);
        if (skip > 0) {
            step["skip"] = skip;
        }
        steps.push_back(std::move(step));
    };
    for (ArmedFault const& armed : services.m_Faults.armed()) {
        Fault const& fault = armed.m_Fault;
        add(armed, fault.m_Times, armed.m_Happened, fault.m_Skip - armed.m_Passed);
    }
    for (StandingDecision const& each : services.m_Decisions.all()) {
        add(each, each.m_Times, each.m_Happened, each.m_Skip - static_cast<std::int64_t>(each.m_Passed.size()));
    }
    return steps;
}

HttpResponse getPayment(Services const& services, HttpRequest const& request) {
    refuseUnknown(request.m_Query, {"account", "order", "token", "until", "seconds"});
    Filter const named = namedPayments(request);
    std::optional<std::string> const until = request.m_Query.value("until");
    std::chrono::seconds const wait = readWait(request.m_Query);
    if (until) {
        checkUntil(*until);
    }
    Payment const payment = until ? awaitPayment(services, named, *until, wait) : presentPayment(services, named);
    return jsonResponse(paymentJson(payment, services.m_Store.notificationsOf(payment.m_Id)));
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
    return jsonResponse(out);
}

HttpResponse getDecisions(Services const& services, HttpRequest const& request) {
    return jsonResponse({{"decisions", services.m_Decisions.all(readAccount(request.m_Query))}});
}

HttpResponse addDecision(Services const& services, HttpRequest const& request) {
    StandingDecision decision = readDecision(parseObject(request.m_Body));
    decision.m_Id = services.m_Decisions.add(decision);
    return jsonResponse(decision, httpstatus::kCreated);
}

HttpResponse removeDecision(Services const& services, HttpRequest const& request) {
    std::string const name = segment(request.m_Path, 2);
    if (!services.m_Decisions.remove(wholeNumber(name).value_or(0))) {
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
    return jsonResponse(
        {{"notifications", payment ? services.m_Store.notificationsOf(*payment) : services.m_Store.notifications()}});
}

HttpResponse resendNotification(Services const& services, HttpRequest const& request) {
    if (!request.m_Body.empty()) {
        readObject(request.m_Body, {});
    }
    std::string const name = segment(request.m_Path, 2);
    std::optional<Notification> const again = services.m_Store.repeatNotification(wholeNumber(name).value_or(0));
    if (!again) {
        throw HttpError("there is no notification '" + name + "'", httpstatus::kNotFound);
    }
    services.m_Notifier.wake();
    return jsonResponse(*again, httpstatus::kCreated);
}

HttpResponse getFaults(Services const& services, HttpRequest const& request) {
    return jsonResponse({{"faults", services.m_Faults.armed(readAccount(request.m_Query))}});
}

HttpResponse getFaultKinds(Services const&, HttpRequest const&) {
    return jsonResponse({{"kinds", allFaultKinds()}});
}

HttpResponse armFault(Services const& services, HttpRequest const& request) {
    ArmedFault armed;
    armed.m_Fault = readFault(parseObject(request.m_Body));
    armed.m_Id = services.m_Faults.arm(armed.m_Fault);
    return jsonResponse(armed, httpstatus::kCreated);
}

HttpResponse liftFault(Services const& services, HttpRequest const& request) {
    std::string const name = segment(request.m_Path, 2);
    if (!services.m_Faults.lift(wholeNumber(name).value_or(0))) {
        throw HttpError("no fault '" + name + "' is armed", httpstatus::kNotFound);
    }
    return getFaults(services, request);
}

HttpResponse liftAllFaults(Services const& services, HttpRequest const& request) {
    services.m_Faults.liftAll(readAccount(request.m_Query));
    return getFaults(services, request);
}

HttpResponse getScenario(Services const& services, HttpRequest const&) {
    return jsonResponse({{"steps", presentSteps(services)}});
}

HttpResponse playScenario(Services const& services, HttpRequest const& request) {
    return jsonResponse(arm(services, readScenario(request.m_Body, "the body")), httpstatus::kCreated);
}

HttpResponse getSnapshots(Services const& services, HttpRequest const&) {
    return jsonResponse({{"snapshots", services.m_Snapshots.all()}});
}

HttpResponse saveSnapshot(Services const& services, HttpRequest const& request) {
    std::string const name = segment(request.m_Path, 2);
    json const note = {{"steps", presentSteps(services)}};
    bool const isNew = services.m_Snapshots.save(name, note.dump(-1, ' ', false, json::error_handler_t::replace));
    return jsonResponse({{"name", name}}, isNew ? httpstatus::kCreated : httpstatus::kOk);
}

HttpResponse restoreSnapshot(Services const& services, HttpRequest const& request) {
    std::string const name = segment(request.m_Path, 2);
    Scenario const scenario = readScenario(services.m_Snapshots.note(name), "the snapshot's note");
    services.m_Snapshots.restore(name);
    services.m_Keys.reload();
    services.m_Clock.reload();
    services.m_Notifier.reload();
    services.m_Faults.liftAll();
    services.m_Decisions.removeAll();
    arm(services, scenario);
    return jsonResponse({{"name", name}});
}

HttpResponse removeSnapshot(Services const& services, HttpRequest const& request) {
    services.m_Snapshots.remove(segment(request.m_Path, 2));
    return getSnapshots(services, request);
}

}  // namespace

std::vector<ControlRoute> drivingRoutes() {
    // clang-format off
    return {
        {"GET",    "/control/faults",                      getFaults},
        {"POST",   "/control/faults",                      armFault},
        {"DELETE", "/control/faults",                      liftAllFaults},
        {"GET",    "/control/faults/kinds",                getFaultKinds},
        {"DELETE", "/control/faults/[0-9]*",               liftFault},
        {"POST",   "/control/payments/decision",           decidePayment},
        {"POST",   "/control/payments/?*/decision",        decidePayment},
        {"GET",    "/control/payments/?*",                 getPayment},
        {"GET",    "/control/decisions",                   getDecisions},
        {"POST",   "/control/decisions",                   addDecision},
        {"DELETE", "/control/decisions",                   removeAllDecisions},
        {"DELETE", "/control/decisions/[0-9]*",            removeDecision},
        {"GET",    "/control/scenario",                    getScenario},
        {"POST",   "/control/scenario",                    playScenario},
        {"GET",    "/control/snapshots",                   getSnapshots},
        {"POST",   "/control/snapshots/?*",                saveSnapshot},
        {"DELETE", "/control/snapshots/?*",                removeSnapshot},
        {"POST",   "/control/snapshots/?*/restore",        restoreSnapshot},
        {"GET",    "/control/notifications",               getNotifications},
        {"POST",   "/control/notifications/[0-9]*/resend", resendNotification},
    };
    // clang-format on
}

void playScenarioFile(Services const& services, std::string const& path) {
    std::ifstream file(path);
    std::string const text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file) {
        throw std::runtime_error("cannot read the scenario " + path);
    }
    try {
        arm(services, readScenario(text, "the text"));
    } catch (HttpError const& error) {
        throw std::runtime_error("scenario " + path + ": " + error.what());
    }
}

}  // namespace sandbox
