// The ledger's tables and the shop's two stand in one file, so that they can be joined; the shop only reads the
// ledger's. An order is stored first, then its payment begins: whatever dies in between, the same number goes on.
#include "orderbook.h"

#include <stdexcept>

namespace storefront {

namespace {

constexpr int kBusyMilliseconds = 10000;
constexpr std::int32_t kJobs = 100;

// What the payment service offers. The pauses are short, so that a demonstration is worth watching: a shop keeps the
// ledger's own. A lease lasts longer than the longest exchange, see TOTALTIMEOUT in settings.xml.
// clang-format off
constexpr char const* kOptions[][2] = {
    {"STATUSTYPE",    "Status"},
    {"COMPLETE",      "1"},
    {"ACKNOWLEDGE",   "1"},
    {"LEASESECONDS",  "30"},
    {"SETTLESECONDS", "1"},
    {"RETRYBASE",     "1"},
    {"RETRYMAX",      "60"},
    {"MAXASKS",       "3"},
    {"GRACESECONDS",  "5"},
};
// clang-format on

constexpr char const* kTables[] = {
    "CREATE TABLE IF NOT EXISTS purchases (number TEXT PRIMARY KEY, articles TEXT NOT NULL, amount TEXT NOT NULL)",
    "CREATE TABLE IF NOT EXISTS deliveries (number TEXT PRIMARY KEY, delivered_at INTEGER NOT NULL)",
};

// Deliberate (superseded-payment-pays): an order stands where the attempt stands that paid it, which may be one that
// another has replaced, or else the newest: the visitor may have paid just in time.
constexpr char kFind[] =
    "SELECT p.number, articles, p.amount, coalesce(state, 'opened') AS state, payment_id, d.delivered_at "
    "FROM purchases p LEFT JOIN deliveries d ON d.number = p.number LEFT JOIN orders o ON o.number = p.number "
    "LEFT JOIN attempts ON order_id = id AND attempt = coalesce(paid_attempt, newest_attempt) WHERE p.number = ?";
// Of what the shop sends only what a visitor sees anyway: other messages name files of this machine.
constexpr char kHistory[] =
    "SELECT event, CASE WHEN cause LIKE '%:%:%' THEN 'worker' ELSE cause END AS cause, strftime('%H:%M:%S', at / 1000, "
    "'unixepoch') AS time, signature, "
    "CASE WHEN event = 'begun' OR signature IS NOT NULL THEN message "
    "ELSE coalesce(printf('Result 0x%08X', code & 4294967295), '') END AS message "
    "FROM transitions JOIN orders ON id = order_id WHERE number = ? ORDER BY sequence";
constexpr char kSurplus[] =
    "SELECT payment_id FROM attempts JOIN orders ON id = order_id WHERE number = ? AND state = 'surplus'";

}  // namespace

OrderBook::OrderBook(std::string const& directory) : m_Database(nullptr, sqlite3_close) {
    std::string const file = directory + "/orders.db";
    for (auto const& [name, value] : kOptions) {
        m_Ledger.setOption(name, value);
    }
    m_Ledger.open("sqlite:" + file, directory);  // first, because it creates the file
    sqlite3* database = nullptr;
    int const result = sqlite3_open_v2(file.c_str(), &database, SQLITE_OPEN_READWRITE, nullptr);
    m_Database.reset(database);
    if (result != SQLITE_OK) {
        throw std::runtime_error(file + " cannot be opened");
    }
    sqlite3_busy_timeout(database, kBusyMilliseconds);
    for (char const* const table : kTables) {
        run(table);
    }
}

void OrderBook::add(std::string const& number, Quantities const& articles) {
    run("INSERT OR IGNORE INTO purchases VALUES (?, ?, ?)",
        {number, textOf(articles), amountText(totalCents(articles))});
}

Rows OrderBook::find(std::string const& number) {
    return run(kFind, {number});
}

Rows OrderBook::historyOf(std::string const& number) {
    return run(kHistory, {number});
}

Rows OrderBook::surplusOf(std::string const& number) {
    return run(kSurplus, {number});
}

std::string OrderBook::begin(std::string const& number, std::string const& orderUrl) {
    try {
        return m_Ledger.begin(number, find(number).at(0).at("amount"), kCurrency,
                              {{"SUCCESSLINK", orderUrl + "/paid"},
                               {"FAILLINK", orderUrl + "/declined"},
                               {"BACKLINK", orderUrl + "/cancelled"},
                               {"NOTIFYADDRESS", orderUrl + "/notified"}});
    } catch (tallowin::LedgerError const& failure) {
        if (failure.code() != KVX_E_LEDGER_PAID) {
            throw;
        }
        return orderUrl;
    }
}

tallowin::Confirmation OrderBook::confirm(char const* messenger, std::string const& data,
                                          std::string const& signature) {
    tallowin::Confirmation confirmation = m_Ledger.confirm(messenger, data, signature);
    if (confirmation.isPaidNow()) {
        deliver(confirmation.order());
    }
    return confirmation;
}

void OrderBook::work() {
    deliverPaid();  // first, since what runDue() throws of a renewal must not hold it up
    m_Ledger.runDue(kJobs);
    deliverPaid();
}

void OrderBook::deliverPaid() {
    while (auto const number = m_Ledger.nextPaid()) {
        deliver(*number);
    }
}

bool OrderBook::hasKeptSince(std::int64_t milliseconds) {
    return !run("SELECT 1 FROM kept WHERE created_at >= ? LIMIT 1", {std::to_string(milliseconds)}).empty();
}

/// Runs one statement with these values for its parameters.
Rows OrderBook::run(char const* sql, std::vector<std::string> const& values) {
    sqlite3_stmt* made = nullptr;
    sqlite3_prepare_v2(m_Database.get(), sql, -1, &made, nullptr);  // null after a failure
    std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> const statement(made, sqlite3_finalize);
    bool isReady = made != nullptr;
    int at = 0;
    for (std::string const& value : values) {
        int const size = static_cast<int>(value.size());
        isReady = isReady && sqlite3_bind_text(made, ++at, value.data(), size, SQLITE_STATIC) == SQLITE_OK;
    }
    Rows rows;
    int result = isReady ? sqlite3_step(made) : SQLITE_ERROR;
    for (; result == SQLITE_ROW; result = sqlite3_step(made)) {
        Row& row = rows.emplace_back();
        for (int column = 0; column < sqlite3_column_count(made); ++column) {
            auto const* const text = reinterpret_cast<char const*>(sqlite3_column_text(made, column));
            row[sqlite3_column_name(made, column)] = text == nullptr ? "" : text;
        }
    }
    if (result != SQLITE_DONE) {
        throw std::runtime_error(std::string("the database: ") + sqlite3_errmsg(m_Database.get()));
    }
    return rows;
}

/// Here a shop sends the goods. The ledger reports an order again when the shop dies before it has acknowledged, so the
/// delivery is stored first, and the table's key makes it one.
void OrderBook::deliver(std::string const& number) {
    run("INSERT OR IGNORE INTO deliveries VALUES (?, unixepoch())", {number});
    m_Ledger.delivered(number);
}

}  // namespace storefront
