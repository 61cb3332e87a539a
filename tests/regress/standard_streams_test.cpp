// Two failures of printing: a closed pipe behind standard error raised SIGPIPE and ended the host; and where the host
// had closed standard error, the library's own socket got its number, and the text went into the exchange.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "net/kvxhttp.h"
#include "tests/support/exceptions.h"
#include "tests/support/processes.h"
#include "tests/support/rawserver.h"

using namespace kvxtest;

namespace {

/// The code with which fetching through a proxy that refuses ends.
std::int32_t refusalThrough(RawServer const& proxy) {
    KVX_RequestInfo request;
    SplitUrl("https://shop.example/x", request);
    request.proxyHost = "127.0.0.1";
    request.proxyPort = proxy.portText().c_str();
    return thrownCode([&] {
        TbStringStream out;
        HttpSession(request, out);
    });
}

TEST(ProxyReply, ThatNobodyReadsDoesNotKillTheProcess) {
    RawServer const proxy("HTTP/1.0 407 no\r\n\r\n");
    EXPECT_EQ(inChildProcess([&] {
                  int ends[2];
                  if (pipe(ends) != 0 || dup2(ends[1], STDERR_FILENO) < 0) {
                      return 1;
                  }
                  close(ends[0]);
                  return refusalThrough(proxy) == (KVX_E_HTTP_FAMILY | 407) ? 0 : 1;
              }),
              0);
}

TEST(ProxyReply, NeverGoesIntoTheConnection) {
    RawServer proxy([&](Peer& peer) {
        peer.receiveRequest();
        peer.send("HTTP/1.0 407 no\r\n\r\n");
        proxy.record(peer.receiveToEnd());
    });
    EXPECT_EQ(inChildProcess([&] {
                  close(STDERR_FILENO);
                  return refusalThrough(proxy) == (KVX_E_HTTP_FAMILY | 407) ? 0 : 1;
              }),
              0);
    ASSERT_EQ(proxy.records().size(), 1U);
    EXPECT_EQ(proxy.records()[0], "") << "behind the request";
}

}  // namespace
