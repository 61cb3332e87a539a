// A document holds at most 60 bytes of memory for each byte of its text, whatever its shape.
//
// The shapes are those that an attacker would choose: as many elements, attributes, runs of text and entities as fit
// into a byte. Each one is tried in four sizes, each twice as large as the one before, so that growth shows. What is
// refused costs no more than what is accepted.

#include <gtest/gtest.h>

#include "tests/support/costs.h"
#include "tests/support/tbtext.h"
#include "tests/xml/xmlsupport.h"

using namespace kvxtest;

namespace {

constexpr std::size_t kKilo = 1024;
/// Held by the document. The most expensive shape is an element with one attribute, <a b/>: six bytes, the element, its
/// tag, its attribute, a list of attributes and an entry in the list of its parent's children.
constexpr std::uint64_t kHeldForEachByte = 60;

/// Asked of the allocator on the way; nearly all of it stays.
constexpr std::uint64_t kRequestedForEachByte = 60;

/// `piece` again and again, `size` bytes at least.
std::string repeated(std::string const& piece, std::size_t size) {
    std::string text;
    while (text.size() < size) {
        text += piece;
    }
    return text;
}

/// Pieces with a number each, `size` bytes at least.
std::string numbered(std::string const& before, std::string const& after, std::size_t size) {
    std::string text;
    for (int number = 0; text.size() < size; ++number) {
        text += before + std::to_string(number) + after;
    }
    return text;
}

struct Shape {
    char const* m_Name;
    std::string (*m_Make)(std::size_t size);
    bool m_IsDocument;
};

Shape const kShapes[] = {
    {"deep", [](std::size_t n) { return repeated("<a>", n / 2) + repeated("</>", n / 2); }, true},
    {"deep and left open", [](std::size_t n) { return repeated("<a>", n); }, false},
    {"deep with attributes", [](std::size_t n) { return repeated("<a b>", n / 2) + repeated("</ab>", n / 2); }, true},
    {"siblings", [](std::size_t n) { return repeated("<a/>", n); }, true},
    {"siblings of different tags", [](std::size_t n) { return numbered("<a", "/>", n); }, true},
    {"siblings with one attribute", [](std::size_t n) { return repeated("<a b/>", n); }, true},
    {"attributes without a value", [](std::size_t n) { return "<a " + numbered("", " ", n) + "/>"; }, true},
    {"attributes without quotes", [](std::size_t n) { return "<a " + numbered("b", "=1 ", n) + "/>"; }, true},
    {"attributes with quotes", [](std::size_t n) { return "<a " + numbered("b", "='' ", n) + "/>"; }, true},
    {"one attribute again and again", [](std::size_t n) { return "<a " + repeated("b=1 ", n) + "/>"; }, true},
    {"one value", [](std::size_t n) { return "<a b='" + repeated("x", n) + "'/>"; }, true},
    {"one value without quotes", [](std::size_t n) { return "<a b=" + repeated("x", n) + "/>"; }, true},
    {"one name", [](std::size_t n) { return "<a " + repeated("x", n) + "=1/>"; }, true},
    {"one tag", [](std::size_t n) { return "<" + repeated("x", n) + "/>"; }, true},
    {"one text", [](std::size_t n) { return "<a>" + repeated("x", n) + "</a>"; }, true},
    {"one end tag", [](std::size_t n) { return "<a></" + repeated("x", n) + ">"; }, true},
    {"long names", [](std::size_t n) { return "<a " + numbered(repeated("x", 200), "=1 ", n) + "/>"; }, true},
    {"dotted names", [](std::size_t n) { return "<a " + numbered("name.space-", ".name='v' ", n) + "/>"; }, true},
    {"names with colons", [](std::size_t n) { return "<a " + numbered("xmlns:n", "='u' ", n) + "/>"; }, false},
    {"entities", [](std::size_t n) { return "<a b='" + repeated("&lt;", n) + "'/>"; }, true},
    {"quotes as entities", [](std::size_t n) { return "<a b='" + repeated("&quot;", n) + "'/>"; }, true},
    {"unknown entities", [](std::size_t n) { return "<a b='" + repeated("&x;", n) + "'/>"; }, true},
    {"ampersands", [](std::size_t n) { return "<a b='" + repeated("&", n) + "'/>"; }, true},
    {"ampersands in a text", [](std::size_t n) { return "<a>" + repeated("&", n) + "</a>"; }, true},
    {"characters to escape", [](std::size_t n) { return "<a b='" + repeated("\"", n) + "'/>"; }, true},
    {"less-than signs in a value", [](std::size_t n) { return "<a b='" + repeated("<", n) + "'/>"; }, true},
    {"less-than signs alone", [](std::size_t n) { return repeated("<", n); }, false},
    {"greater-than signs alone", [](std::size_t n) { return repeated(">", n); }, true},
    {"white space", [](std::size_t n) { return "<a" + repeated(" \t\r\n", n) + "/>"; }, true},
    {"texts and elements in turn", [](std::size_t n) { return "<a>" + repeated("x<b/>", n) + "</a>"; }, true},
    {"growing texts", [](std::size_t n) { return "<a>" + numbered(repeated("x", 100), "<b/>", n) + "</a>"; }, true},
    {"zero bytes", [](std::size_t n) { return "<a b='" + std::string(n, '\0') + "'/>"; }, true},
    {"end tags alone", [](std::size_t n) { return repeated("</>", n); }, false},
};

/// The document of `in`, which is one.
xmlElementPtr parsedDocument(TbStringStream& in) {
    xmlElement* out = nullptr;
    EXPECT_EQ(xmlParser().parseText(in, &out), 0);
    xmlElementPtr document;
    document.adopt(out);
    return document;
}

/// Parses `text`, which must be a document or not, and keeps what comes of it.
xmlElementPtr parsedShape(Shape const& shape, TbStringStream& in) {
    xmlElement* out = nullptr;
    EXPECT_EQ(xmlParser().parseText(in, &out) == 0, shape.m_IsDocument) << shape.m_Name;
    xmlElementPtr document;
    document.adopt(out);
    return document;
}

TEST(XmlCosts, OfHoldingADocumentOfAnyShapeAreBoundedAndLinear) {
    for (Shape const& shape : kShapes) {
        expectLinearCost(shape.m_Name, 16 * kKilo, kHeldForEachByte, [&](std::size_t size) {
            std::string const text = shape.m_Make(size);
            TbStringStream in(stringOf(text));
            std::uint64_t const before = heldBytes();
            xmlElementPtr const document = parsedShape(shape, in);
            std::uint64_t const after = heldBytes();
            return after < before ? 0 : (after - before) * size / text.size();
        });
    }
}

TEST(XmlCosts, OfParsingAnyShapeAreBoundedAndLinear) {
    for (Shape const& shape : kShapes) {
        expectLinearCost(shape.m_Name, 8 * kKilo, kRequestedForEachByte, [&](std::size_t size) {
            std::string const text = shape.m_Make(size);
            TbStringStream in(stringOf(text));
            return costOf([&] { parsedShape(shape, in); }).m_Bytes * size / text.size();
        });
    }
}

// Whatever an element has when it is made, it has in one block of memory; the document itself is one more.
TEST(XmlCosts, OfParsingAreOneRequestForEachElement) {
    std::string const attributes = numbered(" name", "=\"a value &amp; more\"", 600);
    for (auto const& [text, elements] : {std::pair<std::string, std::uint64_t>{"", 0},
                                         {"<a/>", 1},
                                         {"<a>text</a>", 1},
                                         {"<a b='1'>text</a>", 1},
                                         {"<KVX" + attributes + "/>", 1},
                                         {"<KVX" + attributes + ">text<a" + attributes + ">text</a></KVX>", 2},
                                         {"<a><b><c><d/></c></b></a>", 4},
                                         {repeated("<a/>", 400), 100},
                                         {numbered("<a", "/>", 400), 69}}) {
        TbStringStream in(stringOf(text));
        Cost const cost = costOf([&, &in = in] { EXPECT_EQ(parsedDocument(in)->refCount(), 1); });
        EXPECT_EQ(cost.m_Calls, elements + 1) << text;
        EXPECT_LE(cost.m_Bytes, 2 * text.size() + 200 * (elements + 1)) << text;
    }
}

TEST(XmlCosts, OfTheFirstAttributesAreOneRequestForEachAndOneForTheirList) {
    xmlElementPtr const element = newElement("a");
    std::uint64_t requests = 0;
    for (char const* const name : {"a", "b", "c", "d"}) {
        requests += costOf([&] { element->setAttribute(name, "value"); }).m_Calls;
    }
    EXPECT_EQ(requests, 4 + 1 + 4 * 2U);  // two for the strings of each call
    EXPECT_EQ(costOf([&] { element->setAttribute("a", "other"); }).m_Calls, 1 + 2U);
}

// A message of 15 attributes, 1 KB of text.
TEST(XmlCosts, OfHoldingAMessageAreAtMostTwoBytesForEach) {
    TbStringStream in(stringOf("<KVX" + numbered(" name", "=\"" + repeated("value", 50) + "\"", 900) + "/>"));
    std::uint64_t const before = heldBytes();
    xmlElementPtr const document = parsedDocument(in);
    EXPECT_LE(heldBytes() - before, 2 * std::uint64_t{in.length()});
}

// A run of characters is copied where it is kept, and nowhere else however long it is. Names of end tags are kept
// nowhere.
TEST(XmlCosts, OfOneRunAreOneCopy) {
    constexpr std::size_t kRun = 128 * kKilo;
    for (auto const& [text, copies] : {std::pair<std::string, std::uint64_t>{"<a>" + repeated("x", kRun) + "</a>", 1},
                                       {"<" + repeated("x", kRun) + "/>", 1},
                                       {"<a b='" + repeated("x", kRun) + "'/>", 1},
                                       {"<a b=\"" + repeated("&lt;", kRun) + "\"/>", 1},
                                       {"<a b=" + repeated("x", kRun) + "/>", 1},
                                       {"<a " + repeated("x", kRun) + "=1/>", 1},
                                       {"<a></" + repeated("x", kRun) + ">", 0},
                                       {"<a" + repeated(" ", kRun) + "/>", 0},
                                       {repeated("x", kRun), 0}}) {
        TbStringStream in(stringOf(text));
        Cost const cost = costOf([&, &in = in] {
            xmlElement* out = nullptr;
            if (xmlParser().parseText(in, &out) == 0) {
                out->release();
            }
        });
        EXPECT_LE(cost.m_Bytes, copies * kRun + 4 * kKilo) << text.substr(0, 8);
    }
}

TEST(XmlCosts, OfAnEmptyChildAreAtMost200Bytes) {
    constexpr std::size_t kChildren = 10000;
    for (std::string const& text : {repeated("<a/>", 4 * kChildren), repeated("<A/><B></B>", 11 * kChildren / 2)}) {
        TbStringStream in(stringOf(text));
        std::uint64_t const before = heldBytes();
        xmlElement* document = nullptr;
        ASSERT_EQ(xmlParser().parseText(in, &document), 0);
        EXPECT_LE(heldBytes() - before, 200 * kChildren);
        document->release();
    }
}

// What fits into the buffer in which pieces gather grows the stream once.
TEST(XmlCosts, OfWritingAMessageAreOneGrowth) {
    TbStringStream in(stringOf("<KVX" + numbered(" name", "='a value'", 3 * kKilo) + "/>"));
    xmlElement* document = nullptr;
    ASSERT_EQ(xmlParser().parseText(in, &document), 0);
    TbStringStream written;
    Cost const cost = costOf([&] { document->toStream(written); });
    document->release();
    EXPECT_EQ(written.length(), in.length());
    EXPECT_EQ(cost.m_Calls, 2U);  // the stream's, and one for the way down
    EXPECT_LE(cost.m_Bytes, written.length() + 512);
}

TEST(XmlCosts, OfWritingAreThoseOfTheTextAndTheWayDown) {
    for (Shape const& shape : kShapes) {
        if (!shape.m_IsDocument) {
            continue;
        }
        TbStringStream in(stringOf(shape.m_Make(128 * kKilo)));
        xmlElementPtr const document = parsedShape(shape, in);
        TbStringStream written;
        Cost const cost = costOf([&] { document->toStream(written); });
        // A deep document keeps a pointer for each open element beside the text; both grow by half.
        EXPECT_LE(cost.m_Bytes, 5 * (std::uint64_t{written.length()} + sizeof(void*) * (in.length() / 6)) + kKilo)
            << shape.m_Name;
    }
}

}  // namespace
