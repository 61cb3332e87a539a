// Elements: children, attributes, text, enumeration, copies, output.
//
// Elements are built by the test or parsed from a text, then read through the public calls and compared as text.

#include "xml/xmlelement.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <type_traits>

#include "foundation/tbobject.h"
#include "foundation/tbstrptr.h"
#include "tallowin/codes.h"
#include "tests/support/exceptions.h"
#include "tests/support/random.h"
#include "tests/support/tbtext.h"
#include "tests/xml/xmlsupport.h"

using namespace kvxtest;

namespace {

using Tags = std::vector<std::string>;

/// An element with children of these tags, each with an attribute "n" that counts from 0.
xmlElementPtr parentOf(Tags const& tags) {
    xmlElementPtr parent = newElement("P");
    for (std::size_t i = 0; i < tags.size(); ++i) {
        xmlElementPtr const child = newElement(tags[i]);
        child->setAttribute("n", stringOf(std::to_string(i)));
        parent->insertChild(child.get());
    }
    return parent;
}

std::string numberOf(xmlElementPtr const& element) {
    return attributeOf(*element.get(), "n");
}

TEST(XmlElement, WritesTheShortestForm) {
    xmlElementPtr const element = newElement("T");
    EXPECT_EQ(written(*element.get()), "<T/>");
    element->setAttribute("n", "");
    EXPECT_EQ(written(*element.get()), "<T n=\"\"/>");
}

TEST(XmlElement, WritesTextBeforeChildren) {
    xmlElementPtr const element = newElement("T");
    element->setText("5");
    EXPECT_EQ(written(*element.get()), "<T>5</T>");
    element->insertChild(newElement("C").get());
    EXPECT_EQ(written(*element.get()), "<T>5<C/></T>");
}

TEST(XmlElement, WritesAttributesAndChildrenInOrder) {
    xmlElementPtr const element = newElement("KVX");
    element->setAttribute("a", "x y");
    element->insertChild(newElement("C").get());
    EXPECT_EQ(written(*element.get()), "<KVX a=\"x y\"><C/></KVX>");
    element->setAttribute("zzz", "1");
    element->setAttribute("b", "2");
    element->setAttribute("a", "3");  // keeps its place
    element->insertChild(newElement("B").get());
    element->insertChild(newElement("C").get());
    EXPECT_EQ(written(*element.get()), "<KVX a=\"3\" zzz=\"1\" b=\"2\"><C/><B/><C/></KVX>");
}

TEST(XmlElement, WritesNoMarkupOfItsOwnForAnEmptyTag) {
    xmlElementPtr const container = newElement("");
    EXPECT_EQ(written(*container.get()), "");
    container->setAttribute("lost", "1");
    container->setText("text");
    xmlElementPtr const inner = newElement("");
    inner->insertChild(newElement("A").get());
    container->insertChild(inner.get());
    container->insertChild(newElement("B").get());
    EXPECT_EQ(written(*container.get()), "text<A/><B/>");
}

TEST(XmlElement, WritesNestedElements) {
    std::string const text =
        "<a x=\"1\">t<b><c/>"
        "</b><d>u</d><b y=\"\"/></a>";
    EXPECT_EQ(reparsed(text), text);
}

TEST(XmlElement, GrowsAStreamAsPiecewiseWritingDoes) {
    Random random;
    for (int round = 0; round < 2000; ++round) {
        std::vector<std::string> pieces{"<", "a"};
        xmlElementPtr const element = newElement("a");
        for (std::size_t number = random.below(20); number > 0; --number) {
            std::string const name = "n" + std::to_string(number);
            std::string const value(random.below(4) == 0 ? random.below(3000) : random.below(30), 'v');
            element->setAttribute(stringOf(name), stringOf(value));
            pieces.insert(pieces.end(), {" ", name, "=\"", value, "\""});
        }
        pieces.insert(pieces.end(), {">", "text"});
        element->setText("text");
        for (std::size_t number = random.below(40); number > 0; --number) {
            std::string const tag(1 + random.below(random.below(20) == 0 ? 3000 : 30), 't');
            element->insertChild(newElement(tag).get());
            pieces.insert(pieces.end(), {"<", tag, "/>"});
        }
        pieces.insert(pieces.end(), {"</", "a", ">"});
        TbStringStream out(stringOf(std::string(random.below(100), 'o')));
        TbStringStream piecewise(out);
        element->toStream(out);
        for (std::string const& piece : pieces) {
            piecewise.put(stringOf(piece));
        }
        ASSERT_EQ(bytesOf(out.str()), bytesOf(piecewise.str()));
        ASSERT_EQ(out.capacity(), piecewise.capacity());
    }
}

TEST(XmlElement, MakesAStreamReadableByWritingNothing) {
    TbStringStream out;
    EXPECT_TRUE(out.atEnd());
    xmlElement().toStream(out);
    EXPECT_FALSE(out.atEnd());
    EXPECT_EQ(out.buffer(), nullptr);
}

TEST(XmlElement, AppendsToTheStream) {
    TbStringStream out("before ");
    xmlElementPtr const element = newElement("T");
    EXPECT_TRUE(element->toStream(out));
    EXPECT_TRUE(element->toStream(out));
    EXPECT_EQ(bytesOf(out.str()), "before <T/><T/>");
}

TEST(XmlElement, StoresAttributesEscapedAndTextAsItIs) {
    xmlElementPtr const element = newElement("T");
    element->setAttribute("a", "<&>\"'");
    element->setText("<&>\"'");
    EXPECT_EQ(written(*element.get()), "<T a=\"&lt;&amp;&gt;&quot;&apos;\"><&>\"'</T>");
    EXPECT_EQ(attributeOf(*element.get(), "a"), "<&>\"'");
    EXPECT_EQ(textOf(*element.get()), "<&>\"'");
}

TEST(XmlElement, LeavesTheValueOfAMissingAttributeAlone) {
    xmlElementPtr const element = newElement("T");
    element->setAttribute("a", "1");
    TbString value("untouched");
    EXPECT_FALSE(element->getAttribute("b", value));
    EXPECT_EQ(bytesOf(value), "untouched");
    EXPECT_EQ(written(*element.get()), "<T a=\"1\"/>");
}

TEST(XmlElement, ReplacesAnAttribute) {
    xmlElementPtr const element = newElement("T");
    EXPECT_TRUE(element->setAttribute("a", "a long value that is replaced"));
    EXPECT_TRUE(element->setAttribute("a", ""));
    EXPECT_EQ(attributeOf(*element.get(), "a"), "");
    EXPECT_TRUE(element->setAttribute("", "empty name"));
    EXPECT_EQ(attributeOf(*element.get(), ""), "empty name");
}

TEST(XmlElement, ReadsAnAttributeIntoItsOwnName) {
    xmlElementPtr const element = newElement("T");
    TbString text("a");
    element->setAttribute(text, "1");
    EXPECT_TRUE(element->getAttribute(text, text));
    EXPECT_EQ(bytesOf(text), "1");
    EXPECT_TRUE(element->setAttribute(text, text));
    EXPECT_EQ(attributeOf(*element.get(), "1"), "1");
}

TEST(XmlElement, ReplacesItsText) {
    xmlElementPtr const element = newElement("T");
    EXPECT_EQ(textOf(*element.get()), "");
    element->setText("one");
    element->setText("two");
    EXPECT_EQ(textOf(*element.get()), "two");
    element->setText("");
    EXPECT_EQ(written(*element.get()), "<T/>");
}

TEST(XmlElement, GivesTextsWithABufferAsTheyWereSet) {
    xmlElementPtr const element(new xmlElement);
    TbString text("old");
    element->getText(text);
    EXPECT_EQ(text.buffer(), nullptr);
    text = "old";
    element->getTag(text);
    EXPECT_EQ(text.buffer(), nullptr);
    element->setText("");
    element->getText(text);
    EXPECT_STREQ(text.buffer(), "");
    EXPECT_EQ(text.capacity(), TbString("").capacity());
    element->setText(TbString());
    element->getText(text);
    EXPECT_EQ(text.buffer(), nullptr);
    element->setText("some text");
    element->getText(text);
    EXPECT_EQ(text.capacity(), TbString("some text").capacity());
}

TEST(XmlElement, LeavesTextsAndValuesSecret) {
    TbString secret("s");
    secret.keepSecret();
    TbString secretEmpty;
    secretEmpty.keepSecret();
    for (TbString const& given : {secret, secretEmpty}) {
        xmlElementPtr const element = newElement("a");
        element->setText(given);
        element->setText("plain");  // a string that was secret once stays so
        TbString text;
        element->getText(text);
        EXPECT_TRUE(text.isSecret());

        xmlElementPtr const other = newElement("a");
        other->setAttribute("name", given);
        TbString value;
        EXPECT_TRUE(other->getAttribute("name", value));
        EXPECT_TRUE(value.isSecret());
        other->setAttribute("name", "plain");  // an attribute is replaced whole
        TbString plain;
        EXPECT_TRUE(other->getAttribute("name", plain));
        EXPECT_FALSE(plain.isSecret());

        xmlElementPtr const third(new xmlElement(given));
        TbString tag;
        third->getTag(tag);
        EXPECT_TRUE(tag.isSecret());
        EXPECT_EQ(tag.buffer() == nullptr, given.buffer() == nullptr);

        xmlElementPtr const fourth = newElement("a");
        fourth->setAttribute(given, "plain");
        EXPECT_TRUE(fourth->getAttribute(given, plain));
        EXPECT_FALSE(plain.isSecret());
        for (auto const& [written, isSecret] : {std::pair{element, true}, {other, false}, {fourth, true}}) {
            TbStringStream out;
            written->toStream(out);
            EXPECT_EQ(out.isSecret(), isSecret);
        }
    }
}

TEST(XmlElement, GivesItsTag) {
    EXPECT_EQ(tagOf(*newElement("KVX").get()), "KVX");
    EXPECT_EQ(tagOf(*newElement("").get()), "");
    xmlElementPtr const plain(new xmlElement);
    EXPECT_EQ(tagOf(*plain.get()), "");
}

TEST(XmlElement, FindsChildrenByTagAndIndex) {
    xmlElementPtr const parent = parentOf({"A", "B", "A", "C", "A"});
    EXPECT_EQ(numberOf(childOf(*parent.get(), "A", 0)), "0");
    EXPECT_EQ(numberOf(childOf(*parent.get(), "A", 1)), "2");
    EXPECT_EQ(numberOf(childOf(*parent.get(), "A", 2)), "4");
    EXPECT_EQ(numberOf(childOf(*parent.get(), "B", 0)), "1");
}

TEST(XmlElement, TellsAMissingTagFromAMissingIndex) {
    xmlElementPtr const parent = parentOf({"A", "A"});
    xmlElement* child = nullptr;
    EXPECT_FALSE(parent->getChild("B", 0, &child));
    EXPECT_FALSE(parent->getChild("B", -1, &child));
    EXPECT_FALSE(newElement("empty")->getChild("A", 0, &child));
    for (std::int64_t const wide :
         {INT64_C(2), INT64_C(-1), INT64_C(4294967296), INT64_C(4294967297), INT64_C(-4294967296)}) {
        auto const index = static_cast<long>(wide);
        if (index != wide) {
            continue;  // no index where a long has 32 bits
        }
        EXPECT_EQ(thrownCode([&] { parent->getChild("A", index, &child); }), KVX_E_OUT_OF_RANGE) << index;
        EXPECT_FALSE(parent->removeChild("A", index)) << index;
    }
    EXPECT_EQ(child, nullptr);
    EXPECT_EQ(enumeratedTags(*parent.get(), ""), (Tags{"A", "A"}));
}

TEST(XmlElement, CreatesNothingByLookingForIt) {
    xmlElementPtr const parent = newElement("P");
    std::int32_t const living = TbRefCounter::m_nTotalRef;
    xmlElement* child = nullptr;
    EXPECT_FALSE(parent->getChild("A", 0, &child));
    EXPECT_FALSE(hasAttribute(*parent.get(), "a"));
    EXPECT_EQ(enumeratedTags(*parent.get(), "A"), Tags{});
    EXPECT_FALSE(parent->removeChild("A", 0));
    EXPECT_EQ(TbRefCounter::m_nTotalRef, living);
    EXPECT_EQ(written(*parent.get()), "<P/>");
}

TEST(XmlElement, RemovesChildrenByIndex) {
    xmlElementPtr const parent = parentOf({"A", "B", "A", "A"});
    EXPECT_TRUE(parent->removeChild("A", 1));
    EXPECT_EQ(numberOf(childOf(*parent.get(), "A", 1)), "3");
    EXPECT_EQ(enumeratedTags(*parent.get(), ""), (Tags{"A", "B", "A"}));
    EXPECT_FALSE(parent->removeChild("A", 2));
    EXPECT_TRUE(parent->removeChild("A", 0));
    EXPECT_TRUE(parent->removeChild("A", 0));
    EXPECT_FALSE(parent->removeChild("A", 0));
    xmlElement* child = nullptr;
    EXPECT_FALSE(parent->getChild("A", 0, &child));  // the tag went with its last child
    EXPECT_TRUE(parent->removeChild("B", 0));
    EXPECT_EQ(written(*parent.get()), "<P/>");
    parent->insertChild(newElement("A").get());
    EXPECT_EQ(written(*parent.get()), "<P><A/></P>");
}

TEST(XmlElement, KnowsItsParent) {
    xmlElementPtr const parent = parentOf({"A"});
    xmlElementPtr const child = childOf(*parent.get(), "A");
    xmlElement* found = nullptr;
    EXPECT_TRUE(child->getParent(&found));
    EXPECT_EQ(found, parent.get());
    EXPECT_EQ(child->parent(), parent.get());
    EXPECT_EQ(parent->refCount(), 2);
    found->release();
    EXPECT_TRUE(parent->getParent(&found));
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(parent->parent(), nullptr);
}

TEST(XmlElement, OrdersByTag) {
    xmlElementPtr const a = newElement("zz");
    xmlElementPtr const b = newElement("aaa");
    xmlElementPtr const other = newElement("zz");
    EXPECT_TRUE(*a.get() < *b.get());  // shorter first
    EXPECT_FALSE(*b.get() < *a.get());
    EXPECT_FALSE(*a.get() < *other.get());
    EXPECT_TRUE(*a.get() == *other.get());
    EXPECT_FALSE(*a.get() == *b.get());
    EXPECT_FALSE(*a.get() == static_cast<TbFindable const&>(TbString("zz")));
    EXPECT_FALSE(*a.get() < static_cast<TbFindable const&>(TbString("zzz")));
}

// Containers copy through `assign`, which elements do not have: they belong behind handles.
TEST(XmlElement, KeepsCopyingNothing) {
    static_assert(!std::is_copy_constructible_v<xmlElement>);
    static_assert(!std::is_copy_assignable_v<xmlElement>);
    xmlElementPtr const from = newElement("FROM");
    xmlElementPtr const to = newElement("TO");
    static_cast<TbObject&>(*to.get()) = *from.get();
    EXPECT_EQ(written(*to.get()), "<TO/>");
}

TEST(XmlClasses, NameThemselvesAndTheirBases) {
    struct Case {
        TbObject const& m_Object;
        Tags m_Accepted;
    };
    xmlElementPtr const element = newElement("T");
    xmlEnumPtr const enumerator(new xmlElementEnum);
    Case const cases[] = {
        {*element.get(), {"xmlElement", "TbFindable", "TbObject"}},
        {element, {"xmlElementPtr", "TbPtr", "TbObject"}},
        {enumerator, {"xmlEnumPtr", "TbPtr", "TbObject"}},
        {*enumerator.get(), {"xmlElementEnum", "TbObject"}},
    };
    for (Case const& row : cases) {
        for (char const* const name :
             {"xmlElement", "xmlElementPtr", "xmlElementEnum", "xmlEnumPtr", "TbFindable", "TbPtr", "TbObject",
              "TbRefCounter", "TbString", "", "xmlelement", "xmlElementX"}) {
            bool const isAccepted =
                std::find(row.m_Accepted.begin(), row.m_Accepted.end(), name) != row.m_Accepted.end();
            EXPECT_EQ(row.m_Object.isInstanceOf(name), isAccepted) << row.m_Accepted[0] << " as " << name;
        }
        EXPECT_FALSE(row.m_Object.isInstanceOf(nullptr));
        TbObject* fresh = nullptr;
        row.m_Object.getAllocator()(&fresh);
        EXPECT_TRUE(fresh->isInstanceOf(row.m_Accepted[0].c_str()));
        EXPECT_EQ(fresh->refCount(), 0);
        row.m_Object.getAllocator()(&fresh);  // destroys the first one
        delete fresh;
    }
}

TEST(XmlElementPtr, CountsItsTarget) {
    xmlElementPtr empty;
    EXPECT_EQ(empty.get(), nullptr);
    EXPECT_EQ(xmlElementPtr(nullptr).get(), nullptr);
    xmlElementPtr const first = newElement("T");
    EXPECT_EQ(first->refCount(), 1);
    empty = first;
    EXPECT_EQ(first->refCount(), 2);
    xmlElementPtr const copy(first);
    EXPECT_EQ(first->refCount(), 3);
    empty.reset();
    EXPECT_EQ(first->refCount(), 2);
}

TEST(XmlElementEnum, FollowsTheOrderOfInsertion) {
    xmlElementPtr const parent = parentOf({"B", "A", "CC", "A"});
    EXPECT_EQ(enumeratedTags(*parent.get(), ""), (Tags{"B", "A", "CC", "A"}));
    EXPECT_EQ(enumeratedTags(*parent.get(), "X"), Tags{});
    EXPECT_EQ(enumeratedTags(*newElement("empty").get(), ""), Tags{});
}

// Callers that want one tag check each child's; stored documents are read this way.
TEST(XmlElementEnum, KeepsGoingThroughLaterChildrenOfOtherTags) {
    xmlElementPtr const parent = parentOf({"A", "B", "A"});
    EXPECT_EQ(enumeratedTags(*parent.get(), "B"), (Tags{"B", "A"}));
    EXPECT_EQ(enumeratedTags(*parent.get(), "A"), (Tags{"A", "B", "A"}));
}

TEST(XmlElementEnum, AddsOneReferencePerChild) {
    xmlElementPtr const parent = parentOf({"A"});
    xmlElementEnum* raw = nullptr;
    parent->enumChildren("", &raw);
    EXPECT_EQ(raw->refCount(), 1);
    EXPECT_EQ(parent->refCount(), 2);
    xmlEnumPtr enumerator;
    enumerator.adopt(raw);
    EXPECT_FALSE(enumerator->isEmpty());
    xmlElement* child = nullptr;
    EXPECT_TRUE(enumerator->getNext(&child));
    EXPECT_EQ(child->refCount(), 2);
    child->release();
    EXPECT_TRUE(enumerator->isEmpty());
    xmlElement* const before = child;
    EXPECT_FALSE(enumerator->getNext(&child));
    EXPECT_EQ(child, before) << "written at the end";
    enumerator.reset();
    EXPECT_EQ(parent->refCount(), 1);
}

TEST(XmlElementEnum, StartsOverOnAnotherElement) {
    xmlElementPtr const first = parentOf({"A"});
    xmlElementPtr const second = parentOf({"B", "C"});
    xmlEnumPtr const enumerator(new xmlElementEnum);
    EXPECT_TRUE(enumerator->isEmpty());
    enumerator->create(first.get(), "");
    enumerator->create(second.get(), "C");
    EXPECT_EQ(first->refCount(), 1);
    EXPECT_EQ(second->refCount(), 2);
    xmlElement* child = nullptr;
    EXPECT_TRUE(enumerator->getNext(&child));
    EXPECT_EQ(tagOf(*child), "C");
    child->release();
    enumerator->create(second.get(), "X");
    EXPECT_TRUE(enumerator->isEmpty());
}

TEST(XmlElementEnum, SeesChildrenThatComeWhileItWorks) {
    xmlElementPtr const parent = parentOf({"A"});
    xmlEnumPtr const enumerator(new xmlElementEnum);
    enumerator->create(parent.get(), "");
    parent->insertChild(newElement("B").get());
    xmlElement* child = nullptr;
    EXPECT_TRUE(enumerator->getNext(&child));
    child->release();
    EXPECT_TRUE(enumerator->getNext(&child));
    EXPECT_EQ(tagOf(*child), "B");
    child->release();
}

}  // namespace
