// Splitting a URL into scheme, credentials, host, port and path.
//
// Accepted and refused URLs stand in one table. Odd: the slash behind the authority is required.

#include <gtest/gtest.h>

#include "net/kvxurl.h"
#include "tests/support/allocations.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

struct Parts {
    std::string m_Scheme;
    std::string m_User;
    std::string m_Password;
    std::string m_Host;
    std::string m_Port;
    std::string m_Path;

    bool operator==(Parts const& other) const {
        return m_Scheme == other.m_Scheme && m_User == other.m_User && m_Password == other.m_Password &&
               m_Host == other.m_Host && m_Port == other.m_Port && m_Path == other.m_Path;
    }
    friend std::ostream& operator<<(std::ostream& out, Parts const& parts) {
        return out << parts.m_Scheme << " | " << parts.m_User << " | " << parts.m_Password << " | " << parts.m_Host
                   << " | " << parts.m_Port << " | " << parts.m_Path;
    }
};

struct Split {
    std::int32_t m_Result;
    Parts m_Parts;
};

Split split(std::string const& url) {
    URL_INFO info;
    std::int32_t const result = SplitUrl(stringOf(url), info);
    return {result,
            {bytesOf(info.scheme), bytesOf(info.user), bytesOf(info.password), bytesOf(info.host), bytesOf(info.port),
             bytesOf(info.path)}};
}

constexpr std::int32_t kAccepted = -1;
constexpr std::int32_t kRefused = 0;

struct SplitCase {
    std::string m_Url;
    std::int32_t m_Result;
    Parts m_Parts;
};

TEST(SplitUrl, SplitsATable) {
    // clang-format off
    SplitCase const cases[] = {
        {"http://host/a?b=c",            kAccepted, {"http", "", "", "host", "80", "/a?b=c"}},
        {"https://u:p@host:8443/x",      kAccepted, {"https", "u", "p", "host", "8443", "/x"}},
        {"https://host/",                kAccepted, {"https", "", "", "host", "443", "/"}},
        {"http://127.0.0.1:81/",         kAccepted, {"http", "", "", "127.0.0.1", "81", "/"}},
        {"ftp://host/x",                 kAccepted, {"ftp", "", "", "host", "", "/x"}},      // no default port
        {"HTTP://host/x",                kAccepted, {"HTTP", "", "", "host", "", "/x"}},     // compared exactly
        {"httpsx://host/x",              kAccepted, {"httpsx", "", "", "host", "", "/x"}},
        {"1a://host/x",                  kAccepted, {"1a", "", "", "host", "", "/x"}},
        {"://host/x",                    kAccepted, {"", "", "", "host", "", "/x"}},         // an empty scheme is one
        {"http://host:/x",               kAccepted, {"http", "", "", "host", "", "/x"}},     // an empty port stays
        {"http://host:80:81/x",          kAccepted, {"http", "", "", "host", "80:81", "/x"}},
        {"http://host/x://y:z@w/",       kAccepted, {"http", "host/x", "//y:z", "w", "80", "/"}},  // "@" before any "?"
        {"http://host/x?a@b",            kAccepted, {"http", "", "", "host", "80", "/x?a@b"}},
        {"http://host?a@b/x",            kAccepted, {"http", "", "", "host?a@b", "80", "/x"}},
        {"http://u:p@host/x?a@b:c",      kAccepted, {"http", "u", "p", "host", "80", "/x?a@b:c"}},
        {"http://u:p:q@host/x",          kAccepted, {"http", "u", "p:q", "host", "80", "/x"}},
        {"http://u:p@w@host/x",          kAccepted, {"http", "u", "p", "w@host", "80", "/x"}},
        {"http://u:@host/x",             kAccepted, {"http", "u", "", "host", "80", "/x"}},
        {"http://u:p@/x",                kAccepted, {"http", "u", "p", "", "80", "/x"}},
        // Texts that end early.
        {"",                             kAccepted, {}},
        {"http",                         kAccepted, {}},
        {"http:",                        kAccepted, {"http", "", "", "", "", ""}},
        {"http:/",                       kAccepted, {"http", "", "", "", "", ""}},
        {"http://",                      kAccepted, {"http", "", "", "", "", ""}},
        {"http://host",                  kAccepted, {"http", "", "", "", "", ""}},
        {"http://host:81",               kAccepted, {"http", "", "", "host", "", ""}},
        {"http://host?DATA=a%2fb",       kAccepted, {"http", "", "", "", "", ""}},           // no "/" at all
        {"http://u@host/x",              kAccepted, {"http", "", "", "", "", ""}},           // a user needs a password
        {"http://u:p@host",              kAccepted, {"http", "u", "p", "", "", ""}},
        {"http://u:p",                   kAccepted, {"http", "", "", "u", "", ""}},          // looks like a host
        // The first character of the authority is never examined.
        {"http:///x",                    kAccepted, {"http", "", "", "", "", ""}},
        {"http:///x/y",                  kAccepted, {"http", "", "", "/x", "80", "/y"}},
        {"http://:81/x",                 kAccepted, {"http", "", "", ":81", "80", "/x"}},
        {"http://:p@host/x",             kAccepted, {"http", "", "", "", "", ""}},           // an empty user
        {"http://:p@host:1/x",           kAccepted, {"http", ":p@host", "", "", "", ""}},
        {"http://@host/x",               kAccepted, {"http", "", "", "", "", ""}},
        // Refused.
        {"a b://host/x",                 kRefused,  {}},
        {"a-b://host/x",                 kRefused,  {}},
        {"https-shop/config.xml",        kRefused,  {}},
        {" http://host/x",               kRefused,  {}},
        {"/http://host/x",               kRefused,  {}},
        {"http:x",                       kRefused,  {"http", "", "", "", "", ""}},
        {"http:host/x",                  kRefused,  {"http", "", "", "", "", ""}},
        {"http:/host/x",                 kRefused,  {"http", "", "", "", "", ""}},
        {"h\xC3\xB6st://host/x",         kRefused,  {}},
    };
    // clang-format on
    for (SplitCase const& row : cases) {
        Split const result = split(row.m_Url);
        EXPECT_EQ(result.m_Result, row.m_Result) << row.m_Url;
        EXPECT_EQ(result.m_Parts, row.m_Parts) << row.m_Url;
    }
}

TEST(SplitUrl, AcceptsEveryCutOfAUrlAndFillsWhatWasClosed) {
    std::string const url = "https://u:p@host:8443/x?y";
    Parts const whole = {"https", "u", "p", "host", "8443", "/x?y"};
    for (std::size_t length = 0; length <= url.size(); ++length) {
        std::string const cut = url.substr(0, length);
        // Without the "@" the user is taken for the beginning of a host.
        bool const hasUser = length > url.find('@');
        Parts expected;
        if (length > url.find(':')) {
            expected.m_Scheme = whole.m_Scheme;
        }
        if (hasUser) {
            expected.m_User = whole.m_User;
            expected.m_Password = whole.m_Password;
        } else if (length > url.find(":p")) {
            expected.m_Host = "u";
        }
        if (length > url.find(":8443")) {
            expected.m_Host = whole.m_Host;
        }
        if (length > url.find("/x")) {
            expected.m_Port = whole.m_Port;
            expected.m_Path = cut.substr(url.find("/x"));
        }
        Split const result = split(cut);
        EXPECT_EQ(result.m_Result, kAccepted) << cut;
        EXPECT_EQ(result.m_Parts, expected) << cut;
    }
}

TEST(SplitUrl, EndsAtAZeroByte) {
    Split const result = split(std::string("http://host/a\0b", 15));
    EXPECT_EQ(result.m_Result, kAccepted);
    EXPECT_EQ(result.m_Parts.m_Path, "/a");
}

TEST(SplitUrl, KeepsWhatTheRecordHeld) {
    URL_INFO info;
    info.user = "old";
    info.port = "99";
    EXPECT_EQ(SplitUrl("ftp://host/x", info), kAccepted);
    EXPECT_EQ(bytesOf(info.user), "old");
    EXPECT_EQ(bytesOf(info.port), "99");
    EXPECT_EQ(bytesOf(info.host), "host");
}

TEST(SplitUrl, AcceptsATextWithoutABuffer) {
    URL_INFO info;
    EXPECT_EQ(SplitUrl(TbString(), info), kAccepted);
    EXPECT_TRUE(info.scheme.isEmpty());
}

TEST(SplitUrl, SurvivesFailingAllocations) {
    survivesEveryFailingAllocation([] {
        URL_INFO info;
        EXPECT_EQ(SplitUrl("https://u:p@host:8443/x", info), kAccepted);
    });
}

TEST(IsHttp, TellsATable) {
    struct {
        char const* m_Url;
        bool m_IsHttp;
    } const cases[] = {
        {"http://x", true}, {"http:", true},   {"https://x", true}, {"https", true},   {"httpsZ...", true},
        {"http", false},    {"http/", false},  {"HTTP://x", false}, {"Https:", false}, {"ftp://x", false},
        {"", false},        {"/http:", false}, {" http:", false},   {"httpx:", false}, {"https-shop", true},
    };
    for (auto const& row : cases) {
        EXPECT_EQ(IsHttp(row.m_Url), row.m_IsHttp) << row.m_Url;
    }
    EXPECT_FALSE(IsHttp(TbString()));
}

}  // namespace
