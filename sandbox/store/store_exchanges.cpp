// Exchanges, and requests that have begun.
// What a request changes is mostly committed in one transaction with its exchange. When something is committed before
// that, the request is inserted into begun_exchanges in the same transaction, and later replaced by its exchange. A
// request that was carried out is thus on record even when the process is killed.
// Rows are removed in batches, and between two batches it is the turn of payments. A request removes what was there
// when it came; rows that are added meanwhile stay, so that it comes to an end.
// The steps of a check are stored as JSON with their texts in hexadecimal, because they can hold any bytes.
#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>
#include <thread>

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

Exchange readCounted(Statement const& row, std::size_t& bytes) {
    Exchange exchange = readExchange(row);
    bytes += exchange.m_Data.size() + exchange.m_Request.size() + exchange.m_Response.size();
    return exchange;
}

ExchangeSummary summaryOf(ExchangeSummary const& exchange, std::int64_t number) {
    ExchangeSummary summary = exchange;
    summary.m_Number = number;
    return summary;
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
            Statement row = database.prepare("SELECT account, token FROM payments WHERE id = ?", id);
            if (row.step()) {
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
    m_Store.m_Database.run(
        "INSERT INTO begun_exchanges (time, kind, account, order_id, token, payment, path, data, request) "
        "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)",
        m_Exchange.m_Time, exchangeName(m_Exchange.m_Kind), m_Exchange.m_Account, Bytes{m_Exchange.m_Order},
        m_Exchange.m_Token, m_Exchange.m_Payment, m_Exchange.m_Path, Bytes{m_Exchange.m_Data},
        Bytes{m_Exchange.m_Request});
    m_Begun = m_Store.m_Database.lastNumber();
}

std::int64_t Store::Request::end(Exchange const& exchange) {
    std::int64_t number = 0;
    {
        Turn turn(m_Store.m_Writer);
        number = m_Store.insertExchange(exchange);
        if (m_Begun != 0) {
            m_Store.m_Database.run("DELETE FROM begun_exchanges WHERE number = ?", m_Begun);
        }
        turn.keepLast([this, summary = summaryOf(exchange, number)] { m_Store.m_Events.add({{}, summary}); });
    }
    m_Unit.finish();
    return number;
}

std::int64_t Store::addExchange(Exchange const& exchange) {
    if (exchange.m_Kind == ExchangeKind::kProxy && exchange.m_Payment.empty()) {
        Exchange const about = linked(*m_Readers.take(), exchange);
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
    m_Database.run(
        "INSERT INTO exchanges (number, time, kind, account, order_id, token, payment, stored, path, data, signature, "
        "verdict, steps, request, answer, fault, microseconds) VALUES ((SELECT last + 1 FROM counters WHERE name = "
        "'exchanges'), ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
        exchange.m_Time, exchangeName(exchange.m_Kind), exchange.m_Account, Bytes{exchange.m_Order}, exchange.m_Token,
        exchange.m_Payment, std::time(nullptr), exchange.m_Path, Bytes{exchange.m_Data}, Bytes{exchange.m_Signature},
        Bytes{exchange.m_Verdict}, stepsText(exchange.m_Steps), Bytes{exchange.m_Request}, Bytes{exchange.m_Response},
        Bytes{exchange.m_Fault}, exchange.m_Microseconds);
    std::int64_t const number = m_Database.lastNumber();
    for (CheckStep const& step : exchange.m_Steps) {
        if (step.m_Warning) {
            m_Database.run("INSERT INTO warnings (exchange) VALUES (?)", number);
        }
    }
    if (number % kPruneEvery == 0) {
        prune();
    }
    return number;
}

void Store::setDelivery(std::int64_t number, std::string const& delivery) {
    Turn turn(m_Writer);
    m_Database.run("UPDATE exchanges SET delivery = ? WHERE number = ?", delivery, number);
    turn.keep();
}

Listing<Exchange> Store::exchanges(Filter const& filter, Page const& page) {
    return listExchanges(kComplete, filter, page);
}

Listing<Exchange> Store::exchangeSummaries(Filter const& filter, Page const& page) {
    return listExchanges(kSummary, filter, page);
}

/// A page of exchanges, each with the columns that `select` names.
Listing<Exchange> Store::listExchanges(std::string const& select, Filter const& filter, Page const& page) {
    ReaderPool::Reader const reader = m_Readers.take();
    Statement row = reader->prepare(select + conditionsOf(filter, "payment") + " ORDER BY number" +
                                    (page.m_NewestFirst ? " DESC" : ""));
    bind(row, filter, page);
    return listingOf<Exchange>(row, page, readCounted);
}

Listing<Exchange> Store::exchangeSummariesOf(Payment const& payment, std::int64_t limit) {
    ReaderPool::Reader const reader = m_Readers.take();
    Statement row = reader->prepare(
        std::string(kSummary) +
            " WHERE number IN (SELECT number FROM exchanges WHERE payment = ?1 "
            "UNION SELECT number FROM exchanges WHERE token = ?2 AND account IN ('', ?3) AND payment = '' "
            "UNION SELECT number FROM exchanges WHERE order_id = ?4 AND order_id <> x'' AND token = '' AND "
            "payment = '' AND account IN ('', ?3)) ORDER BY number",
        payment.m_Id, payment.m_Token, payment.m_Account, Bytes{payment.attribute("ORDERID").value_or("")});
    Page page;
    page.m_Limit = limit;
    return listingOf<Exchange>(row, page, readCounted);
}

std::optional<Exchange> Store::exchange(std::int64_t number) {
    return presentRow(readExchange, std::string(kComplete) + " WHERE number = ?", number);
}

std::vector<std::pair<std::int64_t, std::string>> Store::latestData(std::int64_t count, std::int64_t longest) {
    auto const read = [](Statement const& row) { return std::pair(row.numberColumn(0), row.column(1)); };
    return committedRows(read,
                         "SELECT number, data FROM (SELECT number, data FROM exchanges ORDER BY number DESC LIMIT ?) "
                         "WHERE length(data) BETWEEN 1 AND ? ORDER BY number DESC",
                         count, longest);
}

std::int64_t Store::removeExchanges(Filter const& filter, Page const& page) {
    Page present = page;
    std::int64_t removed = 0;
    for (std::int64_t changed = kBatch; changed == kBatch; std::this_thread::sleep_for(kPause)) {
        Turn turn(m_Writer);
        if (removed == 0) {
            present.m_Before = std::min(page.m_Before, lastNumberIn("exchanges") + 1);
        }
        {
            // Given back before the turn ends: the next one may take it at once.
            Statement row = m_Database.prepare("DELETE FROM exchanges WHERE number IN (SELECT number FROM exchanges" +
                                               conditionsOf(filter, "payment") + " ORDER BY number LIMIT ?)");
            bind(row, filter, present);
            row.bind(kBatch);
            row.step();
        }
        changed = m_Database.changes();
        removed += changed;
        turn.keep();
    }
    return removed;
}

/// Removes the oldest `count`, and of the oldest those that were stored before that moment. True when there may be
/// more. Called in a turn.
bool Store::pruneExchanges(std::int64_t count, std::int64_t before) {
    m_Database.run(
        "DELETE FROM exchanges WHERE number IN (SELECT number FROM exchanges ORDER BY number LIMIT ?) OR (number IN "
        "(SELECT number FROM exchanges ORDER BY number LIMIT ?) AND stored < ?)",
        count, m_Retention.m_Seconds ? kBatch : 0, before);
    return m_Database.changes() >= kBatch;
}

}  // namespace sandbox
