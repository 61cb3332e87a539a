#include "net/kvxdecimal.h"

#include <gtest/gtest.h>

namespace {

TEST(DecimalNumber, ReadsATable) {
    struct {
        char const* m_Text;
        std::int32_t m_Number;
    } const cases[] = {
        {"200", 200},
        {"200 OK", 200},
        {"200OK", 200},
        {"   200", 200},
        {"\t\n\v\f\r 7", 7},
        {"+5", 5},
        {"-5", -5},
        {"007", 7},
        {"", 0},
        {"OK", 0},
        {"- 5", 0},
        {"--5", 0},
        {"+", 0},
        {"0x10", 0},
        {"2147483647", 2147483647},
        {"2147483648", 2147483647},  // saturates
        {"4294967496", 2147483647},  // is not 200
        {"99999999999999999999999999", 2147483647},
        {"-2147483648", INT32_MIN},
        {"-99999999999999999999999999", INT32_MIN},
    };
    for (auto const& row : cases) {
        EXPECT_EQ(DecimalNumber(row.m_Text), row.m_Number) << '"' << row.m_Text << '"';
    }
}

}  // namespace
