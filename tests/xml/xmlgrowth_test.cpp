// Time and memory grow with the size of the input, not faster. Counted is what is asked of the allocator: a buffer that
// is moved again and again asks for quadratically many bytes. Work that allocates nothing would run into the time
// limit.

#include <gtest/gtest.h>

#include "tests/support/allocations.h"
#include "tests/support/tbtext.h"
#include "tests/xml/xmlsupport.h"
#include "xml/xmlquery.h"

using namespace kvxtest;

namespace {

constexpr std::size_t kMega = 1024 * 1024;
constexpr std::size_t kMillion = 1000000;

// Different keys cost a walk down a tree each, and sanitizers make those ten times slower.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kManyKeys = kMillion / 4;
#else
constexpr std::size_t kManyKeys = kMillion;
#endif

struct Cost {
    std::uint64_t m_Calls = 0;
    std::uint64_t m_Bytes = 0;
};

/// The cost of parsing, writing and reading again.
Cost costOf(std::string const& text) {
    TbStringStream in(stringOf(text));
    AllocationMeter const meter;
    xmlElement* out = nullptr;
    EXPECT_EQ(xmlParser().parseText(in, &out), 0);
    xmlElementPtr document;
    document.adopt(out);
    TbStringStream again;
    EXPECT_TRUE(document->toStream(again));
    EXPECT_GE(again.length(), text.size() / 4);
    return {AllocationMeter::calls(), AllocationMeter::bytes()};
}

/// Compares the costs of two sizes; a quarter more than in proportion is allowed, for steps of growth.
void expectLinear(std::size_t small, std::size_t large, std::function<std::string(std::size_t)> const& make) {
    Cost const first = costOf(make(small));
    Cost const second = costOf(make(large));
    std::uint64_t const times = large / small;
    EXPECT_LT(second.m_Calls * 4, first.m_Calls * times * 5)
        << first.m_Calls << " then " << second.m_Calls << " allocations";
    EXPECT_LT(second.m_Bytes * 4, first.m_Bytes * times * 5) << first.m_Bytes << " then " << second.m_Bytes << " bytes";
}

/// `count` pieces, each with its number.
std::string numbered(std::string const& before, std::string const& after, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += before + std::to_string(10000000 + i) + after;
    }
    return text;
}

TEST(XmlGrowth, OneLongText) {
    expectLinear(kMega, 8 * kMega, [](std::size_t size) { return "<a>" + std::string(size, 'x') + "</a>"; });
}

TEST(XmlGrowth, OneLongValue) {
    expectLinear(kMega, 8 * kMega, [](std::size_t size) { return "<a b='" + std::string(size, 'x') + "'/>"; });
}

TEST(XmlGrowth, OneLongUnquotedValue) {
    expectLinear(kMega, 8 * kMega, [](std::size_t size) { return "<a b=" + std::string(size, 'x') + "/>"; });
}

TEST(XmlGrowth, OneLongValueOfEntities) {
    expectLinear(kMega, 8 * kMega, [](std::size_t size) {
        std::string text = "<a b='";
        for (std::size_t i = 0; i < size / 4; ++i) {
            text += "&lt;";
        }
        return text + "'/>";
    });
}

TEST(XmlGrowth, OneLongTag) {
    expectLinear(kMega, 8 * kMega, [](std::size_t size) { return "<" + std::string(size, 'x') + "/>"; });
}

TEST(XmlGrowth, OneLongName) {
    expectLinear(kMega, 8 * kMega, [](std::size_t size) { return "<a " + std::string(size, 'x') + "=1/>"; });
}

TEST(XmlGrowth, AMillionChildren) {
    expectLinear(kMillion / 8, kMillion, [](std::size_t count) {
        std::string text = "<a>";
        for (std::size_t i = 0; i < count; ++i) {
            text += "<b/>";
        }
        return text + "</a>";
    });
}

TEST(XmlGrowth, ChildrenOfManyDifferentTags) {
    expectLinear(kManyKeys / 32, kManyKeys / 4,
                 [](std::size_t count) { return "<a>" + numbered("<b", "/>", count) + "</a>"; });
}

// Each search would walk along all children before.
TEST(XmlGrowth, ManyDifferentTagsAreFound) {
    std::size_t const count = kManyKeys / 4;
    xmlElementPtr const document = parsed(numbered("<b", "/>", count)).m_Document;
    for (std::size_t i = 0; i < count; ++i) {
        std::string const tag = "b" + std::to_string(10000000 + i);
        ASSERT_EQ(tagOf(*childOf(*document.get(), tag).get()), tag);
    }
}

TEST(XmlGrowth, AMillionAttributes) {
    expectLinear(kManyKeys / 8, kManyKeys, [](std::size_t count) { return "<a" + numbered(" b", "=1", count) + "/>"; });
}

TEST(XmlGrowth, AMillionLevels) {
    expectLinear(kMillion / 8, kMillion, [](std::size_t count) {
        std::string text;
        for (std::size_t i = 0; i < count; ++i) {
            text += "<a>";
        }
        return text + numbered("</a", ">", count);
    });
}

TEST(XmlGrowth, ManyRunsOfText) {
    // Every run replaces the one before.
    std::string const text = "<a>" + numbered("text ", "<b/>", kMillion / 4) + "</a>";
    EXPECT_EQ(parsed(text).m_Code, 0);
}

TEST(XmlGrowth, ManyAmpersandsWithoutSemicolon) {
    // Every look ahead for a semicolon is in vain.
    std::string const longNames = [] {
        std::string text;
        for (std::size_t i = 0; i < 100; ++i) {
            text += "&" + std::string(kMega / 12, 'a');
        }
        return text;
    }();
    for (std::string const& text : {std::string(8 * kMega, '&'), longNames, "&" + std::string(8 * kMega, 'a')}) {
        TbString decoded;
        XMLDecode(stringOf(text), decoded);
        EXPECT_LE(decoded.length(), text.size());
    }
}

TEST(XmlGrowth, LongKeys) {
    xmlElementPtr const root = newElement("a");
    TbString value;
    EXPECT_FALSE(xmlGetAttributeEx(root.get(), stringOf(std::string(8 * kMega, '(')), value));
    EXPECT_FALSE(xmlGetAttributeEx(root.get(), stringOf("(." + std::string(8 * kMega, '0')), value));
    int number = 0;
    EXPECT_TRUE(xmlAtoi(stringOf(std::string(8 * kMega, '0')), number));
}

}  // namespace
