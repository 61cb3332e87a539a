// Scenarios and snapshots: what is armed together, what a text with a mistake is refused for, and that going back to a
// snapshot brings everything back: payments, exchanges, keys, clocks, faults and standing decisions.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "sandbox/store/database.h"
#include "tests/sandbox/support/sandboxfixture.h"

namespace {

using namespace sandboxtest;
using nlohmann::json;
using ::testing::HasSubstr;

class Scenarios : public SandboxTest {
protected:
    json ask(std::string const& method, std::string const& target, int status = 200,
             std::string const& text = "") const {
        std::string const request = method == "POST" ? jsonPost("/control" + target, text.empty() ? "{}" : text)
                                                     : bareRequest(method, "/control" + target);
        RawResponse const response = parseResponse(exchangeRaw(m_Service->addresses().m_Control.m_Port, request));
        EXPECT_EQ(response.m_Status, status) << response.m_Body;
        return json::parse(response.m_Body);
    }

    std::string pay(std::string const& token) const {
        return press(openPage(m_Merchant.payInit(token)), "pay").m_Headers["location"];
    }

    std::string capture(std::string const& token) const {
        return reasonOf(askCapture(m_Merchant.message("PayConfirm", " TOKEN=\"" + token + "\"")));
    }

    /// Everything that a snapshot holds.
    json state() const {
        json const service = ask("GET", "");
        return {{"key", service.at("serverKeyId")},      {"clock", service.at("clock")},
                {"counts", service.at("counts")},        {"payments", ask("GET", "/payments")},
                {"exchanges", ask("GET", "/exchanges")}, {"armed", ask("GET", "/scenario")}};
    }
};

using Snapshots = Scenarios;

constexpr char kThirdCapture[] = R"({"account": "demo", "steps": [
    {"kind": "error", "exchange": "capture", "skip": 2, "text": "late"},
    {"decision": "decline", "order": "M-*"}]})";

TEST_F(Scenarios, ArmFaultsAndStandingDecisionsTogether) {
    json const armed = ask("POST", "/scenario", 201, kThirdCapture);
    EXPECT_EQ(armed.at("faults").at(0).at("account"), "demo");
    EXPECT_EQ(armed.at("faults").at(0).at("skip"), 2);
    EXPECT_EQ(armed.at("decisions").at(0).at("account"), "demo");
    for (char const* const token : {"t1", "t2", "t3", "t4"}) {
        pay(token);
        EXPECT_EQ(capture(token), token == std::string("t3") ? "late" : "") << token;
    }
    std::string const declined = " TOKEN=\"m\" ORDERID=\"M-1\" EXPIRATION=\"20991231 23:59:59\"";
    openPage(m_Merchant.bareInit(declined));
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service).back().m_State, sandbox::PaymentState::kDeclined);
}

TEST_F(Scenarios, AreShownAsWhatIsLeftOfThem) {
    ask("POST", "/scenario", 201, R"({"steps": [
        {"kind": "error", "exchange": "capture", "skip": 1, "times": 3, "account": "demo"},
        {"kind": "drop", "order": "none", "times": "always"},
        {"decision": "pay", "skip": 2, "times": 2}]})");
    pay("t1");
    capture("t1");
    capture("t1");
    json const left = ask("GET", "/scenario");
    EXPECT_EQ(left, json::parse(R"({"steps": [
        {"kind": "error", "exchange": "capture", "times": 2, "account": "demo", "order": ""},
        {"kind": "drop", "exchange": "any", "order": "none", "times": "always"},
        {"decision": "pay", "account": "", "order": "", "amount": "", "skip": 1, "times": 2}]})"));
    ask("POST", "/reset");
    ask("POST", "/scenario", 201, left.dump());
    EXPECT_EQ(ask("GET", "/scenario"), left) << "it can be armed again";
}

TEST_F(Scenarios, AreRefusedWithThePlaceOfTheMistake) {
    struct {
        char const* m_Text;
        char const* m_Reason;
    } const refused[] = {
        {"{\"steps\": [\n  {\"kind\" \"drop\"}]}", "not valid JSON: error at byte 28, line 2, column 16"},
        {"{", "line 1, column 2"},
        {"[]", "not a JSON object"},
        {"{}", "'steps' is required"},
        {R"({"steps": {}})", "'steps' is required"},
        {R"({"step": []})", "unknown member 'step'"},
        {R"({"account": 1, "steps": []})", "'account' is required and must be a string"},
        {R"({"steps": [7]})", "step 1: a step is an object"},
        {R"({"steps": [{"kind": "drop"}, {"kind": "drop", "decision": "pay"}]})", "step 2: a step is"},
        {R"({"steps": [{"kind": "drop"}, {"kind": "dorp"}]})", "step 2: unknown fault 'dorp'"},
        {R"({"steps": [{"kind": "drop"}, {"kind": "drop", "skip": -1}]})", "step 2: a fault's skip must be"},
        {R"({"steps": [{"kind": "drop"}, {"decision": "pay", "orders": "x"}]})", "step 2: unknown member 'orders'"},
        {R"({"account": "a", "steps": [{"kind": "refuse"}]})", "step 1: refuse occurs before"},
    };
    for (auto const& row : refused) {
        EXPECT_THAT(ask("POST", "/scenario", 400, row.m_Text).at("error").get<std::string>(), HasSubstr(row.m_Reason));
    }
    EXPECT_EQ(ask("GET", "/scenario").at("steps").size(), 0u) << "nothing was armed";
}

TEST_F(Scenarios, ComeFromAFileAtTheStart) {
    sandbox::Options with = options();
    with.m_ScenarioFile = m_Directory.path() + "/scenario.json";
    std::ofstream(with.m_ScenarioFile) << kThirdCapture;
    restart(with);
    EXPECT_EQ(ask("GET", "/scenario").at("steps").size(), 2u);
    std::ofstream(with.m_ScenarioFile) << "{\"steps\": [{\"kind\": \"drop\"}, 7]}";
    auto const reason = [this, &with] {
        try {
            restart(with);
            return std::string();
        } catch (std::runtime_error const& error) {
            return std::string(error.what());
        }
    };
    EXPECT_THAT(reason(), HasSubstr("scenario.json: step 2: a step is an object"));
    with.m_ScenarioFile += ".missing";
    EXPECT_THAT(reason(), HasSubstr("cannot read the scenario " + with.m_ScenarioFile));
}

TEST_F(Snapshots, BringEverythingBack) {
    pay("t1");
    ask("POST", "/clock", 200, R"({"ahead": 100})");
    ask("POST", "/clock", 200, R"({"frozen": true, "account": "demo"})");
    ask("POST", "/scenario", 201, kThirdCapture);
    EXPECT_EQ(ask("POST", "/snapshots/paid", 201).at("name"), "paid");
    json const before = state();

    ask("POST", "/accounts", 201, R"({"user": "other", "password": "p"})");
    ask("POST", "/clock", 200, R"({"account": "demo", "ahead": null})");
    ask("POST", "/keys/rotate", 201);
    pay("t2");
    EXPECT_EQ(capture("t1"), "");
    ask("POST", "/reset");
    EXPECT_NE(state(), before);

    EXPECT_EQ(ask("POST", "/snapshots/paid/restore").at("name"), "paid");
    EXPECT_EQ(state(), before);
    EXPECT_EQ(capture("t1"), "") << "the first of the scenario again";
    EXPECT_NE(state(), before);
    restart();
    ask("POST", "/snapshots/paid/restore");
    EXPECT_EQ(state(), before) << "snapshots outlast the process";
    EXPECT_EQ(capture("t1"), "");
    EXPECT_NE(pay("t3"), "") << "the key signs";
}

TEST_F(Snapshots, SendTheNotificationsThatWerePending) {
    std::string const dead = " NOTIFYADDRESS=\"http://127.0.0.1:1/\"";
    sandbox::Options patient = options();
    patient.m_NotificationBackoff = {std::chrono::hours(1)};
    restart(patient);
    publishKey();
    EXPECT_EQ(press(openPage(m_Merchant.payInit("t1", dead)), "pay").m_Status, 302);
    EXPECT_TRUE(comesTrue([this] { return sandboxtest::notificationsOf(*m_Service).at(0).m_Attempts == 1; }));
    ask("POST", "/snapshots/waiting", 201);
    ask("POST", "/reset");
    EXPECT_EQ(press(openPage(m_Merchant.payInit("t2", dead)), "pay").m_Status, 302);
    ask("POST", "/snapshots/waiting/restore");
    EXPECT_TRUE(comesTrue([this] { return sandboxtest::notificationsOf(*m_Service).at(0).m_Attempts == 2; }));
    EXPECT_EQ(press(openPage(m_Merchant.payInit("t3", " NOTIFYADDRESS=\"m@localhost\"")), "pay").m_Status, 302);
    EXPECT_TRUE(comesTrue([this] { return !sandboxtest::notificationsOf(*m_Service).back().m_Pending; }))
        << "new ones as well";
}

TEST_F(Snapshots, AreListedReplacedAndRemoved) {
    EXPECT_EQ(ask("GET", "/snapshots").at("snapshots"), json::array());
    ask("POST", "/snapshots/b", 201);
    ask("POST", "/snapshots/a", 201);
    pay("t1");
    ask("POST", "/snapshots/b", 200);
    json const listed = ask("GET", "/snapshots").at("snapshots");
    ASSERT_EQ(listed.size(), 2u);
    EXPECT_EQ(listed.at(0).at("name"), "a");
    EXPECT_GT(listed.at(1).at("bytes"), 4096);
    EXPECT_EQ(listed.at(1).at("time").get<std::string>().size(), 20u);
    ask("POST", "/snapshots/a/restore");
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service).size(), 0u);
    ask("POST", "/snapshots/b/restore");
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service).size(), 1u);
    EXPECT_EQ(ask("DELETE", "/snapshots/a").at("snapshots").size(), 1u);
    ask("DELETE", "/snapshots/a", 404);
    ask("POST", "/snapshots/a/restore", 404);
    for (char const* const name : {".a", "a%2fb", "..", "a~b"}) {
        ask("POST", std::string("/snapshots/") + name, 400);
    }
    ask("POST", "/snapshots/" + std::string(65, 'a'), 400);
    ask("POST", "/snapshots/" + std::string(64, 'a'), 201);
}

TEST_F(Snapshots, AreLimitedInNumber) {
    for (int i = 0; i < 20; ++i) {
        ask("POST", "/snapshots/n" + std::to_string(i), 201);
    }
    EXPECT_THAT(ask("POST", "/snapshots/more", 409).at("error").get<std::string>(), HasSubstr("20 snapshots already"));
    ask("POST", "/snapshots/n7", 200);
}

TEST_F(Snapshots, OfALaterLayoutAreRefusedAndChangeNothing) {
    ask("POST", "/snapshots/later", 201);
    {
        sandbox::Database file(m_Directory.path() + "/snapshots/later.db");
        file.execute("PRAGMA user_version = 99");
    }
    pay("t1");
    EXPECT_THAT(ask("POST", "/snapshots/later/restore", 500).at("error").get<std::string>(), HasSubstr("layout 99"));
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service).size(), 1u);
}

TEST_F(Snapshots, AreConsistentWhilePaymentsAreMade) {
    std::thread shopper([this] {
        for (int i = 0; i < 20; ++i) {
            pay("t" + std::to_string(i));
        }
    });
    for (int i = 0; i < 5; ++i) {
        ask("POST", "/snapshots/n" + std::to_string(i), 201);
    }
    shopper.join();
    for (int i = 0; i < 5; ++i) {
        ask("POST", "/snapshots/n" + std::to_string(i) + "/restore");
        for (sandbox::Payment const& payment : sandboxtest::paymentsOf(*m_Service)) {
            EXPECT_EQ(payment.m_State == sandbox::PaymentState::kOpened, payment.m_History.size() == 1);
        }
        EXPECT_EQ(ask("GET", "").at("counts").at("payments"), sandboxtest::paymentsOf(*m_Service).size());
    }
}

}  // namespace
