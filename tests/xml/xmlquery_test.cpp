// Path queries: tags, indices, attributes, malformed paths, and failing allocations.
//
// One document serves most tests; each row of a table names a path and the value found there.

#include <gtest/gtest.h>

#include "xml/xmlquery.h"

#include "tests/support/allocations.h"
#include "tests/support/tbtext.h"
#include "tests/xml/xmlsupport.h"

using namespace kvxtest;

namespace {

struct Queried {
    std::int32_t m_Status = -1;
    std::string m_Path;
    xmlElementPtr m_Found;
};

Queried queried(xmlElementPtr const& start, std::string const& path) {
    TbString rest(stringOf(path));
    xmlElement* found = nullptr;
    Queried result;
    result.m_Status = xmlQuerySubElement(start.get(), rest, &found);
    result.m_Path = bytesOf(rest);
    result.m_Found.adopt(found);
    return result;
}

/// <KVX A="1" KVX.VTAUTOURL="u"><A B="2"/></KVX>
xmlElementPtr sample() {
    xmlElementPtr root = newElement("KVX");
    root->setAttribute("A", "1");
    root->setAttribute("KVX.VTAUTOURL", "u");
    xmlElementPtr const child = newElement("A");
    child->setAttribute("B", "2");
    root->insertChild(child.get());
    return root;
}

TEST(XmlQuery, GivesTheStartAndTheWholeKeyWithoutSeparator) {
    xmlElementPtr const root = sample();
    for (std::string const key : {"", "A", "KVX.VTAUTOURL", "a(b)c", "a(", "a)", "(", ".", ".(", "a( .0)", "a.(0)"}) {
        Queried const result = queried(root, key);
        EXPECT_EQ(result.m_Status, 0) << key;
        EXPECT_EQ(result.m_Found.get(), root.get()) << key;
        EXPECT_EQ(result.m_Path, key);
    }
}

TEST(XmlQuery, AddsOneReferenceForTheCaller) {
    xmlElementPtr const root = sample();
    {
        Queried const result = queried(root, "A");
        EXPECT_EQ(root->refCount(), 2);
    }
    EXPECT_EQ(root->refCount(), 1);
    EXPECT_EQ(queried(root, "A(.0)").m_Status, 1);
    EXPECT_EQ(queried(root, "A(.0").m_Status, 3);
    EXPECT_EQ(root->refCount(), 1);
}

// The index text begins with the separator's own full stop, so no key walks down. Written files rely on it.
TEST(XmlQuery, KeepsRefusingEveryKeyWithTheSeparator) {
    struct Case {
        char const* m_Key;
        std::int32_t m_Status;
    };
    static constexpr Case kCases[] = {
        {"A(.0)", 1}, {"A(.0)B", 1}, {"A(.0).B", 1}, {"A(.)", 1},     {"(.)", 1},         {"A(.x)", 1},
        {"A(.0", 3},  {"(.", 3},     {"A)(.0", 3},   {"A(0)(.0)", 1}, {"MISSING(.0)", 1}, {"A((.0)", 1},
    };
    xmlElementPtr const root = sample();
    for (Case const& row : kCases) {
        Queried const result = queried(root, row.m_Key);
        EXPECT_EQ(result.m_Status, row.m_Status) << row.m_Key;
        EXPECT_EQ(result.m_Path, row.m_Key) << "changed on failure";
        EXPECT_EQ(result.m_Found.get(), nullptr) << row.m_Key;
        TbString value("untouched");
        EXPECT_FALSE(xmlGetAttributeEx(root.get(), row.m_Key, value)) << row.m_Key;
        EXPECT_EQ(bytesOf(value), "untouched");
        EXPECT_FALSE(xmlSetAttributeEx(root.get(), row.m_Key, "x")) << row.m_Key;
    }
    EXPECT_EQ(written(*root.get()), written(*sample().get()));
}

TEST(XmlQuery, ReadsAttributesOfTheStartElement) {
    xmlElementPtr const root = sample();
    TbString value;
    EXPECT_TRUE(xmlGetAttributeEx(root.get(), "KVX.VTAUTOURL", value));
    EXPECT_EQ(bytesOf(value), "u");
    EXPECT_TRUE(xmlGetAttributeEx(root.get(), "A", value));
    EXPECT_EQ(bytesOf(value), "1");
    EXPECT_FALSE(xmlGetAttributeEx(root.get(), "B", value));
    EXPECT_FALSE(xmlGetAttributeEx(root.get(), "", value));
    EXPECT_EQ(bytesOf(value), "1");
    EXPECT_EQ(root->refCount(), 1);
}

TEST(XmlQuery, ReadsUnescapedValues) {
    xmlElementPtr const root = newElement("KVX");
    EXPECT_TRUE(xmlSetAttributeEx(root.get(), "a.b", "<&>"));
    EXPECT_EQ(written(*root.get()), "<KVX a.b=\"&lt;&amp;&gt;\"/>");
    TbString value;
    EXPECT_TRUE(xmlGetAttributeEx(root.get(), "a.b", value));
    EXPECT_EQ(bytesOf(value), "<&>");
}

TEST(XmlQuery, LeavesTheKeyAlone) {
    xmlElementPtr const root = sample();
    TbString const key("KVX.VTAUTOURL");
    TbString value;
    EXPECT_TRUE(xmlGetAttributeEx(root.get(), key, value));
    EXPECT_TRUE(xmlSetAttributeEx(root.get(), key, "v"));
    EXPECT_EQ(bytesOf(key), "KVX.VTAUTOURL");
    EXPECT_EQ(attributeOf(*root.get(), "KVX.VTAUTOURL"), "v");
}

TEST(XmlQuery, NeverAddsAnElement) {
    xmlElementPtr const root = sample();
    EXPECT_FALSE(xmlSetAttributeEx(root.get(), "NEW(.0)X", "1"));
    EXPECT_EQ(written(*root.get()), written(*sample().get()));
    EXPECT_TRUE(xmlSetAttributeEx(root.get(), "NEW.X", "1"));
    EXPECT_EQ(enumeratedTags(*root.get(), ""), std::vector<std::string>{"A"});
}

TEST(XmlQuery, TakesOneStringForKeyAndValue) {
    xmlElementPtr const root = sample();
    TbString text("A");
    EXPECT_TRUE(xmlGetAttributeEx(root.get(), text, text));
    EXPECT_EQ(bytesOf(text), "1");
}

TEST(XmlQuery, ChangesNothingWhenMemoryRunsOut) {
    xmlElementPtr const root = sample();
    TbString path;
    xmlElement* found = nullptr;
    forEveryFailure([&] { path = "KVX.VTAUTOURL"; },
                    [&] {
                        xmlElement* element = nullptr;
                        EXPECT_EQ(xmlQuerySubElement(root.get(), path, &element), 0);
                        found = element;
                        found->release();
                        path = "A(.0)";
                        EXPECT_EQ(xmlQuerySubElement(root.get(), path, &element), 1);
                    },
                    [&](bool) { EXPECT_EQ(root->refCount(), 1); });
    survivesEveryFailingAllocation([&] {
        TbString value;
        EXPECT_TRUE(xmlGetAttributeEx(root.get(), "KVX.VTAUTOURL", value));
        EXPECT_TRUE(xmlSetAttributeEx(root.get(), "KVX.VTAUTOURL", "u"));
        EXPECT_FALSE(xmlSetAttributeEx(root.get(), "A(.0)", "u"));
    });
    EXPECT_EQ(root->refCount(), 1);
    EXPECT_EQ(written(*root.get()), written(*sample().get()));
}

TEST(XmlAtoi, ReadsDigitsUpToTheFirstOtherCharacter) {
    struct Case {
        char const* m_Text;
        bool m_IsNumber;
        int m_Value;
    };
    static constexpr Case kCases[] = {
        {"0042", true, 42},  {"4a", false, 4},
        {"", true, 0},       {"0", true, 0},
        {"-1", false, 0},    {"+1", false, 0},
        {" 1", false, 0},    {"1 ", false, 1},
        {"12.5", false, 12}, {"a", false, 0},
        {"/", false, 0},     {":", false, 0},
        {"9", true, 9},      {"2147483647", true, 2147483647},
    };
    for (Case const& row : kCases) {
        int value = 77;
        EXPECT_EQ(xmlAtoi(row.m_Text, value), row.m_IsNumber) << row.m_Text;
        EXPECT_EQ(value, row.m_Value) << row.m_Text;
    }
    int value = 77;
    EXPECT_FALSE(xmlAtoi(stringOf(std::string("1\0", 2)), value));
    EXPECT_EQ(value, 1);
}

// There is no overflow check; 32 bits are kept, without undefined arithmetic.
TEST(XmlAtoi, KeepsWrappingAround) {
    int value = 0;
    EXPECT_TRUE(xmlAtoi("2147483648", value));
    EXPECT_EQ(value, -2147483647 - 1);
    EXPECT_TRUE(xmlAtoi("4294967296", value));
    EXPECT_EQ(value, 0);
    EXPECT_TRUE(xmlAtoi("4294967338", value));
    EXPECT_EQ(value, 42);
    EXPECT_TRUE(xmlAtoi("99999999999999999999", value));
    EXPECT_EQ(value, 1661992959);
}

}  // namespace
