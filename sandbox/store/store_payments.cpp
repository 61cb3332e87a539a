// Payments with their history, and their notifications.
// Every change of state goes through advance(): it moves the payment on condition of its present state and writes the
// history entry, the notification and the next due move in the same transaction. Of two callers exactly one succeeds.
// A payment's attributes are not stored apart: they are read from its message. Columns repeat what is searched for.
#include <ctime>
#include <stdexcept>
#include <utility>

#include "sandbox/store/conditions.h"
#include "sandbox/store/store.h"

namespace sandbox {

namespace {

// What readPayment() and readNotifications() read.
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

void readHistory(Database& database, Payment& payment) {
    Statement row = database.prepare("SELECT time, state, note FROM history WHERE payment = ? ORDER BY number");
    row.text(payment.m_Id);
    while (row.step()) {
        payment.m_History.push_back({row.column(0), stateFromName(row.column(1)), row.column(2)});
    }
}

/// The payment of the next row; nothing when there is no row.
std::optional<StoredPayment> findPayment(Database& database, Statement& row, Store::History history) {
    if (!row.step()) {
        return std::nullopt;
    }
    StoredPayment stored = readPayment(row);
    if (history == Store::History::kRead) {
        readHistory(database, stored.m_Payment);
    }
    return stored;
}

std::vector<Notification> readNotifications(Statement& row) {
    std::vector<Notification> found;
    while (row.step()) {
        found.push_back({row.numberColumn(0), row.column(1), row.column(2), row.column(3), row.numberColumn(4),
                         row.numberColumn(5) != 0, row.column(6), row.column(7)});
    }
    return found;
}

/// The query for a page of payments, without its parameters.
std::string queryFor(PaymentFilter const& filter, Page const& page) {
    return kSelectPayment + " WHERE number > ? AND number < ?" + (filter.m_Account ? " AND account = ?" : "") +
           (filter.m_Order ? " AND order_id = ?" : "") + (filter.m_Token ? " AND token = ?" : "") +
           // There are few accounts, and the tokens of each have an index.
           (filter.m_Token && !filter.m_Account ? " AND account IN (SELECT user FROM accounts)" : "") +
           (filter.m_Id ? " AND id = ?" : "") + (filter.m_State ? " AND state = ?" : "") + " ORDER BY number" +
           (page.m_NewestFirst ? " DESC" : "");
}

void bind(Statement& row, PaymentFilter const& filter, Page const& page) {
    bindCommon(row, filter, page);
    if (filter.m_Id) {
        row.text(*filter.m_Id);
    }
    if (filter.m_State) {
        row.text(stateName(*filter.m_State));
    }
}

}  // namespace

StoredPayment Store::openPayment(StoredPayment fresh, std::string const& time, MakeIdentifiers const& makeIdentifiers) {
    Turn turn(m_Writer);
    if (makeIdentifiers) {
        makeFreeIdentifiers(fresh, makeIdentifiers);
    }
    Payment const& payment = fresh.m_Payment;
    m_Database
        .prepare(
            "INSERT INTO payments (number, id, account, token, order_id, state, expires, stored, form_key, message) "
            "VALUES ((SELECT last + 1 FROM counters WHERE name = 'payments'), ?, ?, ?, ?, ?, ?, ?, ?, ?) "
            "ON CONFLICT (account, token) DO NOTHING")
        .text(payment.m_Id)
        .text(payment.m_Account)
        .text(payment.m_Token)
        .bytes(payment.attribute("ORDERID").value_or(""))
        .text(stateName(payment.m_State))
        .number(expirationIn(payment.m_Attributes))
        .number(std::time(nullptr))
        .text(fresh.m_FormKey)
        .bytes(fresh.m_Message)
        .step();
    if (m_Database.changes() == 0) {
        Statement row = m_Database.prepare(kSelectPayment + " WHERE account = ? AND token = ?");
        row.text(payment.m_Account).text(payment.m_Token);
        return findPayment(m_Database, row, History::kLeft).value();
    }
    fresh.m_Payment.m_Number = m_Database.lastNumber();
    HistoryEntry const step = {time, payment.m_State, "payment page asked for"};
    insertHistory(payment.m_Id, step);
    turn.keep([this, move = StoreEvent::Move{payment.m_Id, step}] {
        m_Events.add({move});
        countChange();
    });
    return fresh;
}

std::optional<StoredPayment> Store::paymentById(std::string const& id, History history) {
    RowReader const reader(*this);
    Statement row = reader.database().prepare(kSelectPayment + " WHERE id = ?");
    row.text(id);
    return findPayment(reader.database(), row, history);
}

std::optional<StoredPayment> Store::paymentByToken(std::string const& account, std::string const& token,
                                                   History history) {
    RowReader const reader(*this);
    Statement row = reader.database().prepare(kSelectPayment + " WHERE account = ? AND token = ?");
    row.text(account).text(token);
    return findPayment(reader.database(), row, history);
}

Listing<Payment> Store::payments(PaymentFilter const& filter, Page const& page) {
    ReaderPool::Reader const reader = m_Readers.take();
    Transaction const snapshot(reader.database(), Database::Access::kRead);
    Statement row = reader.database().prepare(queryFor(filter, page));
    bind(row, filter, page);
    Listing<Payment> found;
    std::size_t bytes = 0;
    while (row.step()) {
        if (static_cast<std::int64_t>(found.m_Rows.size()) == page.m_Limit || bytes >= page.m_MaxBytes) {
            found.m_More = true;
            break;
        }
        StoredPayment stored = readPayment(row);
        readHistory(reader.database(), stored.m_Payment);
        bytes += stored.m_Message.size();
        found.m_Rows.push_back(std::move(stored.m_Payment));
    }
    return found;
}

std::optional<Payment> Store::newestPayment(PaymentFilter const& filter) {
    Page newest;
    newest.m_NewestFirst = true;
    newest.m_Limit = 1;
    std::vector<Payment> const found = payments(filter, newest).m_Rows;
    return found.empty() ? std::nullopt : std::optional<Payment>(found.front());
}

std::vector<Payment> Store::paymentsToExpire(std::int64_t moment, std::int64_t limit, AccountScope const& accounts) {
    ReaderPool::Reader const reader = m_Readers.take();
    Statement row = reader.database().prepare(kSelectPayment + " WHERE state = 'opened' AND expires < ?" +
                                              conditionsOf(accounts) + " LIMIT ?");
    row.number(moment);
    bind(row, accounts);
    row.number(limit);
    std::vector<Payment> found;
    while (row.step()) {
        found.push_back(readPayment(row).m_Payment);
    }
    return found;
}

bool Store::hasOpenPayments() {
    ReaderPool::Reader const reader = m_Readers.take();
    Statement row = reader.database().prepare("SELECT 1 FROM payments WHERE state = 'opened' LIMIT 1");
    return row.step();
}

std::vector<StoredPayment> Store::latestPayments(std::int64_t count, std::int64_t longest) {
    ReaderPool::Reader const reader = m_Readers.take();
    Transaction const snapshot(reader.database(), Database::Access::kRead);
    Statement row =
        reader.database().prepare("SELECT * FROM (" + kSelectPayment +
                                  " ORDER BY number DESC LIMIT ?) WHERE length(message) <= ? ORDER BY number DESC");
    row.number(count).number(longest);
    std::vector<StoredPayment> found;
    while (std::optional<StoredPayment> stored = findPayment(reader.database(), row, History::kRead)) {
        found.push_back(std::move(*stored));
    }
    return found;
}

std::optional<Store::Subject> Store::subjectOf(std::string const& id) {
    RowReader const reader(*this);
    Statement row = reader.database().prepare("SELECT account, order_id FROM payments WHERE id = ?");
    return row.text(id).step() ? std::optional<Subject>({row.column(0), row.column(1)}) : std::nullopt;
}

std::string Store::orderOfToken(std::string const& account, std::string const& token) {
    RowReader const reader(*this);
    Statement row = reader.database().prepare("SELECT order_id FROM payments WHERE account = ? AND token = ?");
    row.text(account).text(token);
    return row.step() ? row.column(0) : "";
}

bool Store::advance(std::string const& id, std::vector<PaymentState> const& from, HistoryEntry const& step,
                    std::optional<Notification> const& notification, std::optional<DueMove> const& next) {
    std::string present;
    for (PaymentState const state : from) {
        present += std::string(present.empty() ? "'" : ", '") + stateName(state) + "'";
    }
    Turn turn(m_Writer);
    m_Database.prepare("UPDATE payments SET state = ? WHERE id = ? AND state IN (" + present + ")")
        .text(stateName(step.m_State))
        .text(id)
        .step();
    if (m_Database.changes() == 0) {
        return false;
    }
    insertHistory(id, step);
    if (notification) {
        insertNotification(*notification);
    }
    replaceDueMove(id, next);
    turn.keep([this, move = StoreEvent::Move{id, step}] {
        m_Events.add({move});
        countChange();
    });
    return true;
}

std::vector<Notification> Store::notifications() {
    ReaderPool::Reader const reader = m_Readers.take();
    Statement row = reader.database().prepare(kSelectNotification + " ORDER BY number");
    return readNotifications(row);
}

std::vector<Notification> Store::notificationsOf(std::string const& payment) {
    ReaderPool::Reader const reader = m_Readers.take();
    Statement row = reader.database().prepare(kSelectNotification + " WHERE payment = ? ORDER BY number");
    row.text(payment);
    return readNotifications(row);
}

std::vector<Notification> Store::pendingNotifications(std::int64_t after) {
    ReaderPool::Reader const reader = m_Readers.take();
    Statement row =
        reader.database().prepare(kSelectNotification + " WHERE pending = 1 AND number > ? ORDER BY number");
    row.number(after);
    return readNotifications(row);
}

void Store::updateNotification(Notification const& notification) {
    Turn turn(m_Writer);
    m_Database.prepare("UPDATE notifications SET attempts = ?, pending = ?, time = ?, outcome = ? WHERE number = ?")
        .number(notification.m_Attempts)
        .number(notification.m_Pending ? 1 : 0)
        .text(notification.m_Time)
        .bytes(notification.m_Outcome)
        .number(notification.m_Number)
        .step();
    turn.keep([this, notification] {
        m_Events.add({{}, {}, notification});
        countChange();
    });
}

void Store::insertHistory(std::string const& id, HistoryEntry const& step) {
    m_Database.prepare("INSERT INTO history (payment, time, state, note) VALUES (?, ?, ?, ?)")
        .text(id)
        .text(step.m_Time)
        .text(stateName(step.m_State))
        .text(step.m_Note)
        .step();
}

void Store::insertNotification(Notification const& notification) {
    m_Database
        .prepare(
            "INSERT INTO notifications (number, payment, address, result, attempts, pending, time, outcome) "
            "VALUES ((SELECT last + 1 FROM counters WHERE name = 'notifications'), ?, ?, ?, ?, ?, ?, ?)")
        .text(notification.m_Payment)
        .bytes(notification.m_Address)
        .text(notification.m_Result)
        .number(notification.m_Attempts)
        .number(notification.m_Pending ? 1 : 0)
        .text(notification.m_Time)
        .bytes(notification.m_Outcome)
        .step();
}

}  // namespace sandbox
