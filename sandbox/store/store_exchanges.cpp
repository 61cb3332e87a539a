// Exchanges, and requests that have begun.
// What a request changes is mostly committed in one transaction with its exchange. When something is committed before
// that, the request is inserted into begun_exchanges in the same transaction, and later replaced by its exchange. A
// request that was carried out is thus on record even when the process is killed.
// The steps of a check are stored as JSON with their texts in hexadecimal, because they can hold any bytes.
#include <ctime>
#include <nlohmann/json.hpp>

#include "sandbox/store/conditions.h"
#include "sandbox/store/store.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

/// Old rows are removed once in so many exchanges.
constexpr std::int64_t kPruneEvery = 64;

// What readExchange() reads.
constexpr char kComplete[] =
    "SELECT number, time, kind, account, order_id, token, payment, path, verdict, fault, delivery, microseconds, data, "
    "signature, steps, request, answer FROM exchanges";
constexpr char kSummary[] =
    "SELECT number, time, kind, account, order_id, token, payment, path, verdict, fault, delivery, microseconds, x'', "
    "x'', '[]', x'', x'' FROM exchanges";

/// What was found can be any bytes, which JSON cannot hold. In hexadecimal nothing is left to be escaped.
std::string stepsText(std::vector<CheckStep> const& steps) {
    std::string list;
    for (CheckStep const& step : steps) {
        list += list.empty() ? "[" : ",";
        list += R"({"what":")" + toHex(step.m_What) + R"(","found":")" + toHex(step.m_Found) +
                (step.m_Good ? R"(","good":true)" : R"(","good":false)") +
                (step.m_Warning ? R"(,"warning":true})" : "}");
    }
    return list.empty() ? "[]" : list + "]";
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

Exchange readExchange(Statement const& row) {
    Exchange exchange;
    exchange.m_Number = row.numberColumn(0);
    exchange.m_Time = row.column(1);
    exchange.m_Kind = exchangeFromName(row.column(2)).value_or(ExchangeKind::kOther);
    exchange.m_Account = row.column(3);
    exchange.m_Order = row.column(4);
    exchange.m_Token = row.column(5);
    exchange.m_Payment = row.column(6);
    exchange.m_Path = row.column(7);
    exchange.m_Verdict = row.column(8);
    exchange.m_Fault = row.column(9);
    exchange.m_Delivery = row.column(10);
    exchange.m_Microseconds = row.numberColumn(11);
    exchange.m_Data = row.column(12);
    exchange.m_Signature = row.column(13);
    exchange.m_Steps = stepsFromText(row.column(14));
    exchange.m_Request = row.column(15);
    exchange.m_Response = row.column(16);
    return exchange;
}

/// The exchanges of a statement, as many as `page` admits.
Listing<Exchange> readExchanges(Statement& row, Page const& page) {
    Listing<Exchange> found;
    std::size_t bytes = 0;
    while (row.step()) {
        if (static_cast<std::int64_t>(found.m_Rows.size()) == page.m_Limit || bytes >= page.m_MaxBytes) {
            found.m_More = true;
            break;
        }
        Exchange exchange = readExchange(row);
        bytes += exchange.m_Data.size() + exchange.m_Request.size() + exchange.m_Response.size();
        found.m_Rows.push_back(std::move(exchange));
    }
    return found;
}

/// What exchangeSummaries() reports of `exchange`.
Exchange summaryOf(Exchange const& exchange, std::int64_t number) {
    Exchange summary;
    summary.m_Number = number;
    summary.m_Time = exchange.m_Time;
    summary.m_Kind = exchange.m_Kind;
    summary.m_Account = exchange.m_Account;
    summary.m_Order = exchange.m_Order;
    summary.m_Token = exchange.m_Token;
    summary.m_Payment = exchange.m_Payment;
    summary.m_Path = exchange.m_Path;
    summary.m_Verdict = exchange.m_Verdict;
    summary.m_Fault = exchange.m_Fault;
    summary.m_Microseconds = exchange.m_Microseconds;
    return summary;
}

/// A page of exchanges, each with the columns that `select` names.
Listing<Exchange> listExchanges(Database& database, std::string const& select, ExchangeFilter const& filter,
                                Page const& page) {
    Statement row =
        database.prepare(select + conditionsOf(filter) + " ORDER BY number" + (page.m_NewestFirst ? " DESC" : ""));
    bind(row, filter, page);
    return readExchanges(row, page);
}

/// What a proxy carried, which it does not read, linked to the payment whose identifier stands in it.
Exchange linked(Database& database, Exchange exchange) {
    constexpr std::size_t kDigits = 16;
    for (std::string const* text : {&exchange.m_Request, &exchange.m_Response}) {
        for (std::size_t at = text->find('P'); at != std::string::npos; at = text->find('P', at + 1)) {
            std::string const id = text->substr(at, kDigits + 1);
            if (id.size() <= kDigits || id.find_first_not_of("0123456789abcdef", 1) != std::string::npos) {
                continue;
            }
            Statement row = database.prepare("SELECT account, token FROM payments WHERE id = ?");
            if (row.text(id).step()) {
                exchange.m_Account = row.column(0);
                exchange.m_Token = row.column(1);
                exchange.m_Payment = id;
                return exchange;
            }
        }
    }
    return exchange;
}

}  // namespace

void Store::Request::putOnRecord() {
    m_Store.m_Database
        .prepare(
            "INSERT INTO begun_exchanges (time, kind, account, order_id, token, payment, path, data, request) "
            "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)")
        .text(m_Exchange.m_Time)
        .text(exchangeName(m_Exchange.m_Kind))
        .text(m_Exchange.m_Account)
        .bytes(m_Exchange.m_Order)
        .text(m_Exchange.m_Token)
        .text(m_Exchange.m_Payment)
        .text(m_Exchange.m_Path)
        .bytes(m_Exchange.m_Data)
        .bytes(m_Exchange.m_Request)
        .step();
    m_Begun = m_Store.m_Database.lastNumber();
}

std::int64_t Store::Request::end(Exchange const& exchange) {
    std::int64_t number = 0;
    {
        Turn turn(m_Store.m_Writer);
        number = m_Store.insertExchange(exchange);
        if (m_Begun != 0) {
            m_Store.m_Database.prepare("DELETE FROM begun_exchanges WHERE number = ?").number(m_Begun).step();
        }
        turn.keepLast([this, summary = summaryOf(exchange, number)] { m_Store.m_Events.add({{}, summary}); });
    }
    m_Unit.finish();
    return number;
}

std::int64_t Store::addExchange(Exchange const& exchange) {
    if (exchange.m_Kind == ExchangeKind::kProxy && exchange.m_Payment.empty()) {
        ReaderPool::Reader const reader = m_Readers.take();
        Exchange const about = linked(reader.database(), exchange);
        if (!about.m_Payment.empty()) {
            return addExchange(about);
        }
    }
    Turn turn(m_Writer);
    std::int64_t const number = insertExchange(exchange);
    turn.keep([this, summary = summaryOf(exchange, number)] { m_Events.add({{}, summary}); });
    return number;
}

/// Called in a turn.
std::int64_t Store::insertExchange(Exchange const& exchange) {
    m_Database
        .prepare(
            "INSERT INTO exchanges (number, time, kind, account, order_id, token, payment, stored, path, data, "
            "signature, verdict, steps, request, answer, fault, microseconds) "
            "VALUES ((SELECT last + 1 FROM counters WHERE name = 'exchanges'), ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
            "?, "
            "?, ?)")
        .text(exchange.m_Time)
        .text(exchangeName(exchange.m_Kind))
        .text(exchange.m_Account)
        .bytes(exchange.m_Order)
        .text(exchange.m_Token)
        .text(exchange.m_Payment)
        .number(std::time(nullptr))
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
    for (CheckStep const& step : exchange.m_Steps) {
        if (step.m_Warning) {
            m_Database.prepare("INSERT INTO warnings (exchange) VALUES (?)").number(number).step();
        }
    }
    if (number % kPruneEvery == 0) {
        prune();
    }
    return number;
}

void Store::setDelivery(std::int64_t number, std::string const& delivery) {
    Turn turn(m_Writer);
    m_Database.prepare("UPDATE exchanges SET delivery = ? WHERE number = ?").text(delivery).number(number).step();
    turn.keep();
}

Listing<Exchange> Store::exchanges(ExchangeFilter const& filter, Page const& page) {
    ReaderPool::Reader const reader = m_Readers.take();
    return listExchanges(reader.database(), kComplete, filter, page);
}

Listing<Exchange> Store::exchangeSummaries(ExchangeFilter const& filter, Page const& page) {
    ReaderPool::Reader const reader = m_Readers.take();
    return listExchanges(reader.database(), kSummary, filter, page);
}

Listing<Exchange> Store::exchangeSummariesOf(Payment const& payment, std::int64_t limit) {
    ReaderPool::Reader const reader = m_Readers.take();
    Statement row = reader.database().prepare(std::string(kSummary) +
                                              " WHERE number IN ("
                                              "SELECT number FROM exchanges WHERE payment = ?1 "
                                              "UNION SELECT number FROM exchanges WHERE token = ?2 AND account IN ('', "
                                              "?3) AND payment = '' "
                                              "UNION SELECT number FROM exchanges WHERE order_id = ?4 AND order_id <> "
                                              "x'' AND token = '' AND payment = '' AND account IN ('', ?3)"
                                              ") ORDER BY number");
    row.text(payment.m_Id)
        .text(payment.m_Token)
        .text(payment.m_Account)
        .bytes(payment.attribute("ORDERID").value_or(""));
    Page page;
    page.m_Limit = limit;
    return readExchanges(row, page);
}

std::optional<Exchange> Store::exchange(std::int64_t number) {
    RowReader const reader(*this);
    Statement row = reader.database().prepare(std::string(kComplete) + " WHERE number = ?");
    return row.number(number).step() ? std::optional<Exchange>(readExchange(row)) : std::nullopt;
}

std::vector<std::pair<std::int64_t, std::string>> Store::latestData(std::int64_t count, std::int64_t longest) {
    ReaderPool::Reader const reader = m_Readers.take();
    Statement row = reader.database().prepare(
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
