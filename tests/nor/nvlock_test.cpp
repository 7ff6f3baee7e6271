// The sector range nvLock works on.
#include "nor/nvlock.h"

#include <gtest/gtest.h>

namespace {

TEST(NorSectorRange, FirstHoldsStartLastHoldsTheLastByte) {
    struct Case {
        uint32_t start;
        uint32_t length;
        unsigned first;
        unsigned last;
    };
    const Case cases[] = {
        {0x4000, 0x4000, 1, 2},        // two 8 KiB sectors
        {0x5000, 1, 1, 1},             // one byte inside sector 1
        {0x8000, 0x200000, 3, 18},     // end beyond the flash: to the last sector
        {0, 0, 0, 18},                 // nothing selected at all: the whole flash
        {0x3FFF, 1, 0, 0},             // last byte of sector 0
        {0x3FFF, 2, 0, 1},             // crossing into sector 1
        {0x10000, 0x10000, 4, 4},      // exactly one 64 KiB sector
        {0xFFFFF, 1, 18, 18},          // last byte of the flash
        {0x6000, 0, 2, 2},             // an empty range on a sector boundary: the sector of start
        {0xF0000, 0xFFFFFFFF, 18, 18}, // a wrapping end is taken as beyond the flash
    };
    for (const Case &c : cases) {
        unsigned first = 99, last = 99;
        ASSERT_TRUE(nor_sector_range(c.start, c.length, &first, &last)) << std::hex << c.start;
        EXPECT_EQ(first, c.first) << std::hex << c.start << " " << c.length;
        EXPECT_EQ(last, c.last) << std::hex << c.start << " " << c.length;
    }
}

TEST(NorSectorTable, SectorsTileTheFlashBottomBoot) {
    uint32_t next = 0;
    for (unsigned s = 0; s < NOR_SECTOR_COUNT; ++s) {
        EXPECT_EQ(sector_table[s].offset, next) << s;
        next += sector_table[s].size;
    }
    EXPECT_EQ(next, NOR_FLASH_SIZE);
    EXPECT_EQ(sector_table[3].size, 0x8000u);
}

} // namespace
