// MessageObject: attributes, text, URL, capture and execution.
//
// Messages come from the factory of the fixture or are opened by the test. A scripted server answers where something is
// sent. Odd: only messages made for a payment have a URL; executing changes the type of the message.

#include "api/cMessageObject.h"

#include <unistd.h>

#include "foundation/tbobject.h"
#include "tests/api/apisupport.h"
#include "tests/support/exceptions.h"
#include "tests/support/rawserver.h"
#include "tests/support/tbtext.h"
#include "tests/support/tracerecorder.h"

using namespace kvxtest;

namespace {

std::string urlOfServer(RawServer const& server) {
    return "http://127.0.0.1:" + server.portText();
}

/// A message object that was opened on `account`.
class OpenedMessage : public MessageHandle {
public:
    explicit OpenedMessage(AccountDirectory const& account) {
        EXPECT_EQ(MessageObject_Open(get(), account.path().c_str()), KVX_OK);
    }
};

/// Expects that an object without a URL refuses to give one, through both interfaces.
void expectNoUrl(KVX_HANDLE message, std::string const& what) {
    Outputs outputs;
    EXPECT_EQ(MessageObject_GetURL(message, &outputs.m_Size, outputs.m_Buffer), KVX_E_UNEXPECTED) << what;
    EXPECT_EQ(MessageObject_GetURL(message, nullptr, nullptr), KVX_E_UNEXPECTED) << what;
    outputs.expectUntouched(what);

    TbString url("before");
    Thrown const failure = thrown([&] { static_cast<KVXCIMPL_MessageObject*>(message)->GetURL(url); });
    EXPECT_EQ(failure.m_Code, KVX_E_UNEXPECTED) << what;
    EXPECT_EQ(failure.m_Text, "unexpected error") << what;
    EXPECT_EQ(failure.m_File, "cMessageObject") << what;
    EXPECT_EQ(failure.m_Line, 29) << what;
    EXPECT_EQ(bytesOf(url), "before") << what;
}

class MessageObject : public AccountTest {};
class GetURL : public AccountTest {};
class FromString : public AccountTest {};
class Capture : public AccountTest {};
class Execute : public AccountTest {};

TEST_F(MessageObject, IsEmptyUntilItIsOpenedOrFilled) {
    MessageHandle const message;
    Outputs outputs;
    EXPECT_EQ(MessageObject_SetAttribute(message.get(), "A", "1"), KVX_E_UNEXPECTED);
    EXPECT_EQ(MessageObject_GetAttribute(message.get(), "A", &outputs.m_Size, outputs.m_Buffer), KVX_E_UNEXPECTED);
    EXPECT_EQ(MessageObject_ToString(message.get(), &outputs.m_Size, outputs.m_Buffer), KVX_E_UNEXPECTED);
    EXPECT_EQ(MessageObject_Capture(message.get()), KVX_E_UNEXPECTED);
    EXPECT_EQ(MessageObject_Execute(message.get(), &outputs.m_Out), KVX_E_UNEXPECTED);
    outputs.expectUntouched("an empty object");
}

TEST_F(MessageObject, KeepsTheTypeErrorOfAFreshlyOpenedMessage) {
    OpenedMessage const message(m_Account);
    EXPECT_EQ(textOf(message.get()), R"(<KVX MSGTYPE="ERROR" KEYID="own"/>)");
}

TEST_F(MessageObject, OpenNeedsACurrentKey) {
    TemporaryDirectory const dir;
    MessageHandle const message;
    EXPECT_EQ(MessageObject_Open(message.get(), dir.path().c_str()), KVX_E_CANNOT_OPEN);
    EXPECT_EQ(MessageObject_Open(message.get(), dir.file("a/b").c_str()), ENOENT);
}

TEST_F(MessageObject, OpenTakesTheCurrentDirectoryForNoPath) {
    WorkingDirectory const here(m_Account.path());
    for (char const* const path : {"", static_cast<char const*>(nullptr)}) {
        MessageHandle const message;
        EXPECT_EQ(MessageObject_Open(message.get(), path), KVX_OK);
        EXPECT_EQ(attribute(message.get(), "KEYID"), "own");
    }
}

TEST_F(MessageObject, CanBeOpenedAgain) {
    OpenedMessage const message(m_Account);
    ASSERT_EQ(MessageObject_SetAttribute(message.get(), "A", "1"), KVX_OK);
    m_Account.write("keys/current", "server");
    ASSERT_EQ(MessageObject_Open(message.get(), m_Account.path().c_str()), KVX_OK);
    EXPECT_EQ(textOf(message.get()), R"(<KVX MSGTYPE="ERROR" KEYID="server"/>)");
}

TEST_F(MessageObject, SetsReplacesAndReadsAttributes) {
    OpenedMessage const message(m_Account);
    EXPECT_EQ(MessageObject_SetAttribute(message.get(), "A", "<1> & \"2\" '3'"), KVX_OK);
    EXPECT_EQ(MessageObject_SetAttribute(message.get(), "B", "\xc3\xa9"), KVX_OK);
    EXPECT_EQ(MessageObject_SetAttribute(message.get(), "MSGTYPE", "T"), KVX_OK);
    EXPECT_EQ(attribute(message.get(), "A"), "<1> & \"2\" '3'");
    EXPECT_EQ(attribute(message.get(), "B"), "\xc3\xa9");
    EXPECT_EQ(textOf(message.get()),
              "<KVX MSGTYPE=\"T\" KEYID=\"own\" A=\"&lt;1&gt; &amp; &quot;2&quot; &apos;3&apos;\" B=\"\xc3\xa9\"/>");
    Outputs outputs;
    EXPECT_EQ(MessageObject_GetAttribute(message.get(), "a", &outputs.m_Size, outputs.m_Buffer), KVX_E_NOT_FOUND);
    outputs.expectUntouched("another name");
}

TEST_F(MessageObject, CountsNullTextsAsEmpty) {
    OpenedMessage const message(m_Account);
    EXPECT_EQ(MessageObject_SetAttribute(message.get(), "A", nullptr), KVX_OK);
    EXPECT_EQ(attribute(message.get(), "A"), "");
    EXPECT_EQ(MessageObject_SetAttribute(message.get(), nullptr, "nameless"), KVX_OK);
    EXPECT_EQ(attribute(message.get(), nullptr), "nameless");
    EXPECT_EQ(MessageObject_FromString(message.get(), nullptr), KVX_E_INVALID_FORMAT);
}

TEST_F(GetURL, IsRefusedForAConfirmation) {
    MadeMessage const message = confirmation();
    expectNoUrl(message.get(), "a confirmation, which holds no signing key");
    m_Account.write("config.xml", "<KVX/>");
    expectNoUrl(message.get(), "a confirmation without an address");
}

TEST_F(GetURL, IsRefusedForAnAnswer) {
    RawServer const server(httpResponse(R"(<KVX MSGTYPE="TResponse"/>)"));
    m_Account.setAddress(urlOfServer(server));
    MadeMessage const sent = request();
    MadeMessage const response = responseTo(sent);
    expectNoUrl(response.get(), "a response");
}

TEST_F(GetURL, IsRefusedForAnObjectOfTheCallersOwn) {
    MessageHandle const empty;
    expectNoUrl(empty.get(), "an empty object");
    OpenedMessage const opened(m_Account);
    expectNoUrl(opened.get(), "an opened object, whose URL can be computed");
    ASSERT_EQ(MessageObject_FromString(opened.get(), kConfirmation), KVX_OK);
    expectNoUrl(opened.get(), "a filled object");
    m_Account.write("config.xml", "<KVX/>");
    expectNoUrl(opened.get(), "an opened object without an address");
    m_Account.write("keys/current", "nobody");
    ASSERT_EQ(MessageObject_Open(opened.get(), m_Account.path().c_str()), KVX_OK);
    expectNoUrl(opened.get(), "an opened object without a key");
}

TEST_F(GetURL, KeepsComputingTheUrlBeforeItRefuses) {
    // The trace shows what the refusal hides.
    OpenedMessage const message(m_Account);
    m_Account.write("config.xml", "<KVX/>");
    TraceRecorder const trace;
    Outputs outputs;
    EXPECT_EQ(MessageObject_GetURL(message.get(), &outputs.m_Size, outputs.m_Buffer), KVX_E_UNEXPECTED);
    std::vector<std::int32_t> codes;
    for (TraceRecorder::Record const& record : trace.of("EXCEPTION")) {
        codes.push_back(record.m_Code);
    }
    EXPECT_EQ(codes, (std::vector<std::int32_t>{KVX_E_NO_CONFIGURATION, KVX_E_UNEXPECTED}));
}

TEST_F(GetURL, PassesTheCoresCodesForAMessageThatMayHaveOne) {
    MadeMessage const message = payInit();
    struct Row {
        char const* m_Config;
        std::int32_t m_Code;
    };
    for (Row const row : {Row{"<KVX/>", KVX_E_NO_CONFIGURATION}, Row{"<KVX VTURL=\"\"/>", KVX_E_NO_CONFIGURATION},
                          Row{"<KVX VTURL=\"nowhere\"/>", KVX_E_INVALID_URL}, Row{"broken", KVX_E_INVALID_FORMAT}}) {
        m_Account.write("config.xml", row.m_Config);
        Outputs outputs;
        EXPECT_EQ(MessageObject_GetURL(message.get(), &outputs.m_Size, outputs.m_Buffer), row.m_Code) << row.m_Config;
        outputs.expectUntouched(row.m_Config);
    }
    m_Account.setAddress("http://h");
    m_Account.write("keys/private/own", "no key");
    EXPECT_EQ(MessageObject_GetURL(message.get(), nullptr, nullptr), KVX_E_INVALID_KEY);
}

TEST_F(GetURL, ReplacesWhateverTheCallersStringHolds) {
    KVXCIMPL_MessageFactory factory;
    factory.Open(stringOf(m_Account.path()));
    OwnedMessage const message(factory.CreatePayInit());
    TbString fresh;
    message->GetURL(fresh);
    TbString used("http://something.else.of.some.length/");
    message->GetURL(used);
    EXPECT_EQ(bytesOf(used), bytesOf(fresh));
}

TEST_F(GetURL, StaysAvailableAfterFromString) {
    MadeMessage const message = request();
    ASSERT_EQ(MessageObject_FromString(message.get(), "<KVX A=\"1\"/>"), KVX_OK);
    EXPECT_EQ(urlOf(message.get()).find("http://127.0.0.1:1/pay?DATA=%3cKVX%20A%3d%221%22%20KEYID%3d%22own%22%2f%3e"),
              0U);
}

TEST_F(FromString, SetsTheKeyInPlaceOrAtTheEnd) {
    OpenedMessage const message(m_Account);
    ASSERT_EQ(MessageObject_FromString(message.get(), R"(<KVX A="1" KEYID="server" B="2"/>)"), KVX_OK);
    EXPECT_EQ(textOf(message.get()), R"(<KVX A="1" KEYID="own" B="2"/>)");
    ASSERT_EQ(MessageObject_FromString(message.get(), R"(<KVX A="1"><C/>text</KVX>)"), KVX_OK);
    EXPECT_EQ(textOf(message.get()).find(R"(<KVX A="1" KEYID="own">)"), 0U);
}

TEST_F(FromString, NeedsNoDirectory) {
    MessageHandle const message;
    ASSERT_EQ(MessageObject_FromString(message.get(), R"(<KVX KEYID="server" A="1"/>)"), KVX_OK);
    EXPECT_EQ(textOf(message.get()), R"(<KVX KEYID="" A="1"/>)");
    ASSERT_EQ(MessageObject_FromString(message.get(), R"(<KVX A="1"/>)"), KVX_OK);
    EXPECT_EQ(textOf(message.get()), R"(<KVX A="1" KEYID=""/>)");
    EXPECT_EQ(MessageObject_SetAttribute(message.get(), "A", "2"), KVX_OK);
}

TEST_F(FromString, DropsTheOldMessageBeforeItReadsTheNewOne) {
    for (char const* const text : {"", "garbage", "<KVX", "<OTHER/>", "<KVX A=\"1\">"}) {
        OpenedMessage const message(m_Account);
        EXPECT_EQ(MessageObject_FromString(message.get(), text), KVX_E_INVALID_FORMAT) << text;
        Outputs outputs;
        EXPECT_EQ(MessageObject_ToString(message.get(), &outputs.m_Size, outputs.m_Buffer), KVX_E_UNEXPECTED) << text;
        EXPECT_EQ(MessageObject_SetAttribute(message.get(), "A", "1"), KVX_E_UNEXPECTED) << text;
        outputs.expectUntouched(text);
        EXPECT_EQ(MessageObject_FromString(message.get(), "<KVX/>"), KVX_OK) << "the object goes on to work";
        EXPECT_EQ(attribute(message.get(), "KEYID"), "own");
    }
}

TEST(ToString, NamesItsSourceAndLineWithoutAMessage) {
    KVXCIMPL_MessageObject message;
    Thrown const failure = thrown([&] { (void)message.ToString(); });
    EXPECT_EQ(failure.m_Code, KVX_E_UNEXPECTED);
    EXPECT_EQ(failure.m_Text, "unexpected error");
    EXPECT_EQ(failure.m_File, "cMessageObject");
    EXPECT_EQ(failure.m_Line, 91);
}

TEST_F(MessageObject, WorksOnADirectoryThatWasNeverOpenedAsFarAsNoneIsNeeded) {
    MessageHandle const message;
    ASSERT_EQ(MessageObject_FromString(message.get(), R"(<KVX MSGTYPE="T" TOKEN="t"/>)"), KVX_OK);
    Outputs outputs;
    EXPECT_EQ(MessageObject_Capture(message.get()), KVX_E_NO_CONTEXT);
    EXPECT_EQ(MessageObject_Execute(message.get(), &outputs.m_Out), KVX_E_NO_CONTEXT);
    expectNoUrl(message.get(), "no directory");
    outputs.expectUntouched("no directory");
}

TEST_F(Capture, ChecksTheAddressBeforeTheToken) {
    OpenedMessage const message(m_Account);
    m_Account.write("config.xml", "<KVX CAPTUREURL=\"\"/>");
    EXPECT_EQ(MessageObject_Capture(message.get()), KVX_E_NO_CONFIGURATION);
    m_Account.setAddress("http://127.0.0.1:1");
    EXPECT_EQ(MessageObject_Capture(message.get()), KVX_E_UNEXPECTED);
}

TEST_F(Capture, SendsTheSignedMessageAndWantsAConfirmation) {
    struct Row {
        char const* m_Response;
        std::int32_t m_Code;
    };
    for (Row const row :
         {Row{R"(<KVX MSGTYPE="PayConfirm"/>)", KVX_OK}, Row{R"(<KVX MSGTYPE="PayComplete"/>)", KVX_E_WRONG_RESPONSE},
          Row{R"(<KVX MSGTYPE="Error" MESSAGE="no"/>)", KVX_E_SERVER_ERROR}, Row{"hello", KVX_E_INVALID_FORMAT}}) {
        RawServer server(httpResponse(row.m_Response));
        AccountDirectory const account;
        account.setAddress(urlOfServer(server));
        OpenedMessage const message(account);
        ASSERT_EQ(MessageObject_FromString(message.get(), kConfirmation), KVX_OK);
        EXPECT_EQ(MessageObject_Capture(message.get()), row.m_Code) << row.m_Response;
        KVX_Context context;
        std::string const text = textOf(message.get());
        ASSERT_EQ(server.records().size(), 1U);
        EXPECT_EQ(server.records()[0].find("GET /capture?DATA=" + bytesOf(context.Encode(stringOf(text))) +
                                           "&SIGNATURE=" + account.sign(text, "own") + " HTTP/1.0\r\n"),
                  0U);
    }
}

TEST_F(Capture, ReadsNoFileOnceItIsSent) {
    std::string const settings = m_Account.path() + "/settings.xml";
    RawServer const server([&](Peer& peer) {
        peer.receiveRequest();
        ASSERT_EQ(::symlink("settings.xml", settings.c_str()), 0);  // a link to itself, which cannot be opened
        peer.send(httpResponse(R"(<KVX MSGTYPE="PayConfirm"/>)"));
        peer.finish();
    });
    m_Account.setAddress(urlOfServer(server));
    OpenedMessage const message(m_Account);
    ASSERT_EQ(MessageObject_FromString(message.get(), kConfirmation), KVX_OK);
    EXPECT_EQ(MessageObject_Capture(message.get()), KVX_OK) << "the payment is captured";
    EXPECT_EQ(MessageObject_Capture(message.get()), KVX_E_CANNOT_OPEN) << "nothing is sent";
}

TEST_F(Capture, OfAnObjectThatOnlyVerifiedAConfirmationFindsNoKeyToSignWith) {
    MadeMessage const message = confirmation();
    EXPECT_EQ(MessageObject_Capture(message.get()), KVX_E_NOT_FOUND);
}

TEST_F(Execute, SendsTheTypeWithRequestAndTakesTheAnswer) {
    RawServer server(httpResponse(R"(<KVX MSGTYPE="TResponse" STATE="fine"/>)"));
    m_Account.setAddress(urlOfServer(server));
    MadeMessage const sent = request();
    MadeMessage const response = responseTo(sent);
    EXPECT_EQ(textOf(response.get()), R"(<KVX MSGTYPE="TResponse" STATE="fine"/>)");
    EXPECT_EQ(attribute(sent.get(), "MSGTYPE"), "TRequest");
    EXPECT_EQ(server.records().at(0).find("GET /capture?DATA=%3cKVX%20MSGTYPE%3d%22TRequest%22"), 0U);
}

TEST_F(Execute, KeepsTheChangedTypeForTheNextTime) {
    RawServer const server(httpResponse(R"(<KVX MSGTYPE="TResponse"/>)"));
    m_Account.setAddress(urlOfServer(server));
    MadeMessage const sent = request();
    MadeMessage const response = responseTo(sent);
    Outputs outputs;
    EXPECT_EQ(MessageObject_Execute(sent.get(), &outputs.m_Out), KVX_E_WRONG_RESPONSE);
    EXPECT_EQ(attribute(sent.get(), "MSGTYPE"), "TRequestRequest");
    outputs.expectUntouched("the second time");
}

TEST_F(Execute, GivesTheAnswerTheContextOfTheRequestButNoKey) {
    RawServer const server(httpResponse(R"(<KVX MSGTYPE="TResponse" TOKEN="t" KEYID="own"/>)"));
    m_Account.setAddress(urlOfServer(server));
    MadeMessage const sent = request();
    MadeMessage const response = responseTo(sent);
    DestroyMessageObject(sent.get());
    // It finds the address in the directory, so it has the path; it cannot sign, so it has no key.
    EXPECT_EQ(MessageObject_Capture(response.get()), KVX_E_NOT_FOUND);
    m_Account.write("config.xml", "<KVX/>");
    EXPECT_EQ(MessageObject_Capture(response.get()), KVX_E_NO_CONFIGURATION);
    ASSERT_EQ(MessageObject_FromString(response.get(), "<KVX A=\"1\"/>"), KVX_OK);
    EXPECT_EQ(attribute(response.get(), "KEYID"), "");
}

TEST_F(Execute, LeavesNothingBehindWhenItFails) {
    RawServer const server(httpResponse(R"(<KVX MSGTYPE="Error" MESSAGE="no"/>)"));
    m_Account.setAddress(urlOfServer(server));
    KVXCIMPL_MessageFactory factory;
    factory.Open(stringOf(m_Account.path()));
    OwnedMessage const request(factory.CreateRequest("T"));
    std::int32_t const living = TbRefCounter::m_nTotalRef;
    expectNoSlotIsLost(20, [&] {
        request->SetAttribute("MSGTYPE", "T");
        Outputs outputs;
        EXPECT_EQ(MessageObject_Execute(request.get(), &outputs.m_Out), KVX_E_SERVER_ERROR);
        outputs.expectUntouched("a refused request");
    });
    EXPECT_EQ(TbRefCounter::m_nTotalRef, living);
}

}  // namespace
