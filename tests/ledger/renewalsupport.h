/// Renewals of the merchant's key, against the sandbox.
#ifndef TALLOWIN_TESTS_LEDGER_RENEWALSUPPORT_H
#define TALLOWIN_TESTS_LEDGER_RENEWALSUPPORT_H

#include <cstdint>
#include <map>
#include <string>

#include "tests/ledger/ledgersupport.h"

namespace kvxtest {

/// What Ledger_RenewKeys returns.
struct Renewed {
    std::int32_t m_Code = KVX_OK;
    std::int32_t m_Outcome = -1;
};

/// The content of the files of an account by name, but for ".renewal".
using AccountContent = std::map<std::string, std::string>;

class RenewalTest : public LedgerFlowTest {
protected:
    [[nodiscard]] Renewed renew(LedgerHandle const& ledger, std::string const& url = "",
                                std::string const& password = "demo") const;

    /// Renews and expects that to succeed.
    void renew() const;

    [[nodiscard]] static AccountContent contentOf(std::string const& directory);
    [[nodiscard]] AccountContent content() const { return contentOf(shop().path()); }
    [[nodiscard]] static std::string currentKey(std::string const& directory);
    [[nodiscard]] std::string currentKey() const { return currentKey(shop().path()); }

    /// The columns of the newest row of the table of renewals: state and key id.
    [[nodiscard]] std::string newestRenewal() const;

    /// Begins an order and has the shopper pay; nothing is confirmed.
    [[nodiscard]] Returned paid(LedgerHandle const& ledger, std::string const& number) const;

    /// Runs SQL on the store.
    void runSql(std::string const& sql) const;
};

}  // namespace kvxtest

#endif
