// Accounts, keys, settings and counts, and what payments (store_payments.cpp) and exchanges (store_exchanges.cpp)
// share: their filters, and removing the oldest of them while new ones are added. The tables are in store_tables.cpp.
// A function that writes is one turn of m_Writer. One that reads a list takes a reader, and thus waits for nobody; one
// that reads a row takes a RowReader, which in a request is a turn as well. Passwords are hashed outside of turns,
// since that is slow on purpose.
#include "sandbox/store/store.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <limits>
#include <stdexcept>

#include "sandbox/crypto/credentials.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr int kSaltBytes = 16;
constexpr std::int64_t kFirstCustomer = 1001;
constexpr std::size_t kMaxKnownKeys = 1000;

std::pair<std::string, std::string> twoColumns(Statement const& row) {
    return {row.column(0), row.column(1)};
}

}  // namespace

Store::Store(std::string const& path, Retention retention) : m_Retention(retention), m_Writer(path), m_Readers(path) {
    prepareTables(m_Database, path);
    bool more = true;
    while (more) {
        Turn turn(m_Writer);
        more = prune();
        turn.keep();
    }
}

Store::RowReader::RowReader(Store& store) {
    if (store.m_Writer.hasUnit()) {
        m_Turn.emplace(store.m_Writer, Turn::Purpose::kRead);
    } else {
        m_Reader = store.m_Readers.take();
    }
}

void Store::putAccount(std::string const& user, std::string const& password) {
    std::string const salt = randomHex(kSaltBytes);
    std::string const hash = hashPassword(salt, password);
    Turn turn(m_Writer);
    m_Database.run(
        "INSERT INTO accounts (user, salt, hash, customer) "
        "VALUES (?, ?, ?, (SELECT coalesce(max(customer) + 1, ?) FROM accounts)) "
        "ON CONFLICT (user) DO UPDATE SET salt = excluded.salt, hash = excluded.hash",
        user, salt, hash, kFirstCustomer);
    turn.keep();
}

Store::Login Store::checkAccount(std::string const& user, std::string const& password) {
    auto const stored = presentRow(twoColumns, "SELECT salt, hash FROM accounts WHERE user = ?", user);
    if (!stored) {
        return Login::kUnknownUser;
    }
    auto const& [salt, hash] = *stored;
    return equalSecrets(hashPassword(salt, password), hash) ? Login::kOk : Login::kWrongPassword;
}

std::string Store::customerOf(std::string const& user) {
    auto const customer = presentRow(firstColumn, "SELECT customer FROM accounts WHERE user = ?", user);
    if (!customer) {
        throw std::runtime_error("the database has no account " + user);
    }
    return *customer;
}

std::vector<std::string> Store::accounts() {
    return committedRows(firstColumn, "SELECT user FROM accounts ORDER BY customer");
}

std::vector<StoredServerKey> Store::serverKeys() {
    auto const read = [](Statement const& row) { return StoredServerKey{row.column(0), row.column(1)}; };
    return committedRows(read, "SELECT id, private_der FROM server_keys ORDER BY number");
}

void Store::addServerKey(StoredServerKey const& key, std::string const& time) {
    Turn turn(m_Writer);
    m_Database.run("INSERT INTO server_keys (id, private_der, time) VALUES (?, ?, ?)", key.m_Id,
                   Bytes{key.m_PrivateDer}, time);
    turn.keep();
}

Store::KeyAdded Store::addMerchantKey(std::string const& id, MerchantKey const& key, std::string const& time) {
    Turn turn(m_Writer);
    auto const present =
        m_Database.prepare("SELECT account, blob FROM merchant_keys WHERE id = ?", id).first(twoColumns);
    if (present) {
        return *present == std::pair(key.m_Account, key.m_Blob) ? KeyAdded::kKnown : KeyAdded::kTaken;
    }
    m_Database.run("INSERT INTO merchant_keys (id, account, blob, time) VALUES (?, ?, ?, ?)", id, key.m_Account,
                   key.m_Blob, time);
    turn.keep();
    return KeyAdded::kNew;
}

std::optional<MerchantKey> Store::merchantKey(std::string const& id) {
    // Each request of a merchant asks for its key.
    std::lock_guard<std::mutex> const lock(m_Mutex);
    if (auto const known = m_KnownKeys.find(id); known != m_KnownKeys.end()) {
        return known->second;
    }
    auto const read = [](Statement const& row) { return MerchantKey{row.column(0), row.column(1), row.column(2)}; };
    std::vector<MerchantKey> const found = committedRows(read,
                                                         "SELECT k.account, k.blob, a.customer FROM merchant_keys k "
                                                         "JOIN accounts a ON a.user = k.account WHERE k.id = ?",
                                                         id);
    if (found.empty()) {
        return std::nullopt;
    }
    if (m_KnownKeys.size() == kMaxKnownKeys) {
        m_KnownKeys.clear();
    }
    return m_KnownKeys.emplace(id, found.front()).first->second;
}

std::vector<PublishedKey> Store::merchantKeys() {
    auto const read = [](Statement const& row) {
        return PublishedKey{row.column(0), {row.column(1), row.column(2)}, row.column(3)};
    };
    return committedRows(read, "SELECT id, account, blob, time FROM merchant_keys ORDER BY rowid");
}

void Store::copyTo(Database& target) {
    m_Readers.take()->copyTo(target);
}

void Store::replaceBy(Database& source) {
    {
        Turn const turn(m_Writer, Turn::Purpose::kAlone);
        source.copyTo(turn.database());
        std::lock_guard<std::mutex> const lock(m_Mutex);
        m_KnownKeys.clear();
    }
    m_Events.countChange();
}

std::map<std::string, std::string> Store::settings() {
    auto const found = committedRows(twoColumns, "SELECT name, value FROM settings");
    return {found.begin(), found.end()};
}

void Store::setSetting(std::string const& name, std::string const& value) {
    Turn turn(m_Writer);
    if (value.empty()) {
        m_Database.run("DELETE FROM settings WHERE name = ?", name);
    } else {
        m_Database.run("INSERT OR REPLACE INTO settings (name, value) VALUES (?, ?)", name, value);
    }
    turn.keep();
}

Counts Store::counts() {
    ReaderPool::Reader const reader = m_Readers.take();
    Statement row = reader->prepare(
        "SELECT (SELECT count(*) FROM accounts), (SELECT count FROM counters WHERE name = 'payments'), "
        "(SELECT count FROM counters WHERE name = 'notifications'), (SELECT count FROM counters WHERE name = "
        "'exchanges'), (SELECT count(*) FROM merchant_keys), (SELECT count FROM counters WHERE name = 'warnings')");
    row.step();
    return {row.numberColumn(0), row.numberColumn(1), row.numberColumn(2),
            row.numberColumn(3), row.numberColumn(4), row.numberColumn(5)};
}

std::string Store::firstColumn(Statement const& row) {
    return row.column(0);
}

/// The WHERE of a filter and the bounds of a page, with a space before it. `payment` is the column of identifiers of
/// payments.
std::string Store::conditionsOf(Filter const& filter, char const* payment) {
    return std::string(" WHERE number > ? AND number < ?") + (filter.m_Account ? " AND account = ?" : "") +
           (filter.m_Order ? " AND order_id = ?" : "") + (filter.m_Token ? " AND token = ?" : "") +
           (filter.m_Payment ? std::string(" AND ") + payment + " = ?" : "") +
           (filter.m_State ? " AND state = ?" : "") + (filter.m_Kind ? " AND kind = ?" : "");
}

/// Binds the parameters of conditionsOf().
void Store::bind(Statement& row, Filter const& filter, Page const& page) {
    row.bind(page.m_After);
    row.bind(page.m_Before);
    row.bind(filter.m_Account);
    if (filter.m_Order) {
        row.bind(Bytes{*filter.m_Order});
    }
    row.bind(filter.m_Token);
    row.bind(filter.m_Payment);
    if (filter.m_State) {
        row.bind(stateName(*filter.m_State));
    }
    if (filter.m_Kind) {
        row.bind(exchangeName(*filter.m_Kind));
    }
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

/// The largest number that the table has given.
std::int64_t Store::lastNumberIn(char const* counter) {
    Statement row = m_Database.prepare("SELECT last FROM counters WHERE name = ?", std::string(counter));
    row.step();
    return row.numberColumn(0);
}

}  // namespace sandbox
