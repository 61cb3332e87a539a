// The URL stream: files of a directory and HTTP resources under one name.
//
// Files come from a temporary directory, resources from scripted servers over plain and TLS. Odd: names that look like
// a URL never reach the file system.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/kvxctx.h"
#include "net/kvxurl.h"
#include "tests/net/interposed.h"
#include "tests/net/netsupport.h"
#include "tests/support/allocations.h"
#include "tests/support/directories.h"
#include "tests/support/exceptions.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"
#include "tests/support/tlsserver.h"
#include "tests/support/tracerecorder.h"

using namespace kvxtest;

namespace {

constexpr char kResponse[] = "HTTP/1.0 200 OK\r\n\r\n<KVX A=\"b\"/>";
constexpr char kBody[] = "<KVX A=\"b\"/>";

std::uint32_t bits(std::int32_t code) {
    return static_cast<std::uint32_t>(code);
}

/// A context on a directory of its own.
class StreamFromURL : public testing::Test {
protected:
    StreamFromURL() { m_Context.Open(stringOf(m_Directory.path())); }

    std::string read(std::string const& url) {
        TbStringStream out;
        m_Context.StreamFromURL(stringOf(url), out);
        return bytesOf(out);
    }

    void settings(std::string const& attributes) { m_Directory.write("settings.xml", "<KVX " + attributes + "/>"); }

    TemporaryDirectory m_Directory;
    KVX_Context m_Context;
};

TEST_F(StreamFromURL, ReadsLocalFilesByteForByte) {
    std::string content;
    for (int byte = 0; byte < 256; ++byte) {
        content += static_cast<char>(byte);
    }
    m_Directory.write("file", content);
    EXPECT_EQ(read(m_Directory.file("file")), content);
}

TEST_F(StreamFromURL, AppendsToTheStream) {
    m_Directory.write("file", "content");
    TbStringStream out("before ");
    m_Context.StreamFromURL(stringOf(m_Directory.file("file")), out);
    EXPECT_EQ(bytesOf(out), "before content");
}

TEST_F(StreamFromURL, ReportsFilesThatCannotBeOpened) {
    for (std::string const& path : {m_Directory.file("missing"), m_Directory.path(), std::string("ftp://host/x"),
                                    std::string("HTTP://host/x"), std::string()}) {
        Thrown const failure = thrown([&] { read(path); });
        EXPECT_EQ(bits(failure.m_Code), 0x80040219U) << path;
        EXPECT_EQ(failure.m_Text, "ErrorCode = 0x80040219") << path;
        EXPECT_EQ(failure.m_File, "kvxurl") << path;
    }
}

TEST_F(StreamFromURL, ReadsLocalFilesWithoutLookingAtTheSettings) {
    m_Directory.write("settings.xml", "no document");
    m_Directory.write("file", "content");
    EXPECT_EQ(read(m_Directory.file("file")), "content");
}

TEST_F(StreamFromURL, FetchesUrlsWithoutSettings) {
    RawServer const plain(kResponse);
    TlsServer const secure(kResponse);
    EXPECT_EQ(read(plainUrl(plain, "/x")), kBody);
    EXPECT_EQ(read(secureUrl(secure, "/x")), kBody);
}

TEST_F(StreamFromURL, ReportsUrlsThatCannotBeSplit) {
    for (char const* const url : {"http:x", "http:/host/x", "https-shop/config.xml", "https shop"}) {
        Thrown const failure = thrown([&] { read(url); });
        EXPECT_EQ(bits(failure.m_Code), 0x80042019U) << url;
        EXPECT_EQ(failure.m_Text, "ErrorCode = 0x80042019") << url;
        EXPECT_EQ(failure.m_File, "kvxurl") << url;
    }
}

TEST_F(StreamFromURL, ReportsSchemesThatOnlyBeginLikeHttp) {
    EXPECT_EQ(bits(thrownCode([&] { read("httpsx://127.0.0.1/x"); })), 0x80042020U);
}

TEST_F(StreamFromURL, SplitsTheUrlBeforeItReadsTheSettings) {
    m_Directory.write("settings.xml", "no document");
    EXPECT_EQ(bits(thrownCode([&] { read("http:x"); })), 0x80042019U);
    EXPECT_EQ(bits(thrownCode([&] { read("http://127.0.0.1/x"); })), 0x80040204U);
}

TEST_F(StreamFromURL, UsesTheProxyOfTheSettings) {
    RawServer proxy(kResponse);
    settings("USEPROXY=\"1\" PROXYHOST=\"127.0.0.1\" PROXYPORT=\"" + proxy.portText() + "\"");
    EXPECT_EQ(read("http://shop.example/x"), kBody);
    EXPECT_EQ(proxy.records().at(0).substr(0, 39), "GET http://shop.example:80/x HTTP/1.0\r\n");
}

TEST_F(StreamFromURL, ContactsAProxyWithoutAPortOn8080) {
    settings("USEPROXY=\"1\" PROXYHOST=\"127.0.0.1\"");
    static std::uint16_t s_Port;
    SystemCalls system;
    system->connect = [](int, sockaddr const* address, socklen_t) {
        sockaddr_in target;
        std::memcpy(&target, address, sizeof target);
        s_Port = ntohs(target.sin_port);
        errno = ECONNREFUSED;
        return -1;
    };
    TraceRecorder const trace;
    EXPECT_EQ(bits(thrownCode([&] { read("http://shop.example/x"); })), 0x8004303DU);
    EXPECT_EQ(s_Port, 8080);
    EXPECT_EQ(trace.of("USE PROXY").at(0).m_Detail, "127.0.0.1:8080");
}

TEST_F(StreamFromURL, UsesNoProxyUnlessSwitchedOn) {
    RawServer server(kResponse);
    for (char const* const attributes : {
             "PROXYHOST=\"127.0.0.1\" PROXYPORT=\"1\"",
             "USEPROXY=\"\" PROXYHOST=\"127.0.0.1\" PROXYPORT=\"1\"",
             "USEPROXY=\"0\" PROXYHOST=\"127.0.0.1\" PROXYPORT=\"1\"",
             "USEPROXY=\"yes\" PROXYHOST=\"127.0.0.1\" PROXYPORT=\"1\"",
             "USEPROXY=\"11\" PROXYHOST=\"127.0.0.1\" PROXYPORT=\"1\"",
             "USEPROXY=\"1\"",
             "USEPROXY=\"1\" PROXYHOST=\"\" PROXYPORT=\"1\"",
         }) {
        settings(attributes);
        EXPECT_EQ(read(plainUrl(server, "/x")), kBody) << attributes;
    }
    for (std::string const& request : server.records()) {
        EXPECT_EQ(request.substr(0, 16), "GET /x HTTP/1.0\r");
    }
}

TEST_F(StreamFromURL, TakesTheTraceOptionsOfTheSettings) {
    RawServer server(kResponse);
    settings("TRACEOPT=\"rawhttp\"");
    CapturedOutput printed;
    EXPECT_EQ(read(plainUrl(server, "/x")), kBody);
    std::string const text = printed.text();
    EXPECT_EQ(text, "\n" + server.records().at(0) + "\n\n\n" + kResponse + "\n\n");
}

TEST_F(StreamFromURL, ReadsTheSettingsAnewEveryTime) {
    RawServer const server(kResponse);
    settings("TRACEOPT=\"rawhttp\"");
    {
        CapturedOutput printed;
        read(plainUrl(server, "/x"));
        EXPECT_NE(printed.text(), "");
    }
    settings("TRACEOPT=\"\"");
    CapturedOutput printed;
    read(plainUrl(server, "/x"));
    EXPECT_EQ(printed.text(), "");
}

TEST_F(StreamFromURL, ReportsTheStatusOfTheServer) {
    RawServer const server("HTTP/1.0 404 Not Found\r\n\r\n");
    Thrown const failure = thrown([&] { read(plainUrl(server, "/x")); });
    EXPECT_EQ(bits(failure.m_Code), 0x80042194U);
    EXPECT_EQ(failure.m_Line, 855);
}

TEST_F(StreamFromURL, KeepsReadingCredentialsThatCannotBeSplit) {
    ScriptedResolver const resolver(ScriptedResolver::Answer::kUnknown);
    // An empty user: the first character is not examined, so there is no end of the user.
    EXPECT_EQ(bits(thrownCode([&] { read("http://:p@127.0.0.1/x"); })), 0x80042021U);
    // A password with "@": the rest of it becomes part of the host.
    EXPECT_EQ(bits(thrownCode([&] { read("http://u:p@w@127.0.0.1/x"); })), 0x80042021U);
    EXPECT_EQ(resolver.lookUps(), (std::vector<std::string>{"", "w@127.0.0.1"}));
}

TEST_F(StreamFromURL, KeepsTakingARelativeDirectoryForAUrl) {
    ASSERT_EQ(::chdir(m_Directory.path().c_str()), 0);
    KVX_Context context;
    context.Open("https-shop");
    TbString value;
    EXPECT_EQ(bits(thrownCode([&] { context.QueryValue("config.xml", "VTURL", value); })), 0x80042019U);
    ASSERT_EQ(::chdir("/"), 0);
}

TEST_F(StreamFromURL, DoesNotFetchItsSettingsThroughThemselves) {
    KVX_Context context;
    EXPECT_EQ(thrownCode([&] { context.Open("http://127.0.0.1:1/directory"); }), ENOENT);
    TbString value;
    EXPECT_EQ(bits(thrownCode([&] { context.QueryValue("config.xml", "VTURL", value); })), 0x80042019U);
    // The guard is down again afterwards.
    EXPECT_EQ(bits(thrownCode([&] { context.QueryValue("config.xml", "VTURL", value); })), 0x80042019U);
}

TEST_F(StreamFromURL, SurvivesFailingAllocations) {
    RawServer const server(kResponse);
    settings("USEPROXY=\"0\" TRACEOPT=\"none\"");
    TbString const url = stringOf(plainUrl(server, "/x"));
    survivesEveryFailingAllocation([&] {
        TbStringStream out;
        m_Context.StreamFromURL(url, out);
        EXPECT_EQ(bytesOf(out), kBody);
    });
}

}  // namespace
