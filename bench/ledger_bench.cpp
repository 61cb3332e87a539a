// The order ledger: confirming, beginning and capturing, each beside the flat functions and the commits that no ledger
// can leave out, and confirming in stores of different sizes. Stores are files in the temporary directory.
// KVX_LEDGER_ORDERS is the size of the largest one.
//
// Contestants: the flat functions with one commit to the smallest table that a shop can do with, by the same rules for
// the disk; the same with a commit of a row that nothing finds again.
//
// Times faster in one run:
//   ledger confirm, verify and one commit                  0.58
//   ledger confirm, verify and one commit, wall time       0.66
//   ledger begin, payment URL and one commit, wall time    0.93

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <time.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "bench/account.h"
#include "bench/bench_support.h"
#include "bench/merchant.h"
#include "bench/plain.h"
#include "bench/responder.h"
#include "tallowin/ledger.h"

namespace {

using kvxbench::Account;
using kvxbench::require;
namespace plain = kvxbench::plain;

constexpr double kWithinBare = 1 / 1.25;
constexpr double kHardlySlower = 0.7;
constexpr int kSmall = 1000;
constexpr int kDefaultLarge = 100000;
constexpr char kAmount[] = "1250";
constexpr char kCurrency[] = "EUR";
constexpr char kDescription[] = "Tea";

double secondsOf(clockid_t clock) {
    timespec now = {};
    ::clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// Processor time of this thread, or wall time, that `work` takes.
template <class Work>
double timed(clockid_t clock, Work work) {
    double const start = secondsOf(clock);
    work();
    return secondsOf(clock) - start;
}

/// An account whose service key has its private half elsewhere, as it must be, and a service that captures everything.
struct Shop {
    Shop() : m_ServerKey(plain::readFile(path("keys/private/") + Account::kServerKey)) {
        std::filesystem::remove(path("keys/private/") + Account::kServerKey);
        std::ofstream config(path("config.xml"));
        config << R"(<KVX VTURL="https://pay.example.test/pay" CAPTUREURL="http://127.0.0.1:)" << m_Service.port()
               << R"(/capture" VTKEYID=")" << Account::kServerKey << "\"/>";
        require(config.flush().good(), "cannot write config.xml");
    }

    [[nodiscard]] std::string path(std::string const& name) const { return m_Account.path() + "/" + name; }

    Account m_Account;
    std::string m_ServerKey;
    kvxbench::Responder m_Service{R"(<KVX MSGTYPE="PayConfirm" RESULT="captured"/>)"};
};

Shop const& shop() {
    static Shop const s_Shop;
    return s_Shop;
}

struct Confirmation {
    std::string m_Token;
    std::string m_Data;
    std::string m_Signature;
};

/// A database by the rules that the ledger has for the disk: what is committed is there when the call returns.
class Database {
public:
    Database(std::string const& name, char const* table) {
        require(sqlite3_open(shop().path(name).c_str(), &m_Connection) == SQLITE_OK, "no database");
        for (char const* const sql : {"PRAGMA journal_mode = WAL", "PRAGMA synchronous = FULL", table}) {
            require(sqlite3_exec(m_Connection, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql);
        }
    }
    Database(Database const&) = delete;
    Database& operator=(Database const&) = delete;
    ~Database() { sqlite3_close_v2(m_Connection); }

    [[nodiscard]] sqlite3* connection() const { return m_Connection; }

private:
    sqlite3* m_Connection = nullptr;
};

/// A statement that changes one row, and is a transaction of its own.
class Change {
public:
    Change(Database const& database, char const* sql) : m_Connection(database.connection()) {
        require(sqlite3_prepare_v2(m_Connection, sql, -1, &m_Statement, nullptr) == SQLITE_OK, sql);
    }
    Change(Change const&) = delete;
    Change& operator=(Change const&) = delete;
    ~Change() { sqlite3_finalize(m_Statement); }

    void commit(std::initializer_list<std::string_view> texts) {
        int position = 0;
        for (std::string_view const text : texts) {
            sqlite3_bind_text64(m_Statement, ++position, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
        }
        require(sqlite3_step(m_Statement) == SQLITE_DONE && sqlite3_changes(m_Connection) == 1, "no row is changed");
        sqlite3_reset(m_Statement);
    }

private:
    sqlite3* m_Connection;  ///< Borrowed.
    sqlite3_stmt* m_Statement = nullptr;
};

/// A commit that nobody could use: a row that nothing finds again.
class LooseRows {
public:
    void commit(std::string const& text, std::string const& other) { m_Insert.commit({text, other}); }

private:
    Database m_Database{"rows.db", "CREATE TABLE rows (id INTEGER PRIMARY KEY, text TEXT, other TEXT)"};
    Change m_Insert{m_Database, "INSERT INTO rows (text, other) VALUES (?, ?)"};
};

/// The least that a shop needs by hand: a row for each order, found by its number and by the token, one commit a call.
/// Now and then such a commit copies the log to the table, which the ledger leaves to the worker.
class HandmadeOrders {
public:
    void begin(std::string const& number) {
        KVX_HANDLE payment = nullptr;
        require(MessageFactory_CreatePayInit(m_Merchant.factory(), &payment) == KVX_OK, "no payment");
        for (auto const& [name, value] : {std::pair("ORDERID", number.c_str()), std::pair("AMOUNT", kAmount),
                                          std::pair("CURRENCY", kCurrency), std::pair("DESCRIPTION", kDescription)}) {
            require(MessageObject_SetAttribute(payment, name, value) == KVX_OK, "no attribute");
        }
        std::string const url = kvxbench::Merchant::urlOf(payment, kEnough);
        add(number, attribute(payment, "TOKEN"), url);
        DestroyMessageObject(payment);
    }

    void add(std::string const& number, std::string const& token, std::string const& url) {
        m_Insert.commit({number, kAmount, kCurrency, token, url});
    }

    void confirm(Confirmation const& confirmation) {
        KVX_HANDLE const message = verified(confirmation);
        m_Pay.commit({confirmation.m_Data, confirmation.m_Signature, attribute(message, "TOKEN")});
        DestroyMessageObject(message);
    }

    /// With an intent to capture and a result of it.
    void capture(Confirmation const& confirmation) {
        m_Advance.commit({"capturing", confirmation.m_Token});
        KVX_HANDLE const message = CreateMessageObject();
        require(MessageObject_Open(message, shop().m_Account.path().c_str()) == KVX_OK &&
                    MessageObject_FromString(message, confirmation.m_Data.c_str()) == KVX_OK &&
                    MessageObject_Capture(message) == KVX_OK,
                "the capture fails");
        DestroyMessageObject(message);
        m_Advance.commit({"captured", confirmation.m_Token});
    }

    /// Owned by the caller.
    [[nodiscard]] KVX_HANDLE verified(Confirmation const& confirmation) const {
        KVX_HANDLE message = nullptr;
        require(MessageFactory_VerifyPayConfirm(m_Merchant.factory(), confirmation.m_Data.c_str(),
                                                confirmation.m_Signature.c_str(), &message) == KVX_OK,
                "a genuine confirmation is refused");
        return message;
    }

private:
    static constexpr std::int32_t kEnough = 4096;

    static std::string attribute(KVX_HANDLE message, char const* name) {
        char value[kEnough];
        std::int32_t size = sizeof value;
        require(MessageObject_GetAttribute(message, name, &size, value) == KVX_OK, name);
        return value;
    }

    kvxbench::Merchant m_Merchant{shop().m_Account.path()};
    Database m_Database{
        "handmade.db",
        "CREATE TABLE orders (id INTEGER PRIMARY KEY, number TEXT NOT NULL UNIQUE, amount TEXT NOT NULL,"
        " currency TEXT NOT NULL, token TEXT NOT NULL UNIQUE, url TEXT NOT NULL, state TEXT NOT NULL,"
        " message TEXT, signature TEXT)"};
    Change m_Insert{
        m_Database,
        "INSERT INTO orders (number, amount, currency, token, url, state) VALUES (?, ?, ?, ?, ?, 'waiting')"};
    Change m_Pay{m_Database,
                 "UPDATE orders SET state = 'paid', message = ?, signature = ? WHERE token = ? AND state = 'waiting'"};
    Change m_Advance{m_Database, "UPDATE orders SET state = ? WHERE token = ?"};
};

/// A ledger on a store of its own.
class Orders {
public:
    explicit Orders(std::string const& name) : m_Path(shop().path(name + ".db")), m_Ledger(CreateLedger()) {
        require(Ledger_Open(m_Ledger, ("sqlite:" + m_Path).c_str(), shop().m_Account.path().c_str()) == KVX_OK,
                "the ledger does not open");
    }
    Orders(Orders const&) = delete;
    Orders& operator=(Orders const&) = delete;
    ~Orders() { DestroyLedger(m_Ledger); }

    /// Puts orders like the first one into the tables, paid and at rest.
    void fill(int count) {
        begin("FIRST");
        sqlite3* store = nullptr;
        require(sqlite3_open(m_Path.c_str(), &store) == SQLITE_OK, "no store");
        std::string const numbers =
            "WITH RECURSIVE n (i) AS (SELECT 1000 UNION ALL SELECT i + 1 FROM n WHERE i < 999 + " +
            std::to_string(count) + ") ";
        for (std::string const& sql :
             {std::string("BEGIN"),
              "INSERT INTO orders (id, number, amount, currency, attributes, created_at, newest_attempt, paid_attempt,"
              " told_at) " +
                  numbers +
                  "SELECT i, 'G-' || i, amount, currency, attributes, created_at, 1, 1, created_at FROM n, orders"
                  " WHERE id = 1",
              "INSERT INTO attempts (order_id, attempt, token, state, message, url, created_at, expires_at) " +
                  numbers +
                  "SELECT i, 1, lower(hex(randomblob(16))), 'captured', message, url, created_at, expires_at"
                  " FROM n, attempts WHERE order_id = 1",
              "INSERT INTO transitions (order_id, attempt, from_state, to_state, event, cause, at, message) " +
                  numbers +
                  "SELECT i, 1, from_state, to_state, event, cause, at, message FROM n, transitions WHERE order_id = 1",
              std::string("COMMIT")}) {
            bool const isDone = sqlite3_exec(store, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
            require(isDone, sqlite3_errmsg(store));
        }
        sqlite3_close(store);
    }

    void begin(std::string const& number) {
        KVX_HANDLE order = nullptr;
        require(Ledger_CreateOrder(m_Ledger, number.c_str(), kAmount, kCurrency, &order) == KVX_OK, "no order");
        char url[4096];
        std::int32_t size = sizeof url;
        require(LedgerOrder_SetAttribute(order, "DESCRIPTION", kDescription) == KVX_OK &&
                    LedgerOrder_Begin(order, &size, url) == KVX_OK,
                "the order does not begin");
        DestroyLedgerOrder(order);
    }

    /// What the service says of a new order.
    Confirmation confirmation() {
        std::string const number = nextNumber();
        begin(number);
        char json[16384];
        std::int32_t size = sizeof json;
        require(Ledger_GetOrder(m_Ledger, number.c_str(), &size, json) == KVX_OK, "the order is not there");
        std::string const text = json;
        std::size_t const name = text.find("\"token\"");
        std::size_t const value = text.find('"', text.find(':', name)) + 1;
        std::string const token = text.substr(value, text.find('"', value) - value);
        std::string const data = std::string(R"(<KVX MSGTYPE="PayConfirm" KEYID=")") + Account::kServerKey +
                                 "\" TOKEN=\"" + token + "\" ID=\"P" + token + "\" ORDERID=\"" + number +
                                 "\" AMOUNT=\"" + kAmount + "\" CURRENCY=\"" + kCurrency + R"(" RESULT="authorised"/>)";
        return {token, data, plain::sign(data, shop().m_ServerKey)};
    }

    [[nodiscard]] std::int32_t confirm(Confirmation const& confirmation) const {
        std::int32_t outcome = -1;
        char number[KVX_LEDGER_NUMBER_SIZE];
        std::int32_t size = sizeof number;
        require(Ledger_Confirm(m_Ledger, "return", confirmation.m_Data.c_str(), confirmation.m_Signature.c_str(),
                               &outcome, &size, number) == KVX_OK,
                "no outcome");
        return outcome;
    }

    void work() const {
        std::int32_t done = 0;
        require(Ledger_RunDue(m_Ledger, 1, &done) == KVX_OK && done == 1, "nothing was done");
    }

    /// A confirmation that has been recorded, of a payment that has been captured.
    Confirmation captured() {
        Confirmation const known = confirmation();
        require(confirm(known) == KVX_LEDGER_PAID_NOW, "not paid");
        work();
        return known;
    }

    std::string nextNumber() { return "B-" + std::to_string(++m_Count); }

private:
    std::string m_Path;
    KVX_HANDLE m_Ledger;
    long m_Count = 0;
};

/// What is timed in one go: the call of the ledger, the handmade one, and bare calls with a commit of a loose row.
struct Times {
    double m_Ledger;
    double m_Handmade;
    double m_Loose;
};

/// Calls both contestants, the ledger first every other time, and `between` before each. The order matters: the second
/// call finds caches that the first one has filled.
template <class Ledger, class Handmade, class Between>
void inTurns(Ledger ledger, Handmade handmade, Between between) {
    static bool s_IsLedgerFirst = false;
    s_IsLedgerFirst = !s_IsLedgerFirst;
    for (bool const isLedger : {s_IsLedgerFirst, !s_IsLedgerFirst}) {
        between();
        isLedger ? ledger() : handmade();
    }
}

/// Each beside what a shop has to do without a ledger; `clock` is what counts as time.
void addCalls(std::string const& suffix, clockid_t clock) {
    static Orders s_Orders("orders");
    static HandmadeOrders s_Handmade;
    static LooseRows s_Rows;
    static kvxbench::Merchant const s_Merchant(shop().m_Account.path());
    static Confirmation const s_Known = s_Orders.captured();

    auto const confirmAll = [clock] {
        Confirmation const next = s_Orders.confirmation();
        s_Handmade.add(next.m_Token, next.m_Token, s_Merchant.paymentUrl());
        Times times{};
        std::int32_t outcome = -1;
        inTurns([&] { times.m_Ledger = timed(clock, [&] { outcome = s_Orders.confirm(next); }); },
                [&] { times.m_Handmade = timed(clock, [&] { s_Handmade.confirm(next); }); },
                [&] {
                    times.m_Loose = timed(clock, [&] {
                        DestroyMessageObject(s_Handmade.verified(next));
                        s_Rows.commit(next.m_Data, next.m_Signature);
                    });
                });
        require(outcome == KVX_LEDGER_PAID_NOW, "not paid");
        s_Orders.work();
        return times;
    };
    auto const beginAll = [clock] {
        std::string const number = s_Orders.nextNumber();
        Times times{};
        inTurns([&] { times.m_Ledger = timed(clock, [&] { s_Orders.begin(number); }); },
                [&] { times.m_Handmade = timed(clock, [&] { s_Handmade.begin(number); }); },
                [&] {
                    times.m_Loose = timed(clock, [] {
                        std::string const url = s_Merchant.paymentUrl();
                        s_Rows.commit(url, url);
                    });
                });
        return times;
    };
    auto const captureBoth = [clock] {
        Confirmation const next = s_Orders.confirmation();
        s_Handmade.add(next.m_Token, next.m_Token, s_Merchant.paymentUrl());
        require(s_Orders.confirm(next) == KVX_LEDGER_PAID_NOW, "not paid");
        s_Handmade.confirm(next);
        Times times{};
        times.m_Ledger = timed(clock, [] { s_Orders.work(); });
        times.m_Handmade = timed(clock, [&] { s_Handmade.capture(next); });
        return times;
    };
    kvxbench::addTimed("replay/ledger" + suffix,
                       [clock] { return timed(clock, [] { benchmark::DoNotOptimize(s_Orders.confirm(s_Known)); }); });
    kvxbench::addTimed("replay/handmade" + suffix,
                       [clock] { return timed(clock, [] { DestroyMessageObject(s_Handmade.verified(s_Known)); }); });
    auto const row = [&suffix](std::string const& label, std::string const& name, std::string const& other,
                               double goal) {
        kvxbench::compare("ledger " + label + suffix, name + "/ledger" + suffix, name + other + suffix,
                          {goal, kvxbench::Clock::kWall});
    };
    auto const add = [&suffix](std::string const& name, auto const& all) {
        kvxbench::addTimed(name + "/ledger" + suffix, [all] { return all().m_Ledger; });
        kvxbench::addTimed(name + "/handmade" + suffix, [all] { return all().m_Handmade; });
    };
    add("confirm", confirmAll);
    kvxbench::addTimed("confirm/loose" + suffix, [confirmAll] { return confirmAll().m_Loose; });
    add("begin", beginAll);
    kvxbench::addTimed("begin/loose" + suffix, [beginAll] { return beginAll().m_Loose; });
    add("work", captureBoth);
    row("confirm, verify and one commit", "confirm", "/handmade", kWithinBare);
    row("confirm, verify and a loose row", "confirm", "/loose", kvxbench::kNoGoal);
    row("known confirmation, verify", "replay", "/handmade", kvxbench::kNoGoal);
    row("begin, payment URL and one commit", "begin", "/handmade", kWithinBare);
    row("begin, payment URL and a loose row", "begin", "/loose", kvxbench::kNoGoal);
    row("capture by the worker, capture and two commits", "work", "/handmade", kvxbench::kNoGoal);
}

/// Confirming a new order among many.
std::string addConfirming(int orders) {
    std::string const name = "confirm among/" + std::to_string(orders);
    auto const store = std::make_shared<Orders>("orders-" + std::to_string(orders));
    store->fill(orders);
    kvxbench::addTimed(name, [store] {
        Confirmation const next = store->confirmation();
        double const seconds = timed(CLOCK_THREAD_CPUTIME_ID, [&] { benchmark::DoNotOptimize(store->confirm(next)); });
        store->work();
        return seconds;
    });
    return name;
}

void setUp() {
    addCalls("", CLOCK_THREAD_CPUTIME_ID);
    addCalls(", wall time", CLOCK_MONOTONIC);
    char const* const wanted = std::getenv("KVX_LEDGER_ORDERS");
    int const large = wanted == nullptr ? kDefaultLarge : std::stoi(wanted);
    std::string const small = addConfirming(kSmall);
    for (int orders = 100 * kSmall; orders <= large; orders *= 10) {
        kvxbench::compareScaling("confirm among " + std::to_string(orders) + " orders, among 1000",
                                 addConfirming(orders), small, 1, kHardlySlower);
    }
}

}  // namespace

int main(int argc, char** argv) {
    return kvxbench::benchMain(argc, argv, &setUp);
}
