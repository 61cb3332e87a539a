#include "foundation/tbexception.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "foundation/tbstring.h"

namespace {

TEST(TbfcException, CarriesTheCodeAsTheSignedValueOfTheOtherLayers) {
    for (std::int32_t const code : {KVX_E_OUT_OF_MEMORY, KVX_E_OUT_OF_RANGE, KVX_E_DUPLICATE_KEY}) {
        EXPECT_EQ(TBFC_Exception(code).code(), code);
        EXPECT_LT(TBFC_Exception(code).code(), 0);
    }
}

TEST(TbfcException, PublishesTheThreeNumbersOfTheFoundation) {
    EXPECT_EQ(static_cast<std::uint32_t>(KVX_E_OUT_OF_MEMORY), 0x80040217U);
    EXPECT_EQ(static_cast<std::uint32_t>(KVX_E_OUT_OF_RANGE), 0x80040281U);
    EXPECT_EQ(static_cast<std::uint32_t>(KVX_E_DUPLICATE_KEY), 0x80040292U);
}

TEST(TbfcException, HasAnEmptyTextAndNoTable) {
    EXPECT_EQ(std::string(TBFC_Exception(KVX_E_OUT_OF_MEMORY).text()), "");
    static_assert(!std::is_polymorphic_v<TBFC_Exception>, "no virtual operation");
    static_assert(std::is_nothrow_copy_constructible_v<TBFC_Exception>, "can be thrown when there is no memory");
}

TEST(TbfcException, IsThrownByValue) {
    TbString text("a");
    EXPECT_THROW(text.grow(TbString::npos), TBFC_Exception);
}

}  // namespace
