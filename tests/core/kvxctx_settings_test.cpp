// Proxy and trace settings, and directories whose name looks like a URL.
//
// No test reaches the network: the system call that connects is replaced, records the address and refuses. Odd:
// settings are read again for every exchange.

#include <arpa/inet.h>
#include <netinet/in.h>

#include <filesystem>
#include <string>

#include "tests/core/coresupport.h"
#include "tests/support/exceptions.h"
#include "tests/support/smallstack.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

int g_Port = 0;
int g_Connections = 0;

/// Records the addresses of all connection attempts and refuses them.
class NoNetwork {
public:
    NoNetwork() {
        g_Port = 0;
        g_Connections = 0;
        m_Calls->connect = [](int, sockaddr const* address, socklen_t) {
            g_Port = ntohs(reinterpret_cast<sockaddr_in const*>(address)->sin_port);
            ++g_Connections;
            errno = ECONNREFUSED;
            return -1;
        };
    }

private:
    SystemCalls m_Calls;
};

std::int32_t fetchCode(KVX_Context& context, char const* url = "http://127.0.0.1:7/file") {
    TbStringStream out;
    return thrownCode([&] { context.StreamFromURL(url, out); });
}

TEST(Settings, ChooseAProxy) {
    struct Case {
        char const* m_Settings;  ///< Null: no file.
        int m_Port;
    };
    Case const cases[] = {
        {nullptr, 7},
        {"<KVX/>", 7},
        {"<KVX USEPROXY=\"1\" PROXYHOST=\"127.0.0.1\" PROXYPORT=\"9\"/>", 9},
        {"<KVX USEPROXY=\"1\" PROXYHOST=\"127.0.0.1\"/>", 8080},
        {"<KVX USEPROXY=\"1\" PROXYHOST=\"127.0.0.1\" PROXYPORT=\"\"/>", 8080},
        {"<KVX USEPROXY=\"1\" PROXYPORT=\"9\"/>", 7},
        {"<KVX USEPROXY=\"1\" PROXYHOST=\"\" PROXYPORT=\"9\"/>", 7},
        {"<KVX PROXYHOST=\"127.0.0.1\" PROXYPORT=\"9\"/>", 7},
        {"<KVX USEPROXY=\"\" PROXYHOST=\"127.0.0.1\" PROXYPORT=\"9\"/>", 7},
        {"<KVX USEPROXY=\"0\" PROXYHOST=\"127.0.0.1\" PROXYPORT=\"9\"/>", 7},
        {"<KVX USEPROXY=\"01\" PROXYHOST=\"127.0.0.1\" PROXYPORT=\"9\"/>", 7},
        {"<KVX USEPROXY=\"1 \" PROXYHOST=\"127.0.0.1\" PROXYPORT=\"9\"/>", 7},
        {"<KVX USEPROXY=\"yes\" PROXYHOST=\"127.0.0.1\" PROXYPORT=\"9\"/>", 7},
        {"<KVX useproxy=\"1\" PROXYHOST=\"127.0.0.1\" PROXYPORT=\"9\"/>", 7},
    };
    for (Case const& row : cases) {
        Account account;
        if (row.m_Settings != nullptr) {
            account.write("settings.xml", row.m_Settings);
        }
        NoNetwork const none;
        EXPECT_EQ(fetchCode(account.m_Context), KVX_E_SOCKET_REFUSED);
        EXPECT_EQ(g_Port, row.m_Port) << (row.m_Settings == nullptr ? "none" : row.m_Settings);
    }
}

TEST(Settings, AreReadAgainEachTime) {
    Account account;
    NoNetwork const none;
    fetchCode(account.m_Context);
    EXPECT_EQ(g_Port, 7);
    account.write("settings.xml", "<KVX USEPROXY=\"1\" PROXYHOST=\"127.0.0.1\" PROXYPORT=\"9\"/>");
    fetchCode(account.m_Context);
    EXPECT_EQ(g_Port, 9);
}

TEST(Settings, AreNeverIgnoredWhenMalformed) {
    for (char const* settings : {"", "no document", "<KVX", "<OTHER/>"}) {
        Account account;
        account.write("settings.xml", settings);
        NoNetwork const none;
        EXPECT_EQ(fetchCode(account.m_Context), KVX_E_INVALID_FORMAT) << settings;
        EXPECT_EQ(g_Connections, 0);
        std::filesystem::remove(account.m_Dir.file("settings.xml"));
        EXPECT_EQ(fetchCode(account.m_Context), KVX_E_SOCKET_REFUSED) << "and the context is usable afterwards";
    }
}

TEST(Settings, DoNotMatterForLocalFiles) {
    Account account;
    account.write("settings.xml", "<KVX");
    account.write("config.xml", "<KVX A=\"1\"/>");
    TbString value;
    EXPECT_TRUE(account.m_Context.QueryValue("config.xml", "A", value));
}

TEST(Settings, AreThePlainOnesInADirectoryWhoseNameIsTooLong) {
    TemporaryDirectory dir;
    KVX_Context context;
    EXPECT_EQ(thrownCode([&] { context.Open(dir.file(std::string(300, 'x')).c_str()); }), ENAMETOOLONG);
    std::string text = "<KVX>";
    for (int level = 0; level < 1000; ++level) {
        text += "<E>";
    }
    for (int level = 0; level < 1000; ++level) {
        text += "</E>";
    }
    xmlElement* root = nullptr;
    context.XmlFromString((text + "</KVX>").c_str(), &root);
    root->release();
}

TEST(Settings, NeedAnOpenedContext) {
    KVX_Context context;
    NoNetwork const none;
    EXPECT_EQ(fetchCode(context), KVX_E_NO_CONTEXT);
    EXPECT_EQ(g_Connections, 0);
}

TEST(Settings, AreReadAfterTheUrlHasBeenSplit) {
    Account account;
    account.write("settings.xml", "<KVX");
    EXPECT_EQ(fetchCode(account.m_Context, "https-shop/config.xml"), KVX_E_HTTP_BAD_URL);
}

TEST(Settings, TurnTheRawTraceOn) {
    ExchangeServer server({"body"});
    Account account;
    account.write("settings.xml", "<KVX TRACEOPT=\"x,rawhttp\"/>");
    testing::internal::CaptureStdout();
    TbStringStream out;
    account.m_Context.StreamFromURL(server.url("/file").c_str(), out);
    std::string const printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed, "\n" + server.requests().at(0) + "\n\n\n" + httpResponse("body") + "\n\n");
    EXPECT_EQ(bytesOf(out.str()), "body");
}

TEST(Settings, AreQuietWithoutTheRawTrace) {
    ExchangeServer server({"body"});
    Account account;
    account.write("settings.xml", "<KVX TRACEOPT=\"RAWHTTP\"/>");
    testing::internal::CaptureStdout();
    TbStringStream out;
    account.m_Context.StreamFromURL(server.url("/file").c_str(), out);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(DirectoryNamedLikeAUrl, IsNeverFetchedThroughItself) {
    ExchangeServer server({"<KVX/>"});
    KVX_Context context;
    std::string const path = server.url("/d");
    EXPECT_EQ(thrownCode([&] { context.Open(path.c_str()); }), 2);
    EXPECT_EQ(bytesOf(context.GetPath()), path) << "the path is kept";
    TbString value;
    for (int again = 0; again < 3; ++again) {
        EXPECT_EQ(thrownCode([&] { context.QueryValue("config.xml", "A", value); }), KVX_E_HTTP_BAD_URL);
        EXPECT_EQ(thrownCode([&] { context.QueryValueOrAbsent("config.xml", "A", value); }), KVX_E_HTTP_BAD_URL);
        EXPECT_EQ(fetchCode(context), KVX_E_HTTP_BAD_URL);
        EXPECT_EQ(thrownCode([&] { context.Setup(); }), KVX_E_HTTP_BAD_URL);
    }
    EXPECT_TRUE(server.requests().empty());
}

TEST(DirectoryNamedLikeAUrl, IsReportedWithItsPublishedLine) {
    struct Row {
        char const* m_Path;
        char const* m_Source;
        std::int32_t m_Line;
    };
    Row const rows[] = {
        {"http://127.0.0.1:1/d", "kvxctx", 752}, {"https-shop", "kvxurl", 52},  // no URL after all
    };
    for (Row const& row : rows) {
        KVX_Context context;
        static_cast<void>(thrown([&] { context.Open(row.m_Path); }));
        TbStringStream out;
        Thrown const failure = thrown([&] { context.StreamFromURL("http://127.0.0.1:1/file", out); });
        EXPECT_EQ(failure.m_Code, KVX_E_HTTP_BAD_URL) << row.m_Path;
        EXPECT_EQ(failure.m_File, row.m_Source) << row.m_Path;
        EXPECT_EQ(failure.m_Line, row.m_Line) << row.m_Path;
    }
}

TEST(DirectoryNamedLikeAUrl, FailsOnASmallStackToo) {
    KVX_Context context;
    EXPECT_EQ(thrownCode([&] { context.Open("http://127.0.0.1:1/d"); }), 2);
    onStackOf(std::size_t{128} << 10, [&] {
        TbString value;
        EXPECT_EQ(thrownCode([&] { context.QueryValue("config.xml", "A", value); }), KVX_E_HTTP_BAD_URL);
    });
}

TEST(DirectoryNamedLikeAUrl, IsTakenForOneWhenItIsRelative) {
    TemporaryDirectory dir;
    std::filesystem::path const before = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    KVX_Context context;
    context.Open("https-shop");
    dir.write("https-shop/config.xml", "<KVX A=\"1\"/>");
    TbString value;
    EXPECT_EQ(thrownCode([&] { context.QueryValue("config.xml", "A", value); }), KVX_E_HTTP_BAD_URL);
    context.Open("./https-shop");
    EXPECT_TRUE(context.QueryValue("config.xml", "A", value));
    std::filesystem::current_path(before);
}

}  // namespace
