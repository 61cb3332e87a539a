// Accounts, keys and counts. Payments are in store_payments.cpp, exchanges in store_exchanges.cpp, the tables in
// storelayout.cpp.
// A function that writes is one turn of m_Writer. One that reads a list takes a reader, and thus waits for nobody; one
// that reads a row takes a RowReader, which in a request is a turn as well. Passwords are hashed outside of turns,
// since that is slow on purpose.
#include "sandbox/store/store.h"

#include <cstdint>
#include <stdexcept>

#include "sandbox/crypto/credentials.h"
#include "sandbox/store/storelayout.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr int kSaltBytes = 16;
constexpr std::int64_t kFirstCustomer = 1001;

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
        m_Reader.emplace(store.m_Readers.take());
    }
}

void Store::putAccount(std::string const& user, std::string const& password) {
    std::string const salt = randomHex(kSaltBytes);
    std::string const hash = hashPassword(salt, password);
    Turn turn(m_Writer);
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
    turn.keep();
}

Store::Login Store::checkAccount(std::string const& user, std::string const& password) {
    std::string salt;
    std::string hash;
    {
        RowReader const reader(*this);
        Statement row = reader.database().prepare("SELECT salt, hash FROM accounts WHERE user = ?");
        if (!row.text(user).step()) {
            return Login::kUnknownUser;
        }
        salt = row.column(0);
        hash = row.column(1);
    }
    return equalSecrets(hashPassword(salt, password), hash) ? Login::kOk : Login::kWrongPassword;
}

std::string Store::customerOf(std::string const& user) {
    RowReader const reader(*this);
    Statement row = reader.database().prepare("SELECT customer FROM accounts WHERE user = ?");
    if (!row.text(user).step()) {
        throw std::runtime_error("the database has no account " + user);
    }
    return std::to_string(row.numberColumn(0));
}

std::vector<std::string> Store::accounts() {
    ReaderPool::Reader const reader = m_Readers.take();
    Statement row = reader.database().prepare("SELECT user FROM accounts ORDER BY customer");
    std::vector<std::string> found;
    while (row.step()) {
        found.push_back(row.column(0));
    }
    return found;
}

std::vector<StoredServerKey> Store::serverKeys() {
    ReaderPool::Reader const reader = m_Readers.take();
    Statement row = reader.database().prepare("SELECT id, private_der FROM server_keys ORDER BY number");
    std::vector<StoredServerKey> found;
    while (row.step()) {
        found.push_back({row.column(0), row.column(1)});
    }
    return found;
}

void Store::addServerKey(StoredServerKey const& key, std::string const& time) {
    Turn turn(m_Writer);
    m_Database.prepare("INSERT INTO server_keys (id, private_der, time) VALUES (?, ?, ?)")
        .text(key.m_Id)
        .bytes(key.m_PrivateDer)
        .text(time)
        .step();
    turn.keep();
}

Store::KeyAdded Store::addMerchantKey(std::string const& id, MerchantKey const& key, std::string const& time) {
    Turn turn(m_Writer);
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
    turn.keep();
    return KeyAdded::kNew;
}

std::optional<MerchantKey> Store::merchantKey(std::string const& id) {
    RowReader const reader(*this);
    Statement row = reader.database().prepare(
        "SELECT k.account, k.blob, a.customer FROM merchant_keys k JOIN accounts a ON a.user = k.account WHERE k.id = "
        "?");
    if (!row.text(id).step()) {
        return std::nullopt;
    }
    return MerchantKey{row.column(0), row.column(1), std::to_string(row.numberColumn(2))};
}

std::vector<PublishedKey> Store::merchantKeys() {
    ReaderPool::Reader const reader = m_Readers.take();
    Statement row = reader.database().prepare("SELECT id, account, blob, time FROM merchant_keys ORDER BY rowid");
    std::vector<PublishedKey> found;
    while (row.step()) {
        found.push_back({row.column(0), {row.column(1), row.column(2)}, row.column(3)});
    }
    return found;
}

void Store::copyTo(Database& target) {
    ReaderPool::Reader const reader = m_Readers.take();
    reader.database().copyTo(target);
}

void Store::replaceBy(Database& source) {
    {
        Turn const turn(m_Writer, Turn::Purpose::kAlone);
        source.copyTo(turn.database());
    }
    countChange();
}

Counts Store::counts() {
    ReaderPool::Reader const reader = m_Readers.take();
    Statement row = reader.database().prepare(
        "SELECT (SELECT count(*) FROM accounts), (SELECT count FROM counters WHERE name = 'payments'), "
        "(SELECT count FROM counters WHERE name = 'notifications'), (SELECT count FROM counters WHERE name = "
        "'exchanges'), (SELECT count(*) FROM merchant_keys), (SELECT count FROM counters WHERE name = 'warnings')");
    row.step();
    return {row.numberColumn(0), row.numberColumn(1), row.numberColumn(2),
            row.numberColumn(3), row.numberColumn(4), row.numberColumn(5)};
}

}  // namespace sandbox
