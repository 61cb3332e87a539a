// Exchanges, and requests that have begun.
// A request is inserted into begun_exchanges before it is carried out, and replaced by its exchange in one transaction
// with the response. A request that was carried out is thus on record even when the process is killed.
// The steps of a check are stored as JSON with their texts in hexadecimal, because they can hold any bytes.
#include <nlohmann/json.hpp>

#include "sandbox/store/store.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr char kAfter[] =
    "SELECT number, time, kind, order_id, path, data, signature, verdict, steps, request, answer, fault, delivery, "
    "microseconds "
    "FROM exchanges WHERE number > ? ORDER BY number";
constexpr char kLatest[] =
    "SELECT number, time, kind, order_id, path, data, signature, verdict, steps, request, answer, fault, delivery, "
    "microseconds "
    "FROM exchanges ORDER BY number DESC LIMIT ?";
constexpr char kOne[] =
    "SELECT number, time, kind, order_id, path, data, signature, verdict, steps, request, answer, fault, delivery, "
    "microseconds "
    "FROM exchanges WHERE number = ?";

/// What was found can be any bytes, which JSON cannot hold.
std::string stepsText(std::vector<CheckStep> const& steps) {
    nlohmann::json list = nlohmann::json::array();
    for (CheckStep const& step : steps) {
        list.push_back({{"what", toHex(step.m_What)}, {"found", toHex(step.m_Found)}, {"good", step.m_Good}});
        if (step.m_Warning) {
            list.back()["warning"] = true;
        }
    }
    return list.dump();
}

std::vector<CheckStep> stepsFromText(std::string const& text) {
    std::vector<CheckStep> steps;
    for (nlohmann::json const& step : nlohmann::json::parse(text)) {
        steps.push_back({fromHex(step.at("what").get<std::string>()).value(),
                         fromHex(step.at("found").get<std::string>()).value(), step.at("good").get<bool>(),
                         step.value("warning", false)});
    }
    return steps;
}

/// Reads the columns of the queries above.
std::vector<Exchange> readExchanges(Statement& row) {
    std::vector<Exchange> found;
    while (row.step()) {
        Exchange exchange;
        exchange.m_Number = row.numberColumn(0);
        exchange.m_Time = row.column(1);
        exchange.m_Kind = exchangeFromName(row.column(2)).value_or(ExchangeKind::kOther);
        exchange.m_Order = row.column(3);
        exchange.m_Path = row.column(4);
        exchange.m_Data = row.column(5);
        exchange.m_Signature = row.column(6);
        exchange.m_Verdict = row.column(7);
        exchange.m_Steps = stepsFromText(row.column(8));
        exchange.m_Request = row.column(9);
        exchange.m_Response = row.column(10);
        exchange.m_Fault = row.column(11);
        exchange.m_Delivery = row.column(12);
        exchange.m_Microseconds = row.numberColumn(13);
        found.push_back(std::move(exchange));
    }
    return found;
}

}  // namespace

std::int64_t Store::beginExchange(Exchange const& exchange) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    m_Database
        .prepare("INSERT INTO begun_exchanges (time, kind, order_id, path, data, request) VALUES (?, ?, ?, ?, ?, ?)")
        .text(exchange.m_Time)
        .text(exchangeName(exchange.m_Kind))
        .bytes(exchange.m_Order)
        .text(exchange.m_Path)
        .bytes(exchange.m_Data)
        .bytes(exchange.m_Request)
        .step();
    return m_Database.lastNumber();
}

std::int64_t Store::addExchange(Exchange const& exchange, std::int64_t begun) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Transaction transaction(m_Database);
    m_Database
        .prepare(
            "INSERT INTO exchanges (time, kind, order_id, path, data, signature, verdict, steps, request, answer, "
            "fault, microseconds) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
        .text(exchange.m_Time)
        .text(exchangeName(exchange.m_Kind))
        .bytes(exchange.m_Order)
        .text(exchange.m_Path)
        .bytes(exchange.m_Data)
        .bytes(exchange.m_Signature)
        .bytes(exchange.m_Verdict)
        .text(stepsText(exchange.m_Steps))
        .bytes(exchange.m_Request)
        .bytes(exchange.m_Response)
        .bytes(exchange.m_Fault)
        .number(exchange.m_Microseconds)
        .step();
    std::int64_t const number = m_Database.lastNumber();
    m_Database.prepare("DELETE FROM begun_exchanges WHERE number = ?").number(begun).step();
    for (CheckStep const& step : exchange.m_Steps) {
        if (step.m_Warning) {
            m_Database.prepare("INSERT INTO warnings (exchange) VALUES (?)").number(number).step();
        }
    }
    transaction.commit();
    return number;
}

std::int64_t Store::warningCount() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Statement row = m_Database.prepare("SELECT count(*) FROM warnings");
    row.step();
    return row.numberColumn(0);
}

void Store::setDelivery(std::int64_t number, std::string const& delivery) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    m_Database.prepare("UPDATE exchanges SET delivery = ? WHERE number = ?").text(delivery).number(number).step();
}

std::vector<Exchange> Store::exchanges(std::int64_t after) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Statement row = m_Database.prepare(kAfter);
    row.number(after);
    return readExchanges(row);
}

std::vector<Exchange> Store::latestExchanges(std::int64_t count) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Statement row = m_Database.prepare(kLatest);
    row.number(count);
    return readExchanges(row);
}

std::optional<Exchange> Store::exchange(std::int64_t number) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Statement row = m_Database.prepare(kOne);
    row.number(number);
    std::vector<Exchange> const found = readExchanges(row);
    return found.empty() ? std::nullopt : std::optional<Exchange>(found.front());
}

std::vector<std::pair<std::int64_t, std::string>> Store::latestData(std::int64_t count, std::int64_t longest) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Statement row = m_Database.prepare(
        "SELECT number, data FROM (SELECT number, data FROM exchanges ORDER BY number DESC LIMIT ?) "
        "WHERE length(data) BETWEEN 1 AND ? ORDER BY number DESC");
    row.number(count).number(longest);
    std::vector<std::pair<std::int64_t, std::string>> found;
    while (row.step()) {
        found.emplace_back(row.numberColumn(0), row.column(1));
    }
    return found;
}

}  // namespace sandbox
