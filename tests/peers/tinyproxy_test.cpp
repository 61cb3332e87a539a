#include <gtest/gtest.h>

#include "tests/peers/peerssupport.h"
#include "tests/support/exceptions.h"

using namespace kvxtest;

namespace {

std::uint32_t bits(std::int32_t code) {
    return static_cast<std::uint32_t>(code);
}

TEST(TinyproxyPeer, PassesPlainRequestsOn) {
    Nginx const nginx("content");
    Tinyproxy const proxy;
    EXPECT_EQ(fetchThrough(proxy, nginx.plain("/file")), "content");
    EXPECT_EQ(bits(thrownCode([&] { fetchThrough(proxy, nginx.plain("/missing")); })), 0x80042194U);
    EXPECT_NE(proxy.log().find("GET " + nginx.plain("/file") + " HTTP/1.0"), std::string::npos) << proxy.log();
}

TEST(TinyproxyPeer, TunnelsSecureRequests) {
    std::string const file(200000, 'x');
    Nginx const nginx(file);
    OpensslServer const openssl("-tls1_3", file);
    Tinyproxy const proxy;
    EXPECT_TRUE(fetchThrough(proxy, nginx.secure("/file")) == file);
    EXPECT_TRUE(fetchThrough(proxy, openssl.url("/file")) == file);
    EXPECT_NE(proxy.log().find("CONNECT 127.0.0.1:"), std::string::npos) << proxy.log();
}

TEST(TinyproxyPeer, IsReportedWhenItWantsCredentials) {
    Nginx const nginx("content");
    Tinyproxy const proxy("secret");
    EXPECT_EQ(bits(thrownCode([&] { fetchThrough(proxy, nginx.secure("/file")); })), 0x80042197U);
    EXPECT_EQ(bits(thrownCode([&] { fetchThrough(proxy, nginx.plain("/file")); })), 0x80042197U);
}

TEST(TinyproxyPeer, IsReportedWhenItCannotReachTheHost) {
    std::string url;
    {
        Nginx const gone("");
        url = gone.secure("/file");
    }
    Tinyproxy const proxy;
    EXPECT_EQ(bits(thrownCode([&] { fetchThrough(proxy, url); })), 0x800421F4U);
}

}  // namespace
