// Faults as texts and on the wire. The first part parses and prints them. The second arms one on a running service
// whose response is known, and compares the bytes that a client reads, and how the connection ends, with that response.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

#include "sandbox/faults/fault.h"
#include "sandbox/service/confirmation.h"
#include "sandbox/text/httperror.h"
#include "tests/sandbox/support/sandboxfixture.h"

/// Faults: parsing and printing, and what a client receives when they happen.
namespace {

using namespace sandboxtest;
using sandbox::ExchangeKind;
using sandbox::Fault;
using sandbox::FaultKind;
using sandbox::FaultKindRow;
using sandbox::HttpError;
using sandbox::parseFault;
using ::testing::HasSubstr;
using ::testing::StartsWith;

/// The reason why `text` is no fault; empty when it is one.
std::string errorFor(std::string const& text) {
    try {
        parseFault(text);
        return "";
    } catch (HttpError const& error) {
        return error.what();
    }
}

TEST(FaultKinds, HaveNamesMeaningsAndExchanges) {
    std::set<std::string> names;
    for (FaultKindRow const& row : sandbox::allFaultKinds()) {
        EXPECT_TRUE(names.insert(row.m_Name).second) << row.m_Name;
        EXPECT_EQ(sandbox::makeFault(row.m_Name, {}).m_Kind, row.m_Kind);
        EXPECT_EQ(&sandbox::faultRow(row.m_Kind), &row);
        EXPECT_STRNE(row.m_Meaning, "") << row.m_Name;
        EXPECT_NE(row.m_Exchanges, 0u) << row.m_Name;
    }
    for (char const* const other : {"", "drop ", "Drop", "refused"}) {
        EXPECT_THROW(sandbox::makeFault(other, {}), HttpError) << other;
    }
}

TEST(FaultKinds, HappenToTheirExchangesAlone) {
    for (FaultKindRow const& row : sandbox::allFaultKinds()) {
        EXPECT_EQ(errorFor(row.m_Name), "");
        for (ExchangeKind const exchange : sandbox::allExchangeKinds()) {
            bool const canHappen = (row.m_Exchanges & static_cast<unsigned>(exchange)) != 0;
            std::string const text = std::string(row.m_Name) + ",exchange=" + sandbox::exchangeName(exchange);
            EXPECT_EQ(errorFor(text).empty(), canHappen) << text;
        }
    }
}

TEST(FaultKinds, TakeTheirParametersAlone) {
    struct {
        unsigned m_Parameter;
        char const* m_Text;
    } const parameters[] = {
        {sandbox::kTakesSeconds, ",seconds=1"},     {sandbox::kTakesBytes, ",bytes=1"},
        {sandbox::kTakesStatus, ",status=404"},     {sandbox::kTakesText, ",text=out of order"},
        {sandbox::kTakesMegabytes, ",megabytes=1"},
    };
    for (FaultKindRow const& row : sandbox::allFaultKinds()) {
        for (auto const& parameter : parameters) {
            std::string const text = std::string(row.m_Name) + parameter.m_Text;
            EXPECT_EQ(errorFor(text).empty(), (row.m_Parameters & parameter.m_Parameter) != 0) << text;
        }
    }
}

TEST(FaultText, IsReadAndWrittenAlike) {
    for (char const* const text : {
             "drop",
             "truncate,exchange=capture,order=A-1,bytes=40",
             "truncate,bytes=0",
             "error,exchange=setup,account=shop",
             "drop,account=shop,order=A-1",
             "delay,times=3,seconds=0.25",
             "delay,times=always",
             "delay,exchange=capture,times=2,skip=3,seconds=1",
             "stall-inside,exchange=page,seconds=3600,bytes=9223372036854775807",
             "http-status,exchange=status,status=100,text=",
             "http-status,status=999,text=two = words",
             "error,order=a b=c,text=<&>\"'",
             "error,times=2,text=not today, or tomorrow,times=3",
             "huge,exchange=proxy,megabytes=4096",
             "refuse,seconds=1.5",
             "refuse,exchange=proxy",
             "wrong-key,exchange=keyquery",
         }) {
        EXPECT_EQ(errorFor(text), "");
        EXPECT_EQ(sandbox::faultText(parseFault(text)), text);
    }
}

TEST(FaultText, HasOtherSpellings) {
    struct {
        char const* m_Text;
        char const* m_Written;
    } const cases[] = {
        {"drop,times=1", "drop"},
        {"drop,exchange=any", "drop"},
        {"drop,order=", "drop"},
        {"delay,seconds=1e1", "delay,seconds=10"},
        {"truncate,bytes=007", "truncate,bytes=7"},
        {"drop,times=2,exchange=page", "drop,exchange=page,times=2"},
        {"drop,times=2,times=3", "drop,times=3"},  // the last one counts
    };
    for (auto const& row : cases) {
        EXPECT_EQ(sandbox::faultText(parseFault(row.m_Text)), row.m_Written) << row.m_Text;
    }
}

TEST(FaultText, IsRefusedWithAReason) {
    struct {
        char const* m_Text;
        char const* m_Reason;
    } const cases[] = {
        {"", "unknown fault ''"},
        {"explode", "unknown fault 'explode'"},
        {" drop", "unknown fault ' drop'"},
        {"drop,", "parameters have the form name=value, not ''"},
        {"drop,,times=2", "parameters have the form name=value, not ''"},
        {"drop,times", "parameters have the form name=value, not 'times'"},
        {"drop,colour=red", "unknown parameter 'colour'"},
        {"drop,Times=2", "unknown parameter 'Times'"},
        {"drop,exchange=", "unknown exchange ''"},
        {"drop,exchange=captures", "unknown exchange 'captures'"},
        {"wrong-signature,exchange=capture", "only to: decision, notification"},
        {"error,exchange=page", "error does not apply to the exchange 'page'"},
        {"tls-expired,exchange=capture", "only to: connection"},
        {"drop,times=0", "a fault's times must be"},
        {"drop,times=-1", "a fault's times must be"},
        {"drop,times=two", "a fault's times must be a whole number, not 'two'"},
        {"drop,times=1.5", "a fault's times must be a whole number"},
        {"drop,times=", "a fault's times must be a whole number, not ''"},
        {"drop,times=99999999999999999999", "a fault's times must be a whole number"},
        {"delay,seconds=", "a fault's seconds must be a number, not ''"},
        {"delay,seconds=-1", "a fault's seconds must be between"},
        {"delay,seconds=3600.5", "a fault's seconds must be between"},
        {"delay,seconds=nan", "a fault's seconds must be a number"},
        {"delay,seconds=inf", "a fault's seconds must be a number"},
        {"delay,seconds=1s", "a fault's seconds must be a number"},
        {"truncate,bytes=-1", "a fault's bytes must be 0 or more"},
        {"truncate,bytes=+1", "a fault's bytes must be a whole number"},
        {"truncate,bytes=0x10", "a fault's bytes must be a whole number"},
        {"http-status,status=99", "a fault's status must be between 100 and 999"},
        {"http-status,status=1000", "a fault's status must be between 100 and 999"},
        {"http-status,status=4294967696", "a fault's status must be between 100 and 999"},
        {"huge,megabytes=0", "a fault's megabytes must be between"},
        {"huge,megabytes=4097", "a fault's megabytes must be between"},
        {"drop,seconds=1", "drop takes no seconds"},
        {"refuse,order=A-1", "cannot be limited to one order"},
        {"tls-abort,order=A-1", "cannot be limited to one order"},
        {"refuse,times=2", "refused connections cannot be counted"},
        {"drop,exchange=setup,order=A-1", "the exchange 'setup' has no order"},
        {"reset,exchange=proxy,order=A-1", "the exchange 'proxy' has no order"},
    };
    for (auto const& row : cases) {
        EXPECT_THAT(errorFor(row.m_Text), HasSubstr(row.m_Reason)) << row.m_Text;
    }
}

TEST(Fault, IsCheckedAsARecordToo) {
    double const notNumbers[] = {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
                                 -0.1};
    for (double const seconds : notNumbers) {
        Fault fault;
        fault.m_Kind = FaultKind::kDelay;
        fault.m_Seconds = seconds;
        EXPECT_THROW(sandbox::checkFault(fault), HttpError) << seconds;
    }
    Fault backwards;
    backwards.m_Times = -1;
    EXPECT_THROW(sandbox::checkFault(backwards), HttpError);
}

TEST(Fault, HasValuesForWhatIsNotGiven) {
    EXPECT_EQ(sandbox::secondsOf(parseFault("delay")), 5);
    EXPECT_EQ(sandbox::secondsOf(parseFault("stall-before")), 60);
    EXPECT_EQ(sandbox::secondsOf(parseFault("stall-inside,seconds=0.5")), 0.5);
    EXPECT_EQ(sandbox::statusOf(parseFault("http-status")), 503);
    EXPECT_EQ(sandbox::statusOf(parseFault("http-status,status=404")), 404);
    EXPECT_EQ(sandbox::textOf(parseFault("error,text=")), "");
    EXPECT_NE(sandbox::textOf(parseFault("error")), "");
    EXPECT_EQ(sandbox::megabytesOf(parseFault("huge")), 1024);
    EXPECT_EQ(sandbox::megabytesOf(parseFault("huge,megabytes=2")), 2);
}

/// The bytes received, and how the connection ended.
struct Received {
    std::string m_Bytes;
    int m_Error = 0;  ///< 0 for an orderly end.
};

Received receive(RawConnection const& connection) {
    Received received;
    char piece[16384];
    ssize_t count = 0;
    while ((count = ::recv(connection.get(), piece, sizeof piece, 0)) > 0) {
        received.m_Bytes.append(piece, static_cast<std::size_t>(count));
    }
    received.m_Error = count < 0 ? errno : 0;
    return received;
}

/// A service whose response to one fixed request is known.
class FaultOnTheWire : public SandboxTest {
protected:
    FaultOnTheWire() : m_Whole(ask("").m_Bytes) {
        EXPECT_THAT(m_Whole, HasSubstr("KeyQueryResponse"));
        m_Head = m_Whole.find("\r\n\r\n") + 4;
    }

    [[nodiscard]] std::string request() const {
        std::string const text =
            "<KVX MSGTYPE=\"KeyQueryRequest\" KEYID=\"" + m_Service->services().m_Keys.current()->m_Id + "\"/>";
        return merchantGet("/auto?DATA=" + percentEncoded(text), "demo", "demo");
    }

    /// The response while the fault `text` is armed; without a fault for "".
    [[nodiscard]] Received ask(std::string const& fault) const {
        if (!fault.empty()) {
            m_Service->services().m_Faults.arm(parseFault(fault));
        }
        RawConnection const connection(m_Service->addresses().m_Plain.m_Port);
        connection.send(request());
        return receive(connection);
    }

    /// The same, and the connection must close cleanly.
    [[nodiscard]] std::string bytes(std::string const& fault) const {
        Received const received = ask(fault);
        EXPECT_EQ(received.m_Error, 0) << fault;
        EXPECT_TRUE(m_Service->services().m_Faults.armed().empty()) << fault;
        return received.m_Bytes;
    }

    /// Waits until the fault that is armed has begun to happen.
    void awaitFault() const {
        auto const begin = std::chrono::steady_clock::now();
        while (!m_Service->services().m_Faults.armed().empty()) {
            ASSERT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
            std::this_thread::yield();
        }
    }

    std::string m_Whole;
    std::size_t m_Head = 0;  ///< Bytes of the head, its empty line included.
};

TEST_F(FaultOnTheWire, HttpStatusIsAStatusAndAText) {
    RawResponse const plain = parseResponse(bytes("http-status"));
    EXPECT_EQ(plain.m_Status, 503);
    EXPECT_EQ(plain.m_Body, "the sandbox was told to turn this request down\n");
    RawResponse const given = parseResponse(bytes("http-status,status=418,text=a = b"));
    EXPECT_EQ(given.m_Status, 418);
    EXPECT_EQ(given.m_Body, "a = b\n");
    EXPECT_EQ(lastVerdict(), "not looked at");
}

TEST_F(FaultOnTheWire, ErrorIsAMessage) {
    EXPECT_EQ(reasonOf(parseResponse(bytes("error")).m_Body), "the sandbox was told to turn this request down");
    EXPECT_EQ(reasonOf(parseResponse(bytes("error,text=<&>\"'")).m_Body), "<&>\"'");
    EXPECT_EQ(lastVerdict(), "not looked at");
}

TEST_F(FaultOnTheWire, ResetIsSeenByTheOtherSide) {
    Received const received = ask("reset");
    EXPECT_EQ(received.m_Bytes, "");
    EXPECT_EQ(received.m_Error, ECONNRESET);
    EXPECT_EQ(lastVerdict(), "not looked at");
}

TEST_F(FaultOnTheWire, DropIsAnOrderlyEndOfACarriedOutRequest) {
    EXPECT_EQ(bytes("drop"), "");
    EXPECT_EQ(lastVerdict(), "ok");
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).back().m_Response, m_Whole) << "as it would have been";
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).back().m_Fault, "drop");
}

TEST_F(FaultOnTheWire, DelayLastsAsLongAsItIsTold) {
    auto const begin = std::chrono::steady_clock::now();
    EXPECT_EQ(bytes("delay,seconds=0.2"), m_Whole);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(200));
}

TEST_F(FaultOnTheWire, StallEndsInOrder) {
    auto const begin = std::chrono::steady_clock::now();
    EXPECT_EQ(bytes("stall-before,seconds=0.2"), "");
    EXPECT_EQ(bytes("stall-inside,seconds=0.2,bytes=30"), m_Whole.substr(0, 30));
    EXPECT_EQ(bytes("stall-inside,seconds=0"), m_Whole.substr(0, m_Head + (m_Whole.size() - m_Head) / 2));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(400));
}

TEST_F(FaultOnTheWire, StallEndsEarlyWhenTheServiceStops) {
    for (char const* const fault : {"stall-before,seconds=60", "stall-inside,seconds=60", "delay,seconds=60"}) {
        m_Service->services().m_Faults.arm(parseFault(fault));
        RawConnection const connection(m_Service->addresses().m_Plain.m_Port);
        connection.send(request());
        awaitFault();
        auto const begin = std::chrono::steady_clock::now();
        m_Service->stop();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30)) << fault;
        EXPECT_EQ(receive(connection).m_Error, 0) << fault;
        restart();
    }
}

TEST_F(FaultOnTheWire, BytewiseIsTheSameAnswer) {
    EXPECT_EQ(bytes("bytewise,seconds=0"), m_Whole);
}

TEST_F(FaultOnTheWire, BytewiseLeavesTimeBetweenTwoBytes) {
    auto const begin = std::chrono::steady_clock::now();
    EXPECT_EQ(bytes("bytewise"), m_Whole);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(m_Whole.size()));
    m_Service->services().m_Faults.arm(parseFault("bytewise,seconds=60"));
    RawConnection const connection(m_Service->addresses().m_Plain.m_Port);
    connection.send(request());
    char piece[16];
    EXPECT_EQ(::recv(connection.get(), piece, sizeof piece, 0), 1);
}

TEST_F(FaultOnTheWire, IsOnRecordWithWhatTheClientGot) {
    struct {
        char const* m_Fault;
        std::string m_Delivery;
    } const cases[] = {
        {"", ""},
        {"drop", "0 bytes, then the end, after "},
        {"reset", "0 bytes, then a reset, after "},
        {"truncate,bytes=9", "9 bytes, then the end, after "},
        {"nul-bytes", std::to_string(m_Whole.size() + 1) + " bytes, then the end, after "},
        {"twice", std::to_string(2 * m_Whole.size()) + " bytes, then the end, after "},
        {"delay,seconds=0.05", std::to_string(m_Whole.size()) + " bytes, then the end, after "},
    };
    for (auto const& row : cases) {
        EXPECT_LE(ask(row.m_Fault).m_Bytes.size(), 2 * m_Whole.size());
        EXPECT_TRUE(comesTrue(
            [&] { return sandboxtest::exchangesOf(*m_Service).back().m_Delivery.empty() == row.m_Delivery.empty(); }));
        EXPECT_THAT(sandboxtest::exchangesOf(*m_Service).back().m_Delivery, StartsWith(row.m_Delivery)) << row.m_Fault;
    }
    std::string const late = sandboxtest::exchangesOf(*m_Service).back().m_Delivery;
    EXPECT_GE(std::stod(late.substr(late.find("after ") + 6)), 50) << late;
}

TEST_F(FaultOnTheWire, TruncateCutsAnywhere) {
    for (std::size_t const length : {std::size_t{0}, std::size_t{1}, std::size_t{9}, m_Head - 1, m_Head, m_Head + 1,
                                     m_Whole.size() - 1, m_Whole.size(), m_Whole.size() + 1, std::size_t{1} << 62U}) {
        EXPECT_EQ(bytes("truncate,bytes=" + std::to_string(length)), m_Whole.substr(0, length)) << length;
    }
    EXPECT_EQ(bytes("truncate"), m_Whole.substr(0, m_Head + (m_Whole.size() - m_Head) / 2));
}

TEST_F(FaultOnTheWire, NoBlankLineLeavesTheRestAlone) {
    EXPECT_EQ(bytes("no-blank-line"), m_Whole.substr(0, m_Head - 2) + m_Whole.substr(m_Head));
}

TEST_F(FaultOnTheWire, NulBytesStandWhereTheyAreTold) {
    std::string const zero(1, '\0');
    for (std::size_t const at : {std::size_t{0}, std::size_t{9}, m_Head, m_Whole.size()}) {
        EXPECT_EQ(bytes("nul-bytes,bytes=" + std::to_string(at)), m_Whole.substr(0, at) + zero + m_Whole.substr(at))
            << at;
    }
    EXPECT_EQ(bytes("nul-bytes,bytes=" + std::to_string(m_Whole.size() + 5)), m_Whole + zero);
    std::size_t const middle = m_Head + (m_Whole.size() - m_Head) / 2;
    EXPECT_EQ(bytes("nul-bytes"), m_Whole.substr(0, middle) + zero + m_Whole.substr(middle));
}

TEST_F(FaultOnTheWire, TwiceIsTheWholeAnswerAgain) {
    EXPECT_EQ(bytes("twice"), m_Whole + m_Whole);
}

TEST_F(FaultOnTheWire, HugeAgreesWithItsOwnLength) {
    constexpr std::size_t kSize = std::size_t{2} << 20U;
    RawResponse const response = parseResponse(bytes("huge,megabytes=2"));
    EXPECT_EQ(response.m_Headers.at("content-length"), std::to_string(kSize));
    std::string const body = m_Whole.substr(m_Head);
    EXPECT_TRUE(response.m_Body == body + std::string(kSize - body.size(), ' '));
}

TEST_F(FaultOnTheWire, WrongTypeLeavesTheRestOfTheMessage) {
    RawResponse const response = parseResponse(bytes("wrong-type"));
    EXPECT_EQ(attributeOf(response.m_Body, "MSGTYPE"), sandbox::kUnexpectedType);
    for (char const* const name : {"KEYID", "KEYBLOB"}) {
        EXPECT_EQ(attributeOf(response.m_Body, name), attributeOf(m_Whole, name));
    }
}

TEST_F(FaultOnTheWire, WrongAndStaleKeysAreAnswered) {
    RawResponse const wrong = parseResponse(bytes("wrong-key"));
    EXPECT_EQ(attributeOf(wrong.m_Body, "KEYID"), m_Service->services().m_Keys.current()->m_Id);
    EXPECT_NE(attributeOf(wrong.m_Body, "KEYBLOB"), attributeOf(m_Whole, "KEYBLOB"));
    RawResponse const unknown = parseResponse(bytes("stale-key"));
    EXPECT_EQ(attributeOf(unknown.m_Body, "KEYID"), "1-SERVER-0") << "before the first";
    std::string const first = m_Service->services().m_Keys.current()->m_Id;
    m_Service->services().m_Keys.rotate();
    RawResponse const stale = parseResponse(bytes("stale-key"));
    EXPECT_EQ(attributeOf(stale.m_Body, "KEYID"), first);
    EXPECT_EQ(attributeOf(stale.m_Body, "KEYBLOB"), attributeOf(m_Whole, "KEYBLOB"));
    m_Service->services().m_Faults.arm(parseFault("stale-key,exchange=setup"));
    EXPECT_EQ(attributeOf(askAuto("<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>"), "VTKEYID"), first);
}

TEST_F(FaultOnTheWire, HappensToItsExchangeAndOrderAlone) {
    m_Service->services().m_Faults.arm(parseFault("drop,exchange=capture"));
    m_Service->services().m_Faults.arm(parseFault("drop,order=B-2"));
    EXPECT_EQ(ask("").m_Bytes, m_Whole);
    std::string const confirm = authorise("t1");
    EXPECT_EQ(m_Service->services().m_Faults.armed().size(), 2u);
    RawConnection const connection(m_Service->addresses().m_Plain.m_Port);
    connection.send(merchantGet("/capture" + m_Merchant.signedQuery(confirm)));
    EXPECT_EQ(receive(connection).m_Bytes, "");
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service).at(0).m_State, sandbox::PaymentState::kCaptured);
    EXPECT_EQ(attributeOf(askCapture(confirm), "RESULT"), "captured");
    EXPECT_EQ(m_Service->services().m_Faults.armed().size(), 1u);
}

TEST_F(FaultOnTheWire, HappensToAnOrderOfTheAccountThatAsks) {
    // Both accounts have a payment with this token.
    m_Service->services().m_Faults.arm(parseFault("error,exchange=status,order=B-1"));
    parseResponse(exchangeRaw(m_Service->addresses().m_Control.m_Port,
                              jsonPost("/control/accounts", R"({"user":"b","password":"p"})")));
    TestMerchant const other("0-1002-other");
    askAuto("<KVX MSGTYPE=\"KeyExportRequest\" KEYID=\"0-1002-other\" KEYBLOB=\"" + other.blob() + "\"/>", "b", "p");
    auto const ask = [this](TestMerchant const& merchant) {
        return attributeOf(
            get("/capture" + merchant.signedQuery(merchant.message("StatusRequest", " TOKEN=\"t1\""))).m_Body,
            "MSGTYPE");
    };
    openPage(m_Merchant.payInit("t1"));
    std::string const payInit = other.bareInit(" TOKEN=\"t1\" ORDERID=\"B-1\" EXPIRATION=\"20991231 23:59:59\"");
    EXPECT_EQ(get("/pay" + other.signedQuery(payInit)).m_Status, 200);
    EXPECT_EQ(ask(m_Merchant), "StatusResponse");
    EXPECT_EQ(ask(other), "Error");
    EXPECT_EQ(ask(other), "StatusResponse");
}

TEST_F(FaultOnTheWire, LeavesTheControlPortAlone) {
    m_Service->services().m_Faults.arm(parseFault("drop,exchange=setup"));
    std::string const request =
        merchantGet("/auto?DATA=" + percentEncoded("<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>"), "demo", "demo");
    EXPECT_EQ(parseResponse(exchangeRaw(m_Service->addresses().m_Control.m_Port, request)).m_Status, 200);
    EXPECT_EQ(m_Service->services().m_Faults.armed().size(), 1u);
    RawConnection const connection(m_Service->addresses().m_Plain.m_Port);
    connection.send(request);
    EXPECT_EQ(receive(connection).m_Bytes, "");
}

TEST_F(FaultOnTheWire, LeavesTheControlPortAloneWhenConnectionsAreRefused) {
    m_Service->services().m_Faults.arm(parseFault("refuse"));
    EXPECT_THROW(RawConnection(m_Service->addresses().m_Plain.m_Port), std::runtime_error);
    EXPECT_EQ(parseResponse(exchangeRaw(m_Service->addresses().m_Control.m_Port, merchantGet("/"))).m_Status, 200);
    m_Service->services().m_Faults.liftAll();
    EXPECT_EQ(ask("").m_Bytes, m_Whole);
}

/// How the confirmation in the shopper's return link verifies under the server's keys.
class FaultyConfirmation : public SandboxTest {
protected:
    struct Confirmation {
        std::string m_Text;
        std::string m_Signature;
    };

    [[nodiscard]] Confirmation confirm(std::string const& fault, std::string const& token) {
        RawResponse const page = openPage(m_Merchant.payInit(token));
        m_Service->services().m_Faults.arm(parseFault(fault));
        RawResponse const back = press(page, "pay");
        EXPECT_EQ(back.m_Status, 302) << back.m_Body;
        EXPECT_EQ(sandboxtest::paymentsOf(*m_Service).back().m_State, sandbox::PaymentState::kAuthorised);
        std::string const location = back.m_Headers.at("location");
        return {percentDecoded(queryValue(location, "DATA")), queryValue(location, "SIGNATURE")};
    }

    [[nodiscard]] bool isSigned(Confirmation const& confirmation, std::string const& keyId) const {
        std::string const blob =
            attributeOf(askAuto("<KVX MSGTYPE=\"KeyQueryRequest\" KEYID=\"" + keyId + "\"/>"), "KEYBLOB");
        return verifies(blob, confirmation.m_Text, confirmation.m_Signature);
    }
};

TEST_F(FaultyConfirmation, IsWrongInOneWayOnly) {
    std::string const first = m_Service->services().m_Keys.current()->m_Id;
    std::string const now = m_Service->services().m_Keys.rotate()->m_Id;
    Confirmation const type = confirm("wrong-type,exchange=decision", "t1");
    EXPECT_EQ(attributeOf(type.m_Text, "MSGTYPE"), sandbox::kUnexpectedType);
    EXPECT_TRUE(isSigned(type, now));

    Confirmation const signature = confirm("wrong-signature,exchange=decision", "t2");
    EXPECT_EQ(attributeOf(signature.m_Text, "MSGTYPE"), "PayConfirm");
    EXPECT_EQ(attributeOf(signature.m_Text, "KEYID"), now);
    EXPECT_FALSE(isSigned(signature, now));
    std::string const digits = "0123456789abcdef";
    Confirmation mended = signature;
    mended.m_Signature.back() = digits[digits.find(signature.m_Signature.back()) ^ 1U];
    EXPECT_TRUE(isSigned(mended, now)) << "one bit";

    Confirmation const key = confirm("wrong-key,exchange=decision", "t3");
    EXPECT_EQ(attributeOf(key.m_Text, "KEYID"), now);
    EXPECT_FALSE(isSigned(key, now));
    EXPECT_FALSE(isSigned(key, first));

    Confirmation const stale = confirm("stale-key,exchange=decision", "t4");
    EXPECT_EQ(attributeOf(stale.m_Text, "KEYID"), first);
    EXPECT_TRUE(isSigned(stale, first));
}

/// What a client that verifies certificates reports about the service.
class FaultyHandshake : public SandboxTest {
protected:
    void SetUp() override {
        sandbox::Options tls = options();
        tls.m_Tls = true;
        restart(tls);
    }

    /// The result of verifying the certificate; -1 when the handshake does not get there.
    [[nodiscard]] long verifyResult(std::string const& fault) const {
        if (!fault.empty()) {
            m_Service->services().m_Faults.arm(parseFault(fault));
        }
        RawConnection const connection(m_Service->addresses().m_Tls.m_Port);
        sandbox::TlsContextHolder const context(SSL_CTX_new(TLS_client_method()));
        SSL_CTX_load_verify_locations(context.get(), m_Service->authorityFile().c_str(), nullptr);
        sandbox::TlsHolder const tls(SSL_new(context.get()));
        X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(tls.get()), "127.0.0.1");
        SSL_set_fd(tls.get(), connection.get());
        return SSL_connect(tls.get()) == 1 ? SSL_get_verify_result(tls.get()) : -1;
    }
};

TEST_F(FaultyHandshake, IsWrongInOneWayOnly) {
    EXPECT_EQ(verifyResult(""), X509_V_OK);
    EXPECT_EQ(verifyResult("tls-expired"), X509_V_ERR_CERT_HAS_EXPIRED);
    EXPECT_EQ(verifyResult("tls-wrong-host"), X509_V_ERR_IP_ADDRESS_MISMATCH);
    EXPECT_NE(verifyResult("tls-unknown-authority"), X509_V_OK);
    EXPECT_EQ(verifyResult("tls-abort"), -1);
    EXPECT_TRUE(m_Service->services().m_Faults.armed().empty());
    EXPECT_EQ(verifyResult(""), X509_V_OK);
}

TEST_F(FaultyHandshake, IsThatOfTheFirstConnectionEvenWhenItsClientIsSilent) {
    m_Service->services().m_Faults.arm(parseFault("tls-abort"));
    RawConnection const silent(m_Service->addresses().m_Tls.m_Port);
    EXPECT_EQ(verifyResult(""), X509_V_OK);
    EXPECT_TRUE(m_Service->services().m_Faults.armed().empty());
    EXPECT_THROW(exchangeTls(silent.get(), merchantGet("/"), m_Service->authorityFile()), std::runtime_error);
}

TEST_F(FaultyHandshake, IsNoConcernOfPlainConnections) {
    m_Service->services().m_Faults.arm(parseFault("tls-abort"));
    EXPECT_EQ(get("/").m_Status, 200);
    EXPECT_EQ(verifyResult(""), -1);
}

TEST_F(FaultyHandshake, IsSoundWhenTheAnswerIsWrong) {
    std::string const text =
        "<KVX MSGTYPE=\"KeyQueryRequest\" KEYID=\"" + m_Service->services().m_Keys.current()->m_Id + "\"/>";
    std::string const request = merchantGet("/auto?DATA=" + percentEncoded(text), "demo", "demo");
    auto const ask = [&] {
        return exchangeRaw(m_Service->addresses().m_Tls.m_Port, request, m_Service->authorityFile());
    };
    std::string const whole = ask();
    struct {
        char const* m_Fault;
        std::string m_Response;
    } const cases[] = {
        {"drop", ""},
        {"bytewise", whole},
        {"truncate,bytes=20", whole.substr(0, 20)},
        {"stall-inside,seconds=0,bytes=20", whole.substr(0, 20)},
        {"twice", whole + whole},
    };
    for (auto const& row : cases) {
        m_Service->services().m_Faults.arm(parseFault(row.m_Fault));
        EXPECT_EQ(ask(), row.m_Response) << row.m_Fault;
    }
    m_Service->services().m_Faults.arm(parseFault("reset"));
    EXPECT_THROW(ask(), std::runtime_error);
}

}  // namespace
