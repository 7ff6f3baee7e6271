// How the service tool reads the numbers an operator types.
#include "service/service.h"

#include <gtest/gtest.h>

namespace {

TEST(ServiceNumbers, DecimalOrHexWithinThirtyTwoBits) {
    struct Case {
        const char *text;
        bool ok;
        uint32_t value;
    };
    const Case cases[] = {
        {"0", true, 0},
        {"131072", true, 131072},
        {"0x20000", true, 0x20000},
        {"0XFFFFFFFF", true, ~0u},
        {"0x100000000", false, 0},
        {"4294967296", false, 0},
        {"-1", false, 0},
        {"+1", false, 0},
        {" 1", false, 0},
        {"12k", false, 0},
        {"", false, 0},
        {"0x", false, 0},
    };
    for (const Case &c : cases) {
        uint32_t v = 0;
        EXPECT_EQ(parse_u32(c.text, &v), c.ok) << c.text;
        EXPECT_EQ(v, c.value) << c.text; // untouched when refused
    }
}

} // namespace
