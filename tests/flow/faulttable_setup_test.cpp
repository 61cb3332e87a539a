// Set-ups on which something goes wrong.

#include <filesystem>

#include "tests/flow/armedrow.h"
#include "tests/flow/flowsupport.h"

using namespace kvxtest;
using sandbox::ExchangeKind;

namespace {

/// A shop whose directory tells what a set-up has written.
class WatchedShop {
public:
    WatchedShop(Sandbox& sandbox, std::string url) : m_Url(std::move(url)) {
        EXPECT_EQ(setUp(), KVX_OK);
        m_Files = {{"config.xml", "<KVX MSGTYPE=\"SetupResponse\" VERSION=\"1\"/>", ""},
                   {"default.xml", "<KVX KVX.ISVALID=\"no\"/>", ""},
                   {"keys/public/" + sandbox.service().serverKeyId(), "an old key", ""}};
        for (File& file : m_Files) {
            file.m_Fresh = m_Shop.dir().read(file.m_Name);
        }
    }

    [[nodiscard]] Shop const& shop() const { return m_Shop; }
    [[nodiscard]] std::int32_t setUp() const { return m_Shop.setUp(m_Url); }

    /// Makes everything old, so that what is written from now on can be told from it.
    void age() {
        for (File const& file : m_Files) {
            m_Shop.dir().write(file.m_Name, file.m_Old);
        }
        m_Current = m_Shop.dir().read(kCurrent);
    }

    /// As the rows spell it; "?" for a file that is none of what it may be.
    [[nodiscard]] std::string written() const {
        std::string all;
        for (File const& file : m_Files) {
            all += look(file, m_Shop.dir().read(file.m_Name));
        }
        return all + (m_Shop.dir().read(kCurrent) == m_Current ? '.' : 'n');
    }

    /// Fails the test when a temporary file or half a pair of keys is left.
    void expectNothingHalf() const {
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

void expectSetUps(Sandbox& sandbox, std::string const& url, std::vector<FaultTableRow> const& rows) {
    WatchedShop watched(sandbox, url);
    for (FaultTableRow const& row : rows) {
        SCOPED_TRACE(nameOf(row));
        watched.age();
        long const before = carriedOut(sandbox.service(), row.m_Exchange);
        {
            ArmedRow const armed(sandbox.service(), row);
            EXPECT_EQ(asInRows(watched.setUp()), row.m_Result);
        }
        EXPECT_EQ(watched.written(), row.m_Left);
        EXPECT_EQ(carriedOut(sandbox.service(), row.m_Exchange) - before, row.m_CarriedOut ? 1 : 0);
        watched.expectNothingHalf();

        // Defaults that are valid are not fetched again, whatever stands behind them.
        EXPECT_EQ(watched.setUp(), KVX_OK);
        EXPECT_EQ(watched.written(), row.m_Left[1] == 'r' ? "nrnn" : "nnnn");
        watched.expectNothingHalf();
    }
    EXPECT_EQ(watched.shop().verify(sandbox.shopper(watched.shop().payment().url(), "pay")), KVX_OK);
}

}  // namespace

TEST(FaultTable, HoldsForSettingUp) {
    Sandbox sandbox;
    expectSetUps(sandbox, sandbox.autoUrl(), rowsOf(ExchangeKind::kSetup));
}

TEST(FaultTable, HoldsForTheDefaults) {
    Sandbox sandbox;
    expectSetUps(sandbox, sandbox.autoUrl(), rowsOf(ExchangeKind::kDefaults));
}

TEST(FaultTable, HoldsForTheServersKey) {
    Sandbox sandbox;
    expectSetUps(sandbox, sandbox.autoUrl(), rowsOf(ExchangeKind::kKeyQuery));
}

TEST(FaultTable, HoldsForTheMerchantsKey) {
    Sandbox sandbox;
    expectSetUps(sandbox, sandbox.autoUrl(), rowsOf(ExchangeKind::kKeyExport));
}

TEST(FaultTable, HoldsForConnectionsOfASetUp) {
    Sandbox sandbox(true);
    expectSetUps(sandbox, sandbox.tlsAutoUrl(), rowsOfConnections(true));
}
