#include "sandbox/text/utctime.h"

#include <gtest/gtest.h>

#include <optional>

namespace {

using namespace sandbox;

TEST(ParseExpiration, ReadsUtc) {
    EXPECT_EQ(parseExpiration("20231114 22:13:20"), std::time_t{1700000000});
    EXPECT_EQ(parseExpiration("19700101 00:00:00"), std::time_t{0});
    EXPECT_EQ(parseExpiration("20240229 23:59:59"), std::time_t{1709251199});
}

TEST(ParseExpiration, RefusesOtherFormsAndUnrealDates) {
    for (char const* text :
         {"", "20231114", "20231114 22:13", "20231114T22:13:20", "2023-11-14 22:13:20", "20231114 22:13:20 ",
          " 0231114 22:13:20", "+0231114 22:13:20", "20230229 00:00:00", "20231301 00:00:00", "20230001 00:00:00",
          "20231132 00:00:00", "20231114 24:00:00", "20231114 22:60:00", "20231114 22:13:60"}) {
        EXPECT_EQ(parseExpiration(text), std::nullopt) << text;
    }
}

TEST(UtcText, WritesUtc) {
    EXPECT_EQ(utcText(1700000000), "2023-11-14T22:13:20Z");
}

}  // namespace
