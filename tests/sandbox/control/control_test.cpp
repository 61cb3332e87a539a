// The control API over a real socket: every address with its methods, every error with its text. A fixture runs a
// service with one account and a merchant. Sections follow the addresses: service, faults, payments and exchanges,
// keys, accounts and clock; the last one holds requests of other sites and unknown addresses.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "sandbox/faults/fault.h"
#include "tests/sandbox/support/sandboxfixture.h"

/// The control API: every address, every error.
namespace {

using namespace sandboxtest;
using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class Control : public SandboxTest {
protected:
    [[nodiscard]] RawResponse ask(std::string const& request) const {
        return parseResponse(exchangeRaw(m_Service->addresses().m_Control.m_Port, request));
    }

    /// The content of an answer that must have this status.
    json content(std::string const& request, int status) const {
        RawResponse const response = ask(request);
        EXPECT_EQ(response.m_Status, status) << response.m_Body;
        EXPECT_EQ(response.m_Headers.at("content-type"), "application/json");
        return json::parse(response.m_Body);
    }

    [[nodiscard]] json getJson(std::string const& target) const { return content(bareRequest("GET", target), 200); }

    json post(std::string const& target, json const& body, int status = 201) const {
        return content(jsonPost(target, body.dump()), status);
    }

    /// The reason in an error response, whose status must be this.
    std::string error(std::string const& request, int status) const {
        return content(request, status).at("error").get<std::string>();
    }

    [[nodiscard]] json payment(std::string const& filter) const {
        json const payments = getJson("/control/payments?" + filter).at("payments");
        EXPECT_EQ(payments.size(), 1u) << filter;
        return payments.at(0);
    }

    [[nodiscard]] json lastExchange() const { return getJson("/control/exchanges").at("exchanges").back(); }

    /// The value of an attribute in the control API's response.
    static std::string attribute(json const& payment, std::string const& name) {
        for (json const& entry : payment.at("attributes")) {
            if (entry.at("name") == name) {
                return entry.at("value").get<std::string>();
            }
        }
        return "(none)";
    }
};

// --- The service

TEST_F(Control, ReportsAddressesKeyClockAndCounts) {
    openPage(m_Merchant.payInit("t1"));
    post("/control/faults", {{"kind", "drop"}});
    json const service = getJson("/control");
    EXPECT_EQ(service.at("addresses"), (json{{"plain", m_Service->addresses().m_Plain.m_Url},
                                             {"control", m_Service->addresses().m_Control.m_Url}}));
    EXPECT_EQ(service.at("serverKeyId"), m_Service->services().m_Keys.current()->m_Id);
    EXPECT_EQ(service.at("clock"), (json{{"present", "2023-11-14T22:13:20Z"}, {"ahead", 0}, {"frozen", false}}));
    EXPECT_EQ(service.at("counts"), (json{{"accounts", 1},
                                          {"payments", 1},
                                          {"notifications", 0},
                                          {"exchanges", 2},
                                          {"serverKeys", 1},
                                          {"merchantKeys", 1},
                                          {"faults", 1},
                                          {"warnings", 0}}));
}

TEST_F(Control, ReportsTheAddressesThatThereAre) {
    sandbox::Options all = options();
    all.m_Tls = true;
    all.m_Proxy = true;
    restart(all);
    json const addresses = getJson("/control").at("addresses");
    EXPECT_EQ(addresses.at("tls"), m_Service->addresses().m_Tls.m_Url);
    EXPECT_THAT(addresses.at("proxy").get<std::string>(), HasSubstr("http://127.0.0.1:"));
    std::string const overTls =
        exchangeRaw(m_Service->addresses().m_Tls.m_Port, bareRequest("GET", "/control"), m_Service->authorityFile());
    EXPECT_EQ(json::parse(parseResponse(overTls).m_Body).at("addresses"), addresses);
    std::string const plain = exchangeRaw(m_Service->addresses().m_Plain.m_Port, bareRequest("GET", "/control"));
    EXPECT_EQ(json::parse(parseResponse(plain).m_Body).at("addresses"), addresses);
}

TEST_F(Control, ReportsOnEveryPortAndUnderEveryNameThatItIsReady) {
    json const ready = {{"ready", true}, {"version", getJson("/control").at("version")}};
    EXPECT_EQ(getJson("/health"), ready);
    std::string const elsewhere = "GET /health HTTP/1.1\r\nHost: sandbox.example:80\r\nConnection: close\r\n\r\n";
    EXPECT_EQ(content(elsewhere, 200), ready);
    EXPECT_EQ(json::parse(get("/health").m_Body), ready);
    EXPECT_EQ(ask(jsonPost("/health", "{}")).m_Headers.at("allow"), "GET");
}

// --- Faults

TEST_F(Control, ArmsAFaultSeesItHappenAndLiftsIt) {
    json const armed =
        post("/control/faults", {{"kind", "error"}, {"exchange", "setup"}, {"times", 2}, {"text", "no"}});
    EXPECT_EQ(armed, (json{{"id", 1},
                           {"kind", "error"},
                           {"exchange", "setup"},
                           {"order", ""},
                           {"times", 2},
                           {"text", "no"},
                           {"happened", 0}}));
    EXPECT_EQ(getJson("/control/faults"), (json{{"faults", {armed}}}));
    std::string const setup = "<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>";
    EXPECT_EQ(reasonOf(askAuto(setup)), "no");
    EXPECT_EQ(lastExchange().at("fault"), "error,exchange=setup,times=2,text=no");
    EXPECT_EQ(lastExchange().at("verdict"), "not looked at");
    EXPECT_EQ(getJson("/control/faults").at("faults").at(0).at("happened"), 1);
    EXPECT_EQ(content(bareRequest("DELETE", "/control/faults/1"), 200), (json{{"faults", json::array()}}));
    EXPECT_EQ(attributeOf(askAuto(setup), "MSGTYPE"), "SetupResponse");
    EXPECT_EQ(lastExchange().at("fault"), "");
}

TEST_F(Control, ForgetsAFaultThatHasHappenedOftenEnough) {
    post("/control/faults", {{"kind", "error"}, {"exchange", "setup"}});
    EXPECT_NE(reasonOf(askAuto("<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>")), "");
    EXPECT_EQ(getJson("/control/faults"), (json{{"faults", json::array()}}));
    EXPECT_THAT(error(bareRequest("DELETE", "/control/faults/1"), 404), HasSubstr("no fault '1'"));
}

TEST_F(Control, CountsAFaultThatStays) {
    post("/control/faults", {{"kind", "error"}, {"exchange", "setup"}, {"times", "always"}});
    for (int i = 0; i < 3; ++i) {
        EXPECT_NE(reasonOf(askAuto("<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>")), "");
    }
    json const fault = getJson("/control/faults").at("faults").at(0);
    EXPECT_EQ(fault.at("times"), "always");
    EXPECT_EQ(fault.at("happened"), 3);
}

TEST_F(Control, LiftsOneAndAll) {
    for (int i = 0; i < 3; ++i) {
        post("/control/faults", {{"kind", "reset"}, {"order", "A-" + std::to_string(i)}});
    }
    json const left = content(bareRequest("DELETE", "/control/faults/2"), 200).at("faults");
    ASSERT_EQ(left.size(), 2u);
    EXPECT_EQ(left.at(0).at("order"), "A-0");
    EXPECT_EQ(left.at(1).at("order"), "A-2");
    EXPECT_EQ(content(bareRequest("DELETE", "/control/faults"), 200).at("faults"), json::array());
    EXPECT_EQ(m_Service->services().m_Faults.armed().size(), 0u);
    for (char const* id : {"1", "0", "99999999999999999999"}) {
        EXPECT_THAT(error(bareRequest("DELETE", std::string("/control/faults/") + id), 404), HasSubstr(id));
    }
}

TEST_F(Control, ArmsWhatWasAskedFor) {
    for (json const& asked :
         {json{{"kind", "truncate"}, {"exchange", "capture"}, {"order", "A-1"}, {"bytes", 40}},
          json{{"kind", "delay"}, {"seconds", 0.25}, {"times", "always"}}, json{{"kind", "delay"}, {"seconds", 3}},
          json{{"kind", "http-status"}, {"exchange", "any"}, {"status", 500}, {"text", "a,b=c\n\u00e9"}},
          json{{"kind", "huge"}, {"megabytes", 2}, {"times", 9007199254740993}},
          json{{"kind", "refuse"}, {"exchange", "proxy"}, {"seconds", 0.0}}}) {
        json const armed = post("/control/faults", asked);
        for (auto const& [name, value] : asked.items()) {
            EXPECT_EQ(armed.at(name), value) << asked;
        }
        EXPECT_EQ(armed.size(), asked.size() + 2 + (asked.contains("exchange") ? 0 : 1) +
                                    (asked.contains("order") ? 0 : 1) + (asked.contains("times") ? 0 : 1))
            << armed;
    }
    EXPECT_EQ(m_Service->services().m_Faults.armed().at(1).m_Fault.m_Seconds, 0.25);
    EXPECT_EQ(m_Service->services().m_Faults.armed().at(3).m_Fault.m_Text, "a,b=c\n\u00e9");
}

TEST_F(Control, RefusesFaultsWithTheReason) {
    struct Row {
        char const* m_Body;
        char const* m_Reason;
    };
    for (Row const& row : {
             Row{"", "not valid JSON"},
             {"{", "not valid JSON"},
             {"{\"kind\":\"drop\"} x", "error at byte 17"},
             {"{\"kind\":\"\xE9\"}", "not valid JSON"},
             {"[]", "not a JSON object"},
             {"\"drop\"", "not a JSON object"},
             {"{}", "'kind' is required"},
             {"{\"kind\":1}", "'kind' is required and must be a string"},
             {"{\"kind\":\"burn\"}", "unknown fault 'burn'"},
             {"{\"kind\":\"drop\",\"Order\":\"A\"}", "unknown member 'Order'"},
             {"{\"kind\":\"drop\",\"id\":1}", "unknown member 'id'"},
             {"{\"kind\":\"drop\",\"exchange\":1}", "'exchange' must be a string"},
             {"{\"kind\":\"drop\",\"exchange\":null}", "'exchange' must be a string"},
             {"{\"kind\":\"drop\",\"exchange\":\"refund\"}", "unknown exchange 'refund'"},
             {"{\"kind\":\"drop\",\"exchange\":\"connection\"}",
              "drop does not apply to the exchange 'connection', only to: "},
             {"{\"kind\":\"drop\",\"order\":17}", "'order' must be a string"},
             {"{\"kind\":\"drop\",\"times\":\"often\"}", "'times' must be a whole number or \"always\""},
             {"{\"kind\":\"drop\",\"times\":\"1\"}", "'times' must be a whole number or \"always\""},
             {"{\"kind\":\"drop\",\"times\":1.5}", "'times' must be"},
             {"{\"kind\":\"drop\",\"times\":0}", "times must be a number from 1"},
             {"{\"kind\":\"drop\",\"times\":-1}", "times must be a number from 1"},
             {"{\"kind\":\"drop\",\"times\":18446744073709551615}", "times must be a whole number"},
             {"{\"kind\":\"drop\",\"seconds\":1}", "drop takes no seconds"},
             {"{\"kind\":\"delay\",\"seconds\":\"1\"}", "'seconds' must be a number"},
             {"{\"kind\":\"delay\",\"seconds\":3601}", "between 0 and 3600"},
             {"{\"kind\":\"delay\",\"seconds\":-0.5}", "between 0 and 3600"},
             {"{\"kind\":\"delay\",\"bytes\":1}", "delay takes no bytes"},
             {"{\"kind\":\"truncate\",\"bytes\":1.0}", "'bytes' must be a whole number"},
             {"{\"kind\":\"truncate\",\"bytes\":-1}", "0 or more"},
             {"{\"kind\":\"http-status\",\"status\":99}", "between 100 and 999"},
             {"{\"kind\":\"http-status\",\"status\":4294967496}", "between 100 and 999"},
             {"{\"kind\":\"http-status\",\"status\":true}", "'status' must be a whole number"},
             {"{\"kind\":\"error\",\"text\":[]}", "'text' must be a string"},
             {"{\"kind\":\"huge\",\"megabytes\":0}", "between 1 and 4096"},
             {"{\"kind\":\"huge\",\"megabytes\":4097}", "between 1 and 4096"},
             {"{\"kind\":\"tls-abort\",\"order\":\"A\"}", "cannot be limited to one order"},
             {"{\"kind\":\"refuse\",\"times\":2}", "cannot be counted"},
             {"{\"kind\":\"drop\",\"account\":1}", "'account' must be a string"},
             {"{\"kind\":\"tls-abort\",\"account\":\"demo\"}", "cannot be limited to one account"},
             {"{\"kind\":\"reset\",\"exchange\":\"proxy\",\"account\":\"demo\"}", "has no account"},
         }) {
        EXPECT_THAT(error(jsonPost("/control/faults", row.m_Body), 400), HasSubstr(row.m_Reason)) << row.m_Body;
    }
    EXPECT_THAT(m_Service->services().m_Faults.armed(), IsEmpty());
}

TEST_F(Control, ReportsAllKindsOfFaults) {
    json const kinds = getJson("/control/faults/kinds").at("kinds");
    ASSERT_EQ(kinds.size(), sandbox::allFaultKinds().size());
    for (std::size_t i = 0; i < kinds.size(); ++i) {
        sandbox::FaultKindRow const& row = sandbox::allFaultKinds()[i];
        EXPECT_EQ(kinds[i].at("name"), row.m_Name);
        EXPECT_EQ(kinds[i].at("meaning"), row.m_Meaning);
        EXPECT_EQ(kinds[i].at("carriedOut"), row.m_CarriedOut);
        unsigned exchanges = 0;
        for (json const& name : kinds[i].at("exchanges")) {
            exchanges |= static_cast<unsigned>(sandbox::exchangeFromName(name.get<std::string>()).value());
        }
        EXPECT_EQ(exchanges, row.m_Exchanges) << row.m_Name;
        EXPECT_EQ(kinds[i].at("parameters").empty(), row.m_Parameters == 0) << row.m_Name;
    }
    EXPECT_EQ(kinds.at(0).at("parameters"), json{"seconds"});
}

TEST_F(Control, ArmsEveryKindWithWhatItTakes) {
    json const values = {{"seconds", 1.5}, {"bytes", 10}, {"status", 404}, {"text", "x"}, {"megabytes", 3}};
    json const kinds = getJson("/control/faults/kinds").at("kinds");
    ASSERT_FALSE(kinds.empty());
    for (json const& kind : kinds) {
        for (json const& exchange : kind.at("exchanges")) {
            json fault = {{"kind", kind.at("name")}, {"exchange", exchange}};
            for (json const& parameter : kind.at("parameters")) {
                fault[parameter.get<std::string>()] = values.at(parameter.get<std::string>());
            }
            json const armed = post("/control/faults", fault);
            EXPECT_EQ(content(bareRequest("DELETE", "/control/faults/" + armed.at("id").dump()), 200).at("faults"),
                      json::array());
        }
    }
}

TEST_F(Control, ArmsAndLiftsFaultsByAccount) {
    post("/control/accounts", {{"user", "shop"}, {"password", "p"}});
    json const armed =
        post("/control/faults", {{"kind", "error"}, {"exchange", "setup"}, {"account", "shop"}, {"times", "always"}});
    EXPECT_EQ(armed.at("account"), "shop");
    post("/control/faults", {{"kind", "reset"}, {"account", "demo"}, {"order", "none"}});
    std::string const setup = "<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>";
    EXPECT_EQ(reasonOf(askAuto(setup)), "");
    EXPECT_NE(reasonOf(askAuto(setup, "shop", "p")), "");
    EXPECT_EQ(getJson("/control/faults?account=shop").at("faults").size(), 1u);
    EXPECT_EQ(content(bareRequest("DELETE", "/control/faults?account=shop"), 200).at("faults"), json::array());
    EXPECT_EQ(reasonOf(askAuto(setup, "shop", "p")), "");
    EXPECT_EQ(getJson("/control/faults").at("faults").size(), 1u);
    EXPECT_THAT(error(bareRequest("DELETE", "/control/faults?kind=reset"), 400), HasSubstr("unknown filter 'kind'"));
}

// --- Payments and exchanges

TEST_F(Control, ReportsAPaymentFromItsOpeningToItsCapture) {
    std::string const confirm = authorise("t1");
    EXPECT_EQ(payment("order=A-17").at("state"), "authorised");
    askCapture(confirm);
    json const reported = payment("order=A-17");
    EXPECT_EQ(reported.at("id"), sandboxtest::paymentsOf(*m_Service).at(0).m_Id);
    EXPECT_EQ(reported.at("account"), "demo");
    EXPECT_EQ(reported.at("token"), "t1");
    EXPECT_EQ(reported.at("state"), "captured");
    EXPECT_EQ(reported.at("notifications"), json::array());
    EXPECT_EQ(attribute(reported, "AMOUNT"), "12.50");
    EXPECT_EQ(reported.at("attributes").at(0), (json{{"name", "MSGTYPE"}, {"value", "PayInit"}}));
    ASSERT_EQ(reported.at("history").size(), 3u);
    EXPECT_EQ(reported.at("history").at(0),
              (json{{"time", "2023-11-14T22:13:20Z"}, {"state", "opened"}, {"note", "payment page asked for"}}));
    EXPECT_EQ(reported.at("history").at(2).at("state"), "captured");
}

TEST_F(Control, ReportsTheNotificationsOfEachPayment) {
    for (char const* token : {"t1", "t2"}) {
        std::string const address = " NOTIFYADDRESS=\"" + std::string(token) + "@localhost\"";
        press(openPage(m_Merchant.payInit(token, address)), *(token + 1) == '1' ? "pay" : "decline");
    }
    json const payments = getJson("/control/payments").at("payments");
    ASSERT_EQ(payments.size(), 2u);
    for (json const& reported : payments) {
        ASSERT_EQ(reported.at("notifications").size(), 1u) << reported;
        json const notification = reported.at("notifications").at(0);
        EXPECT_EQ(notification.at("payment"), reported.at("id"));
        EXPECT_EQ(notification.at("address"), reported.at("token").get<std::string>() + "@localhost");
        EXPECT_EQ(notification.at("result"), reported.at("state"));
        EXPECT_EQ(notification.at("number"), reported.at("token") == "t1" ? 1 : 2);
        EXPECT_TRUE(notification.at("pending").is_boolean());
        EXPECT_TRUE(notification.at("attempts").is_number_integer());
        EXPECT_TRUE(notification.at("outcome").is_string());
    }
    EXPECT_EQ(getJson("/control").at("counts").at("notifications"), 2);
}

TEST_F(Control, FiltersPayments) {
    press(openPage(m_Merchant.payInit("t1")), "decline");
    openPage(m_Merchant.bareInit(" TOKEN=\"t2\" EXPIRATION=\"20991231 23:59:59\" ORDERID=\"A &amp; + B\""));
    openPage(m_Merchant.bareInit(" TOKEN=\"t3\" EXPIRATION=\"20991231 23:59:59\""));
    auto const tokens = [this](std::string const& query) {
        std::vector<std::string> found;
        json const response = getJson("/control/payments" + query);
        for (json const& reported : response.at("payments")) {
            found.push_back(reported.at("token").get<std::string>());
        }
        return found;
    };
    EXPECT_THAT(tokens(""), ElementsAre("t1", "t2", "t3"));
    EXPECT_THAT(tokens("?order=A-17"), ElementsAre("t1"));
    EXPECT_THAT(tokens("?order=A%20%26%20+%20B"), ElementsAre("t2"));
    EXPECT_THAT(tokens("?order="), ElementsAre("t3"));
    EXPECT_THAT(tokens("?order=a-17"), IsEmpty());
    EXPECT_THAT(tokens("?state=opened"), ElementsAre("t2", "t3"));
    EXPECT_THAT(tokens("?state=declined&order=A-17"), ElementsAre("t1"));
    EXPECT_THAT(tokens("?state=opened&order=A-17"), IsEmpty());
    EXPECT_THAT(tokens("?id=" + sandboxtest::paymentsOf(*m_Service).at(1).m_Id), ElementsAre("t2"));
    EXPECT_THAT(tokens("?id=nothing"), IsEmpty());
    EXPECT_THAT(error(bareRequest("GET", "/control/payments?state=Opened"), 400), HasSubstr("state 'Opened'"));
    EXPECT_THAT(error(bareRequest("GET", "/control/payments?order=%zz"), 400), HasSubstr("percent-encoding"));
    EXPECT_THAT(error(bareRequest("GET", "/control/payments?id=1&id=2"), 400), HasSubstr("twice"));
}

TEST_F(Control, ReportsBytesThatAreNotUtf8InASecondMember) {
    openPage(
        m_Merchant.bareInit(" TOKEN=\"t\xFF\" EXPIRATION=\"20991231 23:59:59\" ORDERID=\"Caf\xE9\""
                            " DESCRIPTION=\"Caf\xC3\xA9 \x01\""));
    json const reported = getJson("/control/payments").at("payments").at(0);
    EXPECT_EQ(reported.at("token"), "t\uFFFD");
    EXPECT_EQ(reported.at("tokenHex"), "74ff");
    json const order = reported.at("attributes").at(4);
    EXPECT_EQ(order, (json{{"name", "ORDERID"}, {"value", "Caf\uFFFD"}, {"valueHex", "436166e9"}}));
    EXPECT_EQ(reported.at("attributes").at(5), (json{{"name", "DESCRIPTION"}, {"value", "Caf\u00e9 \u0001"}}));
    json const exchange = lastExchange();
    EXPECT_EQ(exchange.at("order"), "Caf\uFFFD");
    EXPECT_EQ(exchange.at("orderHex"), "436166e9");
    EXPECT_THAT(exchange.at("data").get<std::string>(), HasSubstr("Caf\uFFFD"));
    EXPECT_THAT(exchange.at("dataHex").get<std::string>(), HasSubstr("436166e9"));
    EXPECT_FALSE(exchange.contains("signatureHex"));
    EXPECT_EQ(payment("order=Caf%e9").at("tokenHex"), "74ff");
}

TEST_F(Control, ReportsZeroBytes) {
    std::string const data = "<KVX MSGTYPE=\"PayInit\"/>" + std::string(1, '\0');
    openPage(data);
    json const exchange = lastExchange();
    EXPECT_EQ(exchange.at("data"), data);
    EXPECT_FALSE(exchange.contains("dataHex"));
    EXPECT_THAT(exchange.at("verdict").get<std::string>(), HasSubstr("zero byte"));
    exchangeRaw(m_Service->addresses().m_Plain.m_Port, formPost("/pay/decision", std::string("a\0b\xFF", 4)));
    json const posted = lastExchange();
    EXPECT_THAT(posted.at("request").get<std::string>(), ::testing::EndsWith(std::string("a\0b", 3) + "\uFFFD"));
    EXPECT_THAT(posted.at("requestHex").get<std::string>(), ::testing::EndsWith("0d0a610062ff"));
}

TEST_F(Control, ReportsAnExchangeCompletely) {
    std::string const text = m_Merchant.payInit("t1");
    std::string const signature = m_Merchant.sign(text);
    openPage(text);
    json const reported = lastExchange();
    EXPECT_EQ(reported.at("number"), 2);
    EXPECT_EQ(reported.at("time"), "2023-11-14T22:13:20Z");
    EXPECT_EQ(reported.at("kind"), "page");
    EXPECT_EQ(reported.at("order"), "A-17");
    EXPECT_EQ(reported.at("path"), "/pay");
    EXPECT_EQ(reported.at("verdict"), "ok");
    EXPECT_EQ(reported.at("fault"), "");
    EXPECT_EQ(reported.at("data"), text);
    EXPECT_EQ(reported.at("signature"), signature);
    EXPECT_GT(reported.at("microseconds").get<std::int64_t>(), 0);
    EXPECT_THAT(reported.at("request").get<std::string>(), HasSubstr("SIGNATURE=" + signature + " HTTP/1.0\r\n"));
    EXPECT_THAT(reported.at("request").get<std::string>(), HasSubstr("Authorization: (covered)"));
    EXPECT_THAT(reported.at("answer").get<std::string>(), ::testing::StartsWith("HTTP/1.1 200 OK\r\n"));
    ASSERT_GT(reported.at("steps").size(), 4u);
    EXPECT_EQ(reported.at("steps").at(2), (json{{"what", "DATA is a message"}, {"found", "PayInit"}, {"good", true}}));
}

TEST_F(Control, ReportsExchangesAfterANumber) {
    openPage(m_Merchant.payInit("t1"));
    openPage(m_Merchant.payInit("t2"));
    auto const numbers = [this](std::string const& query) {
        std::vector<int> found;
        json const response = getJson("/control/exchanges" + query);
        for (json const& reported : response.at("exchanges")) {
            found.push_back(reported.at("number").get<int>());
        }
        return found;
    };
    EXPECT_THAT(numbers(""), ElementsAre(1, 2, 3));
    EXPECT_THAT(numbers("?after=0"), ElementsAre(1, 2, 3));
    EXPECT_THAT(numbers("?after=-5"), ElementsAre(1, 2, 3));
    EXPECT_THAT(numbers("?after=2"), ElementsAre(3));
    EXPECT_THAT(numbers("?after=3"), IsEmpty());
    for (char const* bad : {"x", "", "1.5", "99999999999999999999", "1%20"}) {
        EXPECT_THAT(error(bareRequest("GET", std::string("/control/exchanges?after=") + bad), 400),
                    HasSubstr("the number of an exchange"))
            << bad;
    }
}

TEST_F(Control, FiltersExchanges) {
    askCapture(authorise("t1"));
    openPage(m_Merchant.payInit("t2"));
    EXPECT_EQ(get("/capture").m_Status, 200);
    auto const numbers = [this](std::string const& query) {
        std::vector<int> found;
        json const content = getJson("/control/exchanges?" + query);
        for (json const& reported : content.at("exchanges")) {
            found.push_back(reported.at("number").get<int>());
        }
        return found;
    };
    EXPECT_THAT(numbers("kind=page"), ElementsAre(2, 5));
    EXPECT_THAT(numbers("token=t1"), ElementsAre(2, 3, 4));
    EXPECT_THAT(numbers("order=A-17&kind=page&after=2"), ElementsAre(5));
    EXPECT_THAT(numbers("account=demo"), ElementsAre(1, 2, 3, 4, 5));
    EXPECT_THAT(numbers("account="), ElementsAre(6));
    EXPECT_THAT(numbers("account=other"), IsEmpty());
    json const decisions = getJson("/control/exchanges?kind=decision");
    json const& decision = decisions.at("exchanges").at(0);
    EXPECT_EQ(decision.at("account"), "demo");
    EXPECT_EQ(decision.at("token"), "t1");
    EXPECT_THAT(numbers("payment=" + decision.at("payment").get<std::string>()), ElementsAre(2, 3, 4));
    EXPECT_THAT(error(bareRequest("GET", "/control/exchanges?kind=refund"), 400), HasSubstr("exchange 'refund'"));
}

TEST_F(Control, ListsInPages) {
    for (int i = 0; i < 101; ++i) {
        openPage(m_Merchant.payInit("t" + std::to_string(i)));
    }
    for (std::string const list : {"payments", "exchanges"}) {
        auto const numbers = [this, &list](std::string const& query, bool more) {
            json const content = getJson("/control/" + list + "?" + query);
            std::vector<int> found;
            for (json const& row : content.at(list)) {
                found.push_back(row.at("number").get<int>());
            }
            EXPECT_EQ(content.contains("next"), more) << query;
            if (more) {
                EXPECT_EQ(content.at("next"), found.back()) << query;
            }
            return found;
        };
        std::vector<int> const first = numbers("", true);
        EXPECT_EQ(first.size(), 100u);
        EXPECT_EQ(first.front(), 1);
        EXPECT_THAT(numbers("after=100", false).front(), 101);
        EXPECT_THAT(numbers("limit=2", true), ElementsAre(1, 2));
        EXPECT_THAT(numbers("limit=2&after=2", true), ElementsAre(3, 4));
        EXPECT_THAT(numbers("limit=2&before=4", true), ElementsAre(3, 2));
        EXPECT_THAT(numbers("limit=2&before=2", false), ElementsAre(1));
        EXPECT_THAT(numbers("after=2&before=5", false), ElementsAre(3, 4));
        EXPECT_EQ(numbers("limit=1&before=end", true).front(), list == "payments" ? 101 : 102);
        EXPECT_EQ(numbers("limit=1000", false).size(), list == "payments" ? 101u : 102u);
        for (char const* bad : {"0", "1001", "-1", "x", ""}) {
            EXPECT_THAT(error(bareRequest("GET", "/control/" + list + "?limit=" + bad), 400), HasSubstr("1 to 1000"))
                << bad;
        }
    }
}

TEST_F(Control, RefusesUnknownFilters) {
    EXPECT_EQ(error(bareRequest("GET", "/control/payments?acount=demo"), 400),
              "unknown filter 'acount', the filters of this list are: account, order, token, id, state, after, before, "
              "limit");
    EXPECT_EQ(
        error(bareRequest("GET", "/control/exchanges?state=opened"), 400),
        "unknown filter 'state', the filters of this list are: account, order, token, payment, kind, after, before, "
        "limit");
    EXPECT_THAT(error(bareRequest("GET", "/control/payments?after=x"), 400), HasSubstr("the number of a payment"));
    EXPECT_THAT(error(bareRequest("GET", "/control/payments?before=x"), 400), HasSubstr("the number of a payment"));
}

TEST_F(Control, RemovesExchanges) {
    askCapture(authorise("t1"));
    openPage(m_Merchant.payInit("t2"));
    EXPECT_EQ(content(bareRequest("DELETE", "/control/exchanges?kind=page&before=4"), 200), (json{{"exchanges", 1}}));
    EXPECT_EQ(getJson("/control").at("counts").at("exchanges"), 4);
    EXPECT_EQ(content(bareRequest("DELETE", "/control/exchanges"), 200), (json{{"exchanges", 4}}));
    EXPECT_EQ(getJson("/control/exchanges").at("exchanges"), json::array());
    EXPECT_EQ(getJson("/control/payments").at("payments").size(), 2u);
    openPage(m_Merchant.payInit("t3"));
    EXPECT_EQ(lastExchange().at("number"), 6) << "numbers go on";
    EXPECT_THAT(error(bareRequest("DELETE", "/control/exchanges?limit=1"), 400), HasSubstr("unknown filter 'limit'"));
}

TEST_F(Control, ResetsAllButAccountsAndKeys) {
    post("/control/faults", {{"kind", "drop"}, {"order", "none"}});
    post("/control/clock", {{"ahead", 10}}, 200);
    press(openPage(m_Merchant.payInit("t1", " NOTIFYADDRESS=\"merchant@localhost\"")), "pay");
    EXPECT_EQ(post("/control/reset", json::object(), 200), (json{{"payments", 1}, {"exchanges", 3}}));
    json const counts = getJson("/control").at("counts");
    EXPECT_EQ(counts, (json{{"accounts", 1},
                            {"payments", 0},
                            {"notifications", 0},
                            {"exchanges", 0},
                            {"serverKeys", 1},
                            {"merchantKeys", 1},
                            {"faults", 0},
                            {"warnings", 0}}));
    EXPECT_EQ(getJson("/control").at("clock").at("ahead"), 0);
    askCapture(authorise("t1"));
    EXPECT_EQ(payment("token=t1").at("state"), "captured") << "the token is free again";
    EXPECT_THAT(error(jsonPost("/control/reset", "{\"account\":\"nobody\"}"), 404), HasSubstr("no account 'nobody'"));
    EXPECT_THAT(error(jsonPost("/control/reset", "{\"acount\":\"demo\"}"), 400), HasSubstr("unknown member"));
}

// --- Keys

TEST_F(Control, ReportsKeys) {
    json const keys = getJson("/control/keys");
    ASSERT_EQ(keys.at("server").size(), 1u);
    EXPECT_EQ(keys.at("server").at(0).at("id"), m_Service->services().m_Keys.current()->m_Id);
    EXPECT_EQ(keys.at("server").at(0).at("current"), true);
    EXPECT_EQ(keys.at("server").at(0).at("bits"), 512);
    std::string const response =
        askAuto("<KVX MSGTYPE=\"KeyQueryRequest\" KEYID=\"" + m_Service->services().m_Keys.current()->m_Id + "\"/>");
    EXPECT_EQ(keys.at("server").at(0).at("blob"), attributeOf(response, "KEYBLOB"));
    EXPECT_EQ(
        keys.at("merchants"),
        (json{{{"id", m_Merchant.keyId()}, {"account", "demo"}, {"time", "2023-11-14T22:13:20Z"}, {"bits", 512}}}));
}

TEST_F(Control, RotatesTheKeyThatSigns) {
    std::string const old = m_Service->services().m_Keys.current()->m_Id;
    std::string const query = "<KVX MSGTYPE=\"KeyQueryRequest\" KEYID=\"" + old + "\"/>";
    std::string const oldBlob = attributeOf(askAuto(query), "KEYBLOB");
    std::string const fresh = post("/control/keys/rotate", json::object()).at("id").get<std::string>();
    EXPECT_NE(fresh, old);
    EXPECT_EQ(m_Service->services().m_Keys.current()->m_Id, fresh);
    EXPECT_EQ(attributeOf(askAuto(query), "KEYBLOB"), oldBlob);
    json const keys = getJson("/control/keys").at("server");
    ASSERT_EQ(keys.size(), 2u);
    EXPECT_EQ(keys.at(0).at("current"), false);
    EXPECT_EQ(keys.at(1).at("current"), true);
    RawResponse const back = press(openPage(m_Merchant.payInit("t1")), "pay");
    std::string const confirm = percentDecoded(queryValue(back.m_Headers.at("location"), "DATA"));
    std::string const signature = queryValue(back.m_Headers.at("location"), "SIGNATURE");
    EXPECT_EQ(attributeOf(confirm, "KEYID"), fresh);
    EXPECT_TRUE(verifies(keys.at(1).at("blob").get<std::string>(), confirm, signature));
    EXPECT_FALSE(verifies(oldBlob, confirm, signature));
    EXPECT_EQ(attributeOf(askAuto("<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>"), "VTKEYID"), fresh);
}

TEST_F(Control, RotatesWithoutABody) {
    std::string const head = "POST /control/keys/rotate HTTP/1.1\r\nContent-Type: application/json\r\n";
    content(head + "\r\n", 201);
    content(head + "Content-Length: 0\r\n\r\n", 201);
    EXPECT_EQ(getJson("/control/keys").at("server").size(), 3u);
    EXPECT_THAT(error(jsonPost("/control/keys/rotate", "{\"bits\":1024}"), 400), HasSubstr("unknown member 'bits'"));
    EXPECT_EQ(getJson("/control/keys").at("server").size(), 3u);
}

// --- Accounts and clock

TEST_F(Control, CreatesAnAccountAndChangesItsPassword) {
    std::string const setup = "<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>";
    EXPECT_THAT(reasonOf(askAuto(setup, "shop", "one")), HasSubstr("no account"));
    EXPECT_EQ(post("/control/accounts", {{"user", "shop"}, {"password", "one"}}),
              (json{{"user", "shop"}, {"customer", "1002"}}));
    EXPECT_EQ(attributeOf(askAuto(setup, "shop", "one"), "CUSTOMERID"), "1002");
    EXPECT_EQ(post("/control/accounts", {{"user", "shop"}, {"password", "two:2"}}, 200).at("customer"), "1002");
    EXPECT_THAT(reasonOf(askAuto(setup, "shop", "one")), HasSubstr("password"));
    EXPECT_EQ(attributeOf(askAuto(setup, "shop", "two:2"), "CUSTOMERID"), "1002");
    EXPECT_EQ(getJson("/control").at("counts").at("accounts"), 2);
}

TEST_F(Control, RefusesAccountsThatNobodyCouldUse) {
    struct Row {
        char const* m_Body;
        char const* m_Reason;
    };
    for (Row const& row : {
             Row{"{}", "'user' is required"},
             {"{\"user\":\"a\"}", "'password' is required"},
             {"{\"user\":1,\"password\":\"p\"}", "'user' is required and must be a string"},
             {"{\"user\":\"a\",\"password\":null}", "'password' is required and must be a string"},
             {"{\"user\":\"\",\"password\":\"p\"}", "must not be empty"},
             {"{\"user\":\"a:b\",\"password\":\"p\"}", "contain a colon"},
             {"{\"user\":\"a\\u0000\",\"password\":\"p\"}", "zero byte"},
             {"{\"user\":\"a\",\"password\":\"p\\u0000\"}", "zero byte"},
             {"{\"user\":\"a\",\"password\":\"p\",\"admin\":true}", "unknown member 'admin'"},
         }) {
        EXPECT_THAT(error(jsonPost("/control/accounts", row.m_Body), 400), HasSubstr(row.m_Reason)) << row.m_Body;
    }
    EXPECT_EQ(getJson("/control").at("counts").at("accounts"), 1);
}

TEST_F(Control, SetsTheClockAheadSoThatPaymentsExpire) {
    std::string const inAnHour = " TOKEN=\"t1\" EXPIRATION=\"20231114 23:13:20\" ORDERID=\"A-17\"";
    RawResponse const page = openPage(m_Merchant.bareInit(inAnHour));
    EXPECT_EQ(page.m_Status, 200);
    EXPECT_EQ(post("/control/clock", {{"ahead", 3600}}, 200),
              (json{{"present", "2023-11-14T23:13:20Z"}, {"ahead", 3600}, {"frozen", false}}));
    EXPECT_EQ(payment("order=A-17").at("state"), "opened");
    post("/control/clock", {{"ahead", 3601}}, 200);
    EXPECT_EQ(payment("order=A-17").at("state"), "expired");
    RawResponse const late = openPage(m_Merchant.bareInit(" TOKEN=\"t2\" EXPIRATION=\"20231114 23:13:20\""));
    EXPECT_EQ(late.m_Status, 400);
    EXPECT_THAT(late.m_Body, HasSubstr("has expired"));
    post("/control/clock", {{"ahead", 0}}, 200);
    EXPECT_EQ(payment("order=A-17").at("state"), "expired");
    EXPECT_EQ(openPage(m_Merchant.bareInit(" TOKEN=\"t2\" EXPIRATION=\"20231114 23:13:20\"")).m_Status, 400)
        << "what has expired stays so";
    EXPECT_EQ(openPage(m_Merchant.bareInit(" TOKEN=\"t3\" EXPIRATION=\"20231114 23:13:20\"")).m_Status, 200);
}

TEST_F(Control, SetsTheClockOfAnAccountAlone) {
    post("/control/accounts", {{"user", "shop"}, {"password", "p"}});
    TestMerchant const shop("0-1002-shop");
    askAuto("<KVX MSGTYPE=\"KeyExportRequest\" KEYID=\"0-1002-shop\" KEYBLOB=\"" + shop.blob() + "\"/>", "shop", "p");
    std::string const inAnHour = " TOKEN=\"t1\" EXPIRATION=\"20231114 23:13:20\"";
    openPage(m_Merchant.bareInit(inAnHour));
    EXPECT_EQ(get("/pay" + shop.signedQuery(shop.bareInit(inAnHour))).m_Status, 200);
    EXPECT_EQ(post("/control/clock", {{"ahead", 3601}, {"account", "shop"}}, 200),
              (json{{"account", "shop"}, {"present", "2023-11-14T23:13:21Z"}, {"ahead", 3601}, {"frozen", false}}));
    EXPECT_EQ(payment("account=shop").at("state"), "expired");
    EXPECT_EQ(payment("account=demo").at("state"), "opened");
    json const clock = getJson("/control").at("clock");
    EXPECT_EQ(clock.at("ahead"), 0);
    ASSERT_EQ(clock.at("accounts").size(), 1u);
    EXPECT_EQ(clock.at("accounts").at(0).at("ahead"), 3601);
    post("/control/clock", {{"ahead", 3601}}, 200);
    EXPECT_EQ(payment("account=demo").at("state"), "expired");
    EXPECT_EQ(post("/control/clock", {{"ahead", nullptr}, {"account", "shop"}}, 200).at("ahead"), 3601);
    EXPECT_FALSE(getJson("/control").at("clock").contains("accounts"));
    EXPECT_THAT(error(jsonPost("/control/clock", "{\"ahead\":1,\"account\":\"nobody\"}"), 404), HasSubstr("'nobody'"));
    EXPECT_THAT(error(jsonPost("/control/clock", "{\"ahead\":null}"), 400), HasSubstr("'ahead' is required"));
    EXPECT_THAT(error(jsonPost("/control/clock", "{\"account\":\"shop\"}"), 400), HasSubstr("'ahead' is required"));
}

TEST_F(Control, RefusesClocksOutOfRange) {
    struct Row {
        char const* m_Body;
        char const* m_Reason;
    };
    for (Row const& row : {
             Row{"{}", "'ahead' is required"},
             {"{\"ahead\":\"1\"}", "a whole number"},
             {"{\"ahead\":1.5}", "a whole number"},
             {"{\"ahead\":315360001}", "ten years"},
             {"{\"ahead\":-315360001}", "ten years"},
             {"{\"ahead\":18446744073709551615}", "at most 64 bits"},
             {"{\"ahead\":1e400}", "out of range"},
             {"{\"ahead\":1,\"unit\":\"h\"}", "unknown member 'unit'"},
         }) {
        EXPECT_THAT(error(jsonPost("/control/clock", row.m_Body), 400), HasSubstr(row.m_Reason)) << row.m_Body;
    }
    EXPECT_EQ(getJson("/control").at("clock").at("ahead"), 0);
    EXPECT_EQ(post("/control/clock", {{"ahead", -315360000}}, 200).at("present"), "2013-11-16T22:13:20Z");
    EXPECT_EQ(post("/control/clock", {{"ahead", 315360000}}, 200).at("ahead"), 315360000);
}

// --- Requests of other sites, unknown addresses

TEST_F(Control, TakesNothingButJson) {
    for (char const* type : {"text/plain", "application/x-www-form-urlencoded", "", "application/jsonx",
                             "text/plain; charset=application/json", "text/json"}) {
        for (char const* path : {"/control/faults", "/control/keys/rotate", "/control/accounts", "/control/clock"}) {
            std::string const body = "{}";
            std::string const line = *type == '\0' ? "" : std::string("Content-Type: ") + type + "\r\n";
            EXPECT_THAT(
                error(std::string("POST ") + path + " HTTP/1.1\r\n" + line + "Content-Length: 2\r\n\r\n{}", 415),
                HasSubstr("application/json"))
                << type << path;
        }
    }
    EXPECT_EQ(getJson("/control/keys").at("server").size(), 1u);
    for (char const* type : {"application/json; charset=utf-8", "Application/JSON", "application/json ;x=y"}) {
        content(std::string("POST /control/keys/rotate HTTP/1.1\r\nContent-Type: ") + type +
                    "\r\nContent-Length: 2\r\n\r\n{}",
                201);
    }
}

TEST_F(Control, AnswersToNamesOfThisMachineOnly) {
    for (char const* host : {"evil.example", "evil.example:80", "127.0.0.1.evil.example", "localhost.evil.example:1",
                             "127.0.0.2", "[::1]", "127.0.0.1:80:80", "127.0.0.1@evil", ":80"}) {
        EXPECT_THAT(error(bareRequest("GET", "/control", host), 403), HasSubstr(host));
        EXPECT_THAT(error(bareRequest("DELETE", "/control/faults", host), 403), HasSubstr(host));
    }
    for (char const* host : {"127.0.0.1", "localhost", "127.0.0.1:8080", "LocalHost:1", "localhost:"}) {
        content(bareRequest("GET", "/control", host), 200);
    }
    EXPECT_EQ(ask("GET /control HTTP/1.0\r\n\r\n").m_Status, 200);
    post("/control/faults", {{"kind", "drop"}});
    error(bareRequest("DELETE", "/control/faults", "evil.example"), 403);
    EXPECT_EQ(m_Service->services().m_Faults.armed().size(), 1u);
}

TEST_F(Control, NeverAllowsOtherSites) {
    RawResponse const response =
        ask("OPTIONS /control/faults/1 HTTP/1.1\r\nHost: 127.0.0.1\r\nOrigin: http://evil.example\r\n"
            "Access-Control-Request-Method: DELETE\r\n\r\n");
    EXPECT_EQ(response.m_Status, 405);
    for (auto const& [name, value] : response.m_Headers) {
        EXPECT_EQ(name.find("access-control"), std::string::npos) << name << ": " << value;
    }
}

TEST_F(Control, ReportsWhatIsNotThere) {
    for (char const* path : {"/control/", "/control/fault", "/control/faults/", "/control/faults/x",
                             "/control/faults/1/2", "/control/keys/rotate/x", "/control/exchange"}) {
        EXPECT_THAT(error(bareRequest("GET", path), 404), HasSubstr(path));
    }
    EXPECT_EQ(ask(bareRequest("GET", "/controls")).m_Headers.at("content-type"), "text/plain; charset=utf-8");
}

TEST_F(Control, ReportsTheMethodsOfAnAddress) {
    struct Row {
        char const* m_Path;
        char const* m_Allowed;
    };
    for (Row const& row : {Row{"/control", "GET"},
                           {"/control/faults", "GET, POST, DELETE"},
                           {"/control/faults/7", "DELETE"},
                           {"/control/faults/kinds", "GET"},
                           {"/control/payments", "GET"},
                           {"/control/exchanges", "GET, DELETE"},
                           {"/control/reset", "POST"},
                           {"/control/keys", "GET"},
                           {"/control/keys/rotate", "POST"},
                           {"/control/accounts", "POST"},
                           {"/control/clock", "POST"}}) {
        for (char const* method : {"GET", "POST", "DELETE", "PUT", "PATCH", "OPTIONS"}) {
            if (std::string(row.m_Allowed).find(method) != std::string::npos) {
                continue;
            }
            RawResponse const response = ask(bareRequest(method, row.m_Path));
            EXPECT_EQ(response.m_Status, 405) << method << row.m_Path;
            EXPECT_EQ(response.m_Headers.at("allow"), row.m_Allowed);
            EXPECT_THAT(json::parse(response.m_Body).at("error").get<std::string>(), HasSubstr(method));
        }
    }
}

TEST_F(Control, RefusesBodiesThatAreTooLarge) {
    EXPECT_EQ(ask(jsonPost("/control/faults", std::string(1024 * 1024 + 1, ' '))).m_Status, 413);
    EXPECT_THAT(error(jsonPost("/control/faults", std::string(1024 * 1024, ' ')), 400), HasSubstr("not valid JSON"));
}

}  // namespace
