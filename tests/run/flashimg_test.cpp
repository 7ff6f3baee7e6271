#include "run/flashimg.h"

#include <gtest/gtest.h>

namespace {

TEST(CheckUpdateFlag, FindsEveryLetterAnywhere) {
    struct Case {
        const char *text;
        uint32_t expected;
    } cases[] = {
        {"", 0},
        {"\n", 0},
        {" N\n", OPTION_N},
        {" NF\n", OPTION_N | OPTION_F},
        {" Not Final\n", OPTION_N | OPTION_F},
        {" Not final\n", OPTION_N}, // a lower-case f is no option
        {" n f r\n", 0}, // letters are case-sensitive
        {"R5RN", OPTION_R | OPTION_5 | OPTION_N},
        {"xxFxx5", OPTION_F | OPTION_5},
    };
    for (const Case &c : cases)
        EXPECT_EQ(check_update_flag(c.text), c.expected) << '"' << c.text << '"';
}

} // namespace
