// The counted pointer: sharing, adopting, releasing, and what it does with null.
//
// A witness object reports its own death, so a test sees when the last reference goes.

#include "foundation/tbptr.h"

#include <gtest/gtest.h>

#include <memory>

#include "foundation/tbmap.h"
#include "foundation/tbstring.h"
#include "foundation/tbstrptr.h"
#include "tests/foundation/foundationsupport.h"

using namespace kvxtest;

namespace {

TEST(TbPtr, TakesOneReferenceAndGivesItBack) {
    bool isGone = false;
    auto* const object = new Witness(&isGone);
    {
        TbPtr const pointer(object);
        EXPECT_EQ(object->refCount(), 1);
        EXPECT_EQ(pointer.target(), object);
    }
    EXPECT_TRUE(isGone);
}

TEST(TbPtr, OfTwoLeavesTheTargetToTheSecond) {
    bool isGone = false;
    auto* const object = new Witness(&isGone);
    auto first = std::make_unique<TbPtr>(object);
    auto second = std::make_unique<TbPtr>(*first);
    EXPECT_EQ(object->refCount(), 2);
    first.reset();
    EXPECT_FALSE(isGone);
    EXPECT_EQ(object->refCount(), 1);
    second.reset();
    EXPECT_TRUE(isGone);
}

TEST(TbPtr, ReleasesItsOldTargetWhenItTakesAnother) {
    bool isFirstGone = false;
    bool isSecondGone = false;
    TbPtr pointer(new Witness(&isFirstGone));
    TbPtr const other(new Witness(&isSecondGone));
    EXPECT_EQ(&(pointer = other), &pointer);
    EXPECT_TRUE(isFirstGone);
    EXPECT_FALSE(isSecondGone);
    EXPECT_EQ(pointer.target(), other.target());
    EXPECT_EQ(other.target()->refCount(), 2);
}

TEST(TbPtr, SurvivesAssignmentFromItself) {
    bool isGone = false;
    TbPtr pointer(new Witness(&isGone));
    TbPtr const& same = pointer;
    pointer = same;
    EXPECT_FALSE(isGone);
    EXPECT_EQ(pointer.target()->refCount(), 1);
    TbPtr const second(pointer);
    pointer = second;
    EXPECT_EQ(pointer.target()->refCount(), 2);
}

TEST(TbPtr, TakesATargetThatOnlyItsOldTargetHeld) {
    // The old target dies in the assignment and with it the pointer that is assigned from.
    bool isGone = false;
    auto* const outer = new TbStrPtr(TbString("k"), TbPtr(new Witness(&isGone)));
    TbPtr pointer(outer);
    pointer = outer->value();
    EXPECT_FALSE(isGone);
    EXPECT_EQ(pointer.target()->refCount(), 1);
}

TEST(TbPtr, AdoptsAReferenceThatTheCallerHolds) {
    bool isGone = false;
    auto* const object = new Witness(&isGone);
    object->addRef();
    TbPtr pointer;
    pointer.adopt(object);
    EXPECT_EQ(object->refCount(), 1);
    pointer.reset();
    EXPECT_TRUE(isGone);
    EXPECT_EQ(pointer.target(), nullptr);
    pointer.reset();
}

TEST(TbPtr, MayBeEmpty) {
    TbPtr const empty;
    TbPtr const ofNull(nullptr);
    EXPECT_EQ(empty.target(), nullptr);
    EXPECT_EQ(ofNull.target(), nullptr);
    bool isGone = false;
    TbPtr pointer(new Witness(&isGone));
    pointer = empty;
    EXPECT_TRUE(isGone);
    TbPtr const copy(empty);
    EXPECT_EQ(copy.target(), nullptr);
}

TEST(TbPtr, KeepsItsTargetWhenAssignedThroughTheRootReference) {
    // Pointers have no `assign` of their own; only their own operator copies.
    bool isGone = false;
    TbPtr pointer(new Witness(&isGone));
    TbRefCounter* const target = pointer.target();
    TbPtr const other(new TbObject);
    static_cast<TbObject&>(pointer) = other;
    EXPECT_EQ(pointer.target(), target);
    pointer.assign(other);
    EXPECT_EQ(pointer.target(), target);
    EXPECT_FALSE(isGone);
}

TEST(TbStrPtr, CountsAsThreeObjects) {
    std::int32_t const start = TbRefCounter::m_nTotalRef;
    TbStrPtr const pair;
    EXPECT_EQ(TbRefCounter::m_nTotalRef, start + 3);
}

TEST(TbStrPtr, CopiesItsKeyAndSharesItsTarget) {
    TbString key("key");
    TbPtr const value(new TbObject);
    TbStrPtr const pair(key, value);
    key = TbString("changed");
    EXPECT_TRUE(pair.key() == "key");
    EXPECT_EQ(value.target()->refCount(), 2);

    TbStrPtr assigned(TbString("other"), TbPtr(new TbObject));
    static_cast<TbObject&>(assigned) = pair;
    EXPECT_TRUE(assigned.key() == "key");
    EXPECT_EQ(assigned.value().target(), value.target());
    EXPECT_EQ(value.target()->refCount(), 3);
    TbStrPtr const copy(pair);
    EXPECT_EQ(value.target()->refCount(), 4);
    TbStrPtr const& same = assigned;
    assigned = same;
    EXPECT_EQ(value.target()->refCount(), 4);
    EXPECT_TRUE(assigned.key() == "key");
}

TEST(TbStrPtr, OrdersByItsKeyAlone) {
    TbStrPtr const b(TbString("b"), TbPtr(new TbObject));
    TbStrPtr const alsoB(TbString("b"), TbPtr());
    TbStrPtr const aa(TbString("aa"), TbPtr());
    EXPECT_TRUE(b == alsoB);
    EXPECT_FALSE(b == aa);
    EXPECT_TRUE(b < aa) << "length first";
    EXPECT_FALSE(aa < b);
    EXPECT_FALSE(b < alsoB);
}

TEST(TbStrPtr, ComparesWithABareString) {
    TbStrPtr const pair(TbString("key"), TbPtr());
    EXPECT_TRUE(pair == TbString("key"));
    EXPECT_FALSE(pair == TbString("kex"));
    EXPECT_TRUE(pair < TbString("kez"));
    EXPECT_FALSE(pair < TbString("zz"));
}

TEST(TbStrPtr, IsNeitherLessThanNorEqualToAnythingElse) {
    TbStrPtr const pair(TbString(""), TbPtr());
    IntItem const number(5);
    TbFindable const plain;
    TbFindableVector const vector;
    TbMapItem const emptyItem;
    TbKeyValue const emptyPair;
    TbKeyValue const numberedPair(number, number);
    for (TbFindable const* other :
         {static_cast<TbFindable const*>(&number), &plain, static_cast<TbFindable const*>(&vector),
          static_cast<TbFindable const*>(&emptyItem), static_cast<TbFindable const*>(&emptyPair),
          static_cast<TbFindable const*>(&numberedPair)}) {
        EXPECT_FALSE(pair == *other);
        EXPECT_FALSE(pair < *other);
    }
}

TEST(TbStrPtr, ComparesWithWhatWrapsAString) {
    // In one multimap both kinds of pairs may stand side by side, so they must agree on an order.
    TbStrPtr const pair(TbString("b"), TbPtr());
    TbKeyValue const before(TbString("a"), TbString());
    TbMapItem const same(new TbStrPtr(TbString("b"), TbPtr()));
    EXPECT_TRUE(static_cast<TbFindable const&>(before) < pair);
    EXPECT_FALSE(pair < before);
    EXPECT_TRUE(pair == same);
    EXPECT_TRUE(static_cast<TbFindable const&>(same) == pair);
}

}  // namespace
