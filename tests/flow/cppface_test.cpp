// The classes of tallowin.hpp against the sandbox: a whole payment, every class of failure, ownership, texts.
//
// They see the flat functions alone, so what is tested here is what the header adds.

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "tallowin/codes.h"
#include "tallowin/tallowin.hpp"
#include "tests/flow/flowsupport.h"
#include "tests/support/directories.h"

using namespace kvxtest;

namespace {

/// A directory of a merchant that uses the classes, at a running service.
class CppFace : public FlowTest {
protected:
    CppFace() { startService(); }

    [[nodiscard]] std::string const& path() const { return m_Dir.path(); }

    void setUpAccount(std::string const& password = "demo") const {
        tallowin::ConfigurationSetup(path()).reconfigure(autoUrl(), "demo", password);
    }

    [[nodiscard]] tallowin::MessageObject order() const {
        tallowin::MessageObject made = tallowin::MessageFactory(path()).createPayInit();
        made.setAttribute("AMOUNT", "19.90");
        made.setAttribute("CURRENCY", "EUR");
        return made;
    }

    [[nodiscard]] Returned decided(tallowin::MessageObject const& payment, std::string const& decision) const {
        return sandbox().shopper(payment.getUrl(), decision);
    }

    void capture(std::string const& data) const {
        tallowin::MessageObject message(path());
        message.fromString(data);
        message.capture();
    }

private:
    TemporaryDirectory m_Dir;
};

/// The failure of a call.
template <typename Call>
tallowin::ResultError failureOf(Call const& call) {
    try {
        call();
    } catch (tallowin::ResultError const& failure) {
        return failure;
    }
    throw std::logic_error("the call succeeds");
}

template <typename Call>
std::int32_t codeOf(Call const& call) {
    return failureOf(call).code();
}

}  // namespace

TEST_F(CppFace, PaysVerifiesCapturesAndCompletes) {
    setUpAccount();
    tallowin::MessageFactory factory(path());
    tallowin::MessageObject payment = order();
    std::string const token = payment.getAttribute("TOKEN");
    Returned const returned = decided(payment, "pay");
    tallowin::MessageObject const paid = factory.verifyPayConfirm(returned.m_Data, returned.m_Signature);
    paid.require({{"MSGTYPE", "PayConfirm"},
                  {"RESULT", "authorised"},
                  {"TOKEN", token},
                  {"AMOUNT", "19.90"},
                  {"CURRENCY", "EUR"}});
    capture(returned.m_Data);
    EXPECT_EQ(sandbox().stateOf(token), "captured");
    tallowin::MessageObject const answer = factory.createPayComplete(paid.getAttribute("ID"), token).execute();
    EXPECT_EQ(answer.getAttribute("MSGTYPE"), "PayCompleteResponse");
    EXPECT_EQ(sandbox().stateOf(token), "completed");
    tallowin::MessageObject request = factory.createRequest("Status");
    request.setAttribute("TOKEN", token);
    EXPECT_EQ(request.execute().getAttribute("STATE"), "completed");
}

TEST_F(CppFace, ReportsAnAttributeThatIsNotAsRequired) {
    setUpAccount();
    Returned const returned = decided(order(), "cancel");
    auto const confirmation = tallowin::MessageFactory(path()).verifyPayConfirm(returned.m_Data, returned.m_Signature);
    try {
        confirmation.require({{"MSGTYPE", "PayConfirm"}, {"RESULT", "authorised"}});
        FAIL() << "a cancelled payment passes";
    } catch (tallowin::MismatchError const& mismatch) {
        EXPECT_STREQ(mismatch.what(), "RESULT is \"cancelled\", not \"authorised\"");
    }
    EXPECT_THROW(confirmation.require({{"NOSUCH", ""}}), tallowin::MismatchError);
}

TEST_F(CppFace, ReadsAndWritesTheDirectory) {
    setUpAccount();
    tallowin::ConfigurationSetup setup(path());
    std::string const address = setup.getAttribute("config.xml", "VTURL");
    setup.setAttribute("config.xml", "VTURL", "http://127.0.0.1:1/pay");
    EXPECT_EQ(setup.getAttribute("config.xml", "VTURL"), "http://127.0.0.1:1/pay");
    EXPECT_NE(setup.getAttribute("config.xml").find("http://127.0.0.1:1/pay"), std::string::npos);
    setup.setOption("VTAUTOURL", autoUrl());
    setup.reconfigure("", "demo", "demo");
    EXPECT_EQ(setup.getAttribute("config.xml", "VTURL"), address);
}

TEST_F(CppFace, ThrowsWithCodeFunctionAndReason) {
    tallowin::ResultError const failure = failureOf([&] { setUpAccount("guessed"); });
    EXPECT_EQ(failure.code(), KVX_E_SERVER_ERROR);
    EXPECT_STREQ(failure.function(), "ConfigurationSetup_Reconfigure");
    EXPECT_STREQ(failure.name(), "KVX_E_SERVER_ERROR");
    EXPECT_NE(failure.reason().find("the password of the account 'demo' is another"), std::string::npos)
        << failure.reason();
    std::string const text = failure.what();
    EXPECT_NE(text.find("(KVX_E_SERVER_ERROR, 0x80040213)"), std::string::npos) << text;
    EXPECT_NE(text.find(failure.reason()), std::string::npos) << text;
    EXPECT_EQ(text.find("guessed"), std::string::npos) << text;
    EXPECT_EQ(failure.httpStatus(), 0);
    tallowin::ResultError const copy = failure;
    EXPECT_EQ(copy.reason(), failure.reason());
}

TEST_F(CppFace, ThrowsForEveryClassOfFailure) {
    EXPECT_EQ(codeOf([&] { tallowin::ConfigurationSetup setup(path() + "/missing/merchant"); }), ENOENT);
    EXPECT_EQ(codeOf([&] { (void)order(); }), KVX_E_CANNOT_OPEN);
    setUpAccount();
    arm("http-status,exchange=setup,status=418");
    EXPECT_EQ(failureOf([&] { setUpAccount(); }).httpStatus(), 418);
    arm("drop,exchange=setup");
    tallowin::ResultError const dropped = failureOf([&] { setUpAccount(); });
    EXPECT_EQ(dropped.code(), KVX_E_HTTP_BAD_REPLY);
    EXPECT_EQ(dropped.httpStatus(), 0);
    arm("reset,exchange=setup");
    EXPECT_EQ(codeOf([&] { setUpAccount(); }), KVX_E_SOCKET_RESET);
    arm("wrong-type,exchange=setup");
    EXPECT_EQ(codeOf([&] { setUpAccount(); }), KVX_E_WRONG_RESPONSE);

    tallowin::MessageFactory factory(path());
    Returned const returned = decided(order(), "cancel");
    EXPECT_EQ(codeOf([&] { factory.verifyPayConfirm(returned.m_Data + " ", returned.m_Signature); }),
              KVX_E_INVALID_SIGNATURE);
    EXPECT_EQ(codeOf([&] { factory.verifyPayConfirm(returned.m_Data, ""); }), KVX_E_MISSING_SIGNATURE);
    EXPECT_EQ(codeOf([&] { factory.createRequest(""); }), KVX_E_NO_MESSAGE_TYPE);
    EXPECT_EQ(codeOf([&] { (void)order().getAttribute("NOSUCH"); }), KVX_E_NOT_FOUND);
    EXPECT_EQ(order().findAttribute("NOSUCH"), std::nullopt);
    EXPECT_EQ(codeOf([&] { capture(returned.m_Data); }), KVX_E_SERVER_ERROR);
    EXPECT_EQ(codeOf([&] { tallowin::ConfigurationSetup(path()).setOption("NoSuch", "1"); }), KVX_E_INVALID_OPTION);
    EXPECT_EQ(codeOf([&] { (void)tallowin::MessageObject(path()).getUrl(); }), KVX_E_UNEXPECTED);
    EXPECT_EQ(codeOf([&] { tallowin::MessageObject(path()).fromString("<KVX"); }), KVX_E_INVALID_FORMAT);
}

TEST_F(CppFace, MovesAndDoesNotCopy) {
    static_assert(std::is_nothrow_move_constructible_v<tallowin::MessageObject>);
    static_assert(std::is_nothrow_move_assignable_v<tallowin::MessageFactory>);
    static_assert(!std::is_copy_constructible_v<tallowin::MessageObject>);
    static_assert(!std::is_copy_assignable_v<tallowin::ConfigurationSetup>);
    static_assert(sizeof(tallowin::MessageObject) == sizeof(void*));
    setUpAccount();
    tallowin::MessageObject first = order();
    KVX_HANDLE const handle = first.handle();
    tallowin::MessageObject second = std::move(first);
    EXPECT_EQ(second.handle(), handle);
    EXPECT_EQ(codeOf([&] { (void)first.getUrl(); }), KVX_E_BAD_HANDLE);  // NOLINT(bugprone-use-after-move)
    second.close();
    EXPECT_EQ(codeOf([&] { (void)second.getUrl(); }), KVX_E_BAD_HANDLE);
    std::int32_t size = 0;
    EXPECT_EQ(MessageObject_ToString(handle, &size, nullptr), KVX_E_BAD_HANDLE);
    KVX_HANDLE forgotten = nullptr;
    {
        tallowin::MessageObject const ending = order();
        forgotten = ending.handle();
    }
    EXPECT_EQ(MessageObject_ToString(forgotten, &size, nullptr), KVX_E_BAD_HANDLE);
    KVX_HANDLE const flat = CreateMessageObject();
    EXPECT_EQ(tallowin::MessageObject::adopt(flat).handle(), flat);
    EXPECT_EQ(MessageObject_ToString(flat, &size, nullptr), KVX_E_BAD_HANDLE);
}

TEST_F(CppFace, PassesTextsOfAnyLengthAndRefusesZeroBytes) {
    setUpAccount();
    tallowin::MessageObject message = order();
    for (std::string const& text : {std::string(), std::string("\xFF\x80 & <\">'"), std::string(100000, 'x')}) {
        message.setAttribute("TEXT", text);
        EXPECT_EQ(message.getAttribute("TEXT"), text);
    }
    EXPECT_NE(message.toString().find(std::string(100000, 'x')), std::string::npos);
    EXPECT_NE(message.getUrl().find(std::string(100000, 'x')), std::string::npos);
    std::string_view const cut("AMOUNT", 3);
    message.setAttribute(cut, std::string_view("19.90", 2));
    EXPECT_EQ(message.getAttribute("AMO"), "19");
    EXPECT_EQ(message.getAttribute("AMOUNT"), "19.90");
    using namespace std::string_view_literals;
    EXPECT_THROW(message.setAttribute("TEXT", "a\0b"sv), std::invalid_argument);
    EXPECT_THROW(tallowin::MessageFactory("a\0b"sv), std::invalid_argument);
    EXPECT_EQ(message.getAttribute("TEXT").size(), 100000U);
}

/// It may be a password. A short one would lie in the object itself, whose memory is looked at here.
TEST(CppFaceLibrary, LeavesNoCopyOfATextThatItRefuses) {
    using Terminated = tallowin::detail::Terminated;
    using namespace std::string_view_literals;
    alignas(Terminated) char room[sizeof(Terminated)] = {};
    EXPECT_THROW(new (room) Terminated("word\0rest"sv), std::invalid_argument);
    std::string_view const memory(room, sizeof room);
    EXPECT_EQ(memory.find("word"), std::string_view::npos);
    EXPECT_EQ(memory.find("rest"), std::string_view::npos);
}

TEST(CppFaceLibrary, HasAVersion) {
    EXPECT_EQ(tallowin::version(), KVX_GetVersion());
}
