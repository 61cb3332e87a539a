#include "sandbox/text/paymessage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "sandbox/text/httperror.h"

namespace {

using namespace sandbox;
using ::testing::HasSubstr;

std::string reasonFor(std::string const& text) {
    try {
        Message::parse(text);
    } catch (HttpError const& error) {
        return error.what();
    }
    return "";
}

TEST(Message, IsWrittenAsOneElementWithFiveEntities) {
    Message message("PayConfirm");
    message.set("NAME", "a<b>&\"c'\xE9\n").set("KVX.ISVALID", "yes");
    EXPECT_EQ(message.text(),
              "<KVX MSGTYPE=\"PayConfirm\" NAME=\"a&lt;b&gt;&amp;&quot;c&apos;\xE9\n\" KVX.ISVALID=\"yes\"/>");
}

TEST(Message, ComesBackFromItsText) {
    Message message("X");
    message.set("A", "&amp;<\t\r\n\x80'\"").set("B", "");
    EXPECT_EQ(Message::parse(message.text()).attributes(), message.attributes());
}

TEST(Message, KeepsLineEndsAndBytesOfValues) {
    EXPECT_EQ(Message::parse("<KVX MSGTYPE='T' A=\"x\r\n\ty\xE9\"/>").find("A"), "x\r\n\ty\xE9");
}

TEST(Message, AcceptsContentAndIgnoresIt) {
    EXPECT_EQ(Message::parse("<KVX MSGTYPE=\"T\">text<CHILD A=\"1\"/></KVX>").type(), "T");
}

TEST(Message, RefusesWhatIsNotOneElement) {
    for (char const* text :
         {"<?xml version=\"1.0\"?><KVX MSGTYPE=\"T\"/>", "<!-- c --><KVX MSGTYPE=\"T\"/>", "<!DOCTYPE KVX><KVX/>",
          "<KVX MSGTYPE=\"T\"/><KVX MSGTYPE=\"T\"/>", "text<KVX MSGTYPE=\"T\"/>", "<KVX MSGTYPE=\"T\"/>text",
          "<A><KVX MSGTYPE=\"T\"/></A>", "<kvx MSGTYPE=\"T\"/>"}) {
        EXPECT_THAT(reasonFor(text), HasSubstr("not exactly one element KVX")) << text;
    }
}

TEST(Message, RefusesWhatIsNotWellFormed) {
    std::string const whole = "<KVX MSGTYPE=\"T\" A=\"1\"></KVX>";
    ASSERT_EQ(reasonFor(whole), "");
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_NE(reasonFor(whole.substr(0, length)), "") << whole.substr(0, length);
    }
}

TEST(Message, RefusesUnknownEntities) {
    for (char const* value : {"&nbsp;", "&#10;", "&#x41;", "&", "&amp", "a&b;", "&AMP;"}) {
        EXPECT_THAT(reasonFor("<KVX MSGTYPE=\"T\" A=\"" + std::string(value) + "\"/>"), HasSubstr("entity")) << value;
    }
}

TEST(Message, RefusesRepeatedAndUnusableAttributeNames) {
    EXPECT_THAT(reasonFor("<KVX MSGTYPE=\"T\" A=\"1\" A=\"2\"/>"), HasSubstr("A twice"));
    EXPECT_THAT(reasonFor("<KVX MSGTYPE=\"T\" a:b=\"1\"/>"), HasSubstr("'a:b'"));
    EXPECT_THAT(reasonFor("<KVX MSGTYPE=\"T\" \xE9=\"1\"/>"), HasSubstr("unusable name"));
}

TEST(Message, RefusesAMissingTypeAndZeroBytes) {
    EXPECT_THAT(reasonFor("<KVX A=\"1\"/>"), HasSubstr("no MSGTYPE"));
    EXPECT_THAT(reasonFor(std::string("<KVX MSGTYPE=\"T\0\"/>", 19)), HasSubstr("zero byte"));
}

TEST(Message, RequiresValuesThatAreNotEmpty) {
    Message const message = Message::parse("<KVX MSGTYPE=\"T\" A=\"\" B=\"1\"/>");
    EXPECT_EQ(message.require("B"), "1");
    EXPECT_THROW(message.require("A"), HttpError);
    EXPECT_THROW(message.require("C"), HttpError);
}

}  // namespace
