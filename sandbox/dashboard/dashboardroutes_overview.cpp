// The first page: how to connect a merchant, what has happened lately, payments with their exchanges, exchanges.
//
// The filters apply to both lists. The plots are of the listed payments and exchanges: a column each, the newest on the
// right. Payments of which nothing is wrong are highest, so that the outcome does not depend on the colours.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/control/control.h"
#include "sandbox/control/controlformat.h"
#include "sandbox/dashboard/dashboard.h"
#include "sandbox/pages/shopperpages.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/rowwith.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

using nlohmann::json;

constexpr char kNotGiven[] = "not given";
constexpr std::int64_t kMaxPayments = 100;
constexpr std::int64_t kMaxExchanges = 50;
constexpr std::int64_t kMaxFolded = 20;
constexpr int kRefreshSeconds = 2;  // without scripts
constexpr int kNonceBytes = 16;

// The size of a plot in its own units.
constexpr double kPlotWidth = 6000;
constexpr double kPlotHeight = 600;

// A column has at least so much of the width, so that a few of them do not fill it.
constexpr std::size_t kMinColumns = 50;

struct StateRow {
    PaymentState m_State;
    double m_Height;  ///< Of its column, a part of the plot's.
};

// clang-format off
constexpr StateRow kStates[] = {
    {PaymentState::kOpened,     0.3},
    {PaymentState::kPending,    0.3},
    {PaymentState::kAuthorised, 0.8},
    {PaymentState::kCaptured,   0.9},
    {PaymentState::kCompleted,  1.0},
    {PaymentState::kDeclined,   0.6},
    {PaymentState::kCancelled,  0.5},
    {PaymentState::kExpired,    0.4},
    {PaymentState::kLapsed,     0.4},
};
// clang-format on

/// The conditions of the page's form as a query of the control API; an empty field is none.
std::string conditionsOf(Query const& form) {
    std::vector<std::string> conditions;
    for (char const* name : {"account", "order", "state"}) {
        std::string const value = form.value(name).value_or("");
        if (!value.empty()) {
            conditions.push_back(name + ("=" + percentEncode(value)));
        }
    }
    return joined(conditions, "&");
}

json filterContent(Filter const& filter, bool active) {
    auto const stateRow = [&filter](StateRow const& row) {
        return json{{"name", stateName(row.m_State)}, {"selected", filter.m_State == row.m_State}};
    };
    return {{"account", filter.m_Account.value_or("")},
            {"order", filter.m_Order.value_or("")},
            {"states", rowsOf(kStates, stateRow)},
            {"active", active}};
}

/// What a merchant is set up with, then what the service is doing.
json stripContent(Services const& services) {
    json const status = statusJson(services);
    json const& addresses = status["addresses"];
    json strip = json::array();
    auto const add = [&strip](char const* name, std::string const& copy, std::string const& value = "",
                              std::string const& path = "") {
        constexpr std::size_t kShort = 16;
        bool const isLong = std::max(copy.size(), value.size()) > kShort;
        strip.push_back({{"name", name}, {"copy", copy}, {"value", value}, {"path", path}, {"span", isLong}});
    };
    auto const addAddress = [&](char const* name, char const* member, char const* path) {
        std::string const base = addresses.value(member, "");
        if (!base.empty()) {
            add(name, base + path);
        }
    };
    addAddress("Set-up address", "plain", "/auto");
    addAddress("Set-up address, TLS", "tls", "/auto");
    std::vector<std::string> const accounts = services.m_Store.accounts();
    add(accounts.size() == 1 ? "Account" : "Accounts", joined(accounts));
    addAddress("HTTP proxy", "proxy", "");
    addAddress("Control API", "control", "/control");
    add("Signing key", "", status["serverKeyId"], "/keys");
    bool const frozen = status["clock"]["frozen"];
    add("Service time", "", status["clock"]["present"].get<std::string>() + (frozen ? ", frozen" : ""), "/keys");
    std::int64_t const faults = status["counts"]["faults"];
    add("Armed faults", "", faults == 0 ? "none" : std::to_string(faults), "/faults");
    add("Warnings", "", status["counts"]["warnings"].dump());
    return strip;
}

std::string exchangeCount(std::size_t count, bool more) {
    return std::to_string(count) + (more ? " and more" : "") + (count == 1 ? " exchange" : " exchanges");
}

json paymentRow(Services const& services, Payment const& payment) {
    Listing<Exchange> const belonging = services.m_Store.exchangeSummariesOf(payment, kMaxFolded);
    std::string const order = payment.attribute("ORDERID").value_or("");
    return {{"id", payment.m_Id},
            {"state", stateName(payment.m_State)},
            {"opened", payment.m_History.empty() ? "" : payment.m_History.front().m_Time},
            {"order", order.empty() ? kNotGiven : order},
            {"amount", amountText(payment, kNotGiven)},
            {"account", payment.m_Account},
            {"count", exchangeCount(belonging.m_Rows.size(), belonging.m_More)},
            {"exchanges", rowsOf(belonging.m_Rows, exchangeRow)}};
}

/// One column of a plot: number `index` of `count` from the right, of a height from 0 to 1.
json column(std::size_t index, std::size_t count, double height, char const* markName, std::string const& mark,
            std::string const& title) {
    double const width = kPlotWidth / static_cast<double>(std::max(count, kMinColumns));
    double const tall = std::clamp(height, 0.02, 1.0) * kPlotHeight;
    return {{"x", std::lround(kPlotWidth - width * static_cast<double>(index + 1))},
            {"y", std::lround(kPlotHeight - tall)},
            {"width", std::lround(width * 0.8)},
            {"height", std::lround(tall)},
            {markName, mark},
            {"title", title}};
}

json paymentPlot(std::vector<Payment> const& payments) {
    json columns = json::array();
    std::map<PaymentState, int> counts;
    for (Payment const& payment : payments) {
        StateRow const* const row = rowWith(kStates, &StateRow::m_State, payment.m_State);
        std::string const state = stateName(payment.m_State);
        ++counts[payment.m_State];
        columns.push_back(column(columns.size(), payments.size(), row->m_Height, "state", state,
                                 payment.m_Id + ", " + amountText(payment, kNotGiven) + ": " + state));
    }
    json outcomes = json::array();
    std::vector<std::string> summary;
    for (auto const& [state, count] : counts) {
        outcomes.push_back({{"name", stateName(state)}, {"count", count}});
        summary.push_back(std::to_string(count) + " " + stateName(state));
    }
    return {{"columns", std::move(columns)},
            {"outcomes", std::move(outcomes)},
            {"summary", "Latest payments by outcome: " + joined(summary)},
            {"shown", payments.size()}};
}

/// A column is as high as the logarithm of its duration, from 100 microseconds to 10 seconds.
json latencyPlot(std::vector<Exchange> const& exchanges) {
    json columns = json::array();
    std::vector<std::int64_t> durations;
    for (Exchange const& exchange : exchanges) {
        durations.push_back(exchange.m_Microseconds);
        auto const microseconds = static_cast<double>(std::max<std::int64_t>(exchange.m_Microseconds, 1));
        bool const good = exchange.m_Verdict == "ok" && exchange.m_Fault.empty();
        columns.push_back(column(columns.size(), exchanges.size(), (std::log10(microseconds) - 2) / 5, "mark",
                                 good ? "good" : "bad",
                                 std::to_string(exchange.m_Number) + " " + exchangeName(exchange.m_Kind) + ": " +
                                     millisecondsText(exchange.m_Microseconds) + ", " + exchange.m_Verdict));
    }
    std::sort(durations.begin(), durations.end());
    return {{"columns", std::move(columns)},
            {"summary", "Response times of the latest " + std::to_string(durations.size()) +
                            " exchanges: half within " + millisecondsText(durations[durations.size() / 2]) +
                            ", the slowest " + millisecondsText(durations.back())}};
}

json activityContent(std::vector<Payment> const& payments, std::vector<Exchange> const& exchanges) {
    if (payments.empty() || exchanges.empty()) {
        return nullptr;
    }
    json activity = paymentPlot(payments);
    activity["latency"] = latencyPlot(exchanges);
    return activity;
}

std::string moreText(Services const& services, bool filtered, Listing<Payment> const& listing) {
    if (!listing.m_More) {
        return "";
    }
    return "These are the latest " + std::to_string(listing.m_Rows.size()) +
           (filtered ? "" : " of " + std::to_string(services.m_Store.counts().m_Payments)) +
           ". The control API lists all of them.";
}

}  // namespace

HttpResponse overviewPage(Services const& services, Query const& query) {
    bool const live = query.value("live") == "1";
    std::string const conditions = conditionsOf(query);
    bool const filtered = !conditions.empty();
    Filter const wanted = readPaymentQuery(Query(conditions)).m_Filter;
    bringUpToDate(services);
    Listing<Payment> const listing = services.m_Store.payments(wanted, Page::newest(kMaxPayments));
    std::vector<Exchange> const exchanges =
        services.m_Store.exchangeSummaries({wanted.m_Account, wanted.m_Order}, Page::newest(kMaxExchanges)).m_Rows;
    auto const rowOfPayment = [&services](Payment const& payment) { return paymentRow(services, payment); };
    json content = {{"strip", stripContent(services)},
                    {"activity", activityContent(listing.m_Rows, exchanges)},
                    {"filter", filterContent(wanted, filtered)},
                    {"payments", rowsOf(listing.m_Rows, rowOfPayment)},
                    {"more", moreText(services, filtered, listing)},
                    {"latest", exchangeTable("Exchanges, newest first", exchanges)},
                    {"live", live},
                    {"queryLive", "?live=1" + (filtered ? "&" + conditions : "")},
                    {"queryStill", filtered ? "?" + conditions : ""},
                    {"queryAll", live ? "?live=1" : ""},
                    {"refreshSeconds", live ? json(kRefreshSeconds) : json()}};
    if (live) {
        content["nonce"] = randomHex(kNonceBytes);
    }
    return dashboardPage(services, httpstatus::kOk, "/", "Overview", "overview_page", std::move(content));
}

}  // namespace sandbox
