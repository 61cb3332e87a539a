#include <gtest/gtest.h>

#include "tests/peers/peers_support.h"

namespace {

using kvxtest::fetch;
using kvxtest::Nginx;
using kvxtest::OpensslServer;
using kvxtest::thrownCode;
using kvxtest::Tinyproxy;

std::uint32_t bits(std::int32_t code) {
    return static_cast<std::uint32_t>(code);
}

TEST(TinyproxyPeer, PassesPlainRequestsOn) {
    Nginx const nginx("content");
    Tinyproxy const proxy;
    EXPECT_EQ(fetch(nginx.plain("/file"), &proxy), "content");
    EXPECT_EQ(bits(thrownCode([&] { fetch(nginx.plain("/missing"), &proxy); })), 0x80042194U);
    EXPECT_NE(proxy.log().find("GET " + nginx.plain("/file") + " HTTP/1.0"), std::string::npos) << proxy.log();
}

TEST(TinyproxyPeer, TunnelsSecureRequests) {
    std::string const file(200000, 'x');
    Nginx const nginx(file);
    OpensslServer const openssl("-tls1_3", file);
    Tinyproxy const proxy;
    EXPECT_TRUE(fetch(nginx.secure("/file"), &proxy) == file);
    EXPECT_TRUE(fetch(openssl.url("/file"), &proxy) == file);
    EXPECT_NE(proxy.log().find("CONNECT 127.0.0.1:"), std::string::npos) << proxy.log();
}

TEST(TinyproxyPeer, IsReportedWhenItWantsCredentials) {
    Nginx const nginx("content");
    Tinyproxy const proxy("secret");
    EXPECT_EQ(bits(thrownCode([&] { fetch(nginx.secure("/file"), &proxy); })), 0x80042197U);
    EXPECT_EQ(bits(thrownCode([&] { fetch(nginx.plain("/file"), &proxy); })), 0x80042197U);
}

TEST(TinyproxyPeer, IsReportedWhenItCannotReachTheHost) {
    std::string url;
    {
        Nginx const gone("");
        url = gone.secure("/file");
    }
    Tinyproxy const proxy;
    EXPECT_EQ(bits(thrownCode([&] { fetch(url, &proxy); })), 0x800421F4U);
}

}  // namespace
