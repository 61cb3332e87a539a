// Who reaches the service and whom it reaches: the address it listens on, the token of dashboard and control API, its
// name in addresses and certificate, and merchants that are notified under TLS.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "sandbox/http/httptext.h"
#include "tests/sandbox/support/sandboxfixture.h"
#include "tests/support/tlsserver.h"

namespace {

using namespace sandboxtest;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class Access : public SandboxTest {
protected:
    /// Sends a request to the control port; `fields` are header lines, each with its line end.
    RawResponse ask(std::string const& target, std::string const& fields = "",
                    std::string const& method = "GET") const {
        return parseResponse(exchangeRaw(
            m_Service->addresses().m_Control.m_Port,
            method + " " + target + " HTTP/1.1\r\nHost: sandbox.example\r\nConnection: close\r\n" + fields + "\r\n"));
    }

    void restartWith(std::string const& token, sandbox::ListenAddress const& address = {}) {
        sandbox::Options with = options();
        with.m_Token = token;
        with.m_Listen = address;
        restart(with);
    }
};

bool connects(std::string const& host, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ::inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    int const socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool const connected = ::connect(socket, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0;
    ::close(socket);
    return connected;
}

TEST(ListenAddress, IsLocalInTheLoopbackOnly) {
    EXPECT_TRUE(sandbox::ListenAddress().isLocal());
    EXPECT_TRUE((sandbox::ListenAddress{"127.9.8.7", "x"}.isLocal()));
    EXPECT_FALSE((sandbox::ListenAddress{"0.0.0.0", "x"}.isLocal()));
    EXPECT_FALSE((sandbox::ListenAddress{"10.0.0.1", "x"}.isLocal()));
    for (char const* const other : {"", "localhost", "127.0.0.1.5", "::1"}) {
        EXPECT_THROW((void)(sandbox::ListenAddress{other, "x"}.isLocal()), std::runtime_error) << other;
    }
}

TEST(HttpAddress, IsOfTlsWhereThatIsAllowed) {
    sandbox::HttpAddress const address = sandbox::parseHttpAddress("https://a/b", true);
    EXPECT_TRUE(address.m_Tls);
    EXPECT_EQ(address.m_HostPort.text(), "a:443");
    EXPECT_EQ(address.m_Target, "/b");
    EXPECT_FALSE(sandbox::parseHttpAddress("http://a/b", true).m_Tls);
    EXPECT_ANY_THROW(sandbox::parseHttpAddress("https://a/b"));
    EXPECT_ANY_THROW(sandbox::parseHttpAddress("ftp://a/b", true));
}

TEST_F(Access, NeedsNoTokenOnThisMachine) {
    EXPECT_EQ(
        parseResponse(exchangeRaw(m_Service->addresses().m_Control.m_Port, bareRequest("GET", "/control"))).m_Status,
        200);
    EXPECT_EQ(ask("/control").m_Status, 403) << "but the name of this machine";
}

TEST_F(Access, NeedsTheTokenWhereThereIsOne) {
    restartWith("Secret-7");
    for (char const* const target : {"/control", "/control/payments", "/", "/payment?id=P0", "/keys"}) {
        EXPECT_EQ(ask(target).m_Status, 401) << target;
        for (char const* const wrong :
             {"Authorization: Bearer \r\n", "Authorization: Bearer Secret-8\r\n", "Authorization: Bearer Secret-77\r\n",
              "Authorization: Secret-7\r\n", "Authorization: Basic Secret-7\r\n",
              "Cookie: tallowin-sandbox=Secret-8\r\n", "Cookie: other=Secret-7\r\n",
              "Cookie: a=b\r\nX: tallowin-sandbox=Secret-7\r\n"}) {
            EXPECT_EQ(ask(target, wrong).m_Status, 401) << target << " " << wrong;
        }
        int const status = target == std::string("/payment?id=P0") ? 404 : 200;
        EXPECT_EQ(ask(target, "Authorization: Bearer Secret-7\r\n").m_Status, status) << target;
        EXPECT_EQ(ask(target, "Cookie: a=b; tallowin-sandbox=Secret-7; c=d\r\n").m_Status, status) << target;
    }
    EXPECT_EQ(ask("/control/faults", "", "DELETE").m_Status, 401);
    EXPECT_EQ(ask("/faults", "Content-Length: 0\r\n", "POST").m_Status, 401);
    m_Service->services().m_Faults.arm(sandbox::parseFault("drop,order=none"));
    EXPECT_THAT(ask("/").m_Body, Not(HasSubstr("armed"))) << "a refusal shows nothing of the service";
    EXPECT_EQ(ask("/", "", "DELETE").m_Status, 401) << "nor which methods there are";
    EXPECT_THAT(ask("/", "Authorization: Bearer Secret-7\r\n").m_Body, HasSubstr("armed"));
    EXPECT_EQ(ask("/health").m_Status, 200);
    EXPECT_EQ(ask("/pay").m_Status, 400) << "shoppers have none";
}

TEST_F(Access, GivesABrowserACookieForTheTokenInALink) {
    restartWith("Secret-7");
    RawResponse const response = ask("/?token=Secret-7");
    EXPECT_EQ(response.m_Status, 302);
    EXPECT_EQ(response.m_Headers.at("location"), "/");
    EXPECT_EQ(response.m_Headers.at("set-cookie"), "tallowin-sandbox=Secret-7; HttpOnly; SameSite=Lax; Path=/");
    for (char const* const wrong : {"/?token=Secret-8", "/?token=", "/?token=%"}) {
        RawResponse const refused = ask(wrong);
        EXPECT_GE(refused.m_Status, 400) << wrong;
        EXPECT_EQ(refused.m_Headers.count("set-cookie"), 0u) << wrong;
    }
}

TEST_F(Access, ListensOnTheAddressAlone) {
    restartWith("", {"127.0.0.2", "127.0.0.2"});
    EXPECT_THAT(m_Service->addresses().m_Plain.m_Url, StartsWith("http://127.0.0.2:"));
    for (std::uint16_t const port : {m_Service->addresses().m_Plain.m_Port, m_Service->addresses().m_Control.m_Port}) {
        EXPECT_TRUE(connects("127.0.0.2", port));
        EXPECT_FALSE(connects("127.0.0.1", port));
    }
}

TEST_F(Access, RefusesOtherMachinesWithoutAToken) {
    try {
        restartWith("", {"0.0.0.0", "sandbox.example"});
        FAIL() << "it has started";
    } catch (std::runtime_error const& error) {
        EXPECT_THAT(error.what(), HasSubstr("needs a token"));
    }
}

TEST_F(Access, HasItsNameInAddressesAndCertificate) {
    sandbox::Options with = options();
    with.m_Token = "T";
    with.m_Listen = {"0.0.0.0", "sandbox.example"};
    with.m_Tls = true;
    restart(with);
    std::string const target = "/auto?DATA=" + percentEncoded("<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>");
    EXPECT_EQ(attributeOf(get(target, "demo", "demo").m_Body, "VTURL"),
              "http://sandbox.example:" + std::to_string(m_Service->addresses().m_Plain.m_Port) + "/pay");
    auto const overTls = [this](std::string const& host) {
        return exchangeRaw(m_Service->addresses().m_Tls.m_Port, merchantGet("/health"), m_Service->authorityFile(),
                           host);
    };
    EXPECT_THAT(overTls("sandbox.example"), HasSubstr(" 200 "));
    EXPECT_THAT(overTls("localhost"), HasSubstr(" 200 "));
    EXPECT_THROW(overTls("other.example"), std::runtime_error);
    with.m_Listen.m_Name = "other.example";
    restart(with);
    EXPECT_THAT(overTls("other.example"), HasSubstr(" 200 ")) << "new certificates for a new name";
}

class TlsNotification : public SandboxTest {
protected:
    /// What comes of the notification to a merchant with this certificate.
    std::string outcome(kvxtest::TlsIdentity const& merchant, bool trusting = true, std::string const& answer = kOk) {
        std::string const file = m_Directory.path() + "/authorities.pem";
        std::ofstream(file) << m_Authority.certificatePem();
        sandbox::Options with = options();
        with.m_NotifyAuthority = trusting ? file : "";
        with.m_NotificationBackoff = {};
        restart(with);
        publishKey();
        kvxtest::TlsOptions served;
        served.m_Identity = &merchant;
        kvxtest::TlsServer const shop(answer, served);
        std::string const address = " NOTIFYADDRESS=\"https://127.0.0.1:" + shop.portText() + "/notified\"";
        std::string const token = "t" + std::to_string(++m_Count);
        press(openPage(m_Merchant.payInit(token, address)), "pay");
        EXPECT_TRUE(comesTrue([this] { return !sandboxtest::notificationsOf(*m_Service).back().m_Pending; }));
        return sandboxtest::notificationsOf(*m_Service).back().m_Outcome;
    }

    kvxtest::CertificateOptions of(std::string const& hosts) const {
        kvxtest::CertificateOptions certificate;
        certificate.m_Hosts = hosts;
        certificate.m_Issuer = &m_Authority;
        return certificate;
    }

    static kvxtest::CertificateOptions authority() {
        kvxtest::CertificateOptions certificate;
        certificate.m_Name = "Shops";
        certificate.m_IsAuthority = true;
        return certificate;
    }

    static constexpr char kOk[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
    kvxtest::TlsIdentity const m_Authority{authority()};
    int m_Count = 0;
};

TEST_F(TlsNotification, ReachesAMerchantWhoseCertificateIsFromTheAuthority) {
    EXPECT_EQ(outcome(kvxtest::TlsIdentity(of("IP:127.0.0.1"))), "delivered: 200");
    EXPECT_THAT(sandboxtest::exchangesOf(*m_Service).back().m_Request, StartsWith("GET /notified?DATA="));
    EXPECT_THAT(sandboxtest::exchangesOf(*m_Service).back().m_Response, HasSubstr("200 OK"));
    EXPECT_EQ(outcome(kvxtest::TlsIdentity(of("IP:127.0.0.1")), true, "HTTP/1.1 500 No\r\nContent-Length: 0\r\n\r\n"),
              "given up: the merchant answered 500");
}

TEST_F(TlsNotification, IsNotSentToOthers) {
    EXPECT_THAT(outcome(kvxtest::TlsIdentity(of("DNS:shop.example"))), HasSubstr("IP address mismatch"));
    EXPECT_THAT(outcome(kvxtest::TlsIdentity::shared()), HasSubstr("the merchant's certificate was refused"));
    EXPECT_THAT(outcome(kvxtest::TlsIdentity(of("IP:127.0.0.1")), false),
                HasSubstr("not sent: the address does not begin with http://"));
}

}  // namespace
