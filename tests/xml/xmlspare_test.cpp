// Elements that are made with room for the attributes that they will get.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/support/allocations.h"
#include "tests/support/exceptions.h"
#include "tests/support/freedmemory.h"
#include "tests/support/tbtext.h"
#include "tests/xml/xmlsupport.h"
#include "xml/xmlaccess.h"

using namespace kvxtest;

namespace {

xmlElementPtr elementWithRoom(std::uint32_t attributes, std::uint16_t bytes) {
    return xmlElementPtr(xmlAccess::create({"KVX", 3}, attributes, bytes));
}

std::string writtenFrom(xmlElementPtr const& element) {
    TbStringStream out;
    element->toStream(out);
    return bytesOf(out);
}

/// Allocations of setting `name` to `value`.
long allocationsOfSetting(xmlElementPtr const& element, TbString const& name, TbString const& value) {
    FailingAllocation const counting(-1, FailingAllocation::Mode::kOnlyThat);
    element->setAttribute(name, value);
    return FailingAllocation::requested();
}

TEST(ElementWithRoom, IsOneBlockAndLikeAnyOther) {
    FailingAllocation const counting(-1, FailingAllocation::Mode::kOnlyThat);
    xmlElementPtr const element = elementWithRoom(20, 1024);
    EXPECT_EQ(FailingAllocation::requested(), 1);
    EXPECT_EQ(writtenFrom(element), "<KVX/>");
    TbString value;
    EXPECT_FALSE(element->getAttribute("A", value));
    TbString tag;
    element->getTag(tag);
    EXPECT_EQ(bytesOf(tag), "KVX");
}

TEST(ElementWithRoom, HoldsAttributesWithoutMemoryUntilOneDoesNotFit) {
    // An attribute takes 12 bytes, 4 around its texts, and its texts, rounded up to 4.
    xmlElementPtr const element = elementWithRoom(3, 64);
    EXPECT_EQ(allocationsOfSetting(element, "A", "1"), 0);
    EXPECT_EQ(allocationsOfSetting(element, "B", "<&>"), 0);
    EXPECT_EQ(allocationsOfSetting(element, "C", "12345"), 1) << "12 bytes are left";
    EXPECT_EQ(allocationsOfSetting(element, "D", "4"), 2) << "and no place in the list";
    EXPECT_EQ(writtenFrom(element), R"(<KVX A="1" B="&lt;&amp;&gt;" C="12345" D="4"/>)");
}

TEST(ElementWithRoom, TakesEachOfItsBytes) {
    xmlElementPtr const element = elementWithRoom(4, 40);
    EXPECT_EQ(allocationsOfSetting(element, "A", "123"), 0);
    EXPECT_EQ(allocationsOfSetting(element, "B", "123"), 0) << "20 bytes each";
    EXPECT_EQ(allocationsOfSetting(element, "C", ""), 1);
}

TEST(ElementWithRoom, ReplacesValuesAtTheirPlace) {
    xmlElementPtr const element = elementWithRoom(4, 128);
    element->setAttribute("A", "old");
    element->setAttribute("B", "b");
    element->setAttribute("A", "new & longer");
    EXPECT_EQ(writtenFrom(element), R"(<KVX A="new &amp; longer" B="b"/>)");
    for (int i = 0; i < 1000; ++i) {
        element->setAttribute("A", std::to_string(i).c_str());
    }
    EXPECT_EQ(writtenFrom(element), R"(<KVX A="999" B="b"/>)");
}

TEST(ElementWithRoom, HoldsMoreThanItHasPlacesFor) {
    xmlElementPtr const element = elementWithRoom(2, 4096);
    std::string wanted = "<KVX";
    for (int i = 0; i < 100; ++i) {
        std::string const number = std::to_string(i);
        element->setAttribute(("N" + number).c_str(), number.c_str());
        wanted += " N" + number + "=\"" + number + '"';
    }
    EXPECT_EQ(writtenFrom(element), wanted + "/>");
}

TEST(ElementWithRoom, LeavesNoBytesOfASecretBehind) {
    TbString secret;
    secret.keepSecret();
    secret.assign(kCanaryPassword);
    FreedMemory const freed;
    {
        xmlElementPtr const element = elementWithRoom(4, 512);
        element->setAttribute("A", secret);
        element->setAttribute("A", "plain");
        element->setAttribute("B", secret);
        element->setAttribute(secret, "name");
    }
    EXPECT_EQ(FreedMemory::searched(), 6) << "one block, and five strings of the calls";
    EXPECT_EQ(FreedMemory::leaks(), 0);
}

TEST(ElementWithRoom, SurvivesFailingAllocations) {
    long const runs = survivesEveryFailingAllocation([] {
        xmlElementPtr const element = elementWithRoom(1, 32);
        element->setAttribute("A", "1");
        element->setAttribute("B", "a value that does not fit");
        element->setAttribute("A", "another one that does not");
    });
    EXPECT_GT(runs, 3);
}

}  // namespace
