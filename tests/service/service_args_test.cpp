// How the service tool reads the numbers an operator types.
#include "service/service.h"

#include <gtest/gtest.h>

namespace {

TEST(ServiceNumbers, DecimalOrHexWithinThirtyTwoBits) {
    for (auto [text, value] : {std::pair{"0", 0u},
                               {"131072", 131072u},
                               {"0x20000", 0x20000u},
                               {"0XFFFFFFFF", ~0u},
                               {"010", 10u},
                               {"08", 8u},
                               {"0x0010", 16u}}) { // a leading 0 is not octal
        uint32_t v = 1;
        EXPECT_TRUE(parse_u32(text, &v)) << text;
        EXPECT_EQ(v, value) << text;
    }
    for (const char *text : {"0x100000000", "4294967296", "-1", "+1", " 1", "12k", "", "0x", "0x-1",
                             "0x 1", "0b1", "1e3", "0x1g"}) {
        uint32_t v = 1;
        EXPECT_FALSE(parse_u32(text, &v)) << text;
        EXPECT_EQ(v, 1u) << text; // untouched when refused
    }
}

} // namespace
