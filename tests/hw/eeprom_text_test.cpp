#include "hw/utils.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <tuple>
#include <utility>

namespace {

// A line converted as the updaters convert it (its length less one, modulo 256), in hexadecimal.
std::string converted(const char *line, size_t room = 64) {
    uint8_t bytes[64];
    int count = Str2Hex(line, bytes, room, static_cast<uint8_t>(strlen(line) - 1));
    char text[2 * sizeof bytes + 1] = "";
    for (int i = 0; i < count; ++i)
        snprintf(text + 2 * i, 3, "%02x", bytes[i]);
    return text;
}

// Pairs of digits, blanks between them; a pair stops at the end of the line and of the buffer.
// A lone last digit begins no pair; a blank in second place is a non-digit (0xFF low).
TEST(Str2Hex, PairsOfDigitsWithBlanksBetween) {
    for (auto [line, bytes] :
         {std::pair{"\t00 12ab C", "0012ab"}, {"0 012AB", "ff012a"}, {"5", ""}, {" \t ", ""}})
        EXPECT_EQ(converted(line), bytes) << '"' << line << '"';
    EXPECT_EQ(converted("00 12 AB CD", 3), "0012ab");
    uint8_t bytes[4];
    EXPECT_EQ(Str2Hex("0012", bytes, sizeof bytes, 200), 2); // never past the end of the text
}

// Lines lose their line end; longer lines come in parts. With room for no character the file
// would never advance.
TEST(GetFgets, CutsLineEndsAndSplitsLongLines) {
    std::string text = "0123456789\r\n";
    FILE *f = fmemopen(text.data(), text.size(), "r");
    char buf[8];
    EXPECT_EQ(Get_Fgets(buf, 1, f), 0);
    for (const char *part : {"0123456", "789"}) {
        EXPECT_EQ(Get_Fgets(buf, sizeof buf, f), 1);
        EXPECT_STREQ(buf, part);
    }
    fclose(f);
}

// Files refused for a 32767-byte image in 64-byte blocks, and the last end address it takes.
// (Which lines fill which cells: the scenario tests.)
TEST(EepImage, VersionLineAndAddressLimits) {
    static uint8_t image[0x8000];
    struct Case {
        const char *text;
        EepFileLayout layout;
        int result;
        uint32_t end;
        const char *output;
        size_t image_size = 32767;
    } cases[] = {
        {"0012 AB\n", EEP_LAYOUT_VERSIONED, -1, 0, "Error. Version is not found on EEP file.\n"},
        {"", EEP_LAYOUT_VERSIONED, -1, 0, "EEP file Error\n"},
        {"7FFF 01\n", EEP_LAYOUT_DATA_ONLY, -1, 0,
         "**ERROR** EEP address 0x7FFF is outside the image (0x7FFF bytes)\n"},
        {"7FC1 01\n", EEP_LAYOUT_DATA_ONLY, -1, 0x7FC1,
         "**ERROR** EEP end address 0x7FC1: its last block would pass the image end\n"},
        {"7FC0 01\n", EEP_LAYOUT_DATA_ONLY, 0, 0x7FC0, ""},
        {"7FFF 01\n", EEP_LAYOUT_DATA_ONLY, 0, 0x7FFF, "", 0x8000}, // last block ends at the end
    };
    for (const Case &c : cases) {
        std::string text = c.text;
        FILE *f = fmemopen(text.data(), text.size(), "r");
        uint32_t end = 0;
        testing::internal::CaptureStdout();
        EXPECT_EQ(read_eep_image(f, 64, c.layout, EepImage{image, c.image_size, 64}, &end),
                  c.result)
            << c.text;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.output) << c.text;
        fclose(f);
        EXPECT_EQ(end, c.end) << c.text;
    }
    EXPECT_EQ(image[0x7FFF], 0x01);
}

// Counts the blocks it is given; fails on one that starts with 0x00.
int count_block(void *count, uint32_t, const uint8_t *block) {
    ++*static_cast<int *>(count);
    return block[0] == 0 ? -1 : 0;
}

TEST(EepBlockWalk, BlocksStartBelowTheEndAddress) {
    static uint8_t image[32767];
    memset(image, 0xFF, sizeof image);
    image[0x1000] = 0;
    // End address, result, blocks tried (which blocks: the scenario tests).
    for (auto [end, result, blocks_tried] :
         {std::tuple{0x0800u, 32, 32}, {0x0801u, 33, 33}, {0u, 0, 0}, {0x2000u, -1, 65}}) {
        int tried = 0;
        testing::internal::CaptureStdout();
        EXPECT_EQ(eep_block_walk(EepImage{image, sizeof image, 64}, end, count_block, &tried),
                  result)
            << end;
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(tried, blocks_tried) << end;
    }
    int tried = 0;
    EXPECT_EQ(eep_block_walk(EepImage{image, 2047, 32}, 0x7E1, count_block, &tried), -1);
    EXPECT_EQ(tried, 0);
}

TEST(EepTextFile, PathThatDoesNotFitIsRefused) {
    std::filesystem::path dir = testing::TempDir() + "eeptext." + std::to_string(getpid());
    std::filesystem::create_directories(dir);
    std::ofstream(dir / "tvm_data_b.txt") << "Version\n";
    char path[kEepPathSize];
    testing::internal::CaptureStdout();
    EXPECT_EQ(find_eep_text_file(dir.c_str(), "TVM_DATA", path, dir.string().size() + 10),
              EEP_FILE_PATH_TOO_LONG);
    EXPECT_EQ(find_eep_text_file((dir / "none").c_str(), "TVM_DATA", path, sizeof path),
              EEP_FILE_NO_DIR);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "**ERROR** path too long: " + dir.string() + "/tvm_data_b.txt\n" +
                  "**ERROR ** opendir failed on " + (dir / "none").string() + "\n");
    std::filesystem::remove_all(dir);
}

} // namespace
