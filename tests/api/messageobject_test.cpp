#include "api/cMessageObject.h"

#include "tests/api/apisupport.h"
#include "tests/support/raw_server.h"

using namespace kvxtest;

namespace {

std::string urlOfServer(RawServer const& server) {
    return "http://127.0.0.1:" + server.portText();
}

/// A message object that was opened on `account`.
class OpenedMessage : public MessageHandle {
public:
    explicit OpenedMessage(AccountDir const& account) {
        EXPECT_EQ(MessageObject_Open(get(), account.path().c_str()), KVX_OK);
    }
};

/// Expects the refusal of an object that may hand out no URL, through both faces.
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

}  // namespace

TEST(MessageObject, IsEmptyUntilItIsOpenedOrFilled) {
    MessageHandle const message;
    Outputs outputs;
    EXPECT_EQ(MessageObject_SetAttribute(message.get(), "A", "1"), KVX_E_UNEXPECTED);
    EXPECT_EQ(MessageObject_GetAttribute(message.get(), "A", &outputs.m_Size, outputs.m_Buffer), KVX_E_UNEXPECTED);
    EXPECT_EQ(MessageObject_ToString(message.get(), &outputs.m_Size, outputs.m_Buffer), KVX_E_UNEXPECTED);
    EXPECT_EQ(MessageObject_Capture(message.get()), KVX_E_UNEXPECTED);
    EXPECT_EQ(MessageObject_Execute(message.get(), &outputs.m_Out), KVX_E_UNEXPECTED);
    outputs.expectUntouched("an empty object");
}

TEST(MessageObject, KeepsTheTypeErrorOfAFreshlyOpenedMessage) {
    AccountDir const account;
    OpenedMessage const message(account);
    EXPECT_EQ(textOf(message.get()), R"(<KVX MSGTYPE="ERROR" KEYID="own"/>)");
}

TEST(MessageObject, OpenNeedsACurrentKey) {
    TempDir const dir;
    MessageHandle const message;
    EXPECT_EQ(MessageObject_Open(message.get(), dir.path().c_str()), KVX_E_CANNOT_OPEN);
    EXPECT_EQ(MessageObject_Open(message.get(), dir.file("a/b").c_str()), ENOENT);
}

TEST(MessageObject, OpenTakesTheCurrentDirectoryForNoPath) {
    AccountDir const account;
    WorkingDirectory const here(account.path());
    for (char const* const path : {"", static_cast<char const*>(nullptr)}) {
        MessageHandle const message;
        EXPECT_EQ(MessageObject_Open(message.get(), path), KVX_OK);
        EXPECT_EQ(attribute(message.get(), "KEYID"), "own");
    }
}

TEST(MessageObject, CanBeOpenedAgain) {
    AccountDir const account;
    OpenedMessage const message(account);
    ASSERT_EQ(MessageObject_SetAttribute(message.get(), "A", "1"), KVX_OK);
    account.write("keys/current", "server");
    ASSERT_EQ(MessageObject_Open(message.get(), account.path().c_str()), KVX_OK);
    EXPECT_EQ(textOf(message.get()), R"(<KVX MSGTYPE="ERROR" KEYID="server"/>)");
}

TEST(MessageObject, SetsReplacesAndReadsAttributes) {
    AccountDir const account;
    OpenedMessage const message(account);
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

TEST(MessageObject, CountsNullTextsAsEmpty) {
    AccountDir const account;
    OpenedMessage const message(account);
    EXPECT_EQ(MessageObject_SetAttribute(message.get(), "A", nullptr), KVX_OK);
    EXPECT_EQ(attribute(message.get(), "A"), "");
    EXPECT_EQ(MessageObject_SetAttribute(message.get(), nullptr, "nameless"), KVX_OK);
    EXPECT_EQ(attribute(message.get(), nullptr), "nameless");
    EXPECT_EQ(MessageObject_FromString(message.get(), nullptr), KVX_E_INVALID_FORMAT);
}

TEST(GetURL, IsRefusedForAConfirmation) {
    AccountDir const account;
    FactoryHandle const factory(account.path());
    MadeMessage message;
    ASSERT_EQ(MessageFactory_VerifyPayConfirm(factory.get(), kConfirmation, account.sign(kConfirmation).c_str(),
                                              message.out()),
              KVX_OK);
    expectNoUrl(message.get(), "a confirmation, which holds no signing key");
    account.write("config.xml", "<KVX/>");
    expectNoUrl(message.get(), "a confirmation without an address");
}

TEST(GetURL, IsRefusedForAnAnswer) {
    RawServer const server(httpAnswer(R"(<KVX MSGTYPE="TResponse"/>)"));
    AccountDir const account;
    account.setAddress(urlOfServer(server));
    FactoryHandle const factory(account.path());
    MadeMessage request;
    ASSERT_EQ(MessageFactory_CreateRequest(factory.get(), "T", request.out()), KVX_OK);
    MadeMessage answer;
    ASSERT_EQ(MessageObject_Execute(request.get(), answer.out()), KVX_OK);
    expectNoUrl(answer.get(), "an answer");
}

TEST(GetURL, IsRefusedForAnObjectOfTheCallersOwn) {
    MessageHandle const empty;
    expectNoUrl(empty.get(), "an empty object");
    AccountDir const account;
    OpenedMessage const opened(account);
    expectNoUrl(opened.get(), "an opened object, whose URL can be computed");
    ASSERT_EQ(MessageObject_FromString(opened.get(), kConfirmation), KVX_OK);
    expectNoUrl(opened.get(), "a filled object");
    account.write("config.xml", "<KVX/>");
    expectNoUrl(opened.get(), "an opened object without an address");
    account.write("keys/current", "nobody");
    ASSERT_EQ(MessageObject_Open(opened.get(), account.path().c_str()), KVX_OK);
    expectNoUrl(opened.get(), "an opened object without a key");
}

TEST(GetURL, KeepsComputingTheUrlBeforeItRefuses) {
    // The trace shows what the refusal hides.
    AccountDir const account;
    OpenedMessage const message(account);
    account.write("config.xml", "<KVX/>");
    TraceRecorder const trace;
    Outputs outputs;
    EXPECT_EQ(MessageObject_GetURL(message.get(), &outputs.m_Size, outputs.m_Buffer), KVX_E_UNEXPECTED);
    std::vector<std::int32_t> codes;
    for (TraceRecorder::Record const& record : trace.of("EXCEPTION")) {
        codes.push_back(record.m_Code);
    }
    EXPECT_EQ(codes, (std::vector<std::int32_t>{KVX_E_NO_CONFIGURATION, KVX_E_UNEXPECTED}));
}

TEST(GetURL, PassesTheCoresCodesForAMessageThatMayHaveOne) {
    AccountDir const account;
    FactoryHandle const factory(account.path());
    MadeMessage message;
    ASSERT_EQ(MessageFactory_CreatePayInit(factory.get(), message.out()), KVX_OK);
    struct Row {
        char const* m_Config;
        std::int32_t m_Code;
    };
    for (Row const row : {Row{"<KVX/>", KVX_E_NO_CONFIGURATION}, Row{"<KVX VTURL=\"\"/>", KVX_E_NO_CONFIGURATION},
                          Row{"<KVX VTURL=\"nowhere\"/>", KVX_E_INVALID_URL}, Row{"broken", KVX_E_INVALID_FORMAT}}) {
        account.write("config.xml", row.m_Config);
        Outputs outputs;
        EXPECT_EQ(MessageObject_GetURL(message.get(), &outputs.m_Size, outputs.m_Buffer), row.m_Code) << row.m_Config;
        outputs.expectUntouched(row.m_Config);
    }
    account.setAddress("http://h");
    account.write("keys/private/own", "no key");
    EXPECT_EQ(MessageObject_GetURL(message.get(), nullptr, nullptr), KVX_E_INVALID_KEY);
}

TEST(GetURL, ReplacesWhateverTheCallersStringHolds) {
    AccountDir const account;
    KVXCIMPL_MessageFactory factory;
    factory.Open(stringOf(account.path()));
    OwnedMessage const message(factory.CreatePayInit());
    TbString fresh;
    message->GetURL(fresh);
    TbString used("http://something.else.of.some.length/");
    message->GetURL(used);
    EXPECT_EQ(bytesOf(used), bytesOf(fresh));
}

TEST(GetURL, StaysAvailableAfterFromString) {
    AccountDir const account;
    FactoryHandle const factory(account.path());
    MadeMessage message;
    ASSERT_EQ(MessageFactory_CreateRequest(factory.get(), "T", message.out()), KVX_OK);
    ASSERT_EQ(MessageObject_FromString(message.get(), "<KVX A=\"1\"/>"), KVX_OK);
    EXPECT_EQ(urlOf(message.get()).find("http://127.0.0.1:1/pay?DATA=%3cKVX%20A%3d%221%22%20KEYID%3d%22own%22%2f%3e"),
              0U);
}

TEST(FromString, SetsTheKeyInPlaceOrAtTheEnd) {
    AccountDir const account;
    OpenedMessage const message(account);
    ASSERT_EQ(MessageObject_FromString(message.get(), R"(<KVX A="1" KEYID="server" B="2"/>)"), KVX_OK);
    EXPECT_EQ(textOf(message.get()), R"(<KVX A="1" KEYID="own" B="2"/>)");
    ASSERT_EQ(MessageObject_FromString(message.get(), R"(<KVX A="1"><C/>text</KVX>)"), KVX_OK);
    EXPECT_EQ(textOf(message.get()).find(R"(<KVX A="1" KEYID="own">)"), 0U);
}

TEST(FromString, NeedsNoDirectory) {
    MessageHandle const message;
    ASSERT_EQ(MessageObject_FromString(message.get(), R"(<KVX KEYID="server" A="1"/>)"), KVX_OK);
    EXPECT_EQ(textOf(message.get()), R"(<KVX KEYID="" A="1"/>)");
    ASSERT_EQ(MessageObject_FromString(message.get(), R"(<KVX A="1"/>)"), KVX_OK);
    EXPECT_EQ(textOf(message.get()), R"(<KVX A="1" KEYID=""/>)");
    EXPECT_EQ(MessageObject_SetAttribute(message.get(), "A", "2"), KVX_OK);
}

TEST(FromString, DropsTheOldMessageBeforeItReadsTheNewOne) {
    AccountDir const account;
    for (char const* const text : {"", "garbage", "<KVX", "<OTHER/>", "<KVX A=\"1\">"}) {
        OpenedMessage const message(account);
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

TEST(MessageObject, WorksOnADirectoryThatWasNeverOpenedAsFarAsNoneIsNeeded) {
    MessageHandle const message;
    ASSERT_EQ(MessageObject_FromString(message.get(), R"(<KVX MSGTYPE="T" TOKEN="t"/>)"), KVX_OK);
    Outputs outputs;
    EXPECT_EQ(MessageObject_Capture(message.get()), KVX_E_NO_CONTEXT);
    EXPECT_EQ(MessageObject_Execute(message.get(), &outputs.m_Out), KVX_E_NO_CONTEXT);
    expectNoUrl(message.get(), "no directory");
    outputs.expectUntouched("no directory");
}

TEST(Capture, ChecksTheAddressBeforeTheToken) {
    AccountDir const account;
    OpenedMessage const message(account);
    account.write("config.xml", "<KVX CAPTUREURL=\"\"/>");
    EXPECT_EQ(MessageObject_Capture(message.get()), KVX_E_NO_CONFIGURATION);
    account.setAddress("http://127.0.0.1:1");
    EXPECT_EQ(MessageObject_Capture(message.get()), KVX_E_UNEXPECTED);
}

TEST(Capture, SendsTheSignedMessageAndWantsAConfirmation) {
    struct Row {
        char const* m_Answer;
        std::int32_t m_Code;
    };
    for (Row const row :
         {Row{R"(<KVX MSGTYPE="PayConfirm"/>)", KVX_OK}, Row{R"(<KVX MSGTYPE="PayComplete"/>)", KVX_E_WRONG_RESPONSE},
          Row{R"(<KVX MSGTYPE="Error" MESSAGE="no"/>)", KVX_E_SERVER_ERROR}, Row{"hello", KVX_E_INVALID_FORMAT}}) {
        RawServer server(httpAnswer(row.m_Answer));
        AccountDir const account;
        account.setAddress(urlOfServer(server));
        OpenedMessage const message(account);
        ASSERT_EQ(MessageObject_FromString(message.get(), kConfirmation), KVX_OK);
        EXPECT_EQ(MessageObject_Capture(message.get()), row.m_Code) << row.m_Answer;
        KVX_Context context;
        std::string const text = textOf(message.get());
        ASSERT_EQ(server.records().size(), 1U);
        EXPECT_EQ(server.records()[0].find("GET /capture?DATA=" + bytesOf(context.Encode(stringOf(text))) +
                                           "&SIGNATURE=" + account.sign(text, "own") + " HTTP/1.0\r\n"),
                  0U);
    }
}

TEST(Capture, OfAnObjectThatOnlyVerifiedAConfirmationFindsNoKeyToSignWith) {
    AccountDir const account;
    FactoryHandle const factory(account.path());
    MadeMessage message;
    ASSERT_EQ(MessageFactory_VerifyPayConfirm(factory.get(), kConfirmation, account.sign(kConfirmation).c_str(),
                                              message.out()),
              KVX_OK);
    EXPECT_EQ(MessageObject_Capture(message.get()), KVX_E_NOT_FOUND);
}

TEST(Execute, SendsTheTypeWithRequestAndTakesTheAnswer) {
    RawServer server(httpAnswer(R"(<KVX MSGTYPE="TResponse" STATE="fine"/>)"));
    AccountDir const account;
    account.setAddress(urlOfServer(server));
    FactoryHandle const factory(account.path());
    MadeMessage request;
    ASSERT_EQ(MessageFactory_CreateRequest(factory.get(), "T", request.out()), KVX_OK);
    MadeMessage answer;
    ASSERT_EQ(MessageObject_Execute(request.get(), answer.out()), KVX_OK);
    EXPECT_EQ(textOf(answer.get()), R"(<KVX MSGTYPE="TResponse" STATE="fine"/>)");
    EXPECT_EQ(attribute(request.get(), "MSGTYPE"), "TRequest");
    EXPECT_EQ(server.records().at(0).find("GET /capture?DATA=%3cKVX%20MSGTYPE%3d%22TRequest%22"), 0U);
}

TEST(Execute, KeepsTheChangedTypeForTheNextTime) {
    RawServer const server(httpAnswer(R"(<KVX MSGTYPE="TResponse"/>)"));
    AccountDir const account;
    account.setAddress(urlOfServer(server));
    FactoryHandle const factory(account.path());
    MadeMessage request;
    ASSERT_EQ(MessageFactory_CreateRequest(factory.get(), "T", request.out()), KVX_OK);
    MadeMessage answer;
    ASSERT_EQ(MessageObject_Execute(request.get(), answer.out()), KVX_OK);
    Outputs outputs;
    EXPECT_EQ(MessageObject_Execute(request.get(), &outputs.m_Out), KVX_E_WRONG_RESPONSE);
    EXPECT_EQ(attribute(request.get(), "MSGTYPE"), "TRequestRequest");
    outputs.expectUntouched("the second time");
}

TEST(Execute, GivesTheAnswerTheContextOfTheRequestButNoKey) {
    RawServer const server(httpAnswer(R"(<KVX MSGTYPE="TResponse" TOKEN="t" KEYID="own"/>)"));
    AccountDir const account;
    account.setAddress(urlOfServer(server));
    FactoryHandle const factory(account.path());
    MadeMessage request;
    ASSERT_EQ(MessageFactory_CreateRequest(factory.get(), "T", request.out()), KVX_OK);
    MadeMessage answer;
    ASSERT_EQ(MessageObject_Execute(request.get(), answer.out()), KVX_OK);
    DestroyMessageObject(request.get());
    // It finds the address in the directory, so it has the path; it cannot sign, so it has no key.
    EXPECT_EQ(MessageObject_Capture(answer.get()), KVX_E_NOT_FOUND);
    account.write("config.xml", "<KVX/>");
    EXPECT_EQ(MessageObject_Capture(answer.get()), KVX_E_NO_CONFIGURATION);
    ASSERT_EQ(MessageObject_FromString(answer.get(), "<KVX A=\"1\"/>"), KVX_OK);
    EXPECT_EQ(attribute(answer.get(), "KEYID"), "");
}

TEST(Execute, LeavesNothingBehindWhenItFails) {
    RawServer const server(httpAnswer(R"(<KVX MSGTYPE="Error" MESSAGE="no"/>)"));
    AccountDir const account;
    account.setAddress(urlOfServer(server));
    KVXCIMPL_MessageFactory factory;
    factory.Open(stringOf(account.path()));
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
