#include <gtest/gtest.h>

#include "tests/peers/peerssupport.h"

using namespace kvxtest;

namespace {

TEST(OpensslPeer, DeliversAFileInEveryProtocolVersion) {
    std::string const file = "<KVX A=\"b\"/>\n" + std::string(100000, 'x');
    for (char const* const version : {"-tls1_2", "-tls1_3"}) {
        OpensslServer const server(version, file);
        EXPECT_TRUE(fetch(server.url("/file")) == file) << version;
    }
}

}  // namespace
