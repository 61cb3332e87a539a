// The stream of events: what happens to a payment, in order; going on after the last exchange that a client saw; one
// account alone; many streams; clients that do not read; the end of the service. Clients read from bare sockets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "sandbox/store/eventfeed.h"
#include "tests/sandbox/support/sandboxfixture.h"

namespace {

using namespace sandboxtest;
using nlohmann::json;
using sandbox::EventFeed;
using sandbox::StoreEvent;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

struct Event {
    std::string m_Id = {};
    std::string m_Name = {};
    json m_Data = {};

    /// "payment opened", "exchange page", "notification 1".
    [[nodiscard]] std::string text() const {
        char const* const member = m_Name == "payment" ? "state" : m_Name == "exchange" ? "kind" : "attempts";
        json const& value = m_Data.at(member);
        return m_Name + " " + (value.is_string() ? value.get<std::string>() : value.dump());
    }
};

/// A client that has received the head of the response, and so gets all events from then on.
class EventClient {
public:
    explicit EventClient(std::uint16_t port, std::string const& query = "", std::string const& header = "")
        : m_Connection(port) {
        m_Connection.send("GET /control/events" + query + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + header + "\r\n");
        m_Head = readTo("\r\n\r\n");
        if (readTo("\n\n") != ":") {
            throw std::runtime_error("the stream does not begin with a comment");
        }
    }

    [[nodiscard]] std::string const& head() const { return m_Head; }
    [[nodiscard]] RawConnection const& connection() const { return m_Connection; }

    /// The next event; comments are passed over. Throws std::runtime_error when none comes.
    Event next() {
        std::string text = readTo("\n\n");
        while (text == ":") {
            text = readTo("\n\n");
        }
        Event event;
        std::size_t from = 0;
        while (from < text.size()) {
            std::size_t const to = std::min(text.find('\n', from), text.size());
            std::string const line = text.substr(from, to - from);
            std::string const name = line.substr(0, line.find(": "));
            std::string const value = line.substr(name.size() + 2);
            (name == "id" ? event.m_Id : name == "event" ? event.m_Name : m_Json) = value;
            from = to + 1;
        }
        event.m_Data = json::parse(m_Json);
        return event;
    }

    std::vector<std::string> next(std::size_t count) {
        std::vector<std::string> texts;
        while (texts.size() < count) {
            texts.push_back(next().text());
        }
        return texts;
    }

    /// Reads to the end of the stream.
    void drain() { (void)m_Connection.readToEnd(); }

private:
    std::string readTo(std::string const& end) {
        while (m_Read.find(end) == std::string::npos) {
            char piece[4096];
            ssize_t const count = ::recv(m_Connection.get(), piece, sizeof piece, 0);
            if (count <= 0) {
                throw std::runtime_error("the stream ended: " + m_Read);
            }
            m_Read.append(piece, static_cast<std::size_t>(count));
        }
        std::size_t const at = m_Read.find(end);
        std::string const text = m_Read.substr(0, at);
        m_Read.erase(0, at + end.size());
        return text;
    }

    RawConnection m_Connection;
    std::string m_Read;
    std::string m_Head;
    std::string m_Json;
};

class Events : public SandboxTest {};

TEST_F(Events, ArriveInTheOrderOfAPayment) {
    EventClient client(m_Service->addresses().m_Control.m_Port);
    EXPECT_THAT(client.head(), HasSubstr("HTTP/1.1 200 "));
    EXPECT_THAT(client.head(), HasSubstr("\r\nContent-Type: text/event-stream"));
    EXPECT_THAT(client.head(), ::testing::Not(HasSubstr("Content-Length")));
    askCapture(authorise("t1"));
    EXPECT_THAT(client.next(6), ElementsAre("payment opened", "exchange page", "payment authorised",
                                            "exchange decision", "payment captured", "exchange capture"));
}

TEST_F(Events, SayWhatTheyAreAbout) {
    EventClient client(m_Service->addresses().m_Control.m_Port);
    openPage(m_Merchant.payInit("t1", " NOTIFYADDRESS=\"shop@example\""));
    std::string const id = sandboxtest::paymentsOf(*m_Service).back().m_Id;
    Event const opened = client.next();
    EXPECT_EQ(opened.m_Name, "payment");
    EXPECT_EQ(opened.m_Id, "");
    EXPECT_EQ(opened.m_Data.at("id"), id);
    EXPECT_EQ(opened.m_Data.at("account"), "demo");
    EXPECT_EQ(opened.m_Data.at("order"), sandboxtest::paymentsOf(*m_Service).back().attribute("ORDERID").value());
    Event const page = client.next();
    EXPECT_EQ(page.m_Name, "exchange");
    EXPECT_EQ(page.m_Id, std::to_string(sandboxtest::exchangesOf(*m_Service).back().m_Number));
    EXPECT_EQ(page.m_Data.at("payment"), id);
    EXPECT_EQ(page.m_Data.at("verdict"), "ok");
}

TEST_F(Events, ReportOutcomesOfNotifications) {
    RawResponse const page = openPage(m_Merchant.payInit("t1", " NOTIFYADDRESS=\"shop@example\""));
    EventClient client(m_Service->addresses().m_Control.m_Port);
    press(page, "pay");
    std::vector<Event> events;
    while (events.empty() || events.back().m_Name != "notification") {
        events.push_back(client.next());
    }
    EXPECT_THAT(events.back().m_Data.at("outcome").get<std::string>(), StartsWith("not sent: "));
    EXPECT_EQ(events.back().m_Data.at("account"), "demo");
}

TEST_F(Events, GoOnAfterTheExchangeThatWasSeenLast) {
    openPage(m_Merchant.payInit("t1"));
    std::string const seen = std::to_string(sandboxtest::exchangesOf(*m_Service).back().m_Number);
    openPage(m_Merchant.payInit("t2"));
    openPage(m_Merchant.payInit("t3"));
    EventClient byHeader(m_Service->addresses().m_Control.m_Port, "", "Last-Event-ID: " + seen + "\r\n");
    EventClient byQuery(m_Service->addresses().m_Control.m_Port, "?after=" + seen);
    for (EventClient* client : {&byHeader, &byQuery}) {
        EXPECT_EQ(client->next().m_Data.at("token"), "t2");
        EXPECT_EQ(client->next().m_Data.at("token"), "t3");
    }
    openPage(m_Merchant.payInit("t4"));
    EXPECT_EQ(byHeader.next().text(), "payment opened");
    EXPECT_EQ(byHeader.next().m_Data.at("token"), "t4");
}

TEST_F(Events, GoOnThroughMoreThanOnePageOfExchanges) {
    constexpr int kMany = 250;
    for (int i = 0; i < kMany; ++i) {
        askAuto("<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>", "nobody", "x");
    }
    EventClient client(m_Service->addresses().m_Control.m_Port, "?after=1");
    for (int i = 0; i < kMany; ++i) {
        ASSERT_EQ(client.next().m_Id, std::to_string(2 + i));
    }
}

TEST_F(Events, AreOfOneAccountWhenThatIsWanted) {
    EventClient demo(m_Service->addresses().m_Control.m_Port, "?account=demo");
    EventClient other(m_Service->addresses().m_Control.m_Port, "?account=other");
    askAuto("<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>", "other", "x");
    openPage(m_Merchant.payInit("t1"));
    askAuto("<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>", "other", "x");
    EXPECT_THAT(demo.next(2), ElementsAre("payment opened", "exchange page"));
    EXPECT_THAT(other.next(2), ElementsAre("exchange setup", "exchange setup"));
}

TEST_F(Events, ReachManyClients) {
    std::vector<std::unique_ptr<EventClient>> clients;
    while (clients.size() < 50) {
        clients.push_back(std::make_unique<EventClient>(m_Service->addresses().m_Control.m_Port));
    }
    askCapture(authorise("t1"));
    for (std::unique_ptr<EventClient> const& client : clients) {
        EXPECT_THAT(client->next(6), ElementsAre("payment opened", "exchange page", "payment authorised",
                                                 "exchange decision", "payment captured", "exchange capture"));
    }
}

TEST_F(Events, EndWithTheService) {
    EventClient client(m_Service->addresses().m_Control.m_Port);
    EventClient unread(m_Service->addresses().m_Control.m_Port);
    auto const begin = std::chrono::steady_clock::now();
    m_Service->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
    client.drain();
}

TEST_F(Events, NeedTheTokenAndTheRightQuery) {
    auto const status = [this](std::string const& target, std::string const& header = "") {
        return parseResponse(
                   exchangeRaw(m_Service->addresses().m_Control.m_Port,
                               "GET /control/events" + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + header + "\r\n"))
            .m_Status;
    };
    EXPECT_EQ(status("?acount=demo"), 400);
    EXPECT_EQ(status("?after=x"), 400);
    EXPECT_EQ(status("", "Last-Event-ID: -1\r\n"), 400);
    EXPECT_EQ(parseResponse(exchangeRaw(m_Service->addresses().m_Control.m_Port,
                                        bareRequest("GET", "/control/events", "evil.example")))
                  .m_Status,
              403);
    sandbox::Options guarded = options();
    guarded.m_Token = "secret";
    restart(guarded);
    EXPECT_EQ(status(""), 401);
    EventClient const client(m_Service->addresses().m_Control.m_Port, "", "Authorization: Bearer secret\r\n");
    EXPECT_THAT(client.head(), HasSubstr("HTTP/1.1 200 "));
}

TEST(EventFeed, ForgetsWhatNobodyReads) {
    EventFeed feed;
    feed.add({StoreEvent::Move{"P1", {}}});
    EventFeed::Reader reader(feed);
    feed.add({StoreEvent::Move{"P2", {}}});
    std::optional<std::vector<StoreEvent>> const events = reader.await(std::chrono::milliseconds(0));
    ASSERT_TRUE(events);
    ASSERT_EQ(events->size(), 1u);
    EXPECT_EQ(events->front().m_Move->m_Payment, "P2");
    EXPECT_THAT(reader.await(std::chrono::milliseconds(0)).value(), IsEmpty());
}

TEST(EventFeed, DropsAReaderThatIsTooSlow) {
    EventFeed feed;
    EventFeed::Reader slow(feed);
    EventFeed::Reader quick(feed);
    for (std::size_t i = 0; i < EventFeed::kMaxKept; ++i) {
        feed.add({StoreEvent::Move{"P", {}}});
    }
    EXPECT_EQ(quick.await(std::chrono::milliseconds(0)).value().size(), EventFeed::kMaxKept);
    feed.add({StoreEvent::Move{"P", {}}});
    EXPECT_FALSE(slow.await(std::chrono::milliseconds(0)));
    EXPECT_EQ(quick.await(std::chrono::milliseconds(0)).value().size(), 1u);
}

TEST(EventFeed, EndsWaits) {
    EventFeed feed;
    EventFeed::Reader reader(feed);
    std::thread ending([&feed] { feed.end(); });
    EXPECT_FALSE(reader.await(kTimeout));
    ending.join();
}

}  // namespace
