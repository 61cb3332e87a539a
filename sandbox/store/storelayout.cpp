// The tables of the database, and the way there from earlier layouts.
// The layout is a number (PRAGMA user_version). An empty file gets the tables as they are now; layout 3 gets what it
// lacks, which is filled in from the messages that are stored; layout 4 loses indexes that cost payments more than they
// are worth to lists. Then requests that an earlier process began and did not finish become exchanges without a
// response. The counters are kept by triggers, so that they change in the same transaction as the rows they count. A
// counter also holds the last number that its table has given: numbers are never given twice, not even after the newest
// rows have been removed, because clients use them as cursors.
#include "sandbox/store/storelayout.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "sandbox/store/rows.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/paymessage.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr std::int64_t kLayout = 5;
constexpr std::int64_t kFirstLayoutKnown = 3;

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
)";

/// Of layout 3 as well, where they can be missing.
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
    CREATE TABLE IF NOT EXISTS settings (name TEXT PRIMARY KEY, value TEXT NOT NULL);
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

/// What layout 3 lacks. The columns of an account, a token and a payment are filled in afterwards.
constexpr char kColumnsOfLayout4[] = R"(
    ALTER TABLE payments ADD COLUMN order_id BLOB NOT NULL DEFAULT x'';
    ALTER TABLE payments ADD COLUMN expires INTEGER NOT NULL DEFAULT 0;
    ALTER TABLE payments ADD COLUMN stored INTEGER NOT NULL DEFAULT 0;
    ALTER TABLE exchanges ADD COLUMN account TEXT NOT NULL DEFAULT '';
    ALTER TABLE exchanges ADD COLUMN token TEXT NOT NULL DEFAULT '';
    ALTER TABLE exchanges ADD COLUMN payment TEXT NOT NULL DEFAULT '';
    ALTER TABLE exchanges ADD COLUMN stored INTEGER NOT NULL DEFAULT 0;
    ALTER TABLE begun_exchanges ADD COLUMN account TEXT NOT NULL DEFAULT '';
    ALTER TABLE begun_exchanges ADD COLUMN token TEXT NOT NULL DEFAULT '';
    ALTER TABLE begun_exchanges ADD COLUMN payment TEXT NOT NULL DEFAULT '';
    DROP TABLE payment_attributes;
)";

/// After the rows are there: it is quicker that way round.
constexpr char kIndexes[] = R"(
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

/// What layout 4 has too much.
constexpr char kDropsOfLayout5[] = R"(
    DROP INDEX payments_of_token;
    DROP INDEX payments_of_account_in_state;
    DROP INDEX exchanges_of_account_and_kind;
    PRAGMA user_version = 5;
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

/// The message in `data`; nothing when it is none.
std::optional<Message> messageIn(std::string const& data) {
    try {
        return Message::parse(data);
    } catch (HttpError const&) {
        return std::nullopt;
    }
}

void fillPayments(Database& database) {
    auto const messages = database.prepare("SELECT number, message FROM payments").all([](Statement const& row) {
        return std::pair(row.numberColumn(0), row.column(1));
    });
    for (auto const& [number, message] : messages) {
        std::optional<Message> const parsed = messageIn(message);
        database.run("UPDATE payments SET order_id = ?, expires = ? WHERE number = ?",
                     Bytes{parsed ? parsed->find("ORDERID").value_or("") : ""},
                     parsed ? expirationIn(parsed->attributes()) : std::numeric_limits<std::int64_t>::min(), number);
    }
    database.execute(
        "UPDATE payments SET stored = coalesce((SELECT strftime('%s', min(time)) FROM history WHERE payment = id), 0)");
}

/// What an exchange of layout 3 is about.
struct Subject {
    std::string m_Account = {};
    std::string m_Token = {};
    std::string m_Payment = {};
};

/// The payment with this identifier as the subject.
Subject subjectById(Database& database, std::string const& id) {
    Statement row = database.prepare("SELECT account, token FROM payments WHERE id = ?", id);
    return row.step() ? Subject{row.column(0), row.column(1), id} : Subject{};
}

/// A merchant signs with a key of its account; notifications carry a key of the service, and the payment in ID.
Subject subjectOfMessage(Database& database, Message const& message) {
    Subject subject;
    {
        Statement row =
            database.prepare("SELECT account FROM merchant_keys WHERE id = ?", message.find("KEYID").value_or(""));
        if (!row.step()) {
            subject = subjectById(database, message.find("ID").value_or(""));
            subject.m_Token = message.find("TOKEN").value_or("");
            return subject;
        }
        subject.m_Account = row.column(0);
    }
    subject.m_Token = message.find("TOKEN").value_or("");
    Statement row =
        database.prepare("SELECT id FROM payments WHERE account = ? AND token = ?", subject.m_Account, subject.m_Token);
    subject.m_Payment = row.step() ? row.column(0) : "";
    return subject;
}

/// A decision's form is the body of its request and begins with the payment.
Subject subjectOfForm(Database& database, std::string const& request) {
    constexpr char kField[] = "payment=";
    std::size_t const at = request.rfind(kField);
    if (at == std::string::npos) {
        return {};
    }
    std::size_t const from = at + sizeof kField - 1;
    return subjectById(database, request.substr(from, request.find('&', from) - from));
}

void fillExchanges(Database& database) {
    std::vector<std::pair<std::int64_t, Subject>> subjects;
    {
        Statement row = database.prepare("SELECT number, kind, data, request FROM exchanges");
        while (row.step()) {
            std::optional<Message> const message = messageIn(row.column(2));
            subjects.emplace_back(row.numberColumn(0), message ? subjectOfMessage(database, *message)
                                                       : row.column(1) == "decision"
                                                           ? subjectOfForm(database, row.column(3))
                                                           : Subject{});
        }
    }
    for (auto const& [number, subject] : subjects) {
        database.run(
            "UPDATE exchanges SET account = ?, token = ?, payment = ?, stored = coalesce(strftime('%s', time), 0) "
            "WHERE "
            "number = ?",
            subject.m_Account, subject.m_Token, subject.m_Payment, number);
    }
}

void addTheRest(Database& database) {
    database.execute(kAddedTables);
    database.execute(kIndexes);
    for (char const* thing : {"payment", "notification", "exchange", "warning"}) {
        database.execute(replaceAll(kCounter, "THING", thing).c_str());
    }
}

}  // namespace

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
        addTheRest(database);
    } else if (layout == kFirstLayoutKnown) {
        database.execute(kColumnsOfLayout4);
        fillPayments(database);
        fillExchanges(database);
        addTheRest(database);
    } else if (layout == kLayout - 1) {
        database.execute(kDropsOfLayout5);
    } else if (layout != kLayout) {
        throw std::runtime_error(path + " has layout " + std::to_string(layout) + ", this sandbox knows layouts " +
                                 std::to_string(kFirstLayoutKnown) + " to " + std::to_string(kLayout) +
                                 ": choose another data directory");
    }
    database.execute(kEndBegun);
    transaction.commit();
}

}  // namespace sandbox
