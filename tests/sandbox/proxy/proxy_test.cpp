// The proxy between a raw client and programs on this machine: forwarded requests, tunnels, what it refuses, time
// limits, and its own faults. Targets are the service itself, scripted servers, and ports whose queue is full. The last
// tests stop the service in the middle of a conversation.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <vector>

#include "sandbox/store/database.h"
#include "tests/sandbox/support/sandboxfixture.h"
#include "tests/support/rawserver.h"

/// The proxy, seen from the merchant and from the programs that it reaches.
namespace {

using namespace sandboxtest;
using kvxtest::ClosedPort;
using kvxtest::Peer;
using kvxtest::RawServer;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char kEstablished[] = "HTTP/1.0 200 Connection established\r\n\r\n";

std::string connectTo(std::string const& port) {
    return "CONNECT 127.0.0.1:" + port + " HTTP/1.0\r\nPragma: no-cache\r\n\r\n";
}

std::string getFrom(std::string const& port) {
    return "GET http://127.0.0.1:" + port + "/a HTTP/1.0\r\n\r\n";
}

/// A merchant's connection to the proxy.
class Client : public RawConnection {
public:
    using RawConnection::RawConnection;

    /// The bytes of one read, as a merchant reads the response to CONNECT.
    [[nodiscard]] std::string receive() const {
        char piece[1024];
        ssize_t const count = ::recv(get(), piece, sizeof piece, 0);
        return count > 0 ? std::string(piece, static_cast<std::size_t>(count)) : "";
    }

    /// The next `size` bytes, fewer when the peer closes before.
    [[nodiscard]] std::string receive(std::size_t size) const {
        std::string bytes(size, '\0');
        ssize_t const count = ::recv(get(), bytes.data(), size, MSG_WAITALL);
        bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return bytes;
    }

    [[nodiscard]] bool hasNothing() const {
        char byte = 0;
        return ::recv(get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) < 0;
    }

    void end() const { ::shutdown(get(), SHUT_WR); }
};

/// A tunnel that has been granted.
class Tunnel : public Client {
public:
    Tunnel(std::uint16_t proxy, std::string const& port) : Client(proxy) {
        send(connectTo(port));
        EXPECT_EQ(receive(), kEstablished);
    }
};

/// A point that the peer of a conversation has reached.
class Event {
public:
    void happen() { m_Promise.set_value(); }
    bool await() { return m_Promise.get_future().wait_for(kTimeout) == std::future_status::ready; }

private:
    std::promise<void> m_Promise;
};

class SandboxProxy : public SandboxTest {
protected:
    SandboxProxy() { restartWithProxy(options()); }

    void restartWithProxy(sandbox::Options options) {
        options.m_Proxy = true;
        restart(options);
    }

    std::string ask(std::string const& request) const {
        return exchangeRaw(m_Service->addresses().m_Proxy.m_Port, request);
    }

    [[nodiscard]] sandbox::Exchange lastExchange() const { return sandboxtest::exchangesOf(*m_Service).back(); }

    [[nodiscard]] std::string plainPort() const { return std::to_string(m_Service->addresses().m_Plain.m_Port); }

    void arm(std::string const& fault) const { m_Service->services().m_Faults.arm(sandbox::parseFault(fault)); }
};

class TlsSandboxProxy : public SandboxProxy {
protected:
    TlsSandboxProxy() {
        sandbox::Options tls = options();
        tls.m_Tls = true;
        restartWithProxy(tls);
    }

    [[nodiscard]] std::string tlsPort() const { return std::to_string(m_Service->addresses().m_Tls.m_Port); }
};

std::string const kSetup = "/auto?DATA=" + percentEncoded("<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>");

TEST_F(SandboxProxy, ForwardsAnyMethodInOriginFormAndTheRestAsItCame) {
    struct Row {
        char const* m_Before;  ///< Of the place.
        char const* m_After;
        char const* m_Forwarded;
    };
    for (Row const& row : {
             Row{"GET http://", "/a%20b?c=%2f+d HTTP/1.0\r\nUserAgent: x\r\n\r\n",
                 "GET /a%20b?c=%2f+d HTTP/1.0\r\nUserAgent: x\r\n\r\n"},
             Row{"GET http://", " HTTP/1.0\r\n\r\n", "GET / HTTP/1.0\r\n\r\n"},
             Row{"GET http://", "?c#d HTTP/1.0\r\n\r\n", "GET /?c HTTP/1.0\r\n\r\n"},
             // The proxy itself talks to the target, in HTTP/1.0.
             Row{"HEAD http://", "/ HTTP/1.1\r\nHost: x\r\n\r\n", "HEAD / HTTP/1.0\r\nHost: x\r\n\r\n"},
             Row{"GET http://", "/ HTTP/1.0\nA: b\n\n", "GET / HTTP/1.0\r\nA: b\n\n"},
             Row{"BREW http://", "/pot HTTP/1.0\r\nContent-Length: 4\r\n\r\n\r\n\xE9x",
                 "BREW /pot HTTP/1.0\r\nContent-Length: 4\r\n\r\n\r\n\xE9x"},
         }) {
        RawServer target([&target](Peer& peer) {
            target.record(peer.receiveToEnd());
            peer.send("HTTP/1.0 299 Odd\r\n\r\nb\n\xE9");
        });
        Client const client(m_Service->addresses().m_Proxy.m_Port);
        client.send(row.m_Before + ("127.0.0.1:" + target.portText()) + row.m_After);
        client.end();
        EXPECT_EQ(client.readToEnd(), "HTTP/1.0 299 Odd\r\n\r\nb\n\xE9");
        EXPECT_EQ(target.records(), std::vector<std::string>{row.m_Forwarded});
    }
}

TEST_F(SandboxProxy, CarriesTheMerchantsPlainRequests) {
    for (std::string const& host : {"127.0.0.1:" + plainPort(), "LocalHost:" + plainPort()}) {
        std::string const response = ask(merchantGet("http://" + host + kSetup, "demo", "demo"));
        EXPECT_EQ(attributeOf(parseResponse(response).m_Body, "MSGTYPE"), "SetupResponse");
        sandbox::Exchange const exchange = lastExchange();
        EXPECT_EQ(exchange.m_Kind, sandbox::ExchangeKind::kProxy);
        EXPECT_EQ(exchange.m_Path, "http://" + host + "/auto");
        EXPECT_EQ(exchange.m_Response, response);
        EXPECT_EQ(exchange.m_Verdict, "ok");
        EXPECT_EQ(exchange.m_Fault, "");
        EXPECT_EQ(exchange.m_Time, "2023-11-14T22:13:20Z");
        EXPECT_GT(exchange.m_Microseconds, 0);
        EXPECT_THAT(exchange.m_Request, StartsWith("GET http://" + host + kSetup + " HTTP/1.0\r\n"));
        EXPECT_THAT(exchange.m_Request, HasSubstr("\r\nAuthorization: (covered)\r\n"));
        std::vector<sandbox::Exchange> const all = sandboxtest::exchangesOf(*m_Service);
        EXPECT_EQ(all.at(all.size() - 2).m_Kind, sandbox::ExchangeKind::kSetup);
    }
}

TEST_F(SandboxProxy, CarriesLongRequestsAndAnswers) {
    std::string const text = m_Merchant.payInit("t1", " NOTE=\"" + std::string(1000000, 'x') + "\"");
    std::string const target = m_Service->addresses().m_Plain.m_Url + "/pay" + m_Merchant.signedQuery(text);
    EXPECT_EQ(parseResponse(ask(merchantGet(target))).m_Status, 200);
    EXPECT_LT(lastExchange().m_Request.size(), 100000u);
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service).at(0).attribute("NOTE"), std::string(1000000, 'x'));
    std::string const body(5000000, 'y');
    RawServer const server("HTTP/1.0 200 OK\r\n\r\n" + body);
    EXPECT_EQ(parseResponse(ask(getFrom(server.portText()))).m_Body, body);
    EXPECT_LT(lastExchange().m_Response.size(), 100000u);
}

TEST_F(SandboxProxy, KeepsTheCredentialsForItselfToItself) {
    RawServer target("HTTP/1.0 200 OK\r\n\r\n");
    std::string const begin = "GET http://127.0.0.1:" + target.portText() + "/ HTTP/1.0\r\n";
    ask(begin + "A: b\r\nproxy-AUTHORIZATION: Basic c2VjcmV0\r\nAuthorization: mine\r\n\r\n");
    EXPECT_EQ(target.records().at(0), "GET / HTTP/1.0\r\nA: b\r\nAuthorization: mine\r\n\r\n");
    EXPECT_EQ(lastExchange().m_Request, begin + "A: b\r\nAuthorization: (covered)\r\n\r\n");
}

TEST_F(SandboxProxy, KeepsTheBodyOfARequestInTheRecord) {
    Client const client(m_Service->addresses().m_Proxy.m_Port);
    RawServer target([](Peer& peer) {
        peer.receiveRequest();
        peer.send("HTTP/1.0 200 OK\r\n\r\n");
        peer.receiveToEnd();
    });
    client.send("POST http://127.0.0.1:" + target.portText() + "/ HTTP/1.0\r\n\r\nfirst ");
    EXPECT_EQ(client.receive(19), "HTTP/1.0 200 OK\r\n\r\n");
    client.send("second");
    client.end();
    EXPECT_EQ(client.readToEnd(), "");
    EXPECT_THAT(lastExchange().m_Request, ::testing::EndsWith("\r\n\r\nfirst second"));
}

TEST_F(TlsSandboxProxy, TunnelsTls) {
    for (std::string const& host : {"127.0.0.1:" + tlsPort(), "localhost:" + tlsPort()}) {
        Client const client(m_Service->addresses().m_Proxy.m_Port);
        client.send("CONNECT " + host + " HTTP/1.0\r\nPragma: no-cache\r\nUserAgent: x\r\n\r\n");
        ASSERT_EQ(client.receive(), kEstablished);
        sandbox::Exchange const exchange = lastExchange();
        EXPECT_EQ(exchange.m_Path, "CONNECT " + host);
        EXPECT_EQ(exchange.m_Request, "CONNECT " + host + " HTTP/1.0\r\nPragma: no-cache\r\nUserAgent: x\r\n\r\n");
        EXPECT_EQ(exchange.m_Response, kEstablished);
        EXPECT_EQ(exchange.m_Verdict, "ok");
        std::string const response =
            exchangeTls(client.get(), merchantGet(kSetup, "demo", "demo"), m_Service->authorityFile());
        EXPECT_EQ(attributeOf(parseResponse(response).m_Body, "MSGTYPE"), "SetupResponse");
    }
}

TEST_F(SandboxProxy, SendsNothingBehindItsAnswerBeforeTheMerchantSpeaks) {
    Event greeted;
    RawServer target([&greeted](Peer& peer) {
        peer.send("welcome");
        greeted.happen();
        peer.send(peer.receive());
        peer.finish();
    });
    Tunnel const tunnel(m_Service->addresses().m_Proxy.m_Port, target.portText());
    ASSERT_TRUE(greeted.await());
    // Other work for the proxy at the same time.
    EXPECT_THAT(ask(getFrom(plainPort())), StartsWith("HTTP/1"));
    EXPECT_TRUE(tunnel.hasNothing());
    tunnel.send("!");
    EXPECT_EQ(tunnel.receive(8), "welcome!");
}

TEST_F(SandboxProxy, TakesWhatComesTogetherWithTheRequestForSpeaking) {
    RawServer target([](Peer& peer) {
        peer.send("welcome");
        peer.send(peer.receiveToEnd());
    });
    Client const client(m_Service->addresses().m_Proxy.m_Port);
    client.send(connectTo(target.portText()) + "early");
    client.end();
    EXPECT_EQ(client.readToEnd(), std::string(kEstablished) + "welcomeearly");
}

TEST_F(SandboxProxy, LetsATargetSpeakToAMerchantWhoEndedSilently) {
    RawServer target([](Peer& peer) { peer.send("welcome" + peer.receiveToEnd()); });
    Tunnel const tunnel(m_Service->addresses().m_Proxy.m_Port, target.portText());
    tunnel.end();
    EXPECT_EQ(tunnel.readToEnd(), "welcome");
}

TEST_F(SandboxProxy, PassesOnThatOneSideHasEnded) {
    RawServer responding([](Peer& peer) { peer.send("after " + peer.receiveToEnd()); });
    Tunnel const first(m_Service->addresses().m_Proxy.m_Port, responding.portText());
    first.send("the end");
    first.end();
    EXPECT_EQ(first.readToEnd(), "after the end");

    RawServer asking([&asking](Peer& peer) {
        std::string const opening = peer.receive();
        ::shutdown(peer.socket(), SHUT_WR);
        asking.record(opening + peer.receiveToEnd());
    });
    Tunnel const second(m_Service->addresses().m_Proxy.m_Port, asking.portText());
    second.send("a");
    EXPECT_EQ(second.readToEnd(), "");
    second.send("bc");
    second.end();
    EXPECT_EQ(asking.records(), std::vector<std::string>{"abc"});
}

TEST_F(SandboxProxy, CarriesBothWaysAtOnce) {
    // More than fits into all buffers on the way, sent from both ends before either reads.
    std::string const much(20000000, 'z');
    RawServer target([&](Peer& peer) {
        std::string const opening = peer.receive();
        auto received = std::async(std::launch::async, [&peer] { return peer.receiveToEnd(); });
        peer.send(much);
        ::shutdown(peer.socket(), SHUT_WR);
        target.record(opening + received.get());
    });
    Tunnel const tunnel(m_Service->addresses().m_Proxy.m_Port, target.portText());
    auto received = std::async(std::launch::async, [&tunnel] { return tunnel.readToEnd(); });
    tunnel.send("!" + much);
    tunnel.end();
    EXPECT_TRUE(received.get() == much);
    EXPECT_TRUE(target.records().at(0) == "!" + much);
}

TEST_F(SandboxProxy, PassesOnThatAConnectionWasReset) {
    RawServer target([](Peer& peer) {
        peer.receive();
        peer.reset();
    });
    Tunnel const tunnel(m_Service->addresses().m_Proxy.m_Port, target.portText());
    tunnel.send("x");
    EXPECT_THROW((void)tunnel.readToEnd(), std::runtime_error);
    EXPECT_THROW(ask(getFrom(target.portText())), std::runtime_error);
    EXPECT_EQ(lastExchange().m_Verdict, "the target reset the connection");
    RawServer halfway([](Peer& peer) {
        peer.receive();
        peer.send("HTTP/1.0 200 OK\r\n\r\nhalf");
        peer.receive();
        peer.reset();
    });
    Client const client(m_Service->addresses().m_Proxy.m_Port);
    client.send(getFrom(halfway.portText()));
    EXPECT_EQ(client.receive(23), "HTTP/1.0 200 OK\r\n\r\nhalf");
    client.send("more");
    EXPECT_THROW((void)client.readToEnd(), std::runtime_error);
    EXPECT_EQ(lastExchange().m_Response, "HTTP/1.0 200 OK\r\n\r\nhalf");
}

TEST_F(SandboxProxy, DeliversAnAnswerThatDidNotWaitForTheWholeRequest) {
    RawServer target([](Peer& peer) {
        peer.receive();
        peer.send("HTTP/1.0 413 Too Much\r\n\r\n");
        ::shutdown(peer.socket(), SHUT_WR);
    });
    Client const client(m_Service->addresses().m_Proxy.m_Port);
    client.send("POST http://127.0.0.1:" + target.portText() + "/ HTTP/1.0\r\n\r\nbegin");
    EXPECT_EQ(client.receive(), "HTTP/1.0 413 Too Much\r\n\r\n");
}

TEST_F(SandboxProxy, ReachesThisMachineOnly) {
    for (char const* hostPort : {"example.com:80", "10.0.0.1:80", "128.0.0.1:80", "126.255.255.255:80", "0.0.0.0:80",
                                 "127.1:80", "127.0.0.1.example.com:80", "localhost.example:80", "[::1]:80",
                                 "2130706433:80", "127.0.0.01:80", "0x7f.0.0.1:80"}) {
        for (std::string const& request : {"GET http://" + std::string(hostPort) + "/ HTTP/1.0\r\n\r\n",
                                           "CONNECT " + std::string(hostPort) + " HTTP/1.0\r\n\r\n"}) {
            RawResponse const response = parseResponse(ask(request));
            EXPECT_EQ(response.m_Status, 403) << request;
            EXPECT_THAT(response.m_Body, HasSubstr("is not this machine, and the sandbox reaches no other")) << request;
            EXPECT_EQ(lastExchange().m_Verdict + "\n", response.m_Body);
            EXPECT_THAT(lastExchange().m_Path, HasSubstr(hostPort));
        }
    }
    EXPECT_EQ(parseResponse(ask("GET http://[::1] HTTP/1.0\r\n\r\n")).m_Status, 403);
}

TEST_F(SandboxProxy, RefusesWhatIsNoRequestToAProxy) {
    struct Row {
        char const* m_Head;
        char const* m_Reason;
        int m_Status = 400;
    };
    for (Row const& row : {
             Row{"GET /auto HTTP/1.0\r\n\r\n", "this is a proxy"},
             Row{"GET\r\n\r\n", "METHOD ADDRESS"},
             Row{"GET http://127.0.0.1/\r\n\r\n", "METHOD ADDRESS"},
             Row{" http://127.0.0.1/ HTTP/1.0\r\n\r\n", "METHOD ADDRESS"},
             Row{"GET http://127.0.0.1/ HTTP/2.0\r\n\r\n", "METHOD ADDRESS"},
             Row{"GET  HTTP/1.0\r\n\r\n", "http://"},
             Row{"GET https://127.0.0.1/ HTTP/1.0\r\n\r\n", "does not begin with http://"},
             Row{"GET http:// HTTP/1.0\r\n\r\n", "no host"},
             Row{"GET http://:80/ HTTP/1.0\r\n\r\n", "no host"},
             Row{"GET http://127.0.0.1:/ HTTP/1.0\r\n\r\n", "port"},
             Row{"GET http://127.0.0.1:0/ HTTP/1.0\r\n\r\n", "port"},
             Row{"GET http://127.0.0.1:65536/ HTTP/1.0\r\n\r\n", "port"},
             Row{"GET http://127.0.0.1:8x/ HTTP/1.0\r\n\r\n", "port"},
             Row{"GET http://127.0.0.1:-8/ HTTP/1.0\r\n\r\n", "port"},
             Row{"GET http://me@127.0.0.1/ HTTP/1.0\r\n\r\n", "user name"},
             Row{"GET http://127.0.0.1/a b HTTP/1.0\r\n\r\n", "a space"},
             Row{"GET http://127.0.0.1/\xE9 HTTP/1.0\r\n\r\n", "outside ASCII"},
             Row{"GET http://127.0.0.1/\x01 HTTP/1.0\r\n\r\n", "outside ASCII"},
             Row{"CONNECT 127.0.0.1 HTTP/1.0\r\n\r\n", "no port"},
             Row{"CONNECT 127.0.0.1:99999 HTTP/1.0\r\n\r\n", "port"},
             Row{"CONNECT http://127.0.0.1:80 HTTP/1.0\r\n\r\n", "not this machine", 403},
             Row{"GET http://127.0.0.1/", "within its first line"},
             Row{"GET http://127.0.0.1/ HTTP/1.0\r\nA: b\r\n", "within its head"},
         }) {
        Client const client(m_Service->addresses().m_Proxy.m_Port);
        client.send(row.m_Head);
        client.end();
        RawResponse const response = parseResponse(client.readToEnd());
        EXPECT_EQ(response.m_Status, row.m_Status) << row.m_Head;
        EXPECT_THAT(response.m_Body, HasSubstr(row.m_Reason)) << row.m_Head;
        EXPECT_EQ(lastExchange().m_Verdict + "\n", response.m_Body) << row.m_Head;
    }
}

TEST_F(SandboxProxy, RefusesHeadsWithoutMeasure) {
    EXPECT_EQ(parseResponse(ask("GET http://127.0.0.1/" + std::string(5 * 1024 * 1024, 'x'))).m_Status, 414);
    EXPECT_THAT(ask("GET http://127.0.0.1/ HTTP/1.0\r\n" + std::string(70000, 'x')), HasSubstr("too long"));
    EXPECT_LT(lastExchange().m_Request.size(), 100000u);
}

TEST_F(SandboxProxy, MakesNothingOfAConnectionWithoutARequest) {
    std::size_t const before = sandboxtest::exchangesOf(*m_Service).size();
    Client const client(m_Service->addresses().m_Proxy.m_Port);
    client.end();
    EXPECT_EQ(client.readToEnd(), "");
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).size(), before);
}

TEST_F(SandboxProxy, ReportsThatNobodyListens) {
    ClosedPort const closed;
    for (std::string const& request : {getFrom(closed.text()), connectTo(closed.text())}) {
        RawResponse const response = parseResponse(ask(request));
        EXPECT_EQ(response.m_Status, 502);
        EXPECT_THAT(response.m_Body, HasSubstr("no connection to 127.0.0.1:" + closed.text()));
        EXPECT_EQ(lastExchange().m_Verdict + "\n", response.m_Body);
    }
}

TEST_F(SandboxProxy, GivesUpATargetThatDoesNotAnswer) {
    sandbox::Options hurried = options();
    hurried.m_ProxyTimeout = std::chrono::milliseconds(50);
    restartWithProxy(hurried);
    RawServer silent([](Peer& peer) { peer.receiveToEnd(); });
    for (char const* fault : {"", "delay,exchange=proxy,seconds=0"}) {
        if (*fault != '\0') {
            arm(fault);
        }
        RawResponse const response = parseResponse(ask(getFrom(silent.portText())));
        EXPECT_EQ(response.m_Status, 504);
        EXPECT_THAT(response.m_Body, HasSubstr("does not answer"));
        EXPECT_EQ(lastExchange().m_Verdict + "\n", response.m_Body);
    }
}

TEST_F(SandboxProxy, GivesUpATargetThatDoesNotAccept) {
    sandbox::Options hurried = options();
    hurried.m_ProxyTimeout = std::chrono::milliseconds(50);
    restartWithProxy(hurried);
    // A port whose queue of one is full.
    int const listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    ASSERT_EQ(::bind(listener, generic, length), 0);
    ASSERT_EQ(::listen(listener, 0), 0);
    ASSERT_EQ(::getsockname(listener, generic, &length), 0);
    std::uint16_t const port = ntohs(address.sin_port);
    {
        RawConnection const first(port);
        for (std::string const& request : {getFrom(std::to_string(port)), connectTo(std::to_string(port))}) {
            RawResponse const response = parseResponse(ask(request));
            EXPECT_EQ(response.m_Status, 504) << response.m_Body;
            EXPECT_THAT(response.m_Body, HasSubstr("does not take the connection"));
        }
    }
    ::close(listener);
}

/// What a client finds instead of a response.
constexpr char kReset[] = "(reset)";

std::string receivedOf(std::function<std::string()> const& read) {
    try {
        return read();
    } catch (std::runtime_error const&) {
        return kReset;
    }
}

TEST_F(SandboxProxy, GivesUpATargetThatSaysNothingToWhoEnded) {
    sandbox::Options hurried = options();
    hurried.m_ProxyTimeout = std::chrono::milliseconds(50);
    restartWithProxy(hurried);
    Event over;
    RawServer target([&over](Peer& peer) {
        peer.receiveToEnd();
        over.await();
    });
    Tunnel const tunnel(m_Service->addresses().m_Proxy.m_Port, target.portText());
    tunnel.end();
    EXPECT_EQ(receivedOf([&tunnel] { return tunnel.readToEnd(); }), kReset);
    over.happen();
}

TEST_F(SandboxProxy, LetsFaultsHappenToTheAnswerToConnect) {
    std::string const whole = kEstablished;
    std::string const status =
        "HTTP/1.0 418 Fault\r\nConnection: close\r\nContent-Type: text/plain; charset=utf-8\r\n"
        "Content-Length: 7\r\n\r\nteapot\n";
    std::string const asking =
        "HTTP/1.0 407 Proxy Authentication Required\r\nConnection: close\r\n"
        "Proxy-Authenticate: Basic realm=\"sandbox\"\r\nContent-Type: text/plain; charset=utf-8\r\n"
        "Content-Length: 31\r\n\r\nthe proxy asks for credentials\n";
    struct Row {
        char const* m_Fault;
        std::string m_Response;
        bool m_Contacted;
        bool m_Tunnel;
    };
    for (Row const& row : {
             Row{"proxy-407", asking, false, false},
             Row{"http-status,exchange=proxy,status=418,text=teapot", status, false, false},
             Row{"reset,exchange=proxy", kReset, false, false},
             Row{"drop,exchange=proxy", "", true, false},
             Row{"delay,exchange=proxy,seconds=0", whole, true, true},
             Row{"stall-before,exchange=proxy,seconds=0", "", true, false},
             Row{"stall-inside,exchange=proxy,seconds=0", whole.substr(0, 20), true, false},
             Row{"stall-inside,exchange=proxy,seconds=0,bytes=5", whole.substr(0, 5), true, false},
             Row{"bytewise,exchange=proxy", whole, true, true},
             Row{"truncate,exchange=proxy", whole.substr(0, 20), true, false},
             Row{"truncate,exchange=proxy,bytes=12", whole.substr(0, 12), true, false},
             Row{"no-blank-line,exchange=proxy", whole.substr(0, whole.size() - 2), true, false},
             Row{"nul-bytes,exchange=proxy", whole.substr(0, 20) + '\0' + whole.substr(20), true, false},
             Row{"twice,exchange=proxy", whole + whole, true, false},
             Row{"huge,exchange=proxy,megabytes=1", whole + std::string(1024 * 1024, ' '), true, false},
         }) {
        RawServer target([&target](Peer& peer) {
            target.record("contact");
            peer.send(peer.receiveToEnd());
        });
        arm(row.m_Fault);
        std::size_t const before = sandboxtest::exchangesOf(*m_Service).size();
        Client const client(m_Service->addresses().m_Proxy.m_Port);
        client.send(connectTo(target.portText()));
        if (row.m_Tunnel) {
            EXPECT_EQ(client.receive(row.m_Response.size()), row.m_Response) << row.m_Fault;
            client.send("through");
            client.end();
        }
        std::string const rest = receivedOf([&client] { return client.readToEnd(); });
        EXPECT_EQ(rest, row.m_Tunnel ? "through" : row.m_Response) << row.m_Fault;
        EXPECT_EQ(target.records().size(), row.m_Contacted ? 1u : 0u) << row.m_Fault;
        EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).size(), before + 1) << row.m_Fault;
        EXPECT_EQ(lastExchange().m_Fault, row.m_Fault);
        EXPECT_EQ(lastExchange().m_Verdict, row.m_Contacted ? "ok" : "not looked at") << row.m_Fault;
        EXPECT_TRUE(m_Service->services().m_Faults.armed().empty());
    }
}

TEST_F(SandboxProxy, LetsFaultsHappenToWhatItForwards) {
    std::string const head = "HTTP/1.0 200 OK\r\nContent-Length: 4\r\n\r\n";
    std::string const whole = head + "body";
    struct Row {
        char const* m_Fault;
        std::string m_Response;
        bool m_Contacted;
    };
    for (Row const& row : {
             Row{"reset,exchange=proxy", kReset, false},
             Row{"drop,exchange=proxy", "", true},
             Row{"delay,exchange=proxy,seconds=0", whole, true},
             Row{"stall-before,exchange=proxy,seconds=0", "", true},
             Row{"stall-inside,exchange=proxy,seconds=0", head + "bo", true},
             Row{"bytewise,exchange=proxy", whole, true},
             Row{"truncate,exchange=proxy", head + "bo", true},
             Row{"truncate,exchange=proxy,bytes=12", whole.substr(0, 12), true},
             Row{"no-blank-line,exchange=proxy", "HTTP/1.0 200 OK\r\nContent-Length: 4\r\nbody", true},
             Row{"nul-bytes,exchange=proxy", head + "bo" + '\0' + "dy", true},
             Row{"twice,exchange=proxy", whole + whole, true},
             Row{"huge,exchange=proxy,megabytes=1",
                 "HTTP/1.0 200 OK\r\nContent-Length: 1048576\r\n\r\nbody" + std::string(1024 * 1024 - 4, ' '), true},
         }) {
        RawServer target(whole);
        arm(row.m_Fault);
        EXPECT_EQ(receivedOf([&] { return ask(getFrom(target.portText())); }), row.m_Response) << row.m_Fault;
        EXPECT_EQ(lastExchange().m_Response, row.m_Contacted ? whole : "") << row.m_Fault;
        EXPECT_EQ(lastExchange().m_Fault, row.m_Fault);
        EXPECT_EQ(lastExchange().m_Verdict, row.m_Contacted ? "ok" : "not looked at") << row.m_Fault;
        EXPECT_EQ(ask(getFrom(target.portText())), whole) << row.m_Fault;
        EXPECT_EQ(target.records().size(), row.m_Contacted ? 2u : 1u) << row.m_Fault;
    }
    arm("proxy-407");
    RawResponse const asking = parseResponse(ask(getFrom(plainPort())));
    EXPECT_EQ(asking.m_Status, 407);
    EXPECT_EQ(asking.m_Headers.at("proxy-authenticate"), "Basic realm=\"sandbox\"");
    arm("http-status,exchange=proxy,status=299,text=so");
    EXPECT_EQ(parseResponse(ask(getFrom(plainPort()))).m_Status, 299);
}

TEST_F(SandboxProxy, WaitsInAFaultUntilTheMerchantGoes) {
    RawServer target("HTTP/1.0 200 OK\r\n\r\n");
    for (std::string const& request : {connectTo(target.portText()), getFrom(target.portText())}) {
        arm("stall-inside,exchange=proxy,seconds=3600,bytes=4");
        Client const client(m_Service->addresses().m_Proxy.m_Port);
        client.send(request);
        EXPECT_EQ(client.receive(4), "HTTP");
        client.end();
        EXPECT_EQ(client.readToEnd(), "");
    }
}

TEST_F(SandboxProxy, HasAFaultHappenToItsRefusalsToo) {
    arm("truncate,exchange=proxy,bytes=8");
    EXPECT_EQ(ask("GET http://example.com/ HTTP/1.0\r\n\r\n"), "HTTP/1.0");
    EXPECT_THAT(lastExchange().m_Response, StartsWith("HTTP/1.0 403 Forbidden\r\n"));
    EXPECT_THAT(lastExchange().m_Verdict, HasSubstr("not this machine"));
}

TEST_F(SandboxProxy, CannotLetFaultsHappenToAnswersWithoutMeasure) {
    RawServer target([](Peer& peer) {
        peer.receive();
        peer.send("HTTP/1.0 200 OK\r\n\r\n" + std::string(9 * 1024 * 1024, 'x'));
    });
    arm("truncate,exchange=proxy,bytes=100000000");
    RawResponse const response = parseResponse(ask(getFrom(target.portText())));
    EXPECT_EQ(response.m_Status, 502);
    EXPECT_THAT(response.m_Body, HasSubstr("too long for a fault"));
}

TEST_F(SandboxProxy, RefusesConnectionsOnRequestAndTheListenersDoNot) {
    std::int64_t const error = m_Service->services().m_Faults.arm(sandbox::parseFault("refuse,exchange=proxy"));
    EXPECT_THROW(ask(getFrom(plainPort())), std::runtime_error);
    EXPECT_EQ(get("/").m_Status, 200);
    EXPECT_TRUE(m_Service->services().m_Faults.lift(error));
    EXPECT_EQ(parseResponse(ask("GET " + m_Service->addresses().m_Plain.m_Url + "/ HTTP/1.0\r\n\r\n")).m_Status, 200);
    m_Service->services().m_Faults.arm(sandbox::parseFault("refuse"));
    EXPECT_THROW((void)get("/"), std::runtime_error);
    EXPECT_EQ(parseResponse(ask("GET " + m_Service->addresses().m_Plain.m_Url + "/ HTTP/1.0\r\n\r\n")).m_Status, 502);
}

TEST_F(TlsSandboxProxy, LetsFaultsOfTlsThroughToTheMerchant) {
    arm("tls-wrong-host");
    Tunnel const tunnel(m_Service->addresses().m_Proxy.m_Port, tlsPort());
    EXPECT_THROW(exchangeTls(tunnel.get(), merchantGet("/"), m_Service->authorityFile()), std::runtime_error);
}

TEST_F(SandboxProxy, EndsWithTheServiceWhateverIsUnderWay) {
    sandbox::Options unhurried = options();
    unhurried.m_ProxyTimeout = std::chrono::hours(1);
    restartWithProxy(unhurried);
    Event asked;
    RawServer silent([&asked](Peer& peer) {
        peer.receive();
        asked.happen();
        peer.receiveToEnd();
    });
    RawServer idle([](Peer& peer) { peer.receiveToEnd(); });
    Tunnel const tunnel(m_Service->addresses().m_Proxy.m_Port, idle.portText());
    Client const waiting(m_Service->addresses().m_Proxy.m_Port);
    waiting.send(getFrom(silent.portText()));
    ASSERT_TRUE(asked.await());
    m_Service->stop();
    EXPECT_EQ(m_Service->addresses().m_Proxy.m_Port, 0);
    EXPECT_EQ(m_Service->addresses().m_Proxy.m_Url, "");
    EXPECT_EQ(parseResponse(waiting.readToEnd()).m_Status, 503);
    EXPECT_THROW((void)tunnel.readToEnd(), std::runtime_error);
}

TEST_F(TlsSandboxProxy, CarriesTheLastAnswersOfTheServiceWhenItStops) {
    // The answer to the request is made and waits for the end of its delay when the service is stopped.
    arm("delay,exchange=setup,seconds=3600");
    arm("delay,exchange=setup,seconds=3600");
    Client const plain(m_Service->addresses().m_Proxy.m_Port);
    plain.send(merchantGet(m_Service->addresses().m_Plain.m_Url + kSetup, "demo", "demo"));
    Tunnel const tunnel(m_Service->addresses().m_Proxy.m_Port, tlsPort());
    auto overTls = std::async(std::launch::async, [&] {
        return exchangeTls(tunnel.get(), merchantGet(kSetup, "demo", "demo"), m_Service->authorityFile());
    });
    ASSERT_TRUE(comesTrue([this] { return m_Service->services().m_Faults.armed().empty(); }));
    m_Service->stop();
    EXPECT_THAT(plain.readToEnd(), HasSubstr("SetupResponse"));
    EXPECT_THAT(overTls.get(), HasSubstr("SetupResponse"));
}

TEST_F(SandboxProxy, AnswersNothingThatItCannotRecord) {
    sandbox::Database(m_Directory.path() + "/sandbox.db").execute("ALTER TABLE exchanges RENAME TO elsewhere");
    RawServer target("HTTP/1.0 200 OK\r\n\r\nbody");
    RawResponse const response = parseResponse(ask(connectTo(target.portText())));
    EXPECT_EQ(response.m_Status, 500);
    EXPECT_THAT(response.m_Body, StartsWith("The sandbox failed: database: no such table"));
    // This response is already under way, so the merchant must see that it is cut.
    EXPECT_THROW(ask(getFrom(target.portText())), std::runtime_error);
}

TEST_F(SandboxProxy, IsThereWhenItIsAskedForOnThePortThatIsAskedFor) {
    EXPECT_EQ(m_Service->addresses().m_Proxy.m_Url,
              "http://127.0.0.1:" + std::to_string(m_Service->addresses().m_Proxy.m_Port));
    TemporaryDirectory const other;
    sandbox::Options second = options();
    second.m_DataDirectory = other.path();
    second.m_ProxyPort = m_Service->addresses().m_Proxy.m_Port;
    sandbox::Service without(second);
    without.start();
    EXPECT_EQ(without.addresses().m_Proxy.m_Port, 0);
    EXPECT_EQ(without.addresses().m_Proxy.m_Url, "");
    second.m_Proxy = true;
    without.stop();
    EXPECT_THROW(sandbox::Service(second).start(), std::runtime_error);
}

}  // namespace
