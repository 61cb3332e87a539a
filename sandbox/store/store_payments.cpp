// Payments with their attributes and history, and their notifications.
// Every change of state goes through advance(): it checks the present state and writes the new state, the history entry
// and the notification in one transaction. Of two callers exactly one succeeds.
// findPayment() reads a payment from the columns of kById and kByToken, then its attributes and its history.
#include <cstdint>
#include <stdexcept>

#include "sandbox/store/store.h"

namespace sandbox {

namespace {

// The columns that findPayment() reads.
constexpr char kById[] = "SELECT id, account, token, state, form_key, message FROM payments WHERE id = ?";
constexpr char kByToken[] =
    "SELECT id, account, token, state, form_key, message FROM payments WHERE account = ? AND token = ?";

}  // namespace

StoredPayment Store::openPayment(StoredPayment const& fresh, std::string const& time) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Transaction transaction(m_Database);
    Statement row = m_Database.prepare(kByToken);
    row.text(fresh.m_Payment.m_Account).text(fresh.m_Payment.m_Token);
    if (std::optional<StoredPayment> stored = findPayment(row)) {
        return *stored;
    }
    insertPayment(fresh, time);
    transaction.commit();
    return fresh;
}

std::optional<StoredPayment> Store::paymentById(std::string const& id) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Statement row = m_Database.prepare(kById);
    row.text(id);
    return findPayment(row);
}

std::optional<StoredPayment> Store::paymentByToken(std::string const& account, std::string const& token) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Statement row = m_Database.prepare(kByToken);
    row.text(account).text(token);
    return findPayment(row);
}

std::vector<Payment> Store::payments(std::optional<PaymentState> state) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Statement identifiers = m_Database.prepare("SELECT id FROM payments WHERE ? IN ('', state) ORDER BY number");
    identifiers.text(state ? stateName(*state) : "");
    std::vector<Payment> found;
    while (identifiers.step()) {
        Statement row = m_Database.prepare(kById);
        row.text(identifiers.column(0));
        std::optional<StoredPayment> const stored = findPayment(row);
        if (stored) {
            found.push_back(stored->m_Payment);
        }
    }
    return found;
}

std::vector<StoredPayment> Store::latestPayments(std::int64_t count, std::int64_t longest) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Statement identifiers = m_Database.prepare(
        "SELECT id FROM (SELECT number, id, message FROM payments ORDER BY number DESC LIMIT ?) "
        "WHERE length(message) <= ? ORDER BY number DESC");
    identifiers.number(count).number(longest);
    std::vector<StoredPayment> found;
    while (identifiers.step()) {
        Statement row = m_Database.prepare(kById);
        row.text(identifiers.column(0));
        found.push_back(findPayment(row).value());
    }
    return found;
}

std::string Store::orderOfToken(std::string const& account, std::string const& token) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Statement row = m_Database.prepare(
        "SELECT a.value FROM payments p JOIN payment_attributes a ON a.payment = p.id AND a.name = 'ORDERID' "
        "WHERE p.account = ? AND p.token = ?");
    row.text(account).text(token);
    return row.step() ? row.column(0) : "";
}

bool Store::advance(std::string const& id, std::vector<PaymentState> const& from, HistoryEntry const& step,
                    std::optional<Notification> const& notification, std::optional<DueMove> const& next) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Transaction transaction(m_Database);
    if (!isIn(id, from)) {
        return false;
    }
    m_Database.prepare("UPDATE payments SET state = ? WHERE id = ?").text(stateName(step.m_State)).text(id).step();
    addHistory(id, step);
    if (notification) {
        addNotification(*notification);
    }
    replaceDueMove(id, next);
    transaction.commit();
    return true;
}

std::vector<Notification> Store::notifications(std::int64_t after) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Statement row = m_Database.prepare(
        "SELECT number, payment, address, result, attempts, pending, time, outcome FROM notifications "
        "WHERE number > ? ORDER BY number");
    row.number(after);
    std::vector<Notification> found;
    while (row.step()) {
        found.push_back({row.numberColumn(0), row.column(1), row.column(2), row.column(3), row.numberColumn(4),
                         row.numberColumn(5) != 0, row.column(6), row.column(7)});
    }
    return found;
}

void Store::updateNotification(Notification const& notification) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    m_Database.prepare("UPDATE notifications SET attempts = ?, pending = ?, time = ?, outcome = ? WHERE number = ?")
        .number(notification.m_Attempts)
        .number(notification.m_Pending ? 1 : 0)
        .text(notification.m_Time)
        .bytes(notification.m_Outcome)
        .number(notification.m_Number)
        .step();
}

std::optional<StoredPayment> Store::findPayment(Statement& row) {
    if (!row.step()) {
        return std::nullopt;
    }
    StoredPayment stored;
    Payment& payment = stored.m_Payment;
    payment.m_Id = row.column(0);
    payment.m_Account = row.column(1);
    payment.m_Token = row.column(2);
    payment.m_State = stateFromName(row.column(3));
    stored.m_FormKey = row.column(4);
    stored.m_Message = row.column(5);
    Statement attributes =
        m_Database.prepare("SELECT name, value FROM payment_attributes WHERE payment = ? ORDER BY position");
    attributes.text(payment.m_Id);
    while (attributes.step()) {
        payment.m_Attributes.emplace_back(attributes.column(0), attributes.column(1));
    }
    Statement history = m_Database.prepare("SELECT time, state, note FROM history WHERE payment = ? ORDER BY number");
    history.text(payment.m_Id);
    while (history.step()) {
        payment.m_History.push_back({history.column(0), stateFromName(history.column(1)), history.column(2)});
    }
    return stored;
}

void Store::insertPayment(StoredPayment const& fresh, std::string const& time) {
    Payment const& payment = fresh.m_Payment;
    m_Database.prepare("INSERT INTO payments (id, account, token, state, form_key, message) VALUES (?, ?, ?, ?, ?, ?)")
        .text(payment.m_Id)
        .text(payment.m_Account)
        .text(payment.m_Token)
        .text(stateName(payment.m_State))
        .text(fresh.m_FormKey)
        .bytes(fresh.m_Message)
        .step();
    std::int64_t position = 0;
    for (auto const& [name, value] : payment.m_Attributes) {
        m_Database.prepare("INSERT INTO payment_attributes (payment, position, name, value) VALUES (?, ?, ?, ?)")
            .text(payment.m_Id)
            .number(position++)
            .text(name)
            .bytes(value)
            .step();
    }
    addHistory(payment.m_Id, {time, payment.m_State, "payment page asked for"});
}

void Store::addHistory(std::string const& id, HistoryEntry const& step) {
    m_Database.prepare("INSERT INTO history (payment, time, state, note) VALUES (?, ?, ?, ?)")
        .text(id)
        .text(step.m_Time)
        .text(stateName(step.m_State))
        .text(step.m_Note)
        .step();
}

void Store::addNotification(Notification const& notification) {
    m_Database
        .prepare(
            "INSERT INTO notifications (payment, address, result, attempts, pending, time, outcome) "
            "VALUES (?, ?, ?, ?, ?, ?, ?)")
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
