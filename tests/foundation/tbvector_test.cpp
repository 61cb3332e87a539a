// Both vector classes, typed tests over one list of operations, and their container bases.
//
// Elements are borrowed addresses, so tests use the address of any object. Odd: popping an empty vector wraps its
// count; a failed growth keeps the raised capacity.

#include "foundation/tbvector.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <random>
#include <vector>

#include "foundation/tbmemory.h"
#include "foundation/tbstring.h"
#include "tests/foundation/foundationsupport.h"
#include "tests/support/random.h"

using namespace kvxtest;

namespace {

/// The two vector classes have the same operations; every test here runs with both.
template <class Vector>
class Vectors : public testing::Test {
protected:
    /// A vector of the first `count` elements.
    Vector filled(std::uint32_t count) {
        Vector vector;
        for (std::uint32_t i = 0; i < count; ++i) {
            vector.push_back(&m_Elements[i]);
        }
        return vector;
    }

    /// The elements by their positions in the store.
    std::vector<long> positions(Vector const& vector) const {
        std::vector<long> result;
        for (std::uint32_t i = 0; i < vector.count(); ++i) {
            result.push_back(static_cast<IntItem const*>(vector.at(i)) - m_Elements.data());
        }
        return result;
    }

    std::vector<IntItem> m_Elements = std::vector<IntItem>(64);
};

using VectorClasses = testing::Types<TbVector, TbStack, TbFindableVector>;
TYPED_TEST_SUITE(Vectors, VectorClasses, NamedByClass);

TYPED_TEST(Vectors, StartWithoutSlots) {
    TypeParam const vector;
    EXPECT_EQ(vector.count(), 0U);
    EXPECT_EQ(vector.capacity(), 0U);
    EXPECT_EQ(thrownCode([&] { static_cast<void>(vector.at(0)); }), KVX_E_OUT_OF_RANGE);
}

TYPED_TEST(Vectors, KeepGrowingToTheRequestPlusSixteen) {
    TypeParam vector;
    for (std::uint32_t i = 0; i < 17; ++i) {
        vector.push_back(&this->m_Elements[i]);
        ASSERT_EQ(vector.capacity(), 17U);
    }
    vector.push_back(&this->m_Elements[17]);
    EXPECT_EQ(vector.capacity(), 34U);
    EXPECT_EQ(vector.count(), 18U);
    for (std::uint32_t i = 0; i < 18; ++i) {
        EXPECT_EQ(vector.at(i), &this->m_Elements[i]);
    }
    vector.grow(34);
    EXPECT_EQ(vector.capacity(), 34U);
    vector.grow(100);
    EXPECT_EQ(vector.capacity(), 116U);
    EXPECT_EQ(vector.count(), 18U);
}

TYPED_TEST(Vectors, WithACapacityHoldThatManyWithoutReallocation) {
    TypeParam vector(5);
    EXPECT_EQ(vector.count(), 0U);
    EXPECT_EQ(vector.capacity(), 5U);
    {
        FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
        for (std::uint32_t i = 0; i < 5; ++i) {
            vector.push_back(&this->m_Elements[i]);
        }
        EXPECT_EQ(FailingAllocation::requested(), 0);
    }
    EXPECT_EQ(vector.capacity(), 5U);
    vector.push_back(&this->m_Elements[5]);
    EXPECT_EQ(vector.capacity(), 22U);
}

TYPED_TEST(Vectors, RemoveInOrderAndRefuseAnIndexBehindTheLast) {
    TypeParam vector = this->filled(3);
    EXPECT_EQ(thrownCode([&] { vector.remove(3); }), KVX_E_OUT_OF_RANGE);
    EXPECT_EQ(thrownCode([&] { vector.remove(0xFFFFFFFFU); }), KVX_E_OUT_OF_RANGE);
    EXPECT_EQ(thrownCode([&] { static_cast<void>(vector.at(3)); }), KVX_E_OUT_OF_RANGE);
    EXPECT_EQ(this->positions(vector), (std::vector<long>{0, 1, 2})) << "a refusal changes nothing";
    vector.remove(0);
    EXPECT_EQ(this->positions(vector), (std::vector<long>{1, 2}));
    vector.remove(1);
    EXPECT_EQ(this->positions(vector), (std::vector<long>{1}));
    vector.remove(0);
    EXPECT_EQ(vector.count(), 0U);
    EXPECT_EQ(thrownCode([&] { vector.remove(0); }), KVX_E_OUT_OF_RANGE);
}

TYPED_TEST(Vectors, TakeTheLastElementOff) {
    TypeParam vector = this->filled(2);
    vector.pop_back();
    EXPECT_EQ(this->positions(vector), (std::vector<long>{0}));
    vector.push_back(&this->m_Elements[9]);
    EXPECT_EQ(this->positions(vector), (std::vector<long>{0, 9}));
}

#ifdef NDEBUG
TYPED_TEST(Vectors, KeepWrappingTheCountWhenAnEmptyOneIsPopped) {
    TypeParam vector;
    vector.pop_back();
    EXPECT_EQ(vector.count(), 0xFFFFFFFFU);
    EXPECT_EQ(thrownCode([&] { vector.push_back(&this->m_Elements[0]); }), KVX_E_OUT_OF_MEMORY);
    EXPECT_EQ(thrownCode([&] { static_cast<void>(vector.at(0)); }), KVX_E_OUT_OF_RANGE) << "there is no slot";
    vector.clear();
    vector.push_back(&this->m_Elements[0]);
    EXPECT_EQ(vector.count(), 1U);
}
#else
TYPED_TEST(Vectors, AssertThatAnEmptyOneIsNotPopped) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TypeParam vector;
    EXPECT_DEATH(vector.pop_back(), "m_Count > 0");
}
#endif

TYPED_TEST(Vectors, CopiesShareTheirElements) {
    TypeParam source = this->filled(3);
    source.grow(50);
    TypeParam copy(source);
    EXPECT_EQ(copy.capacity(), source.capacity());
    EXPECT_EQ(this->positions(copy), this->positions(source));
    TypeParam assigned = this->filled(20);
    assigned = source;
    EXPECT_EQ(assigned.capacity(), 66U);
    EXPECT_EQ(this->positions(assigned), (std::vector<long>{0, 1, 2}));
    TypeParam throughRoot;
    static_cast<TbObject&>(throughRoot) = source;
    EXPECT_EQ(this->positions(throughRoot), (std::vector<long>{0, 1, 2}));

    source.clear();
    EXPECT_EQ(source.count(), 0U);
    EXPECT_EQ(source.capacity(), 0U);
    EXPECT_EQ(this->positions(copy), (std::vector<long>{0, 1, 2}));
    copy.clear();
    EXPECT_EQ(static_cast<IntItem const*>(assigned.at(2))->number(), 0) << "the elements live on";
}

TYPED_TEST(Vectors, CopyAnEmptyOne) {
    TypeParam const source;
    TypeParam target = this->filled(3);
    target = source;
    EXPECT_EQ(target.count(), 0U);
    EXPECT_EQ(target.capacity(), 0U);
    target.push_back(&this->m_Elements[4]);
    EXPECT_EQ(target.capacity(), 17U);
}

TYPED_TEST(Vectors, AssignedToThemselvesDoNotChange) {
    TypeParam vector = this->filled(3);
    TypeParam const& same = vector;
    vector = same;
    vector.assign(same);
    EXPECT_EQ(this->positions(vector), (std::vector<long>{0, 1, 2}));
}

TYPED_TEST(Vectors, NeverCountCopyOrDestroyTheirElements) {
    bool isGone = false;
    IntItem element;
    std::int32_t const living = TbRefCounter::m_nTotalRef;
    {
        TypeParam vector;
        vector.push_back(&element);
        vector.push_back(&element);
        TypeParam const copy(vector);
        vector.remove(0);
        vector.clear();
        EXPECT_EQ(element.refCount(), 0);
        isGone = TbRefCounter::m_nTotalRef != living + 2;
    }
    EXPECT_FALSE(isGone);
    EXPECT_EQ(TbRefCounter::m_nTotalRef, living);
}

TYPED_TEST(Vectors, HoldNullLikeAnyAddress) {
    TypeParam vector;
    vector.push_back(nullptr);
    EXPECT_EQ(vector.count(), 1U);
    EXPECT_EQ(vector.at(0), nullptr);
}

TYPED_TEST(Vectors, RefuseACountThatWouldNotFit32Bits) {
    for (std::uint32_t const slots : {0xFFFFFFFFU, 0xFFFFFFF0U}) {
        TypeParam vector = this->filled(3);
        EXPECT_EQ(thrownCode([&] { vector.grow(slots); }), KVX_E_OUT_OF_MEMORY) << slots;
        EXPECT_EQ(this->positions(vector), (std::vector<long>{0, 1, 2}));
        vector.push_back(&this->m_Elements[7]);
        EXPECT_EQ(this->positions(vector), (std::vector<long>{0, 1, 2, 7}));
    }
}

TYPED_TEST(Vectors, KeepTheRaisedCapacityOfAFailedGrowth) {
    TypeParam vector = this->filled(17);
    {
        FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
        EXPECT_EQ(thrownCode([&] { vector.push_back(&this->m_Elements[17]); }), KVX_E_OUT_OF_MEMORY);
        EXPECT_EQ(vector.capacity(), 34U);
        EXPECT_EQ(vector.count(), 17U);
        EXPECT_EQ(thrownCode([&] { vector.push_back(&this->m_Elements[17]); }), KVX_E_OUT_OF_MEMORY)
            << "the real block decides, not the published capacity";
    }
    for (std::uint32_t i = 17; i < 64; ++i) {
        vector.push_back(&this->m_Elements[i]);
    }
    EXPECT_EQ(vector.count(), 64U);
    for (std::uint32_t i = 0; i < 64; ++i) {
        ASSERT_EQ(vector.at(i), &this->m_Elements[i]);
    }
}

TYPED_TEST(Vectors, NeedNoMoreThanTheyAskForAfterAHugeGrowthHasFailed) {
    TypeParam vector = this->filled(2);
    tbSetAllocationGate([](std::size_t bytes) { return bytes < 100000; });
    EXPECT_EQ(thrownCode([&] { vector.grow(0x70000000); }), KVX_E_OUT_OF_MEMORY);
    EXPECT_EQ(vector.capacity(), 0x70000010U);
    for (int i = 0; i < 1000; ++i) {
        vector.push_back(&this->m_Elements[1]);
    }
    tbSetAllocationGate(nullptr);
    EXPECT_EQ(vector.count(), 1002U);
    EXPECT_EQ(vector.at(1001), &this->m_Elements[1]);
}

TYPED_TEST(Vectors, RaiseOutOfMemoryForSlotsThatCannotBeHad) {
    {
        FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
        EXPECT_EQ(thrownCode([&] { TypeParam const vector(5); }), KVX_E_OUT_OF_MEMORY);
    }
    TypeParam const source = this->filled(3);
    TypeParam target = this->filled(2);
    {
        FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
        EXPECT_EQ(thrownCode([&] { target = source; }), KVX_E_OUT_OF_MEMORY);
        EXPECT_EQ(thrownCode([&] { TypeParam const copy(source); }), KVX_E_OUT_OF_MEMORY);
    }
    EXPECT_EQ(target.count(), 0U);
    target.push_back(&this->m_Elements[5]);
    EXPECT_EQ(this->positions(target), (std::vector<long>{5}));
}

TYPED_TEST(Vectors, SurviveEveryFailingAllocation) {
    EXPECT_GT(survivesEveryFailingAllocation([&] {
                  TypeParam vector(2);
                  for (IntItem& element : this->m_Elements) {
                      vector.push_back(&element);
                  }
                  TypeParam copy(vector);
                  copy = vector;
              }),
              3);
}

TYPED_TEST(Vectors, FillOneByOneInFewReallocations) {
    constexpr std::uint32_t kElements = 1U << 20;
    FailingAllocation const counting(-1, FailingAllocation::Mode::kOnlyThat);
    TypeParam vector;
    for (std::uint32_t i = 0; i < kElements; ++i) {
        vector.push_back(&this->m_Elements[i % 64]);
    }
    EXPECT_EQ(vector.count(), kElements);
    EXPECT_EQ(vector.at(kElements - 1), &this->m_Elements[63]);
    EXPECT_LT(FailingAllocation::requested(), 50) << "logarithmic, although the capacity rises by 16";
}

TEST(TbContainer, KeepsAnAssignForNonConstArgumentsThatCopiesNumbersOnly) {
    // Through the base a non-const argument finds the other operation, as for every overload set.
    TbObject element;
    TbVector source;
    source.push_back(&element);
    TbVector target;
    TbContainer& asContainer = target;
    TbContainer& from = source;
    EXPECT_EQ(&asContainer.assign(from), &asContainer);
    EXPECT_EQ(target.count(), 1U);
    EXPECT_EQ(target.capacity(), 17U);
    EXPECT_EQ(thrownCode([&] { static_cast<void>(target.at(0)); }), KVX_E_OUT_OF_RANGE) << "no element came along";
    EXPECT_EQ(thrownCode([&] { target.remove(0); }), KVX_E_OUT_OF_RANGE);
    EXPECT_EQ(thrownCode([&] { TbVector const copy(target); }), KVX_E_OUT_OF_RANGE);

    asContainer.assign(static_cast<TbContainer const&>(source));
    EXPECT_EQ(target.at(0), &element) << "a const argument finds the copying one";
    target.clear();
    target.assign(from);
    EXPECT_EQ(target.at(0), &element) << "so does any argument through the class itself";
    target.clear();
    asContainer = source;
    EXPECT_EQ(target.at(0), &element) << "and the assignment always does";
}

TEST(TbContainer, KeepsWorkingAfterABareCountCameIn) {
    TbObject element;
    TbVector source(40);
    source.push_back(&element);
    source.push_back(&element);
    TbVector target;
    static_cast<TbContainer&>(target).assign(static_cast<TbContainer&>(source));
    target.push_back(&element);
    EXPECT_EQ(target.count(), 3U);
    EXPECT_EQ(target.at(0), nullptr) << "a counted slot without an element is null";
    EXPECT_EQ(target.at(2), &element);
}

/// A container of numbers alone.
class BareCount : public TbContainer {
public:
    explicit BareCount(std::uint32_t count) { m_Count = count; }
    using TbContainer::operator=;

    TbAllocator getAllocator() const override { return &TbVector::allocate; }
};

TEST(TbContainer, TakesNoElementBeyondTheLargestCount) {
    TbObject element;
    BareCount full(0xFFFFFFFFU);
    TbVector target;
    static_cast<TbContainer&>(target).assign(static_cast<TbContainer&>(full));
    EXPECT_EQ(thrownCode([&] { target.push_back(&element); }), KVX_E_OUT_OF_MEMORY);
    EXPECT_EQ(target.count(), 0xFFFFFFFFU) << "and does not wrap around";
    target.clear();
    target.push_back(&element);
    EXPECT_EQ(target.at(0), &element);
}

TEST(TbFindableContainer, KeepsAnAssignForNonConstArgumentsThatCopiesNumbersOnly) {
    IntItem element(1);
    TbFindableVector source;
    source.push_back(&element);
    TbFindableVector target;
    TbFindableContainer& asContainer = target;
    EXPECT_EQ(&asContainer.assign(static_cast<TbFindableContainer&>(source)), &asContainer);
    EXPECT_EQ(target.count(), 1U);
    EXPECT_EQ(target.capacity(), 17U);
    EXPECT_EQ(thrownCode([&] { static_cast<void>(target.at(0)); }), KVX_E_OUT_OF_RANGE);
    EXPECT_EQ(thrownCode([&] { static_cast<void>(target == element); }), KVX_E_OUT_OF_RANGE);
    asContainer = source;
    EXPECT_EQ(target.at(0), &element);
}

TEST(TbContainer, ClearsThroughTheBase) {
    TbObject element;
    TbVector vector;
    vector.push_back(&element);
    static_cast<TbContainer&>(vector).clear();
    EXPECT_EQ(vector.count(), 0U);
    EXPECT_EQ(vector.capacity(), 0U);
    TbFindableVector findable;
    IntItem item(1);
    findable.push_back(&item);
    static_cast<TbFindableContainer&>(findable).clear();
    EXPECT_EQ(findable.count(), 0U);
    EXPECT_EQ(findable.capacity(), 0U);
}

TEST(TbStack, ShowsItsTopAndRefusesToWhenEmpty) {
    TbStack stack;
    EXPECT_EQ(thrownCode([&] { static_cast<void>(stack.peek()); }), KVX_E_OUT_OF_RANGE);
    TbObject first;
    TbObject second;
    stack.push_back(&first);
    stack.push_back(&second);
    EXPECT_EQ(stack.peek(), &second);
    stack.pop_back();
    EXPECT_EQ(stack.peek(), &first);
    stack.pop_back();
    EXPECT_EQ(thrownCode([&] { static_cast<void>(stack.peek()); }), KVX_E_OUT_OF_RANGE);
    EXPECT_EQ(stack.count(), 0U);
}

/// A vector whose first elements have these numbers.
struct Numbers {
    explicit Numbers(std::vector<int> const& numbers) {
        for (int const number : numbers) {
            m_Items.push_back(std::make_unique<IntItem>(number));
            m_Vector.push_back(m_Items.back().get());
        }
    }
    std::vector<std::unique_ptr<IntItem>> m_Items;
    TbFindableVector m_Vector;
};

TEST(TbFindableVector, KeepsAnOrderOfFirstElementsAndCounts) {
    struct {
        std::vector<int> m_Left;
        std::vector<int> m_Right;
        bool m_IsLess;
        bool m_IsEqual;
    } const rows[] =
        {
            {{}, {}, false, false},  // an empty one is unequal to another empty one
            {{}, {1}, true, true},   // and both less than and equal to every other
            {{}, {1, 2}, true, true},      {{1}, {}, false, false},  {{1}, {1}, false, true},
            {{1}, {2}, true, false},       {{2}, {1}, false, false}, {{1}, {2, 3}, true, false},
            {{1}, {1, 3}, false, false},    // different counts: never equal
            {{1, 9}, {2}, false, false},    // fewer elements on the right: never less
            {{1, 9}, {2, 0}, true, false},  // only the first elements count
            {{1, 9}, {1, 0}, false, true},
        };
    for (auto const& row : rows) {
        Numbers const left(row.m_Left);
        Numbers const right(row.m_Right);
        TbFindable const& asFindable = left.m_Vector;
        SCOPED_TRACE("row " + std::to_string(&row - rows));
        EXPECT_EQ(asFindable < right.m_Vector, row.m_IsLess);
        EXPECT_EQ(asFindable == right.m_Vector, row.m_IsEqual);
    }
}

TEST(TbFindableVector, KeepsComparingWithABareElementByItsFirst) {
    Numbers const vector({3, 7});
    EXPECT_TRUE(vector.m_Vector == IntItem(3));
    EXPECT_FALSE(vector.m_Vector == IntItem(7));
    EXPECT_TRUE(vector.m_Vector < IntItem(4));
    EXPECT_FALSE(vector.m_Vector < IntItem(3));
    TbFindableVector const empty;
    EXPECT_TRUE(empty < IntItem(0));
    EXPECT_FALSE(empty == IntItem(0));
}

TEST(TbVector, AgreesWithADequeUnderRandomRemovals) {
    std::uint64_t const seed = testSeed();
    SCOPED_TRACE(seed);
    std::mt19937_64 random(seed);
    std::vector<TbString> const elements(64);
    TbVector vector;
    std::deque<TbObject*> model;
    for (int step = 0; step < 20000; ++step) {
        std::uint64_t const kind = random() % 8;
        if (kind < 4 || model.empty()) {
            auto* const element =
                const_cast<TbString*>(&elements[static_cast<std::size_t>(random() % elements.size())]);
            vector.push_back(element);
            model.push_back(element);
        } else if (kind < 7) {
            vector.remove(0);
            model.pop_front();
        } else {
            auto const index = static_cast<std::size_t>(random() % model.size());
            vector.remove(static_cast<std::uint32_t>(index));
            model.erase(model.begin() + static_cast<std::ptrdiff_t>(index));
        }
        ASSERT_EQ(vector.count(), model.size());
        if (step % 16 == 0) {
            for (std::size_t i = 0; i < model.size(); ++i) {
                ASSERT_EQ(vector.at(static_cast<std::uint32_t>(i)), model[i]) << "step " << step;
            }
        }
    }
}

}  // namespace
