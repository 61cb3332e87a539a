// Lack of memory inside the TLS library, told from what the peer does.
//
// Functions of the TLS library fail as they do without memory. The client is a child process: a process remembers that
// it has lacked memory. Its first read finds nothing, so it waits; a pipe then lets the server go on.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "foundation/tbexception.h"
#include "net/kvxhttp.h"
#include "net/kvxmemorywatch.h"
#include "tests/net/interposed.h"
#include "tests/net/netsupport.h"
#include "tests/support/directories.h"
#include "tests/support/exceptions.h"
#include "tests/support/processes.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"
#include "tests/support/tlsserver.h"
#include "tests/support/waiting.h"

using namespace kvxtest;

namespace {

using What = FailingTls::What;
using Why = FailingTls::Why;

/// Runs `test` in a child process, which reports its failures.
void apart(std::function<void()> const& test) {
    EXPECT_EQ(inChildProcess([&test] {
                  test();
                  return testing::Test::HasFailure() ? 1 : 0;
              }),
              0);
}

KVX_ConnectionLimits quiet() {
    KVX_ConnectionLimits limits;
    limits.isQuiet = true;
    return limits;
}

std::int32_t tlsCode(int reason) {
    return static_cast<std::int32_t>(0x80044000U | static_cast<unsigned>(reason & 0xFFF));
}

int g_Pipe[2] = {-1, -1};

void letServerGoOn() {
    EXPECT_EQ(::write(g_Pipe[1], "x", 1), 1);
}

/// The code of a read whose calls end like `ends`. The server does `last` when the client waits.
void expectRead(char const* name, std::vector<TlsCallEnd> const& ends, void (Peer::*last)(), bool hasLacked,
                std::int32_t code) {
    ASSERT_EQ(::pipe2(g_Pipe, O_CLOEXEC), 0);
    {
        RawServer const server([last](Peer& plain) {
            TlsPeer const peer(plain, TlsOptions{TLS1_2_VERSION, true});  // sends nothing behind the handshake
            char go = '\0';
            EXPECT_EQ(::read(g_Pipe[0], &go, 1), 1);
            (plain.*last)();
        });
        sockaddr_in address = addressOf(server);
        apart([&] {
            SslConnection connection;
            KVX_ConnectionLimits limits = quiet();
            limits.ioTimeout = 20000;
            connection.SetLimits(limits);
            ASSERT_EQ(connection.Connect(generic(address)), KVX_OK);
            ASSERT_EQ(connection.Setup(), KVX_OK);
            if (hasLacked) {
                kvxNoteLackOfMemory();
            }
            SystemCalls system;
            system->poll = [](pollfd* files, nfds_t count, int timeout) {
                letServerGoOn();
                return ::poll(files, count, timeout);
            };
            ScriptedTls const script(ends);
            TbStringStream answer;
            EXPECT_LE(connection.Read(answer), 0) << name;
            EXPECT_EQ(connection.LastError(), code) << name;
            endConnection(connection);
        });
        letServerGoOn();
    }
    ::close(g_Pipe[0]);
    ::close(g_Pipe[1]);
}

TEST(TlsMemory, LackingInAReadIsToldFromWhatThePeerDoes) {
    constexpr int kAlert = SSL_AD_REASON_OFFSET + SSL_AD_ACCESS_DENIED;
    constexpr int kNothingInCommon = SSL_AD_REASON_OFFSET + SSL_AD_HANDSHAKE_FAILURE;
    constexpr int kOther = SSL_R_BAD_LENGTH;  // below the alerts
    TlsCallEnd const waits{true, {}, ENOMEM};
    struct {
        char const* m_Name;
        std::vector<TlsCallEnd> m_Ends;
        void (Peer::*m_Last)();
        bool m_HasLacked;
        std::int32_t m_Code;
    } const rows[] = {
        {"an entry", {{false, {ERR_R_MALLOC_FAILURE}}}, &Peer::finish, false, KVX_E_OUT_OF_MEMORY},
        {"below another", {{false, {ERR_R_MALLOC_FAILURE, kOther}}}, &Peer::finish, false, KVX_E_OUT_OF_MEMORY},
        {"errno", {{false, {}, ENOMEM}}, &Peer::finish, false, KVX_E_OUT_OF_MEMORY},
        {"an alert", {{false, {ERR_R_MALLOC_FAILURE, kAlert}}}, &Peer::finish, false, tlsCode(kAlert)},
        {"an internal error", {{false, {ERR_R_INTERNAL_ERROR}}}, &Peer::finish, false, tlsCode(ERR_R_INTERNAL_ERROR)},
        {"its consequence", {{false, {ERR_R_INTERNAL_ERROR}}}, &Peer::finish, true, KVX_E_OUT_OF_MEMORY},
        {"no algorithm in common", {{false, {kNothingInCommon}}}, &Peer::finish, false, tlsCode(kNothingInCommon)},
        {"for a missing one", {{false, {kNothingInCommon}}}, &Peer::finish, true, KVX_E_OUT_OF_MEMORY},
        {"for a missing kind of key",
         {{false, {SSL_R_UNABLE_TO_FIND_PUBLIC_KEY_PARAMETERS}}},
         &Peer::finish,
         true,
         KVX_E_OUT_OF_MEMORY},
        {"for missing ciphers", {{false, {SSL_R_NO_CIPHERS_AVAILABLE}}}, &Peer::finish, true, KVX_E_OUT_OF_MEMORY},
        {"for missing groups", {{false, {SSL_R_NO_SUITABLE_GROUPS}}}, &Peer::finish, true, KVX_E_OUT_OF_MEMORY},
        {"no consequence", {{false, {kOther}}}, &Peer::finish, true, tlsCode(kOther)},
        {"a reset later", {waits, {true, {}}}, &Peer::reset, false, tlsCode(SSL_ERROR_SYSCALL)},
        {"without errno later", {waits, {true, {}, 0}}, &Peer::reset, false, KVX_E_OUT_OF_MEMORY},
        {"an end later", {waits, {true, {}}}, &Peer::finish, false, tlsCode(SSL_ERROR_ZERO_RETURN)},
    };
    for (auto const& row : rows) {
        expectRead(row.m_Name, row.m_Ends, row.m_Last, row.m_HasLacked, row.m_Code);
    }
}

TEST(TlsMemory, LackingIsNoBadCertificate) {
    TlsIdentity const stranger;
    RawServer const server([&](Peer& plain) { TlsPeer const peer(plain, TlsOptions{0, true, &stranger}); });
    TlsIdentity const authority;
    TemporaryDirectory files;
    files.write("trusted.pem", authority.certificatePem());
    KVX_RequestInfo request = requestFor("https://localhost:" + server.portText() + "/");
    request.transfer.verifyPeer = true;
    request.transfer.trustFile = stringOf(files.file("trusted.pem"));
    request.transfer.isQuiet = true;
    apart([&] {
        ScriptedTls const script(std::vector<TlsCallEnd>{TlsCallEnd{true, {ERR_R_MALLOC_FAILURE}}});
        EXPECT_EQ(thrownCode([&] { fetch(request); }), KVX_E_OUT_OF_MEMORY);
    });
}

TEST(TlsMemory, LackingEarlierExplainsVerdictsOfMissingAlgorithmsOnly) {
    struct {
        long m_Verdict;
        bool m_HasLacked;
        std::int32_t m_Code;
    } const rows[] = {
        {X509_V_ERR_EE_KEY_TOO_SMALL, true, KVX_E_OUT_OF_MEMORY},
        {X509_V_ERR_CA_KEY_TOO_SMALL, true, KVX_E_OUT_OF_MEMORY},
        {X509_V_ERR_CERT_SIGNATURE_FAILURE, true, KVX_E_OUT_OF_MEMORY},
        {X509_V_ERR_CERT_SIGNATURE_FAILURE, false, tlsCode(kKvxTlsCertificate | X509_V_ERR_CERT_SIGNATURE_FAILURE)},
        {X509_V_ERR_CERT_HAS_EXPIRED, true, tlsCode(kKvxTlsCertificate | X509_V_ERR_CERT_HAS_EXPIRED)},
    };
    TlsIdentity const identity;
    TemporaryDirectory files;
    files.write("trusted.pem", identity.certificatePem());
    for (auto const& row : rows) {
        RawServer const server([&](Peer& plain) { TlsPeer const peer(plain, TlsOptions{0, true, &identity}); });
        KVX_RequestInfo request = requestFor("https://localhost:" + server.portText() + "/");
        request.transfer.verifyPeer = true;
        request.transfer.trustFile = stringOf(files.file("trusted.pem"));
        request.transfer.isQuiet = true;
        apart([&] {
            ScriptedVerdict const verdict(row.m_Verdict);
            if (row.m_HasLacked) {
                kvxNoteLackOfMemory();
            }
            EXPECT_EQ(thrownCode([&] { fetch(request); }), row.m_Code) << row.m_Verdict;
        });
    }
}

TEST(TlsMemory, LackingForAContextIsTheRefusal) {
    apart([] {
        FailingTls const failing(What::kContext, Why::kNoQueue);
        EXPECT_EQ(SslConnection().Readiness(), KVX_E_OUT_OF_MEMORY) << "too little for an error queue";
    });
    apart([] {
        FailingTls const failing(What::kContext, Why::kMemory);
        EXPECT_EQ(SslConnection().Readiness(), KVX_E_OUT_OF_MEMORY);
    });
    apart([] {
        FailingTls const failing(What::kContext);
        EXPECT_EQ(SslConnection().Readiness(), KVX_OK) << "another reason";
        kvxNoteLackOfMemory();
        EXPECT_EQ(SslConnection().Readiness(), KVX_E_OUT_OF_MEMORY) << "the consequence";
    });
}

TEST(TlsMemory, LackingForAContextStopsNoFork) {
    int const status = inChildProcess(
        [] {
            std::atomic<pid_t> forking{0};
            std::thread thread;
            LackingContexts const lacking([&] {
                thread = std::thread([&] {
                    forking = idOfThisThread();
                    pid_t const child = ::fork();
                    if (child == 0) {
                        ::_exit(0);
                    }
                    ::waitpid(child, nullptr, 0);
                });
                EXPECT_TRUE(waitUntil([&] { return forking != 0 && isBlocked(forking); }));
            });
            EXPECT_EQ(SslConnection().Readiness(), KVX_E_OUT_OF_MEMORY);
            thread.join();
            return testing::Test::HasFailure() ? 1 : 0;
        },
        kTimeout);
    EXPECT_EQ(status, 0);
}

TEST(TlsMemory, LackingForASessionEndsTheSetup) {
    for (What const what : {What::kSession, What::kSocket}) {
        apart([what] {
            SslConnection connection;
            connection.SetLimits(quiet());
            FailingTls const failing(what, Why::kMemory);
            EXPECT_EQ(connection.Setup(), KVX_E_OUT_OF_MEMORY);
        });
        apart([what] {
            SslConnection connection;
            connection.SetLimits(quiet());
            FailingTls const failing(what);
            EXPECT_NE(connection.Setup(), KVX_E_OUT_OF_MEMORY) << "another reason";
            kvxNoteLackOfMemory();
            EXPECT_EQ(connection.Setup(), KVX_E_OUT_OF_MEMORY) << "the consequence";
        });
    }
}

TEST(TlsMemory, LackingForTheAuthoritiesIsNoMissingTrust) {
    TlsIdentity const authority;
    TemporaryDirectory files;
    files.write("trusted.pem", authority.certificatePem());
    KVX_Transfer transfer;
    transfer.verifyPeer = true;
    struct {
        What m_What;
        char const* m_File;
    } const rows[] = {
        {What::kTrustText, "trusted.pem"}, {What::kTrustedEntry, "trusted.pem"}, {What::kTrustedFolder, ""}};
    for (auto const& row : rows) {
        transfer.trustFile = *row.m_File == '\0' ? TbString() : stringOf(files.file(row.m_File));
        apart([&] {
            FailingTls const failing(row.m_What, Why::kMemory);
            EXPECT_EQ(SslConnection(transfer, "localhost").Readiness(), KVX_E_OUT_OF_MEMORY);
        });
        FailingTls const failing(row.m_What);
        EXPECT_EQ(SslConnection(transfer, "localhost").Readiness(), KVX_E_TLS_FAMILY | kKvxTlsTrust);
    }
}

}  // namespace
