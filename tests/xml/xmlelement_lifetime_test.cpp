// Lifetimes of elements: references, parents and children, documents of any depth.
//
// Live objects are counted before and after. Deep documents are built and destroyed on a thread with a small stack,
// since neither may recurse.

#include <gtest/gtest.h>

#include "foundation/tbobject.h"
#include "tests/support/smallstack.h"
#include "tests/xml/xmlsupport.h"

using namespace kvxtest;

namespace {

constexpr std::size_t kSmallStack = 64 * 1024;
constexpr std::size_t kDeep = 1000000;

std::string repeated(std::string const& text, std::size_t count) {
    std::string result;
    result.reserve(text.size() * count);
    for (std::size_t i = 0; i < count; ++i) {
        result += text;
    }
    return result;
}

TEST(XmlLifetime, AChildCarriesOneReferenceOfItsParent) {
    xmlElementPtr const parent = newElement("P");
    xmlElementPtr const child = newElement("C");
    parent->insertChild(child.get());
    EXPECT_EQ(child->refCount(), 2);
    EXPECT_EQ(parent->refCount(), 1);
    xmlElement* found = nullptr;
    EXPECT_TRUE(parent->getChild("C", 0, &found));
    EXPECT_EQ(child->refCount(), 3);
    found->release();
    EXPECT_TRUE(parent->removeChild("C", 0));
    EXPECT_EQ(child->refCount(), 1);
}

TEST(XmlLifetime, TakesANewElementOver) {
    xmlElementPtr const parent = newElement("P");
    parent->insertChild(new xmlElement("C"));
    EXPECT_EQ(childOf(*parent.get(), "C")->refCount(), 2);
}

TEST(XmlLifetime, AChildWithoutATagDiesLikeAnyOther) {
    xmlElementPtr const parent = newElement("P");
    xmlElementPtr const child(new xmlElement);
    parent->insertChild(child.get());
    EXPECT_TRUE(parent->removeChild("", 0));
    EXPECT_EQ(child->refCount(), 1);
    parent->insertChild(child.get());
}

// A parsed child brings its place in the list of its first parent along; in other lists it has one like any other.
TEST(XmlLifetime, AParsedChildMovesBetweenParents) {
    xmlElementPtr const root = parsed("<P><a/><C n='1'>text<d/></C><b/></P><Q/>").m_Document;
    xmlElementPtr const first = childOf(*root.get(), "P");
    xmlElementPtr const second = childOf(*root.get(), "Q");
    xmlElementPtr const child = childOf(*first.get(), "C");
    for (int round = 0; round < 3; ++round) {
        second->insertChild(child.get());
        second->insertChild(child.get());
        EXPECT_TRUE(first->removeChild("C", 0));
        first->insertChild(child.get());
        EXPECT_TRUE(second->removeChild("C", 1));
        EXPECT_TRUE(second->removeChild("C", 0));
        EXPECT_EQ(written(*root.get()), "<P><a/><b/><C n=\"1\">text<d/></C></P><Q/>");
    }
    EXPECT_EQ(child->refCount(), 2);
}

TEST(XmlLifetime, AFetchedChildOutlivesItsRemoval) {
    xmlElementPtr const parent = newElement("P");
    parent->insertChild(newElement("C").get());
    xmlElementPtr const child = childOf(*parent.get(), "C");
    child->setText("alive");
    EXPECT_TRUE(parent->removeChild("C", 0));
    EXPECT_EQ(textOf(*child.get()), "alive");
    EXPECT_EQ(child->refCount(), 1);
    EXPECT_EQ(child->parent(), nullptr);
}

TEST(XmlLifetime, ASurvivingChildHasNoParent) {
    xmlElementPtr child;
    xmlElementPtr grandchild;
    {
        xmlElementPtr const root = parsed("<a><b><c/></b><d/></a>").m_Document;
        child = childOf(*childOf(*root.get(), "a").get(), "b");
        grandchild = childOf(*child.get(), "c");
    }
    EXPECT_EQ(child->refCount(), 1);
    EXPECT_EQ(child->parent(), nullptr);
    EXPECT_EQ(grandchild->parent(), child.get());
    EXPECT_EQ(written(*child.get()), "<b><c/></b>");
    child.reset();
    EXPECT_EQ(grandchild->parent(), nullptr);
    EXPECT_EQ(grandchild->refCount(), 1);
}

TEST(XmlLifetime, AChildOfTwoParentsKeepsTheLivingOne) {
    xmlElementPtr first = newElement("1");
    xmlElementPtr second = newElement("2");
    xmlElementPtr const child = newElement("C");
    first->insertChild(child.get());
    second->insertChild(child.get());
    EXPECT_EQ(child->parent(), second.get());
    first.reset();
    EXPECT_EQ(child->parent(), second.get());
    EXPECT_EQ(child->refCount(), 2);
    second.reset();
    EXPECT_EQ(child->parent(), nullptr);
    EXPECT_EQ(child->refCount(), 1);
}

TEST(XmlLifetime, RemovingFromAnotherParentLeavesTheParent) {
    xmlElementPtr const first = newElement("1");
    xmlElementPtr const second = newElement("2");
    xmlElementPtr const child = newElement("C");
    first->insertChild(child.get());
    second->insertChild(child.get());
    EXPECT_TRUE(first->removeChild("C", 0));
    EXPECT_EQ(child->parent(), second.get());
}

TEST(XmlLifetime, DestroysSharedChildrenOnce) {
    // Twice below one parent, and once more below a sibling.
    xmlElementPtr root = newElement("R");
    xmlElementPtr shared = newElement("S");
    shared->insertChild(newElement("T").get());
    xmlElementPtr sibling = newElement("Q");
    root->insertChild(shared.get());
    root->insertChild(sibling.get());
    root->insertChild(shared.get());
    sibling->insertChild(shared.get());
    EXPECT_EQ(shared->refCount(), 4);
    sibling.reset();
    shared.reset();
    std::int32_t const living = TbRefCounter::m_nTotalRef;
    root.reset();
    EXPECT_LT(TbRefCounter::m_nTotalRef, living);  // that all are gone is checked after the test
}

TEST(XmlLifetime, AnEnumeratorKeepsItsElementAlive) {
    xmlElementPtr parent = newElement("P");
    parent->insertChild(newElement("C").get());
    xmlElementEnum* raw = nullptr;
    parent->enumChildren("", &raw);
    xmlEnumPtr enumerator;
    enumerator.adopt(raw);
    parent.reset();
    xmlElement* child = nullptr;
    ASSERT_TRUE(enumerator->getNext(&child));
    xmlElementPtr holder;
    holder.adopt(child);
    EXPECT_EQ(written(*child->parent()), "<P><C/></P>");
    enumerator.reset();
    EXPECT_EQ(child->parent(), nullptr);
}

TEST(XmlDepth, AMillionLevelsParseAreWrittenAndDieOnASmallStack) {
    std::string const text = repeated("<a>", kDeep) + repeated("</a>", kDeep);
    std::string const expected = repeated("<a>", kDeep - 1) + "<a/>" + repeated("</a>", kDeep - 1);
    onStackOf(kSmallStack, [&] {
        Parsed result = parsed(text);
        ASSERT_EQ(result.m_Code, 0);
        EXPECT_TRUE(written(*result.m_Document.get()) == expected);
        result.m_Document.reset();
    });
}

TEST(XmlDepth, AnUnfinishedDocumentOfAMillionLevelsDiesOnASmallStack) {
    std::string const text = repeated("<a>", kDeep);
    onStackOf(kSmallStack, [&] {
        EXPECT_EQ(parsed(text).m_Code, 2);
        EXPECT_EQ(parsed(text + "<!").m_Code, 1);
    });
}

TEST(XmlDepth, ARemovedSubtreeDiesOnASmallStack) {
    std::string const text = "<r>" + repeated("<a>", kDeep / 4) + repeated("</>", kDeep / 4) + "</r>";
    onStackOf(kSmallStack, [&] {
        Parsed const result = parsed(text);
        ASSERT_EQ(result.m_Code, 0);
        xmlElementPtr const root = childOf(*result.m_Document.get(), "r");
        EXPECT_TRUE(root->removeChild("a", 0));
        EXPECT_EQ(written(*root.get()), "<r/>");
    });
}

TEST(XmlDepth, LevelsHeldTwiceDieOnASmallStack) {
    onStackOf(kSmallStack, [] {
        xmlElementPtr root = newElement("a");
        xmlElement* last = root.get();
        for (std::size_t i = 0; i < kDeep / 4; ++i) {
            xmlElementPtr const next = newElement("a");
            last->insertChild(next.get());
            last->insertChild(next.get());
            last = next.get();
        }
        root.reset();
    });
}

TEST(XmlDepth, AHolderInTheMiddleSavesTheLowerHalf) {
    onStackOf(kSmallStack, [] {
        constexpr std::size_t kLevels = 100000;
        xmlElementPtr root = newElement("a");
        xmlElementPtr middle;
        xmlElement* last = root.get();
        for (std::size_t i = 0; i < kLevels; ++i) {
            last->insertChild(new xmlElement("a"));
            xmlElementPtr const next = childOf(*last, "a");
            last = next.get();
            if (i == kLevels / 2) {
                middle = next;
            }
        }
        root.reset();
        EXPECT_EQ(middle->parent(), nullptr);
        EXPECT_EQ(middle->refCount(), 1);
        std::size_t levels = 0;
        for (xmlElement* element = last; element != middle.get(); element = element->parent()) {
            ++levels;
        }
        EXPECT_EQ(levels, kLevels - kLevels / 2 - 1);
    });
}

TEST(XmlDepth, SurvivorsThatFormAnotherTreeDieOnASmallStack) {
    onStackOf(kSmallStack, [] {
        std::vector<xmlElementPtr> survivors;
        {
            xmlElementPtr const parent = newElement("a");
            for (std::size_t i = 0; i < kDeep / 10; ++i) {
                survivors.push_back(newElement("a"));
                parent->insertChild(survivors.back().get());
            }
        }
        for (std::size_t i = 1; i < survivors.size(); ++i) {
            survivors[i - 1]->insertChild(survivors[i].get());
        }
        xmlElementPtr root = survivors.front();
        survivors.clear();
        EXPECT_EQ(root->refCount(), 1);
        root.reset();
    });
}

}  // namespace
