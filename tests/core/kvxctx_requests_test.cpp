// Request URLs and the check of a response's message type.
//
// URLs are compared as a whole. Odd: a signature is appended only when there is one, and the type of a response is
// matched by its exact text.

#include <string>

#include "tests/core/coresupport.h"
#include "tests/support/exceptions.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

std::string urlOf(KVX_Context& context, std::string const& baseUrl, std::string const& message,
                  std::string const& signature = "", std::string const& before = "") {
    TbStringStream stream(stringOf(message));
    TbString url = stringOf(before);
    context.RequestToURL(stringOf(baseUrl), stream, stringOf(signature), url);
    return bytesOf(url);
}

KVX_Context withCredentials(char const* user, char const* password) {
    KVX_Context context;
    context.SetOption("UserName", user);
    context.SetOption("Password", password);
    return context;
}

Thrown checked(std::string const& response, std::string const& expected) {
    xmlElement* parsed = nullptr;
    KVX_Context().XmlFromString(stringOf(response), &parsed);
    xmlElementPtr holder;
    holder.adopt(parsed);
    return thrown([&] { KVX_Context().CheckResponseMsgType(holder.get(), stringOf(expected)); });
}

TEST(RequestToUrl, JoinsBaseMessageAndSignature) {
    KVX_Context context;
    EXPECT_EQ(urlOf(context, "http://host/path", "a b"), "http://host/path?DATA=a%20b");
    EXPECT_EQ(urlOf(context, "https://host:8443/path", "<KVX/>", "0aff"),
              "https://host:8443/path?DATA=%3cKVX%2f%3e&SIGNATURE=0aff");
    EXPECT_EQ(urlOf(context, "http://host/path", ""), "http://host/path?DATA=");
    EXPECT_EQ(urlOf(context, "http://host/path", "", "&x=y"), "http://host/path?DATA=&SIGNATURE=&x=y")
        << "a signature is not encoded";
    EXPECT_EQ(urlOf(context, "x://a://b?c", "m"), "x://a://b?c?DATA=m")
        << "the first separator counts, nothing is parsed";
}

TEST(RequestToUrl, PutsCredentialsBeforeTheHost) {
    struct Case {
        char const* m_User;
        char const* m_Password;
        char const* m_Expected;
    };
    Case const cases[] = {
        {"", "", "http://host/p?DATA=m"},
        {"u", "p", "http://u:p@host/p?DATA=m"},
        {"", "p", "http://:p@host/p?DATA=m"},
        {"u", "", "http://u:@host/p?DATA=m"},
        {"a@b", "c:d/e", "http://a@b:c:d/e@host/p?DATA=m"},
    };
    for (Case const& row : cases) {
        KVX_Context context = withCredentials(row.m_User, row.m_Password);
        EXPECT_EQ(urlOf(context, "http://host/p", "m"), row.m_Expected);
    }
}

TEST(RequestToUrl, RefusesABaseWithoutScheme) {
    KVX_Context context;
    for (char const* base : {"", "host/path", "://host/path", "://", "http:/host", "http//host", "mailto:x"}) {
        Thrown const failure = thrown([&] { urlOf(context, base, "m"); });
        EXPECT_EQ(failure.m_Code, KVX_E_INVALID_URL) << base;
        EXPECT_EQ(failure.m_Text, "invalid URL");
        EXPECT_EQ(failure.m_File, "kvxctx");
    }
}

TEST(RequestToUrl, AcceptsABaseThatEndsBehindTheScheme) {
    KVX_Context context;
    EXPECT_EQ(urlOf(context, "http://", "m"), "http://?DATA=m");
    KVX_Context known = withCredentials("u", "p");
    EXPECT_EQ(urlOf(known, "x://", "m", "s"), "x://u:p@?DATA=m&SIGNATURE=s");
}

TEST(RequestToUrl, KeepsCountingTheTextThatTheUrlHeldBefore) {
    // The separator stands at 4, so seven characters of text before leave none of the rest.
    struct Case {
        std::size_t m_Before;
        char const* m_Rest;
    };
    Case const cases[] = {
        {0, "host/path"}, {1, "host/path"},  {4, "host/path"},  {6, "host/path"},    {7, ""}, {8, "h"}, {9, "ho"},
        {15, "host/pat"}, {16, "host/path"}, {17, "host/path"}, {1000, "host/path"},
    };
    KVX_Context context;
    for (Case const& row : cases) {
        EXPECT_EQ(urlOf(context, "http://host/path", "m", "s", std::string(row.m_Before, 'x')),
                  std::string("http://") + row.m_Rest + "?DATA=m&SIGNATURE=s")
            << row.m_Before;
    }
    EXPECT_EQ(urlOf(context, "http://", "m", "", std::string(9, 'x')), "http://?DATA=m");
}

TEST(RequestToUrl, CountsCredentialsNeitherInNorOut) {
    KVX_Context context = withCredentials("u", "p");
    EXPECT_EQ(urlOf(context, "http://host/path", "m", "", std::string(9, 'x')), "http://u:p@ho?DATA=m");
}

TEST(RequestToUrl, TakesTheWholeMessageWhateverHasBeenRead) {
    TbStringStream stream("abc");
    char first = 0;
    stream.get(first);
    TbString url;
    KVX_Context().RequestToURL("x://h", stream, "", url);
    EXPECT_EQ(bytesOf(url), "x://h?DATA=abc");
}

TEST(RequestToUrl, KeepsZeroBytes) {
    KVX_Context context;
    EXPECT_EQ(urlOf(context, "x://h", std::string("a\0b", 3)), "x://h?DATA=a%00b");
}

TEST(CheckResponseMsgType, AcceptsTheExpectedType) {
    EXPECT_EQ(checked("<KVX MSGTYPE=\"SetupResponse\"/>", "SetupResponse").m_Code, KVX_OK);
    EXPECT_EQ(checked("<KVX/>", "").m_Code, KVX_OK);
}

TEST(CheckResponseMsgType, RaisesTheServersError) {
    Thrown const failure =
        checked("<KVX MSGTYPE=\"Error\" MESSAGE=\"no such &lt;account&gt; 100%s\"/>", "SetupResponse");
    EXPECT_EQ(failure.m_Code, KVX_E_SERVER_ERROR);
    EXPECT_EQ(failure.m_Text, "the request failed (no such <account> 100%s)");
    EXPECT_EQ(failure.m_File, "kvxctx");
}

TEST(CheckResponseMsgType, HasNoDetailForAnErrorWithoutMessage) {
    EXPECT_EQ(checked("<KVX MSGTYPE=\"Error\"/>", "SetupResponse").m_Text, "the request failed");
    EXPECT_EQ(checked("<KVX MSGTYPE=\"Error\" MESSAGE=\"\"/>", "SetupResponse").m_Text, "the request failed");
}

TEST(CheckResponseMsgType, TakesErrorForAnErrorEvenWhereItIsExpected) {
    EXPECT_EQ(checked("<KVX MSGTYPE=\"Error\" MESSAGE=\"m\"/>", "Error").m_Code, KVX_E_SERVER_ERROR);
}

TEST(CheckResponseMsgType, NamesBothTypesWhenTheyDiffer) {
    struct Case {
        char const* m_Response;
        char const* m_Received;
    };
    Case const cases[] = {
        {"<KVX MSGTYPE=\"Other\"/>", "Other"},
        {"<KVX MSGTYPE=\"setupresponse\"/>", "setupresponse"},
        {"<KVX MSGTYPE=\"error\"/>", "error"},
        {"<KVX MSGTYPE=\"Errors\"/>", "Errors"},
        {"<KVX MSGTYPE=\"SetupResponse \"/>", "SetupResponse "},
        {"<KVX/>", ""},
        {"<KVX MSGTYPE=\"\"/>", ""},
        {"<KVX MESSAGE=\"m\"/>", ""},
    };
    for (Case const& row : cases) {
        Thrown const failure = checked(row.m_Response, "SetupResponse");
        EXPECT_EQ(failure.m_Code, KVX_E_WRONG_RESPONSE);
        EXPECT_EQ(failure.m_Text, std::string("request failed (Response MSGTYPE: received '") + row.m_Received +
                                      "', expected 'SetupResponse')");
        EXPECT_EQ(failure.m_File, "kvxctx");
    }
}

}  // namespace
