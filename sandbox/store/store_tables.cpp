// The tables of the database. The layout is a number (PRAGMA user_version): an empty file gets the tables, a file of
// another layout is refused. Then requests that an earlier process began and did not finish become exchanges without a
// response. The counters are kept by triggers, so that they change in the same transaction as the rows they count. A
// counter also holds the last number that its table has given: numbers are never given twice, not even after the newest
// rows have been removed, because clients use them as cursors.
#include <cstdint>
#include <stdexcept>

#include "sandbox/store/store.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr std::int64_t kLayout = 5;

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
        order_id BLOB NOT NULL DEFAULT x'',
        state TEXT NOT NULL,
        expires INTEGER NOT NULL DEFAULT 0,
        stored INTEGER NOT NULL DEFAULT 0,
        form_key TEXT NOT NULL,
        message BLOB NOT NULL,
        UNIQUE (account, token));
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
        account TEXT NOT NULL DEFAULT '',
        order_id BLOB NOT NULL,
        token TEXT NOT NULL DEFAULT '',
        payment TEXT NOT NULL DEFAULT '',
        stored INTEGER NOT NULL DEFAULT 0,
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
        account TEXT NOT NULL DEFAULT '',
        order_id BLOB NOT NULL,
        token TEXT NOT NULL DEFAULT '',
        payment TEXT NOT NULL DEFAULT '',
        path TEXT NOT NULL,
        data BLOB NOT NULL,
        request BLOB NOT NULL);
    CREATE INDEX history_of_payment ON history (payment, number);
    CREATE TABLE due_moves (
        payment TEXT PRIMARY KEY REFERENCES payments (id),
        due INTEGER NOT NULL,
        state TEXT NOT NULL,
        note TEXT NOT NULL);
    CREATE INDEX due_moves_by_time ON due_moves (due);
    CREATE TABLE capture_refusals (
        payment TEXT PRIMARY KEY REFERENCES payments (id),
        reason BLOB NOT NULL);
    CREATE TABLE settings (name TEXT PRIMARY KEY, value TEXT NOT NULL);
    CREATE TABLE warnings (exchange INTEGER NOT NULL REFERENCES exchanges (number));
    CREATE INDEX warnings_of_exchange ON warnings (exchange);
    CREATE TRIGGER warnings_of_removed_exchange AFTER DELETE ON exchanges BEGIN
        DELETE FROM warnings WHERE exchange = OLD.number;
    END;
    CREATE TRIGGER outcomes_of_removed_payment AFTER DELETE ON payments BEGIN
        DELETE FROM due_moves WHERE payment = OLD.id;
        DELETE FROM capture_refusals WHERE payment = OLD.id;
    END;
    CREATE INDEX payments_of_account ON payments (account, number);
    CREATE INDEX payments_of_order ON payments (order_id, number);
    CREATE INDEX payments_in_state ON payments (state, number);
    CREATE INDEX payments_to_expire ON payments (expires) WHERE state = 'opened';
    CREATE INDEX notifications_of_payment ON notifications (payment, number);
    CREATE INDEX notifications_pending ON notifications (number) WHERE pending = 1;
    CREATE INDEX exchanges_of_account ON exchanges (account, number);
    CREATE INDEX exchanges_of_order ON exchanges (order_id, number);
    CREATE INDEX exchanges_of_token ON exchanges (token, number);
    CREATE INDEX exchanges_of_payment ON exchanges (payment, number);
    CREATE INDEX exchanges_of_kind ON exchanges (kind, number);
    CREATE INDEX exchanges_of_order_alone ON exchanges (order_id, account, number) WHERE token = '' AND payment = '';
    CREATE TABLE counters (
        name TEXT PRIMARY KEY,
        count INTEGER NOT NULL,
        last INTEGER NOT NULL) WITHOUT ROWID;
    PRAGMA user_version = 5;
)";

/// The counter of one table, whose rows are called THING.
constexpr char kCounter[] = R"(
    INSERT INTO counters SELECT 'THINGs', count(*), coalesce(max(rowid), 0) FROM THINGs;
    CREATE TRIGGER THING_added AFTER INSERT ON THINGs BEGIN
        UPDATE counters SET count = count + 1, last = max(last, new.rowid) WHERE name = 'THINGs';
    END;
    CREATE TRIGGER THING_removed AFTER DELETE ON THINGs BEGIN
        UPDATE counters SET count = count - 1 WHERE name = 'THINGs';
    END;
)";

// The payments show whether these requests were carried out.
constexpr char kEndBegun[] = R"(
    INSERT INTO exchanges (number, time, kind, account, order_id, token, payment, stored, path, data, signature, verdict,
        steps, request, answer, fault, microseconds)
    SELECT (SELECT last FROM counters WHERE name = 'exchanges') + row_number() OVER (ORDER BY number), time, kind,
        account, order_id, token, payment, strftime('%s', 'now'), path, data, x'',
        CAST('not answered: the sandbox ended before' AS BLOB), '[]', request, x'', x'', 0
    FROM begun_exchanges ORDER BY number;
    DELETE FROM begun_exchanges;
)";

}  // namespace

void Store::prepareTables(Database& database, std::string const& path) {
    Transaction transaction(database);
    std::int64_t const layout =
        database.prepare("PRAGMA user_version").first([](Statement const& row) { return row.numberColumn(0); }).value();
    if (layout == 0) {
        database.execute(kTables);
        for (char const* thing : {"payment", "notification", "exchange", "warning"}) {
            database.execute(replaceAll(kCounter, "THING", thing).c_str());
        }
    } else if (layout != kLayout) {
        throw std::runtime_error(path + " has layout " + std::to_string(layout) + ", this sandbox knows layout " +
                                 std::to_string(kLayout) + ": choose another data directory");
    }
    database.execute(kEndBegun);
    transaction.commit();
}

}  // namespace sandbox
