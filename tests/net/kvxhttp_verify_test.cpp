// Verified peers: chain, dates, host, address, version, and trust that cannot be had.
//
// Authorities and certificates are made at run time, the trust files lie in a temporary directory. After every refusal
// the server must have seen no request. Odd: a clean end in the handshake, a success elsewhere, is a failure here.

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <cstdlib>
#include <optional>

#include "net/kvxhttp.h"
#include "net/kvxtls.h"
#include "tests/net/interposed.h"
#include "tests/net/netsupport.h"
#include "tests/support/directories.h"
#include "tests/support/exceptions.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"
#include "tests/support/tlsserver.h"

using namespace kvxtest;

namespace {

constexpr char kResponse[] = "HTTP/1.0 200 OK\r\n\r\nbody";
constexpr char kEstablished[] = "HTTP/1.0 200 Connection established\r\n\r\n";
constexpr char kSetupFailed[] = "failed to setup protocol";

std::uint32_t bits(std::int32_t code) {
    return static_cast<std::uint32_t>(code);
}

CertificateOptions authority(char const* name) {
    CertificateOptions options;
    options.m_Name = name;
    options.m_IsAuthority = true;
    return options;
}

/// Two authorities, of which one is trusted, and a directory for their files.
class VerifiedPeer : public testing::Test {
protected:
    VerifiedPeer() { m_Files.write("trusted.pem", m_Trusted.certificatePem()); }

    /// A certificate by the trusted authority for the loopback, by name and by address.
    [[nodiscard]] CertificateOptions good() const {
        CertificateOptions options;
        options.m_Hosts = "DNS:localhost,IP:127.0.0.1";
        options.m_Issuer = &m_Trusted;
        return options;
    }

    [[nodiscard]] KVX_RequestInfo request(std::string const& url, char const* trustFile = "trusted.pem") const {
        KVX_RequestInfo request = requestFor(url);
        request.transfer.verifyPeer = true;
        request.transfer.isQuiet = true;
        if (*trustFile != '\0') {
            request.transfer.trustFile = stringOf(m_Files.file(trustFile));
        }
        return request;
    }

    /// Fails the test unless `request` is refused with `code` in the set-up of TLS.
    static void expectRefused(KVX_RequestInfo const& request, std::uint32_t code, std::string const& what) {
        Thrown const failure = thrown([&] { fetch(request); });
        EXPECT_EQ(bits(failure.m_Code), code) << what;
        EXPECT_NE(failure.m_Text.find(kSetupFailed), std::string::npos) << what << ": " << failure.m_Text;
    }

    TlsIdentity m_Trusted{authority("Trusted authority")};
    TlsIdentity m_Other{authority("Other authority")};
    TemporaryDirectory m_Files;
};

/// A server that records the name that it was asked for, and the request.
class NamedServer : public RawServer {
public:
    explicit NamedServer(TlsIdentity const& identity, TlsIdentity const* authority = nullptr, int version = 0)
        : RawServer([this, &identity, authority, version](Peer& plain) {
              TlsPeer peer(plain, TlsOptions{version, true, &identity, authority});
              if (peer.isReady()) {
                  std::string const request = peer.receiveRequest();
                  if (!request.empty()) {
                      record(peer.serverName());
                      record(request.substr(0, request.find(' ')));
                      peer.send(kResponse);
                  }
              }
          }) {}
};

TEST_F(VerifiedPeer, IsAcceptedByNameAndByAddress) {
    TlsIdentity const identity(good());
    {
        NamedServer server(identity);
        EXPECT_EQ(fetch(request("https://localhost:" + server.portText() + "/")), "body");
        EXPECT_EQ(server.records(), (std::vector<std::string>{"localhost", "GET"}));
    }
    for (char const* const address : {"127.0.0.1", "127.1", "2130706433"}) {
        NamedServer server(identity);
        EXPECT_EQ(fetch(request("https://" + std::string(address) + ":" + server.portText() + "/")), "body");
        EXPECT_EQ(server.records(), (std::vector<std::string>{"", "GET"})) << "an address is no name to announce";
    }
}

TEST_F(VerifiedPeer, IsRefusedForEveryFlawOfItsCertificate) {
    CertificateOptions expired = good();
    expired.m_ValidFrom = -7200;
    expired.m_ValidTo = -60;
    CertificateOptions early = good();
    early.m_ValidFrom = 3600;
    CertificateOptions elsewhere = good();
    elsewhere.m_Hosts = "DNS:shop.example,IP:127.0.0.2";
    CertificateOptions unnamed = good();  // the common name does not stand for an address
    unnamed.m_Name = "127.0.0.1";
    unnamed.m_Hosts = "";
    CertificateOptions wildcard = good();
    wildcard.m_Hosts = "DNS:*,DNS:loc*,DNS:*host";
    CertificateOptions unknown = good();
    unknown.m_Issuer = &m_Other;
    CertificateOptions self = good();
    self.m_Issuer = nullptr;
    CertificateOptions impostor = good();  // a server's certificate is no authority
    TlsIdentity const leaf(good());
    impostor.m_Name = "impostor";
    impostor.m_Issuer = &leaf;
    struct {
        char const* m_Name;
        CertificateOptions const& m_Options;
        TlsIdentity const* m_Authority;
        char const* m_Host;
        std::uint32_t m_Code;
    } const cases[] = {
        {"expired", expired, nullptr, "localhost", 0x8004480AU},
        {"not valid yet", early, nullptr, "localhost", 0x80044809U},
        {"another name", elsewhere, nullptr, "localhost", 0x8004483EU},
        {"another address", elsewhere, nullptr, "127.0.0.1", 0x80044840U},
        {"address in the common name", unnamed, nullptr, "127.0.0.1", 0x80044840U},
        {"wildcards", wildcard, nullptr, "localhost", 0x8004483EU},
        {"unknown authority", unknown, nullptr, "localhost", 0x80044814U},
        {"unknown authority that is sent", unknown, &m_Other, "localhost", 0x80044813U},
        {"signed by itself", self, nullptr, "localhost", 0x80044812U},
        {"signed by a server", impostor, &leaf, "localhost", 0x8004484FU},
    };
    for (auto const& row : cases) {
        TlsIdentity const identity(row.m_Options);
        NamedServer server(identity, row.m_Authority);
        std::string const url = std::string("https://") + row.m_Host + ":" + server.portText() + "/";
        expectRefused(request(url), row.m_Code, row.m_Name);
        // Nobody asks: nobody is refused.
        EXPECT_EQ(fetch(url), "body") << row.m_Name;
        EXPECT_EQ(server.records(), (std::vector<std::string>{"", "GET"})) << row.m_Name << ": one request only";
    }
}

TEST_F(VerifiedPeer, IsTheHostBehindAProxy) {
    CertificateOptions options = good();
    options.m_Hosts = "DNS:shop.example,DNS:*.whole.example,DNS:sh*.part.example";
    TlsIdentity const identity(options);
    struct {
        char const* m_Host;
        std::uint32_t m_Code;
    } const cases[] = {{"shop.example", 0},
                       {"shop.whole.example", 0},
                       {"shop.part.example", 0x8004483EU},
                       {"other.example", 0x8004483EU},
                       {"10.0.0.1", 0x80044840U}};
    for (auto const& row : cases) {
        std::vector<std::string> seen;
        RawServer proxy([&](Peer& plain) {
            plain.receiveRequest();
            plain.send(kEstablished);
            TlsPeer peer(plain, TlsOptions{0, true, &identity});
            std::string const received = peer.isReady() ? peer.receiveRequest() : std::string();
            if (!received.empty()) {
                seen.push_back(peer.serverName());
                peer.send(kResponse);
            }
        });
        KVX_RequestInfo through = request(std::string("https://") + row.m_Host + "/x");
        through.proxyHost = "127.0.0.1";
        through.proxyPort = stringOf(proxy.portText());
        EXPECT_EQ(bits(thrownCode([&] { fetch(through); })), row.m_Code) << row.m_Host;
        proxy.records();
        EXPECT_EQ(seen, row.m_Code == 0 ? std::vector<std::string>{row.m_Host} : std::vector<std::string>{});
    }
}

TEST_F(VerifiedPeer, IsTrustedByTheSystemsAuthoritiesWithoutAFile) {
    TlsIdentity const identity(good());
    m_Files.write("other.pem", m_Other.certificatePem());
    char const* const variable = X509_get_default_cert_file_env();
    for (char const* const file : {"trusted.pem", "other.pem"}) {
        NamedServer const server(identity);
        ::setenv(variable, m_Files.file(file).c_str(), 1);
        std::int32_t const code =
            thrownCode([&] { fetch(request("https://localhost:" + server.portText() + "/", "")); });
        ::unsetenv(variable);
        EXPECT_EQ(bits(code), std::string(file) == "trusted.pem" ? 0 : 0x80044814U) << file;
    }
}

TEST_F(VerifiedPeer, IsTrustedByAnyAuthorityOfTheFile) {
    TlsIdentity const identity(good());
    m_Files.write("both.pem", "A comment.\n" + m_Other.keyPem() + m_Other.certificatePem() + "\n" +
                                  m_Trusted.certificatePem() + "And another.\n");
    NamedServer const server(identity);
    EXPECT_EQ(fetch(request("https://localhost:" + server.portText() + "/", "both.pem")), "body");
}

/// The certificate of `identity`, encrypted with a pass phrase.
std::string protectedPem(TlsIdentity const& identity) {
    OpenSslHolder<BIO> const out(BIO_new(BIO_s_mem()));
    std::string phrase = "phrase";
    EXPECT_EQ(
        PEM_ASN1_write_bio(reinterpret_cast<i2d_of_void*>(&i2d_X509), PEM_STRING_X509, out.get(),
                           identity.certificate(), EVP_aes_128_cbc(), reinterpret_cast<unsigned char*>(phrase.data()),
                           static_cast<int>(phrase.size()), nullptr, nullptr),
        1);
    char* text = nullptr;
    long const length = BIO_get_mem_data(out.get(), &text);
    return {text, static_cast<std::size_t>(length)};
}

TEST_F(VerifiedPeer, IsNotAskedForWhenTheTrustedAuthoritiesCannotBeRead) {
    std::string const whole = m_Trusted.certificatePem();
    m_Files.write("empty.pem", "");
    m_Files.write("text.pem", "no certificate");
    m_Files.write("key.pem", m_Trusted.keyPem());
    m_Files.write("cut.pem", whole.substr(0, whole.size() / 2));
    m_Files.write("second-cut.pem", whole + whole.substr(0, whole.size() / 2));
    m_Files.write("garbled.pem", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
    m_Files.write("directory/file", "");
    m_Files.write("protected.pem", whole + protectedPem(m_Trusted));
    ScriptedResolver const resolver(ScriptedResolver::Answer::kAddress);
    SystemCalls system;
    system->socket = [](int, int, int) {
        ADD_FAILURE() << "a socket";
        return -1;
    };
    for (char const* const file : {"missing.pem", "empty.pem", "text.pem", "key.pem", "cut.pem", "second-cut.pem",
                                   "garbled.pem", "directory", "protected.pem"}) {
        expectRefused(request("https://gateway/x", file), 0x80044900U, file);
        KVX_RequestInfo through = request("https://gateway/x", file);
        through.proxyHost = "gateway";
        expectRefused(through, 0x80044900U, file);
        EXPECT_EQ(thrown([&] { fetch(through); }).m_Line, 618);
    }
    EXPECT_TRUE(resolver.lookUps().empty());
}

TEST_F(VerifiedPeer, IsNotAskedForWhenTheTlsLibraryCannotProtectTheContext) {
    using What = FailingTls::What;
    SystemCalls system;
    system->socket = [](int, int, int) {
        ADD_FAILURE() << "a socket";
        return -1;
    };
    KVX_RequestInfo protectedRequest = request("https://127.0.0.1:1/x");
    protectedRequest.transfer.minimumVersion = KVX_TlsVersion::Tls12;
    for (What const what : {What::kVersion, What::kTrustText, What::kTrustedEntry}) {
        FailingTls const failing(what);
        expectRefused(protectedRequest, 0x80044900U, std::to_string(static_cast<int>(what)));
    }
    protectedRequest.transfer.verifyPeer = false;
    FailingTls const failing(What::kVersion);
    expectRefused(protectedRequest, 0x80044900U, "a version");
}

TEST_F(VerifiedPeer, IsRefusedWithoutAContext) {
    TlsIdentity const identity(good());
    NamedServer server(identity);
    {
        FailingTls const failing(FailingTls::What::kContext);
        EXPECT_NE(thrownCode([&] { fetch(request("https://localhost:" + server.portText() + "/")); }), KVX_OK);
    }
    EXPECT_TRUE(server.records().empty());
}

TEST_F(VerifiedPeer, NeedsAHostToBe) {
    ClosedPort const nobody;
    KVX_RequestInfo through = request("https://shop.example/x");
    through.proxyHost = "127.0.0.1";
    through.proxyPort = stringOf(nobody.text());
    through.host = "";
    expectRefused(through, 0x80044901U, "no host");
    through.host = ".shop.example";
    expectRefused(through, 0x80044901U, "any host below another");
    // These are only found out by the TLS library.
    TlsIdentity const identity(good());
    for (std::string const& host : {std::string("local\0host", 10), std::string(300, 'x')}) {
        NamedServer server(identity);
        KVX_Transfer transfer = request("https://localhost/").transfer;
        SslConnection connection(transfer, stringOf(host));
        KVX_ConnectionLimits quiet;
        quiet.isQuiet = true;
        connection.SetLimits(quiet);
        sockaddr_in address = addressOf(server);
        ASSERT_EQ(connection.Connect(generic(address)), KVX_OK);
        EXPECT_EQ(bits(connection.Setup()), 0x80044901U);
        endConnection(connection);
    }
}

TEST_F(VerifiedPeer, IsNotPlainHttpsBusiness) {
    // A plain URL has no peer to verify, so its trust is not read.
    RawServer const server(kResponse);
    EXPECT_EQ(fetch(request(plainUrl(server, "/"), "missing.pem")), "body");
}

TEST_F(VerifiedPeer, DoesNotGetAwayWithACleanEndInTheHandshake) {
    RawServer::Script const ends[] = {
        [](Peer& peer) { peer.finish(); },
        [](Peer& peer) {
            peer.receive();
            peer.finish();
        },
        [](Peer& peer) {
            peer.receive();
            peer.send(std::string("\x15\x03\x01\x00\x02\x01\x00", 7));
            peer.finish();
        },
    };
    for (RawServer::Script const& end : ends) {
        RawServer const server(end);
        Thrown const failure = thrown([&] { fetch(request(secureUrl(server, "/"))); });
        EXPECT_EQ(bits(failure.m_Code) & 0xFFFFF000U, 0x80044000U);
        EXPECT_NE(bits(failure.m_Code) & 0x00000FFFU, 0U);
        EXPECT_LT(bits(failure.m_Code) & 0x00000FFFU, 0x800U) << "no certificate was refused";
        EXPECT_EQ(failure.m_Line, 678);
    }
}

TEST_F(VerifiedPeer, PrintsTheLineOfAFailedHandshakeUnlessQuiet) {
    TlsIdentity const stranger(authority("stranger"));
    NamedServer const server(stranger);
    KVX_RequestInfo loud = request("https://localhost:" + server.portText() + "/");
    loud.transfer.isQuiet = false;
    CapturedOutput printed;
    EXPECT_NE(thrownCode([&] { fetch(loud); }), 0);
    EXPECT_EQ(printed.text(), "SSL ERROR: connect failed\n");
}

TEST_F(VerifiedPeer, MustSpeakTheLowestVersion) {
    TlsIdentity const identity(good());
    struct {
        KVX_TlsVersion m_Minimum;
        int m_Version;
        bool m_IsAccepted;
    } const cases[] = {
        {KVX_TlsVersion::Any, TLS1_2_VERSION, true},    {KVX_TlsVersion::Tls10, TLS1_2_VERSION, true},
        {KVX_TlsVersion::Tls11, TLS1_2_VERSION, true},  {KVX_TlsVersion::Tls12, TLS1_2_VERSION, true},
        {KVX_TlsVersion::Tls12, TLS1_3_VERSION, true},  {KVX_TlsVersion::Tls13, TLS1_3_VERSION, true},
        {KVX_TlsVersion::Tls13, TLS1_2_VERSION, false},
    };
    for (auto const& row : cases) {
        for (bool const verifies : {false, true}) {
            NamedServer server(identity, nullptr, row.m_Version);
            KVX_RequestInfo versioned = request("https://localhost:" + server.portText() + "/");
            versioned.transfer.verifyPeer = verifies;
            versioned.transfer.minimumVersion = row.m_Minimum;
            std::int32_t const code = thrownCode([&] { fetch(versioned); });
            EXPECT_EQ(code == 0, row.m_IsAccepted);
            EXPECT_TRUE(code == 0 || (bits(code) & 0xFFFFF000U) == 0x80044000U);
            EXPECT_EQ(server.records().empty(), !row.m_IsAccepted);
        }
    }
}

TEST_F(VerifiedPeer, IsNoneWithoutATransfer) {
    TlsIdentity const stranger(authority("stranger"));
    NamedServer const server(stranger);
    SslConnection connection;
    EXPECT_EQ(connection.Readiness(), KVX_OK);
    sockaddr_in address = addressOf(server);
    ASSERT_EQ(connection.Connect(generic(address)), KVX_OK);
    EXPECT_EQ(connection.Setup(), KVX_OK);
    endConnection(connection);
}

TEST_F(VerifiedPeer, IsRefusedWithoutTrustEvenByAConnectionThatIsSetUpAllTheSame) {
    TlsIdentity const identity(good());
    NamedServer server(identity);
    SslConnection connection(request("https://localhost/", "missing.pem").transfer, "localhost");
    EXPECT_EQ(bits(connection.Readiness()), 0x80044900U);
    EXPECT_EQ(bits(connection.LastError()), 0x80044900U);
    sockaddr_in address = addressOf(server);
    ASSERT_EQ(connection.Connect(generic(address)), KVX_OK);
    EXPECT_EQ(bits(connection.Setup()), 0x80044900U);
    EXPECT_EQ(bits(connection.LastError()), 0x80044900U);
    endConnection(connection);
    EXPECT_TRUE(server.records().empty());
}

TEST(Protection, LeavesAHigherVersionThatTheTlsLibraryIsConfiguredFor) {
    OpenSslHolder<SSL_CTX> const context(SSL_CTX_new(TLS_client_method()));
    KVX_Transfer transfer;
    for (KVX_TlsVersion const minimum : {KVX_TlsVersion::Any, KVX_TlsVersion::Tls12, KVX_TlsVersion::Tls13}) {
        SSL_CTX_set_min_proto_version(context.get(), TLS1_3_VERSION);
        transfer.minimumVersion = minimum;
        static_cast<void>(kvxProtect(context.get(), transfer, ""));
        EXPECT_EQ(SSL_CTX_get_min_proto_version(context.get()), TLS1_3_VERSION);
    }
}

}  // namespace
