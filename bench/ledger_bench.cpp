// The order ledger: confirming, beginning and capturing, each beside the flat functions and the commits that no ledger
// can leave out, and confirming in stores of different sizes. Stores are files in the temporary directory.
// KVX_LEDGER_ORDERS is the size of the largest one.
//
// Contestant: a shop by hand, of the flat functions with one commit a call to the smallest table that can do it, by the
// same rules for the disk. Each shop takes orders through their whole life, and one step of it is timed: so each finds
// in the caches what its own other steps have left there.
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

/// What the service says of a payment that it has authorised.
Confirmation confirmationOf(std::string const& number, std::string const& token) {
    std::string const data = std::string(R"(<KVX MSGTYPE="PayConfirm" KEYID=")") + Account::kServerKey + "\" TOKEN=\"" +
                             token + "\" ID=\"P" + token + "\" ORDERID=\"" + number + "\" AMOUNT=\"" + kAmount +
                             "\" CURRENCY=\"" + kCurrency + R"(" RESULT="authorised"/>)";
    return {token, data, plain::sign(data, shop().m_ServerKey)};
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

/// The least that a shop needs by hand: a row for each order, found by its number and by the token, one commit a call.
/// Now and then such a commit copies the log to the table, which the ledger leaves to the worker.
class HandmadeOrders {
public:
    Life life(clockid_t clock) {
        std::string const number = "H-" + std::to_string(++m_Count);
        std::string token;
        Life life;
        life.m_Begin = timed(clock, [&] { token = begin(number); });
        Confirmation const confirmation = confirmationOf(number, token);
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

    /// Returns the token.
    std::string begin(std::string const& number) {
        KVX_HANDLE payment = nullptr;
        require(MessageFactory_CreatePayInit(m_Merchant.factory(), &payment) == KVX_OK, "no payment");
        for (auto const& [name, value] : {std::pair("ORDERID", number.c_str()), std::pair("AMOUNT", kAmount),
                                          std::pair("CURRENCY", kCurrency), std::pair("DESCRIPTION", kDescription)}) {
            require(MessageObject_SetAttribute(payment, name, value) == KVX_OK, "no attribute");
        }
        std::string const url = kvxbench::Merchant::urlOf(payment, kEnough);
        std::string token = attribute(payment, "TOKEN");
        DestroyMessageObject(payment);
        m_Insert.commit({number, kAmount, kCurrency, token, url});
        return token;
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
        Life life;
        life.m_Begin = timed(clock, [&] { begin(number); });
        m_Last = confirmationOf(number, tokenOf(number));
        std::int32_t outcome = -1;
        life.m_Confirm = timed(clock, [&] { outcome = confirm(m_Last); });
        require(outcome == KVX_LEDGER_PAID_NOW, "not paid");
        life.m_Capture = timed(clock, [&] { work(); });
        return life;
    }

    /// Of the last order, which has been captured.
    [[nodiscard]] Confirmation const& last() const { return m_Last; }

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

    [[nodiscard]] std::string tokenOf(std::string const& number) const {
        char json[16384];
        std::int32_t size = sizeof json;
        require(Ledger_GetOrder(m_Ledger, number.c_str(), &size, json) == KVX_OK, "the order is not there");
        std::string const text = json;
        std::size_t const name = text.find("\"token\"");
        std::size_t const value = text.find('"', text.find(':', name)) + 1;
        return text.substr(value, text.find('"', value) - value);
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

/// Each step beside what a shop has to do without a ledger; `clock` is what counts as time.
void addSteps(std::string const& suffix, clockid_t clock) {
    static Orders s_Orders("orders");
    static HandmadeOrders s_Handmade;

    struct Step {
        char const* m_Name;
        double Life::*m_Seconds;
        char const* m_Label;
        double m_Goal;
    };
    static constexpr Step kSteps[] = {
        {"confirm", &Life::m_Confirm, "ledger confirm, verify and one commit", kWithinBare},
        {"begin", &Life::m_Begin, "ledger begin, payment URL and one commit", kWithinBare},
        {"work", &Life::m_Capture, "ledger capture by the worker, capture and two commits", kvxbench::kNoGoal},
    };
    auto const add = [&suffix](std::string const& name, std::string const& label, double goal, auto ledger,
                               auto handmade) {
        kvxbench::addTimed(name + "/ledger" + suffix, ledger);
        kvxbench::addTimed(name + "/handmade" + suffix, handmade);
        kvxbench::compare(label + suffix, name + "/ledger" + suffix, name + "/handmade" + suffix,
                          {goal, kvxbench::Clock::kWall});
    };
    for (Step const& step : kSteps) {
        add(
            step.m_Name, step.m_Label, step.m_Goal, [=] { return s_Orders.life(clock).*step.m_Seconds; },
            [=] { return s_Handmade.life(clock).*step.m_Seconds; });
    }
    static Confirmation const s_Known = (s_Orders.life(clock), s_Orders.last());
    add(
        "replay", "ledger known confirmation, verify", kvxbench::kNoGoal,
        [clock] { return timed(clock, [] { benchmark::DoNotOptimize(s_Orders.confirm(s_Known)); }); },
        [clock] { return timed(clock, [] { DestroyMessageObject(s_Handmade.verified(s_Known)); }); });
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
