// The network layer against the payment service with a fault armed.
//
// The request is a key query without credentials, so the whole response is a known Error. The secure fixture repeats
// its tests over plain and TLS.

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include "net/kvxhttp.h"
#include "sandbox/service.h"
#include "tests/net/netsupport.h"
#include "tests/support/allocations.h"
#include "tests/support/directories.h"
#include "tests/support/exceptions.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

std::uint32_t bits(std::int32_t code) {
    return static_cast<std::uint32_t>(code);
}

/// A service, and a key query without credentials, so that an Error is the response.
class FaultySession : public testing::Test {
protected:
    explicit FaultySession(bool tls = false) : m_Service(options(m_Dir.path(), tls)) { m_Service.start(); }

    void arm(std::string const& fault) { m_Service.services().m_Faults.arm(sandbox::parseFault(fault)); }

    [[nodiscard]] std::string port(std::string const& scheme) const {
        return std::to_string(scheme == "https" ? m_Service.addresses().m_Tls.m_Port
                                                : m_Service.addresses().m_Plain.m_Port);
    }

    static std::string path(std::string const& keyId) {
        return "/auto?DATA=%3cKVX%20MSGTYPE%3d%22KeyQueryRequest%22%20KEYID%3d%22" + keyId + "%22%2f%3e";
    }

    [[nodiscard]] std::string url(std::string const& scheme, std::string const& keyId = "k") const {
        return scheme + "://demo:demo@127.0.0.1:" + port(scheme) + path(keyId);
    }

    /// Connects `connection` and sends a request through it.
    void ask(KVX_Connection& connection, std::string const& scheme) const {
        sockaddr_in address = addressOf(port(scheme));
        ASSERT_EQ(connection.Connect(generic(address)), KVX_OK);
        ASSERT_EQ(connection.Setup(), KVX_OK);
        TbStringStream request(("GET " + path("k") + " HTTP/1.0\r\n\r\n").c_str());
        ASSERT_GE(connection.Write(request), 0);
    }

    /// All that comes back to `ask()`.
    [[nodiscard]] std::string wholeResponse() const {
        SockConnection connection;
        ask(connection, "http");
        TbStringStream response;
        while (connection.Read(response) > 0) {
        }
        endConnection(connection);
        return bytesOf(response);
    }

private:
    static sandbox::Options options(std::string const& directory, bool tls) {
        sandbox::Options options;
        options.m_DataDirectory = directory;
        options.m_Tls = tls;
        return options;
    }

    TemporaryDirectory m_Dir;
    sandbox::Service m_Service;
};

/// The same under both schemes.
class FaultySecureSession : public FaultySession {
protected:
    FaultySecureSession() : FaultySession(true) {}
};

TEST_F(FaultySecureSession, ReceivesAnAnswerByteByByte) {
    std::string const longIdentifier(5000, 'x');
    for (char const* const scheme : {"http", "https"}) {
        std::string const whole = fetch(url(scheme, longIdentifier));
        EXPECT_GT(whole.size(), longIdentifier.size());
        arm("bytewise,exchange=keyquery,seconds=0");
        EXPECT_EQ(fetch(url(scheme, longIdentifier)), whole);
    }
}

TEST_F(FaultySession, ReportsEveryStatusOfTheServer) {
    struct {
        int m_Status;
        std::uint32_t m_Code;
        char const* m_Text;
    } const cases[] = {
        {401, 0x80042191U, "access to URL resource denied"},  {404, 0x80042194U, "URL resource not found"},
        {503, 0x800421F7U, "server temporarily unavailable"}, {100, 0x80042064U, "ErrorCode = 0x80042064"},
        {201, 0x800420C9U, "ErrorCode = 0x800420c9"},         {500, 0x800421F4U, "ErrorCode = 0x800421f4"},
    };
    for (auto const& row : cases) {
        arm("http-status,exchange=keyquery,status=" + std::to_string(row.m_Status));
        Thrown const failure = thrown([&] { fetch(url("http")); });
        EXPECT_EQ(bits(failure.m_Code), row.m_Code);
        EXPECT_EQ(failure.m_Text, row.m_Text);
        EXPECT_EQ(failure.m_File, "kvxhttp");
        EXPECT_EQ(failure.m_Line, 855);
    }
}

TEST_F(FaultySession, LeavesTheOutputAloneWhenItFails) {
    arm("http-status,exchange=keyquery,status=404");
    TbStringStream out("kept");
    EXPECT_EQ(bits(thrownCode([&] { HttpSession(requestFor(url("http")), out); })), 0x80042194U);
    EXPECT_EQ(bytesOf(out), "kept");
}

TEST_F(FaultySecureSession, ReportsARefusedConnection) {
    arm("refuse");
    for (char const* const scheme : {"http", "https"}) {
        Thrown const failure = thrown([&] { fetch(url(scheme)); });
        EXPECT_EQ(bits(failure.m_Code), 0x8004303DU);
        EXPECT_EQ(failure.m_Text, "connection refused (failed to connect to host)");
    }
}

TEST_F(FaultySecureSession, MeetsACleanlyRefusedHandshakeWhenItWrites) {
    arm("tls-abort");
    Thrown const failure = thrown([&] { fetch(url("https")); });
    EXPECT_EQ(bits(failure.m_Code) & 0xFFFFF000U, 0x80044000U);
    EXPECT_NE(failure.m_Text.find(" (failed to write to host)"), std::string::npos) << failure.m_Text;
}

TEST_F(FaultySession, ReportsAnEmptyAnswer) {
    arm("drop,exchange=keyquery");
    Thrown const failure = thrown([&] { fetch(url("http")); });
    EXPECT_EQ(bits(failure.m_Code), 0x80042022U);
    EXPECT_EQ(failure.m_Text, "ErrorCode = 0x80042022");
}

TEST_F(FaultySession, ReceivesAHugeAnswerInLinearTime) {
    arm("huge,exchange=keyquery,megabytes=100");
    KVX_RequestInfo const request = requestFor(url("http"));
    TbStringStream out;
    {
        FailingAllocation const counting(-1, FailingAllocation::Mode::kOnlyThat);
        HttpSession(request, out);
        // A hundred thousand chunks: the growth is geometric, and no chunk is copied on its own.
        EXPECT_LT(FailingAllocation::requested(), 200);
    }
    EXPECT_EQ(out.length(), 100U << 20U);
}

TEST_F(FaultySecureSession, KeepsCuttingAChunkAtItsFirstZeroByte) {
    // Responses are text; the count covers the whole chunk all the same, so that reading goes on.
    auto const length = static_cast<std::int32_t>(wholeResponse().size());
    SockConnection plain;
    SslConnection secure;
    for (KVX_Connection* const connection :
         {static_cast<KVX_Connection*>(&plain), static_cast<KVX_Connection*>(&secure)}) {
        arm("nul-bytes,exchange=keyquery,bytes=3");
        ask(*connection, connection == &plain ? "http" : "https");
        TbStringStream response;
        EXPECT_EQ(connection->Read(response), length + 1);
        EXPECT_EQ(bytesOf(response), "HTT");
        EXPECT_EQ(connection->Read(response), 0);
        endConnection(*connection);
    }
}

TEST_F(FaultySession, ReportsAReset) {
    arm("reset,exchange=keyquery");
    SockConnection connection;
    ask(connection, "http");
    TbStringStream response("kept");
    EXPECT_EQ(connection.Read(response), -1);
    EXPECT_EQ(bits(connection.LastError()), 0x80043036U);
    EXPECT_EQ(bytesOf(response), "kept");
    endConnection(connection);
}

TEST_F(FaultySecureSession, ReportsAResetUnderTls) {
    arm("reset,exchange=keyquery");
    SslConnection connection;
    ask(connection, "https");
    TbStringStream response("kept");
    ERR_raise(ERR_LIB_RSA, ERR_R_MALLOC_FAILURE);  // an entry of other code, to be ignored
    EXPECT_EQ(connection.Read(response), -1);
    EXPECT_EQ(bits(connection.LastError()), 0x80044000U | SSL_ERROR_SYSCALL);
    EXPECT_EQ(bytesOf(response), "kept");
    endConnection(connection);
}

}  // namespace
