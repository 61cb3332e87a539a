// Removing payments and exchanges: on request, and the oldest of them while new ones are added.
// Rows are removed in batches, and between two batches it is the turn of payments. A request removes what was there
// when it came; rows that are added meanwhile stay, so that it comes to an end.
#include <algorithm>
#include <chrono>
#include <ctime>
#include <limits>
#include <thread>

#include "sandbox/store/conditions.h"
#include "sandbox/store/store.h"

namespace sandbox {

namespace {

constexpr std::int64_t kBatch = 256;

/// Between two batches. A thread that only unlocked and locked again would mostly be the next one to get the lock.
constexpr std::chrono::microseconds kPause{200};

std::vector<std::string> textsOf(Statement& row) {
    std::vector<std::string> found;
    while (row.step()) {
        found.push_back(row.column(0));
    }
    return found;
}

}  // namespace

std::int64_t Store::removeExchanges(ExchangeFilter const& filter, Page const& page) {
    Page present = page;
    std::int64_t removed = 0;
    for (std::int64_t changed = kBatch; changed == kBatch; std::this_thread::sleep_for(kPause)) {
        Turn turn(m_Writer);
        if (removed == 0) {
            present.m_Before = std::min(page.m_Before, lastNumberIn("exchanges") + 1);
        }
        Statement row = m_Database.prepare("DELETE FROM exchanges WHERE number IN (SELECT number FROM exchanges" +
                                           conditionsOf(filter) + " ORDER BY number LIMIT ?)");
        bind(row, filter, present);
        row.number(kBatch).step();
        changed = m_Database.changes();
        removed += changed;
        turn.keep();
    }
    return removed;
}

std::int64_t Store::removePayments(std::optional<std::string> const& account) {
    std::int64_t last = 0;
    std::int64_t removed = 0;
    for (std::int64_t changed = kBatch; changed == kBatch; std::this_thread::sleep_for(kPause)) {
        Turn turn(m_Writer);
        last = removed == 0 ? lastNumberIn("payments") : last;
        std::vector<std::string> ids;
        {
            Statement row = m_Database.prepare(std::string("SELECT id FROM payments WHERE number <= ?") +
                                               (account ? " AND account = ?" : "") + " ORDER BY number LIMIT ?");
            row.number(last);
            if (account) {
                row.text(*account);
            }
            row.number(kBatch);
            ids = textsOf(row);
        }
        for (std::string const& id : ids) {
            removePayment(id);
        }
        turn.keep();
        changed = static_cast<std::int64_t>(ids.size());
        removed += changed;
    }
    return removed;
}

/// Removes one batch of what is too old or too much. True when there may be more. Called in a turn.
bool Store::prune() {
    if (!m_Retention.m_Newest && !m_Retention.m_Seconds) {
        return false;
    }
    std::int64_t const before =
        m_Retention.m_Seconds ? std::time(nullptr) - *m_Retention.m_Seconds : std::numeric_limits<std::int64_t>::min();
    std::int64_t excess[2] = {0, 0};
    if (m_Retention.m_Newest) {
        Statement row = m_Database.prepare(
            "SELECT (SELECT count FROM counters WHERE name = 'exchanges'), (SELECT count FROM counters WHERE name = "
            "'payments')");
        row.step();
        for (int i = 0; i < 2; ++i) {
            excess[i] = std::clamp<std::int64_t>(row.numberColumn(i) - *m_Retention.m_Newest, 0, kBatch);
        }
    }
    bool const moreExchanges = pruneExchanges(excess[0], before);
    bool const morePayments = prunePayments(excess[1], before);
    return moreExchanges || morePayments;
}

/// Removes the oldest `count`, and of the oldest those that were stored before that moment.
bool Store::pruneExchanges(std::int64_t count, std::int64_t before) {
    m_Database
        .prepare(
            "DELETE FROM exchanges WHERE number IN (SELECT number FROM exchanges ORDER BY number LIMIT ?) OR (number "
            "IN "
            "(SELECT number FROM exchanges ORDER BY number LIMIT ?) AND stored < ?)")
        .number(count)
        .number(m_Retention.m_Seconds ? kBatch : 0)
        .number(before)
        .step();
    return m_Database.changes() >= kBatch;
}

/// The same of payments, but for those with a notification that is still to be sent.
bool Store::prunePayments(std::int64_t count, std::int64_t before) {
    std::vector<std::string> ids;
    {
        Statement row = m_Database.prepare(
            "SELECT id FROM payments WHERE (number IN (SELECT number FROM payments ORDER BY number LIMIT ?) OR (number "
            "IN "
            "(SELECT number FROM payments ORDER BY number LIMIT ?) AND stored < ?)) AND NOT EXISTS (SELECT 1 FROM "
            "notifications WHERE payment = id AND pending = 1)");
        row.number(count).number(m_Retention.m_Seconds ? kBatch : 0).number(before);
        ids = textsOf(row);
    }
    for (std::string const& id : ids) {
        removePayment(id);
    }
    return static_cast<std::int64_t>(ids.size()) >= kBatch;
}

/// The largest number that the table has given.
std::int64_t Store::lastNumberIn(char const* counter) {
    Statement row = m_Database.prepare("SELECT last FROM counters WHERE name = ?");
    row.text(counter).step();
    return row.numberColumn(0);
}

void Store::removePayment(std::string const& id) {
    for (char const* sql : {"DELETE FROM notifications WHERE payment = ?", "DELETE FROM history WHERE payment = ?",
                            "DELETE FROM payments WHERE id = ?"}) {
        m_Database.prepare(sql).text(id).step();
    }
}

}  // namespace sandbox
