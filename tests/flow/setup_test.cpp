// Registration with the payment service: the files it writes, repeating it, and breaking off after each exchange.
//
// A gate in front of the service lets the first exchanges pass. The last tests stop the service and check the result of
// every step of a payment.

#include <atomic>
#include <filesystem>

#include "tallowin/codes.h"
#include "tests/flow/flowsupport.h"
#include "tests/sandbox/support/rawclient.h"
#include "tests/support/rawserver.h"

using namespace kvxtest;

namespace {

/// Passes the first few exchanges on to a service and closes all later connections without a response.
class Gate {
public:
    Gate(sandbox::Service const& service, int permitted)
        : m_Port(service.addresses().m_Plain.m_Port),
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

class SetUp : public FlowTest {};
class ServiceDown : public FlowTest {};

TEST_F(SetUp, LeavesADirectoryInWorkingOrder) {
    openShop();
    std::string const current = shop().dir().read("keys/current");
    EXPECT_EQ(current.find("0-1001-"), 0U) << current;
    EXPECT_TRUE(shop().dir().exists("keys/public/" + current));
    EXPECT_TRUE(shop().dir().exists("keys/private/" + current));
    EXPECT_TRUE(shop().dir().exists("keys/public/" + service().services().m_Keys.current()->m_Id));
    EXPECT_FALSE(shop().dir().exists("keys/private/" + service().services().m_Keys.current()->m_Id));
    EXPECT_NE(shop().dir().read("config.xml").find("MSGTYPE=\"SetupResponse\""), std::string::npos);
    EXPECT_NE(shop().dir().read("default.xml").find("MSGTYPE=\"LoadDefaultsResponse\""), std::string::npos);
    EXPECT_EQ(std::filesystem::status(shop().dir().file("keys/private/" + current)).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_EQ(sandbox().accepted("/auto"), 4);
}

TEST_F(SetUp, RepeatedRotatesTheKey) {
    openShop();
    std::string const first = shop().dir().read("keys/current");
    FlowMessage const early = shop().payment();
    ASSERT_EQ(shop().setUp(""), KVX_OK) << "the address is known by now";
    std::string const second = shop().dir().read("keys/current");
    EXPECT_NE(first, second);
    EXPECT_EQ(shop().dir().namesIn("keys/private").size(), 2U);
    EXPECT_EQ(shop().dir().namesIn("keys/public").size(), 3U) << "two of the merchant, one of the server";
    EXPECT_EQ(shop().payment().get("KEYID"), second);
    // The old key is still there and still known to the server.
    EXPECT_EQ(early.get("KEYID"), first);
    EXPECT_EQ(shop().verify(pays(early)), KVX_OK);
    EXPECT_EQ(sandbox().accepted("/auto"), 7) << "valid defaults are not fetched again";
}

TEST_F(SetUp, WithWrongCredentialsIsRefusedAndWritesNothing) {
    startService();
    EXPECT_EQ(shop().setUp(autoUrl(), "demo", "wrong"), KVX_E_SERVER_ERROR);
    EXPECT_EQ(shop().setUp(autoUrl(), "nobody", "demo"), KVX_E_SERVER_ERROR);
    EXPECT_EQ(shop().setUp(autoUrl(), "", ""), KVX_E_SERVER_ERROR);
    EXPECT_FALSE(shop().dir().exists("config.xml"));
    EXPECT_FALSE(shop().dir().exists("keys/current"));
}

TEST_F(SetUp, WithAnotherAddressIsRefused) {
    startService();
    EXPECT_EQ(shop().setUp(service().addresses().m_Plain.m_Url + "/nothing"), KVX_E_HTTP_NOT_FOUND);
    // Without a slash after the authority its last part is not found: the host, or the port.
    EXPECT_EQ(shop().setUp("http://127.0.0.1"), KVX_E_HTTP_NAME_LOOKUP);
    EXPECT_EQ(shop().setUp(service().addresses().m_Plain.m_Url), KVX_E_SOCKET_REFUSED);
    EXPECT_EQ(shop().setUp("nonsense"), KVX_E_INVALID_URL);
}

TEST_F(SetUp, ThatBreaksOffKeepsWhatItHasAndCanBeRepeated) {
    struct Row {
        int m_Permitted;
        bool m_Config;
        bool m_Defaults;
        std::size_t m_PublicKeys;
    };
    for (Row const row :
         {Row{0, false, false, 0}, Row{1, true, false, 0}, Row{2, true, true, 0}, Row{3, true, true, 2}}) {
        startService();
        {
            Gate const gate(service(), row.m_Permitted);
            EXPECT_EQ(shop().setUp(gate.autoUrl()), KVX_E_HTTP_BAD_REPLY) << row.m_Permitted;
        }
        EXPECT_EQ(shop().dir().exists("config.xml"), row.m_Config) << row.m_Permitted;
        EXPECT_EQ(shop().dir().exists("default.xml"), row.m_Defaults) << row.m_Permitted;
        EXPECT_EQ(shop().dir().namesIn("keys/public").size(), row.m_PublicKeys) << row.m_Permitted;
        EXPECT_FALSE(shop().dir().exists("keys/current")) << "changes last";
        ASSERT_EQ(shop().setUp(autoUrl()), KVX_OK);
        expectNextPaymentWorks();
    }
}

TEST_F(SetUp, ThatBreaksOffLeavesAnEarlierKeyInUse) {
    openShop();
    std::string const before = shop().dir().read("keys/current");
    Gate const gate(service(), 2);
    EXPECT_EQ(shop().setUp(gate.autoUrl()), KVX_E_HTTP_BAD_REPLY) << "the new key was not taken";
    EXPECT_EQ(shop().dir().read("keys/current"), before);
}

TEST_F(ServiceDown, IsTheSocketsCodeAtEveryStep) {
    openShop();
    Shop const late;
    std::string const url = autoUrl();
    FlowMessage const payment = shop().payment();
    Returned const returned = pays(payment);
    FlowMessage const capture = shop().filled(returned.m_Data);
    service().stop();

    EXPECT_EQ(late.setUp(url), KVX_E_SOCKET_REFUSED);
    EXPECT_EQ(shop().setUp(""), KVX_E_SOCKET_REFUSED);
    FlowMessage const another = shop().payment();
    EXPECT_EQ(another.url().find("http://127.0.0.1:"), 0U) << "a payment URL needs no server";
    FlowMessage const confirmation = shop().verified(returned);  // needs none either
    EXPECT_EQ(MessageObject_Capture(capture.handle()), KVX_E_SOCKET_REFUSED);
    FlowMessage const completion = shop().completion(confirmation.get("ID"), confirmation.get("TOKEN"));
    EXPECT_EQ(execute(completion), KVX_E_SOCKET_REFUSED);
}

}  // namespace
