// Two test suites at the same service at the same time, each with an account of its own. Both use the same tokens and
// orders, and arm scenarios, set clocks and reset what is theirs. Neither may notice the other.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/sandbox/support/sandboxfixture.h"

namespace {

using namespace sandboxtest;
using nlohmann::json;

constexpr int kRounds = 15;

class Suites : public SandboxTest {
protected:
    json control(std::string const& request, int status = 200) const {
        RawResponse const response = parseResponse(exchangeRaw(m_Service->addresses().m_Control.m_Port, request));
        EXPECT_EQ(response.m_Status, status) << response.m_Body;
        return json::parse(response.m_Body);
    }

    [[nodiscard]] json listed(std::string const& list, std::string const& filter) const {
        return control(bareRequest("GET", "/control/" + list + "?limit=1000&" + filter)).at(list);
    }

    /// One suite, whose captures fail when `failing`.
    void run(std::string const& account, bool failing) const {
        TestMerchant const merchant("key-of-" + account);
        control(jsonPost("/control/accounts", json{{"user", account}, {"password", "p"}}.dump()), 201);
        askAuto(merchant.message("KeyExportRequest", " KEYBLOB=\"" + merchant.blob() + "\""), account, "p");
        for (int round = 0; round < kRounds; ++round) {
            playRound(account, merchant, failing);
            ASSERT_FALSE(HasFailure()) << account << ", round " << round;
        }
    }

    void playRound(std::string const& account, TestMerchant const& merchant, bool failing) const {
        std::string const mine = "account=" + account;
        if (failing) {
            json const fault = {{"kind", "error"},
                                {"exchange", "capture"},
                                {"order", "A-17"},
                                {"times", "always"},
                                {"text", "not for " + account}};
            json const decision = {{"decision", "decline"}, {"order", "A-1?"}, {"skip", 2}};
            json const scenario = {{"account", account}, {"steps", {fault, decision}}};
            control(jsonPost("/control/scenario", scenario.dump()), 201);
        }
        // A payment that expires by this suite's clock, and one that is paid and captured.
        std::string const late = " TOKEN=\"late\" ORDERID=\"A-18\" EXPIRATION=\"20231114 23:13:20\"";
        EXPECT_EQ(get("/pay" + merchant.signedQuery(merchant.bareInit(late))).m_Status, 200);
        RawResponse const back = press(get("/pay" + merchant.signedQuery(merchant.payInit("t1"))), "pay");
        EXPECT_EQ(back.m_Status, 302) << back.m_Body;
        std::string const capture = merchant.message("PayConfirm", " TOKEN=\"t1\" ORDERID=\"A-17\"");
        std::string const answer = get("/capture" + merchant.signedQuery(capture)).m_Body;
        EXPECT_EQ(reasonOf(answer), failing ? "not for " + account : "");
        if (!failing) {
            control(jsonPost("/control/clock", json{{"account", account}, {"ahead", 3601}}.dump()));
        }
        json const paid = listed("payments", mine + "&order=A-17");
        ASSERT_EQ(paid.size(), 1u);
        EXPECT_EQ(paid.at(0).at("state"), failing ? "authorised" : "captured");
        json const open = listed("payments", mine + "&token=late");
        ASSERT_EQ(open.size(), 1u);
        EXPECT_EQ(open.at(0).at("state"), failing ? "opened" : "expired");
        // The third payment of the failing suite is declined by its scenario; the other suite's stays open.
        std::string const third = " TOKEN=\"t3\" ORDERID=\"A-19\" EXPIRATION=\"20991231 23:59:59\"";
        EXPECT_LT(get("/pay" + merchant.signedQuery(merchant.bareInit(third))).m_Status, 400);
        json const newest = control(bareRequest("GET", "/control/payments/newest?order=A-19&" + mine));
        EXPECT_EQ(newest.at("state"), failing ? "declined" : "opened");
        EXPECT_EQ(newest.at("account"), account);
        std::vector<std::string> kinds;
        json const exchanges = listed("exchanges", mine + "&order=A-17");
        for (json const& exchange : exchanges) {
            kinds.push_back(exchange.at("kind").get<std::string>());
            EXPECT_EQ(exchange.at("payment"), paid.at(0).at("id"));
        }
        EXPECT_EQ(kinds, (std::vector<std::string>{"page", "decision", "capture"}));
        EXPECT_EQ(listed("exchanges", "payment=" + paid.at(0).at("id").get<std::string>()).size(), 3u);
        control(jsonPost("/control/reset", json{{"account", account}}.dump()));
        EXPECT_TRUE(listed("payments", mine).empty());
        EXPECT_TRUE(listed("exchanges", mine).empty());
    }
};

TEST_F(Suites, WithEqualOrdersInParallelDoNotMeet) {
    openPage(m_Merchant.payInit("t1"));
    json const before = listed("payments", "account=demo");
    auto one = std::async(std::launch::async, [this] { run("one", true); });
    run("two", false);
    one.get();
    EXPECT_EQ(listed("payments", "account=demo"), before) << "no suite touches a third account";
    EXPECT_EQ(listed("exchanges", "account=demo").size(), 2u);
    EXPECT_TRUE(m_Service->services().m_Faults.armed().empty());
}

}  // namespace
