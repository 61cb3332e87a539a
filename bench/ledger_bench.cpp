// The order ledger: confirming, beginning and capturing, each beside the flat functions and the commits that no ledger
// can leave out, and confirming in stores of different sizes. Stores are files in the temporary directory.
// KVX_LEDGER_ORDERS is the size of the largest one.
//
// Contestants: shops by hand, of the flat functions with one commit a call, by the same rules for the disk. One keeps
// the same records: what is due and when, and evidence of each change. The other has the smallest table that can do it.
// Each shop takes orders through their whole life, and one step of it is timed: so each finds in the caches what its
// own other steps have left there.
//
// Times faster in one run:
//   ledger confirm, verify and one commit                  0.82
//   ledger confirm, verify and one commit, wall time       0.82
//   ledger begin, payment URL and one commit, wall time    0.94

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
using kvxbench::TimedWork;
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
    std::string m_Number;
    std::string m_Token;
    std::string m_Data;
    std::string m_Signature;
};

/// What the service says of the payment at `url` when it has authorised it.
Confirmation confirmationOf(std::string const& number, std::string const& url) {
    static std::string const kName = "TOKEN%3d%22";
    std::size_t const token = url.find(kName) + kName.size();
    std::string const text = url.substr(token, url.find("%22", token) - token);
    std::string const data = std::string(R"(<KVX MSGTYPE="PayConfirm" KEYID=")") + Account::kServerKey + "\" TOKEN=\"" +
                             text + "\" ID=\"P" + text + "\" ORDERID=\"" + number + "\" AMOUNT=\"" + kAmount +
                             "\" CURRENCY=\"" + kCurrency + R"(" RESULT="authorised"/>)";
    return {number, text, data, plain::sign(data, shop().m_ServerKey)};
}

/// The processor time of this thread, or the wall time, that the steps of one order take.
struct Life {
    double m_Begin = 0;
    double m_Confirm = 0;
    double m_Capture = 0;
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

/// A statement; outside of BEGIN and COMMIT a transaction of its own.
class Statement {
public:
    Statement(Database const& database, char const* sql) : m_Connection(database.connection()) {
        require(sqlite3_prepare_v2(m_Connection, sql, -1, &m_Statement, nullptr) == SQLITE_OK, sql);
    }
    Statement(Statement const&) = delete;
    Statement& operator=(Statement const&) = delete;
    ~Statement() { sqlite3_finalize(m_Statement); }

    void run(std::initializer_list<std::string_view> texts) {
        int position = 0;
        for (std::string_view const text : texts) {
            sqlite3_bind_text64(m_Statement, ++position, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
        }
        require(sqlite3_step(m_Statement) == SQLITE_DONE, "a statement fails");
        sqlite3_reset(m_Statement);
    }

    /// Changes one row.
    void change(std::initializer_list<std::string_view> texts) {
        run(texts);
        require(sqlite3_changes(m_Connection) == 1, "no row is changed");
    }

private:
    sqlite3* m_Connection;  ///< Borrowed.
    sqlite3_stmt* m_Statement = nullptr;
};

/// What a shop by hand keeps: a row for each order, found by its number and by the token; or also when something is due
/// of it, in order, and the evidence of each change, found by the order.
enum class Keeps { kState, kEvidence };

/// A shop by hand, with one commit a call. Now and then such a commit copies the log to the table, which the ledger
/// leaves to the worker.
class HandmadeOrders {
public:
    explicit HandmadeOrders(Keeps keeps) : m_Keeps(keeps) {
        if (m_Keeps == Keeps::kEvidence) {
            Statement(m_Database, "CREATE INDEX orders_due ON orders (due) WHERE due IS NOT NULL").run({});
        }
    }

    Life life(clockid_t clock) {
        std::string const number = "H-" + std::to_string(++m_Count);
        std::string url;
        Life life;
        life.m_Begin = timed(clock, [&] { url = begin(number); });
        Confirmation const confirmation = confirmationOf(number, url);
        life.m_Confirm = timed(clock, [&] { confirm(confirmation); });
        life.m_Capture = timed(clock, [&] { capture(confirmation); });
        return life;
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

    /// Milliseconds since 1970.
    static std::string now() { return std::to_string(std::int64_t(secondsOf(CLOCK_REALTIME) * 1000)); }

    /// Returns the URL.
    std::string begin(std::string const& number) {
        KVX_HANDLE payment = nullptr;
        require(MessageFactory_CreatePayInit(m_Merchant.factory(), &payment) == KVX_OK, "no payment");
        for (auto const& [name, value] : {std::pair("ORDERID", number.c_str()), std::pair("AMOUNT", kAmount),
                                          std::pair("CURRENCY", kCurrency), std::pair("DESCRIPTION", kDescription)}) {
            require(MessageObject_SetAttribute(payment, name, value) == KVX_OK, "no attribute");
        }
        std::string url = kvxbench::Merchant::urlOf(payment, kEnough);
        std::string const token = attribute(payment, "TOKEN");
        DestroyMessageObject(payment);
        commit(m_Insert, {number, kAmount, kCurrency, token, url, now()}, {number, "waiting", now(), url, ""});
        return url;
    }

    void confirm(Confirmation const& confirmation) {
        KVX_HANDLE const message = verified(confirmation);
        commit(m_Pay, {confirmation.m_Data, confirmation.m_Signature, now(), attribute(message, "TOKEN")},
               {attribute(message, "ORDERID"), "paid", now(), confirmation.m_Data, confirmation.m_Signature});
        DestroyMessageObject(message);
    }

    /// With an intent to capture and a result of it.
    void capture(Confirmation const& confirmation) {
        commit(m_Advance, {"capturing", now(), confirmation.m_Token},
               {confirmation.m_Number, "capturing", now(), confirmation.m_Data, ""});
        KVX_HANDLE const message = CreateMessageObject();
        require(MessageObject_Open(message, shop().m_Account.path().c_str()) == KVX_OK &&
                    MessageObject_FromString(message, confirmation.m_Data.c_str()) == KVX_OK &&
                    MessageObject_Capture(message) == KVX_OK,
                "the capture fails");
        DestroyMessageObject(message);
        commit(m_Advance, {"captured", "", confirmation.m_Token}, {confirmation.m_Number, "captured", now(), "", ""});
    }

    void commit(Statement& change, std::initializer_list<std::string_view> texts,
                std::initializer_list<std::string_view> evidence) {
        if (m_Keeps == Keeps::kState) {
            change.change(texts);
            return;
        }
        m_Begin.run({});
        change.change(texts);
        m_Evidence.change(evidence);
        m_Commit.run({});
    }

    Keeps m_Keeps;
    kvxbench::Merchant m_Merchant{shop().m_Account.path()};
    Database m_Database{m_Keeps == Keeps::kState ? "state.db" : "evidence.db",
                        "CREATE TABLE orders (id INTEGER PRIMARY KEY, number TEXT NOT NULL UNIQUE,"
                        " amount TEXT NOT NULL, currency TEXT NOT NULL, token TEXT NOT NULL UNIQUE, url TEXT NOT NULL,"
                        " state TEXT NOT NULL, message TEXT, signature TEXT, due INTEGER);"
                        "CREATE TABLE evidence (id INTEGER PRIMARY KEY, number TEXT NOT NULL, state TEXT NOT NULL,"
                        " at INTEGER NOT NULL, message TEXT, signature TEXT);"
                        "CREATE INDEX evidence_number ON evidence (number)"};
    Statement m_Begin{m_Database, "BEGIN IMMEDIATE"};
    Statement m_Commit{m_Database, "COMMIT"};
    Statement m_Insert{m_Database,
                       "INSERT INTO orders (number, amount, currency, token, url, due, state)"
                       " VALUES (?, ?, ?, ?, ?, ?, 'waiting')"};
    Statement m_Pay{m_Database,
                    "UPDATE orders SET state = 'paid', message = ?, signature = ?, due = ?"
                    " WHERE token = ? AND state = 'waiting'"};
    Statement m_Advance{m_Database, "UPDATE orders SET state = ?, due = nullif(?, '') WHERE token = ?"};
    Statement m_Evidence{m_Database,
                         "INSERT INTO evidence (number, state, at, message, signature) VALUES (?, ?, ?, ?, ?)"};
    long m_Count = 0;
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

    Life life(clockid_t clock) {
        std::string const number = "B-" + std::to_string(++m_Count);
        std::string url;
        Life life;
        life.m_Begin = timed(clock, [&] { url = begin(number); });
        m_Last = confirmationOf(number, url);
        std::int32_t outcome = -1;
        life.m_Confirm = timed(clock, [&] { outcome = confirm(m_Last); });
        require(outcome == KVX_LEDGER_PAID_NOW, "not paid");
        life.m_Capture = timed(clock, [&] { work(); });
        return life;
    }

    /// A confirmation that has been recorded, of a payment that has been captured.
    Confirmation captured() {
        life(CLOCK_MONOTONIC);
        return m_Last;
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

private:
    std::string begin(std::string const& number) {
        KVX_HANDLE order = nullptr;
        require(Ledger_CreateOrder(m_Ledger, number.c_str(), kAmount, kCurrency, &order) == KVX_OK, "no order");
        char url[4096];
        std::int32_t size = sizeof url;
        require(LedgerOrder_SetAttribute(order, "DESCRIPTION", kDescription) == KVX_OK &&
                    LedgerOrder_Begin(order, &size, url) == KVX_OK,
                "the order does not begin");
        DestroyLedgerOrder(order);
        return url;
    }

    void work() const {
        std::int32_t done = 0;
        require(Ledger_RunDue(m_Ledger, 1, &done) == KVX_OK && done == 1, "nothing was done");
    }

    std::string m_Path;
    KVX_HANDLE m_Ledger;
    Confirmation m_Last;
    long m_Count = 0;
};

/// Each step beside the same by hand; `clock` is what counts as time.
void addSteps(std::string const& suffix, clockid_t clock) {
    static Orders s_Orders("orders");
    static HandmadeOrders s_Keeping(Keeps::kEvidence);
    static HandmadeOrders s_Smallest(Keeps::kState);

    struct Step {
        std::string m_Name;
        double Life::*m_Seconds;
        std::string m_Label;
        double m_Goal;
    };
    auto const add = [&suffix](std::string const& name, TimedWork work) {
        kvxbench::addTimed(name + suffix, std::move(work));
    };
    auto const row = [&suffix](std::string const& label, std::string const& name, std::string const& other,
                               double goal) {
        kvxbench::compare("ledger " + label + suffix, name + "/ledger" + suffix, name + other + suffix,
                          {goal, kvxbench::Clock::kWall});
    };
    for (Step const& step :
         {Step{"confirm", &Life::m_Confirm, "confirm, verify and one commit", kWithinBare},
          Step{"begin", &Life::m_Begin, "begin, payment URL and one commit", kWithinBare},
          Step{"work", &Life::m_Capture, "capture by the worker, capture and two commits", kvxbench::kNoGoal}}) {
        add(step.m_Name + "/ledger", [=] { return s_Orders.life(clock).*step.m_Seconds; });
        add(step.m_Name + "/keeping", [=] { return s_Keeping.life(clock).*step.m_Seconds; });
        add(step.m_Name + "/smallest", [=] { return s_Smallest.life(clock).*step.m_Seconds; });
        row(step.m_Label, step.m_Name, "/keeping", step.m_Goal);
        row(step.m_Label + " of one row", step.m_Name, "/smallest", kvxbench::kNoGoal);
    }
    static Confirmation const s_Known = s_Orders.captured();
    add("replay/ledger", [clock] { return timed(clock, [] { benchmark::DoNotOptimize(s_Orders.confirm(s_Known)); }); });
    add("replay/by hand", [clock] { return timed(clock, [] { DestroyMessageObject(s_Smallest.verified(s_Known)); }); });
    row("known confirmation, verify", "replay", "/by hand", kvxbench::kNoGoal);
}

/// Confirming a new order among many.
std::string addConfirming(int orders) {
    std::string const name = "confirm among/" + std::to_string(orders);
    auto const store = std::make_shared<Orders>("orders-" + std::to_string(orders));
    store->fill(orders);
    kvxbench::addTimed(name, [store] { return store->life(CLOCK_THREAD_CPUTIME_ID).m_Confirm; });
    return name;
}

void setUp() {
    addSteps("", CLOCK_THREAD_CPUTIME_ID);
    addSteps(", wall time", CLOCK_MONOTONIC);
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
