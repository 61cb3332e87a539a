// Registration with the payment service: what it leaves behind, when it is repeated, when it breaks off.

#include <atomic>
#include <filesystem>
#include <iterator>

#include "tests/flow/flowsupport.h"
#include "tests/sandbox/support/rawclient.h"
#include "tests/support/raw_server.h"

using namespace kvxtest;

namespace {

long filesIn(std::string const& directory) {
    return std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator());
}

/// Passes the first few exchanges on to a service and hangs up on all later ones.
class Gate {
public:
    Gate(Sandbox& sandbox, int permitted)
        : m_Port(sandbox.service().plainPort()),
          m_Permitted(permitted),
          m_Server([this](Peer& peer) { serve(peer); }) {}

    [[nodiscard]] std::string autoUrl() const { return "http://127.0.0.1:" + m_Server.portText() + "/auto"; }

private:
    void serve(Peer& peer) {
        std::string const request = peer.receiveRequest();
        if (m_Permitted-- > 0) {
            peer.send(sandboxtest::exchangeRaw(m_Port, request));
        }
    }

    std::uint16_t m_Port;
    std::atomic<int> m_Permitted;
    RawServer m_Server;
};

}  // namespace

TEST(SetUp, LeavesADirectoryInWorkingOrder) {
    Sandbox sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    std::string const current = shop.dir().read("keys/current");
    EXPECT_EQ(current.find("0-1001-"), 0U) << current;
    EXPECT_TRUE(shop.dir().exists("keys/public/" + current));
    EXPECT_TRUE(shop.dir().exists("keys/private/" + current));
    EXPECT_TRUE(shop.dir().exists("keys/public/" + sandbox.service().serverKeyId()));
    EXPECT_FALSE(shop.dir().exists("keys/private/" + sandbox.service().serverKeyId()));
    EXPECT_NE(shop.dir().read("config.xml").find("MSGTYPE=\"SetupResponse\""), std::string::npos);
    EXPECT_NE(shop.dir().read("default.xml").find("MSGTYPE=\"LoadDefaultsResponse\""), std::string::npos);
    EXPECT_EQ(std::filesystem::status(shop.dir().file("keys/private/" + current)).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_EQ(sandbox.accepted("/auto"), 4);
}

TEST(SetUp, RepeatedRotatesTheKey) {
    Sandbox sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    std::string const first = shop.dir().read("keys/current");
    FlowMessage const early = shop.payment();
    ASSERT_EQ(shop.setUp(""), KVX_OK) << "the address is known by now";
    std::string const second = shop.dir().read("keys/current");
    EXPECT_NE(first, second);
    EXPECT_EQ(filesIn(shop.dir().file("keys/private")), 2);
    EXPECT_EQ(filesIn(shop.dir().file("keys/public")), 3) << "two of the merchant, one of the server";
    EXPECT_EQ(shop.payment().get("KEYID"), second);
    // The old key is still there and still known to the server.
    EXPECT_EQ(early.get("KEYID"), first);
    EXPECT_EQ(shop.verify(sandbox.shopper(early.url(), "pay")), KVX_OK);
    EXPECT_EQ(sandbox.accepted("/auto"), 7) << "valid defaults are not fetched again";
}

TEST(SetUp, WithWrongCredentialsIsRefusedAndWritesNothing) {
    Sandbox const sandbox;
    Shop const shop;
    EXPECT_EQ(shop.setUp(sandbox.autoUrl(), "demo", "wrong"), KVX_E_SERVER_ERROR);
    EXPECT_EQ(shop.setUp(sandbox.autoUrl(), "nobody", "demo"), KVX_E_SERVER_ERROR);
    EXPECT_EQ(shop.setUp(sandbox.autoUrl(), "", ""), KVX_E_SERVER_ERROR);
    EXPECT_FALSE(shop.dir().exists("config.xml"));
    EXPECT_FALSE(shop.dir().exists("keys/current"));
}

TEST(SetUp, WithAnotherAddressIsRefused) {
    Sandbox sandbox;
    Shop const shop;
    EXPECT_EQ(shop.setUp(sandbox.service().baseUrl() + "/nothing"), KVX_E_HTTP_NOT_FOUND);
    // Without a slash after the authority its last part is not found: the host, or the port.
    EXPECT_EQ(shop.setUp("http://127.0.0.1"), KVX_E_HTTP_NAME_LOOKUP);
    EXPECT_EQ(shop.setUp(sandbox.service().baseUrl()), KVX_E_SOCKET_REFUSED);
    EXPECT_EQ(shop.setUp("nonsense"), KVX_E_INVALID_URL);
}

TEST(SetUp, ThatBreaksOffKeepsWhatItHasAndCanBeRepeated) {
    struct Row {
        int m_Permitted;
        bool m_Config;
        bool m_Defaults;
        long m_PublicKeys;
    };
    for (Row const row :
         {Row{0, false, false, 0}, Row{1, true, false, 0}, Row{2, true, true, 0}, Row{3, true, true, 2}}) {
        Sandbox sandbox;
        Shop const shop;
        {
            Gate const gate(sandbox, row.m_Permitted);
            EXPECT_EQ(shop.setUp(gate.autoUrl()), KVX_E_HTTP_BAD_REPLY) << row.m_Permitted;
        }
        EXPECT_EQ(shop.dir().exists("config.xml"), row.m_Config) << row.m_Permitted;
        EXPECT_EQ(shop.dir().exists("default.xml"), row.m_Defaults) << row.m_Permitted;
        EXPECT_EQ(filesIn(shop.dir().file("keys/public")), row.m_PublicKeys) << row.m_Permitted;
        EXPECT_FALSE(shop.dir().exists("keys/current")) << "changes last";
        ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
        EXPECT_EQ(shop.verify(sandbox.shopper(shop.payment().url(), "pay")), KVX_OK);
    }
}

TEST(SetUp, ThatBreaksOffLeavesAnEarlierKeyInUse) {
    Sandbox sandbox;
    Shop const shop;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    std::string const before = shop.dir().read("keys/current");
    Gate const gate(sandbox, 2);
    EXPECT_EQ(shop.setUp(gate.autoUrl()), KVX_E_HTTP_BAD_REPLY) << "the new key was not taken";
    EXPECT_EQ(shop.dir().read("keys/current"), before);
}

TEST(ServiceDown, IsTheSocketsCodeAtEveryStep) {
    Sandbox sandbox;
    Shop const shop;
    Shop const late;
    ASSERT_EQ(shop.setUp(sandbox.autoUrl()), KVX_OK);
    std::string const autoUrl = sandbox.autoUrl();
    FlowMessage const payment = shop.payment();
    Returned const returned = sandbox.shopper(payment.url(), "pay");
    FlowMessage const capture = shop.filled(returned.m_Data);
    sandbox.service().stop();

    EXPECT_EQ(late.setUp(autoUrl), KVX_E_SOCKET_REFUSED);
    EXPECT_EQ(shop.setUp(""), KVX_E_SOCKET_REFUSED);
    FlowMessage const another = shop.payment();
    EXPECT_EQ(another.url().find("http://127.0.0.1:"), 0U) << "a payment URL needs no server";
    FlowMessage const confirmation = shop.verified(returned);  // needs none either
    EXPECT_EQ(MessageObject_Capture(capture.handle()), KVX_E_SOCKET_REFUSED);
    FlowMessage const completion = shop.completion(confirmation.get("ID"), confirmation.get("TOKEN"));
    KVX_HANDLE response = nullptr;
    EXPECT_EQ(MessageObject_Execute(completion.handle(), &response), KVX_E_SOCKET_REFUSED);
    EXPECT_EQ(response, nullptr);
}
