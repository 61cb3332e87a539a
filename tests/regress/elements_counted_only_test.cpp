// A container's count can be assigned without elements, through the non-const `assign`. Copying such a vector once read
// and wrote behind its block.

#include <gtest/gtest.h>

#include "foundation/tbexception.h"
#include "foundation/tbstring.h"
#include "foundation/tbvector.h"
#include "tests/support/exceptions.h"

using namespace kvxtest;

namespace {

TEST(VectorCopy, OfElementsThatAreCountedOnlyRaisesOutOfRange) {
    TbVector ten;
    for (int i = 0; i < 10; ++i) {
        ten.push_back(&ten);
    }
    TbVector counted;
    static_cast<TbContainer&>(counted).assign(static_cast<TbObject&>(ten));
    ASSERT_EQ(counted.count(), 10U);
    EXPECT_EQ(thrownCode([&] { TbVector const copy(counted); }), KVX_E_OUT_OF_RANGE);
}

TEST(VectorCopy, HasRoomForMoreElementsThanTheAssignedCapacitySays) {
    TbVector ten;
    for (int i = 0; i < 10; ++i) {
        ten.push_back(&ten);
    }
    TbVector capacityOfNone;
    TbVector source(ten);
    static_cast<TbContainer&>(source).assign(static_cast<TbObject&>(capacityOfNone));
    source.push_back(&ten);
    TbVector const copy(source);
    EXPECT_EQ(copy.count(), 1U);
    EXPECT_EQ(copy.at(0), &ten);
}

TEST(VectorCopy, OfFindableElementsThatAreCountedOnlyRaisesOutOfRange) {
    TbString element("x");
    TbFindableVector ten;
    for (int i = 0; i < 10; ++i) {
        ten.push_back(&element);
    }
    TbFindableVector counted;
    static_cast<TbFindableContainer&>(counted).assign(static_cast<TbObject&>(ten));
    EXPECT_EQ(thrownCode([&] { TbFindableVector const copy(counted); }), KVX_E_OUT_OF_RANGE);
}

}  // namespace
