// Every allocation of the XML layer fails in turn.
//
// After each failure no object is left behind, no change is half done, and the same operation succeeds when repeated.

#include <gtest/gtest.h>

#include "foundation/tbexception.h"
#include "tallowin/codes.h"
#include "tests/support/allocations.h"
#include "tests/support/exceptions.h"
#include "tests/support/tbtext.h"
#include "tests/xml/xmlsupport.h"
#include "xml/xmlattributes.h"
#include "xml/xmlmemory.h"

using namespace kvxtest;

namespace {

// Values that are encoded again get memory of their own, and so does all that follows them in their element.
char const* const kText =
    "top<KVX A='1' C=3 D E=\"&lt;\" A='a rather long value: it does not fit where the first one stood'>"
    "<b/>text<c x/><b>another text<d/></b></KVX><KVX/>"
    "<many a=1 b=2 c=3 d=4 e=5 f=6 g=7 h=8 i=9 j=10><a/><b/><c/><d/><a/><b/><c/><d/><a/><e/></many>"
    "<plain a='\"' b='<' c='>' d='&x;' e='e' f='f' g=''><a b='<' c='' d=''>text</a><a b='<'>text<b/>text</a></plain>"
    "<more a1='' a2='' a3='' a4='' a5='' a6='' a7='' a8='' b1='' b2='' b3='' b4='' b5='' b6='' b7='' b8=''"
    " c1='' c2='' c3='' c4='' c5='' c6='' c7='' c8='' d1='' d2='' d3='' d4='' d5='' d6='' d7='' d8='' e1='' e2=''>"
    "text<a/></more>";

/// An element "P" with attribute, text and children A, B, A.
xmlElementPtr sample() {
    return childOf(*parsed("<P a='1' b='2'>text<A n='0'/><B n='1'/><A n='2'/></P>").m_Document.get(), "P");
}

std::string const kSample = "<P a=\"1\" b=\"2\">text<A n=\"0\"/><B n=\"1\"/><A n=\"2\"/></P>";

/// Fails every allocation of `operation` on a fresh sample. After a failure the sample is as before and the operation
/// then succeeds; after a success it is `expected`.
void expectAllOrNothing(std::function<void(xmlElement&)> const& operation, std::string const& expected) {
    xmlElementPtr element;
    forEveryFailure([&] { element = sample(); }, [&] { operation(*element.get()); },
                    [&](bool failed) {
                        if (failed) {
                            EXPECT_EQ(written(*element.get()), kSample);
                            operation(*element.get());
                        }
                        EXPECT_EQ(written(*element.get()), expected);
                        EXPECT_EQ(element->refCount(), 1);
                    });
}

TEST(XmlFailures, ParsingReleasesEverything) {
    long const runs = survivesEveryFailingAllocation([] {
        TbStringStream in(kText);
        xmlElement untouched;
        xmlElement* out = &untouched;
        try {
            EXPECT_EQ(xmlParser().parseText(in, &out), 0);
        } catch (TBFC_Exception const&) {
            EXPECT_EQ(out, &untouched);
            throw;
        }
        out->release();
    });
    EXPECT_GT(runs, 50);
}

TEST(XmlFailures, ParsingGoesOnAfterOneFailure) {
    int code = 0;
    std::string text;
    forEveryFailure([&] { code = -1; },
                    [&] {
                        TbStringStream in(kText);
                        xmlElement* out = nullptr;
                        code = xmlParser().parseText(in, &out);
                        xmlElementPtr document;
                        document.adopt(out);
                        text = written(*out);
                    },
                    [&](bool failed) {
                        EXPECT_TRUE(failed || code == 0);
                        EXPECT_EQ(parsed(kText).m_Code, 0);
                    });
    EXPECT_EQ(text, reparsed(kText));
}

TEST(XmlFailures, WritingLeavesTheTree) {
    xmlElementPtr const element = sample();
    std::string text;
    forEveryFailure([] {},
                    [&] {
                        TbStringStream out;
                        EXPECT_TRUE(element->toStream(out));
                        text = bytesOf(out.str());
                    },
                    [&](bool) { EXPECT_EQ(written(*element.get()), kSample); });
    EXPECT_EQ(text, kSample);
}

TEST(XmlFailures, WritingADeepTreeLeavesTheTree) {
    std::string text;
    for (int i = 0; i < 200; ++i) {
        text = "<a>" + text + "</a>";
    }
    xmlElementPtr const document = parsed(text).m_Document;
    std::string const expected = written(*document.get());
    survivesEveryFailingAllocation([&] {
        TbStringStream out;
        document->toStream(out);
        EXPECT_EQ(bytesOf(out.str()), expected);
    });
    EXPECT_EQ(written(*document.get()), expected);
}

TEST(XmlFailures, AnAttributeIsSetWholeOrNotAtAll) {
    expectAllOrNothing([](xmlElement& element) { element.setAttribute("c", "<3>"); },
                       "<P a=\"1\" b=\"2\" c=\"&lt;3&gt;\">" + kSample.substr(kSample.find("text")));
    std::string const value(1000, 'x');
    expectAllOrNothing([&](xmlElement& element) { element.setAttribute("a", stringOf(value)); },
                       "<P a=\"" + value + "\" b=\"2\">" + kSample.substr(kSample.find("text")));
}

TEST(XmlFailures, AFirstAttributeIsSetWholeOrNotAtAll) {
    xmlElementPtr element;
    forEveryFailure([&] { element = newElement("T"); }, [&] { element->setAttribute("a", "1"); },
                    [&](bool failed) { EXPECT_EQ(written(*element.get()), failed ? "<T/>" : "<T a=\"1\"/>"); });
}

TEST(XmlFailures, ReadingAnAttributeLeavesTheElement) {
    expectAllOrNothing(
        [](xmlElement& element) {
            TbString value;
            EXPECT_TRUE(element.getAttribute("a", value));
            EXPECT_EQ(bytesOf(value), "1");
        },
        kSample);
}

TEST(XmlFailures, AChildIsInsertedOrNot) {
    for (char const* const tag : {"A", "C"}) {  // beside others of its tag, and as the first one
        xmlElementPtr const child = newElement(tag);
        expectAllOrNothing(
            [&](xmlElement& element) {
                xmlElement* const before = child->parent();
                try {
                    element.insertChild(child.get());
                } catch (TBFC_Exception const&) {
                    EXPECT_EQ(child->parent(), before);
                    throw;
                }
                EXPECT_EQ(child->parent(), &element);
            },
            kSample.substr(0, kSample.size() - 4) + "<" + tag + "/></P>");
        EXPECT_EQ(child->refCount(), 1);
        EXPECT_EQ(child->parent(), nullptr);
    }
}

// The first search beyond the eighth child makes a tree. Without memory for it children are found all the same.
TEST(XmlFailures, ChildrenAreFoundAmongMany) {
    std::string text;
    for (int number = 0; number < 20; ++number) {
        text += "<a/><b" + std::to_string(number) + "/>";
    }
    TbString const same = "a";
    TbString const last = "b19";
    TbString const missing = "b20";
    xmlElementPtr element;
    forEveryFailure([&] { element = childOf(*parsed("<P>" + text + "</P>").m_Document.get(), "P"); },
                    [&] {
                        xmlElement* child = nullptr;
                        EXPECT_TRUE(element->getChild(last, 0, &child));
                        child->release();
                        EXPECT_FALSE(element->removeChild(missing, 0));
                        EXPECT_FALSE(element->removeChild(same, 20));
                        EXPECT_TRUE(element->removeChild(same, 19));
                        EXPECT_EQ(thrownCode([&] { element->getChild(same, 19, &child); }), KVX_E_OUT_OF_RANGE);
                    },
                    [&](bool failed) {
                        EXPECT_FALSE(failed);
                        EXPECT_EQ(tagOf(*childOf(*element.get(), "a", 18).get()), "a");
                    });
}

// A search beyond the eighth child and the 33rd attribute need a tree, which needs memory of its own.
TEST(XmlFailures, TheNinthAndTheTenthAreInsertedOrNot) {
    for (std::size_t const present : {7U, 8U, 9U, 10U, 31U, 32U, 33U, 34U}) {
        std::string children = "<b/><a/><b/><c/><a/><b/><d/><a/><b/><a/>";
        children += children + children + children;
        children.resize(4 * present);
        std::string names;
        for (std::size_t i = 0; i < present; ++i) {
            names += " n" + std::to_string(i) + "=\"\"";
        }
        for (std::string const tag : {"a", "x"}) {
            std::string const before = "<P" + names + ">" + children + "</P>";
            std::string const after = "<P" + names + " m=\"\">" + children + "<" + tag + "/></P>";
            xmlElementPtr element;
            forEveryFailure(
                [&] {
                    element = childOf(*parsed(before).m_Document.get(), "P");
                    EXPECT_FALSE(element->removeChild("missing", 0));  // makes the tree
                },
                [&] { element->insertChild(newElement(tag).get()); },
                [&](bool failed) {
                    if (failed) {
                        EXPECT_EQ(written(*element.get()), before);
                        element->insertChild(newElement(tag).get());
                    }
                    EXPECT_EQ(tagOf(*childOf(*element.get(), "b", 2).get()), "b");
                });
            forEveryFailure([&] { element = childOf(*parsed(before).m_Document.get(), "P"); },
                            [&] { element->setAttribute("m", ""); },
                            [&](bool failed) {
                                if (failed) {
                                    EXPECT_EQ(written(*element.get()), before);
                                    EXPECT_FALSE(hasAttribute(*element.get(), "m"));
                                    element->setAttribute("m", "");
                                }
                                element->insertChild(newElement(tag).get());
                                EXPECT_EQ(written(*element.get()), after);
                                EXPECT_TRUE(hasAttribute(*element.get(), "m") && hasAttribute(*element.get(), "n6"));
                            });
        }
    }
}

TEST(XmlFailures, AChildThatNobodyHoldsGoesWithTheFailure) {
    survivesEveryFailingAllocation([] {
        xmlElementPtr const parent(new xmlElement("P"));
        parent->insertChild(new xmlElement("C"));
    });
}

TEST(XmlFailures, AChildIsRemovedOrNot) {
    expectAllOrNothing([](xmlElement& element) { EXPECT_TRUE(element.removeChild("A", 1)); },
                       "<P a=\"1\" b=\"2\">text<A n=\"0\"/><B n=\"1\"/></P>");
    // The last one of its tag: the tag goes too.
    expectAllOrNothing(
        [](xmlElement& element) {
            xmlElementPtr const child = childOf(element, "B");
            try {
                EXPECT_TRUE(element.removeChild("B", 0));
            } catch (TBFC_Exception const&) {
                EXPECT_EQ(child->parent(), &element);
                throw;
            }
            EXPECT_EQ(child->parent(), nullptr);
        },
        "<P a=\"1\" b=\"2\">text<A n=\"0\"/><A n=\"2\"/></P>");
}

TEST(XmlFailures, AnEnumeratorIsMadeOrNot) {
    expectAllOrNothing(
        [](xmlElement& element) {
            xmlElementEnum* raw = nullptr;
            try {
                element.enumChildren("B", &raw);
            } catch (TBFC_Exception const&) {
                EXPECT_EQ(raw, nullptr);
                throw;
            }
            xmlEnumPtr enumerator;
            enumerator.adopt(raw);
            xmlElement* child = nullptr;
            EXPECT_TRUE(enumerator->getNext(&child));
            child->release();
        },
        kSample);
}

TEST(XmlFailures, AnElementSurvivesALostText) {
    xmlElementPtr element;
    forEveryFailure([&] { element = sample(); },
                    [&] { element->setText("a text that is much longer than the one before"); },
                    [&](bool) {
                        element->setText("text");
                        EXPECT_EQ(written(*element.get()), kSample);
                    });
}

TEST(XmlFailures, EncodingAndDecodingSurvive) {
    survivesEveryFailingAllocation([] {
        TbString text("a<b & \"c\"");
        XMLEncode(text, text);
        XMLDecode(text, text);
        EXPECT_EQ(bytesOf(text), "a<b & \"c\"");
    });
}

TEST(XmlFailures, FactoriesReportThemAsAnException) {
    for (TbAllocator const allocate :
         {&xmlElement::allocate, &xmlElementEnum::allocate, &xmlElementPtr::allocate, &xmlEnumPtr::allocate}) {
        TbObject* slot = nullptr;
        FailingAllocation const failing(0, FailingAllocation::Mode::kOnlyThat);
        EXPECT_EQ(thrownCode([&] { allocate(&slot); }), KVX_E_OUT_OF_MEMORY);
        EXPECT_EQ(slot, nullptr);
    }
}

// Lengths that nobody has the bytes for: they are refused before any byte is looked at.
TEST(XmlFailures, AttributesOfMoreThan32BitsAreRefused) {
    constexpr std::uint32_t kMost = UINT32_MAX;
    struct {
        std::uint32_t m_NameLength;
        std::uint32_t m_ValueLength;
    } const rows[] = {{1, kMost}, {1, kMost - 64}, {kMost, 1}, {kMost - 100, 100}, {kMost / 2, kMost / 2}};
    for (auto const& row : rows) {
        xmlPart const name{{"n", row.m_NameLength}};
        xmlPart const value{{"v", row.m_ValueLength}};
        EXPECT_EQ(
            thrownCode([&] { static_cast<void>(xmlAttribute::create(name, value, true, value.m_Text.m_Length)); }),
            KVX_E_OUT_OF_MEMORY)
            << row.m_NameLength << ", " << row.m_ValueLength;
    }
}

TEST(XmlFailures, ListsOfMoreThan32BitsAreRefused) {
    EXPECT_EQ(thrownCode([] { static_cast<void>(xmlResizePointers(nullptr, std::uint64_t{UINT32_MAX} + 1)); }),
              KVX_E_OUT_OF_MEMORY);
}

}  // namespace
