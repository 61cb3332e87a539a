// Requests as bytes: long lines, bare line feeds, absolute targets, large forms, chunks, silence. Each is sent over a
// socket to a running service, and the raw response is compared.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "sandbox/http/httptext.h"
#include "tests/sandbox/support/sandboxfixture.h"

/// Requests outside the protocol: long lines, odd bytes, other forms of a request line.
namespace {

using namespace sandboxtest;
using ::testing::HasSubstr;

class WireRequest : public SandboxTest {
protected:
    [[nodiscard]] RawResponse send(std::string const& text) const {
        return parseResponse(exchangeRaw(m_Service->addresses().m_Plain.m_Port, text));
    }
};

TEST_F(WireRequest, CarriesMessagesOfEverySize) {
    int number = 0;
    for (std::size_t const size : {2000u, 8100u, 8192u, 8300u, 16384u, 100000u, 1000000u}) {
        std::string const token = "t" + std::to_string(number++);
        std::string const text = m_Merchant.payInit(token, " NOTE=\"" + std::string(size, '\xE9') + "\"");
        ASSERT_EQ(openPage(text).m_Status, 200) << size;
        EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).back().m_Data, text);
    }
}

TEST_F(WireRequest, RefusesALineBeyondTheLimit) {
    EXPECT_EQ(send("GET /pay?DATA=" + std::string(5 * 1024 * 1024, 'x') + " HTTP/1.0\r\n\r\n").m_Status, 414);
}

TEST_F(WireRequest, KeepsAPlusInDataAPlus) {
    EXPECT_EQ(get("/pay?DATA=a+b%2bc&SIGNATURE=00").m_Status, 400);
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).back().m_Data, "a+b+c");
}

TEST_F(WireRequest, UnderstandsTheAbsoluteFormThatProxiesGet) {
    std::string const data = percentEncoded("<KVX MSGTYPE=\"StatusRequest\"/>");
    EXPECT_EQ(send(merchantGet(m_Service->addresses().m_Plain.m_Url + "/capture?DATA=" + data)).m_Status, 200);
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).back().m_Path, "/capture");
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).back().m_Data, "<KVX MSGTYPE=\"StatusRequest\"/>");
}

TEST_F(WireRequest, IsRefusedWithBareLineFeeds) {
    EXPECT_EQ(send("GET / HTTP/1.0\n\n").m_Status, 400);
}

TEST_F(WireRequest, RefusesOtherMethodsAndPaths) {
    EXPECT_EQ(send("GET /nothing HTTP/1.0\r\n\r\n").m_Status, 404);
    RawResponse const posted = send(formPost("/capture", "DATA=x"));
    EXPECT_EQ(posted.m_Status, 405);
    EXPECT_EQ(posted.m_Headers.at("allow"), "GET");
    EXPECT_EQ(send("GET /pay/decision HTTP/1.0\r\n\r\n").m_Headers.at("allow"), "POST");
    EXPECT_EQ(send("HEAD /capture HTTP/1.0\r\n\r\n").m_Status, 405);
    EXPECT_EQ(send("nonsense\r\n\r\n").m_Status, 400);
}

TEST_F(WireRequest, RefusesALargeForm) {
    EXPECT_EQ(send(formPost("/pay/decision", std::string(1024 * 1024 + 1, 'x'))).m_Status, 413);
}

/// Sends a request to which the response comes before all of it has been sent.
RawResponse sendTooMuch(std::uint16_t port, std::string const& begin, std::string const& piece) {
    constexpr int kPieces = 64;
    RawConnection const connection(port);
    connection.send(begin);
    for (int sent = 0; sent<kPieces&& ::send(connection.get(), piece.data(), piece.size(), MSG_NOSIGNAL)> 0; ++sent) {
    }
    ::shutdown(connection.get(), SHUT_WR);
    return parseResponse(connection.readToEnd());
}

TEST_F(WireRequest, RefusesAHeadWithoutMeasure) {
    std::string fields;
    while (fields.size() < 64 * 1024) {
        fields += "X-Field: " + std::string(1000, 'x') + "\r\n";
    }
    EXPECT_EQ(sendTooMuch(m_Service->addresses().m_Plain.m_Port, "GET /capture HTTP/1.0\r\n", fields).m_Status, 413);
}

TEST_F(WireRequest, RefusesALargeFormInChunks) {
    std::string const begin = "POST /pay/decision HTTP/1.1\r\nHost: 127.0.0.1\r\nTransfer-Encoding: chunked\r\n\r\n";
    std::string const chunk = "10000\r\n" + std::string(0x10000, 'x') + "\r\n";
    EXPECT_EQ(sendTooMuch(m_Service->addresses().m_Plain.m_Port, begin, chunk).m_Status, 400);
    EXPECT_TRUE(sandboxtest::exchangesOf(*m_Service).size() == 1u) << "the publishing of the key, and nothing else";
}

TEST_F(WireRequest, RefusesAttributesWithoutNumber) {
    std::string attributes;
    for (int i = 0; i < 100000; ++i) {
        attributes += " a" + std::to_string(i) + "=\"\"";
    }
    EXPECT_EQ(get("/pay?DATA=" + percentEncoded("<KVX MSGTYPE=\"PayInit\"" + attributes + "/>")).m_Status, 400);
    EXPECT_EQ(lastVerdict(), "SIGNATURE is missing");
    EXPECT_EQ(get("/pay?SIGNATURE=00&DATA=" + percentEncoded("<KVX MSGTYPE=\"PayInit\"" + attributes + "/>")).m_Status,
              400);
    EXPECT_EQ(lastVerdict(), "the message has more than 256 attributes");
}

TEST_F(WireRequest, ReportsWhoExpectsItToGoOn) {
    std::string const body = "payment=P0&key=x&decision=pay";
    RawConnection const connection(m_Service->addresses().m_Plain.m_Port);
    connection.send(
        "POST /pay/decision HTTP/1.1\r\nHost: 127.0.0.1\r\nExpect: 100-continue\r\n"
        "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: " +
        std::to_string(body.size()) + "\r\n\r\n");
    std::string const goOn = "HTTP/1.1 100 Continue\r\n\r\n";
    std::string interim(goOn.size(), '\0');
    ASSERT_EQ(::recv(connection.get(), interim.data(), interim.size(), MSG_WAITALL),
              static_cast<ssize_t>(interim.size()));
    EXPECT_EQ(interim, goOn);
    connection.send(body);
    std::string const response = connection.readToEnd();
    EXPECT_EQ(parseResponse(response).m_Status, 404);
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).back().m_Response, response);
}

TEST_F(WireRequest, DoesNotWaitForConnectionsThatSayNothing) {
    RawConnection const silent(m_Service->addresses().m_Plain.m_Port);
    RawConnection const cut(m_Service->addresses().m_Plain.m_Port);
    cut.send("GET /capture?DATA=");
    EXPECT_EQ(get("/").m_Status, 200);
    auto const before = std::chrono::steady_clock::now();
    m_Service->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
    EXPECT_EQ(silent.readToEnd(), "");
}

TEST_F(WireRequest, SendsNothingToConnectionsThatSayNothingForTooLong) {
    constexpr std::chrono::milliseconds kPatience{200};
    sandbox::Options impatient = options();
    impatient.m_RequestTimeout = kPatience;
    impatient.m_Tls = true;
    impatient.m_Proxy = true;
    restart(impatient);
    for (std::uint16_t const port : {m_Service->addresses().m_Plain.m_Port, m_Service->addresses().m_Tls.m_Port,
                                     m_Service->addresses().m_Proxy.m_Port}) {
        auto const begin = std::chrono::steady_clock::now();
        RawConnection const silent(port);
        EXPECT_EQ(silent.readToEnd(), "");
        EXPECT_GE(std::chrono::steady_clock::now() - begin, kPatience);
    }
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).size(), 1u) << "the publishing of the key, and nothing else";
}

TEST_F(WireRequest, RefusesALineThatNeverEnds) {
    RawConnection const connection(m_Service->addresses().m_Plain.m_Port);
    connection.send("GET / HTTP/1.0");
    ::shutdown(connection.get(), SHUT_WR);
    EXPECT_EQ(parseResponse(connection.readToEnd()).m_Status, 400);
}

TEST(RequestLine, IsSplitAtItsOuterSpaces) {
    std::optional<sandbox::RequestLine> const line = sandbox::parseRequestLine("GET /a b?c=d?e HTTP/1.0");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->m_Method, "GET");
    EXPECT_EQ(line->m_Path, "/a b");
    EXPECT_EQ(line->m_Query, "c=d?e");
    EXPECT_EQ(line->m_Version, "HTTP/1.0");
}

TEST(RequestLine, LosesSchemeAndAuthority) {
    EXPECT_EQ(sandbox::parseRequestLine("GET http://h:80/p?q HTTP/1.0")->m_Path, "/p");
    EXPECT_EQ(sandbox::parseRequestLine("GET http://h:80/p?q HTTP/1.0")->m_Query, "q");
    EXPECT_EQ(sandbox::parseRequestLine("GET https://h?q HTTP/1.0")->m_Path, "/");
    EXPECT_EQ(sandbox::parseRequestLine("GET https://h?q HTTP/1.0")->m_Query, "q");
    EXPECT_EQ(sandbox::parseRequestLine("GET http://h HTTP/1.0")->m_Path, "/");
}

TEST(RequestLine, NeedsTwoSpaces) {
    EXPECT_FALSE(sandbox::parseRequestLine(""));
    EXPECT_FALSE(sandbox::parseRequestLine("GET /"));
}

}  // namespace
