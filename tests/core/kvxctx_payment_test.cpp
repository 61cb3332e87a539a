// Captures and requests: the request that is sent, and every kind of response.
//
// A scripted server gives one response after the other and records the requests, which are compared byte for byte. Odd:
// a failed request keeps the changed message type.

#include <filesystem>
#include <string>

#include "tests/core/coresupport.h"
#include "tests/support/encodings.h"
#include "tests/support/exceptions.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

/// A merchant whose capture address is the server's.
struct ServedMerchant : Merchant {
    explicit ServedMerchant(ExchangeServer const& server)
        : Merchant("<KVX CAPTUREURL=\"" + server.url("/capture") + "\"/>") {}
};

/// A confirmation as a merchant captures it: created first, then filled.
void fill(KVX_Message& message, Account& account, char const* text) {
    message.Create(&account.m_Context, "ERROR");
    message.FromString(text);
}

std::string textOf(KVX_Message const& message) {
    TbString text("no element");
    static_cast<void>(message.ToString(text));
    return bytesOf(text);
}

constexpr char kCaptured[] = "<KVX MSGTYPE=\"PayConfirm\" STATUS=\"captured\"/>";
constexpr char kCompleted[] = "<KVX MSGTYPE=\"PayCompleteResponse\" STATUS=\"done\"/>";

struct Refusal {
    char const* m_Response;
    std::int32_t m_Code;
};

constexpr Refusal kRefusals[] = {
    {"<KVX MSGTYPE=\"Error\" MESSAGE=\"no\"/>", KVX_E_SERVER_ERROR},
    {"<KVX MSGTYPE=\"Other\"/>", KVX_E_WRONG_RESPONSE},
    {"<KVX/>", KVX_E_WRONG_RESPONSE},
    {"<html></html>", KVX_E_INVALID_FORMAT},
    {"", KVX_E_INVALID_FORMAT},
    {"HTTP/1.0 401 Unauthorized\r\n\r\n", KVX_E_HTTP_UNAUTHORIZED},
    {"HTTP/1.0 503 Busy\r\n\r\n", KVX_E_HTTP_UNAVAILABLE},
};

TEST(Capture, SendsTheMessageAsItIs) {
    ExchangeServer server({kCaptured});
    ServedMerchant account(server);
    KVX_Message message;
    fill(message, account, "<KVX MSGTYPE=\"PayConfirm\" TOKEN=\"t &amp; u\"/>");
    std::string const text = "<KVX MSGTYPE=\"PayConfirm\" TOKEN=\"t &amp; u\" KEYID=\"own\"/>";
    message.Capture();
    EXPECT_EQ(textOf(message), text) << "the response is dropped";
    EXPECT_EQ(
        server.requests(),
        std::vector<std::string>{
            "GET /capture?DATA=%3cKVX%20MSGTYPE%3d%22PayConfirm%22%20TOKEN%3d%22t%20%26amp%3b%20u%22%20KEYID%3d%22own"
            "%22%2f%3e&SIGNATURE=" +
            signedElsewhere(text, Widening::kWithoutSign) +
            " HTTP/1.0\r\nAuthorization: Basic OgAA\r\nUserAgent: Tallowin Application Component 1.0\r\n\r\n"});
}

TEST(Capture, NeedsATokenButNoValueInIt) {
    ExchangeServer server({kCaptured});
    ServedMerchant account(server);
    KVX_Message message;
    fill(message, account, "<KVX MSGTYPE=\"PayConfirm\"/>");
    Thrown const failure = thrown([&] { message.Capture(); });
    EXPECT_EQ(failure.m_Code, KVX_E_UNEXPECTED);
    EXPECT_EQ(failure.m_Text, "unexpected error");
    EXPECT_EQ(failure.m_File, "kvxctx");
    EXPECT_EQ(failure.m_Line, 620);
    fill(message, account, "<KVX MSGTYPE=\"PayConfirm\" TOKEN=\"\"/>");
    EXPECT_NO_THROW(message.Capture());
    EXPECT_EQ(server.requests().size(), 1U) << "nothing was sent without the token";
}

TEST(Capture, LooksForTheAddressBeforeTheToken) {
    ExchangeServer server({kCaptured});
    ServedMerchant account(server);
    KVX_Message message;
    for (char const* configuration : {"<KVX/>", "<KVX CAPTUREURL=\"\"/>", "<KVX VTURL=\"http://x/\"/>"}) {
        account.write("config.xml", configuration);
        fill(message, account, "<KVX MSGTYPE=\"PayConfirm\"/>");
        Thrown const failure = thrown([&] { message.Capture(); });
        EXPECT_EQ(failure.m_Code, KVX_E_NO_CONFIGURATION) << "without both it is the address";
        EXPECT_EQ(failure.m_Text, "no configuration found");
        fill(message, account, "<KVX MSGTYPE=\"PayConfirm\" TOKEN=\"t\"/>");
        EXPECT_EQ(thrownCode([&] { message.Capture(); }), KVX_E_NO_CONFIGURATION);
    }
    std::filesystem::remove(account.m_Dir.file("config.xml"));
    EXPECT_EQ(thrownCode([&] { message.Capture(); }), KVX_E_CANNOT_OPEN);
    account.write("config.xml", "<KVX");
    EXPECT_EQ(thrownCode([&] { message.Capture(); }), KVX_E_INVALID_FORMAT);
    EXPECT_TRUE(server.requests().empty());
}

TEST(Capture, FailsInSigningForAMessageThatWasOnlyOpened) {
    ExchangeServer server({kCaptured});
    ServedMerchant account(server);
    std::string const text = "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"server\" TOKEN=\"t\"/>";
    KVX_Message message;
    message.Open(&account.m_Context, text.c_str(), signedElsewhere(text, Widening::kWithSign).c_str());
    EXPECT_EQ(thrownCode([&] { message.Capture(); }), KVX_E_NOT_FOUND);
    EXPECT_TRUE(server.requests().empty());
}

TEST(Capture, FailsInSigningAlsoForAMessageUnderTheMerchantsOwnKey) {
    ExchangeServer server({kCaptured});
    ServedMerchant account(server);
    std::string const text = "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"own\" TOKEN=\"t\"/>";
    KVX_Message message;
    message.Open(&account.m_Context, text.c_str(), signedElsewhere(text, Widening::kWithSign).c_str());
    EXPECT_EQ(thrownCode([&] { message.Capture(); }), KVX_E_NOT_FOUND) << "opening never chooses a signing key";
    EXPECT_TRUE(server.requests().empty());
}

TEST(Capture, SendsNothingWhenSigningFails) {
    ExchangeServer server({kCaptured});
    ServedMerchant account(server);
    KVX_Message message;
    fill(message, account, "<KVX MSGTYPE=\"PayConfirm\" TOKEN=\"t\"/>");
    account.write("keys/private/own", "no key");
    EXPECT_EQ(thrownCode([&] { message.Capture(); }), KVX_E_INVALID_KEY);
    account.write("keys/private/own", "00");
    EXPECT_EQ(thrownCode([&] { message.Capture(); }), KVX_E_CRYPTO);
    account.writeOwnKey("own");
    account.write("config.xml", "<KVX CAPTUREURL=\"no scheme\"/>");
    EXPECT_EQ(thrownCode([&] { message.Capture(); }), KVX_E_INVALID_URL);
    EXPECT_TRUE(server.requests().empty());
}

TEST(Capture, AcceptsAConfirmationAlone) {
    for (Refusal const& row : kRefusals) {
        ExchangeServer server({row.m_Response});
        ServedMerchant account(server);
        KVX_Message message;
        fill(message, account, "<KVX MSGTYPE=\"PayConfirm\" TOKEN=\"t\"/>");
        EXPECT_EQ(thrownCode([&] { message.Capture(); }), row.m_Code) << row.m_Response;
    }
    ExchangeServer server({"<KVX MSGTYPE=\"Error\" MESSAGE=\"expired\"/>"});
    ServedMerchant account(server);
    KVX_Message message;
    fill(message, account, "<KVX MSGTYPE=\"PayConfirm\" TOKEN=\"t\"/>");
    EXPECT_EQ(thrown([&] { message.Capture(); }).m_Text, "the request failed (expired)");
}

TEST(Capture, SendsAnyTypeUnchanged) {
    ExchangeServer server({kCaptured});
    ServedMerchant account(server);
    KVX_Message message;
    fill(message, account, "<KVX MSGTYPE=\"Whatever\" TOKEN=\"t\"/>");
    message.Capture();
    EXPECT_EQ(server.messages(), std::vector<std::string>{"<KVX MSGTYPE=\"Whatever\" TOKEN=\"t\" KEYID=\"own\"/>"});
}

TEST(Request, SendsTheRequestTypeAndTakesTheResponse) {
    ExchangeServer server({kCompleted});
    ServedMerchant account(server);
    KVX_Message message;
    message.Create(&account.m_Context, "PayComplete");
    message.SetAttribute("ID", "17");
    message.SetAttribute("TOKEN", "t");
    KVX_Message response;
    message.Request(response);
    EXPECT_EQ(textOf(response), kCompleted);
    std::string const text = "<KVX MSGTYPE=\"PayCompleteRequest\" KEYID=\"own\" CONFIGPATH=\"" + account.m_Dir.path() +
                             "\" ID=\"17\" TOKEN=\"t\"/>";
    EXPECT_EQ(textOf(message), text);
    EXPECT_EQ(server.messages(), std::vector<std::string>{text});
    EXPECT_EQ(queryValue(server.requests()[0], "SIGNATURE"), signedElsewhere(text, Widening::kWithoutSign));
}

TEST(Request, KeepsTheChangedTypeForASecondOne) {
    ExchangeServer server({kCompleted, "<KVX MSGTYPE=\"PayCompleteRequestResponse\"/>"});
    ServedMerchant account(server);
    KVX_Message message;
    message.Create(&account.m_Context, "PayComplete");
    KVX_Message response;
    message.Request(response);
    message.Request(response);
    EXPECT_EQ(textOf(response), "<KVX MSGTYPE=\"PayCompleteRequestResponse\"/>");
    EXPECT_NE(server.messages().at(1).find("MSGTYPE=\"PayCompleteRequestRequest\""), std::string::npos);
}

TEST(Request, WorksWithoutAType) {
    ExchangeServer server({"<KVX MSGTYPE=\"Response\"/>"});
    ServedMerchant account(server);
    KVX_Message message;
    fill(message, account, "<KVX A=\"1\"/>");
    KVX_Message response;
    message.Request(response);
    EXPECT_EQ(server.messages(), std::vector<std::string>{"<KVX A=\"1\" KEYID=\"own\" MSGTYPE=\"Request\"/>"});
}

TEST(Request, ChangesTheTypeBeforeItLooksForTheAddress) {
    ExchangeServer server({kCompleted});
    ServedMerchant account(server);
    KVX_Message response;
    response.Create(&account.m_Context, "before");
    for (char const* configuration : {"<KVX/>", "<KVX CAPTUREURL=\"\"/>"}) {
        account.write("config.xml", configuration);
        KVX_Message message;
        message.Create(&account.m_Context, "X");
        Thrown const failure = thrown([&] { message.Request(response); });
        EXPECT_EQ(failure.m_Code, KVX_E_NO_CONFIGURATION);
        EXPECT_EQ(failure.m_Text, "no configuration found");
        EXPECT_EQ(textOf(message), "<KVX MSGTYPE=\"XRequest\" KEYID=\"own\"/>");
    }
    EXPECT_EQ(textOf(response), "<KVX MSGTYPE=\"before\" KEYID=\"own\"/>");
    EXPECT_TRUE(server.requests().empty());
}

TEST(Request, LeavesTheResponseAloneOnFailure) {
    for (Refusal const& row : kRefusals) {
        ExchangeServer server({row.m_Response});
        ServedMerchant account(server);
        KVX_Message message;
        message.Create(&account.m_Context, "PayComplete");
        KVX_Message response;
        response.Create(&account.m_Context, "before");
        EXPECT_EQ(thrownCode([&] { message.Request(response); }), row.m_Code) << row.m_Response;
        EXPECT_EQ(textOf(response), "<KVX MSGTYPE=\"before\" KEYID=\"own\"/>");
        EXPECT_NE(textOf(message).find("MSGTYPE=\"PayCompleteRequest\""), std::string::npos);
    }
}

TEST(Request, ExpectsTheOriginalTypeWithResponse) {
    ExchangeServer server({"<KVX MSGTYPE=\"PayCompleteRequestResponse\"/>"});
    ServedMerchant account(server);
    KVX_Message message;
    message.Create(&account.m_Context, "PayComplete");
    KVX_Message response;
    EXPECT_EQ(
        thrown([&] { message.Request(response); }).m_Text,
        "request failed (Response MSGTYPE: received 'PayCompleteRequestResponse', expected 'PayCompleteResponse')");
}

TEST(Request, SendsNothingWhenSigningFails) {
    ExchangeServer server({kCompleted});
    ServedMerchant account(server);
    KVX_Message message;
    message.Create(&account.m_Context, "PayComplete");
    std::filesystem::remove(account.m_Dir.file("keys/private/own"));
    KVX_Message response;
    EXPECT_EQ(thrownCode([&] { message.Request(response); }), KVX_E_NOT_FOUND);
    EXPECT_TRUE(server.requests().empty());
}

TEST(Request, LeavesContextAndKeyOfTheResponseAlone) {
    ExchangeServer server({kCompleted});
    ServedMerchant account(server);
    ServedMerchant other(server);
    other.write("keys/current", "other");
    KVX_Message message;
    message.Create(&account.m_Context, "PayComplete");
    KVX_Message response;
    response.Create(&other.m_Context, "before");
    message.Request(response);
    response.FromString("<KVX/>");
    EXPECT_EQ(textOf(response), "<KVX KEYID=\"other\"/>");
    KVX_Message unbound;
    message.Create(&account.m_Context, "PayComplete");
    message.Request(unbound);
    TbString url;
    EXPECT_EQ(thrownCode([&] { unbound.GetURL(url); }), KVX_E_NO_CONTEXT);
}

TEST(Request, MayTakeItsAnswerItself) {
    ExchangeServer server({kCompleted});
    ServedMerchant account(server);
    KVX_Message message;
    message.Create(&account.m_Context, "PayComplete");
    message.Request(message);
    EXPECT_EQ(textOf(message), kCompleted);
}

}  // namespace
