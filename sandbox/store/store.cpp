// The tables, accounts and keys. Payments are in store_payments.cpp, exchanges in store_exchanges.cpp.
// Opening checks the layout number (PRAGMA user_version), creates the tables in an empty file, and turns requests that
// an earlier process began and did not finish into exchanges without a response.
// Every public function takes m_Mutex and is one transaction. Passwords are hashed outside of the lock, since that is
// slow on purpose.
#include "sandbox/store/store.h"

#include <cstdint>
#include <stdexcept>

#include "sandbox/crypto/credentials.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr std::int64_t kLayout = 3;
constexpr int kSaltBytes = 16;
constexpr std::int64_t kFirstCustomer = 1001;

constexpr char kTables[] = R"(
    CREATE TABLE accounts (
        user TEXT PRIMARY KEY,
        salt TEXT NOT NULL,
        hash TEXT NOT NULL,
        customer INTEGER NOT NULL UNIQUE);
    CREATE TABLE server_keys (
        number INTEGER PRIMARY KEY,
        id TEXT NOT NULL UNIQUE,
        private_der BLOB NOT NULL,
        time TEXT NOT NULL);
    CREATE TABLE merchant_keys (
        id TEXT PRIMARY KEY,
        account TEXT NOT NULL REFERENCES accounts (user),
        blob TEXT NOT NULL,
        time TEXT NOT NULL);
    CREATE TABLE payments (
        number INTEGER PRIMARY KEY,
        id TEXT NOT NULL UNIQUE,
        account TEXT NOT NULL REFERENCES accounts (user),
        token TEXT NOT NULL,
        state TEXT NOT NULL,
        form_key TEXT NOT NULL,
        message BLOB NOT NULL,
        UNIQUE (account, token));
    CREATE TABLE payment_attributes (
        payment TEXT NOT NULL REFERENCES payments (id),
        position INTEGER NOT NULL,
        name TEXT NOT NULL,
        value BLOB NOT NULL,
        PRIMARY KEY (payment, position));
    CREATE TABLE history (
        number INTEGER PRIMARY KEY,
        payment TEXT NOT NULL REFERENCES payments (id),
        time TEXT NOT NULL,
        state TEXT NOT NULL,
        note TEXT NOT NULL);
    CREATE TABLE notifications (
        number INTEGER PRIMARY KEY,
        payment TEXT NOT NULL REFERENCES payments (id),
        address BLOB NOT NULL,
        result TEXT NOT NULL,
        attempts INTEGER NOT NULL,
        pending INTEGER NOT NULL,
        time TEXT NOT NULL,
        outcome BLOB NOT NULL);
    CREATE TABLE exchanges (
        number INTEGER PRIMARY KEY,
        time TEXT NOT NULL,
        kind TEXT NOT NULL,
        order_id BLOB NOT NULL,
        path TEXT NOT NULL,
        data BLOB NOT NULL,
        signature BLOB NOT NULL,
        verdict BLOB NOT NULL,
        steps TEXT NOT NULL,
        request BLOB NOT NULL,
        answer BLOB NOT NULL,
        fault BLOB NOT NULL,
        delivery TEXT NOT NULL DEFAULT '',
        microseconds INTEGER NOT NULL);
    CREATE TABLE begun_exchanges (
        number INTEGER PRIMARY KEY,
        time TEXT NOT NULL,
        kind TEXT NOT NULL,
        order_id BLOB NOT NULL,
        path TEXT NOT NULL,
        data BLOB NOT NULL,
        request BLOB NOT NULL);
    CREATE INDEX history_of_payment ON history (payment, number);
    PRAGMA user_version = 3;
)";

// Of a layout that other sandboxes read too: they know nothing of these tables and leave them alone.
constexpr char kAddedTables[] = R"(
    CREATE TABLE IF NOT EXISTS due_moves (
        payment TEXT PRIMARY KEY REFERENCES payments (id),
        due INTEGER NOT NULL,
        state TEXT NOT NULL,
        note TEXT NOT NULL);
    CREATE INDEX IF NOT EXISTS due_moves_by_time ON due_moves (due);
    CREATE TABLE IF NOT EXISTS capture_refusals (
        payment TEXT PRIMARY KEY REFERENCES payments (id),
        reason BLOB NOT NULL);
    CREATE TABLE IF NOT EXISTS warnings (exchange INTEGER NOT NULL REFERENCES exchanges (number));
    CREATE INDEX IF NOT EXISTS warnings_of_exchange ON warnings (exchange);
    CREATE TRIGGER IF NOT EXISTS warnings_of_removed_exchange AFTER DELETE ON exchanges BEGIN
        DELETE FROM warnings WHERE exchange = OLD.number;
    END;
    CREATE TRIGGER IF NOT EXISTS outcomes_of_removed_payment AFTER DELETE ON payments BEGIN
        DELETE FROM due_moves WHERE payment = OLD.id;
        DELETE FROM capture_refusals WHERE payment = OLD.id;
    END;
)";

// The payments show whether these requests were carried out.
constexpr char kEndBegun[] = R"(
    INSERT INTO exchanges (time, kind, order_id, path, data, signature, verdict, steps, request, answer, fault,
        microseconds)
    SELECT time, kind, order_id, path, data, x'', CAST('not answered: the sandbox ended before' AS BLOB), '[]',
        request, x'', x'', 0
    FROM begun_exchanges ORDER BY number;
    DELETE FROM begun_exchanges;
)";

void prepareTables(Database& database, std::string const& path) {
    Transaction transaction(database);
    std::int64_t layout = 0;
    {
        Statement version = database.prepare("PRAGMA user_version");
        version.step();
        layout = version.numberColumn(0);
    }
    if (layout == 0) {
        database.execute(kTables);
    } else if (layout != kLayout) {
        throw std::runtime_error(path + " has layout " + std::to_string(layout) + ", this sandbox knows layout " +
                                 std::to_string(kLayout) + ": choose another data directory");
    }
    database.execute(kAddedTables);
    database.execute(kEndBegun);
    transaction.commit();
}

}  // namespace

Store::Store(std::string const& path) : m_Database(path) {
    prepareTables(m_Database, path);
}

void Store::putAccount(std::string const& user, std::string const& password) {
    std::string const salt = randomHex(kSaltBytes);
    std::string const hash = hashPassword(salt, password);
    std::lock_guard<std::mutex> const lock(m_Mutex);
    m_Database
        .prepare(
            "INSERT INTO accounts (user, salt, hash, customer) "
            "VALUES (?, ?, ?, (SELECT coalesce(max(customer) + 1, ?) FROM accounts)) "
            "ON CONFLICT (user) DO UPDATE SET salt = excluded.salt, hash = excluded.hash")
        .text(user)
        .text(salt)
        .text(hash)
        .number(kFirstCustomer)
        .step();
}

Store::Login Store::checkAccount(std::string const& user, std::string const& password) {
    std::string salt;
    std::string hash;
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        Statement row = m_Database.prepare("SELECT salt, hash FROM accounts WHERE user = ?");
        if (!row.text(user).step()) {
            return Login::kUnknownUser;
        }
        salt = row.column(0);
        hash = row.column(1);
    }
    return equalSecrets(hashPassword(salt, password), hash) ? Login::kOk : Login::kWrongPassword;
}

std::string Store::customerOf(std::string const& user) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Statement row = m_Database.prepare("SELECT customer FROM accounts WHERE user = ?");
    if (!row.text(user).step()) {
        throw std::runtime_error("the database has no account " + user);
    }
    return std::to_string(row.numberColumn(0));
}

std::vector<std::string> Store::accounts() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Statement row = m_Database.prepare("SELECT user FROM accounts ORDER BY customer");
    std::vector<std::string> found;
    while (row.step()) {
        found.push_back(row.column(0));
    }
    return found;
}

std::vector<StoredServerKey> Store::serverKeys() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Statement row = m_Database.prepare("SELECT id, private_der FROM server_keys ORDER BY number");
    std::vector<StoredServerKey> found;
    while (row.step()) {
        found.push_back({row.column(0), row.column(1)});
    }
    return found;
}

void Store::addServerKey(StoredServerKey const& key, std::string const& time) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    m_Database.prepare("INSERT INTO server_keys (id, private_der, time) VALUES (?, ?, ?)")
        .text(key.m_Id)
        .bytes(key.m_PrivateDer)
        .text(time)
        .step();
}

Store::KeyAdded Store::addMerchantKey(std::string const& id, MerchantKey const& key, std::string const& time) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Transaction transaction(m_Database);
    {
        Statement row = m_Database.prepare("SELECT account, blob FROM merchant_keys WHERE id = ?");
        if (row.text(id).step()) {
            bool const same = row.column(0) == key.m_Account && row.column(1) == key.m_Blob;
            return same ? KeyAdded::kKnown : KeyAdded::kTaken;
        }
    }
    m_Database.prepare("INSERT INTO merchant_keys (id, account, blob, time) VALUES (?, ?, ?, ?)")
        .text(id)
        .text(key.m_Account)
        .text(key.m_Blob)
        .text(time)
        .step();
    transaction.commit();
    return KeyAdded::kNew;
}

std::optional<MerchantKey> Store::merchantKey(std::string const& id) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Statement row = m_Database.prepare("SELECT account, blob FROM merchant_keys WHERE id = ?");
    if (!row.text(id).step()) {
        return std::nullopt;
    }
    return MerchantKey{row.column(0), row.column(1)};
}

std::vector<PublishedKey> Store::merchantKeys() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Statement row = m_Database.prepare("SELECT id, account, blob, time FROM merchant_keys ORDER BY rowid");
    std::vector<PublishedKey> found;
    while (row.step()) {
        found.push_back({row.column(0), {row.column(1), row.column(2)}, row.column(3)});
    }
    return found;
}

}  // namespace sandbox
