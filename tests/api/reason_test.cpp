// KVX_GetLastErrorText: what a failure of the flat functions leaves behind for people.
//
// tests/c/reasons_test.c holds what a developer meets first, on a real system; here are the failures of the system, of
// memory and of a hostile service, and what must not stand in a reason.

#include <malloc.h>

#include <cstring>
#include <thread>

#include "core/kvxreason.h"
#include "tests/api/apisupport.h"
#include "tests/support/allocations.h"
#include "tests/support/rawserver.h"
#include "tests/support/systemcalls.h"

using namespace kvxtest;

namespace {

std::string reason() {
    return copiedOut([](std::int32_t* size, char* buffer) { return KVX_GetLastErrorText(size, buffer); });
}

std::int32_t failWithABadHandle() {
    return MessageFactory_Open(nullptr, "");
}

TEST(Reason, OfPlainFailuresComesFromTheCode) {
    EXPECT_EQ(failWithABadHandle(), KVX_E_BAD_HANDLE);
    EXPECT_EQ(reason(), "ErrorCode = 0x80040216: the handle is null, destroyed or of another kind");
    MessageHandle const message;
    EXPECT_EQ(MessageObject_FromString(message.get(), "<KVX A=\"1\"/>"), KVX_OK);
    std::int32_t size = 1;
    EXPECT_EQ(MessageObject_ToString(message.get(), &size, nullptr), KVX_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(reason(), "the buffer size is too small: the size is a null pointer, or less than the text needs");
}

TEST(Reason, BeginsWithTheTextOfTheException) {
    MessageHandle const message;
    ASSERT_EQ(MessageObject_FromString(message.get(), "<KVX A=\"1\"/>"), KVX_OK);
    std::int32_t size = 0;
    EXPECT_EQ(MessageObject_GetAttribute(message.get(), "B\n", &size, nullptr), KVX_E_NOT_FOUND);
    EXPECT_EQ(reason(), "requested item was not found: the message has no attribute \"B?\"");
    EXPECT_EQ(MessageObject_FromString(message.get(), "<KVX"), KVX_E_INVALID_FORMAT);
    EXPECT_EQ(reason(), "invalid file format: the text of 4 bytes is no document: it breaks off");
    EXPECT_EQ(MessageObject_FromString(message.get(), " <!DOCTYPE html><html></html>"), KVX_E_INVALID_FORMAT);
    EXPECT_EQ(reason(), "invalid file format: the text is an HTML page");
    ::setenv("KVXDEBUG", "1", 1);
    EXPECT_EQ(MessageObject_FromString(message.get(), "<K/>"), KVX_E_INVALID_FORMAT);
    ::unsetenv("KVXDEBUG");
    EXPECT_EQ(
        reason(),
        "kvxctx(49) : error 80040204 : invalid file format: the text of 4 bytes is no document: it has no KVX element");
}

TEST(Reason, OfAnEarlierFailureDoesNotStick) {
    FactoryHandle const factory(std::string("/proc/no/such"));
    MadeMessage made;
    EXPECT_EQ(MessageFactory_CreatePayInit(factory.get(), made.out()), ENOENT);
    EXPECT_NE(reason().find("/proc/no/such"), std::string::npos);
    EXPECT_EQ(MessageFactory_CreateRequest(factory.get(), "", made.out()), KVX_E_NO_MESSAGE_TYPE);
    EXPECT_EQ(reason(), "ErrorCode = 0x80040218");
}

class ReasonTest : public AccountTest {};

TEST_F(ReasonTest, OfAFileHasItsPathAndTheSystemsWords) {
    struct Row {
        int m_Error;
        char const* m_Words;
    };
    static int error = 0;
    for (Row const& row : {Row{EACCES, "Permission denied"}, Row{EMFILE, "Too many open files"},
                           Row{EIO, "Input/output error"}, Row{ELOOP, "Too many levels of symbolic links"}}) {
        error = row.m_Error;
        SystemCalls calls;
        calls->open = [](char const* path, int flags, mode_t mode) {
            if (std::strstr(path, "keys/current") == nullptr) {
                return TbSystemCalls::openFile(path, flags, mode);
            }
            errno = error;
            return -1;
        };
        MadeMessage made;
        EXPECT_EQ(MessageFactory_CreateRequest(m_Factory.get(), "T", made.out()), KVX_E_CANNOT_OPEN);
        EXPECT_EQ(reason(),
                  "ErrorCode = 0x80040219 (keys/current): " + m_Account.path() + "/keys/current: " + row.m_Words);
    }
}

TEST_F(ReasonTest, OfAFileThatCannotBeReadSaysSo) {
    FailingReads const damaged(m_Account.path() + "/keys/current");
    MadeMessage made;
    EXPECT_EQ(MessageFactory_CreateRequest(m_Factory.get(), "T", made.out()), KVX_E_FILE_IO);
    EXPECT_EQ(reason(), "file I/O error (keys/current): " + m_Account.path() + "/keys/current: Input/output error");
}

TEST_F(ReasonTest, OfAReadOnlyFileSystemSaysSo) {
    SystemCalls calls;
    calls->access = [](char const*, int) {
        errno = EROFS;
        return -1;
    };
    SetupHandle const setup;
    ASSERT_EQ(ConfigurationSetup_SetConfiguration(setup.get(), m_Account.path().c_str()), KVX_OK);
    EXPECT_EQ(ConfigurationSetup_SetAttribute(setup.get(), "config.xml", "A", "1"), KVX_E_FILE_NOT_FOUND);
    EXPECT_EQ(reason(),
              "file not found: " + m_Account.path() + "/config.xml: cannot be written: Read-only file system");
}

TEST_F(ReasonTest, OfAFullDiskSaysSo) {
    SystemCalls calls;
    calls->write = [](int, void const*, std::size_t) -> ssize_t {
        errno = ENOSPC;
        return -1;
    };
    SetupHandle const setup;
    ASSERT_EQ(ConfigurationSetup_SetConfiguration(setup.get(), m_Account.path().c_str()), KVX_OK);
    EXPECT_EQ(ConfigurationSetup_SetAttribute(setup.get(), "config.xml", "A", "1"), KVX_E_FILE_IO);
    EXPECT_EQ(reason(),
              "file I/O error: " + m_Account.path() + "/config.xml: cannot be written: No space left on device");
}

TEST_F(ReasonTest, OfAForgedConfirmationNamesTheKey) {
    MadeMessage made;
    EXPECT_EQ(
        MessageFactory_VerifyPayConfirm(m_Factory.get(), kConfirmation, std::string(128, '0').c_str(), made.out()),
        KVX_E_INVALID_SIGNATURE);
    EXPECT_EQ(reason(), "invalid signature: " + m_Account.path() +
                            "/keys/public/server: the signature was not made over this text with this key");
    EXPECT_EQ(MessageFactory_VerifyPayConfirm(m_Factory.get(), R"(<KVX KEYID="../x"/>)", "00", made.out()),
              KVX_E_NOT_FOUND);
    EXPECT_EQ(reason(), "requested item was not found: the key id \"../x\" is no name of a file");
}

/// What a set-up with this answer of the service leaves as its reason.
std::string reasonAfter(std::string const& answer, char const* password, bool isRaw = false) {
    RawServer server([&](Peer& peer) {
        peer.receiveRequest();
        peer.send(isRaw ? answer : httpResponse(answer));
    });
    TemporaryDirectory const directory;
    SetupHandle const setup;
    EXPECT_EQ(ConfigurationSetup_SetConfiguration(setup.get(), directory.path().c_str()), KVX_OK);
    std::string const url = "http://127.0.0.1:" + std::to_string(server.port()) + "/";
    EXPECT_NE(ConfigurationSetup_Reconfigure(setup.get(), url.c_str(), "user", password), KVX_OK);
    std::string text = reason();
    std::string const address = "127.0.0.1:" + std::to_string(server.port());
    std::size_t const at = text.find(address);
    return at == std::string::npos ? text : text.replace(at, address.size(), "SERVER");
}

TEST(ReasonOfTheService, IsItsOwnText) {
    EXPECT_EQ(reasonAfter(R"(<KVX MSGTYPE="Error" MESSAGE="Account &amp; password"/>)", "secret"),
              "the request failed (Account & password): http://SERVER");
    EXPECT_EQ(reasonAfter(R"(<KVX MSGTYPE="Other"/>)", "secret"),
              "request failed (Response MSGTYPE: received 'Other', expected 'SetupResponse'): http://SERVER");
    EXPECT_EQ(reasonAfter("<html><body>Log in</body></html>", "secret"),
              "invalid file format: http://SERVER: the text is an HTML page");
    EXPECT_EQ(reasonAfter("HTTP/1.0 503 Down\tfor a while\r\n\r\n", "secret", true),
              "server temporarily unavailable: http://SERVER responded: HTTP/1.0 503 Down?for a while");
    EXPECT_EQ(reasonAfter("220 mail.example ESMTP\r\n", "secret", true).find("http://SERVER: the response is not HTTP"),
              reasonAfter("220 mail.example ESMTP\r\n", "secret", true).size() -
                  std::strlen("http://SERVER: the response is not HTTP"));
    EXPECT_EQ(reasonAfter("", "secret", true),
              "ErrorCode = 0x80042022: http://SERVER: the connection was closed without a response");
}

TEST(ReasonOfTheService, IsLeftOutWhenItRepeatsThePassword) {
    constexpr char kLeftOut[] = " (the service's text may repeat credentials and is not shown)";
    EXPECT_EQ(reasonAfter(R"(<KVX MSGTYPE="Error" MESSAGE="user:pa/ss word is wrong"/>)", "pa/ss word"),
              std::string("the request failed") + kLeftOut);
    EXPECT_EQ(reasonAfter(R"(<KVX MSGTYPE="-pass-"/>)", "pass"), std::string("request failed") + kLeftOut);
}

TEST(ReasonOfTheService, MayBeLong) {
    std::string const text(5000, 'x');
    EXPECT_EQ(reasonAfter("<KVX MSGTYPE=\"Error\" MESSAGE=\"" + text + "\"/>", "secret"),
              "the request failed (" + text + "): http://SERVER");
    std::string const long_ =
        reasonAfter("<KVX MSGTYPE=\"Error\" MESSAGE=\"" + std::string(100000, 'x') + "\"/>", "secret");
    EXPECT_EQ(long_.rfind("the request failed (xxx", 0), 0U);
    EXPECT_LT(long_.size(), 67000U);
    failWithABadHandle();
    EXPECT_EQ(reason().size(), 72U);
}

TEST(ReasonWithoutMemory, IsThatOfTheCode) {
    std::thread([] {  // a thread without a record
        FactoryHandle const factory(std::string("/proc/no/such"));
        MadeMessage made;
        {
            FailingAllocation const none(0, FailingAllocation::Mode::kAllFromThere);
            EXPECT_EQ(MessageFactory_CreatePayInit(factory.get(), made.out()), KVX_E_OUT_OF_MEMORY);
            char text[100] = {};
            std::int32_t size = sizeof text;
            EXPECT_EQ(KVX_GetLastErrorText(&size, text), KVX_OK);
            EXPECT_STREQ(text, "ErrorCode = 0x80040217: out of memory");
            EXPECT_EQ(failWithABadHandle(), KVX_E_BAD_HANDLE);
        }
        EXPECT_EQ(reason(), "ErrorCode = 0x80040216: the handle is null, destroyed or of another kind");
    })
        .join();
}

TEST(ReasonWithoutMemory, NeverChangesTheCodeAndNeverLies) {
    for (long failing = 0;; ++failing) {
        std::int32_t code = 0;
        std::string text;
        long requested = 0;
        std::thread([&] {
            FactoryHandle const factory(std::string("/proc/no/such"));
            MadeMessage made;
            {
                FailingAllocation const one(failing, FailingAllocation::Mode::kOnlyThat);
                code = MessageFactory_CreatePayInit(factory.get(), made.out());
                requested = FailingAllocation::requested();
            }
            text = reason();
        }).join();
        ASSERT_TRUE(code == ENOENT || code == KVX_E_OUT_OF_MEMORY) << failing;
        EXPECT_EQ(text.rfind(code == ENOENT ? "ErrorCode = 0x2" : "ErrorCode = 0x80040217: out of memory", 0), 0U)
            << text;
        if (requested <= failing) {
            EXPECT_EQ(code, ENOENT);
            EXPECT_NE(text.find("its parent directory is missing"), std::string::npos);
            break;
        }
    }
}

TEST(ReasonOfAThread, GoesWithIt) {
    auto const failOften = [] {
        for (int i = 0; i < 500; ++i) {
            std::thread([] {
                FactoryHandle const factory(std::string("/proc/no/such"));
                MadeMessage made;
                EXPECT_EQ(MessageFactory_CreatePayInit(factory.get(), made.out()), ENOENT);
            }).join();
        }
    };
    failOften();
    std::size_t const before = ::mallinfo2().uordblks;
    failOften();
    EXPECT_LT(::mallinfo2().uordblks, before + 100000);  // 500 records are about a megabyte
}

TEST(Reason, LeavesErrnoAlone) {
    errno = 4711;
    EXPECT_EQ(failWithABadHandle(), KVX_E_BAD_HANDLE);
    EXPECT_EQ(errno, 4711);
}

}  // namespace
