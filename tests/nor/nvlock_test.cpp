// The sector range nvLock works on, and the flash's command interface as nvLock maps it.
#include "nor/nvlock.h"
#include "support/board_fixture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <time.h>
#include <utility>
#include <vector>

namespace {

using testsupport::json;

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

// Program and erase through the mapped flash, as the part answers them: status while busy (DQ7
// data polling, DQ6 toggling, DQ3 and DQ2 while erasing) for the operation's time, array data
// once done, protected sectors left as they were. The rows run in order on one board.
class NorChipOnBoard : public testsupport::BoardFixture {
protected:
    static void cycle(uint32_t at, uint16_t value) {
        *reinterpret_cast<volatile uint16_t *>(
            static_cast<volatile uint8_t *>(mmap_vaddr[NOR_REGION_NOR]) + at) = value;
    }
    static uint16_t word(uint32_t at) {
        return *reinterpret_cast<volatile uint16_t *>(
            static_cast<volatile uint8_t *>(mmap_vaddr[NOR_REGION_NOR]) + at);
    }
};

TEST_F(NorChipOnBoard, ProgramAndEraseAnswerWithStatusThenArray) {
    using Cycles = std::vector<std::pair<uint32_t, uint16_t>>;
    const Cycles program = {{0xAAA, 0xAA}, {0x554, 0x55}, {0xAAA, 0xA0}};
    const Cycles erase = {
        {0xAAA, 0xAA}, {0x554, 0x55}, {0xAAA, 0x80}, {0xAAA, 0xAA}, {0x554, 0x55}};
    auto with = [](Cycles cycles, uint32_t at, uint16_t value) {
        cycles.emplace_back(at, value);
        return cycles;
    };
    const struct {
        const char *name;
        Cycles cycles;    // the last one's address is read
        uint16_t busy[2]; // two reads at once
        uint16_t after;   // a read once the part's time is up
        useconds_t lasts; // the operation's time; each read takes a microsecond
    } cases[] = {
        {"program", with(program, 0x20000, 0x1234), {0xC0, 0x80}, 0x1234, 8},
        {"program a protected sector", with(program, 0x10000, 0x1234), {0xC0, 0x80}, 0x5A5A, 100},
        {"sector erase", with(erase, 0x20000, 0x30), {0x4C, 0x08}, 0xFFFF, 500000},
        {"erase a protected sector", with(erase, 0x10000, 0x30), {0x4C, 0x08}, 0x5A5A, 100},
        {"chip erase: every sector but the protected one",
         with(erase, 0xAAA, 0x10),
         {0x4C, 0x08},
         0xFFFF,
         18 * 500000},
        {"program without its second unlock cycle",
         {{0xAAA, 0xAA}, {0xAAA, 0xA0}, {0x20000, 0}},
         {0xFFFF, 0xFFFF},
         0xFFFF,
         0},
        {"program the last sector", with(program, 0xF0000, 0x4321), {0xC0, 0x80}, 0x4321, 8},
        {"erase the sector before it", with(erase, 0xE0000, 0x30), {0x4C, 0x08}, 0xFFFF, 500000},
        {"erase the first 8 KiB sector", with(erase, 0x4000, 0x30), {0x4C, 0x08}, 0xFFFF, 500000},
    };
    change_config([](json &c) {
        c["nor"]["protected"] = {4};            // 0x10000..0x1FFFF
        c["mtd"][6]["drivers"] = json::array(); // uboot-nor, /dev/mtd6
    });
    std::filesystem::create_directories(dir_ / "mtd");
    std::ofstream(dir_ / "mtd/uboot-nor.bin")
        << std::string(0x10000, '\xFF') + std::string(0x10000, '\x5A');
    attach();
    ASSERT_EQ(map_regs(), 0);
    volatile uint8_t *nor = static_cast<volatile uint8_t *>(mmap_vaddr[NOR_REGION_NOR]);
    for (const auto &c : cases) {
        for (const auto &[at, value] : c.cycles)
            cycle(at, value);
        const uint32_t at = c.cycles.back().first;
        uint16_t first = word(at);
        EXPECT_EQ(first, c.busy[0]) << c.name;
        EXPECT_EQ(word(at), c.busy[1]) << c.name;
        if (c.lasts != 0) {
            usleep(c.lasts - 3);
            EXPECT_NE(word(at), c.after) << c.name << ": done a microsecond early";
        }
        EXPECT_EQ(word(at), c.after) << c.name;
    }
    EXPECT_EQ(word(0xF0000), 0x4321); // an erase ends at its sector's end
    const std::vector<json> erases = trace("nor_erase");
    ASSERT_EQ(erases.size(), 5u);
    EXPECT_EQ(erases[2]["last"], 18); // the chip erase
    EXPECT_EQ(erases[2]["erased"], 18);
    EXPECT_EQ(erases[4]["first"], 1); // the boot sectors: 16 KiB, then 8 KiB from 0x4000
    // Left in autoselect, the flash answers the partition's reads with its identification; a
    // NAND partition still reads its own (erased) bytes. Word 2 of a sector tells whether it is
    // protected. A 32-bit store is two bus cycles, its lower half first: here a reset, then the
    // first unlock cycle.
    *reinterpret_cast<volatile uint32_t *>(nor + 0xAA8) = 0x00AA00F0;
    for (const auto &[at, value] : Cycles{{0x554, 0x55}, {0xAAA, 0x90}})
        cycle(at, value);
    auto first_bytes = [](const char *path) {
        int mtd = open(path, O_RDONLY);
        std::vector<uint8_t> bytes(4);
        EXPECT_EQ(read(mtd, bytes.data(), bytes.size()), 4) << path;
        close(mtd);
        return bytes;
    };
    EXPECT_EQ(first_bytes("/dev/mtd6"), (std::vector<uint8_t>{0x1C, 0, 0x5B, 0x22}));
    EXPECT_EQ(first_bytes("/dev/mtd0"), std::vector<uint8_t>(4, 0xFF));
    EXPECT_EQ(word(0x10004), 1); // sector protection, of a protected sector
    EXPECT_EQ(word(0x20004), 0); // and of another
    cycle(0, 0xF0);
    EXPECT_EQ(word(0x20000), 0xFFFF);
    // A byte is one lane of its word; a 32-bit load reads the following word as its upper half.
    for (const auto &[at, value] : with(program, 0x20000, 0x1234))
        cycle(at, value);
    usleep(10);
    EXPECT_EQ((std::vector<int>{nor[0x20000], nor[0x20001]}), (std::vector<int>{0x34, 0x12}));
    EXPECT_EQ(*reinterpret_cast<volatile uint32_t *>(nor + 0x20000), 0xFFFF1234u);
    // A byte stored at an odd address drives bits 15-8 of its word; bits 7-0 are driven low.
    for (const auto &[at, value] : program)
        cycle(at, value);
    nor[0x20003] = 0x56;
    usleep(10);
    EXPECT_EQ(word(0x20002), 0x5600);
    unmap_regs();
}

// In protection mode a pulse protects its sector only when it lasted its 150 us with VID on.
// The chip then answers the verify of that sector's word 2 from a microsecond after the
// verify command, and 0xFFFF before that or at any other word.
TEST_F(NorChipOnBoard, AProtectionPulseNeedsItsTimeWithVidOn) {
    const struct {
        const char *name;
        uint32_t sector_at;
        useconds_t pulse;
        bool vid_off_during_pulse;
        uint16_t verify;
    } cases[] = {
        {"a pulse of its time", 0x20000, 150, false, 1},
        {"a pulse a microsecond short", 0x30000, 149, false, 0},
        {"a pulse while VID is off", 0x40000, 150, true, 0},
    };
    change_config([](json &c) { c["mtd"][6]["drivers"] = json::array(); }); // uboot-nor
    attach();
    ASSERT_EQ(map_regs(), 0);
    for (const auto &c : cases) {
        enter_protect_mode();
        cycle(c.sector_at + 4, 0x60);
        if (c.vid_off_during_pulse)
            set_vid(0);
        usleep(c.pulse);
        cycle(c.sector_at + 4, 0x40);
        const timespec just_short{0, 999};
        nanosleep(&just_short, nullptr);
        EXPECT_EQ(word(c.sector_at + 4), 0xFFFF) << c.name << ": verify 999 ns on";
        usleep(1);
        EXPECT_EQ(word(c.sector_at), 0xFFFF) << c.name << ": another word";
        EXPECT_EQ(word(c.sector_at + 4), c.verify) << c.name;
        exit_protect_mode();
    }
    unmap_regs();
}

} // namespace
