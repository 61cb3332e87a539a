// Payments with their history, their notifications, and the moves that are due.
// Every change of state goes through advance(): it moves the payment on condition of its present state and writes the
// history entry, the notification and the next due move in the same transaction. Of two callers exactly one succeeds.
// A payment has at most one due move, and every move of a payment replaces it: what came in time is never undone by it.
// A payment's attributes are not stored apart: they are read from its message. Columns repeat what is searched for.
#include <algorithm>
#include <ctime>
#include <thread>
#include <utility>

#include "sandbox/store/store.h"

namespace sandbox {

namespace {

// What readPayment() and readNotification() read.
std::string const kSelectPayment = "SELECT number, id, account, token, state, form_key, message FROM payments";
std::string const kSelectNotification =
    "SELECT number, payment, address, result, attempts, pending, time, outcome FROM notifications";

StoredPayment readPayment(Statement const& row) {
    StoredPayment stored;
    Payment& payment = stored.m_Payment;
    payment.m_Number = row.numberColumn(0);
    payment.m_Id = row.column(1);
    payment.m_Account = row.column(2);
    payment.m_Token = row.column(3);
    payment.m_State = stateFromName(row.column(4));
    stored.m_FormKey = row.column(5);
    stored.m_Message = row.column(6);
    if (!stored.m_Message.empty()) {
        payment.m_Attributes = Message::parse(stored.m_Message).attributes();
    }
    return stored;
}

Notification readNotification(Statement const& row) {
    return {row.numberColumn(0),      row.column(1), row.column(2), row.column(3), row.numberColumn(4),
            row.numberColumn(5) != 0, row.column(6), row.column(7)};
}

void readHistory(Database& database, Payment& payment) {
    payment.m_History =
        database.prepare("SELECT time, state, note FROM history WHERE payment = ? ORDER BY number", payment.m_Id)
            .all([](Statement const& row) {
                return HistoryEntry{row.column(0), stateFromName(row.column(1)), row.column(2)};
            });
}

/// The payment of the next row; nothing when there is no row.
std::optional<StoredPayment> findPayment(Database& database, Statement row, Store::History history) {
    std::optional<StoredPayment> stored = row.first(readPayment);
    if (stored && history == Store::History::kRead) {
        readHistory(database, stored->m_Payment);
    }
    return stored;
}

/// What follows other conditions on the column `account`.
std::string accountConditions(AccountScope const& accounts) {
    std::string conditions = accounts.m_Only ? " AND account = ?" : "";
    for (std::size_t i = 0; i < accounts.m_Except.size(); ++i) {
        conditions += " AND account <> ?";
    }
    return conditions;
}

void bindAccounts(Statement& row, AccountScope const& accounts) {
    row.bind(accounts.m_Only);
    for (std::string const& account : accounts.m_Except) {
        row.bind(account);
    }
}

}  // namespace

StoredPayment Store::openPayment(StoredPayment fresh, std::string const& time, MakeIdentifiers const& makeIdentifiers) {
    Turn turn(m_Writer);
    if (makeIdentifiers) {
        makeFreeIdentifiers(fresh, makeIdentifiers);
    }
    Payment const& payment = fresh.m_Payment;
    m_Database.run(
        "INSERT INTO payments (number, id, account, token, order_id, state, expires, stored, form_key, message) "
        "VALUES ((SELECT last + 1 FROM counters WHERE name = 'payments'), ?, ?, ?, ?, ?, ?, ?, ?, ?) "
        "ON CONFLICT (account, token) DO NOTHING",
        payment.m_Id, payment.m_Account, payment.m_Token, Bytes{payment.attribute("ORDERID").value_or("")},
        stateName(payment.m_State), expirationIn(payment.m_Attributes), std::time(nullptr), fresh.m_FormKey,
        Bytes{fresh.m_Message});
    if (m_Database.changes() == 0) {
        return m_Database
            .prepare(kSelectPayment + " WHERE account = ? AND token = ?", payment.m_Account, payment.m_Token)
            .first(readPayment)
            .value();
    }
    fresh.m_Payment.m_Number = m_Database.lastNumber();
    HistoryEntry const step = {time, payment.m_State, "payment page asked for"};
    insertHistory(payment.m_Id, step);
    turn.keep([this, move = StoreEvent::Move{payment.m_Id, step}] { m_Events.add({move}); });
    return fresh;
}

void Store::makeFreeIdentifiers(StoredPayment& fresh, MakeIdentifiers const& makeIdentifiers) {
    Statement count = m_Database.prepare("SELECT count(*) FROM payments WHERE account = ?", fresh.m_Payment.m_Account);
    count.step();
    std::int64_t number = count.numberColumn(0);
    bool isTaken = true;
    while (isTaken) {
        makeIdentifiers(fresh, ++number);
        isTaken = m_Database.prepare("SELECT 1 FROM payments WHERE id = ?", fresh.m_Payment.m_Id).step();
    }
}

std::optional<StoredPayment> Store::paymentById(std::string const& id, History history) {
    RowReader const reader(*this);
    Database& database = reader.database();
    return findPayment(database, database.prepare(kSelectPayment + " WHERE id = ?", id), history);
}

std::optional<StoredPayment> Store::paymentByToken(std::string const& account, std::string const& token,
                                                   History history) {
    RowReader const reader(*this);
    Database& database = reader.database();
    return findPayment(database, database.prepare(kSelectPayment + " WHERE account = ? AND token = ?", account, token),
                       history);
}

Listing<Payment> Store::payments(Filter const& filter, Page const& page) {
    ReaderPool::Reader const reader = m_Readers.take();
    Transaction const snapshot(*reader, Database::Access::kRead);
    // There are few accounts, and the tokens of each have an index.
    bool const isTokenAlone = filter.m_Token && !filter.m_Account;
    Statement row = reader->prepare(kSelectPayment + conditionsOf(filter, "id") +
                                    (isTokenAlone ? " AND account IN (SELECT user FROM accounts)" : "") +
                                    " ORDER BY number" + (page.m_NewestFirst ? " DESC" : ""));
    bind(row, filter, page);
    return listingOf<Payment>(row, page, [&reader](Statement const& each, std::size_t& bytes) {
        StoredPayment stored = readPayment(each);
        readHistory(*reader, stored.m_Payment);
        bytes += stored.m_Message.size();
        return std::move(stored.m_Payment);
    });
}

std::optional<Payment> Store::newestPayment(Filter const& filter) {
    std::vector<Payment> const found = payments(filter, Page::newest(1)).m_Rows;
    return found.empty() ? std::nullopt : std::optional<Payment>(found.front());
}

std::vector<Payment> Store::paymentsToExpire(std::int64_t moment, std::int64_t limit, AccountScope const& accounts) {
    ReaderPool::Reader const reader = m_Readers.take();
    Statement row = reader->prepare(
        kSelectPayment + " WHERE state = 'opened' AND expires < ?" + accountConditions(accounts) + " LIMIT ?", moment);
    bindAccounts(row, accounts);
    row.bind(limit);
    return row.all([](Statement const& each) { return readPayment(each).m_Payment; });
}

std::vector<StoredPayment> Store::latestPayments(std::int64_t count, std::int64_t longest) {
    ReaderPool::Reader const reader = m_Readers.take();
    Transaction const snapshot(*reader, Database::Access::kRead);
    return reader
        ->prepare("SELECT * FROM (" + kSelectPayment +
                      " ORDER BY number DESC LIMIT ?) WHERE length(message) <= ? ORDER BY number DESC",
                  count, longest)
        .all([&reader](Statement const& row) {
            StoredPayment stored = readPayment(row);
            readHistory(*reader, stored.m_Payment);
            return stored;
        });
}

std::map<std::string, Store::Subject> Store::subjectsOf(std::set<std::string> const& ids) {
    ReaderPool::Reader const reader = m_Readers.take();
    Transaction const snapshot(*reader, Database::Access::kRead);
    std::map<std::string, Subject> found;
    for (std::string const& id : ids) {
        Statement row = reader->prepare("SELECT account, order_id FROM payments WHERE id = ?", id);
        if (row.step()) {
            found[id] = {row.column(0), row.column(1)};
        }
    }
    return found;
}

bool Store::advance(std::string const& id, std::vector<PaymentState> const& from, HistoryEntry const& step,
                    std::optional<Notification> const& notification, std::optional<DueMove> const& next) {
    std::string present;
    for (PaymentState const state : from) {
        present += std::string(present.empty() ? "'" : ", '") + stateName(state) + "'";
    }
    Turn turn(m_Writer);
    m_Database.run("UPDATE payments SET state = ? WHERE id = ? AND state IN (" + present + ")", stateName(step.m_State),
                   id);
    if (m_Database.changes() == 0) {
        return false;
    }
    insertHistory(id, step);
    if (notification) {
        insertNotification(*notification);
    }
    replaceDueMove(id, next);
    turn.keep([this, move = StoreEvent::Move{id, step}] { m_Events.add({move}); });
    return true;
}

void Store::insertHistory(std::string const& id, HistoryEntry const& step) {
    m_Database.run("INSERT INTO history (payment, time, state, note) VALUES (?, ?, ?, ?)", id, step.m_Time,
                   stateName(step.m_State), step.m_Note);
}

void Store::replaceDueMove(std::string const& id, std::optional<DueMove> const& next) {
    m_Database.run("DELETE FROM due_moves WHERE payment = ?", id);
    if (next) {
        m_Database.run("INSERT INTO due_moves (payment, due, state, note) VALUES (?, ?, ?, ?)", id, next->m_Due,
                       stateName(next->m_State), next->m_Note);
    }
}

std::optional<std::string> Store::otherPayment(Payment const& payment, Search search,
                                               std::vector<PaymentState> const& states) {
    RowReader const reader(*this);
    Statement row = reader.database().prepare(
        "SELECT id, state FROM payments WHERE account = ? AND id <> ? AND (? OR number < (SELECT number FROM payments "
        "WHERE id = ?)) ORDER BY number DESC",
        payment.m_Account, payment.m_Id, search == Search::kAll ? 1 : 0, payment.m_Id);
    while (row.step()) {
        if (std::find(states.begin(), states.end(), stateFromName(row.column(1))) != states.end()) {
            return row.column(0);
        }
    }
    return std::nullopt;
}

std::optional<DueMove> Store::dueMove(std::string const& id) {
    auto const read = [](Statement const& row) {
        return DueMove{row.numberColumn(0), stateFromName(row.column(1)), row.column(2)};
    };
    return presentRow(read, "SELECT due, state, note FROM due_moves WHERE payment = ?", id);
}

std::vector<std::pair<std::string, DueMove>> Store::dueMoves(std::int64_t now, AccountScope const& accounts) {
    RowReader const reader(*this);
    Statement row = reader.database().prepare(
        "SELECT d.payment, d.due, d.state, d.note FROM due_moves d JOIN payments p ON p.id = d.payment WHERE d.due <= "
        "?" +
            accountConditions(accounts) + " ORDER BY d.due",
        now);
    bindAccounts(row, accounts);
    return row.all([](Statement const& each) {
        return std::pair(each.column(0), DueMove{each.numberColumn(1), stateFromName(each.column(2)), each.column(3)});
    });
}

bool Store::refuseCaptures(std::string const& id, HistoryEntry const& step, std::string const& reason) {
    Turn turn(m_Writer);
    if (!m_Database.prepare("SELECT 1 FROM payments WHERE id = ? AND state = ?", id, stateName(step.m_State)).step()) {
        return false;
    }
    m_Database.run("INSERT INTO capture_refusals (payment, reason) VALUES (?, ?) ON CONFLICT (payment) DO NOTHING", id,
                   Bytes{reason});
    insertHistory(id, step);
    turn.keep();
    return true;
}

std::optional<std::string> Store::captureRefusal(std::string const& id) {
    return presentRow(firstColumn, "SELECT reason FROM capture_refusals WHERE payment = ?", id);
}

std::vector<Notification> Store::notifications() {
    return committedRows(readNotification, kSelectNotification + " ORDER BY number");
}

std::vector<Notification> Store::notificationsOf(std::string const& payment) {
    return committedRows(readNotification, kSelectNotification + " WHERE payment = ? ORDER BY number", payment);
}

std::vector<Notification> Store::pendingNotifications(std::int64_t after) {
    return committedRows(readNotification, kSelectNotification + " WHERE pending = 1 AND number > ? ORDER BY number",
                         after);
}

void Store::insertNotification(Notification const& notification) {
    m_Database.run(
        "INSERT INTO notifications (number, payment, address, result, attempts, pending, time, outcome) "
        "VALUES ((SELECT last + 1 FROM counters WHERE name = 'notifications'), ?, ?, ?, ?, ?, ?, ?)",
        notification.m_Payment, Bytes{notification.m_Address}, notification.m_Result, notification.m_Attempts,
        notification.m_Pending ? 1 : 0, notification.m_Time, Bytes{notification.m_Outcome});
}

std::optional<Notification> Store::repeatNotification(std::int64_t number) {
    Turn turn(m_Writer);
    std::optional<Notification> const earlier =
        m_Database.prepare(kSelectNotification + " WHERE number = ?", number).first(readNotification);
    if (!earlier) {
        return std::nullopt;
    }
    Notification again;
    again.m_Payment = earlier->m_Payment;
    again.m_Address = earlier->m_Address;
    again.m_Result = earlier->m_Result;
    insertNotification(again);
    again.m_Number = m_Database.lastNumber();
    turn.keep([this] { m_Events.countChange(); });
    return again;
}

void Store::updateNotification(Notification const& notification) {
    Turn turn(m_Writer);
    m_Database.run("UPDATE notifications SET attempts = ?, pending = ?, time = ?, outcome = ? WHERE number = ?",
                   notification.m_Attempts, notification.m_Pending ? 1 : 0, notification.m_Time,
                   Bytes{notification.m_Outcome}, notification.m_Number);
    turn.keep([this, notification] { m_Events.add({{}, {}, notification}); });
}

std::int64_t Store::removePayments(std::optional<std::string> const& account) {
    std::int64_t last = 0;
    std::int64_t removed = 0;
    for (std::int64_t changed = kBatch; changed == kBatch; std::this_thread::sleep_for(kPause)) {
        Turn turn(m_Writer);
        last = removed == 0 ? lastNumberIn("payments") : last;
        changed =
            removePayments(m_Database.prepare(std::string("SELECT id FROM payments WHERE number <= ?") +
                                                  (account ? " AND account = ?" : "") + " ORDER BY number LIMIT ?",
                                              last, account, kBatch));
        turn.keep();
        removed += changed;
    }
    return removed;
}

/// Removes the oldest `count`, and of the oldest those that were stored before that moment, but for those with a
/// notification that is still to be sent. True when there may be more.
bool Store::prunePayments(std::int64_t count, std::int64_t before) {
    return removePayments(m_Database.prepare(
               "SELECT id FROM payments WHERE (number IN (SELECT number FROM payments ORDER BY number LIMIT ?) OR "
               "(number IN (SELECT number FROM payments ORDER BY number LIMIT ?) AND stored < ?)) AND NOT EXISTS "
               "(SELECT 1 FROM notifications WHERE payment = id AND pending = 1)",
               count, m_Retention.m_Seconds ? kBatch : 0, before)) >= kBatch;
}

/// Removes the payments whose identifiers `chosen` finds. Returns how many.
std::int64_t Store::removePayments(Statement chosen) {
    std::vector<std::string> const ids = chosen.all(firstColumn);
    for (std::string const& id : ids) {
        for (char const* sql : {"DELETE FROM notifications WHERE payment = ?", "DELETE FROM history WHERE payment = ?",
                                "DELETE FROM payments WHERE id = ?"}) {
            m_Database.run(sql, id);
        }
    }
    return static_cast<std::int64_t>(ids.size());
}

}  // namespace sandbox
