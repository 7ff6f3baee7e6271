#include "run/flashimg.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <string>

namespace {

TEST(CheckUpdateFlag, FindsEveryLetterAnywhere) {
    struct Case {
        const char *text;
        uint32_t expected;
    } cases[] = {
        {"", 0},
        {" N\n", OPTION_N},
        {" NF\n", OPTION_N | OPTION_F},
        {" Not Final\n", OPTION_N | OPTION_F},
        {" Not final\n", OPTION_N}, // a lower-case f is no option
        {" n f r\n", 0},
        {"R5RN", OPTION_R | OPTION_5 | OPTION_N},
        {"xxFxx5", OPTION_F | OPTION_5},
    };
    for (const Case &c : cases)
        EXPECT_EQ(check_update_flag(c.text), c.expected) << '"' << c.text << '"';
}

struct Selection {
    uint32_t word0;
    uint32_t word1;
};

Selection read_list(const std::string &text, MediaFound media = {true, false}) {
    std::string copy = text;
    FILE *list = fmemopen(copy.data(), copy.size(), "r");
    uint32_t flags[4] = {0xdead, 0xbeef, 0xdead, 0xbeef}; // cleared by the reader
    if (list == nullptr)
        return {0xffffffff, 0xffffffff};
    EXPECT_EQ(read_update_list(list, media, flags), 0);
    fclose(list);
    EXPECT_EQ(flags[2], 0u);
    EXPECT_EQ(flags[3], 0u);
    return {flags[0], flags[1]};
}

TEST(ReadUpdateList, KeywordsSelectTheirBits) {
    struct Case {
        const char *list;
        uint32_t word0;
        uint32_t word1;
    } cases[] = {
        {"", 0, 0},
        {"qvxbin\n", FLAG_QVXBIN, 0},
        {"app_data\n", FLAG_APP_DATA, 0},
        {"app_data N\n", FLAG_APP_DATA | FLAG_APP_DATA_ERASE, 0},
        // The factory keyword is tried before app_data and never selects app_data.
        {"app_data/factory\n", FLAG_FACTORY, 0},
        {"app_data/factory R\n", 0, 0},
        {"app_data/factory RN\n", FLAG_FACTORY_ERASE, 0},
        {"model_data N\njpeg_user N\njpeg_factory N\nbitmap N\nother N\n",
         FLAG_MODEL_DATA | FLAG_MODEL_DATA_ERASE | FLAG_JPEG_USER | FLAG_JPEG_USER_ERASE |
             FLAG_JPEG_FACTORY | FLAG_JPEG_FACTORY_ERASE | FLAG_BITMAP | FLAG_BITMAP_ERASE |
             FLAG_OTHER | FLAG_OTHER_ERASE,
         0},
        {"other F\n", FLAG_OTHER, 0}, // no volume to recreate, no erase
        // Prefix matches: "uboot2" is uboot, "others" is other.
        {"uboot2\nothers\n", FLAG_UBOOT | FLAG_OTHER, 0},
        {"tvm_hex\ntvm_eeprom\npelto_eeprom\n", FLAG_TVM_HEX | FLAG_TVM_EEPROM | FLAG_PELTO_EEPROM,
         0},
        {"edid_data\nferund_eep\nvornek_eep\nhdmi_hex\n",
         FLAG_EDID_DATA | FLAG_FERUND_EEP | FLAG_VORNEK_EEP | FLAG_HDMI_HEX, 0},
        {"fpga_sam_1\nfpga_sam_2\nfpga_sam_3\n", 0,
         FLAG1_FPGA_SAM_1 | FLAG1_FPGA_SAM_2 | FLAG1_FPGA_SAM_3},
        // fpga_tr6_eeprom is tried before fpga_eeprom.
        {"fpga_tr6_eeprom\n", 0, FLAG1_FPGA_TR6_EEPROM},
        {"fpga_eeprom\nkolma_eeprom\n", 0, FLAG1_FPGA_EEPROM | FLAG1_KOLMA_EEPROM},
        // Comments need "#" in the first column; anything unknown is ignored.
        {"#qvxbin\n #qvxbin\nQVXBIN\nfirmware\n", 0, 0},
        // The same keyword twice only accumulates.
        {"bitmap\nbitmap N\nbitmap\n", FLAG_BITMAP | FLAG_BITMAP_ERASE, 0},
        {"zoran_update\n", FLAG_ZORAN_UPDATE, 0},
    };
    for (const Case &c : cases) {
        Selection s = read_list(c.list);
        EXPECT_EQ(s.word0, c.word0) << c.list;
        EXPECT_EQ(s.word1, c.word1) << c.list;
    }
}

TEST(ReadUpdateList, LongLinesContinueAsLinesOfTheirOwn) {
    // 255 characters fill one read; the rest of the line is read as a line of its own.
    std::string list = std::string(255, 'x') + "qvxbin\n" + std::string(254, 'y') + "\nbitmap\n";
    EXPECT_EQ(read_list(list).word0, FLAG_QVXBIN | FLAG_BITMAP);
}

// From an SD card a zoran line is refused with a message
// (NandService.ImageListIsShownWithoutTouchingAnyVolume); with no medium found, silently.
TEST(ReadUpdateList, ZoranIsLeftOutSilentlyWithNoMediumFound) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_list("zoran_update\n", {false, false}).word0, 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

} // namespace
