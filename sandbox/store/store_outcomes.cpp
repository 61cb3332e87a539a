// Moves that are due, refused captures, the payments that faults of content search for, and what tests drive the
// service with: repeated notifications, settings, waits for changes. A payment has at most one due move, and
// every move of a payment replaces it: what came in time is never undone by it.
#include <algorithm>

#include "sandbox/store/conditions.h"
#include "sandbox/store/store.h"

namespace sandbox {

std::optional<std::string> Store::otherPayment(Payment const& payment, Search search,
                                               std::vector<PaymentState> const& states) {
    RowReader const reader(*this);
    Statement row = reader.database().prepare(
        "SELECT id, state FROM payments WHERE account = ? AND id <> ? AND (? OR number < (SELECT number FROM payments "
        "WHERE id = ?)) ORDER BY number DESC");
    row.text(payment.m_Account).text(payment.m_Id).number(search == Search::kAll ? 1 : 0).text(payment.m_Id);
    while (row.step()) {
        if (std::find(states.begin(), states.end(), stateFromName(row.column(1))) != states.end()) {
            return row.column(0);
        }
    }
    return std::nullopt;
}

std::optional<DueMove> Store::dueMove(std::string const& id) {
    RowReader const reader(*this);
    Statement row = reader.database().prepare("SELECT due, state, note FROM due_moves WHERE payment = ?");
    if (!row.text(id).step()) {
        return std::nullopt;
    }
    return DueMove{row.numberColumn(0), stateFromName(row.column(1)), row.column(2)};
}

std::vector<std::pair<std::string, DueMove>> Store::dueMoves(std::int64_t now, AccountScope const& accounts) {
    RowReader const reader(*this);
    Statement row = reader.database().prepare(
        "SELECT d.payment, d.due, d.state, d.note FROM due_moves d JOIN payments p ON p.id = d.payment WHERE d.due <= "
        "?" +
        conditionsOf(accounts) + " ORDER BY d.due");
    row.number(now);
    bind(row, accounts);
    std::vector<std::pair<std::string, DueMove>> found;
    while (row.step()) {
        found.emplace_back(row.column(0), DueMove{row.numberColumn(1), stateFromName(row.column(2)), row.column(3)});
    }
    return found;
}

bool Store::hasDueMoves() {
    ReaderPool::Reader const reader = m_Readers.take();
    return reader.database().prepare("SELECT 1 FROM due_moves LIMIT 1").step();
}

bool Store::refuseCaptures(std::string const& id, HistoryEntry const& step, std::string const& reason) {
    Turn turn(m_Writer);
    if (!isIn(id, {step.m_State})) {
        return false;
    }
    m_Database.prepare("INSERT INTO capture_refusals (payment, reason) VALUES (?, ?) ON CONFLICT (payment) DO NOTHING")
        .text(id)
        .bytes(reason)
        .step();
    insertHistory(id, step);
    turn.keep();
    return true;
}

std::optional<std::string> Store::captureRefusal(std::string const& id) {
    RowReader const reader(*this);
    Statement row = reader.database().prepare("SELECT reason FROM capture_refusals WHERE payment = ?");
    return row.text(id).step() ? std::optional<std::string>(row.column(0)) : std::nullopt;
}

void Store::replaceDueMove(std::string const& id, std::optional<DueMove> const& next) {
    m_Database.prepare("DELETE FROM due_moves WHERE payment = ?").text(id).step();
    if (next) {
        m_Database.prepare("INSERT INTO due_moves (payment, due, state, note) VALUES (?, ?, ?, ?)")
            .text(id)
            .number(next->m_Due)
            .text(stateName(next->m_State))
            .text(next->m_Note)
            .step();
    }
}

bool Store::isIn(std::string const& id, std::vector<PaymentState> const& states) {
    Statement row = m_Database.prepare("SELECT state FROM payments WHERE id = ?");
    return row.text(id).step() && std::find(states.begin(), states.end(), stateFromName(row.column(0))) != states.end();
}

std::optional<Notification> Store::repeatNotification(std::int64_t number) {
    Turn turn(m_Writer);
    Notification again;
    {
        Statement row = m_Database.prepare("SELECT payment, address, result FROM notifications WHERE number = ?");
        if (!row.number(number).step()) {
            return std::nullopt;
        }
        again.m_Payment = row.column(0);
        again.m_Address = row.column(1);
        again.m_Result = row.column(2);
    }
    insertNotification(again);
    again.m_Number = m_Database.lastNumber();
    turn.keep([this] { countChange(); });
    return again;
}

std::map<std::string, std::string> Store::settings() {
    ReaderPool::Reader const reader = m_Readers.take();
    Statement row = reader.database().prepare("SELECT name, value FROM settings");
    std::map<std::string, std::string> found;
    while (row.step()) {
        found[row.column(0)] = row.column(1);
    }
    return found;
}

void Store::setSetting(std::string const& name, std::string const& value) {
    Turn turn(m_Writer);
    if (value.empty()) {
        m_Database.prepare("DELETE FROM settings WHERE name = ?").text(name).step();
    } else {
        m_Database.prepare("INSERT OR REPLACE INTO settings (name, value) VALUES (?, ?)").text(name).text(value).step();
    }
    turn.keep();
}

std::uint64_t Store::changes() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    return m_Changes;
}

bool Store::awaitChange(std::uint64_t seen, std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_Changed.wait_until(lock, deadline, [this, seen] { return m_WaitsEnded || m_Changes > seen; });
    return !m_WaitsEnded;
}

void Store::endWaits() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    m_WaitsEnded = true;
    m_Changed.notify_all();
    m_Events.end();
}

void Store::countChange() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    ++m_Changes;
    m_Changed.notify_all();
}

void Store::makeFreeIdentifiers(StoredPayment& fresh, MakeIdentifiers const& makeIdentifiers) {
    Statement count = m_Database.prepare("SELECT count(*) FROM payments WHERE account = ?");
    count.text(fresh.m_Payment.m_Account).step();
    std::int64_t number = count.numberColumn(0);
    bool isTaken = true;
    while (isTaken) {
        makeIdentifiers(fresh, ++number);
        isTaken = m_Database.prepare("SELECT 1 FROM payments WHERE id = ?").text(fresh.m_Payment.m_Id).step();
    }
}

}  // namespace sandbox
