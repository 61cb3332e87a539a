// Different contexts on one directory, used by different threads at once.
//
// Each thread has its own context and signs, verifies or replaces files in a loop; the results must be those of a
// single thread.

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "foundation/tbstring.h"
#include "tests/core/coresupport.h"
#include "tests/support/encodings.h"
#include "tests/support/exceptions.h"
#include "tests/support/tbtext.h"
#include "tests/support/testdata.h"

using namespace kvxtest;

namespace {

/// Runs `work` on two threads at once, with the number of the thread.
void onTwoThreads(std::function<void(int)> const& work) {
    std::thread first(work, 0);
    std::thread second(work, 1);
    first.join();
    second.join();
}

TEST(TwoThreads, MakeAndVerifyMessagesOfOneAccount) {
    Account account;
    account.writeOwnKey("own");
    account.writeServerKey("server");
    account.write("keys/current", "own");
    account.write("config.xml", "<KVX VTURL=\"https://pay.example/page\"/>");
    std::string const data = dataText("signing/confirm.txt");
    std::string const signature = dataHex("signing/confirm.signature.hex");
    onTwoThreads([&](int) {
        KVX_Context context;
        context.Open(account.path());
        for (int i = 0; i < 50; ++i) {
            KVX_Message message;
            message.Create(&context, "PayInit");
            message.SetAttribute("TOKEN", context.CreateUuid());
            message.SetAttribute("EXPIRATION", GetTimeDate(60));
            TbString url;
            message.GetURL(url);
            EXPECT_EQ(queryValue(bytesOf(url), "SIGNATURE").size(), 128U);
            KVX_Message confirmation;
            confirmation.Open(&context, data.c_str(), signature.c_str());
            TbString value;
            EXPECT_EQ(thrownCode([&] { confirmation.GetAttribute("NONE", value); }), KVX_E_NOT_FOUND);
        }
    });
}

TEST(TwoThreads, ReplaceOneFileWholeEachTime) {
    Account account;
    std::string const contents[] = {std::string(5000, 'a'), std::string(9000, 'b')};
    account.write("config.xml", contents[0]);
    onTwoThreads([&](int number) {
        KVX_Context context;
        context.Open(account.path());
        for (int i = 0; i < 100; ++i) {
            context.UpdateFile("config.xml", contents[number].c_str());
            TbString value;
            EXPECT_TRUE(context.QueryValue("config.xml", "", value));
            std::string const bytes = bytesOf(value);
            EXPECT_TRUE(bytes == contents[0] || bytes == contents[1]) << bytes.size();
        }
    });
    EXPECT_FALSE(account.hasTemporaryFile());
}

TEST(TwoThreads, ReadWhileTheOtherWrites) {
    Account account;
    account.write("config.xml", "<KVX A=\"0\"/>");
    onTwoThreads([&](int number) {
        KVX_Context context;
        context.Open(account.path());
        for (int i = 0; i < 100; ++i) {
            if (number == 0) {
                context.SetValue("config.xml", "A", std::string(static_cast<std::size_t>(i) + 1, 'x').c_str(), false);
            } else {
                TbString value;
                EXPECT_TRUE(context.QueryValue("config.xml", "A", value));
                EXPECT_FALSE(value.isEmpty());
            }
        }
    });
    EXPECT_EQ(account.read("config.xml"), "<KVX A=\"" + std::string(100, 'x') + "\"/>");
    EXPECT_FALSE(account.hasTemporaryFile());
}

TEST(TwoThreads, TalkToTheServerAtOnce) {
    ExchangeServer server({"<KVX MSGTYPE=\"LoadDefaultsResponse\"/>"});
    std::string const url = server.url("/auto");
    Account account;
    onTwoThreads([&](int) {
        KVX_Context context;
        context.Open(account.path());
        context.SetOption("VTAUTOURL", url.c_str());
        for (int i = 0; i < 20; ++i) {
            context.LoadDefaults();
        }
    });
    EXPECT_EQ(server.requests().size(), 40U);
    EXPECT_EQ(account.read("default.xml"), "<KVX MSGTYPE=\"LoadDefaultsResponse\"/>");
}

}  // namespace
