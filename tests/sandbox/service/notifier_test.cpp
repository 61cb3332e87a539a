// Notifications to a merchant's server that plays scripts: delivery, retries, order, parallel hosts, faults, restart,
// stop. Times are short and given to the service. Every wait ends at a condition or at the test's limit, none after a
// fixed time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "sandbox/service/notifier.h"
#include "tests/sandbox/support/sandboxfixture.h"
#include "tests/support/rawserver.h"

/// Notifications: confirmations that the service sends to the merchant's NOTIFYADDRESS.
namespace {

using namespace sandboxtest;
using kvxtest::ClosedPort;
using kvxtest::Peer;
using kvxtest::RawServer;
using sandbox::ExchangeKind;
using sandbox::Notification;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

std::string responseWith(int status) {
    return "HTTP/1.1 " + std::to_string(status) + " Text\r\nContent-Length: 2\r\n\r\nok";
}

/// A merchant's server. Each request gets the next script, and the last script repeats.
class Shop {
public:
    using Script = std::function<void(Peer& peer)>;

    explicit Shop(std::vector<Script> scripts) : m_Scripts(std::move(scripts)) {}

    static Script responds(std::string response) {
        return [response = std::move(response)](Peer& peer) { peer.send(response); };
    }

    /// Sends no response until the client closes.
    static Script hangs() {
        return [](Peer& peer) { peer.receiveToEnd(); };
    }

    /// Sends no response until `released` is ready.
    static Script respondsLate(std::shared_future<void> released, std::string response) {
        return [released = std::move(released), response = std::move(response)](Peer& peer) {
            if (released.wait_for(kTimeout) == std::future_status::ready) {
                peer.send(response);
            }
        };
    }

    [[nodiscard]] std::string address() const { return "http://127.0.0.1:" + m_Server.portText() + "/notified?shop=7"; }
    [[nodiscard]] std::string hostPort() const { return "127.0.0.1:" + m_Server.portText(); }

    /// The first `count` requests as soon as they are there; fewer when the timeout passes.
    std::vector<std::string> requests(std::size_t count) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Changed.wait_for(lock, kTimeout, [this, count] { return m_Requests.size() >= count; });
        return m_Requests;
    }

    std::string request() { return requests(1).empty() ? "" : requests(1)[0]; }

private:
    void serve(Peer& peer) {
        std::string const request = peer.receiveRequest();
        Script script;
        {
            std::lock_guard<std::mutex> const lock(m_Mutex);
            m_Requests.push_back(request);
            script = m_Scripts[std::min(m_Requests.size(), m_Scripts.size()) - 1];
            m_Changed.notify_all();
        }
        script(peer);
    }

    std::vector<Script> m_Scripts;
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::vector<std::string> m_Requests;
    RawServer m_Server{[this](Peer& peer) { serve(peer); }};  ///< Last, so that it ends first.
};

class PaymentNotification : public SandboxTest {
protected:
    PaymentNotification() { restartWithBackoff({std::chrono::milliseconds(0), std::chrono::milliseconds(0)}); }

    void restartWithBackoff(std::vector<std::chrono::milliseconds> const& backoff,
                            std::chrono::milliseconds timeout = std::chrono::hours(1)) {
        sandbox::Options hurried = options();
        hurried.m_NotificationBackoff = backoff;
        hurried.m_NotificationTimeout = timeout;
        restart(hurried);
    }

    /// A payment page of an order whose merchant wants to be notified at `address`.
    [[nodiscard]] RawResponse openNotified(std::string const& address, std::string const& token = "t1") const {
        return openPage(m_Merchant.payInit(token, " NOTIFYADDRESS=\"" + address + "\""));
    }

    void payNotified(std::string const& address, std::string const& token = "t1") const {
        ASSERT_EQ(press(openNotified(address, token), "pay").m_Status, 302);
    }

    /// The notification with this number as soon as `condition` holds for it.
    [[nodiscard]] Notification await(std::function<bool(Notification const&)> const& condition,
                                     std::size_t index = 0) const {
        EXPECT_TRUE(comesTrue([&] {
            std::vector<Notification> const all = sandboxtest::notificationsOf(*m_Service);
            return all.size() > index && condition(all[index]);
        }));
        return sandboxtest::notificationsOf(*m_Service).at(index);
    }

    [[nodiscard]] Notification awaitSettled(std::size_t index = 0) const {
        return await([](Notification const& notification) { return !notification.m_Pending; }, index);
    }

    [[nodiscard]] std::vector<sandbox::Exchange> sent() const {
        std::vector<sandbox::Exchange> found;
        for (sandbox::Exchange const& exchange : sandboxtest::exchangesOf(*m_Service)) {
            if (exchange.m_Kind == ExchangeKind::kNotification) {
                found.push_back(exchange);
            }
        }
        return found;
    }

    [[nodiscard]] std::string blobOf(std::string const& keyId) const {
        return attributeOf(askAuto("<KVX MSGTYPE=\"KeyQueryRequest\" KEYID=\"" + keyId + "\"/>"), "KEYBLOB");
    }

    void arm(std::string const& fault) const { m_Service->services().m_Faults.arm(sandbox::parseFault(fault)); }
};

std::string dataOf(std::string const& request) {
    return percentDecoded(queryValue(request.substr(0, request.find(" HTTP/")), "DATA"));
}

std::string signatureOf(std::string const& request) {
    return queryValue(request.substr(0, request.find(" HTTP/")), "SIGNATURE");
}

TEST_F(PaymentNotification, ReportsEveryDecision) {
    struct Row {
        char const* m_Decision;
        char const* m_Result;
    };
    std::size_t number = 0;
    for (Row const& row : {Row{"pay", "authorised"}, Row{"decline", "declined"}, Row{"cancel", "cancelled"}}) {
        Shop shop({Shop::responds(responseWith(200))});
        ASSERT_EQ(press(openNotified(shop.address(), row.m_Decision), row.m_Decision).m_Status, 302);
        std::string const request = shop.request();
        EXPECT_THAT(request, StartsWith("GET /notified?shop=7&DATA=%3cKVX%20MSGTYPE%3d%22PayConfirm%22%20"));
        EXPECT_THAT(request, HasSubstr(" HTTP/1.0\r\nHost: " + shop.hostPort() + "\r\n"));
        std::string const data = dataOf(request);
        EXPECT_EQ(attributeOf(data, "KEYID"), m_Service->services().m_Keys.current()->m_Id);
        EXPECT_EQ(attributeOf(data, "TOKEN"), row.m_Decision);
        EXPECT_EQ(attributeOf(data, "ID"), sandboxtest::paymentsOf(*m_Service).at(number).m_Id);
        EXPECT_EQ(attributeOf(data, "AMOUNT"), "12.50");
        EXPECT_EQ(attributeOf(data, "CURRENCY"), "EUR");
        EXPECT_EQ(attributeOf(data, "ORDERID"), "A-17");
        EXPECT_EQ(attributeOf(data, "RESULT"), row.m_Result);
        EXPECT_TRUE(verifies(blobOf(m_Service->services().m_Keys.current()->m_Id), data, signatureOf(request)));
        Notification const notification = awaitSettled(number++);
        EXPECT_EQ(notification.m_Outcome, "delivered: 200");
        EXPECT_EQ(notification.m_Attempts, 1);
        EXPECT_EQ(notification.m_Result, row.m_Result);
        EXPECT_EQ(notification.m_Time, "2023-11-14T22:13:20Z");
        EXPECT_EQ(shop.requests(1).size(), 1u);
    }
}

TEST_F(PaymentNotification, MakesFaultsOfContentUnderARightSignature) {
    Shop shop({Shop::responds(responseWith(200))});
    ASSERT_EQ(openNotified("", "open").m_Status, 200);
    payNotified("", "earlier");
    arm("replay,exchange=notification");
    arm("swap,exchange=notification");
    arm("wrong-amount,exchange=notification");
    arm("wrong-result,exchange=notification");
    for (std::size_t i = 0; i < 4; ++i) {
        payNotified(shop.address(), "t" + std::to_string(i + 1));
        // A payment that is opened while a notification is sent could be the one to swap it with.
        EXPECT_FALSE(awaitSettled(i).m_Pending);
    }
    std::vector<std::string> const requests = shop.requests(4);
    std::string const blob = blobOf(m_Service->services().m_Keys.current()->m_Id);
    std::vector<std::string> said;
    for (std::string const& request : requests) {
        std::string const data = dataOf(request);
        EXPECT_TRUE(verifies(blob, data, signatureOf(request))) << data;
        said.push_back(attributeOf(data, "TOKEN") + " " + attributeOf(data, "AMOUNT") + " " +
                       attributeOf(data, "RESULT"));
    }
    // With retries none: the order within one host and port is that of the decisions.
    EXPECT_THAT(said, ::testing::ElementsAre("earlier 12.50 authorised", "open 12.50 authorised", "t3 22.50 authorised",
                                             "t4 12.50 declined"));
    EXPECT_EQ(awaitSettled(3).m_Outcome, "delivered: 200");
}

TEST_F(PaymentNotification, SaysThatThereIsNothingToReplay) {
    Shop shop({Shop::responds(responseWith(200))});
    arm("replay,exchange=notification");
    payNotified(shop.address());
    EXPECT_EQ(attributeOf(dataOf(shop.request()), "TOKEN"), "t1");
    EXPECT_EQ(awaitSettled().m_Outcome, "delivered: 200");
    ASSERT_EQ(sent().size(), 1u);
    ASSERT_EQ(sent()[0].m_Steps.size(), 1u);
    EXPECT_EQ(sent()[0].m_Steps[0].m_What, "The fault replay did not happen");
    EXPECT_EQ(m_Service->services().m_Faults.armed().size(), 1u);
}

TEST_F(PaymentNotification, ReportsThatAPaymentHasExpired) {
    Shop shop({Shop::responds(responseWith(200))});
    EXPECT_EQ(openNotified(shop.address()).m_Status, 200);
    EXPECT_TRUE(sandboxtest::notificationsOf(*m_Service).empty());
    m_Now = 5'000'000'000;
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service).at(0).m_State, sandbox::PaymentState::kExpired);
    EXPECT_EQ(attributeOf(dataOf(shop.request()), "RESULT"), "expired");
    EXPECT_EQ(awaitSettled().m_Outcome, "delivered: 200");
}

/// Payments that expire within the hour. A test sets how often the service checks its clock.
class NotificationOfExpiration : public PaymentNotification {
protected:
    NotificationOfExpiration() { restartWithClockInterval(std::chrono::hours(1)); }

    void restartWithClockInterval(std::chrono::milliseconds interval) {
        sandbox::Options others = options();
        others.m_ClockInterval = interval;
        restart(others);
    }

    void openBriefly(std::string const& address, std::string const& token = "t1") const {
        EXPECT_EQ(openPage(m_Merchant.bareInit(" TOKEN=\"" + token +
                                               "\" EXPIRATION=\"20231114 23:13:20\" NOTIFYADDRESS=\"" + address + "\""))
                      .m_Status,
                  200);
    }

    static constexpr std::time_t kPast = 1700000000 + 3601;  ///< The first second in which they are expired.
};

TEST_F(NotificationOfExpiration, ComesWithoutAnybodyLooking) {
    Shop shop({Shop::responds(responseWith(200))});
    restartWithClockInterval(std::chrono::milliseconds(5));
    openBriefly(shop.address());
    m_Now = kPast;
    EXPECT_EQ(attributeOf(dataOf(shop.request()), "RESULT"), "expired");
    EXPECT_EQ(awaitSettled().m_Outcome, "delivered: 200");
}

TEST_F(NotificationOfExpiration, ComesWhenTheClockIsSetAhead) {
    Shop shop({Shop::responds(responseWith(200))});
    openBriefly(shop.address());
    exchangeRaw(m_Service->addresses().m_Control.m_Port, jsonPost("/control/clock", R"({"ahead": 3600})"));
    EXPECT_TRUE(sandboxtest::notificationsOf(*m_Service).empty()) << "the last second is not over";
    exchangeRaw(m_Service->addresses().m_Control.m_Port, jsonPost("/control/clock", R"({"ahead": 3601})"));
    EXPECT_EQ(attributeOf(dataOf(shop.request()), "RESULT"), "expired");
}

TEST_F(NotificationOfExpiration, ComesWhenTheClockHasMoved) {
    Shop shop({Shop::responds(responseWith(200))});
    openBriefly(shop.address());
    m_Now = kPast;
    m_Service->services().m_Notifier.wake();
    EXPECT_EQ(attributeOf(dataOf(shop.request()), "RESULT"), "expired");
}

TEST_F(NotificationOfExpiration, ComesAfterTheNextStart) {
    Shop shop({Shop::responds(responseWith(200))});
    openBriefly(shop.address(), "t1");
    openBriefly(shop.address(), "t2");
    m_Service->stop();
    m_Now = kPast;
    m_Service->start();
    EXPECT_EQ(awaitSettled(0).m_Result, "expired");
    EXPECT_EQ(awaitSettled(1).m_Result, "expired");
    EXPECT_EQ(shop.requests(2).size(), 2u);
}

TEST_F(NotificationOfExpiration, DoesNotComeForWhatWasDecidedInTime) {
    Shop shop({Shop::responds(responseWith(200))});
    payNotified(shop.address(), "t1");
    EXPECT_EQ(awaitSettled(0).m_Result, "authorised");
    // The second one shows that the first one was skipped.
    openBriefly(shop.address(), "t2");
    m_Now = 5'000'000'000;
    m_Service->services().m_Notifier.wake();
    EXPECT_EQ(awaitSettled(1).m_Payment, sandboxtest::paymentsOf(*m_Service).at(1).m_Id);
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service).at(0).m_State, sandbox::PaymentState::kAuthorised);
    EXPECT_EQ(shop.requests(2).size(), 2u);
}

TEST_F(NotificationOfExpiration, ComesOnceHoweverManyLook) {
    constexpr std::size_t kPayments = 20;
    Shop shop({Shop::responds(responseWith(200))});
    for (std::size_t i = 0; i < kPayments; ++i) {
        openBriefly(shop.address(), "t" + std::to_string(i));
    }
    m_Now = kPast;
    std::vector<std::thread> lookers;
    for (int i = 0; i < 3; ++i) {
        lookers.emplace_back([this] {
            m_Service->services().m_Notifier.wake();
            static_cast<void>(sandboxtest::paymentsOf(*m_Service));
        });
    }
    for (std::thread& looker : lookers) {
        looker.join();
    }
    EXPECT_EQ(shop.requests(kPayments).size(), kPayments);
    EXPECT_EQ(awaitSettled(kPayments - 1).m_Outcome, "delivered: 200");
    EXPECT_EQ(sandboxtest::notificationsOf(*m_Service).size(), kPayments);
    for (sandbox::Payment const& payment : sandboxtest::paymentsOf(*m_Service)) {
        EXPECT_EQ(payment.m_History.size(), 2u) << payment.m_Id;
    }
}

TEST_F(PaymentNotification, ReportsNothingUnaskedAndNothingThatTheMerchantDid) {
    authorise("without");
    EXPECT_TRUE(sandboxtest::notificationsOf(*m_Service).empty());
    Shop shop({Shop::responds(responseWith(200))});
    payNotified(shop.address());
    EXPECT_EQ(awaitSettled().m_Outcome, "delivered: 200");
    std::string confirm = dataOf(shop.request());
    std::string const key = m_Service->services().m_Keys.current()->m_Id;
    confirm.replace(confirm.find(key), key.size(), m_Merchant.keyId());
    EXPECT_EQ(attributeOf(askCapture(confirm), "RESULT"), "captured");
    EXPECT_EQ(sandboxtest::notificationsOf(*m_Service).size(), 1u);
}

TEST_F(PaymentNotification, LetsTheMerchantCaptureFromWithinIt) {
    std::string captured;
    Shop shop({[&](Peer& peer) {
        captured = askCapture(m_Merchant.message("PayConfirm", " TOKEN=\"t1\""));
        peer.send(responseWith(200));
    }});
    payNotified(shop.address());
    EXPECT_EQ(awaitSettled().m_Outcome, "delivered: 200");
    EXPECT_EQ(attributeOf(captured, "RESULT"), "captured");
}

TEST_F(PaymentNotification, RecordsWhatWasSentAndAnswered) {
    Shop shop({Shop::responds(responseWith(202))});
    payNotified(shop.address() + "#part");
    EXPECT_EQ(awaitSettled().m_Outcome, "delivered: 202");
    ASSERT_EQ(sent().size(), 1u);
    sandbox::Exchange const exchange = sent()[0];
    EXPECT_EQ(exchange.m_Order, "A-17");
    EXPECT_EQ(exchange.m_Path, "http://" + shop.hostPort() + "/notified");
    EXPECT_EQ(exchange.m_Request, shop.request());
    EXPECT_EQ(exchange.m_Data, dataOf(shop.request()));
    EXPECT_EQ(exchange.m_Signature, signatureOf(shop.request()));
    EXPECT_EQ(exchange.m_Response, responseWith(202));
    EXPECT_EQ(exchange.m_Verdict, "ok");
    EXPECT_EQ(exchange.m_Fault, "");
    EXPECT_EQ(exchange.m_Time, "2023-11-14T22:13:20Z");
    EXPECT_GT(exchange.m_Microseconds, 0);
    EXPECT_THAT(shop.request(), Not(HasSubstr("part")));
}

TEST_F(PaymentNotification, AsksThreeTimes) {
    Shop shop({Shop::responds(responseWith(500))});
    payNotified(shop.address());
    Notification const notification = awaitSettled();
    EXPECT_EQ(notification.m_Outcome, "given up: the merchant answered 500");
    EXPECT_EQ(notification.m_Attempts, 3);
    EXPECT_EQ(shop.requests(3).size(), 3u);
    EXPECT_EQ(shop.requests(3)[0], shop.requests(3)[2]);
    ASSERT_EQ(sent().size(), 3u);
    EXPECT_EQ(sent()[1].m_Verdict, "the merchant answered 500");
}

TEST_F(PaymentNotification, DeliversAtALaterAttempt) {
    Shop shop(
        {Shop::responds(responseWith(500)), Shop::responds(responseWith(302)), Shop::responds(responseWith(299))});
    payNotified(shop.address());
    Notification const notification = awaitSettled();
    EXPECT_EQ(notification.m_Outcome, "delivered: 299");
    EXPECT_EQ(notification.m_Attempts, 3);
}

TEST_F(PaymentNotification, TakesOnlyAGoodAnswerForOne) {
    struct Row {
        Shop::Script m_Script;
        char const* m_Outcome;
    };
    std::size_t index = 0;
    for (Row const& row : {
             Row{Shop::responds(responseWith(199)), "given up: the merchant answered 199"},
             // Redirects are not followed.
             Row{Shop::responds("HTTP/1.0 301 Moved\r\nLocation: /\r\n\r\n"), "given up: the merchant answered 301"},
             Row{Shop::responds(""), "given up: the merchant closed the connection without an answer"},
             Row{Shop::responds("200 OK\r\n\r\n"), "given up: the merchant's answer is not a complete one of HTTP"},
             Row{Shop::responds("HTTP/1.0 200 OK\r\nA: b\r\n"),
                 "given up: the merchant's answer is not a complete one of HTTP"},
             Row{Shop::responds("HTTP/1.0\r\n200\r\n\r\n"),
                 "given up: the merchant's answer is not a complete one of HTTP"},
             Row{Shop::responds("HTTP/1.0 OK\r\n\r\n"),
                 "given up: the merchant's answer is not a complete one of HTTP"},
             Row{[](Peer& peer) { peer.reset(); }, "given up: the merchant reset the connection"},
             Row{Shop::responds("HTTP/1.0 200\n\n"), "delivered: 200"},
             Row{Shop::responds("HTTP/1.0 200 OK\r\n\r\n" + std::string(9 * 1024 * 1024, 'x')), "delivered: 200"},
         }) {
        Shop shop({row.m_Script});
        payNotified(shop.address(), "t" + std::to_string(index));
        EXPECT_EQ(awaitSettled(index++).m_Outcome, row.m_Outcome);
    }
    EXPECT_LT(sent().back().m_Response.size(), 100000u);
}

TEST_F(PaymentNotification, GivesUpWhereNobodyListens) {
    ClosedPort const closed;
    payNotified("http://localhost:" + closed.text());
    EXPECT_THAT(awaitSettled().m_Outcome, StartsWith("given up: no connection to localhost:" + closed.text() + ": "));
    EXPECT_EQ(sent().size(), 3u);
}

TEST_F(PaymentNotification, DoesNotWaitForASlowMerchantForEver) {
    restartWithBackoff({}, std::chrono::milliseconds(50));
    Shop shop({Shop::hangs()});
    payNotified(shop.address());
    EXPECT_EQ(awaitSettled().m_Outcome, "given up: the merchant did not answer in time");
}

TEST_F(PaymentNotification, IsContentWithTheHeadOfAnAnswerThatDoesNotEnd) {
    // Enough attempts for a slow machine.
    restartWithBackoff(std::vector<std::chrono::milliseconds>(50), std::chrono::milliseconds(100));
    Shop shop({[](Peer& peer) {
        peer.send("HTTP/1.1 204 Fine\r\nConnection: keep-alive\r\n\r\n");
        peer.receiveToEnd();
    }});
    payNotified(shop.address());
    EXPECT_EQ(awaitSettled().m_Outcome, "delivered: 204");
}

TEST_F(PaymentNotification, TakesAnAnswerForWholeWhenItsLengthHasCome) {
    restartWithBackoff({}, std::chrono::hours(1));
    Shop shop({[](Peer& peer) {
        peer.send("HTTP/1.1 200 OK\r\ncontent-length: 4\r\n\r\ndo");
        peer.send("ne");
        peer.receiveToEnd();
    }});
    payNotified(shop.address());
    EXPECT_EQ(awaitSettled().m_Outcome, "delivered: 200");
    EXPECT_THAT(sent().back().m_Response, HasSubstr("\r\n\r\ndone"));
}

TEST_F(PaymentNotification, SendsToThisMachineOverHttpOnly) {
    struct Row {
        char const* m_Address;
        char const* m_Outcome;
    };
    std::size_t index = 0;
    for (Row const& row : {
             Row{"merchant@localhost", "not sent: it would be mailed to merchant@localhost"},
             Row{"mailto:a@shop.example", "not sent: it would be mailed to mailto:a@shop.example"},
             Row{"https://127.0.0.1/", "not sent: the address does not begin with http://"},
             Row{"https://me@127.0.0.1/", "not sent: the address does not begin with http://"},
             Row{"nowhere", "not sent: the address does not begin with http://"},
             Row{"http://shop.example/notify",
                 "not sent: 'shop.example' is not this machine, and the sandbox reaches no other"},
             Row{"http://127.0.0.1.shop.example/",
                 "not sent: '127.0.0.1.shop.example' is not this machine, and the sandbox reaches no other"},
             Row{"http://127.0.0.1@shop.example/", "not sent: the address holds a user name"},
             Row{"http://127.0.0.1:port/", "not sent: the port in the address is not a number between 1 and 65535"},
             Row{"http:///notify", "not sent: the address has no host"},
             Row{"http://127.0.0.1/a b", "not sent: the address holds a space or a byte outside ASCII"},
             Row{"http://127.0.0.1/\xC3\xA9", "not sent: the address holds a space or a byte outside ASCII"},
             Row{"http://127.0.0.1/\r\nX: y", "not sent: the address holds a space or a byte outside ASCII"},
         }) {
        payNotified(row.m_Address, "t" + std::to_string(index));
        Notification const notification = awaitSettled(index++);
        EXPECT_EQ(notification.m_Outcome, row.m_Outcome);
        EXPECT_EQ(notification.m_Attempts, 0);
    }
    EXPECT_TRUE(sent().empty());
}

TEST_F(PaymentNotification, WaitsBetweenAttemptsAndLetsOthersPass) {
    restartWithBackoff({std::chrono::hours(1), std::chrono::hours(1)});
    Shop failing({Shop::responds(responseWith(500))});
    payNotified(failing.address(), "t1");
    Notification const first = await([](Notification const& notification) { return notification.m_Attempts == 1; });
    EXPECT_TRUE(first.m_Pending);
    EXPECT_EQ(first.m_Outcome, "to be tried again: the merchant answered 500");
    Shop other({Shop::responds(responseWith(200))});
    payNotified(other.address(), "t2");
    EXPECT_EQ(awaitSettled(1).m_Outcome, "delivered: 200");
    EXPECT_EQ(failing.requests(1).size(), 1u);
    // The next start sends at once and goes on counting attempts.
    restartWithBackoff({std::chrono::hours(1), std::chrono::hours(1)});
    EXPECT_EQ(await([](Notification const& notification) { return notification.m_Attempts == 2; }).m_Outcome,
              first.m_Outcome);
    EXPECT_EQ(failing.requests(2).size(), 2u);
    EXPECT_EQ(other.requests(1).size(), 1u);
}

TEST_F(PaymentNotification, DoesNotWaitForMerchantsElsewhere) {
    std::promise<void> release;
    std::shared_future<void> const released(release.get_future());
    std::vector<std::unique_ptr<Shop>> slow;
    for (std::size_t i = 0; i < sandbox::Notifier::kWorkers; ++i) {
        slow.push_back(std::make_unique<Shop>(std::vector<Shop::Script>{Shop::respondsLate(released, responseWith(200)),
                                                                        Shop::responds(responseWith(200))}));
    }
    Shop quick({Shop::responds(responseWith(200))});
    for (std::size_t i = 1; i < slow.size(); ++i) {
        payNotified(slow[i]->address(), "slow" + std::to_string(i));
        EXPECT_NE(slow[i]->request(), "");
    }
    payNotified(slow[1]->address(), "second");
    payNotified(quick.address(), "quick");
    EXPECT_EQ(awaitSettled(slow.size()).m_Outcome, "delivered: 200") << "one of the threads is still free";
    payNotified(slow[0]->address(), "slow");
    EXPECT_NE(slow[0]->request(), "");
    payNotified(quick.address(), "late");
    EXPECT_EQ(quick.requests(1).size(), 1u) << "there are no more threads than these";
    EXPECT_EQ(slow[1]->requests(1).size(), 1u) << "at one place one at a time";
    release.set_value();
    EXPECT_EQ(quick.requests(2).size(), 2u);
    EXPECT_EQ(slow[1]->requests(2).size(), 2u);
    for (std::size_t i = 0; i < slow.size() + 3; ++i) {
        EXPECT_EQ(awaitSettled(i).m_Attempts, 1) << i;
    }
}

TEST_F(PaymentNotification, ComesInOrderForOnePayment) {
    restartWithBackoff({std::chrono::hours(1), std::chrono::hours(1)});
    Shop shop(
        {Shop::responds(responseWith(500)), Shop::responds(responseWith(500)), Shop::responds(responseWith(200))});
    payNotified(shop.address(), "t1");
    EXPECT_TRUE(await([](Notification const& notification) { return notification.m_Attempts == 1; }).m_Pending);
    m_Service->stop();
    sandbox::Database(m_Directory.path() + "/sandbox.db")
        .execute(
            "INSERT INTO notifications (payment, address, result, attempts, pending, time, outcome) "
            "SELECT payment, address, 'captured', 0, 1, '', '' FROM notifications");
    m_Service->start();
    EXPECT_TRUE(await([](Notification const& notification) { return notification.m_Attempts == 2; }).m_Pending);
    payNotified(shop.address(), "t2");
    EXPECT_EQ(awaitSettled(2).m_Outcome, "delivered: 200");
    EXPECT_EQ(sandboxtest::notificationsOf(*m_Service).at(1).m_Attempts, 0) << "the one before it is not settled";
    m_Service->stop();
    m_Service->start();
    EXPECT_EQ(awaitSettled(1).m_Outcome, "delivered: 200");
    std::vector<std::string> const requests = shop.requests(5);
    ASSERT_EQ(requests.size(), 5u);
    EXPECT_EQ(attributeOf(dataOf(requests[3]), "RESULT"), "authorised");
    EXPECT_EQ(attributeOf(dataOf(requests[4]), "RESULT"), "captured");
}

TEST_F(PaymentNotification, IsCutEverywhereWhenTheServiceStops) {
    std::vector<std::unique_ptr<Shop>> shops;
    for (std::size_t i = 0; i < 3; ++i) {
        shops.push_back(
            std::make_unique<Shop>(std::vector<Shop::Script>{Shop::hangs(), Shop::responds(responseWith(200))}));
        payNotified(shops[i]->address(), "t" + std::to_string(i));
        EXPECT_NE(shops[i]->request(), "");
    }
    m_Service->stop();
    m_Service->start();
    for (std::size_t i = 0; i < shops.size(); ++i) {
        EXPECT_EQ(awaitSettled(i).m_Attempts, 1);
        EXPECT_EQ(shops[i]->requests(2).size(), 2u);
    }
}

TEST_F(PaymentNotification, IsSentAfterTheNextStartWhenTheServiceStopsBefore) {
    Shop shop({Shop::hangs(), Shop::responds(responseWith(200))});
    payNotified(shop.address());
    std::string const cut = shop.request();
    m_Service->stop();
    m_Service->start();
    Notification const notification = awaitSettled();
    EXPECT_EQ(notification.m_Outcome, "delivered: 200");
    EXPECT_EQ(notification.m_Attempts, 1);
    EXPECT_EQ(shop.requests(2).at(1), cut);
    ASSERT_EQ(sent().size(), 2u);
    EXPECT_EQ(sent()[0].m_Verdict, "the sandbox stopped before the merchant answered");
}

TEST_F(PaymentNotification, IsNotSentByAServiceThatCannotStart) {
    Shop shop({Shop::hangs(), Shop::responds(responseWith(200))});
    payNotified(shop.address());
    EXPECT_NE(shop.request(), "");
    m_Service->stop();
    RawServer const blocker("");
    sandbox::Options blocked = options();
    blocked.m_Proxy = true;
    blocked.m_ProxyPort = blocker.port();
    EXPECT_THROW(sandbox::Service(blocked).start(), std::runtime_error);
    EXPECT_EQ(shop.requests(1).size(), 1u);
}

TEST_F(PaymentNotification, IsNotRepeatedBecauseItsOutcomeCannotBeKept) {
    std::string const file = m_Directory.path() + "/sandbox.db";
    sandbox::Database(file).execute(
        "CREATE TRIGGER broken BEFORE UPDATE ON notifications BEGIN SELECT RAISE(ABORT, 'broken'); END");
    Shop shop({Shop::responds(responseWith(200))});
    payNotified(shop.address(), "t1");
    ASSERT_TRUE(comesTrue([this] { return sent().size() == 1; }));
    payNotified(shop.address(), "t2");
    ASSERT_TRUE(comesTrue([this] { return sent().size() == 2; }));
    EXPECT_EQ(attributeOf(dataOf(shop.requests(2).at(1)), "TOKEN"), "t2");
    m_Service->stop();
    EXPECT_EQ(shop.requests(2).size(), 2u);
    sandbox::Database(file).execute("DROP TRIGGER broken");
    m_Service->start();
    EXPECT_EQ(awaitSettled(0).m_Outcome, "delivered: 200");
    EXPECT_EQ(awaitSettled(1).m_Outcome, "delivered: 200");
}

TEST_F(PaymentNotification, IsNotSentByFaultOfDrop) {
    arm("drop,exchange=notification,order=A-17");
    Shop shop({Shop::responds(responseWith(200))});
    payNotified(shop.address(), "t1");
    Notification const notification = awaitSettled();
    EXPECT_EQ(notification.m_Outcome, "not sent: the fault drop,exchange=notification,order=A-17 happened");
    EXPECT_EQ(notification.m_Attempts, 0);
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_EQ(sent()[0].m_Verdict, "not sent");
    EXPECT_EQ(sent()[0].m_Request, "");
    EXPECT_EQ(sent()[0].m_Fault, "drop,exchange=notification,order=A-17");
    payNotified(shop.address(), "t2");
    EXPECT_EQ(awaitSettled(1).m_Outcome, "delivered: 200");
    EXPECT_EQ(shop.requests(1).size(), 1u);
}

TEST_F(PaymentNotification, IsSentTwiceOncePerFault) {
    arm("twice,exchange=notification");
    Shop shop(
        {Shop::responds(responseWith(200)), Shop::responds(responseWith(500)), Shop::responds(responseWith(200))});
    payNotified(shop.address(), "t1");
    Notification const notification = awaitSettled();
    EXPECT_EQ(notification.m_Outcome, "delivered: 200");
    EXPECT_EQ(notification.m_Attempts, 1);
    payNotified(shop.address(), "t2");
    EXPECT_EQ(awaitSettled(1).m_Outcome, "delivered: 200");
    std::vector<std::string> const requests = shop.requests(3);
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0], requests[1]);
    EXPECT_NE(requests[0], requests[2]);
    ASSERT_EQ(sent().size(), 3u);
    EXPECT_EQ(sent()[1].m_Fault, "twice,exchange=notification");
    EXPECT_EQ(sent()[1].m_Verdict, "the merchant answered 500");
    EXPECT_EQ(sent()[2].m_Fault, "");
}

TEST_F(PaymentNotification, IsLateByFaultOfDelay) {
    arm("delay,exchange=notification,seconds=0");
    Shop shop({Shop::responds(responseWith(200))});
    payNotified(shop.address(), "t1");
    EXPECT_EQ(awaitSettled().m_Outcome, "delivered: 200");
    EXPECT_EQ(sent().at(0).m_Fault, "delay,exchange=notification,seconds=0");
    arm("delay,exchange=notification,order=A-17,seconds=3600");
    payNotified(shop.address(), "t2");
    ASSERT_TRUE(comesTrue([this] { return m_Service->services().m_Faults.armed().empty(); }));
    // A delayed notification blocks neither others nor the stop of the service.
    payNotified(shop.address(), "t3");
    EXPECT_EQ(awaitSettled(2).m_Outcome, "delivered: 200");
    EXPECT_TRUE(sandboxtest::notificationsOf(*m_Service).at(1).m_Pending);
    restartWithBackoff({});
    EXPECT_EQ(awaitSettled(1).m_Outcome, "delivered: 200");
    EXPECT_EQ(shop.requests(3).size(), 3u);
}

TEST_F(PaymentNotification, IsWrongByFault) {
    std::string const current = m_Service->services().m_Keys.current()->m_Id;
    std::string const blob = blobOf(current);
    struct Row {
        char const* m_Fault;
        char const* m_Type;
        std::string m_KeyId;
        bool m_Verified;
    };
    std::size_t index = 0;
    for (Row const& row : {
             Row{"wrong-type,exchange=notification", "Unexpected", current, true},
             Row{"wrong-signature,exchange=notification", "PayConfirm", current, false},
             Row{"wrong-key,exchange=notification", "PayConfirm", current, false},
             Row{"stale-key,exchange=notification", "PayConfirm", "1-SERVER-0", false},
             Row{"", "PayConfirm", current, true},
         }) {
        if (*row.m_Fault != '\0') {
            arm(row.m_Fault);
        }
        Shop shop({Shop::responds(responseWith(200))});
        payNotified(shop.address(), "t" + std::to_string(index));
        std::string const data = dataOf(shop.request());
        EXPECT_EQ(attributeOf(data, "MSGTYPE"), row.m_Type) << row.m_Fault;
        EXPECT_EQ(attributeOf(data, "KEYID"), row.m_KeyId) << row.m_Fault;
        EXPECT_EQ(verifies(blob, data, signatureOf(shop.request())), row.m_Verified) << row.m_Fault;
        EXPECT_EQ(awaitSettled(index).m_Outcome, "delivered: 200") << row.m_Fault;
        EXPECT_EQ(sent().at(index++).m_Fault, row.m_Fault);
    }
}

TEST_F(PaymentNotification, IsNotMadeWrongByAFaultForAnotherOrder) {
    arm("drop,exchange=notification,order=A-18");
    Shop shop({Shop::responds(responseWith(200))});
    payNotified(shop.address());
    EXPECT_EQ(awaitSettled().m_Outcome, "delivered: 200");
    EXPECT_EQ(m_Service->services().m_Faults.armed().size(), 1u);
}

}  // namespace
