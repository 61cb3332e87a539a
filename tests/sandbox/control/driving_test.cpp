// Driving the service from a test: decisions and waits by the control API, standing decisions, repeated notifications,
// seeded identifiers, the frozen clock.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "sandbox/service/standingdecisions.h"
#include "tests/sandbox/support/sandboxfixture.h"

namespace {

using namespace sandboxtest;
using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class Driving : public SandboxTest {
protected:
    struct Answer {
        int m_Status;
        json m_Body;
    };

    Answer ask(std::string const& method, std::string const& target, json const& body = nullptr) const {
        std::string const text = body.is_null() ? "" : body.dump();
        std::string const request =
            method + " /control" + target +
            " HTTP/1.0\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(text.size()) +
            "\r\n\r\n" + text;
        RawResponse const response = parseResponse(exchangeRaw(m_Service->addresses().m_Control.m_Port, request));
        return {response.m_Status, json::parse(response.m_Body)};
    }

    std::string open(std::string const& token, std::string const& more = "") const {
        EXPECT_EQ(openPage(m_Merchant.payInit(token, more)).m_Status, 200);
        return sandboxtest::paymentsOf(*m_Service).back().m_Id;
    }

    Answer decide(std::string const& which, std::string const& decision) const {
        return ask("POST", "/payments" + which, {{"decision", decision}});
    }
};

TEST_F(Driving, DecidesAPaymentByIdOrderOrToken) {
    std::string const id = open("t1");
    Answer const paid = decide("/" + id + "/decision", "pay");
    ASSERT_EQ(paid.m_Status, 200) << paid.m_Body;
    EXPECT_EQ(paid.m_Body.at("id"), id);
    EXPECT_EQ(paid.m_Body.at("state"), "authorised");
    EXPECT_EQ(paid.m_Body.at("result"), "authorised");
    EXPECT_EQ(paid.m_Body.at("fault"), "");
    std::string const data = paid.m_Body.at("data");
    std::string const signature = paid.m_Body.at("signature");
    EXPECT_EQ(paid.m_Body.at("link"),
              "http://shop.example/ok?DATA=" + percentEncoded(data) + "&SIGNATURE=" + signature);
    EXPECT_EQ(attributeOf(data, "TOKEN"), "t1");
    std::string const blob = attributeOf(
        askAuto("<KVX MSGTYPE=\"KeyQueryRequest\" KEYID=\"" + m_Service->services().m_Keys.current()->m_Id + "\"/>"),
        "KEYBLOB");
    EXPECT_TRUE(verifies(blob, data, signature));
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_History.back().m_Note, "the control API chose pay");
    EXPECT_EQ(decide("/" + id + "/decision", "pay").m_Body, paid.m_Body) << "again is harmless";

    open("t2");
    EXPECT_EQ(decide("/decision?order=A-17", "decline").m_Body.at("id"), sandboxtest::paymentsOf(*m_Service)[1].m_Id)
        << "the newest with this order";
    open("t3");
    EXPECT_EQ(decide("/decision?token=t3", "cancel").m_Body.at("result"), "cancelled");
}

TEST_F(Driving, RefusesDecisionsThatCannotBe) {
    std::string const id = open("t1");
    EXPECT_EQ(decide("/P0/decision", "pay").m_Status, 404);
    EXPECT_EQ(decide("/decision?order=B", "pay").m_Status, 404);
    EXPECT_EQ(decide("/decision", "pay").m_Status, 400);
    EXPECT_EQ(decide("/" + id + "/decision?token=t1", "pay").m_Status, 400);
    EXPECT_EQ(decide("/" + id + "/decision", "refund").m_Status, 400);
    EXPECT_EQ(ask("POST", "/payments/" + id + "/decision", json::object()).m_Status, 400);
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_State, sandbox::PaymentState::kOpened);
    EXPECT_EQ(decide("/" + id + "/decision", "decline").m_Status, 200);
    Answer const late = decide("/" + id + "/decision", "pay");
    EXPECT_EQ(late.m_Status, 409);
    EXPECT_EQ(late.m_Body.at("error"), "the payment is declined already");
}

TEST_F(Driving, AppliesFaultsOfMessagesToDecisionsAndNoOthers) {
    std::string const id = open("t1");
    m_Service->services().m_Faults.arm(sandbox::parseFault("drop,exchange=decision"));
    m_Service->services().m_Faults.arm(sandbox::parseFault("replay"));
    m_Service->services().m_Faults.arm(sandbox::parseFault("wrong-amount"));
    Answer const paid = decide("/" + id + "/decision", "pay");
    EXPECT_EQ(paid.m_Body.at("fault"), "wrong-amount");
    EXPECT_EQ(paid.m_Body.at("steps"),
              json::array({"The fault replay did not happen: the account has no earlier payment that was paid"}));
    EXPECT_EQ(attributeOf(paid.m_Body.at("data"), "AMOUNT"), "22.50");
    EXPECT_EQ(m_Service->services().m_Faults.armed().size(), 2u);
}

TEST_F(Driving, ShowsOnePayment) {
    std::string const id = open("t1", " NOTIFYADDRESS=\"shop@example\"");
    decide("/" + id + "/decision", "pay");
    // Both answers below show the notification, which changes until it is done with.
    EXPECT_EQ(ask("GET", "/payments/" + id + "?until=notified&seconds=60").m_Status, 200);
    Answer const found = ask("GET", "/payments/" + id);
    EXPECT_EQ(found.m_Status, 200);
    EXPECT_EQ(found.m_Body, ask("GET", "/payments?id=" + id).m_Body.at("payments").at(0));
    EXPECT_EQ(found.m_Body.at("notifications").size(), 1u);
    EXPECT_EQ(ask("GET", "/payments/P0").m_Status, 404);
}

TEST_F(Driving, WaitsUntilAPaymentHasCome) {
    std::string const id = open("t1", " NOTIFYADDRESS=\"shop@example\"");
    std::future<Answer> captured =
        std::async(std::launch::async, [&] { return ask("GET", "/payments/" + id + "?until=captured&seconds=60"); });
    decide("/" + id + "/decision", "pay");
    Answer const notified = ask("GET", "/payments/" + id + "?until=notified&seconds=60");
    EXPECT_EQ(notified.m_Status, 200);
    EXPECT_EQ(notified.m_Body.at("notifications").at(0).at("pending"), false);
    EXPECT_EQ(reasonOf(askCapture(m_Merchant.message("PayConfirm", " TOKEN=\"t1\""))), "");
    EXPECT_EQ(captured.get().m_Body.at("state"), "captured");
    EXPECT_EQ(ask("GET", "/payments/" + id + "?until=authorised&seconds=0").m_Status, 200) << "it has been that";
}

TEST_F(Driving, FindsTheNewestPaymentByOrderOrToken) {
    open("t1");
    std::string const id = open("t2");
    EXPECT_EQ(ask("GET", "/payments/newest?order=A-17").m_Body.at("id"), id);
    EXPECT_EQ(ask("GET", "/payments/newest?token=t2&account=demo").m_Body, ask("GET", "/payments/" + id).m_Body);
    EXPECT_EQ(ask("GET", "/payments/newest?token=t2&account=other").m_Status, 404);
    EXPECT_EQ(decide("/decision?order=A-17&account=other", "pay").m_Status, 404);
    EXPECT_EQ(decide("/decision?order=A-17&account=demo", "pay").m_Body.at("id"), id);
    EXPECT_EQ(ask("GET", "/payments/newest?order=A-17&until=authorised&seconds=0").m_Body.at("id"), id);
    for (char const* const query : {"", "?order=A-17&token=t2", "?ordre=A-17", "?account=demo"}) {
        EXPECT_EQ(ask("GET", std::string("/payments/newest") + query).m_Status, 400) << query;
    }
    EXPECT_EQ(ask("GET", "/payments/" + id + "?untill=captured").m_Status, 400);
}

TEST_F(Driving, WaitsForAPaymentThatIsNotThereYet) {
    std::future<Answer> opened =
        std::async(std::launch::async, [&] { return ask("GET", "/payments/newest?token=t1&until=opened&seconds=60"); });
    open("t1");
    EXPECT_EQ(opened.get().m_Body.at("token"), "t1");
    EXPECT_EQ(ask("GET", "/payments/newest?token=t2&until=opened&seconds=0").m_Status, 404);
}

TEST_F(Driving, GivesUpWaiting) {
    std::string const id = open("t1");
    Answer const late = ask("GET", "/payments/" + id + "?until=captured&seconds=0");
    EXPECT_EQ(late.m_Status, 409);
    EXPECT_EQ(late.m_Body.at("error"), "the payment is opened, not captured, after 0 seconds");
    EXPECT_EQ(ask("GET", "/payments/" + id + "?until=notified&seconds=0").m_Status, 409);
    for (char const* const query :
         {"?until=paid", "?until=", "?until=captured&seconds=61", "?seconds=-1", "?seconds=x"}) {
        EXPECT_EQ(ask("GET", "/payments/" + id + query).m_Status, 400) << query;
    }
    EXPECT_EQ(ask("GET", "/payments/P0?until=captured").m_Status, 404);
}

TEST_F(Driving, EndsWaitsWhenTheServiceStops) {
    std::string const id = open("t1");
    RawConnection const connection(m_Service->addresses().m_Control.m_Port);
    connection.send("GET /control/payments/" + id + "?until=captured&seconds=60 HTTP/1.0\r\n\r\n");
    auto const begin = std::chrono::steady_clock::now();
    m_Service->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
}

TEST_F(Driving, DecidesByStandingDecisions) {
    json const first = ask("POST", "/decisions", {{"decision", "decline"}, {"order", "B-*"}}).m_Body;
    EXPECT_EQ(first, (json{{"id", 1},
                           {"decision", "decline"},
                           {"times", "always"},
                           {"happened", 0},
                           {"account", ""},
                           {"order", "B-*"},
                           {"amount", ""}}));
    ask("POST", "/decisions", {{"decision", "cancel"}, {"account", "other"}});
    ask("POST", "/decisions", {{"decision", "pay"}, {"amount", "12.50"}, {"account", "demo"}});
    EXPECT_EQ(ask("GET", "/decisions").m_Body.at("decisions").size(), 3u);
    RawResponse const paid = openPage(m_Merchant.payInit("t1"));
    EXPECT_EQ(paid.m_Status, 302);
    EXPECT_THAT(paid.m_Headers.at("location"), StartsWith("http://shop.example/ok?DATA="));
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_History.back().m_Note, "standing decision 3: pay");
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).back().m_Verdict, "ok");
    std::string const common = " EXPIRATION=\"20991231 23:59:59\" FAILLINK=\"http://shop.example/no\"";
    RawResponse const declined = openPage(m_Merchant.bareInit(" TOKEN=\"t2\" ORDERID=\"B-1\"" + common));
    EXPECT_THAT(declined.m_Headers.at("location"), StartsWith("http://shop.example/no?DATA="));
    EXPECT_EQ(openPage(m_Merchant.bareInit(" TOKEN=\"t3\" ORDERID=\"C-1\"" + common)).m_Status, 200) << "none fits";
    EXPECT_EQ(ask("DELETE", "/decisions/3").m_Body.at("decisions").size(), 2u);
    EXPECT_EQ(ask("DELETE", "/decisions/3").m_Status, 404);
    EXPECT_EQ(openPage(m_Merchant.payInit("t4")).m_Status, 200);
    EXPECT_EQ(ask("DELETE", "/decisions").m_Body.at("decisions").size(), 0u);
    EXPECT_EQ(ask("POST", "/decisions", {{"decision", "pay"}, {"orders", "x"}}).m_Status, 400);
    EXPECT_EQ(ask("POST", "/decisions", {{"order", "x"}}).m_Status, 400);
}

TEST_F(Driving, CountsThePaymentsOfAStandingDecision) {
    json const second = {{"decision", "decline"}, {"order", "A-17"}, {"skip", 1}, {"times", 1}};
    EXPECT_EQ(ask("POST", "/decisions", second).m_Body.at("skip"), 1);
    ask("POST", "/decisions", {{"decision", "pay"}, {"times", 2}});
    auto const statusOf = [this](char const* token) { return openPage(m_Merchant.payInit(token)).m_Status; };
    EXPECT_EQ(statusOf("t1"), 302);
    EXPECT_EQ(statusOf("t2"), 302);
    EXPECT_EQ(ask("GET", "/decisions").m_Body.at("decisions").size(), 1u);
    EXPECT_EQ(statusOf("t3"), 302);
    EXPECT_EQ(statusOf("t4"), 200);
    EXPECT_EQ(ask("GET", "/decisions").m_Body.at("decisions").size(), 0u);
    std::vector<sandbox::PaymentState> states;
    for (sandbox::Payment const& payment : sandboxtest::paymentsOf(*m_Service)) {
        states.push_back(payment.m_State);
    }
    using State = sandbox::PaymentState;
    EXPECT_EQ(states, (std::vector<State>{State::kAuthorised, State::kDeclined, State::kAuthorised, State::kOpened}));
    ask("POST", "/decisions", second);
    EXPECT_EQ(statusOf("t4"), 200);
    EXPECT_EQ(statusOf("t4"), 200) << "the same payment is not counted twice";
    EXPECT_EQ(statusOf("t5"), 302);
    for (json const& wrong : {json{{"times", 0}}, json{{"times", 1001}}, json{{"skip", -1}}, json{{"skip", "1"}}}) {
        json decision = wrong;
        decision["decision"] = "pay";
        EXPECT_EQ(ask("POST", "/decisions", decision).m_Status, 400) << wrong;
    }
}

TEST_F(Driving, RemovesStandingDecisionsByAccountAndWithAReset) {
    for (char const* const account : {"demo", "other", ""}) {
        ask("POST", "/decisions", {{"decision", "pay"}, {"account", account}});
    }
    EXPECT_EQ(ask("GET", "/decisions?account=demo").m_Body.at("decisions").size(), 1u);
    EXPECT_EQ(ask("DELETE", "/decisions?account=other").m_Body.at("decisions").size(), 0u);
    EXPECT_EQ(ask("DELETE", "/decisions?acount=other").m_Status, 400);
    ask("POST", "/reset", {{"account", "demo"}});
    json const left = ask("GET", "/decisions").m_Body.at("decisions");
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left.at(0).at("account"), "");
    ask("POST", "/reset", json::object());
    EXPECT_EQ(ask("GET", "/decisions").m_Body.at("decisions").size(), 0u);
}

TEST_F(Driving, AppliesFaultsToStandingDecisions) {
    ask("POST", "/decisions", {{"decision", "pay"}});
    m_Service->services().m_Faults.arm(sandbox::parseFault("pending"));
    std::string const location = openPage(m_Merchant.payInit("t1")).m_Headers.at("location");
    EXPECT_EQ(attributeOf(percentDecoded(queryValue(location, "DATA")), "RESULT"), "pending");
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_State, sandbox::PaymentState::kPending);
}

TEST(OrderPattern, HasStarsAndQuestionMarks) {
    for (char const* const pattern : {"A-17", "*", "A*", "*7", "A-1?", "A*1*", "?-??", "**A-17**"}) {
        EXPECT_TRUE(sandbox::fitsPattern(pattern, "A-17")) << pattern;
    }
    for (char const* const pattern : {"", "A-1", "A-177", "B*", "*8", "A-17?", "?", "A*8*7"}) {
        EXPECT_FALSE(sandbox::fitsPattern(pattern, "A-17")) << pattern;
    }
    EXPECT_TRUE(sandbox::fitsPattern("*ab", "aab"));
    EXPECT_TRUE(sandbox::fitsPattern("*", ""));
    EXPECT_TRUE(sandbox::fitsPattern("[A]\\*", "[A]\\17")) << "brackets and backslashes stand for themselves";
    EXPECT_FALSE(sandbox::fitsPattern("[A]", "A"));
}

TEST_F(Driving, ListsAndRepeatsNotifications) {
    std::string const id = open("t1", " NOTIFYADDRESS=\"shop@example\"");
    decide("/" + id + "/decision", "pay");
    ask("GET", "/payments/" + id + "?until=notified&seconds=60");
    Answer const again = ask("POST", "/notifications/1/resend");
    EXPECT_EQ(again.m_Status, 201);
    EXPECT_EQ(again.m_Body.at("number"), 2);
    EXPECT_EQ(again.m_Body.at("result"), "authorised");
    ask("GET", "/payments/" + id + "?until=notified&seconds=60");
    json const all = ask("GET", "/notifications?payment=" + id).m_Body.at("notifications");
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all.at(1).at("outcome"), "not sent: it would be mailed to shop@example");
    EXPECT_EQ(ask("GET", "/notifications").m_Body.at("notifications"), all);
    EXPECT_EQ(ask("GET", "/notifications?payment=P0").m_Body.at("notifications").size(), 0u);
    EXPECT_EQ(ask("POST", "/notifications/9/resend").m_Status, 404);
}

TEST_F(Driving, MakesTheSameIdentifiersOfTheSameSeed) {
    auto const identifiers = [this](std::string const& seed) {
        kvxtest::TemporaryDirectory const directory;
        sandbox::Options seeded = options();
        seeded.m_DataDirectory = directory.path();
        seeded.m_Seed = seed;
        restart(seeded);
        publishKey();
        std::vector<std::string> found = {open("t1")};
        restart(seeded);
        found.push_back(open("t2"));
        m_Service->stop();
        return found;
    };
    std::vector<std::string> const first = identifiers("one");
    EXPECT_EQ(identifiers("one"), first);
    EXPECT_NE(identifiers("two"), first);
    EXPECT_NE(first[0], first[1]);
    EXPECT_EQ(first[0].size(), 17u);
    EXPECT_NE(identifiers(""), identifiers(""));
}

TEST_F(Driving, FreezesAndStepsTheClockAndKeepsItOverARestart) {
    auto const clock = [this] { return ask("GET", "").m_Body.at("clock"); };
    ask("POST", "/clock", {{"frozen", true}});
    m_Now += 100;
    EXPECT_EQ(clock(), (json{{"present", "2023-11-14T22:13:20Z"}, {"ahead", -100}, {"frozen", true}}));
    ask("POST", "/clock", {{"step", 3600}});
    restart();
    EXPECT_EQ(clock(), (json{{"present", "2023-11-14T23:13:20Z"}, {"ahead", 3500}, {"frozen", true}}));
    ask("POST", "/clock", {{"frozen", false}});
    m_Now += 1;
    EXPECT_EQ(clock(), (json{{"present", "2023-11-14T23:13:21Z"}, {"ahead", 3500}, {"frozen", false}}));
    restart();
    EXPECT_EQ(clock().at("ahead"), 3500);
    ask("POST", "/clock", {{"ahead", 0}});
    EXPECT_EQ(clock(), (json{{"present", "2023-11-14T22:15:01Z"}, {"ahead", 0}, {"frozen", false}}));
    for (json const& wrong : {json::object(), json{{"frozen", 1}}, json{{"step", 1}, {"ahead", 1}},
                              json{{"step", 99999999999}}, json{{"steps", 1}}}) {
        EXPECT_EQ(ask("POST", "/clock", wrong).m_Status, 400) << wrong;
    }
}

}  // namespace
