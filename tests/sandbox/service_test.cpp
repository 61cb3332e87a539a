// The service from start to stop: data that outlives a restart, requests cut by a kill, exchanges that cannot be
// stored, ports in use, TLS. The service runs in the test's process, on a directory of its own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "sandbox/store/database.h"
#include "tests/sandbox/support/sandboxfixture.h"

/// The service as a whole: start, stop, restart, TLS.
namespace {

using namespace sandboxtest;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class SandboxService : public SandboxTest {};

class TlsSandboxService : public SandboxTest {
protected:
    void SetUp() override {
        sandbox::Options tls = options();
        tls.m_Tls = true;
        m_Service.reset();
        m_Service = std::make_unique<sandbox::Service>(tls);
        m_Service->start();
    }

    [[nodiscard]] RawResponse getTls(std::string const& target, std::string const& host = "127.0.0.1") const {
        return parseResponse(exchangeRaw(m_Service->addresses().m_Tls.m_Port, merchantGet(target, "demo", "demo"),
                                         m_Service->authorityFile(), host));
    }
};

TEST_F(SandboxService, KeepsKeysAndPaymentsOverARestart) {
    std::string const query =
        "<KVX MSGTYPE=\"KeyQueryRequest\" KEYID=\"" + m_Service->services().m_Keys.current()->m_Id + "\"/>";
    std::string const serverKey = askAuto(query);
    std::string const confirm = authorise("t1");
    std::vector<sandbox::HistoryEntry> const history = sandboxtest::paymentsOf(*m_Service).at(0).m_History;
    std::size_t const exchanges = sandboxtest::exchangesOf(*m_Service).size();
    restart();
    EXPECT_EQ(askAuto(query), serverKey);
    ASSERT_EQ(sandboxtest::paymentsOf(*m_Service).size(), 1u);
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_History.size(), history.size());
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].attribute("ORDERID"), "A-17");
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).size(), exchanges + 1);
    EXPECT_EQ(attributeOf(askCapture(confirm), "RESULT"), "captured");
}

TEST_F(SandboxService, ReportsOfRequestsThatAKillCutOff) {
    m_Service.reset();
    sandbox::Database(m_Directory.path() + "/sandbox.db")
        .execute(
            "INSERT INTO begun_exchanges (time, kind, order_id, path, data, request) VALUES "
            "('2023-11-14T22:13:20Z', 'capture', 'A-17', '/capture', '<KVX/>', 'GET /capture HTTP/1.0')");
    for (int start = 0; start < 2; ++start) {
        restart();
        ASSERT_EQ(sandboxtest::exchangesOf(*m_Service).size(), 2u) << "the publishing of the key comes first";
        sandbox::Exchange const cut = sandboxtest::exchangesOf(*m_Service).back();
        EXPECT_EQ(cut.m_Verdict, "not answered: the sandbox ended before");
        EXPECT_EQ(cut.m_Time, "2023-11-14T22:13:20Z");
        EXPECT_EQ(cut.m_Kind, sandbox::ExchangeKind::kCapture);
        EXPECT_EQ(cut.m_Order, "A-17");
        EXPECT_EQ(cut.m_Path, "/capture");
        EXPECT_EQ(cut.m_Data, "<KVX/>");
        EXPECT_EQ(cut.m_Request, "GET /capture HTTP/1.0");
        EXPECT_EQ(cut.m_Response, "");
        EXPECT_TRUE(cut.m_Steps.empty());
    }
}

TEST_F(SandboxService, CarriesOutNothingThatItCannotRecord) {
    std::string const confirm = authorise("t1");
    std::size_t const exchanges = sandboxtest::exchangesOf(*m_Service).size();
    sandbox::Database database(m_Directory.path() + "/sandbox.db");
    database.execute("ALTER TABLE exchanges RENAME TO elsewhere; ALTER TABLE begun_exchanges RENAME TO nowhere");
    RawResponse const failed = get("/capture" + m_Merchant.signedQuery(confirm));
    EXPECT_EQ(failed.m_Status, 500);
    EXPECT_THAT(failed.m_Body, StartsWith("The sandbox failed: database: no such table"));
    EXPECT_THAT(failed.m_Body, HasSubstr("/sandbox.db)"));
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_State, sandbox::PaymentState::kAuthorised);
    database.execute("ALTER TABLE elsewhere RENAME TO exchanges; ALTER TABLE nowhere RENAME TO begun_exchanges");
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).size(), exchanges);
    EXPECT_EQ(attributeOf(askCapture(confirm), "RESULT"), "captured");
}

TEST_F(SandboxService, ReportsThatItCouldNotRecordWhatItDid) {
    std::string const confirm = authorise("t1");
    std::size_t const exchanges = sandboxtest::exchangesOf(*m_Service).size();
    sandbox::Database database(m_Directory.path() + "/sandbox.db");
    database.execute("ALTER TABLE exchanges RENAME TO elsewhere");
    RawResponse const failed = get("/capture" + m_Merchant.signedQuery(confirm));
    EXPECT_EQ(failed.m_Status, 500);
    EXPECT_THAT(failed.m_Body, StartsWith("The sandbox failed: database: no such table"));
    database.execute("ALTER TABLE elsewhere RENAME TO exchanges");
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_State, sandbox::PaymentState::kCaptured);
    restart();
    ASSERT_EQ(sandboxtest::exchangesOf(*m_Service).size(), exchanges + 1);
    EXPECT_EQ(lastVerdict(), "not answered: the sandbox ended before");
    EXPECT_EQ(attributeOf(askCapture(confirm), "RESULT"), "captured");
}

TEST_F(SandboxService, FailsInTheFormOfTheControlApiThere) {
    sandbox::Database(m_Directory.path() + "/sandbox.db").execute("ALTER TABLE payments RENAME TO gone");
    RawResponse const failed =
        parseResponse(exchangeRaw(m_Service->addresses().m_Control.m_Port, merchantGet("/control/payments")));
    EXPECT_EQ(failed.m_Status, 500);
    EXPECT_THAT(failed.m_Body, HasSubstr("\"error\": \"the sandbox failed: database: no such table"));
}

TEST_F(SandboxService, EndsOnAllPortsAtOnce) {
    m_Service->services().m_Faults.arm(sandbox::parseFault("stall-before,exchange=setup"));
    RawConnection const stuck(m_Service->addresses().m_Plain.m_Port);
    stuck.send(
        merchantGet("/auto?DATA=" + percentEncoded("<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>"), "demo", "demo"));
    // A response that no client reads keeps one port from stopping.
    m_Service->services().m_Faults.arm(sandbox::parseFault("huge,exchange=keyquery"));
    RawConnection const unread(m_Service->addresses().m_Plain.m_Port);
    unread.send(merchantGet("/auto?DATA=" + percentEncoded("<KVX MSGTYPE=\"KeyQueryRequest\" KEYID=\"1-SERVER-1\"/>"),
                            "demo", "demo"));
    char byte = 0;
    ASSERT_EQ(::recv(unread.get(), &byte, 1, 0), 1);
    RawConnection const control(m_Service->addresses().m_Control.m_Port);
    EXPECT_EQ(parseResponse(exchangeRaw(m_Service->addresses().m_Control.m_Port, merchantGet("/control"))).m_Status,
              200)
        << "and so the one before is accepted";
    std::future<void> const stopped = std::async(std::launch::async, [this] { m_Service->stop(); });
    // A silent connection on another port is closed before that one is cut.
    EXPECT_EQ(control.readToEnd(), "");
    EXPECT_EQ(stuck.readToEnd(), "");
    EXPECT_EQ(stopped.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
}

TEST_F(SandboxService, RecordsARequestOnWhichItFails) {
    std::string const confirm = authorise("t1");
    sandbox::Database database(m_Directory.path() + "/sandbox.db");
    database.execute("ALTER TABLE history RENAME TO elsewhere");
    RawResponse const failed = get("/capture" + m_Merchant.signedQuery(confirm));
    EXPECT_EQ(failed.m_Status, 500);
    EXPECT_THAT(failed.m_Body, StartsWith("The sandbox failed: database: no such table"));
    EXPECT_THAT(lastVerdict(), StartsWith("the sandbox failed: database: no such table"));
    database.execute("ALTER TABLE elsewhere RENAME TO history");
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_State, sandbox::PaymentState::kAuthorised);
}

TEST_F(SandboxService, TakesANewPasswordForAKnownAccount) {
    sandbox::Options changed = options();
    changed.m_AccountPassword = "new";
    m_Service.reset();
    m_Service = std::make_unique<sandbox::Service>(changed);
    m_Service->start();
    std::string const setup = "<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>";
    EXPECT_THAT(reasonOf(askAuto(setup, "demo", "demo")), HasSubstr("password"));
    EXPECT_EQ(attributeOf(askAuto(setup, "demo", "new"), "CUSTOMERID"), "1001");
}

TEST_F(SandboxService, StopsAndStartsAgain) {
    std::uint16_t const port = m_Service->addresses().m_Plain.m_Port;
    m_Service->stop();
    m_Service->stop();
    EXPECT_EQ(m_Service->addresses().m_Plain.m_Port, 0);
    EXPECT_EQ(m_Service->addresses().m_Plain.m_Url, "");
    EXPECT_THROW((void)sandboxtest::paymentsOf(*m_Service), std::runtime_error);
    EXPECT_THROW(exchangeRaw(port, "GET / HTTP/1.0\r\n\r\n"), std::runtime_error);
    m_Service->start();
    EXPECT_EQ(get("/").m_Status, 200);
    EXPECT_THROW(m_Service->start(), std::logic_error);
}

TEST_F(SandboxService, RefusesAPortThatIsTaken) {
    TemporaryDirectory const other;
    sandbox::Options second = options();
    second.m_DataDirectory = other.path();
    second.m_Port = m_Service->addresses().m_Plain.m_Port;
    sandbox::Service service(second);
    try {
        service.start();
        FAIL() << "two services on one port";
    } catch (std::runtime_error const& error) {
        EXPECT_THAT(error.what(), HasSubstr("cannot listen on 127.0.0.1:" + std::to_string(second.m_Port)));
    }
    EXPECT_EQ(service.addresses().m_Plain.m_Port, 0);
}

TEST_F(SandboxService, LetsGoOfThePortWhenTlsCannotStart) {
    std::uint16_t const port = m_Service->addresses().m_Plain.m_Port;
    TemporaryDirectory const other;
    sandbox::Options blocking = options();
    blocking.m_DataDirectory = other.path();
    sandbox::Service blocker(blocking);
    blocker.start();
    m_Service->stop();
    sandbox::Options blocked = options();
    blocked.m_Port = port;
    blocked.m_Tls = true;
    blocked.m_TlsPort = blocker.addresses().m_Plain.m_Port;
    EXPECT_THROW(sandbox::Service(blocked).start(), std::runtime_error);
    blocked.m_Tls = false;
    sandbox::Service again(blocked);
    again.start();
    EXPECT_EQ(again.addresses().m_Plain.m_Port, port);
}

TEST_F(SandboxService, RefusesADataDirectoryThatIsInUse) {
    sandbox::Service second(options());
    EXPECT_THROW(second.start(), std::runtime_error);
}

TEST_F(SandboxService, LeavesSigpipeToTheProcess) {
    struct sigaction before {};
    struct sigaction custom {};
    custom.sa_handler = [](int) {};
    ::sigaction(SIGPIPE, &custom, &before);
    restart();
    struct sigaction now {};
    ::sigaction(SIGPIPE, &before, &now);
    EXPECT_EQ(now.sa_handler, custom.sa_handler);
}

TEST_F(SandboxService, KeepsItsFilesFromOthers) {
    struct stat status {};
    ASSERT_EQ(::stat((m_Directory.path() + "/sandbox.db").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 077, 0u);
}

TEST_F(TlsSandboxService, LetsOthersReadItsAuthorityAndNothingElse) {
    for (auto const& file : std::filesystem::directory_iterator(m_Directory.path())) {
        struct stat status {};
        ASSERT_EQ(::stat(file.path().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, file.path().filename() == "ca.pem" ? 0644u : 0600u) << file.path();
    }
}

TEST_F(TlsSandboxService, IsTrustedThroughItsAuthorityUnderBothNames) {
    EXPECT_EQ(getTls("/").m_Status, 200);
    EXPECT_EQ(getTls("/", "localhost").m_Status, 200);
    EXPECT_THROW((void)getTls("/", "example.com"), std::runtime_error);
    EXPECT_NE(m_Service->addresses().m_Tls.m_Port, m_Service->addresses().m_Plain.m_Port);
}

TEST_F(TlsSandboxService, AnswersSetupWithAddressesOfTheSameKind) {
    std::string const target = "/auto?DATA=" + percentEncoded("<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>");
    std::string const overTls = getTls(target).m_Body;
    std::string const base = "https://127.0.0.1:" + std::to_string(m_Service->addresses().m_Tls.m_Port);
    EXPECT_EQ(attributeOf(overTls, "VTURL"), base + "/pay");
    EXPECT_EQ(attributeOf(overTls, "CAPTUREURL"), base + "/capture");
    EXPECT_EQ(attributeOf(overTls, "KVX.VTAUTOURL"), base + "/auto");
    EXPECT_THAT(attributeOf(get(target, "demo", "demo").m_Body, "VTURL"), StartsWith("http://"));
}

TEST_F(TlsSandboxService, CarriesLongMessages) {
    std::string const text = m_Merchant.payInit("t1", " NOTE=\"" + std::string(100000, 'x') + "\"");
    EXPECT_EQ(getTls("/pay" + m_Merchant.signedQuery(text)).m_Status, 200);
}

TEST_F(TlsSandboxService, KeepsItsCertificatesOverARestart) {
    TemporaryDirectory const copy;
    std::string const kept = copy.path() + "/ca.pem";
    std::filesystem::copy_file(m_Service->authorityFile(), kept);
    SetUp();
    RawResponse const response =
        parseResponse(exchangeRaw(m_Service->addresses().m_Tls.m_Port, merchantGet("/"), kept));
    EXPECT_EQ(response.m_Status, 200);
}

TEST_F(TlsSandboxService, SurvivesPlainTalkOnTheTlsPort) {
    EXPECT_THROW(parseResponse(exchangeRaw(m_Service->addresses().m_Tls.m_Port, merchantGet("/"))), std::runtime_error);
    EXPECT_EQ(getTls("/").m_Status, 200);
}

}  // namespace
