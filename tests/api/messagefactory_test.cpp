// MessageFactory: the four creating functions, their codes, and the messages they make.
//
// Texts of messages are compared as a whole, with a fixed time of day for expirations. Odd: opening a factory reads
// nothing; verifying accepts every type and every key of the directory.

#include "api/cMessageFactory.h"

#include <cstring>
#include <filesystem>

#include "foundation/tbobject.h"
#include "tests/api/apisupport.h"
#include "tests/support/allocations.h"
#include "tests/support/exceptions.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"
#include "tests/support/tracerecorder.h"

using namespace kvxtest;

namespace {

/// 2024-01-31 23:59:07 UTC.
constexpr std::time_t kNow = 1706745547;

std::string payInitText(std::string const& token, std::string const& rest) {
    return "<KVX MSGTYPE=\"PayInit\" KEYID=\"own\" TOKEN=\"" + token + "\"" + rest + "/>";
}

/// The codes that the four creating functions end with, and that they write no handle then.
void expectAllFail(KVX_HANDLE factory, std::int32_t code) {
    Outputs outputs;
    EXPECT_EQ(MessageFactory_CreatePayInit(factory, &outputs.m_Out), code);
    EXPECT_EQ(MessageFactory_VerifyPayConfirm(factory, kConfirmation, "00", &outputs.m_Out), code);
    EXPECT_EQ(MessageFactory_CreatePayComplete(factory, "i", "t", &outputs.m_Out), code);
    EXPECT_EQ(MessageFactory_CreateRequest(factory, "T", &outputs.m_Out), code);
    outputs.expectUntouched("failing calls");
}

class MessageFactory : public AccountTest {};
class PayInit : public AccountTest {};
class PayComplete : public AccountTest {};
class CreateRequest : public AccountTest {};
class VerifyPayConfirm : public AccountTest {};
class FactoryCalls : public AccountTest {};

TEST_F(MessageFactory, OpenReadsNothing) {
    TemporaryDirectory const dir;
    FactoryHandle const factory;
    TraceRecorder const trace;
    EXPECT_EQ(MessageFactory_Open(factory.get(), dir.file("no/such/place").c_str()), KVX_OK);
    EXPECT_EQ(MessageFactory_Open(factory.get(), dir.file("shop").c_str()), KVX_OK);
    EXPECT_TRUE(trace.records().empty());
    EXPECT_FALSE(dir.exists("shop"));
}

TEST_F(MessageFactory, ReportsAWrongPathAtTheFirstCreatingCall) {
    TemporaryDirectory const dir;
    expectAllFail(FactoryHandle(dir.file("no/such/place")).get(), ENOENT);
    dir.write("file", "x");
    expectAllFail(FactoryHandle(dir.file("file")).get(), EEXIST);
}

TEST_F(MessageFactory, KeepsCreatingTheLastDirectoryOfAWrongPath) {
    TemporaryDirectory const dir;
    FactoryHandle const factory(dir.file("shop"));
    Outputs outputs;
    EXPECT_EQ(MessageFactory_CreatePayInit(factory.get(), &outputs.m_Out), KVX_E_CANNOT_OPEN);
    EXPECT_TRUE(dir.exists("shop"));
    outputs.expectUntouched("no current key");
}

TEST_F(MessageFactory, WorksInTheCurrentDirectoryWithoutAPath) {
    WorkingDirectory const here(m_Account.path());
    FactoryHandle const unopened;
    FactoryHandle const empty("");
    for (KVX_HANDLE const factory : {unopened.get(), empty.get()}) {
        MadeMessage message;
        EXPECT_EQ(MessageFactory_CreatePayInit(factory, message.out()), KVX_OK);
    }
    FactoryHandle const null;
    EXPECT_EQ(MessageFactory_Open(null.get(), nullptr), KVX_OK);
    MadeMessage message;
    EXPECT_EQ(MessageFactory_CreatePayInit(null.get(), message.out()), KVX_OK);
}

TEST_F(MessageFactory, ReadsTheDirectoryAnewAtEveryCall) {
    MadeMessage const first = request();
    m_Account.write("keys/current", "server");
    MadeMessage const second = request();
    EXPECT_EQ(attribute(first.get(), "KEYID"), "own");
    EXPECT_EQ(attribute(second.get(), "KEYID"), "server");
}

TEST_F(MessageFactory, MakesMessagesThatOutliveIt) {
    MadeMessage message;
    {
        FactoryHandle const factory(m_Account.path());
        ASSERT_EQ(MessageFactory_CreateRequest(factory.get(), "T", message.out()), KVX_OK);
    }
    EXPECT_EQ(textOf(message.get()), R"(<KVX MSGTYPE="T" KEYID="own"/>)");
    EXPECT_EQ(urlOf(message.get()).find("http://127.0.0.1:1/pay?DATA="), 0U);
}

TEST_F(MessageFactory, CanBeOpenedAgainOnAnotherDirectory) {
    AccountDirectory const other;
    other.write("keys/current", "server");
    ASSERT_EQ(MessageFactory_Open(m_Factory.get(), other.path().c_str()), KVX_OK);
    MadeMessage const message = request();
    EXPECT_EQ(attribute(message.get(), "KEYID"), "server");
}

TEST_F(PayInit, HoldsItsAttributesInTheOrderInWhichTheyAreSet) {
    m_Account.setDefaults(
        R"( FAILLINK="http://s/f?a=1&amp;b=2" BACKLINK="http://s/b" DEFAULTVALIDITY="7")"
        R"( NOTIFYADDRESS="n@s" SUCCESSLINK="http://s/s" LANGID="de" DELIVERY="no" ALLOWCOLLECT="yes")"
        R"( PAYINITTTL="60" OTHER="not copied")");
    FixedTime const time(kNow);
    MadeMessage const message = payInit();
    EXPECT_EQ(textOf(message.get()),
              payInitText(attribute(message.get(), "TOKEN"),
                          R"( ALLOWCOLLECT="yes" DELIVERY="no" LANGID="de" SUCCESSLINK="http://s/s")"
                          R"( NOTIFYADDRESS="n@s" DEFAULTVALIDITY="7" BACKLINK="http://s/b")"
                          R"( FAILLINK="http://s/f?a=1&amp;b=2" EXPIRATION="20240201 00:00:07")"));
}

TEST_F(PayInit, CopiesTheDefaultsThatAreThereAlsoEmptyOnes) {
    m_Account.setDefaults(R"( LANGID="" BACKLINK="b")");
    FixedTime const time(kNow);
    MadeMessage const message = payInit();
    EXPECT_EQ(textOf(message.get()), payInitText(attribute(message.get(), "TOKEN"),
                                                 R"( LANGID="" BACKLINK="b" EXPIRATION="20240201 23:59:07")"));
}

TEST_F(PayInit, TakesNothingButItsEightNamesFromTheDefaults) {
    m_Account.setDefaults(R"( TOKEN="same for all" KEYID="other" MSGTYPE="Other" AMOUNT="1" EXPIRATION="never")");
    MadeMessage const payment = payInit();
    EXPECT_EQ(attribute(payment.get(), "TOKEN").size(), 32U) << "every payment has a token of its own";
    EXPECT_EQ(attribute(payment.get(), "KEYID"), "own");
    EXPECT_EQ(attribute(payment.get(), "MSGTYPE"), "PayInit");
    EXPECT_EQ(attribute(payment.get(), "EXPIRATION").size(), 17U);
    EXPECT_EQ(textOf(payment.get()).find("AMOUNT"), std::string::npos);
}

TEST_F(PayInit, GoesWithoutDefaultsWhenThereIsNoFile) {
    ASSERT_FALSE(m_Account.exists("default.xml"));
    FixedTime const time(kNow);
    MadeMessage const message = payInit();
    EXPECT_EQ(textOf(message.get()),
              payInitText(attribute(message.get(), "TOKEN"), R"( EXPIRATION="20240201 23:59:07")"))
        << "86400 seconds ahead";
}

TEST_F(PayInit, FailsOnMalformedDefaults) {
    for (char const* const text : {"<KVX", "", "<OTHER/>", "<KVX A=\"1\">"}) {
        m_Account.write("default.xml", text);
        Outputs outputs;
        EXPECT_EQ(MessageFactory_CreatePayInit(m_Factory.get(), &outputs.m_Out), KVX_E_INVALID_FORMAT) << text;
        outputs.expectUntouched(text);
    }
}

TEST_F(PayInit, ReadsItsLifetimeAsADecimalNumberOfSeconds) {
    struct Row {
        char const* m_Ttl;
        char const* m_Expiration;
    };
    // clang-format off
    Row const rows[] = {
        {"0",        "20240131 23:59:07"},
        {"1",        "20240131 23:59:08"},
        {"-1",       "20240131 23:59:06"},
        {"3600",     "20240201 00:59:07"},
        {" 60",      "20240201 00:00:07"},
        {"60 ",      "20240201 00:00:07"},
        {"60abc",    "20240201 00:00:07"},
        {"0.9",      "20240131 23:59:07"},   // only whole seconds count
        {"-0.9",     "20240131 23:59:07"},
        {"59.999",   "20240201 00:00:06"},
        {"1e3",      "20240201 00:15:47"},
        {"0x10",     "20240131 23:59:23"},
        {"abc",      "20240131 23:59:07"},   // no number is 0
        {" ",        "20240131 23:59:07"},
        {"inf",      "20240131 23:59:07"},   // a value that is not finite is 0
        {"-inf",     "20240131 23:59:07"},
        {"nan",      "20240131 23:59:07"},
        {"1e30",     "99991231 23:59:59"},   // the calendar's ends
        {"-1e30",    "00000101 00:00:00"},
        {"",         "20240201 23:59:07"},   // an empty value is a missing one
    };
    // clang-format on
    FixedTime const time(kNow);
    for (Row const& row : rows) {
        m_Account.setDefaults(std::string(" PAYINITTTL=\"") + row.m_Ttl + "\"");
        MadeMessage const message = payInit();
        EXPECT_EQ(attribute(message.get(), "EXPIRATION"), row.m_Expiration) << "'" << row.m_Ttl << "'";
    }
}

TEST_F(PayInit, HasAFreshTokenOf32HexadecimalDigits) {
    std::set<std::string> tokens;
    for (int i = 0; i < 50; ++i) {
        MadeMessage const message = payInit();
        std::string const token = attribute(message.get(), "TOKEN");
        EXPECT_EQ(token.size(), 32U);
        EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos) << token;
        tokens.insert(token);
    }
    EXPECT_EQ(tokens.size(), 50U);
}

TEST_F(PayInit, OpensTheAccountFirstAndThenTheMessage) {
    KVXCIMPL_MessageFactory factory;
    factory.Open(stringOf(m_Account.path()));
    TraceRecorder const trace;
    OwnedMessage const message(factory.CreatePayInit());
    auto const opened = trace.of("OPEN CONTEXT");
    ASSERT_EQ(opened.size(), 2U);
    for (auto const& record : opened) {
        EXPECT_EQ(record.m_Detail, m_Account.path());
        EXPECT_EQ(record.m_File, "kvxctx");
        EXPECT_EQ(record.m_Line, 23);
    }
}

// Programs read these records, so their number is fixed, also where one step has two of them.
TEST_F(PayInit, HasItsTraceRecords) {
    constexpr char kNoFile[] = "kvxurl:41:80040219:EXCEPTION:ErrorCode = 0x80040219";
    std::string const opened = "kvxctx:23:0:OPEN CONTEXT:" + m_Account.path();
    using Lines = std::vector<std::string>;
    KVXCIMPL_MessageFactory factory;
    factory.Open(stringOf(m_Account.path()));
    auto const linesOfAPayment = [&] {
        TraceRecorder const trace;
        OwnedMessage const message(factory.CreatePayInit());
        return linesOf(trace.records());
    };
    m_Account.setDefaults(R"( LANGID="de")");
    EXPECT_EQ(linesOfAPayment(), (Lines{opened, opened}));
    m_Account.write("settings.xml", "damaged");
    Lines const damaged = linesOfAPayment();
    ASSERT_EQ(damaged.size(), 4U);
    EXPECT_EQ(Lines(damaged.begin(), damaged.begin() + 2), (Lines{opened, opened}));
    EXPECT_EQ(damaged[2].find("kvxctx:"), 0U) << damaged[2];
    EXPECT_NE(damaged[2].find("(settings.xml)"), std::string::npos) << damaged[2];
    EXPECT_EQ(damaged[3], damaged[2]);
    std::filesystem::remove(m_Account.file("default.xml"));
    EXPECT_EQ(linesOfAPayment(), (Lines{opened, opened, kNoFile, kNoFile}));
    m_Account.write("default.xml", "damaged");
    EXPECT_THROW((void)factory.CreatePayInit(), KVX_Exception);
    std::filesystem::remove(m_Account.file("settings.xml"));
    TraceRecorder const trace;
    EXPECT_THROW((void)factory.CreatePayInit(), KVX_Exception);
    EXPECT_EQ(trace.of("EXCEPTION").size(), 1U);
}

TEST_F(PayInit, HasAUrlWithItsTextAndSignature) {
    MadeMessage const message = payInit();
    ASSERT_EQ(MessageObject_SetAttribute(message.get(), "AMOUNT", "12.50 & more"), KVX_OK);
    KVX_Context context;
    std::string const text = textOf(message.get());
    EXPECT_EQ(urlOf(message.get()), "http://127.0.0.1:1/pay?DATA=" + bytesOf(context.Encode(stringOf(text))) +
                                        "&SIGNATURE=" + m_Account.sign(text, "own"));
}

TEST_F(PayComplete, HoldsIdAndTokenInThisOrder) {
    MadeMessage message;
    ASSERT_EQ(MessageFactory_CreatePayComplete(m_Factory.get(), "P1", "t<1>", message.out()), KVX_OK);
    EXPECT_EQ(textOf(message.get()), "<KVX MSGTYPE=\"PayComplete\" KEYID=\"own\" CONFIGPATH=\"" + m_Account.path() +
                                         "\" ID=\"P1\" TOKEN=\"t&lt;1&gt;\"/>");
    MadeMessage null;
    ASSERT_EQ(MessageFactory_CreatePayComplete(m_Factory.get(), nullptr, nullptr, null.out()), KVX_OK);
    EXPECT_EQ(attribute(null.get(), "ID"), "");
    EXPECT_EQ(attribute(null.get(), "TOKEN"), "");
}

TEST_F(CreateRequest, TakesAnyType) {
    for (char const* const type : {"Status", "PayInit", "a b", "<&>", "\xc3\xa9"}) {
        MadeMessage const message = request(type);
        EXPECT_EQ(attribute(message.get(), "MSGTYPE"), type);
    }
    MadeMessage const complete = request("PayComplete");
    EXPECT_EQ(attribute(complete.get(), "CONFIGPATH"), m_Account.path());
}

TEST_F(CreateRequest, RefusesNoTypeBeforeAnythingIsDone) {
    TemporaryDirectory const dir;
    FactoryHandle const factory(dir.file("shop"));
    for (char const* const type : {"", static_cast<char const*>(nullptr)}) {
        Outputs outputs;
        TraceRecorder const trace;
        EXPECT_EQ(MessageFactory_CreateRequest(factory.get(), type, &outputs.m_Out), KVX_E_NO_MESSAGE_TYPE);
        outputs.expectUntouched("no type");
        ASSERT_EQ(trace.records().size(), 1U) << "the refusal itself";
        EXPECT_EQ(trace.records()[0].m_Event, "EXCEPTION");
    }
    EXPECT_FALSE(dir.exists("shop"));
    KVXCIMPL_MessageFactory object;
    Thrown const failure = thrown([&] { (void)object.CreateRequest(""); });
    EXPECT_EQ(failure.m_Code, KVX_E_NO_MESSAGE_TYPE);
    EXPECT_EQ(failure.m_Text, "ErrorCode = 0x80040218");
    EXPECT_EQ(failure.m_File, "cMessageFactory");
    EXPECT_EQ(failure.m_Line, 121);
}

TEST_F(CreateRequest, KeepsOpeningASecondContext) {
    KVXCIMPL_MessageFactory factory;
    factory.Open(stringOf(m_Account.path()));
    {
        TraceRecorder const trace;
        OwnedMessage const message(factory.CreateRequest("T"));
        EXPECT_EQ(trace.of("OPEN CONTEXT").size(), 2U);
    }
    {
        TraceRecorder const trace;
        OwnedMessage const message(factory.CreatePayComplete("i", "t"));
        EXPECT_EQ(trace.of("OPEN CONTEXT").size(), 1U);
    }
}

TEST_F(VerifyPayConfirm, AcceptsWhatTheServersKeySigned) {
    MadeMessage const message = confirmation();
    EXPECT_EQ(attribute(message.get(), "MSGTYPE"), "PayConfirm");
    EXPECT_EQ(attribute(message.get(), "TOKEN"), "t1");
    EXPECT_EQ(attribute(message.get(), "AMOUNT"), "12.50");
    EXPECT_EQ(attribute(message.get(), "CONFIGPATH"), m_Account.path());
}

TEST_F(VerifyPayConfirm, TellsItsFailuresApart) {
    m_Account.write("keys/public/broken", "this is no key");
    std::string const good = m_Account.sign(kConfirmation);
    struct Row {
        char const* m_What;
        char const* m_Data;
        char const* m_Signature;
        std::int32_t m_Code;
    };
    // clang-format off
    Row const rows[] = {
        {"nothing at all",             nullptr,                          nullptr,        KVX_E_INVALID_FORMAT},
        {"no message",                 "hello",                          good.c_str(),   KVX_E_INVALID_FORMAT},
        {"no message nor signature",   "hello",                          "",             KVX_E_INVALID_FORMAT},
        {"another root",               "<X KEYID=\"server\"/>",          good.c_str(),   KVX_E_INVALID_FORMAT},
        {"no signature",               kConfirmation,                    "",             KVX_E_MISSING_SIGNATURE},
        {"null signature",             kConfirmation,                    nullptr,        KVX_E_MISSING_SIGNATURE},
        {"no key nor signature",       "<KVX/>",                         "",             KVX_E_MISSING_SIGNATURE},
        {"no key",                     "<KVX MSGTYPE=\"PayConfirm\"/>",  good.c_str(),   KVX_E_NO_KEY_ID},
        {"an empty key",               "<KVX KEYID=\"\"/>",              good.c_str(),   KVX_E_NOT_FOUND},
        {"an unknown key",             "<KVX KEYID=\"nobody\"/>",        good.c_str(),   KVX_E_NOT_FOUND},
        {"a key outside",              "<KVX KEYID=\"../public/own\"/>", good.c_str(),   KVX_E_NOT_FOUND},
        {"a broken key",               "<KVX KEYID=\"broken\"/>",        good.c_str(),   KVX_E_INVALID_KEY},
        {"a signature that is no hex", kConfirmation,                    "hello",        KVX_E_INVALID_KEY},
        {"another signature",          kConfirmation,                    "00",           KVX_E_INVALID_SIGNATURE},
        {"another text",               "<KVX KEYID=\"server\"/>",        good.c_str(),   KVX_E_INVALID_SIGNATURE},
    };
    // clang-format on
    for (Row const& row : rows) {
        Outputs outputs;
        EXPECT_EQ(MessageFactory_VerifyPayConfirm(m_Factory.get(), row.m_Data, row.m_Signature, &outputs.m_Out),
                  row.m_Code)
            << row.m_What;
        outputs.expectUntouched(row.m_What);
    }
}

/// Replaces a text of the caller when the public key is opened: after the message has been read, before it is verified.
class ChangedMeanwhile {
public:
    ChangedMeanwhile(std::string& text, std::string const& later) {
        s_Text = &text;
        s_Later = &later;
        m_Calls->open = [](char const* path, int flags, mode_t mode) {
            if (std::strstr(path, "/keys/public/") != nullptr) {
                s_Text->replace(0, s_Text->size(), *s_Later);
            }
            return TbSystemCalls::openFile(path, flags, mode);
        };
    }

private:
    static inline std::string* s_Text = nullptr;
    static inline std::string const* s_Later = nullptr;

    SystemCalls m_Calls;
};

TEST_F(VerifyPayConfirm, VerifiesWhatItHasRead) {
    std::string const genuine = R"(<KVX MSGTYPE="PayConfirm" KEYID="server" AMOUNT="9"/>)";
    std::string const signature = m_Account.sign(genuine);
    std::string text = R"(<KVX MSGTYPE="PayConfirm" KEYID="server" AMOUNT="1"/>)";
    ChangedMeanwhile const changed(text, genuine);
    Outputs outputs;
    EXPECT_EQ(MessageFactory_VerifyPayConfirm(m_Factory.get(), text.c_str(), signature.c_str(), &outputs.m_Out),
              KVX_E_INVALID_SIGNATURE);
    EXPECT_EQ(text, genuine) << "it was replaced in time";
}

TEST_F(VerifyPayConfirm, KeepsAcceptingEveryTypeAndEveryKeyOfTheDirectory) {
    std::string const text = R"(<KVX MSGTYPE="PayInit" KEYID="own" TOKEN="t1"/>)";
    MadeMessage const message = confirmation(text, "own");
    EXPECT_EQ(textOf(message.get()), text) << "nothing is added to another type";
}

TEST_F(FactoryCalls, LeaveNothingBehindWhenTheyFail) {
    m_Account.write("default.xml", "malformed");
    TemporaryDirectory const empty;
    KVXCIMPL_MessageFactory good;
    good.Open(stringOf(m_Account.path()));
    KVXCIMPL_MessageFactory bad;
    bad.Open(stringOf(empty.path()));
    TbString const type("T");
    std::int32_t const living = TbRefCounter::m_nTotalRef;
    expectNoSlotIsLost(50, [&] {
        EXPECT_EQ(thrownCode([&] { (void)good.CreatePayInit(); }), KVX_E_INVALID_FORMAT);
        EXPECT_EQ(thrownCode([&] { (void)bad.CreatePayInit(); }), KVX_E_CANNOT_OPEN);
        EXPECT_EQ(thrownCode([&] { (void)bad.CreateRequest(type); }), KVX_E_CANNOT_OPEN);
        EXPECT_EQ(thrownCode([&] { (void)bad.CreatePayComplete(type, type); }), KVX_E_CANNOT_OPEN);
        EXPECT_EQ(thrownCode([&] { (void)good.VerifyPayConfirm(kConfirmation, "00"); }), KVX_E_INVALID_SIGNATURE);
    });
    EXPECT_EQ(TbRefCounter::m_nTotalRef, living);
}

TEST_F(FactoryCalls, SurviveEveryFailingAllocation) {
    m_Account.setDefaults(R"( LANGID="de" PAYINITTTL="60")");
    KVXCIMPL_MessageFactory factory;
    factory.Open(stringOf(m_Account.path() + std::string(64, '/')));  // longer than an object has room for
    TbString const data(kConfirmation);
    TbString const signature = stringOf(m_Account.sign(kConfirmation));
    expectNoSlotIsLost(1, [&] {
        EXPECT_GT(survivesEveryFailingAllocation([&] { OwnedMessage const made(factory.CreatePayInit()); }), 3);
        EXPECT_GT(survivesEveryFailingAllocation([&] { OwnedMessage const made(factory.CreateRequest(data)); }), 2);
        EXPECT_GT(
            survivesEveryFailingAllocation([&] { OwnedMessage const made(factory.CreatePayComplete(data, data)); }), 1);
        EXPECT_GT(
            survivesEveryFailingAllocation([&] { OwnedMessage const made(factory.VerifyPayConfirm(data, signature)); }),
            3);
    });
}

}  // namespace
