#include "tests/ledger/renewalsupport.h"

#include <filesystem>
#include <fstream>
#include <iterator>

namespace kvxtest {

Renewed RenewalTest::renew(LedgerHandle const& ledger, std::string const& url, std::string const& password) const {
    Renewed renewed;
    renewed.m_Code = Ledger_RenewKeys(ledger.get(), url.c_str(), "demo", password.c_str(), &renewed.m_Outcome);
    return renewed;
}

void RenewalTest::renew() const {
    Renewed const renewed = renew(m_Ledger);
    EXPECT_EQ(renewed.m_Code, KVX_OK) << lastLedgerError();
    EXPECT_EQ(renewed.m_Outcome, KVX_LEDGER_RENEWAL_DONE);
}

AccountContent RenewalTest::contentOf(std::string const& directory) {
    AccountContent content;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(directory)) {
        std::string const name = std::filesystem::relative(entry.path(), directory).string();
        if (entry.is_regular_file() && name.compare(0, 8, ".renewal") != 0) {
            std::ifstream file(entry.path(), std::ios::binary);
            content[name] = std::string(std::istreambuf_iterator<char>(file), {});
        }
    }
    return content;
}

std::string RenewalTest::currentKey(std::string const& directory) {
    return kvxtest::contentOf(directory + "/keys/current");
}

std::string RenewalTest::newestRenewal() const {
    return m_Store.one("SELECT state, key_id FROM renewals ORDER BY generation DESC LIMIT 1");
}

Returned RenewalTest::paid(LedgerHandle const& ledger, std::string const& number) const {
    Purchase purchase;
    purchase.m_Number = number;
    return sandbox().shopper(ledger.url(purchase), "pay");
}

void RenewalTest::runSql(std::string const& sql) const {
    EXPECT_EQ(m_Store.run(sql), "") << sql;
}

}  // namespace kvxtest
