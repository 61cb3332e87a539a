// Messages: creating, attributes, opening signed texts, payment URLs, text form.
//
// The merchant of most tests holds both keys, so a test can sign as either side. Odd: a message of any type is accepted
// when its signature is right.

#include <filesystem>
#include <iterator>
#include <string>

#include "foundation/tblocalstring.h"
#include "tests/core/coresupport.h"
#include "tests/support/allocations.h"
#include "tests/support/encodings.h"
#include "tests/support/exceptions.h"
#include "tests/support/tbtext.h"
#include "tests/support/testdata.h"

using namespace kvxtest;

namespace {

constexpr char kConfirmation[] = "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"server\" TOKEN=\"t\"/>";

std::string textOf(KVX_Message const& message) {
    TbString text("no element");
    static_cast<void>(message.ToString(text));
    return bytesOf(text);
}

std::string attribute(KVX_Message& message, char const* name) {
    TbString value;
    message.GetAttribute(name, value);
    return bytesOf(value);
}

void expectFailure(std::function<void()> const& call, std::int32_t code, std::string const& text) {
    Thrown const failure = thrown(call);
    EXPECT_EQ(failure.m_Code, code);
    EXPECT_EQ(failure.m_Text, text);
    EXPECT_EQ(failure.m_File, "kvxctx");
}

class MessagesTest : public testing::Test, protected Merchant {
protected:
    std::int32_t opened(std::string const& data, std::string const& signature) {
        KVX_Message message;
        return thrownCode([&] { message.Open(&m_Context, stringOf(data), stringOf(signature)); });
    }
};

class CreateMessage : public MessagesTest {};
class Message : public MessagesTest {};
class MessageAttributes : public MessagesTest {};
class OpenMessage : public MessagesTest {};
class MessageUrl : public MessagesTest {};
class MessageText : public MessagesTest {};

TEST(AttributeNames, AreTheEightThatPaymentsTakeFromTheDefaults) {
    char const* const expected[] = {"ALLOWCOLLECT",  "DELIVERY",        "LANGID",   "SUCCESSLINK",
                                    "NOTIFYADDRESS", "DEFAULTVALIDITY", "BACKLINK", "FAILLINK"};
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        EXPECT_STREQ(AttributeNames[i], expected[i]) << i;
    }
    EXPECT_EQ(AttributeNames[8], nullptr);
}

TEST_F(CreateMessage, StartsWithTypeAndKey) {
    KVX_Message message;
    message.Create(&m_Context, "PayInit");
    EXPECT_EQ(textOf(message), "<KVX MSGTYPE=\"PayInit\" KEYID=\"own\"/>");
    message.SetAttribute("AMOUNT", "12.50");
    message.SetAttribute("TEXT", "a & \"b\" <c>");
    message.SetAttribute("KEYID", "other");
    message.SetAttribute("MSGTYPE", "Changed");
    EXPECT_EQ(textOf(message),
              "<KVX MSGTYPE=\"Changed\" KEYID=\"other\" AMOUNT=\"12.50\" TEXT=\"a &amp; &quot;b&quot; &lt;c&gt;\"/>");
}

TEST_F(CreateMessage, AddsThePathToACompletionOnly) {
    KVX_Message message;
    message.Create(&m_Context, "PayComplete");
    EXPECT_EQ(textOf(message), "<KVX MSGTYPE=\"PayComplete\" KEYID=\"own\" CONFIGPATH=\"" + m_Dir.path() + "\"/>");
    for (char const* type : {"PayInit", "PayConfirm", "paycomplete", "PayCompleted", "ERROR", ""}) {
        message.Create(&m_Context, type);
        EXPECT_EQ(textOf(message), std::string("<KVX MSGTYPE=\"") + type + "\" KEYID=\"own\"/>");
    }
}

TEST_F(CreateMessage, TakesTheWholeContentOfTheCurrentKeyFile) {
    KVX_Message message;
    write("keys/current", "own\n");
    message.Create(&m_Context, "PayInit");
    EXPECT_EQ(attribute(message, "KEYID"), "own\n");
    write("keys/current", "");
    message.Create(&m_Context, "PayInit");
    EXPECT_EQ(textOf(message), "<KVX MSGTYPE=\"PayInit\" KEYID=\"\"/>");
    TbString url;
    EXPECT_EQ(thrownCode([&] { message.GetURL(url); }), KVX_E_NOT_FOUND) << "signing with no key fails";
}

TEST_F(CreateMessage, HoldsAKeyIdOfUsualLengthInItself) {
    for (std::size_t const length : {std::size_t{63}, std::size_t{64}}) {
        std::string const keyId(length, 'k');
        m_Dir.write("keys/current", keyId);
        KVX_Message message;
        AllocationMeter const meter;
        message.Create(&m_Context, TbBorrowed("PayInit"));
        EXPECT_EQ(AllocationMeter::calls(), length == 63 ? 1U : 3U) << "the element; a longer one is read, then kept";
        EXPECT_EQ(attribute(message, "KEYID"), keyId);
    }
}

TEST_F(CreateMessage, KeepsAPayInitBehindWhenTheCurrentKeyIsMissing) {
    std::filesystem::remove(m_Dir.file("keys/current"));
    KVX_Message message;
    Thrown const failure = thrown([&] { message.Create(&m_Context, "PayComplete"); });
    EXPECT_EQ(failure.m_Code, KVX_E_CANNOT_OPEN);
    EXPECT_EQ(failure.m_File, "kvxurl");
    EXPECT_EQ(textOf(message), "<KVX MSGTYPE=\"PayInit\"/>");
}

TEST_F(CreateMessage, DropsTheMessageBefore) {
    KVX_Message message;
    message.Create(&m_Context, "PayInit");
    message.SetAttribute("A", "1");
    message.Create(&m_Context, "PayInit");
    EXPECT_EQ(textOf(message), "<KVX MSGTYPE=\"PayInit\" KEYID=\"own\"/>");
    KVX_Context unopened;
    EXPECT_EQ(thrownCode([&] { message.Create(&unopened, "PayInit"); }), KVX_E_NO_CONTEXT);
    EXPECT_EQ(textOf(message), "<KVX MSGTYPE=\"PayInit\"/>");
}

TEST_F(Message, GuardsAgainstAMissingContext) {
    KVX_Message message;
    expectFailure([&] { message.Create(nullptr, "PayInit"); }, KVX_E_NO_CONTEXT, "no context present");
    expectFailure([&] { message.Open(nullptr, kConfirmation, "00"); }, KVX_E_NO_CONTEXT, "no context present");
    expectFailure([&] { message.FromString("<KVX/>"); }, KVX_E_NO_CONTEXT, "no context present");
}

TEST_F(Message, IsNotReadyBeforeItHasAnElement) {
    KVX_Message fresh;
    KVX_Message bound(&m_Context);
    KVX_Message failed;
    EXPECT_EQ(thrownCode([&] { failed.Open(&m_Context, "no message", ""); }), KVX_E_INVALID_FORMAT);
    for (KVX_Message* message : {&fresh, &bound, &failed}) {
        TbString value("untouched");
        expectFailure([&] { message->SetAttribute("A", "1"); }, KVX_E_UNEXPECTED, "unexpected error");
        expectFailure([&] { message->GetAttribute("A", value); }, KVX_E_UNEXPECTED, "unexpected error");
        expectFailure([&] { message->GetURL(value); }, KVX_E_UNEXPECTED, "unexpected error");
        expectFailure([&] { message->Capture(); }, KVX_E_UNEXPECTED, "unexpected error");
        KVX_Message response;
        expectFailure([&] { message->Request(response); }, KVX_E_UNEXPECTED, "unexpected error");
        EXPECT_FALSE(message->ToString(value));
        EXPECT_EQ(bytesOf(value), "untouched");
    }
}

TEST_F(MessageAttributes, AreReadBackOrMissing) {
    KVX_Message message;
    message.Create(&m_Context, "PayInit");
    message.SetAttribute("EMPTY", "");
    message.SetAttribute("TEXT", "<\xE9&'\">");
    EXPECT_EQ(attribute(message, "EMPTY"), "");
    EXPECT_EQ(attribute(message, "TEXT"), "<\xE9&'\">");
    TbString value("untouched");
    expectFailure([&] { message.GetAttribute("NONE", value); }, KVX_E_NOT_FOUND, "requested item was not found");
    EXPECT_EQ(bytesOf(value), "untouched");
    EXPECT_EQ(thrownCode([&] { message.GetAttribute("empty", value); }), KVX_E_NOT_FOUND);
}

TEST_F(OpenMessage, AcceptsWhatTheServerSigned) {
    KVX_Message message;
    message.Open(&m_Context, dataText("signing/confirm.txt").c_str(), dataHex("signing/confirm.signature.hex").c_str());
    EXPECT_EQ(attribute(message, "TOKEN"), "t-1");
    EXPECT_EQ(attribute(message, "SHOP"), "Caf\xE9");
    EXPECT_EQ(textOf(message),
              "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"server\" TOKEN=\"t-1\" SHOP=\"Caf\xE9\" CONFIGPATH=\"" +
                  m_Dir.path() + "\"/>");
}

TEST_F(OpenMessage, AddsThePathToAConfirmationOnlyAndAfterVerifying) {
    for (char const* type : {"PayConfirm", "PayInit", "payconfirm", "Error", ""}) {
        std::string const text = std::string("<KVX MSGTYPE=\"") + type + "\" KEYID=\"server\"/>";
        KVX_Message message;
        message.Open(&m_Context, text.c_str(), signedElsewhere(text, Widening::kWithSign).c_str());
        TbString path;
        EXPECT_EQ(thrownCode([&] { message.GetAttribute("CONFIGPATH", path); }),
                  std::string(type) == "PayConfirm" ? KVX_OK : KVX_E_NOT_FOUND)
            << type;
    }
    std::string const untyped = "<KVX KEYID=\"server\"/>";
    EXPECT_EQ(opened(untyped, signedElsewhere(untyped, Widening::kWithSign)), KVX_OK);
}

TEST_F(OpenMessage, ReplacesAPathThatTheMessageBrought) {
    std::string const text = "<KVX CONFIGPATH=\"/elsewhere\" MSGTYPE=\"PayConfirm\" KEYID=\"server\"/>";
    KVX_Message message;
    message.Open(&m_Context, text.c_str(), signedElsewhere(text, Widening::kWithSign).c_str());
    EXPECT_EQ(attribute(message, "CONFIGPATH"), m_Dir.path());
}

TEST_F(OpenMessage, VerifiesTheTextExactlyAsReceived) {
    std::string const text = "<KVX  MSGTYPE='PayConfirm'\n KEYID=\"server\" ></KVX>\n";
    std::string const signature = signedElsewhere(text, Widening::kWithSign);
    EXPECT_EQ(opened(text, signature), KVX_OK);
    for (std::size_t at = 0; at <= text.size(); ++at) {
        std::string changed = text;
        changed.insert(at, 1, ' ');
        std::int32_t const code = opened(changed, signature);
        EXPECT_TRUE(code == KVX_E_INVALID_SIGNATURE || code == KVX_E_INVALID_FORMAT || code == KVX_E_NO_KEY_ID ||
                    code == KVX_E_NOT_FOUND)
            << at << " " << std::hex << code;
    }
    std::string shorter = text;
    shorter.pop_back();
    EXPECT_EQ(opened(shorter, signature), KVX_E_INVALID_SIGNATURE);
}

TEST_F(OpenMessage, KeepsAcceptingAnyTypeAndAnyKeyOfTheDirectory) {
    KVX_Message message;
    message.Create(&m_Context, "PayInit");
    TbString url;
    message.GetURL(url);
    std::string const text = percentDecoded(queryValue(bytesOf(url), "DATA"));
    EXPECT_EQ(opened(text, queryValue(bytesOf(url), "SIGNATURE")), KVX_OK)
        << "the merchant's own message: callers must look at its type";
}

TEST_F(OpenMessage, ChecksFormatThenSignatureThenKeyIdentifierThenKey) {
    KVX_Message message;
    expectFailure([&] { message.Open(&m_Context, "no message", ""); }, KVX_E_INVALID_FORMAT, "invalid file format");
    Thrown const unsignedMessage = thrown([&] { message.Open(&m_Context, "<KVX/>", ""); });
    EXPECT_EQ(unsignedMessage.m_Code, KVX_E_MISSING_SIGNATURE);
    EXPECT_EQ(unsignedMessage.m_Text, "missing signature");
    EXPECT_EQ(unsignedMessage.m_File, "kvxctx");
    EXPECT_EQ(unsignedMessage.m_Line, 722);
    expectFailure([&] { message.Open(&m_Context, "<KVX/>", "g"); }, KVX_E_NO_KEY_ID, "no key identifier specified");
    expectFailure([&] { message.Open(&m_Context, "<KVX KEYID=\"unknown\"/>", "g"); }, KVX_E_NOT_FOUND,
                  "requested item was not found");
    expectFailure([&] { message.Open(&m_Context, "<KVX KEYID=\"server\"/>", "g"); }, KVX_E_INVALID_KEY,
                  "invalid key blob");
    expectFailure([&] { message.Open(&m_Context, "<KVX KEYID=\"server\"/>", "00"); }, KVX_E_INVALID_SIGNATURE,
                  "invalid signature");
}

TEST_F(OpenMessage, GoesOnWithAnEmptyKeyIdentifier) {
    EXPECT_EQ(opened("<KVX KEYID=\"\"/>", "00"), KVX_E_NOT_FOUND);
}

TEST_F(OpenMessage, HasNoElementAfterAFailure) {
    for (char const* data : {"<KVX/>", "<KVX KEYID=\"server\"/>", "no message"}) {
        KVX_Message message;
        message.Create(&m_Context, "PayInit");
        EXPECT_NE(thrownCode([&] { message.Open(&m_Context, data, "00"); }), KVX_OK);
        EXPECT_EQ(textOf(message), "no element");
    }
}

TEST_F(OpenMessage, KeepsTheKeyIdentifierOfAnEarlierCreation) {
    KVX_Message message;
    message.Create(&m_Context, "ERROR");
    std::string const text = kConfirmation;
    message.Open(&m_Context, text.c_str(), signedElsewhere(text, Widening::kWithSign).c_str());
    TbString url;
    EXPECT_NO_THROW(message.GetURL(url)) << "it still signs with the own key";
    message.FromString("<KVX KEYID=\"x\"/>");
    EXPECT_EQ(attribute(message, "KEYID"), "own");
}

TEST_F(OpenMessage, HasNoKeyForIdentifiersThatLeaveTheDirectory) {
    TemporaryDirectory attacker;
    attacker.write("key", dataHex("rsa/key512.public.hex"));
    std::string const relative = std::filesystem::relative(attacker.file("key"), m_Dir.file("keys/public"));
    write("key", dataHex("rsa/key512.public.hex"));
    for (std::string const& keyId :
         {relative, std::string("../../key"), std::string("../public/server"), std::string("./server"),
          std::string("/server"), std::string("a/b"), std::string("."), std::string(".."), std::string("server\0", 7),
          std::string("\0", 1), std::string("server\0/../x", 12)}) {
        std::string const text = "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"" + keyId + "\"/>";
        EXPECT_EQ(opened(text, signedElsewhere(text, Widening::kWithSign)), KVX_E_NOT_FOUND) << keyId;
    }
}

TEST_F(OpenMessage, ReadsEveryOtherOddIdentifierAsAFileName) {
    for (char const* keyId : {"...", "..x", ".hidden", "a b", "x\\y", "-", "\xC3\xA9"}) {
        writeServerKey(keyId);
        std::string const text = std::string("<KVX KEYID=\"") + keyId + "\"/>";
        EXPECT_EQ(opened(text, signedElsewhere(text, Widening::kWithSign)), KVX_OK) << keyId;
    }
}

TEST_F(MessageUrl, HoldsTheSignedTextAndTheSignature) {
    KVX_Message message;
    message.Create(&m_Context, "PayInit");
    message.SetAttribute("AMOUNT", "12.50");
    TbString url;
    message.GetURL(url);
    std::string const text = "<KVX MSGTYPE=\"PayInit\" KEYID=\"own\" AMOUNT=\"12.50\"/>";
    EXPECT_EQ(textOf(message), text);
    EXPECT_EQ(
        bytesOf(url),
        "https://pay.example/page?DATA=%3cKVX%20MSGTYPE%3d%22PayInit%22%20KEYID%3d%22own%22%20AMOUNT%3d%2212%2e50%22%2f"
        "%3e&SIGNATURE=" +
            signedElsewhere(text, Widening::kWithoutSign));
}

TEST_F(MessageUrl, EscapesEverythingThatIsNoLetterOrDigit) {
    KVX_Message message;
    message.Create(&m_Context, "PayInit");
    std::string all = " &=?#/+";
    for (int value = 1; value < 256; ++value) {
        all += static_cast<char>(value);
    }
    message.SetAttribute("TEXT", all.c_str());
    TbString url;
    message.GetURL(url);
    std::string const data = queryValue(bytesOf(url), "DATA");
    EXPECT_EQ(data.find_first_not_of("%0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"),
              std::string::npos);
    EXPECT_EQ(percentDecoded(data), textOf(message));
    EXPECT_EQ(attribute(message, "TEXT"), all);
}

TEST_F(MessageUrl, CarriesTheSessionsCredentials) {
    m_Context.SetOption("UserName", "u");
    m_Context.SetOption("Password", "p");
    KVX_Message message;
    message.Create(&m_Context, "PayInit");
    TbString url;
    message.GetURL(url);
    EXPECT_EQ(bytesOf(url).rfind("https://u:p@pay.example/page?DATA=", 0), 0U);
}

TEST_F(MessageUrl, IsWholeWhateverTheStringHeldBefore) {
    KVX_Message message;
    message.Create(&m_Context, "PayInit");
    TbString fresh;
    message.GetURL(fresh);
    TbString reused(std::string(10, 'x').c_str());
    message.GetURL(reused);
    EXPECT_EQ(bytesOf(reused), bytesOf(fresh));
    message.GetURL(reused);
    EXPECT_EQ(bytesOf(reused), bytesOf(fresh));
}

TEST_F(MessageUrl, NeedsTheAddressBeforeTheKey) {
    KVX_Message message;
    message.Create(&m_Context, "PayInit");
    std::filesystem::remove_all(m_Dir.file("keys"));
    TbString url("untouched");
    for (char const* configuration : {"<KVX/>", "<KVX VTURL=\"\"/>", "<KVX CAPTUREURL=\"http://x/\"/>"}) {
        write("config.xml", configuration);
        expectFailure([&] { message.GetURL(url); }, KVX_E_NO_CONFIGURATION, "no configuration found");
    }
    write("config.xml", "<KVX VTURL=\"no scheme\"/>");
    EXPECT_EQ(thrownCode([&] { message.GetURL(url); }), KVX_E_NOT_FOUND) << "the key comes before the address is used";
    writeOwnKey("own");
    EXPECT_EQ(thrownCode([&] { message.GetURL(url); }), KVX_E_INVALID_URL);
    write("config.xml", "<KVX");
    EXPECT_EQ(thrownCode([&] { message.GetURL(url); }), KVX_E_INVALID_FORMAT);
    std::filesystem::remove(m_Dir.file("config.xml"));
    EXPECT_EQ(thrownCode([&] { message.GetURL(url); }), KVX_E_CANNOT_OPEN);
    EXPECT_EQ(bytesOf(url), "untouched");
}

TEST_F(MessageUrl, KeepsUsingTheKeyThatWasCurrentAtTheCreation) {
    KVX_Message message;
    message.Create(&m_Context, "PayInit");
    write("keys/current", "next");
    TbString url;
    EXPECT_NO_THROW(message.GetURL(url));
    message.SetAttribute("KEYID", "server");
    EXPECT_NO_THROW(message.GetURL(url)) << "the attribute does not choose the key";
}

TEST_F(MessageText, IsReplacedAndGetsTheKeyIdentifierHeld) {
    KVX_Message message;
    message.Create(&m_Context, "ERROR");
    message.FromString("<KVX KEYID=\"x\" MSGTYPE=\"PayConfirm\"/>");
    EXPECT_EQ(textOf(message), "<KVX KEYID=\"own\" MSGTYPE=\"PayConfirm\"/>");
    message.FromString("<KVX MSGTYPE=\"PayConfirm\"><A/></KVX>");
    EXPECT_EQ(textOf(message), "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"own\"><A/></KVX>");

    KVX_Context unopened;
    KVX_Message bound(&unopened);
    bound.FromString("<KVX KEYID=\"x\"/>");
    EXPECT_EQ(textOf(bound), "<KVX KEYID=\"\"/>");
}

TEST_F(MessageText, IsDroppedBeforeABadOneIsParsed) {
    KVX_Message message;
    message.Create(&m_Context, "ERROR");
    expectFailure([&] { message.FromString("no message"); }, KVX_E_INVALID_FORMAT, "invalid file format");
    EXPECT_EQ(textOf(message), "no element");
}

}  // namespace
