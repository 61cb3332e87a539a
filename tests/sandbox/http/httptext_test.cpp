#include "sandbox/http/httptext.h"

#include <gtest/gtest.h>

#include <string>

/// Hosts and ports in URLs. The tests of their users show which ones are refused.
namespace {

TEST(ExtendLink, AddsToTheQueryBeforeAFragment) {
    EXPECT_EQ(sandbox::extendLink("http://a", "q"), "http://a?q");
    EXPECT_EQ(sandbox::extendLink("http://a/b?c", "q"), "http://a/b?c&q");
    EXPECT_EQ(sandbox::extendLink("http://a/b#c?d", "q"), "http://a/b?q#c?d");
    EXPECT_EQ(sandbox::extendLink("http://a/?#", "q"), "http://a/?&q#");
}

TEST(ParseHttpAddress, ReportsPlaceAndTarget) {
    struct Row {
        char const* m_Text;
        char const* m_Host;
        int m_Port;
        char const* m_Target;
    };
    for (Row const& row : {
             Row{"http://a", "a", 80, "/"},
             Row{"http://a:8080", "a", 8080, "/"},
             Row{"http://a:65535/b/c?d=e&f=%2f#g", "a", 65535, "/b/c?d=e&f=%2f"},
             Row{"http://a?b", "a", 80, "/?b"},
             Row{"http://a#b/c", "a", 80, "/"},
             Row{"http://a/b:1@c", "a", 80, "/b:1@c"},
             Row{"http://[::1]", "[::1]", 80, "/"},
             Row{"http://[::1]:81/", "[::1]", 81, "/"},
         }) {
        sandbox::HttpAddress const address = sandbox::parseHttpAddress(row.m_Text);
        EXPECT_EQ(address.m_HostPort.m_Host, row.m_Host) << row.m_Text;
        EXPECT_EQ(address.m_HostPort.m_Port, row.m_Port) << row.m_Text;
        EXPECT_EQ(address.m_Target, row.m_Target) << row.m_Text;
    }
}

TEST(LocalAddress, IsAnyOfTheLoopback) {
    EXPECT_EQ(ntohl(sandbox::localAddress("localhost").s_addr), 0x7F000001u);
    EXPECT_EQ(ntohl(sandbox::localAddress("LOCALHOST").s_addr), 0x7F000001u);
    EXPECT_EQ(ntohl(sandbox::localAddress("127.255.0.9").s_addr), 0x7FFF0009u);
}

TEST(StatusOfResponse, NeedsAWholeHead) {
    std::string const response = "HTTP/1.1 204 No Content\r\nA: b\r\n\r\n";
    EXPECT_EQ(sandbox::statusOfResponse(response), 204);
    for (std::size_t length = 0; length < response.size(); ++length) {
        EXPECT_FALSE(sandbox::statusOfResponse(response.substr(0, length))) << length;
    }
}

TEST(BodyBegin, IsBehindTheFirstEmptyLine) {
    EXPECT_EQ(sandbox::bodyBegin("a\r\n\r\n\r\n"), 5u);
    EXPECT_EQ(sandbox::bodyBegin("a\n\nb"), 3u);
    EXPECT_EQ(sandbox::bodyBegin("a\r\nb\n\r\nc"), 7u);
    EXPECT_FALSE(sandbox::bodyBegin("a\r\nb\r\n"));
}

}  // namespace
