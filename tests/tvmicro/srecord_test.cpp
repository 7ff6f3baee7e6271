#include "tvmicro/tvm_update.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <string>

namespace {

// Hexadecimal fields that run into the end of the text count the missing digits as non-digits:
// nothing past it is read. (Lines that end before their checksum: the load test.)
TEST(SRecordDigits, TheEndOfTheTextIsNoDigit) {
    EXPECT_EQ(ToHex1Byte("1"), 0x10Fu);
}

// The image's cells that are not erased, as "index:value" in hexadecimal.
std::string written_cells() {
    std::string out;
    char cell[16];
    for (uint32_t i = 0; i < MaxRomSize; ++i) {
        if (rom_buf[i] != 0xFF && snprintf(cell, sizeof cell, "%x:%02x ", i, rom_buf[i]) > 0)
            out += cell;
    }
    return out;
}

// The first data record fixes the image's base; every record is stored relative to it.
TEST(SRecordLoad, SectionsLoadRelativeToTheirFirstDataRecord) {
    const std::string kNotS =
        "Starting character does not conform to Motorola S Record standard.\n";
    const std::string kNoData = "**ERROR** no data record in the firmware section\n";
    struct Case {
        const char *what;
        std::string text;
        int result;
        uint32_t start;
        const char *cells;
        std::string output;
    } cases[] = {
        {"lines skipped, no termination record",
         "\ns1050100AABB94\nS1050100AABB94\r\nS1040120CC0F\n", 0, 0x100, "0:aa 1:bb ",
         kNotS + kNotS + "Invalid line checksum : S1040120CC0F \n"},
        {"headers change nothing, the last record wins, termination ends the section",
         "S008000068656C6C6FE3\nS1050100AABB94\nS5030003F9\nS1040120CC0E\nS104010011E9\n"
         "S9030000FC\nS1040130DDED\n",
         0, 0x100, "0:11 1:bb 20:cc ", ""},
        {"an S7 record ends the section", "S1050100AABB94\nS70500000000FA\nS1040130DDED\n", 0,
         0x100, "0:aa 1:bb ", ""},
        {"so does an S8 record", "S1050100AABB94\nS804000000FB\nS1040130DDED\n", 0, 0x100,
         "0:aa 1:bb ", ""},
        {"lines that end before their checksum", "S1060100AAEFCC93\nS1060100AA\nS1\n", 0, 0x100,
         "0:aa 1:ef 2:cc ", // what the line buffer still holds past the end does not complete them
         "Invalid line checksum : S1060100AA \nInvalid line checksum : S1 \n"},
        {"image at address 0", "S104000055A6\nS10400106685\n", 0, 0, "0:55 10:66 ", ""},
        {"no valid data record stores nothing and fails", "S1040120CC0F\nS9030000FC\n", -1, 0, "",
         "Invalid line checksum : S1040120CC0F \n" + kNoData},
        {"a data record without data bytes", "S1030100FB\n", -1, 0x100, "", kNoData},
        {"unknown type fails silently", "S1050100AABB94\nS404010001F9\n", -1, 0x100, "0:aa 1:bb ",
         ""},
        {"below the first record", "S1050100AABB94\nS10400FF11EB\n", -1, 0x100, "0:aa 1:bb ",
         "Array boundary exceeded !! Requested array index = FFFFFFFF but maximum size is 18000 \n"
         "buf = S10400FF11EB, ulAddr = 0x  FF, uStartAddr = 0x 100\n"},
        {"last byte of the image, and one further", "S30600000100995F\nS307000180FF778879\n", -1,
         0x100, "0:99 17fff:77 ",
         "Array boundary exceeded !! Requested array index = 18000 but maximum size is 18000 \n"
         "buf = S307000180FF778879, ulAddr = 0x180FF, uStartAddr = 0x 100\n"},
    };
    for (const Case &c : cases) {
        std::string text = c.text;
        FILE *file = fmemopen(text.data(), text.size(), "r");
        uint32_t start = 0;
        testing::internal::CaptureStdout();
        EXPECT_EQ(MotSRecordLoadImage(file, &start), c.result) << c.what;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.output) << c.what;
        fclose(file);
        EXPECT_EQ(start, c.start) << c.what;
        EXPECT_EQ(written_cells(), c.cells) << c.what;
    }
}

} // namespace
