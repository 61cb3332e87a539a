#include <gtest/gtest.h>

#include "tests/peers/peerssupport.h"
#include "tests/support/exceptions.h"

using namespace kvxtest;

namespace {

std::uint32_t bits(std::int32_t code) {
    return static_cast<std::uint32_t>(code);
}

/// Some megabytes of text.
std::string longText() {
    std::string text;
    while (text.size() < (3U << 20)) {
        text += "<KVX A=\"" + std::to_string(text.size()) + "\"/>\r\n\r\n";
    }
    return text;
}

TEST(NginxPeer, DeliversAFileByteForByte) {
    std::string const file = longText();
    Nginx const nginx(file);
    EXPECT_TRUE(fetch(nginx.plain("/file")) == file);
    EXPECT_TRUE(fetch(nginx.secure("/file")) == file);
}

TEST(NginxPeer, UnderstandsTheRequest) {
    Nginx const nginx("");
    for (std::string const& url : {nginx.plain("/echo?DATA=%3c&b"), nginx.secure("/echo?DATA=%3c&b")}) {
        EXPECT_EQ(fetch(url), "GET /echo?DATA=%3c&b HTTP/1.0\nBasic OgAA\nTallowin Application Component 1.0\n");
    }
}

TEST(NginxPeer, UnderstandsTheUnpaddedCredentials) {
    Nginx const nginx("");
    std::string const url = nginx.plain("/private");
    std::string const host = url.substr(std::string("http://").size());
    EXPECT_EQ(fetch("http://user:pass@" + host), "welcome");
    EXPECT_EQ(bits(thrownCode([&] { fetch("http://user:wrong@" + host); })), 0x80042191U);
    EXPECT_EQ(bits(thrownCode([&] { fetch(url); })), 0x80042191U);
}

TEST(NginxPeer, IsReportedByItsStatus) {
    Nginx const nginx("");
    EXPECT_EQ(bits(thrownCode([&] { fetch(nginx.plain("/missing")); })), 0x80042194U);
    EXPECT_EQ(bits(thrownCode([&] { fetch(nginx.secure("/missing")); })), 0x80042194U);
    EXPECT_EQ(bits(thrownCode([&] { fetch(nginx.plain("/moved")); })), 0x8004212EU);
    EXPECT_EQ(bits(thrownCode([&] { fetch(nginx.plain("/busy")); })), 0x800421F7U);
}

}  // namespace
