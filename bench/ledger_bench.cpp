// The order ledger: confirming, beginning and capturing, each beside the flat functions and the commits that no ledger
// can leave out, and confirming in stores of different sizes. Stores are files in the temporary directory.
// KVX_LEDGER_ORDERS is the size of the largest one.
//
// Contestants: the bare functions with commits of one row in SQLite, by the same rules for the disk.
//
// Times faster in one run:
//   ledger confirm, verify and one commit                  0.55
//   ledger confirm, verify and one commit, wall time       0.70
//   ledger begin, payment URL and one commit, wall time    0.72

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <time.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
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
constexpr char kNote[] = "a row of a shop";

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

/// What a shop would do by hand: one row, one commit, on disk when it returns.
class OneRow {
public:
    OneRow() {
        require(sqlite3_open(shop().path("rows.db").c_str(), &m_Database) == SQLITE_OK, "no database");
        run("PRAGMA journal_mode = WAL");
        run("PRAGMA synchronous = FULL");
        run("CREATE TABLE IF NOT EXISTS kept (id INTEGER PRIMARY KEY, note TEXT, message TEXT, signature TEXT)");
        require(sqlite3_prepare_v2(m_Database, "INSERT INTO kept (note, message, signature) VALUES (?, ?, ?)", -1,
                                   &m_Insert, nullptr) == SQLITE_OK,
                "no statement");
    }
    OneRow(OneRow const&) = delete;
    OneRow& operator=(OneRow const&) = delete;
    ~OneRow() {
        sqlite3_finalize(m_Insert);
        sqlite3_close(m_Database);
    }

    void commit(std::string const& message, std::string const& signature) {
        sqlite3_bind_text(m_Insert, 1, kNote, -1, SQLITE_STATIC);
        sqlite3_bind_text(m_Insert, 2, message.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_text(m_Insert, 3, signature.c_str(), -1, SQLITE_STATIC);
        require(sqlite3_step(m_Insert) == SQLITE_DONE, "the row is not inserted");
        sqlite3_reset(m_Insert);
    }

private:
    void run(char const* sql) { require(sqlite3_exec(m_Database, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql); }

    sqlite3* m_Database = nullptr;
    sqlite3_stmt* m_Insert = nullptr;
};

struct Confirmation {
    std::string m_Data;
    std::string m_Signature;
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
        require(Ledger_CreateOrder(m_Ledger, number.c_str(), "1250", "EUR", &order) == KVX_OK, "no order");
        char url[4096];
        std::int32_t size = sizeof url;
        require(LedgerOrder_SetAttribute(order, "DESCRIPTION", "Tea") == KVX_OK &&
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
                                 R"(" AMOUNT="1250" CURRENCY="EUR" RESULT="authorised"/>)";
        return {data, plain::sign(data, shop().m_ServerKey)};
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

void verifyBare(KVX_HANDLE factory, Confirmation const& confirmation) {
    KVX_HANDLE message = nullptr;
    require(MessageFactory_VerifyPayConfirm(factory, confirmation.m_Data.c_str(), confirmation.m_Signature.c_str(),
                                            &message) == KVX_OK,
            "a genuine confirmation is refused");
    DestroyMessageObject(message);
}

void captureBare(Confirmation const& confirmation) {
    KVX_HANDLE const message = CreateMessageObject();
    require(MessageObject_Open(message, shop().m_Account.path().c_str()) == KVX_OK &&
                MessageObject_FromString(message, confirmation.m_Data.c_str()) == KVX_OK &&
                MessageObject_Capture(message) == KVX_OK,
            "the capture fails");
    DestroyMessageObject(message);
}

/// Each with the bare functions beside it; `clock` is what counts as time.
void addCalls(std::string const& suffix, clockid_t clock) {
    static Orders s_Orders("orders");
    static OneRow s_Row;
    static kvxbench::Merchant const s_Merchant(shop().m_Account.path());
    static Confirmation const s_Known = s_Orders.captured();

    // Each is timed between calls of the other: other work lies between two confirmations in a shop as well.
    auto const confirmBoth = [clock] {
        Confirmation const next = s_Orders.confirmation();
        std::int32_t outcome = -1;
        double const ledger = timed(clock, [&] { outcome = s_Orders.confirm(next); });
        require(outcome == KVX_LEDGER_PAID_NOW, "not paid");
        s_Orders.work();
        double const bare = timed(clock, [&] {
            verifyBare(s_Merchant.factory(), next);
            s_Row.commit(next.m_Data, next.m_Signature);
        });
        return std::pair(ledger, bare);
    };
    auto const beginBoth = [clock] {
        std::string const number = s_Orders.nextNumber();
        double const ledger = timed(clock, [&] { s_Orders.begin(number); });
        double const bare = timed(clock, [] {
            std::string const url = s_Merchant.paymentUrl();
            s_Row.commit(url, url);
        });
        return std::pair(ledger, bare);
    };
    kvxbench::addTimed("confirm/ledger" + suffix, [confirmBoth] { return confirmBoth().first; });
    kvxbench::addTimed("confirm/bare" + suffix, [confirmBoth] { return confirmBoth().second; });
    kvxbench::addTimed("begin/ledger" + suffix, [beginBoth] { return beginBoth().first; });
    kvxbench::addTimed("begin/bare" + suffix, [beginBoth] { return beginBoth().second; });
    kvxbench::addTimed("replay/ledger" + suffix,
                       [clock] { return timed(clock, [] { benchmark::DoNotOptimize(s_Orders.confirm(s_Known)); }); });
    kvxbench::addTimed("verify/bare" + suffix,
                       [clock] { return timed(clock, [] { verifyBare(s_Merchant.factory(), s_Known); }); });
    kvxbench::addTimed("work/ledger" + suffix, [clock] {
        require(s_Orders.confirm(s_Orders.confirmation()) == KVX_LEDGER_PAID_NOW, "not paid");
        return timed(clock, [] { s_Orders.work(); });
    });
    kvxbench::addTimed("work/bare" + suffix, [clock] {
        return timed(clock, [] {
            s_Row.commit(s_Known.m_Data, "");
            captureBare(s_Known);
            s_Row.commit(s_Known.m_Data, "");
        });
    });
    auto const row = [&suffix](std::string const& label, std::string const& measured, std::string const& base,
                               double goal) {
        kvxbench::compare("ledger " + label + suffix, measured + "/ledger" + suffix, base + "/bare" + suffix,
                          {goal, kvxbench::Clock::kWall});
    };
    row("confirm, verify and one commit", "confirm", "confirm", kWithinBare);
    row("known confirmation, verify", "replay", "verify", kvxbench::kNoGoal);
    row("begin, payment URL and one commit", "begin", "begin", kWithinBare);
    row("capture by the worker, capture and two commits", "work", "work", kvxbench::kNoGoal);
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
