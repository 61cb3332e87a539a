/// A ledger for tests, and two ways to have a service behind it.
///
/// LedgerTest has a configuration directory made by hand, so that a test can sign as the service what no service would
/// sign. LedgerFlowTest has the sandbox.
#ifndef TALLOWIN_TESTS_LEDGER_LEDGERSUPPORT_H
#define TALLOWIN_TESTS_LEDGER_LEDGERSUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ledger/storedatabase.h"
#include "tallowin/ledger.h"
#include "tests/api/apisupport.h"
#include "tests/flow/flowsupport.h"
#include "tests/ledger/teststore.h"
#include "tests/support/directories.h"

namespace kvxtest {

using Attributes = std::map<std::string, std::string>;

/// An order as the tests begin it.
struct Purchase {
    std::string m_Number = "A-17";
    std::string m_Amount = "12.50";
    std::string m_Currency = "EUR";
    Attributes m_Attributes = {{"SUCCESSLINK", "http://shop.example/paid"}};
};

/// What Ledger_Confirm and Ledger_GetReason return.
struct Confirmed {
    std::int32_t m_Code = KVX_OK;
    std::string m_Outcome;  ///< Its name.
    std::string m_Reason;   ///< Its name.
    std::string m_Sentence;
    std::string m_Number;
};

/// One ledger handle, with everything copied out as strings.
class LedgerHandle {
public:
    LedgerHandle() : m_Handle(CreateLedger()) {}
    LedgerHandle(LedgerHandle const&) = delete;
    LedgerHandle& operator=(LedgerHandle const&) = delete;
    ~LedgerHandle() { DestroyLedger(m_Handle); }

    [[nodiscard]] KVX_HANDLE get() const { return m_Handle; }

    /// Expects success.
    void option(std::string const& name, std::string const& value) const;
    [[nodiscard]] std::int32_t open(std::string const& store, std::string const& directory) const;

    /// Begins the payment; `url` is set on success.
    std::int32_t begin(Purchase const& purchase, std::string& url) const;

    /// The payment URL; fails the test when there is none.
    [[nodiscard]] std::string url(Purchase const& purchase = {}) const;

    [[nodiscard]] Confirmed confirm(std::string const& data, std::string const& signature,
                                    std::string const& messenger = "return") const;

    /// How many jobs were done; -1, and the test fails, when the worker failed.
    [[nodiscard]] int run(std::int32_t limit = 100) const;

    [[nodiscard]] std::int32_t resolve(std::string const& state, std::string const& note = "Kim: seen at the service",
                                       std::string const& number = "A-17") const;
    [[nodiscard]] std::string state(std::string const& number = "A-17") const;
    [[nodiscard]] nlohmann::json order(std::string const& number = "A-17") const;
    [[nodiscard]] nlohmann::json attempt(std::size_t attempt = 1, std::string const& number = "A-17") const;
    [[nodiscard]] nlohmann::json evidence(std::string const& number = "A-17") const;

    /// "from event to" of each transition.
    [[nodiscard]] std::vector<std::string> history(std::string const& number = "A-17") const;

    /// The numbers that a page lists.
    [[nodiscard]] std::vector<std::string> numbers(std::string const& filter, std::string const& after = "",
                                                   std::int32_t limit = 100) const;

    /// Numbers of all orders that were paid and not told, told now.
    [[nodiscard]] std::vector<std::string> nextPaid() const;

private:
    KVX_HANDLE m_Handle;
};

/// The reason of this thread's last failure.
std::string lastLedgerError();

/// A directory whose service key the test has.
class LedgerTest : public testing::Test {
protected:
    LedgerTest();

    /// What the service says of an attempt: a PayConfirm with these attributes in place of the right ones. An empty
    /// value leaves the attribute out.
    [[nodiscard]] std::string says(std::string const& result, Attributes const& changes = {},
                                   std::size_t attempt = 1) const;

    /// Confirms `data`, signed by the key `keyId`.
    [[nodiscard]] Confirmed confirm(std::string const& data, std::string const& keyId = "server",
                                    std::string const& messenger = "return") const;

    /// The name of the outcome of a genuine confirmation.
    [[nodiscard]] std::string outcome(std::string const& result, std::size_t attempt = 1) const;

    /// Sets the ledger's clock to that many seconds after the beginning of the test.
    void setClock(std::int64_t seconds) const;

    /// Sets the clock to that many seconds after the expiry of an attempt.
    void setClockAfterExpiry(std::int64_t seconds, std::size_t attempt = 1) const;

    /// Opens the store of the test by another handle.
    void openAgain(LedgerHandle const& ledger) const;

    /// Makes a further key of the service, known to the test alone.
    void makeKey(std::string const& keyId) const;

    /// Puts a key that the test has into the directory; `current`: the service signs with it from now on.
    void publishKey(std::string const& keyId, bool current) const;

    [[nodiscard]] std::string const& store() const { return m_Store.name(); }
    [[nodiscard]] std::string account() const { return m_Dir.file("account"); }

    AccountDirectory m_Signer;  ///< Both halves of every key.
    TemporaryDirectory m_Dir;
    TestStore m_Store{m_Dir.file("orders.db")};
    LedgerHandle m_Ledger;
    std::int64_t m_Start = 0;  ///< The time when the test began, in milliseconds.

private:
    void copy(std::string const& name) const;
};

/// A sandbox behind the ledger. The worker does not pause, and asks for states.
class LedgerFlowTest : public FlowTest {
protected:
    LedgerFlowTest();

    /// Begins, pays and confirms an order. Fails the test unless that pays it.
    void pay(std::string const& number = "A-17");

    /// The shopper takes `decision` on the page at `url`; what comes back is confirmed. The name of the outcome.
    std::string decide(std::string const& url, std::string const& decision);

    /// The state of the order's attempt at the service.
    [[nodiscard]] std::string stateAtService(std::size_t attempt = 1) const;

    [[nodiscard]] std::string const& store() const { return m_Store.name(); }

    TemporaryDirectory m_Dir;
    TestStore m_Store{m_Dir.file("orders.db")};
    LedgerHandle m_Ledger;
};

}  // namespace kvxtest

#endif
