// The parser: accepted and refused documents, results, cuts at every length, random documents.
//
// Texts stand in tables with the result, and accepted ones with the document as it is written again. Random documents
// are compared with the reference parser.

#include <gtest/gtest.h>

#include "xml/xmlparser.h"

#include "foundation/tblocalstring.h"
#include "foundation/tbobject.h"
#include "tests/support/allocations.h"
#include "tests/support/freedmemory.h"
#include "tests/support/random.h"
#include "tests/support/tbtext.h"
#include "tests/xml/xmlreference.h"
#include "tests/xml/xmlsupport.h"
#include "xml/xmlholder.h"
#include "xml/xmllimits.h"
#include "xml/xmltop.h"

using namespace kvxtest;

namespace {

/// A text, and the document written again, or "error N".
struct Case {
    std::string m_Text;
    std::string m_Expected;
};

void expectAll(std::vector<Case> const& cases) {
    for (Case const& row : cases) {
        EXPECT_EQ(reparsed(row.m_Text), row.m_Expected) << "from " << row.m_Text;
        EXPECT_EQ(referenceReparsed(row.m_Text), row.m_Expected) << "by the reference, from " << row.m_Text;
    }
}

TEST(XmlParser, ReadsAnEmptyTextAsAnEmptyDocument) {
    Parsed const result = parsed("");
    ASSERT_EQ(result.m_Code, 0);
    EXPECT_EQ(tagOf(*result.m_Document.get()), "");
    EXPECT_EQ(textOf(*result.m_Document.get()), "");
    EXPECT_EQ(result.m_Document->parent(), nullptr);
    EXPECT_TRUE(enumeratedTags(*result.m_Document.get(), "").empty());
    TbStringStream unwritten;
    xmlElement* out = nullptr;
    EXPECT_EQ(xmlParser().parseText(unwritten, &out), 0);
    out->release();
}

TEST(XmlParser, ReadsAttributesInEveryForm) {
    Parsed const result = parsed("<KVX A='1' C=3 D/>");
    ASSERT_EQ(result.m_Code, 0);
    xmlElementPtr const kvx = childOf(*result.m_Document.get(), "KVX");
    EXPECT_EQ(attributeOf(*kvx.get(), "A"), "1");
    EXPECT_EQ(attributeOf(*kvx.get(), "C"), "3");
    EXPECT_EQ(attributeOf(*kvx.get(), "D"), "");
    EXPECT_EQ(reparsed("<KVX A=\"1\" C=3 D/>"), reparsed("<KVX A='1' C=3 D/>"));
}

TEST(XmlParser, HandsOneReferenceToTheCaller) {
    Parsed const result = parsed("<a><b/></a>");
    ASSERT_EQ(result.m_Code, 0);
    EXPECT_EQ(result.m_Document->refCount(), 1);
    xmlElementPtr const a = childOf(*result.m_Document.get(), "a");
    EXPECT_EQ(a->refCount(), 2);
    EXPECT_EQ(a->parent(), result.m_Document.get());
    EXPECT_EQ(childOf(*a.get(), "b")->parent(), a.get());
}

TEST(XmlParser, GivesItsFourResults) {
    expectAll({
        {"<KVX/>", "<KVX/>"},       {"<?xml version='1.0'?><KVX/>", "error 1"},
        {"<KVX>", "error 2"},       {"</KVX>", "error 3"},
        {"<a></a></a>", "error 3"}, {"<a/></>", "error 3"},
        {"<a/ /", "error 1"},       {"<a", "error 2"},
        {"<a ", "error 2"},         {"<a b", "error 2"},
        {"<a b ", "error 2"},       {"<a b=", "error 2"},
        {"<a b='", "error 2"},      {"<a b=\"c", "error 2"},
        {"<a b=c", "error 2"},      {"<a/", "error 2"},
        {"<a></", "error 2"},       {"<a></a", "error 2"},
        {"<a></a ", "error 2"},     {"<", "error 2"},
        {"</", "error 3"},          {"</>", "error 3"},
        {"< / ", "error 3"},
    });
}

TEST(XmlParser, LeavesTheResultAloneOnFailure) {
    for (char const* const text : {"<!", "<a>", "</a>", "<a b='1'><c/>text", "<a b='1'><c/>text<!"}) {
        TbStringStream in(text);
        xmlElement untouched;
        xmlElement* out = &untouched;
        EXPECT_NE(xmlParser().parseText(in, &out), 0) << text;
        EXPECT_EQ(out, &untouched) << text;
    }
}

TEST(XmlParser, RefusesWhatTheDialectDoesNotKnow) {
    expectAll({
        {"<a:b/>", "error 1"},
        {"<a b:c='1'/>", "error 1"},
        {"<a></a:b>", "error 1"},
        {"<!-- comment --><a/>", "error 1"},
        {"<a><![CDATA[x]]></a>", "error 1"},
        {"<!DOCTYPE a><a/>", "error 1"},
        {"<a><?pi?></a>", "error 1"},
        {"<\x80/>", "error 1"},
        {std::string("<a\0/>", 5), "error 1"},
        {"<a='1'/>", "error 1"},
        {"<a 'b'/>", "error 1"},
        {"<a b'1'/>", "error 1"},
        {"<a b=/>", "error 1"},
        {"<a b=>", "error 1"},
        {"<a b==1/>", "error 1"},
        {"<a b='1' '2'/>", "error 1"},
        {"<a =1/>", "error 1"},
        {"<a b & c/>", "error 1"},
        {"<a <b/>", "error 1"},
        {"<a b<", "error 1"},
        {"<<a/>", "error 1"},
        {"<>", "error 1"},
        {"<'a'/>", "error 1"},
        {"<a//>", "error 1"},
        {"<a></a b>", "error 1"},
        {"<a></a / >", "error 1"},
        {"<a></a/>", "error 1"},
        {"<a></a=>", "error 1"},
    });
}

TEST(XmlParser, KeepsSeveralTopLevelElements) {
    expectAll({{"<a/><b x='1'/><a/>", "<a/><b x=\"1\"/><a/>"}, {"<a></a>\n<b></b>\n", "\n<a/><b/>"}});
}

TEST(XmlParser, KeepsClosingWhateverIsOpen) {
    expectAll({
        {"<a><b></a></b>", "<a><b/></a>"},
        {"<a></>", "<a/>"},
        {"<a></x>", "<a/>"},
        {"<a></ x >", "<a/>"},
        {"<a>< / x>", "<a/>"},
        {"<a></x-.9_Z >", "<a/>"},
    });
}

TEST(XmlParser, KeepsClosingAtTheSlashAndIgnoringWhatFollows) {
    expectAll({
        {"<a / junk >", "<a/>"},
        {"<a/junk>", "<a/>"},
        {"<a b='1'/junk>", "<a b=\"1\"/>"},
        {"<a b='1'/ >", "<a b=\"1\"/>"},
        {"<a b=1/>", "<a b=\"1\"/>"},
        {"<x><a/></x>", "<x><a/></x>"},
        {"<x></x>", "<x/>"},
        {"<a b='1' / b='2'>", "error 1"},
    });
}

TEST(XmlParser, KeepsAttributesWithoutValueOrQuotes) {
    expectAll({
        {"<a b>", "error 2"},
        {"<a b></a>", "<a b=\"\"/>"},
        {"<a b ></a>", "<a b=\"\"/>"},
        {"<a b/>", "<a b=\"\"/>"},
        {"<a b />", "<a b=\"\"/>"},
        {"<a b c></a>", "<a b=\"\" c=\"\"/>"},
        {"<a b  c = 1 d/>", "<a b=\"\" c=\"1\" d=\"\"/>"},
        {"<a b\n=\t'1'/>", "<a b=\"1\"/>"},
        {"<a b=1 c=2></a>", "<a b=\"1\" c=\"2\"/>"},
        {"<a b=1></a>", "<a b=\"1\"/>"},
        {"<a b=-._x />", "<a b=\"-._x\"/>"},
        {"<a b=1'/>", "error 1"},
        {"<a b=1:2/>", "error 1"},
        {"<a b='1'c='2'/>", "<a b=\"1\" c=\"2\"/>"},
    });
}

TEST(XmlParser, KeepsTheLastValueAtTheFirstPlace) {
    expectAll({{"<a b='1' c='2' b='3'/>", "<a b=\"3\" c=\"2\"/>"}, {"<a b c b=1 />", "<a b=\"1\" c=\"\"/>"}});
}

TEST(XmlParser, TakesAnyByteInAQuotedValue) {
    expectAll({
        {"<a b='\"'/>", "<a b=\"&quot;\"/>"},
        {"<a b=\"'\"/>", "<a b=\"&apos;\"/>"},
        {"<a b='<>/=&amp; \n\xff'/>", "<a b=\"&lt;&gt;/=&amp; \n\xff\"/>"},
        {std::string("<a b='\0'/>", 10), std::string("<a b=\"\0\"/>", 10)},
        {"<a b=''/>", "<a b=\"\"/>"},
    });
}

TEST(XmlParser, KeepsDecodingAttributesButNotText) {
    Parsed const result = parsed("<a x='&lt;'>&lt;</a>");
    ASSERT_EQ(result.m_Code, 0);
    xmlElementPtr const a = childOf(*result.m_Document.get(), "a");
    EXPECT_EQ(attributeOf(*a.get(), "x"), "<");
    EXPECT_EQ(textOf(*a.get()), "&lt;");
    expectAll({
        {"<a x='&lt;'/>", "<a x=\"&lt;\"/>"},
        {"<a x='>&unknown;&#65;'/>", "<a x=\"&gt;\"/>"},  // reading again may give another text
        {"<a>&unknown;'\"></a>", "<a>&unknown;'\"></a>"},
    });
}

TEST(XmlParser, KeepsTheLastRunOfTextOnly) {
    Parsed const result = parsed("<a>x<b/>\n</a>");
    ASSERT_EQ(result.m_Code, 0);
    EXPECT_EQ(textOf(*childOf(*result.m_Document.get(), "a").get()), "\n");
    expectAll({
        {"<a>x<b/>y</a>", "<a>y<b/></a>"},
        {"<a>x<b/></a>", "<a>x<b/></a>"},  // an empty run replaces nothing
        {"<a> <b> </b> </a>", "<a> <b> </b></a>"},
        {"<a>1<b>2<c>3</c></b></a>", "<a>1<b>2<c>3</c></b></a>"},
    });
}

TEST(XmlParser, KeepsTextAroundTheTopLevelElements) {
    expectAll({
        {"before<a/>", "before<a/>"},
        {"<a/>between<b/>", "between<a/><b/>"},
        {"<a/>after", "<a/>"},  // no "<" follows it
        {"only text", ""},
        {"\xef\xbb\xbf<a/>", "\xef\xbb\xbf<a/>"},  // a byte-order mark is text
    });
}

TEST(XmlParser, TakesAnyByteButLessThanInText) {
    std::string text;
    for (int i = 0; i < 256; ++i) {
        if (i != '<') {
            text += static_cast<char>(static_cast<unsigned char>(i));
        }
    }
    EXPECT_EQ(reparsed("<a>" + text + "</a>"), "<a>" + text + "</a>");
}

TEST(XmlParser, TakesNameCharactersOnlyInNames) {
    std::string const name = "AZaz09.-_";
    EXPECT_EQ(reparsed("<" + name + " " + name + "=1></" + name + ">"), "<" + name + " " + name + "=\"1\"/>");
    EXPECT_EQ(reparsed("< \t\r\na/>"), "<a/>");
}

TEST(XmlParser, StartsAtTheReadPosition) {
    TbStringStream in("xx<a/>");
    char skipped = 0;
    in.get(skipped);
    in.get(skipped);
    xmlElement* out = nullptr;
    ASSERT_EQ(xmlParser().parseText(in, &out), 0);
    EXPECT_EQ(written(*out), "<a/>");
    out->release();
    EXPECT_TRUE(in.atEnd());
    ASSERT_EQ(xmlParser().parseText(in, &out), 0);
    EXPECT_EQ(written(*out), "");
    out->release();
}

TEST(XmlParser, StopsBehindTheCharacterThatItRefuses) {
    struct Stop {
        char const* m_Text;
        int m_Code;
        char const* m_Left;
    };
    for (Stop const& row : {
             Stop{"<a>text<!rest", 1, "rest"},
             {"<a/b/rest", 1, "rest"},  // the first slash is looked at twice
             {"<a b=1'rest", 1, "rest"},
             {"<a b?rest", 1, "rest"},
             {"</rest", 3, "rest"},
             {"<a></a></a>", 3, "a>"},
             {"<a b='rest", 2, ""},
             {"<a/>rest", 0, ""},
         }) {
        TbStringStream in("skipped");
        for (char skipped = 0; in.get(skipped), !in.atEnd();) {
        }
        in.put(row.m_Text);
        xmlElement* out = nullptr;
        EXPECT_EQ(xmlParser().parseText(in, &out), row.m_Code) << row.m_Text;
        xmlElementPtr const document = xmlAdopt(out);
        EXPECT_EQ(in.atEnd(), row.m_Code == 0 || row.m_Code == 2) << row.m_Text;
        std::string left;
        for (char next = 0; in.get(next), !in.atEnd();) {
            left += next;
        }
        EXPECT_EQ(left, row.m_Left) << row.m_Text;
    }
}

TEST(XmlParser, ReadsNothingFromAStreamAtItsEnd) {
    TbStringStream in("<a");
    for (char skipped = 0; in.get(skipped), !in.atEnd();) {
    }
    in.TbString::append("<b");  // the flag stays, and nothing behind it is read
    EXPECT_EQ(in.unreadLength(), 0U);
    xmlElement* out = nullptr;
    ASSERT_EQ(xmlParser().parseText(in, &out), 0);
    out->release();
    in.TbString::assign("<");  // the read position is beyond the text now
    in.unget();
    EXPECT_EQ(in.unreadLength(), 0U);
    ASSERT_EQ(xmlParser().parseText(in, &out), 0);
    out->release();
    EXPECT_TRUE(in.atEnd());
}

TEST(XmlParser, ServesAnyNumberOfDocuments) {
    xmlParser parser;
    static_assert(sizeof(xmlParser) == sizeof(TbRefCounter), "a parser has no data");
    for (char const* const text : {"<a b='1", "<a>text", "<b/>"}) {
        TbStringStream in(text);
        xmlElement* out = nullptr;
        int const code = parser.parseText(in, &out);
        EXPECT_EQ(code, std::string(text) == "<b/>" ? 0 : 2);
        if (out != nullptr) {
            EXPECT_EQ(written(*out), "<b/>");
            out->release();
        }
    }
}

TEST(XmlParser, IsCounted) {
    auto* const parser = new xmlParser;
    parser->addRef();
    TbStringStream in("<a/>");
    xmlElement* out = nullptr;
    EXPECT_EQ(parser->parseText(in, &out), 0);
    parser->release();
    EXPECT_EQ(written(*out), "<a/>");  // nothing in it was the parser's
    out->release();
}

TEST(XmlParser, CreatesElements) {
    xmlElement* out = nullptr;
    xmlParser().createElement("KVX", &out);
    EXPECT_EQ(out->refCount(), 1);
    EXPECT_EQ(out->parent(), nullptr);
    EXPECT_EQ(written(*out), "<KVX/>");
    out->release();
}

TEST(XmlParser, SurvivesADocumentCutAtEveryLength) {
    std::string const text =
        "top <KVX A='1' C=3 D E = \"&lt;&unknown;\" F ><b/>t<c x/ y>u<d><h><i><e / f ></d></x ></>\n</KVX>\n<g h=1/>";
    ASSERT_EQ(parsed(text).m_Code, 0);
    for (std::size_t length = 0; length <= text.size(); ++length) {
        std::string const cut = text.substr(0, length);
        int const code = parsed(cut).m_Code;
        EXPECT_TRUE(code == 0 || code == 2) << cut;  // a part of a good text is good or unfinished
        EXPECT_EQ(reparsed(cut), referenceReparsed(cut)) << cut;
        int const tail = parsed(text.substr(length)).m_Code;
        EXPECT_TRUE(tail >= 0 && tail <= 3) << text.substr(length);
        EXPECT_EQ(reparsed(text.substr(length)), referenceReparsed(text.substr(length))) << text.substr(length);
    }
}

// Attributes of the common form are taken in one step, all others and unfinished ones by the table.
TEST(XmlParser, TakesAttributesOfEveryFormWhereverTheyEnd) {
    std::string const values[] = {"",
                                  "1",
                                  "&amp;",
                                  "&amp;&lt;&quot;",
                                  "&;",
                                  "&x;>",
                                  "<",
                                  "a&quotb",
                                  "=\"=' ",
                                  "15 bytes long.",
                                  "16 bytes long...",
                                  "17 bytes long...."};
    for (std::string const& value : values) {
        for (char const quote : {'"', '\''}) {
            std::string text = "<e a=" + std::string(1, quote) + value + quote;
            for (char const* const next :
                 {"b=\"2\"", " b='3'", " b =\"4\"", "\tb= '5'", " b=6 ", " b ", "\"7\"", "/"}) {
                std::string const document = text + next + " c=\"&gt;\"/></e>";
                for (std::size_t length = 0; length <= document.size(); ++length) {
                    std::string const cut = document.substr(0, length);
                    ASSERT_EQ(reparsed(cut), referenceReparsed(cut)) << cut;
                    ASSERT_EQ(reparsed(cut + "/>"), referenceReparsed(cut + "/>")) << cut;
                }
            }
        }
    }
}

TEST(XmlParser, AgreesWithTheReferenceOnRandomBytes) {
    SCOPED_TRACE("seed " + std::to_string(testSeed()));
    Random random;
    int accepted = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        for (std::size_t left = random.below(40); left > 0; --left) {
            text += random.below(20) == 0 ? random.byte() : random.of("<<<<>>>>//// ==''\"abAB0&;\n");
        }
        std::string const expected = referenceReparsed(text);
        ASSERT_EQ(reparsed(text), expected) << text;
        accepted += expected.rfind("error", 0) == 0 ? 0 : 1;
    }
    EXPECT_GT(accepted, 100);
}

TEST(XmlParser, AgreesWithTheReferenceOnDamagedDocuments) {
    SCOPED_TRACE("seed " + std::to_string(testSeed()));
    Random random;
    std::string const original = "<KVX A='1' C=3 D><b x=\"&amp;\"/>t<c x/><d>u</d >\n</KVX>";
    std::string const pieces[] = {"<", ">", "/", "=", "'", "\"", " ", "x", "&", "<a>", "</a>", "<a/>", "\x80"};
    int accepted = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string text = original;
        for (std::size_t damage = 1 + random.below(3); damage > 0; --damage) {
            std::size_t const position = random.below(text.size());
            text.replace(position, random.below(4),
                         random.below(2) == 0 ? "" : pieces[random.below(std::size(pieces))]);
        }
        std::string const expected = referenceReparsed(text);
        ASSERT_EQ(reparsed(text), expected) << text;
        accepted += expected.rfind("error", 0) == 0 ? 0 : 1;
    }
    EXPECT_GT(accepted, 1000);
}

/// Random elements below `parent`, and their text.
std::string grow(Random& random, xmlElement& parent, int levels) {
    static std::string const kNames = "abcXYZ019.-_";
    static std::string const kBytes = std::string("ab<>&\"' \n;=/\x80\xff", 14) + std::string(1, '\0');
    std::string expected;
    for (std::size_t left = random.below(4); left > 0; --left) {
        std::string const tag = "t" + random.text(kNames, 3);
        xmlElementPtr const child = newElement(tag);
        std::string head = "<" + tag;
        for (std::size_t number = random.below(4); number > 0; --number) {
            std::string const name = std::to_string(number) + random.text(kNames, 3);
            std::string const value = random.text(kBytes, 8);
            child->setAttribute(stringOf(name), stringOf(value));
            EXPECT_EQ(attributeOf(*child.get(), name), value);
            head += " " + name + "=\"" + referenceEncoded(value) + "\"";
        }
        std::string content = random.below(2) == 0 ? "" : random.text("ab>&\"' \n;=/\x80", 8);
        child->setText(stringOf(content));
        if (levels > 0) {
            content += grow(random, *child.get(), levels - 1);
        }
        parent.insertChild(child.get());
        expected += content.empty() ? head + "/>" : head + ">" + content + "</" + tag + ">";
    }
    return expected;
}

// Tags of the common forms are taken in one step inside an element, all others and unfinished ones by the table.
TEST(XmlParser, TakesTagsOfEveryFormWhereverTheyEnd) {
    std::string const tags[] = {"<b>",   "<b/>", "<b />",  "<b c='1'>", "<b c='1'/>", "<b c='1' >", "<b\tc/>",
                                "<b/c>", "< b>", "</>",    "</b>",      "</b >",      "</ b>",      "< /b>",
                                "</b/>", "<b",   "<b c='", "<b !>",     "<b c!>",     "<>",         "<b",
                                "<",     "</",   "</b!>",  "<b=>",      "<!>",        "<b c/ >",    "<b c='1'/ x>"};
    for (std::string const& first : tags) {
        for (std::string const& second : tags) {
            for (std::string const between : {"", "text", ">/\"'="}) {
                std::string text = "<r>" + between;
                text += first + between;
                text += second + between + "</r>";
                for (std::string const& document : {text, text + "</r>", "<r>" + text + "</></>", first + second}) {
                    ASSERT_EQ(reparsed(document), referenceReparsed(document)) << document;
                }
            }
        }
    }
}

TEST(XmlParser, CountsTheLevelsOfElementsOfEveryForm) {
    struct Row {
        char const* m_Text;
        std::uint32_t m_Levels;  // of its elements
    };
    for (Row const& row : {Row{"", 0}, Row{"<a/>", 1}, Row{"<a></a>", 1}, Row{"<a/><a/>", 1}, Row{"<a><a/></a>", 2},
                           Row{"<a><a/><a b='' /><a></a></a>", 2}, Row{"<a><a><a b='1'/></a>text<a/></a>", 3},
                           Row{"<a b><a b='<'><a b><a/></a></a></a><a><a><a></a></a></a>", 4}}) {
        for (std::uint32_t levels = 1; levels < 6; ++levels) {
            TbStringStream in(row.m_Text);
            xmlElement* out = nullptr;
            int const code = xmlParseWithin({0, levels}, in, &out);
            xmlElementPtr const document = xmlAdopt(out);
            EXPECT_EQ(code, row.m_Levels <= levels ? 0 : 4) << row.m_Text << " within " << levels;
        }
    }
}

TEST(XmlTop, LendsItsPlaceToADocument) {
    std::int32_t const start = TbRefCounter::m_nTotalRef;
    xmlElement* child = nullptr;
    {
        AllocationMeter const meter;
        xmlTop top;
        EXPECT_EQ(AllocationMeter::calls(), 0U);
        EXPECT_EQ(TbRefCounter::m_nTotalRef, start);
        TbBorrowedStream in(TbBorrowed("<a><b/></a><c/><a/>text"));
        ASSERT_EQ(xmlParseWithin({}, in, top), 0);
        EXPECT_EQ(AllocationMeter::calls(), 4U) << "the elements";
        EXPECT_EQ(written(top), "<a><b/></a><c/><a/>") << "text behind the last tag is dropped";
        ASSERT_TRUE(top.getChild("a", 0, &child));
        EXPECT_EQ(child->parent(), &top);
    }
    xmlElementPtr kept = xmlAdopt(child);
    EXPECT_EQ(kept->parent(), nullptr);
    EXPECT_EQ(written(*child), "<a><b/></a>");
    kept.reset();
    TbBorrowedStream broken(TbBorrowed("<a><b/></a><c>"));
    xmlTop top;
    EXPECT_EQ(xmlParseWithin({}, broken, top), 2);
    xmlTop tooLong;
    EXPECT_EQ(xmlParseWithin({3, 0}, broken, tooLong), 4);
}

// Up to 32 attributes are kept before their element is made, those whose value is encoded as it is.
TEST(XmlParser, AgreesWithTheReferenceOnManyAttributes) {
    for (std::size_t count = 29; count <= 36; ++count) {
        for (std::size_t special = 0; special < count; ++special) {
            for (char const* const value :
                 {"=\"<\"", "='&x;'", "=plain", "", "='again' n0='first'", "='again' n28=last"}) {
                std::string text = "<a";
                for (std::size_t i = 0; i < count; ++i) {
                    text += " n" + std::to_string(i) + (i == special ? value : "=\"&amp;v\"");
                }
                for (std::string const end : {"/>", ">text</a>", ">text<b/>end</a>"}) {
                    ASSERT_EQ(reparsed(text + end), referenceReparsed(text + end)) << text << end;
                }
            }
        }
    }
}

TEST(XmlParser, MakesAllTextsOfASecretTextSecret) {
    for (bool const isSecret : {true, false}) {
        TbStringStream text;
        if (isSecret) {
            text.keepSecret();
        }
        text.put("<a b='&amp;1' c=2 d>text<e/></a>");
        xmlElement* top = nullptr;
        ASSERT_EQ(xmlParser().parseText(text, &top), 0);
        xmlElementPtr const document = xmlAdopt(top);
        xmlElementPtr const element = childOf(*document.get(), "a");
        for (char const* const name : {"b", "c", "d"}) {
            TbString value;
            EXPECT_TRUE(element->getAttribute(name, value));
            EXPECT_EQ(value.isSecret(), isSecret) << name;
        }
        TbString content;
        element->getText(content);
        EXPECT_EQ(content.isSecret(), isSecret);
        TbStringStream out;
        document->toStream(out);
        EXPECT_EQ(bytesOf(out), "<a b=\"&amp;1\" c=\"2\" d=\"\">text<e/></a>");
        EXPECT_EQ(out.isSecret(), isSecret);
    }
}

TEST(XmlParser, LeavesNoPartOfASecretTextBehind) {
    std::string const whole =
        "<KVX A=\"http://uQxZuser:S3cret-Canary@x/?a&amp;b\" B='S3cret-Canary' C='S3cret-Canary&x;>'>uQxZuser</KVX>"
        "<a B='uQxZuser'>S3cret-Canary<x/>S3cret-Canary<x/></a><S3cret-Canary/>";
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        FreedMemory const freed;
        {
            TbStringStream text;
            text.keepSecret();
            text.put(whole.c_str(), static_cast<std::uint32_t>(length));
            xmlElement* top = nullptr;
            xmlParser().parseText(text, &top);
            xmlElementPtr const document = xmlAdopt(top);
            if (length == whole.size()) {
                TbStringStream out;
                document->toStream(out);
                childOf(*document.get(), "KVX")->setAttribute("A", "other");
                childOf(*document.get(), "a")->setAttribute("B", "other");
                childOf(*document.get(), "a")->setText("other");
            }
        }
        EXPECT_GT(FreedMemory::searched(), 0);
        EXPECT_EQ(FreedMemory::leaks(), 0) << length;
    }
}

TEST(XmlParser, ReadsWhatElementsWrite) {
    SCOPED_TRACE("seed " + std::to_string(testSeed()));
    Random random;
    for (int round = 0; round < 500; ++round) {
        xmlElementPtr const tree = newElement("");
        std::string const expected = grow(random, *tree.get(), 4);
        ASSERT_EQ(written(*tree.get()), expected);
        ASSERT_EQ(reparsed(expected), expected);
    }
}

}  // namespace
