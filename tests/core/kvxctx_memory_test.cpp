// Every allocation fails in turn, in every operation of the core.
//
// Each run must end in the code for missing memory or succeed, and leave no object and no temporary file behind.
// fsync() is left out to save time.

#include <filesystem>
#include <functional>
#include <string>

#include "core/kvxbase.h"
#include "foundation/tbstring.h"
#include "tests/core/coresupport.h"
#include "tests/support/allocations.h"
#include "tests/support/systemcalls.h"
#include "tests/support/testdata.h"

using namespace kvxtest;

namespace {

struct QuickMerchant : Merchant {
    QuickMerchant() : Merchant(R"(<KVX VTURL="https://pay.example/page" VERSION="1"/>)") {}

    WithoutSync m_Quick;
};

/// Fails each allocation of `call` in turn; there must be some.
void failsCleanly(std::function<void()> const& call) {
    long const runs = survivesEveryFailingAllocation(call);
    EXPECT_GT(runs, 3);
    testing::Test::RecordProperty("allocations", std::to_string(runs));
}

TEST(ExhaustedMemory, FailsOpeningAContextCleanly) {
    TemporaryDirectory dir;
    failsCleanly([&] {
        KVX_Context context;
        context.Open(dir.path().c_str());
        KVX_Context copy(context);
        copy.SetOption("UserName", "u");
        context = copy;
    });
}

TEST(ExhaustedMemory, FailsAnExceptionCleanly) {
    failsCleanly([] {
        KVX_Exception const failure(KVX_E_FILE_IO, "detail", "kvxctx", 1);
        KVX_Exception const copy(failure);
    });
}

TEST(ExhaustedMemory, LeavesAFileWholeWhenSettingAValue) {
    QuickMerchant account;
    std::string const before = account.read("config.xml");
    failsCleanly([&] {
        account.m_Context.SetValue("config.xml", "A", "a longer value than the string keeps in reserve, or so it seems",
                                   true);
        std::string const after = account.read("config.xml");
        EXPECT_EQ(after.substr(0, 10), before.substr(0, 10));
        EXPECT_EQ(after.substr(after.size() - 2), "/>");
    });
    EXPECT_FALSE(account.hasTemporaryFile());
}

TEST(ExhaustedMemory, FailsReplacingWhatIsNoDocumentCleanly) {
    QuickMerchant account;
    failsCleanly([&] {
        account.write("config.xml", "");
        account.m_Context.SetValue("config.xml", "A", "1", true);
    });
    EXPECT_EQ(account.read("config.xml"), "<KVX A=\"1\"/>");
}

TEST(ExhaustedMemory, FailsLookingValuesUpCleanly) {
    QuickMerchant account;
    failsCleanly([&] {
        TbString value;
        EXPECT_TRUE(account.m_Context.QueryValue("config.xml", "VTURL", value));
        EXPECT_FALSE(account.m_Context.QueryValueOrAbsent("missing.xml", "VTURL", value));
        unsigned char byte = 0;
        unsigned long size = 1;
        EXPECT_TRUE(account.m_Context.QueryValue("config.xml", &byte, &size));
    });
}

TEST(ExhaustedMemory, FailsConversionsCleanly) {
    failsCleanly([] {
        KVX_Context context;
        unsigned char bytes[100] = {};
        unsigned long size = sizeof bytes;
        TbString const hex = context.BufferToHex(bytes, sizeof bytes);
        EXPECT_EQ(context.HexToBuffer(hex, bytes, &size), KVX_OK);
        EXPECT_EQ(context.Encode("a b/c").length(), 9U);
        EXPECT_EQ(context.CreateUuid().length(), 32U);
        EXPECT_EQ(GetTimeDate(0).length(), 17U);
    });
}

TEST(ExhaustedMemory, FailsSigningAndVerifyingCleanly) {
    QuickMerchant account;
    failsCleanly([&] {
        TbString signature;
        account.m_Context.SignData("some text", "own", signature);
        account.m_Context.VerifyData("some text", "own", signature);
    });
}

TEST(ExhaustedMemory, LeavesWholeKeysOrNone) {
    QuickMerchant account;
    failsCleanly([&] {
        std::filesystem::remove(account.m_Dir.file("keys/public/new"));
        std::filesystem::remove(account.m_Dir.file("keys/private/new"));
        TbString keyId("new");
        account.m_Context.GenKey(keyId);
    });
    EXPECT_FALSE(account.hasTemporaryFile("keys/public"));
    EXPECT_FALSE(account.hasTemporaryFile("keys/private"));
}

TEST(ExhaustedMemory, FailsMakingAPaymentUrlCleanly) {
    QuickMerchant account;
    failsCleanly([&] {
        KVX_Message message;
        message.Create(&account.m_Context, "PayComplete");
        message.SetAttribute("AMOUNT", "12.50");
        TbString url;
        message.GetURL(url);
        TbString text;
        EXPECT_TRUE(message.ToString(text));
        message.FromString(text);
    });
}

TEST(ExhaustedMemory, FailsOpeningAConfirmationCleanly) {
    QuickMerchant account;
    std::string const data = dataText("signing/confirm.txt");
    std::string const signature = dataHex("signing/confirm.signature.hex");
    failsCleanly([&] {
        KVX_Message message;
        message.Open(&account.m_Context, data.c_str(), signature.c_str());
    });
}

TEST(ExhaustedMemory, FailsASetupCleanly) {
    ExchangeServer server({"<KVX MSGTYPE=\"SetupResponse\" VERSION=\"2\"/>"});
    QuickMerchant account;
    account.write("settings.xml", "<KVX TRACEOPT=\"none\"/>");
    std::string const url = server.url("/auto");
    failsCleanly([&] {
        account.m_Context.SetOption("VTAUTOURL", url.c_str());
        account.m_Context.Setup();
    });
    EXPECT_FALSE(account.hasTemporaryFile());
    EXPECT_EQ(account.read("config.xml"), "<KVX MSGTYPE=\"SetupResponse\" VERSION=\"2\"/>");
}

TEST(ExhaustedMemory, FailsPublishingAndImportingCleanly) {
    QuickMerchant account;
    ExchangeServer exported({"<KVX MSGTYPE=\"KeyExportResponse\"/>"});
    ExchangeServer queried({"<KVX MSGTYPE=\"KeyQueryResponse\" KEYID=\"vt\" KEYBLOB=\"00\"/>"});
    std::string const exportUrl = exported.url("/auto");
    std::string const queryUrl = queried.url("/auto");
    failsCleanly([&] {
        TbString own("own");
        TbString imported("vt");
        account.m_Context.SetOption("VTAUTOURL", exportUrl.c_str());
        account.m_Context.PublishKey(own);
        account.m_Context.SetOption("VTAUTOURL", queryUrl.c_str());
        account.m_Context.ImportKey(imported);
    });
    EXPECT_EQ(account.read("keys/current"), "own");
    EXPECT_EQ(account.read("keys/public/vt"), "00");
}

}  // namespace
