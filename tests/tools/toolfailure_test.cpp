// A failure of a command keeps what the library said when it happened.

#include "tools/toolfailure.h"

#include <gtest/gtest.h>
#include <tallowin/tallowin.h>

#include "tools/toolobjects.h"

namespace {

/// Whether `text` has `part`.
bool contains(std::string const& text, std::string const& part) {
    return text.find(part) != std::string::npos;
}

TEST(ToolFailure, HasTheReasonOfItsOwnCall) {
    tool::MessageObject const message(CreateMessageObject());
    std::int32_t const code = MessageObject_Open(message.get(), "/nonexistent/account");
    tool::ToolFailure const failure("cannot open the directory", code);
    EXPECT_EQ(MessageObject_SetAttribute(nullptr, "A", "1"), KVX_E_BAD_HANDLE);  // a later failure of the thread
    EXPECT_TRUE(contains(failure.reason(), "/nonexistent/account")) << failure.reason();
    EXPECT_FALSE(contains(failure.reason(), "handle")) << failure.reason();
}

TEST(ToolFailure, HasNoReasonWhenTheToolFoundIt) {
    EXPECT_EQ(MessageObject_SetAttribute(nullptr, "A", "1"), KVX_E_BAD_HANDLE);
    EXPECT_EQ(tool::ToolFailure("the file is empty", "fill it").reason(), "");
}

TEST(CodeText, HasNumberNameAndMeaning) {
    EXPECT_EQ(tool::codeText(KVX_E_SERVER_ERROR), "0x80040213 KVX_E_SERVER_ERROR (the request failed)");
    EXPECT_EQ(tool::codeText(KVX_E_BAD_HANDLE), "0x80040216 KVX_E_BAD_HANDLE");
    EXPECT_EQ(tool::codeText(20), "errno 20 ENOTDIR (Not a directory)");
}

TEST(CodeText, OfANumberWithoutANameIsTheNumber) {
    EXPECT_EQ(tool::codeText(KVX_E_NO_CONTEXT - 1), "0x80040200");
}

}  // namespace
