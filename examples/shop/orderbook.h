/// The shop's orders: what was bought, in tables of the shop; what was paid, in the order ledger.
#ifndef TALLOWIN_EXAMPLES_SHOP_ORDERBOOK_H
#define TALLOWIN_EXAMPLES_SHOP_ORDERBOOK_H

#include <sqlite3.h>

#include <map>
#include <memory>
#include <string>
#include <tallowin/ledger.hpp>
#include <vector>

#include "catalogue.h"

namespace storefront {

/// The columns of a row by name, as texts; NULL is "".
using Row = std::map<std::string, std::string>;
using Rows = std::vector<Row>;

/// Access to the store, a single SQLite file. Each thread has its own; so may other processes. A failure of the store
/// is an exception, and nothing has been changed.
class OrderBook {
public:
    /// Opens "orders.db" in the configuration directory. Requires: the directory has been set up.
    explicit OrderBook(std::string const& directory);

    /// Stores what is ordered, unless there is an order with that number.
    void add(std::string const& number, Quantities const& articles);

    /// One row or none: number, articles, amount, state of the ledger ("opened" before the payment has begun),
    /// payment_id (empty until it is confirmed), delivered_at (empty until then).
    Rows find(std::string const& number);

    /// The transitions of the order: event, cause, time, message, signature.
    Rows historyOf(std::string const& number);

    /// The payment_id of further payments that were made for the order. They are never captured.
    Rows surplusOf(std::string const& number);

    /// Begins the payment, or goes on with the one that was begun. Returns its URL; `orderUrl`, the address of the
    /// order's page, when the order is paid. Requires: add() has stored the number.
    std::string begin(std::string const& number, std::string const& orderUrl);

    /// Examines and records a confirmation, and delivers the order when it is paid now. Sends nothing.
    tallowin::Confirmation confirm(char const* messenger, std::string const& data, std::string const& signature);

    /// Captures, completes and asks for what is due, and delivers what turned out to be paid. Network.
    void work();

    /// Whether a confirmation has been kept since that time because the key that signed it is not here.
    bool hasKeptSince(std::int64_t milliseconds);

    /// Sets up the account again, which imports the key that the service signs with now. Network.
    void setUpAgain(std::string const& service, std::string const& user, std::string const& password) {
        m_Ledger.renewKeys(service, user, password);
    }

private:
    Rows run(char const* sql, std::vector<std::string> const& values = {});
    void deliver(std::string const& number);
    void deliverPaid();

    tallowin::Ledger m_Ledger;
    std::unique_ptr<sqlite3, decltype(&sqlite3_close)> m_Database;
};

}  // namespace storefront

#endif
