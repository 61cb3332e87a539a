// Every statement on the store, in the SQL that all its databases understand.
//
// Order: reading of columns, rows of results, then the functions of the header. Columns are always read in the order in
// which the constants below list them.
#include "ledger/orderstore.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "ledger/failure.h"
#include "tallowin/codes.h"

namespace ledger {

namespace {

/// Reads the columns of a row one after the other.
class Columns {
public:
    explicit Columns(Row& row, std::size_t first = 0) : m_Row(row), m_Next(first) {}

    Columns& operator>>(std::int64_t& value) { return read(value); }
    Columns& operator>>(std::string& value) { return read(value); }
    Columns& operator>>(State& value) {
        std::string name;
        read(name);
        std::optional<State> const state = stateNamed(name);
        if (!state) {
            throw Failure(KVX_E_LEDGER_DAMAGED, "the store has an attempt in the state \"" + name + "\"");
        }
        value = *state;
        return *this;
    }
    template <class Kind>
    Columns& operator>>(std::optional<Kind>& value) {
        Value& column = m_Row.at(m_Next);
        if (std::holds_alternative<std::monostate>(column)) {
            ++m_Next;
            value.reset();
            return *this;
        }
        return read(value.emplace());
    }

private:
    template <class Kind>
    Columns& read(Kind& value) {
        Kind* const column = std::get_if<Kind>(&m_Row.at(m_Next++));
        if (column == nullptr) {
            throw Failure(KVX_E_LEDGER_DAMAGED, "the store has a column of another type");
        }
        value = std::move(*column);
        return *this;
    }

    Row& m_Row;  ///< Borrowed.
    std::size_t m_Next;
};

#define LEDGER_FURTHER_ORDER_COLUMNS                                                        \
    ", orders.number, orders.amount, orders.currency, orders.attributes, orders.created_at" \
    ", orders.newest_attempt, orders.paid_attempt, orders.told_at, orders.delivered_at, orders.report_at"
#define LEDGER_ORDER_COLUMNS "orders.id" LEDGER_FURTHER_ORDER_COLUMNS

#define LEDGER_ATTEMPT_COLUMNS                                                                             \
    "order_id, attempt, token, state, url, attempts.created_at, expires_at, result, paid_at, payment_id, " \
    "confirmation, tries, refusals, last_code, last_reason, due_at, lease_owner, asks"
constexpr std::size_t kAttemptColumns = 18;

/// Paid, and nothing says that the service will not capture. Written so that no database takes the index on states,
/// which would have it read all attempts; so below.
#define LEDGER_IS_DELIVERABLE                                                                               \
    "COALESCE(state, '') IN ('authorised', 'capturing', 'captured', 'completing', 'completed', 'unknown', " \
    "'completion_unknown')"

/// In a state that this release knows. One row in another, which a newer release or a stranger has written, must not
/// stop the worker.
#define LEDGER_STATE_IS_KNOWN                                                                            \
    "COALESCE(state, '') IN ('opened', 'waiting', 'authorised', 'capturing', 'captured', 'completing', " \
    "'completed', 'declined', 'cancelled', 'expired', 'capture_refused', 'unknown', 'completion_unknown', 'surplus')"
static_assert(std::size(kStates) == 14, "a new state stands in the two lists above, where it belongs there");

OrderRow orderIn(Row& row, std::size_t first = 0) {
    OrderRow order;
    Columns(row, first) >> order.m_Id >> order.m_Number >> order.m_Amount >> order.m_Currency >> order.m_Attributes >>
        order.m_CreatedAt >> order.m_NewestAttempt >> order.m_PaidAttempt >> order.m_ToldAt >> order.m_DeliveredAt >>
        order.m_ReportAt;
    return order;
}

AttemptRow attemptIn(Row& row) {
    AttemptRow attempt;
    Columns(row) >> attempt.m_OrderId >> attempt.m_Attempt >> attempt.m_Token >> attempt.m_State >> attempt.m_Url >>
        attempt.m_CreatedAt >> attempt.m_ExpiresAt >> attempt.m_Result >> attempt.m_PaidAt >> attempt.m_PaymentId >>
        attempt.m_Confirmation >> attempt.m_Tries >> attempt.m_Refusals >> attempt.m_LastCode >> attempt.m_LastReason >>
        attempt.m_DueAt >> attempt.m_LeaseOwner >> attempt.m_Asks;
    return attempt;
}

[[noreturn]] void failForLostOrder(std::int64_t id) {
    throw Failure(KVX_E_LEDGER_DAMAGED, "the store has lost order " + std::to_string(id));
}

/// Whether a column of plain ASCII can hold the text.
bool isPlain(std::string const& text) {
    return std::all_of(text.begin(), text.end(), [](char byte) { return byte > 0; });
}

std::int64_t numberIn(Rows rows) {
    std::int64_t number = 0;
    Columns(rows.at(0)) >> number;
    return number;
}

}  // namespace

std::optional<OrderRow> Store::orderNumbered(std::string const& number) {
    static constexpr char kSql[] = "SELECT " LEDGER_ORDER_COLUMNS " FROM orders WHERE number = $1";
    if (!isPlain(number)) {
        return std::nullopt;
    }
    Rows rows = m_Database->run(kSql, {number});
    return rows.empty() ? std::nullopt : std::optional<OrderRow>(orderIn(rows[0]));
}

OrderRow Store::order(std::int64_t id) {
    static constexpr char kSql[] = "SELECT " LEDGER_ORDER_COLUMNS " FROM orders WHERE id = $1";
    Rows rows = m_Database->run(kSql, {id});
    if (rows.empty()) {
        failForLostOrder(id);
    }
    return orderIn(rows[0]);
}

std::optional<OrderRow> Store::untoldOrder() {
    static constexpr char kSql[] =
        "SELECT " LEDGER_ORDER_COLUMNS
        " FROM orders JOIN attempts ON order_id = id AND attempt = paid_attempt"
        " WHERE paid_attempt IS NOT NULL AND told_at IS NULL AND " LEDGER_IS_DELIVERABLE " ORDER BY id LIMIT 1";
    Rows rows = m_Database->run(kSql, {});
    return rows.empty() ? std::nullopt : std::optional<OrderRow>(orderIn(rows[0]));
}

std::optional<OrderRow> Store::undeliveredOrder(Time now, Time horizon) {
    static constexpr char kSql[] =
        "SELECT " LEDGER_ORDER_COLUMNS
        " FROM orders JOIN attempts ON order_id = id AND attempt = paid_attempt"
        " WHERE report_at IS NOT NULL AND (report_at <= $1 OR report_at > $2) AND " LEDGER_IS_DELIVERABLE
        " ORDER BY report_at, id LIMIT 1";
    Rows rows = m_Database->run(kSql, {now, horizon});
    return rows.empty() ? std::nullopt : std::optional<OrderRow>(orderIn(rows[0]));
}

std::vector<OrderRow> Store::orders(Filter filter, FilterValues const& values, std::int64_t after, std::int64_t limit) {
    static constexpr char kAll[] = "SELECT " LEDGER_ORDER_COLUMNS " FROM orders WHERE id > $1 ORDER BY id LIMIT $2";
    static constexpr char kPaid[] =
        "SELECT " LEDGER_ORDER_COLUMNS " FROM orders WHERE id > $1 AND paid_attempt IS NOT NULL ORDER BY id LIMIT $2";
    static constexpr char kUntold[] =
        "SELECT " LEDGER_ORDER_COLUMNS
        " FROM orders JOIN attempts ON order_id = id AND attempt = paid_attempt"
        " WHERE id > $1 AND paid_attempt IS NOT NULL AND told_at IS NULL AND " LEDGER_IS_DELIVERABLE
        " ORDER BY id LIMIT $2";
    static constexpr char kUndelivered[] =
        "SELECT " LEDGER_ORDER_COLUMNS " FROM orders WHERE id > $1 AND report_at IS NOT NULL ORDER BY id LIMIT $2";
    static constexpr char kSurplus[] = "SELECT " LEDGER_ORDER_COLUMNS
                                       " FROM orders WHERE id > $1 AND id IN"
                                       " (SELECT order_id FROM attempts WHERE due_at IS NULL AND state = 'surplus')"
                                       " ORDER BY id LIMIT $2";
    static constexpr char kAttention[] = "SELECT " LEDGER_ORDER_COLUMNS
                                         " FROM orders WHERE id > $1 AND id IN (SELECT order_id FROM attempts"
                                         " WHERE due_at IS NULL AND state IN"
                                         " ('surplus', 'capture_refused', 'unknown', 'completion_unknown')"
                                         " UNION ALL SELECT order_id FROM attempts WHERE asks > 0 AND asks >= $2"
                                         " UNION ALL SELECT order_id FROM attempts"
                                         " WHERE due_at >= 0 AND NOT " LEDGER_STATE_IS_KNOWN ") ORDER BY id LIMIT $3";
    // Each attempt stands in one of two indexes, by whether something is due of it. Both halves come in the order of
    // the ids; of the first, which may be large, SQLite reads only the rows of the page.
    static constexpr char kInState[] =
        "SELECT order_id" LEDGER_FURTHER_ORDER_COLUMNS
        " FROM attempts CROSS JOIN orders WHERE order_id > $1 AND due_at IS NULL AND state = $2"
        " AND id = order_id AND attempt = COALESCE(paid_attempt, newest_attempt)"
        " UNION ALL SELECT " LEDGER_ORDER_COLUMNS
        " FROM orders JOIN attempts ON order_id = id AND attempt = COALESCE(paid_attempt, newest_attempt)"
        " WHERE id > $1 AND due_at >= 0 AND state = $2"
        " AND id IN (SELECT order_id FROM attempts WHERE due_at >= 0 AND state = $2) ORDER BY 1 LIMIT $3";
    Rows rows;
    switch (filter) {
        case Filter::kAll:
            rows = m_Database->run(kAll, {after, limit});
            break;
        case Filter::kPaid:
            rows = m_Database->run(kPaid, {after, limit});
            break;
        case Filter::kUntold:
            rows = m_Database->run(kUntold, {after, limit});
            break;
        case Filter::kUndelivered:
            rows = m_Database->run(kUndelivered, {after, limit});
            break;
        case Filter::kSurplus:
            rows = m_Database->run(kSurplus, {after, limit});
            break;
        case Filter::kAttention:
            // None is enough: no order is ever left alone.
            rows = values.m_MaxAsks == 0 ? m_Database->run(kAll, {after, limit})
                                         : m_Database->run(kAttention, {after, values.m_MaxAsks, limit});
            break;
        case Filter::kState:
            rows = m_Database->run(kInState, {after, values.m_State, limit});
            break;
    }
    std::vector<OrderRow> orders;
    orders.reserve(rows.size());
    for (Row& row : rows) {
        orders.push_back(orderIn(row));
    }
    return orders;
}

void Store::add(OrderRow& order) {
    static constexpr char kSql[] =
        "INSERT INTO orders (number, amount, currency, attributes, created_at, newest_attempt)"
        " VALUES ($1, $2, $3, $4, $5, $6)";
    // Not by RETURNING, which has SQLite set memory aside for undoing the statement.
    static constexpr char kId[] = "SELECT id FROM orders WHERE number = $1";
    m_Database->run(kSql, {order.m_Number, order.m_Amount, order.m_Currency, order.m_Attributes, order.m_CreatedAt,
                           order.m_NewestAttempt});
    order.m_Id = numberIn(m_Database->run(kId, {order.m_Number}));
}

void Store::save(OrderRow const& order) {
    static constexpr char kSql[] =
        "UPDATE orders SET newest_attempt = $1, paid_attempt = $2, told_at = $3, delivered_at = $4, report_at = $5"
        " WHERE id = $6";
    m_Database->run(kSql, {order.m_NewestAttempt, orNull(order.m_PaidAttempt), orNull(order.m_ToldAt),
                           orNull(order.m_DeliveredAt), orNull(order.m_ReportAt), order.m_Id});
}

std::optional<Payment> Store::paymentWithToken(std::string const& token) {
    static constexpr char kSql[] = "SELECT " LEDGER_ATTEMPT_COLUMNS ", " LEDGER_ORDER_COLUMNS
                                   " FROM attempts LEFT JOIN orders ON orders.id = order_id WHERE token = $1";
    if (!isPlain(token)) {
        return std::nullopt;
    }
    Rows rows = m_Database->run(kSql, {token});
    if (rows.empty()) {
        return std::nullopt;
    }
    std::optional<Payment> payment;
    payment.emplace().m_Attempt = attemptIn(rows[0]);
    if (std::holds_alternative<std::monostate>(rows[0].at(kAttemptColumns))) {
        failForLostOrder(payment->m_Attempt.m_OrderId);
    }
    payment->m_Order = orderIn(rows[0], kAttemptColumns);
    return payment;
}

AttemptRow Store::attempt(std::int64_t orderId, std::int64_t attempt) {
    static constexpr char kSql[] =
        "SELECT " LEDGER_ATTEMPT_COLUMNS " FROM attempts WHERE order_id = $1 AND attempt = $2";
    Rows rows = m_Database->run(kSql, {orderId, attempt});
    if (rows.empty()) {
        throw Failure(KVX_E_LEDGER_DAMAGED,
                      "the store has lost attempt " + std::to_string(attempt) + " of order " + std::to_string(orderId));
    }
    return attemptIn(rows[0]);
}

std::vector<AttemptRow> Store::attempts(std::int64_t orderId) {
    static constexpr char kSql[] =
        "SELECT " LEDGER_ATTEMPT_COLUMNS " FROM attempts WHERE order_id = $1 ORDER BY attempt";
    std::vector<AttemptRow> attempts;
    for (Row& row : m_Database->run(kSql, {orderId})) {
        attempts.push_back(attemptIn(row));
    }
    return attempts;
}

void Store::add(AttemptRow const& attempt) {
    static constexpr char kSql[] =
        "INSERT INTO attempts (order_id, attempt, token, state, message, url, created_at, expires_at, due_at)"
        " VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9)";
    m_Database->run(kSql,
                    {attempt.m_OrderId, attempt.m_Attempt, attempt.m_Token, nameOf(attempt.m_State), attempt.m_Message,
                     attempt.m_Url, attempt.m_CreatedAt, attempt.m_ExpiresAt, orNull(attempt.m_DueAt)});
}

void Store::save(AttemptRow const& attempt) {
    static constexpr char kSql[] =
        "UPDATE attempts SET state = $1, result = $2, paid_at = $3, payment_id = $4, confirmation = $5, tries = $6,"
        " refusals = $7, last_code = $8, last_reason = $9, due_at = $10, lease_owner = $11,"
        " asks = $12 WHERE order_id = $13 AND attempt = $14";
    m_Database->run(
        kSql, {nameOf(attempt.m_State), orNull(attempt.m_Result), orNull(attempt.m_PaidAt), orNull(attempt.m_PaymentId),
               orNull(attempt.m_Confirmation), attempt.m_Tries, attempt.m_Refusals, orNull(attempt.m_LastCode),
               orNull(attempt.m_LastReason), orNull(attempt.m_DueAt), orNull(attempt.m_LeaseOwner), attempt.m_Asks,
               attempt.m_OrderId, attempt.m_Attempt});
}

std::optional<AttemptRow> Store::dueAttempt(Time now, Time horizon, Time grace) {
    static constexpr char kDue[] = "SELECT " LEDGER_ATTEMPT_COLUMNS
                                   " FROM attempts WHERE due_at IS NOT NULL AND due_at <= $1 AND " LEDGER_STATE_IS_KNOWN
                                   " ORDER BY due_at LIMIT 1";
    static constexpr char kBehindHorizon[] =
        "SELECT " LEDGER_ATTEMPT_COLUMNS
        " FROM attempts WHERE due_at IS NOT NULL AND due_at > $1"
        " AND (state <> 'waiting' OR due_at > expires_at + $2) AND " LEDGER_STATE_IS_KNOWN " ORDER BY due_at LIMIT 1";
    Rows rows = m_Database->run(kDue, {now});
    if (rows.empty()) {
        rows = m_Database->run(kBehindHorizon, {horizon, grace});
    }
    return rows.empty() ? std::nullopt : std::optional<AttemptRow>(attemptIn(rows[0]));
}

void Store::wakeDoubtful(Time now, std::int64_t captures, std::int64_t completions) {
    static constexpr char kSql[] =
        "UPDATE attempts SET due_at = $1 WHERE due_at IS NULL AND state IN ('unknown', 'completion_unknown')"
        " AND ((state = 'unknown' AND refusals < $2) OR (state = 'completion_unknown' AND refusals < $3))";
    m_Database->run(kSql, {now, captures, completions});
}

void Store::wakeAuthorised(Time now) {
    static constexpr char kSql[] = "UPDATE attempts SET due_at = $1 WHERE state = 'authorised' AND due_at IS NULL";
    m_Database->run(kSql, {now});
}

void Store::add(AttemptRow const& attempt, State from, Event event, Time at, Evidence const& evidence) {
    static constexpr char kSql[] =
        "INSERT INTO transitions (order_id, attempt, from_state, to_state, event, cause, at, code, message, signature,"
        " key_fingerprint) VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11)";
    m_Database->run(kSql, {attempt.m_OrderId, attempt.m_Attempt, nameOf(from), nameOf(attempt.m_State), nameOf(event),
                           evidence.m_Cause, at, orNull(evidence.m_Code), orNull(evidence.m_Message),
                           orNull(evidence.m_Signature), orNull(evidence.m_KeyFingerprint)});
}

std::vector<TransitionRecord> Store::transitions(std::int64_t orderId) {
    static constexpr char kSql[] =
        "SELECT sequence, attempt, from_state, to_state, event, at, cause, code, message, signature, key_fingerprint"
        " FROM transitions WHERE order_id = $1 ORDER BY sequence";
    std::vector<TransitionRecord> records;
    for (Row& row : m_Database->run(kSql, {orderId})) {
        TransitionRecord& record = records.emplace_back();
        Columns(row) >> record.m_Sequence >> record.m_Attempt >> record.m_From >> record.m_To >> record.m_Event >>
            record.m_At >> record.m_Evidence.m_Cause >> record.m_Evidence.m_Code >> record.m_Evidence.m_Message >>
            record.m_Evidence.m_Signature >> record.m_Evidence.m_KeyFingerprint;
    }
    return records;
}

std::optional<AccountRow> Store::account() {
    static constexpr char kSql[] = "SELECT customer_id, payment_url FROM account WHERE id = 1";
    Rows rows = m_Database->run(kSql, {});
    if (rows.empty()) {
        return std::nullopt;
    }
    AccountRow account;
    Columns(rows[0]) >> account.m_CustomerId >> account.m_PaymentUrl;
    return account;
}

void Store::setAccount(AccountRow const& account) {
    static constexpr char kSql[] =
        "INSERT INTO account (id, customer_id, payment_url) VALUES (1, $1, $2)"
        " ON CONFLICT (id) DO UPDATE SET customer_id = excluded.customer_id, payment_url = excluded.payment_url";
    m_Database->run(kSql, {account.m_CustomerId, account.m_PaymentUrl});
}

std::optional<ServiceKey> Store::keyWithFingerprint(std::string const& fingerprint) {
    static constexpr char kSql[] =
        "SELECT fingerprint, key_id, blob, first_at, replaced_at FROM service_keys WHERE fingerprint = $1";
    Rows rows = m_Database->run(kSql, {fingerprint});
    if (rows.empty()) {
        return std::nullopt;
    }
    ServiceKey key;
    Columns(rows[0]) >> key.m_Fingerprint >> key.m_KeyId >> key.m_Blob >> key.m_FirstAt >> key.m_ReplacedAt;
    return key;
}

void Store::setCurrentKey(ServiceKey const& key, Time now) {
    static constexpr char kReplace[] =
        "UPDATE service_keys SET replaced_at = $1 WHERE replaced_at IS NULL AND fingerprint <> $2";
    static constexpr char kSet[] =
        "INSERT INTO service_keys (fingerprint, key_id, blob, first_at) VALUES ($1, $2, $3, $4)"
        " ON CONFLICT (fingerprint) DO UPDATE SET key_id = excluded.key_id, replaced_at = NULL";
    m_Database->run(kReplace, {now, key.m_Fingerprint});
    m_Database->run(kSet, {key.m_Fingerprint, key.m_KeyId, key.m_Blob, now});
}

bool Store::isKept(KeptRow const& kept) {
    static constexpr char kSql[] =
        "SELECT count(*) FROM kept WHERE order_id = $1 AND attempt = $2 AND data = $3 AND signature = $4";
    return numberIn(m_Database->run(kSql, {kept.m_OrderId, kept.m_Attempt, kept.m_Data, kept.m_Signature})) != 0;
}

std::int64_t Store::keptOf(std::int64_t orderId, std::int64_t attempt) {
    static constexpr char kSql[] = "SELECT count(*) FROM kept WHERE order_id = $1 AND attempt = $2";
    return numberIn(m_Database->run(kSql, {orderId, attempt}));
}

std::int64_t Store::keptInAll() {
    static constexpr char kSql[] = "SELECT count(*) FROM kept";
    return numberIn(m_Database->run(kSql, {}));
}

void Store::add(KeptRow const& kept) {
    static constexpr char kSql[] =
        "INSERT INTO kept (order_id, attempt, key_id, messenger, data, signature, created_at)"
        " VALUES ($1, $2, $3, $4, $5, $6, $7)";
    m_Database->run(kSql, {kept.m_OrderId, kept.m_Attempt, kept.m_KeyId, kept.m_Messenger, kept.m_Data,
                           kept.m_Signature, kept.m_CreatedAt});
}

void Store::removeKept(std::int64_t id) {
    static constexpr char kSql[] = "DELETE FROM kept WHERE id = $1";
    m_Database->run(kSql, {id});
}

void Store::removeKeptBefore(Time time) {
    static constexpr char kSql[] = "DELETE FROM kept WHERE created_at < $1";
    m_Database->run(kSql, {time});
}

bool Store::hasKeptBefore(Time time) {
    static constexpr char kSql[] = "SELECT count(*) FROM kept WHERE created_at < $1";
    return numberIn(m_Database->run(kSql, {time})) != 0;
}

std::vector<std::string> Store::keptKeys() {
    static constexpr char kSql[] = "SELECT DISTINCT key_id FROM kept ORDER BY key_id";
    std::vector<std::string> keys;
    for (Row& row : m_Database->run(kSql, {})) {
        Columns(row) >> keys.emplace_back();
    }
    return keys;
}

std::vector<KeptRow> Store::kept(std::string const& keyId, std::int64_t limit) {
    static constexpr char kSql[] =
        "SELECT id, order_id, attempt, key_id, messenger, data, signature, created_at FROM kept"
        " WHERE key_id = $1 ORDER BY id LIMIT $2";
    std::vector<KeptRow> all;
    for (Row& row : m_Database->run(kSql, {keyId, limit})) {
        KeptRow& kept = all.emplace_back();
        Columns(row) >> kept.m_Id >> kept.m_OrderId >> kept.m_Attempt >> kept.m_KeyId >> kept.m_Messenger >>
            kept.m_Data >> kept.m_Signature >> kept.m_CreatedAt;
    }
    return all;
}

}  // namespace ledger
