// Set-ups with a fault, one after the other on one directory.
//
// Before each row all files of the directory are made old; afterwards their contents show which of the four exchanges
// has replaced its file. Then the set-up is repeated without a fault and must leave everything in order.

#include <filesystem>
#include <functional>

#include "tallowin/codes.h"
#include "tests/flow/armedrow.h"

using namespace kvxtest;
using sandbox::ExchangeKind;

namespace {

/// A shop whose directory shows the files that a set-up has written.
class WatchedShop {
public:
    WatchedShop(sandbox::Service& service, std::string url, std::function<void(Shop const&)> const& prepare)
        : m_Url(std::move(url)) {
        prepare(m_Shop);
        EXPECT_EQ(setUp(), KVX_OK);
        m_Files = {{"config.xml", "<KVX MSGTYPE=\"SetupResponse\" VERSION=\"1\"/>", ""},
                   {"default.xml", "<KVX KVX.ISVALID=\"no\"/>", ""},
                   {"keys/public/" + service.services().m_Keys.current()->m_Id, "an old key", ""}};
        for (File& file : m_Files) {
            file.m_Fresh = m_Shop.dir().read(file.m_Name);
        }
    }

    [[nodiscard]] Shop const& shop() const { return m_Shop; }
    [[nodiscard]] std::int32_t setUp() const { return m_Shop.setUp(m_Url); }

    /// Replaces all files by old ones, so that files written from now on can be recognised.
    void age() {
        for (File const& file : m_Files) {
            m_Shop.dir().write(file.m_Name, file.m_Old);
        }
        m_Current = m_Shop.dir().read(kCurrent);
    }

    /// The written files in the spelling of the rows; "?" for a file in no expected state.
    [[nodiscard]] std::string written() const {
        std::string all;
        for (File const& file : m_Files) {
            all += look(file, m_Shop.dir().read(file.m_Name));
        }
        return all + (m_Shop.dir().read(kCurrent) == m_Current ? '.' : 'n');
    }

    /// Fails the test when a temporary file or half a pair of keys is left.
    void expectNoPartialFiles() const {
        for (auto const& entry : std::filesystem::recursive_directory_iterator(m_Shop.path())) {
            EXPECT_NE(entry.path().extension(), ".tmp") << entry.path();
        }
        for (auto const& entry : std::filesystem::directory_iterator(m_Shop.dir().file("keys/private"))) {
            EXPECT_TRUE(m_Shop.dir().exists("keys/public/" + entry.path().filename().string())) << entry.path();
        }
        EXPECT_TRUE(m_Shop.dir().exists("keys/private/" + m_Shop.dir().read(kCurrent)));
    }

private:
    struct File {
        std::string m_Name;
        std::string m_Old;
        std::string m_Fresh;
    };

    static char look(File const& file, std::string const& content) {
        if (content == file.m_Old) {
            return '.';
        }
        if (content.compare(0, file.m_Fresh.size(), file.m_Fresh) == 0) {
            return content.size() == file.m_Fresh.size() ? 'n' : 'r';
        }
        return content.size() == file.m_Fresh.size() ? 'f' : '?';
    }

    static constexpr char kCurrent[] = "keys/current";

    Shop m_Shop;
    std::string m_Url;
    std::vector<File> m_Files;
    std::string m_Current;
};

}  // namespace

void FaultTable::expectSetUps(std::vector<FaultTableRow> const& rows) {
    WatchedShop watched(service(), autoUrl(), [this](Shop const& shop) {
        if (isStrict()) {
            makeStrict(shop);
        }
    });
    for (FaultTableRow const& plain : rows) {
        FaultTableRow const row = expected(plain);
        SCOPED_TRACE(nameOf(row));
        watched.age();
        long const before = carriedOut(service(), row.m_Exchange);
        {
            ArmedRow const armed(service(), row, "", faultSize());
            EXPECT_EQ(asInRows(watched.setUp()), row.m_Result);
        }
        EXPECT_EQ(watched.written(), row.m_Left);
        EXPECT_EQ(carriedOut(service(), row.m_Exchange) - before, row.m_CarriedOut ? 1 : 0);
        watched.expectNoPartialFiles();

        // Defaults that are valid are not fetched again, whatever stands behind them.
        EXPECT_EQ(watched.setUp(), KVX_OK);
        EXPECT_EQ(watched.written(), row.m_Left[1] == 'r' ? "nrnn" : "nnnn");
        watched.expectNoPartialFiles();
    }
    EXPECT_EQ(watched.shop().verify(pays(watched.shop().payment())), KVX_OK);
}

TEST_F(FaultTable, HoldsForSettingUp) {
    startService();
    expectSetUps(rowsOf(ExchangeKind::kSetup));
}

TEST_F(FaultTable, HoldsForTheDefaults) {
    startService();
    expectSetUps(rowsOf(ExchangeKind::kDefaults));
}

TEST_F(FaultTable, HoldsForTheServersKey) {
    startService();
    expectSetUps(rowsOf(ExchangeKind::kKeyQuery));
}

TEST_F(FaultTable, HoldsForTheMerchantsKey) {
    startService();
    expectSetUps(rowsOf(ExchangeKind::kKeyExport));
}

TEST_F(FaultTable, HoldsForConnectionsOfASetUp) {
    startService(Transport::kTls);
    expectSetUps(rowsOfConnections(true));
}

// The same under strict settings.

class StrictSetUps : public FaultTable {
protected:
    StrictSetUps() { beStrict(); }
};

TEST_F(StrictSetUps, HoldForSettingUp) {
    startService();
    expectSetUps(rowsOf(ExchangeKind::kSetup));
}

TEST_F(StrictSetUps, HoldForTheDefaults) {
    startService();
    expectSetUps(rowsOf(ExchangeKind::kDefaults));
}

TEST_F(StrictSetUps, HoldForTheServersKey) {
    startService();
    expectSetUps(rowsOf(ExchangeKind::kKeyQuery));
}

TEST_F(StrictSetUps, HoldForTheMerchantsKey) {
    startService();
    expectSetUps(rowsOf(ExchangeKind::kKeyExport));
}

TEST_F(StrictSetUps, HoldForConnections) {
    startService(Transport::kTls);
    expectSetUps(rowsOfConnections(true));
}
