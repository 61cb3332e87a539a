// TLS contexts and sessions that live on between exchanges.
//
// The server has one context for all clients and records whether a session was resumed. Odd: every test has a port, and
// so an entry, of its own in the cache of the process.

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <atomic>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "net/kvxhttp.h"
#include "net/kvxtlscache.h"
#include "tests/net/interposed.h"
#include "tests/net/netsupport.h"
#include "tests/support/allocations.h"
#include "tests/support/directories.h"
#include "tests/support/exceptions.h"
#include "tests/support/processes.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"
#include "tests/support/tlsserver.h"

using namespace kvxtest;

namespace {

constexpr char kResponse[] = "HTTP/1.0 200 OK\r\n\r\nbody";

std::uint32_t bits(std::int32_t code) {
    return static_cast<std::uint32_t>(code);
}

CertificateOptions certified(char const* name, TlsIdentity const* issuer) {
    CertificateOptions options;
    options.m_Name = name;
    options.m_Hosts = "DNS:localhost,IP:127.0.0.1";
    options.m_IsAuthority = issuer == nullptr;
    options.m_Issuer = issuer;
    return options;
}

/// A server that resumes sessions and records "new" or "resumed" for each client.
class ResumingServer {
public:
    explicit ResumingServer(TlsIdentity const& identity, int version = 0)
        : m_Context(SSL_CTX_new(TLS_server_method())), m_Server([this](Peer& peer) { serve(peer); }) {
        SSL_CTX_use_certificate(m_Context.get(), identity.certificate());
        SSL_CTX_use_PrivateKey(m_Context.get(), identity.key());
        SSL_CTX_set_min_proto_version(m_Context.get(), version);
        SSL_CTX_set_max_proto_version(m_Context.get(), version);
    }

    [[nodiscard]] std::string url(char const* host = "127.0.0.1") const {
        return std::string("https://") + host + ":" + m_Server.portText() + "/";
    }

    std::vector<std::string> const& records() { return m_Server.records(); }

private:
    void serve(Peer& peer) {
        OpenSslHolder<SSL> const session(SSL_new(m_Context.get()));
        SSL_set_fd(session.get(), peer.socket());
        if (SSL_accept(session.get()) == 1) {
            m_Server.record(SSL_session_reused(session.get()) == 1 ? "resumed" : "new");
            char request[4096];
            SSL_read(session.get(), request, sizeof request);
            SSL_write(session.get(), kResponse, sizeof kResponse - 1);
            SSL_set_shutdown(session.get(), SSL_SENT_SHUTDOWN);  // or its sessions would not be resumed
        }
        ERR_clear_error();
    }

    OpenSslHolder<SSL_CTX> m_Context;
    RawServer m_Server;
};

using Records = std::vector<std::string>;

class ReusedTls : public testing::Test {
protected:
    ReusedTls() { m_Files.write("trusted.pem", m_Authority.certificatePem()); }

    [[nodiscard]] KVX_RequestInfo request(std::string const& url, bool verifies = true) const {
        KVX_RequestInfo request = requestFor(url);
        request.transfer.reuseTls = true;
        request.transfer.verifyPeer = verifies;
        request.transfer.trustFile = stringOf(m_Files.file("trusted.pem"));
        request.transfer.isQuiet = true;
        return request;
    }

    TlsIdentity m_Authority{certified("authority", nullptr)};
    TlsIdentity m_Identity{certified("server", &m_Authority)};
    TemporaryDirectory m_Files;
};

TEST_F(ReusedTls, ResumesSessionsInEveryVersion) {
    for (int const version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        for (bool const verifies : {false, true}) {
            ResumingServer server(m_Identity, version);
            int const before = contextsMade();
            for (int i = 0; i < 4; ++i) {
                EXPECT_EQ(fetch(request(server.url(), verifies)), "body");
            }
            EXPECT_EQ(contextsMade(), before + 1);
            EXPECT_EQ(server.records(), (Records{"new", "resumed", "resumed", "resumed"}));
        }
    }
}

TEST_F(ReusedTls, IsLeftAloneUnlessAskedFor) {
    ResumingServer server(m_Identity);
    EXPECT_EQ(fetch(request(server.url())), "body");
    KVX_RequestInfo plain = request(server.url());
    plain.transfer.reuseTls = false;
    int const before = contextsMade();
    EXPECT_EQ(fetch(plain), "body");
    EXPECT_EQ(fetch(plain), "body");
    EXPECT_EQ(contextsMade(), before + 2);
    EXPECT_EQ(server.records(), (Records{"new", "new", "new"}));
}

TEST_F(ReusedTls, IsForOneHostPortAndSetOfChecksOnly) {
    ResumingServer server(m_Identity);
    EXPECT_EQ(fetch(request(server.url())), "body");
    EXPECT_EQ(fetch(request(server.url("localhost"))), "body");
    EXPECT_EQ(fetch(request(server.url(), false)), "body");
    KVX_RequestInfo newer = request(server.url());
    newer.transfer.minimumVersion = KVX_TlsVersion::Tls13;
    EXPECT_EQ(fetch(newer), "body");
    ResumingServer other(m_Identity);
    EXPECT_EQ(fetch(request(other.url())), "body");
    EXPECT_EQ(fetch(request(server.url())), "body");
    EXPECT_EQ(other.records(), Records{"new"});
    EXPECT_EQ(server.records(), (Records{"new", "new", "new", "new", "resumed"}));
}

/// The key of a connection, as text.
std::string keyOf(KVX_Transfer const& transfer, char const* trust, char const* host, char const* port) {
    KvxTlsKey key;
    EXPECT_TRUE(kvxTlsKeyOf(transfer, trust, host, port, key));
    return {reinterpret_cast<char const*>(key.m_Digest), sizeof key.m_Digest};
}

TEST(TlsKey, IsAnotherOneForEveryDifference) {
    char const* const variables[] = {X509_get_default_cert_file_env(), X509_get_default_cert_dir_env()};
    for (char const* const variable : variables) {
        ::unsetenv(variable);
    }
    KVX_Transfer const plain;
    KVX_Transfer verifying;
    verifying.verifyPeer = true;
    KVX_Transfer trusting = verifying;
    trusting.trustFile = "trusted.pem";
    KVX_Transfer newer;
    newer.minimumVersion = KVX_TlsVersion::Tls12;
    std::vector<std::string> keys = {
        keyOf(plain, "", "shop", "443"),     keyOf(verifying, "", "shop", "443"), keyOf(trusting, "", "shop", "443"),
        keyOf(trusting, "x", "shop", "443"), keyOf(newer, "", "shop", "443"),     keyOf(plain, "", "shop4", "43"),
        keyOf(plain, "", "shop", "44"),
    };
    for (char const* const variable : variables) {
        ::setenv(variable, "elsewhere", 1);
        keys.push_back(keyOf(verifying, "", "shop", "443"));
        ::unsetenv(variable);
    }
    EXPECT_EQ(keyOf(plain, "", "shop", "443"), keys.front());
    EXPECT_EQ(std::set<std::string>(keys.begin(), keys.end()).size(), keys.size());
}

TEST_F(ReusedTls, EndsWhenTheTrustedAuthoritiesChange) {
    ResumingServer server(m_Identity);
    EXPECT_EQ(fetch(request(server.url())), "body");
    TlsIdentity const other(certified("other", nullptr));
    m_Files.write("trusted.pem", other.certificatePem());
    EXPECT_EQ(bits(thrownCode([&] { fetch(request(server.url())); })), 0x80044814U);
    m_Files.write("trusted.pem", "");
    EXPECT_EQ(bits(thrownCode([&] { fetch(request(server.url())); })), 0x80044900U);
}

TEST_F(ReusedTls, EndsWhenTheSystemsAuthoritiesAreOthers) {
    TlsIdentity const other(certified("other", nullptr));
    m_Files.write("other.pem", other.certificatePem());
    ResumingServer server(m_Identity);
    KVX_RequestInfo system = request(server.url());
    system.transfer.trustFile = "";
    char const* const variable = X509_get_default_cert_file_env();
    ::setenv(variable, m_Files.file("trusted.pem").c_str(), 1);
    EXPECT_EQ(fetch(system), "body");
    EXPECT_EQ(fetch(system), "body");
    ::setenv(variable, m_Files.file("other.pem").c_str(), 1);
    EXPECT_EQ(bits(thrownCode([&] { fetch(system); })), 0x80044814U);
    ::unsetenv(variable);
    EXPECT_EQ(server.records(), (Records{"new", "resumed"}));
}

TEST_F(ReusedTls, EndsAfterTenMinutes) {
    ResumingServer server(m_Identity);
    EXPECT_EQ(fetch(request(server.url())), "body");
    {
        SystemCalls system;
        system->clock_gettime = [](clockid_t clock, timespec* now) {
            int const result = ::clock_gettime(clock, now);
            now->tv_sec += 601;
            return result;
        };
        int const before = contextsMade();
        EXPECT_EQ(fetch(request(server.url())), "body");
        EXPECT_EQ(contextsMade(), before + 1);
    }
    EXPECT_EQ(server.records(), (Records{"new", "new"}));
}

TEST_F(ReusedTls, HoldsTheMostRecentlyUsed) {
    ResumingServer server(m_Identity);
    EXPECT_EQ(fetch(request(server.url())), "body");
    for (int i = 0; i < 20; ++i) {
        KVX_RequestInfo const other = request("https://127.0.0." + std::to_string(i + 10) + ":1/");
        SslConnection const connection(other.transfer, other.host, other.port);
        EXPECT_EQ(connection.Readiness(), KVX_OK);
        if (i % 4 == 0) {
            EXPECT_EQ(fetch(request(server.url())), "body");
        }
    }
    EXPECT_EQ(server.records(), (Records{"new", "resumed", "resumed", "resumed", "resumed", "resumed"}));
}

TEST_F(ReusedTls, ForgetsTheLeastRecentlyUsed) {
    ResumingServer server(m_Identity);
    EXPECT_EQ(fetch(request(server.url())), "body");
    for (int i = 0; i < 16; ++i) {
        KVX_RequestInfo const other = request("https://127.0.0." + std::to_string(i + 40) + ":1/");
        SslConnection const connection(other.transfer, other.host, other.port);
        EXPECT_EQ(connection.Readiness(), KVX_OK);
    }
    EXPECT_EQ(fetch(request(server.url())), "body");
    EXPECT_EQ(server.records(), (Records{"new", "new"}));
}

TEST_F(ReusedTls, DropsTheSessionOfAForgottenContext) {
    ResumingServer server(m_Identity);
    KVX_RequestInfo const first = request(server.url());
    SslConnection connection(first.transfer, first.host, first.port);
    sockaddr_in address = addressOf(bytesOf(first.port));
    ASSERT_EQ(connection.Connect(generic(address)), KVX_OK);
    ASSERT_EQ(connection.Setup(), KVX_OK);
    TbStringStream text("request");
    EXPECT_EQ(connection.Write(text), KVX_OK);
    while (connection.Read(text) > 0) {
    }
    for (int i = 0; i < 16; ++i) {
        KVX_RequestInfo const other = request("https://127.0.0." + std::to_string(i + 70) + ":1/");
        SslConnection const another(other.transfer, other.host, other.port);
        EXPECT_EQ(another.Readiness(), KVX_OK);
    }
    endConnection(connection);
    EXPECT_EQ(fetch(first), "body");
    EXPECT_EQ(fetch(first), "body");
    EXPECT_EQ(server.records(), (Records{"new", "new", "resumed"}));
}

TEST_F(ReusedTls, LeavesTheFirstContextOfTwoThatAreMadeAtOnce) {
    KvxTlsKey key;
    ASSERT_TRUE(kvxTlsKeyOf(request("https://shop.example/").transfer, "trust", "shop.example", "443", key));
    EXPECT_EQ(kvxTakeTls(key).m_Context, nullptr);
    KvxTlsContext const first(SSL_CTX_new(TLS_client_method()));
    KvxTlsContext const second(SSL_CTX_new(TLS_client_method()));
    kvxKeepContext(key, first.get());
    kvxKeepContext(key, second.get());
    EXPECT_EQ(kvxTakeTls(key).m_Context, first);
}

TEST_F(ReusedTls, StillRefusesAPeerAndKeepsNoSessionOfIt) {
    TlsIdentity const stranger(certified("stranger", nullptr));
    ResumingServer server(stranger);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(bits(thrownCode([&] { fetch(request(server.url())); })), 0x80044812U);
    }
    EXPECT_TRUE(server.records().empty());
}

TEST_F(ReusedTls, WorksInSeveralThreadsAtOnce) {
    ResumingServer server(m_Identity);
    auto const exchange = [&] {
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(fetch(request(server.url())), "body");
        }
    };
    std::thread first(exchange);
    std::thread second(exchange);
    exchange();
    first.join();
    second.join();
    EXPECT_EQ(server.records().size(), 30U);
}

TEST_F(ReusedTls, BeginsAnewInAChildProcess) {
    ResumingServer server(m_Identity);
    EXPECT_EQ(fetch(request(server.url())), "body");
    EXPECT_EQ(inChildProcess([&] {
                  int const before = contextsMade();
                  bool const works = fetch(request(server.url())) == "body" && fetch(request(server.url())) == "body";
                  return works && contextsMade() == before + 1 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(fetch(request(server.url())), "body");
    EXPECT_EQ(server.records(), (Records{"new", "new", "resumed", "resumed"}));
}

TEST_F(ReusedTls, WorksInChildrenOfABusyProcess) {
    ResumingServer server(m_Identity);
    std::atomic<bool> isOver{false};
    std::thread busy([&] {
        while (!isOver) {
            fetch(request(server.url()));
        }
    });
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(inChildProcess([&] { return fetch(request(server.url())) == "body" ? 0 : 1; }), 0);
    }
    isOver = true;
    busy.join();
}

TEST_F(ReusedTls, SurvivesFailingAllocations) {
    ResumingServer const server(m_Identity);
    survivesEveryFailingAllocation([&] { EXPECT_EQ(fetch(request(server.url())), "body"); });
}

}  // namespace
