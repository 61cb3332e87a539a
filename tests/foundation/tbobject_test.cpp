// The object model: class names, factories, reference counts, assignment through base classes.
//
// One table names all classes, and most tests walk it. Odd: the order of the virtual functions is part of the binary
// interface, so it is tested slot by slot; counts are never copied.

#include "foundation/tbobject.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "foundation/tbmultimap.h"
#include "foundation/tbstring.h"
#include "foundation/tbstringstream.h"
#include "tests/foundation/foundationsupport.h"

using namespace kvxtest;

namespace {

/// One class: how to make it, its factory, and the names it answers to through the inherited operation.
struct ClassRow {
    char const* m_Name;
    std::function<TbObject*()> m_Make;
    TbAllocator m_Factory;
    std::set<std::string> m_Accepted;
};

std::vector<ClassRow> const& classRows() {
    // clang-format off
    static std::vector<ClassRow> const rows = {
        {"TbObject",         [] { return new TbObject; },         &TbObject::allocate,         {"TbObject"}},
        {"TbFindable",       [] { return new TbFindable; },       &TbFindable::allocate,       {"TbFindable", "TbObject"}},
        {"TbString",         [] { return new TbString; },         &TbString::allocate,         {"TbString", "TbFindable", "TbObject"}},
        {"TbStringStream",   [] { return new TbStringStream; },   &TbString::allocate,         {"TbString", "TbFindable", "TbObject"}},
        {"TbPtr",            [] { return new TbPtr; },            &TbPtr::allocate,            {"TbPtr", "TbObject"}},
        {"TbStrPtr",         [] { return new TbStrPtr; },         &TbStrPtr::allocate,         {"TbStrPtr", "TbFindable", "TbObject"}},
        {"TbVector",         [] { return new TbVector; },         &TbVector::allocate,         {"TbVector", "TbContainer", "TbObject"}},
        {"TbStack",          [] { return new TbStack; },          &TbStack::allocate,          {"TbStack", "TbVector", "TbContainer", "TbObject"}},
        {"TbFindableVector", [] { return new TbFindableVector; }, &TbFindableVector::allocate, {"TbFindableVector", "TbFindableContainer", "TbFindable", "TbObject"}},
        {"TbTreeNode",       [] { return new TbTreeNode; },       &TbTreeNode::allocate,       {"TbTreeNode", "TbFindable", "TbObject"}},
        {"TbKeyValue",       [] { return new TbKeyValue; },       &TbKeyValue::allocate,       {"TbKeyValue", "TbFindable", "TbObject"}},
        {"TbMapItem",        [] { return new TbMapItem; },        &TbMapItem::allocate,        {"TbMapItem", "TbFindable", "TbObject"}},
        {"TbRBTree",         [] { return new TbRBTree; },         &TbRBTree::allocate,         {"TbRBTree", "TbContainer", "TbObject"}},
        {"TbMap",            [] { return new TbMap; },            &TbMap::allocate,            {"TbMap", "TbRBTree", "TbContainer", "TbObject"}},
        {"TbStrMap",         [] { return new TbStrMap; },         &TbStrMap::allocate,         {"TbStrMap", "TbMap", "TbRBTree", "TbContainer", "TbObject"}},
        // Answering as the tree is the published slip of the multimaps.
        {"TbMultimap",       [] { return new TbMultimap; },       &TbMultimap::allocate,       {"TbRBTree", "TbContainer", "TbObject"}},
        {"TbStrPtrMultimap", [] { return new TbStrPtrMultimap; }, &TbStrPtrMultimap::allocate, {"TbRBTree", "TbContainer", "TbObject"}},
    };
    // clang-format on
    return rows;
}

std::vector<std::string> allNames() {
    std::vector<std::string> names = {"TbRefCounter",
                                      "TbContainer",
                                      "TbFindableContainer",
                                      "",
                                      "Tb",
                                      "TbStrin",
                                      "TbStringX",
                                      "tbstring",
                                      "TBOBJECT",
                                      "?",
                                      "TbObject "};
    for (ClassRow const& row : classRows()) {
        names.emplace_back(row.m_Name);
    }
    return names;
}

TEST(IsInstanceOf, AnswersForEveryClassAndEveryName) {
    for (ClassRow const& row : classRows()) {
        std::unique_ptr<TbObject> const object(row.m_Make());
        for (std::string const& name : allNames()) {
            EXPECT_EQ(object->isInstanceOf(name.c_str()), row.m_Accepted.count(name) != 0)
                << row.m_Name << " / " << name;
        }
        EXPECT_FALSE(object->isInstanceOf(nullptr)) << row.m_Name;
    }
}

TEST(IsInstanceOf, NeverAcceptsTheRootOrTheEmptyName) {
    for (ClassRow const& row : classRows()) {
        std::unique_ptr<TbObject> const object(row.m_Make());
        EXPECT_FALSE(object->isInstanceOf("TbRefCounter")) << row.m_Name;
        EXPECT_FALSE(object->isInstanceOf("")) << row.m_Name;
    }
}

TEST(IsInstanceOf, KeepsTheMultimapsOwnNonConstOperationApart) {
    // Deliberately another operation than the inherited one: only a non-const multimap knows its own name.
    TbMultimap multimap;
    EXPECT_TRUE(multimap.isInstanceOf("TbMultimap"));
    EXPECT_TRUE(multimap.isInstanceOf("TbRBTree"));
    EXPECT_TRUE(multimap.isInstanceOf("TbContainer"));
    EXPECT_TRUE(multimap.isInstanceOf("TbObject"));
    EXPECT_FALSE(multimap.isInstanceOf("TbStrPtrMultimap"));
    EXPECT_FALSE(multimap.isInstanceOf("TbRefCounter"));
    EXPECT_FALSE(static_cast<TbRBTree&>(multimap).isInstanceOf("TbMultimap"));
    EXPECT_FALSE(static_cast<TbObject const&>(multimap).isInstanceOf("TbMultimap"));

    TbStrPtrMultimap strings;
    EXPECT_TRUE(strings.isInstanceOf("TbStrPtrMultimap"));
    EXPECT_TRUE(strings.isInstanceOf("TbMultimap"));
    EXPECT_TRUE(strings.isInstanceOf("TbRBTree"));
    EXPECT_TRUE(static_cast<TbMultimap&>(strings).isInstanceOf("TbStrPtrMultimap"));
    EXPECT_FALSE(static_cast<TbObject&>(strings).isInstanceOf("TbStrPtrMultimap"));
}

TEST(GetAllocator, GivesEveryClassItsOwnFactory) {
    for (ClassRow const& row : classRows()) {
        std::unique_ptr<TbObject> const object(row.m_Make());
        EXPECT_EQ(object->getAllocator(), row.m_Factory) << row.m_Name;
        TbObject* slot = nullptr;
        object->getAllocator()(&slot);
        std::unique_ptr<TbObject> const fresh(slot);
        ASSERT_NE(fresh, nullptr) << row.m_Name;
        EXPECT_EQ(fresh->getAllocator(), row.m_Factory) << row.m_Name;
        EXPECT_EQ(fresh->refCount(), 0) << row.m_Name;
    }
}

TEST(Allocate, DestroysWhatTheSlotHoldsEvenIfItIsCounted) {
    for (ClassRow const& row : classRows()) {
        bool isGone = false;
        TbObject* slot = new Witness(&isGone);
        slot->addRef();
        row.m_Factory(&slot);
        EXPECT_TRUE(isGone) << row.m_Name;
        ASSERT_NE(slot, nullptr);
        delete slot;
    }
}

TEST(Allocate, RaisesOutOfMemoryAndLeavesTheSlotEmpty) {
    for (ClassRow const& row : classRows()) {
        TbObject* slot = new TbString("old");
        FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
        EXPECT_EQ(thrownCode([&] { row.m_Factory(&slot); }), KVX_E_OUT_OF_MEMORY) << row.m_Name;
        EXPECT_EQ(slot, nullptr) << row.m_Name;
    }
}

TEST(New, RaisesOutOfMemoryForEveryClass) {
    for (ClassRow const& row : classRows()) {
        FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
        EXPECT_EQ(thrownCode([&] { delete row.m_Make(); }), KVX_E_OUT_OF_MEMORY) << row.m_Name;
    }
}

TEST(TotalRef, CountsEveryObjectWhereverItLives) {
    std::int32_t const start = TbRefCounter::m_nTotalRef;
    {
        TbString const onTheStack("a");
        EXPECT_EQ(TbRefCounter::m_nTotalRef, start + 1);
        std::unique_ptr<TbObject> const onTheHeap(new TbObject);
        EXPECT_EQ(TbRefCounter::m_nTotalRef, start + 2);
        TbStrPtr const withEmbeddedOnes;
        EXPECT_EQ(TbRefCounter::m_nTotalRef, start + 5) << "itself, its key, its value";
        TbString const copy(onTheStack);
        EXPECT_EQ(TbRefCounter::m_nTotalRef, start + 6);
    }
    EXPECT_EQ(TbRefCounter::m_nTotalRef, start);
}

TEST(TotalRef, ReturnsToItsStartAfterAnyMixOfObjects) {
    std::int32_t const start = TbRefCounter::m_nTotalRef;
    {
        std::vector<std::unique_ptr<TbObject>> objects;
        for (int round = 0; round < 3; ++round) {
            for (ClassRow const& row : classRows()) {
                objects.emplace_back(row.m_Make());
            }
        }
        EXPECT_GE(TbRefCounter::m_nTotalRef, start + static_cast<std::int32_t>(objects.size()));
        TbStrMap map;
        map[TbString("a")] = TbString("b");
        TbStrPtrMultimap children;
        children.put(TbString("k"), TbPtr(new TbString("v")));
    }
    EXPECT_EQ(TbRefCounter::m_nTotalRef, start);
}

TEST(TbRefCounter, CopiesNoCount) {
    TbString original("a");
    original.addRef();
    original.addRef();
    TbString copy(original);
    EXPECT_EQ(copy.refCount(), 0);
    copy.addRef();
    copy = original;
    EXPECT_EQ(copy.refCount(), 1);
    EXPECT_EQ(original.refCount(), 2);
}

/// A counted object without the object model.
class Counted : public TbRefCounter {
public:
    int m_Number = 0;
};

TEST(TbRefCounter, LeavesBothCountsWhenItIsAssigned) {
    Counted left;
    Counted right;
    right.m_Number = 7;
    left.addRef();
    right.addRef();
    right.addRef();
    left = right;
    EXPECT_EQ(left.m_Number, 7);
    EXPECT_EQ(left.refCount(), 1);
    EXPECT_EQ(right.refCount(), 2);
}

TEST(TbRefCounter, DestroysItselfWithTheLastReference) {
    bool isGone = false;
    TbRefCounter* const object = new Witness(&isGone);
    EXPECT_EQ(object->refCount(), 0);
    object->addRef();
    object->addRef();
    object->release();
    EXPECT_FALSE(isGone);
    object->release();
    EXPECT_TRUE(isGone);
}

TEST(TbObject, CopiesNothingByItsOwnAssign) {
    TbObject left;
    TbObject const right;
    EXPECT_EQ(&left.assign(right), &left);
    EXPECT_EQ(&(left = right), &left);
}

TEST(Assignment, DispatchesToTheMostDerivedAssignThroughEveryBase) {
    IntItem left(1);
    IntItem const right(2);
    TbObject& asObject = left;
    EXPECT_EQ(&(asObject = right), &asObject);
    EXPECT_EQ(left.number(), 2);
    TbFindable& asFindable = left;
    asFindable = static_cast<TbFindable const&>(IntItem(3));
    EXPECT_EQ(left.number(), 3);

    TbString text("old");
    static_cast<TbObject&>(text) = TbString("new");
    EXPECT_TRUE(text == "new");
    static_cast<TbFindable&>(text) = static_cast<TbFindable const&>(TbString("newer"));
    EXPECT_TRUE(text == "newer");
}

TEST(Assignment, CopiesContainersDeeplyThroughTheRootReference) {
    TbStrMap source;
    source[TbString("k")] = TbString("v");
    TbStrMap target;
    target[TbString("old")] = TbString("x");
    static_cast<TbObject&>(target) = static_cast<TbObject const&>(source);
    source[TbString("k")] = TbString("changed");
    EXPECT_EQ(target.count(), 1U);
    EXPECT_TRUE(target[TbString("k")] == "v");

    TbVector shallow;
    TbObject element;
    TbVector elements;
    elements.push_back(&element);
    static_cast<TbObject&>(shallow) = elements;
    EXPECT_EQ(shallow.at(0), &element);
}

TEST(TbFindable, IsNeitherLessThanNorEqualToAnything) {
    TbFindable const one;
    TbFindable const two;
    EXPECT_FALSE(one < two);
    EXPECT_FALSE(one == two);
    EXPECT_FALSE(one == one);
    TbFindable const& base = IntItem(1);
    EXPECT_TRUE(base == IntItem(1)) << "derived classes override both";
    EXPECT_TRUE(base < IntItem(2));
}

#if defined(__x86_64__) || defined(__i386__)

/// The place of a virtual operation in its class's table, the two entries of the destructor being 0 and 1. A pointer to
/// a virtual member function holds its offset plus one on these platforms.
template <class Member>
std::size_t slotOf(Member member) {
    std::uintptr_t words[2] = {};
    static_assert(sizeof(member) == sizeof(words), "offset and adjustment");
    std::memcpy(words, &member, sizeof(words));
    return (words[0] - 1) / sizeof(void*);
}

TEST(SlotOrder, OfTheObjectModel) {
    EXPECT_EQ(slotOf(&TbObject::getAllocator), 2U);
    EXPECT_EQ(slotOf(&TbObject::assign), 3U);
    EXPECT_EQ(slotOf(static_cast<TbObject& (TbObject::*)(TbObject const&)>(&TbObject::operator=)), 4U);
    EXPECT_EQ(slotOf(&TbObject::isInstanceOf), 5U);
    EXPECT_EQ(slotOf(&TbFindable::operator<), 6U);
    EXPECT_EQ(slotOf(&TbFindable::operator==), 7U);
    EXPECT_EQ(slotOf(&TbPtr::isInstanceOf), 5U);
    EXPECT_EQ(slotOf(&TbStrPtr::assign), 3U);
}

TEST(SlotOrder, OfStrings) {
    EXPECT_EQ(slotOf(static_cast<TbString& (TbString::*)(TbObject const&)>(&TbString::assign)), 3U);
    EXPECT_EQ(slotOf(static_cast<bool (TbString::*)(TbFindable const&) const>(&TbString::operator==)), 7U);
    EXPECT_EQ(slotOf(static_cast<bool (TbString::*)(char const*) const>(&TbString::operator==)), 8U);
}

TEST(SlotOrder, OfContainersAndVectors) {
    EXPECT_EQ(slotOf(static_cast<TbObject& (TbContainer::*)(TbObject&)>(&TbContainer::assign)), 6U);
    EXPECT_EQ(slotOf(&TbContainer::clear), 7U);
    EXPECT_EQ(slotOf(static_cast<TbVector& (TbVector::*)(TbObject const&)>(&TbVector::assign)), 3U);
    EXPECT_EQ(slotOf(&TbVector::clear), 7U);
    EXPECT_EQ(slotOf(static_cast<TbObject& (TbFindableContainer::*)(TbObject&)>(&TbFindableContainer::assign)), 8U);
    EXPECT_EQ(slotOf(&TbFindableContainer::clear), 9U);
    EXPECT_EQ(slotOf(&TbFindableVector::clear), 9U);
    EXPECT_EQ(slotOf(&TbFindableVector::operator<), 6U);
}

TEST(SlotOrder, OfTreeAndMaps) {
    EXPECT_EQ(slotOf(static_cast<void (TbRBTree::*)()>(&TbRBTree::clear)), 7U);
    EXPECT_EQ(slotOf(&TbRBTree::put), 8U);
    EXPECT_EQ(slotOf(&TbRBTree::remove), 9U);
    EXPECT_EQ(slotOf(static_cast<void (TbRBTree::*)(TbTreeNode*)>(&TbRBTree::clear)), 10U);
    EXPECT_EQ(slotOf(&TbRBTree::find), 11U);

    EXPECT_EQ(slotOf(&TbMap::put), 8U);
    EXPECT_EQ(slotOf(&TbMap::remove), 9U);
    EXPECT_EQ(slotOf(static_cast<TbFindable& (TbMap::*)(TbFindable const&)>(&TbMap::operator[])), 12U);
    EXPECT_EQ(slotOf(&TbMap::insert), 13U);
    EXPECT_EQ(slotOf(&TbMap::begin), 14U);
    EXPECT_EQ(slotOf(&TbMap::end), 15U);
    EXPECT_EQ(slotOf(static_cast<TbString& (TbStrMap::*)(TbString const&)>(&TbStrMap::operator[])), 16U);
}

TEST(SlotOrder, OfMultimaps) {
    EXPECT_EQ(slotOf(static_cast<bool (TbMultimap::*)(char const*)>(&TbMultimap::isInstanceOf)), 12U);
    EXPECT_EQ(slotOf(&TbMultimap::operator[]), 13U);
    EXPECT_EQ(slotOf(static_cast<bool (TbMultimap::*)(TbFindable const&, long)>(&TbMultimap::remove)), 14U);
    EXPECT_EQ(slotOf(&TbMultimap::insert), 15U);
    EXPECT_EQ(slotOf(&TbMultimap::begin), 16U);
    EXPECT_EQ(slotOf(&TbMultimap::end), 17U);
    EXPECT_EQ(slotOf(static_cast<bool (TbMultimap::*)(TbFindable const&)>(&TbMultimap::remove)), 9U);
    EXPECT_EQ(
        slotOf(static_cast<TbFindable* (TbStrPtrMultimap::*)(TbString const&, TbPtr const&)>(&TbStrPtrMultimap::put)),
        18U);
    EXPECT_EQ(slotOf(static_cast<void (TbStrPtrMultimap::*)(TbStrPtr const&)>(&TbStrPtrMultimap::insert)), 19U);
}

#endif

TEST(New, MakesAnObjectInMemoryOfTheCallers) {
    std::int32_t const living = TbRefCounter::m_nTotalRef;
    alignas(TbString) unsigned char room[sizeof(TbString)];
    auto* const text = new (room) TbString("x");
    EXPECT_EQ(static_cast<void*>(text), static_cast<void*>(room));
    EXPECT_TRUE(*text == "x");
    text->~TbString();
    {
        FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
        EXPECT_EQ(thrownCode([&] { new (room) TbString("x"); }), KVX_E_OUT_OF_MEMORY);
    }
    EXPECT_EQ(TbRefCounter::m_nTotalRef, living);
}

TEST(TbRefCounter, NothrowNewAnswersNullWithoutMemory) {
    TbString* const made = new (std::nothrow) TbString("x");
    ASSERT_NE(made, nullptr);
    delete made;
    FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
    EXPECT_EQ(new (std::nothrow) TbObject, nullptr);
}

}  // namespace
