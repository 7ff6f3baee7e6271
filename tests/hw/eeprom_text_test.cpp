#include "hw/utils.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

std::string hex(const uint8_t *bytes, int count) {
    std::string text;
    char two[3];
    for (int i = 0; i < count; ++i) {
        snprintf(two, sizeof two, "%02x", bytes[i]);
        text += two;
    }
    return text;
}

// A line converted as the updaters convert it: its length less one, modulo 256.
std::string converted(const char *line, size_t room = 64) {
    uint8_t bytes[64];
    int count = Str2Hex(line, bytes, room, static_cast<uint8_t>(strlen(line) - 1));
    return count < 0 ? "error" : hex(bytes, count);
}

TEST(Str2Hex, PairsOfDigitsWithBlanksBetween) {
    struct Case {
        const char *line;
        std::string bytes;
    } cases[] = {
        {"0010 5A", "00105a"},
        {"00 10 5A", "00105a"},
        {"00105A", "00105a"},
        {"0012 ab", "0012ab"},
        {"\t0012\tAB", "0012ab"},
        {"00 12 AB CD", "0012abcd"},
        {"0012 AB C", "0012ab"}, // a lone last digit begins no pair
        {"0 012AB", "ff012a"},   // a blank in second place is a non-digit: 0xFF low
        {"G1 1G", "f1ff"},
        {"", ""}, // length 255 stops at the end of the line
        {"5", ""},
        {"0012", "0012"},
    };
    for (const Case &c : cases)
        EXPECT_EQ(converted(c.line), c.bytes) << '"' << c.line << '"';
    EXPECT_EQ(converted("00 12 AB CD", 3), "0012ab");
    uint8_t bytes[4];
    EXPECT_EQ(Str2Hex(nullptr, bytes, sizeof bytes, 4), -1);
    EXPECT_EQ(Str2Hex("0012", nullptr, 4, 4), -1);
    EXPECT_EQ(Str2Hex("0012", bytes, sizeof bytes, 200), 2); // never past the end of the text
    EXPECT_EQ(CharToHex('9'), 9);
    EXPECT_EQ(CharToHex('a'), 10);
    EXPECT_EQ(CharToHex('F'), 15);
    EXPECT_EQ(CharToHex('g'), 0xFF);
    EXPECT_EQ(CharToHex('\0'), 0xFF);
}

// A stream holding text, read from its start.
FILE *stream_of(const std::string &text) {
    FILE *f = tmpfile();
    fputs(text.c_str(), f);
    rewind(f);
    return f;
}

std::vector<std::string> read_lines(const std::string &text, int size) {
    FILE *f = stream_of(text);
    std::vector<std::string> out;
    char buf[64];
    while (Get_Fgets(buf, size, f) == 1)
        out.emplace_back(buf);
    fclose(f);
    return out;
}

TEST(GetFgets, CutsLineEndsAndSplitsLongLines) {
    EXPECT_EQ(read_lines("0012 AB\r\n0013 CD\nlast", 64),
              (std::vector<std::string>{"0012 AB", "0013 CD", "last"}));
    EXPECT_EQ(read_lines("0123456789AB\n", 8), (std::vector<std::string>{"0123456", "789AB"}));
    EXPECT_EQ(read_lines("", 64), std::vector<std::string>{});
    char buf[8];
    EXPECT_EQ(Get_Fgets(buf, sizeof buf, nullptr), 0);
    EXPECT_EQ(Get_Fgets(buf, 1, stdin), 0);
}

struct Built {
    int result;
    uint32_t end;
    std::string output;
};

Built build(const std::string &text, EepFileLayout layout, uint8_t *image, size_t size,
            size_t block) {
    FILE *f = stream_of(text);
    Built b{};
    testing::internal::CaptureStdout();
    b.result = read_eep_image(f, 64, layout, EepImage{image, size, block}, &b.end);
    b.output = testing::internal::GetCapturedStdout();
    fclose(f);
    return b;
}

TEST(EepImage, DataLinesFillTheImage) {
    static uint8_t image[32767];
    struct Case {
        const char *what;
        std::string text;
        EepFileLayout layout;
        size_t size;
        size_t block;
        int result;
        uint32_t end;
        std::vector<std::pair<uint32_t, uint8_t>> cells;
        std::string output;
    } cases[] = {
        {"versioned, checksum line ends the data",
         "Version 1.2\r\n0012 AB\r\n0000 01\r\nchecksum 1A2B\r\n0030 02\r\n",
         EEP_LAYOUT_VERSIONED,
         32767,
         64,
         0,
         0,
         {{0x12, 0xAB}, {0, 0x01}, {0x30, 0xFF}, {1, 0xFF}},
         "EEP file Version 1.2\n"},
        {"versioned, letter case of Version ignored",
         "VERSION x\n0100 11\n",
         EEP_LAYOUT_VERSIONED,
         32767,
         64,
         0,
         0x100,
         {{0x100, 0x11}},
         "EEP file VERSION x\n"},
        {"no Version line",
         "0012 AB\n",
         EEP_LAYOUT_VERSIONED,
         32767,
         64,
         -1,
         0,
         {},
         "Error. Version is not found on EEP file.\n"},
        {"empty file", "", EEP_LAYOUT_VERSIONED, 32767, 64, -1, 0, {}, "EEP file Error\n"},
        {"end address is the last line's",
         "0200 01\n0010 02\n",
         EEP_LAYOUT_DATA_ONLY,
         32767,
         64,
         0,
         0x10,
         {{0x200, 0x01}},
         ""},
        {"lines without bytes are skipped",
         "\n   \n0012 AB\n5\n",
         EEP_LAYOUT_DATA_ONLY,
         32767,
         64,
         0,
         0x12,
         {{0x12, 0xAB}},
         ""},
        {"an address without data is refused",
         "0012 AB\n0013\n",
         EEP_LAYOUT_DATA_ONLY,
         32767,
         64,
         -1,
         0x12,
         {},
         "**ERROR** EEP data line without a data byte: 0013\n"},
        {"an address outside the image is refused",
         "7FFF 01\n",
         EEP_LAYOUT_DATA_ONLY,
         32767,
         64,
         -1,
         0,
         {},
         "**ERROR** EEP address 0x7FFF is outside the image (0x7FFF bytes)\n"},
        {"last block ends at the image's end",
         "7FC0 01\n",
         EEP_LAYOUT_DATA_ONLY,
         32767,
         64,
         0,
         0x7FC0,
         {{0x7FC0, 0x01}},
         ""},
        {"last block would pass the image's end",
         "7FC1 01\n",
         EEP_LAYOUT_DATA_ONLY,
         32767,
         64,
         -1,
         0x7FC1,
         {},
         "**ERROR** EEP end address 0x7FC1: its last block would pass the image end\n"},
        {"small image",
         "07E1 01\n",
         EEP_LAYOUT_DATA_ONLY,
         2047,
         32,
         -1,
         0x7E1,
         {},
         "**ERROR** EEP end address 0x07E1: its last block would pass the image end\n"},
    };
    for (const Case &c : cases) {
        Built b = build(c.text, c.layout, image, c.size, c.block);
        EXPECT_EQ(b.result, c.result) << c.what;
        EXPECT_EQ(b.end, c.end) << c.what;
        EXPECT_EQ(b.output, c.output) << c.what;
        for (auto [address, value] : c.cells)
            EXPECT_EQ(image[address], value) << c.what << " at " << address;
    }
}

struct Walk {
    std::vector<uint32_t> addresses;
    int fail_at = -1;
};

int record_block(void *context, uint32_t address, const uint8_t *) {
    Walk &w = *static_cast<Walk *>(context);
    w.addresses.push_back(address);
    return static_cast<int>(w.addresses.size()) - 1 == w.fail_at ? -1 : 0;
}

TEST(EepBlockWalk, BlocksStartBelowTheEndAddress) {
    static uint8_t image[32767];
    EepImage walked{image, sizeof image, 64};
    struct Case {
        uint32_t end;
        int fail_at;
        int result;
        size_t blocks_tried;
    } cases[] = {
        {0x07FF, -1, 32, 32}, {0x0800, -1, 32, 32}, {0x0801, -1, 33, 33},
        {0, -1, 0, 0},        {0x0100, 2, -1, 3},
    };
    for (const Case &c : cases) {
        Walk w;
        w.fail_at = c.fail_at;
        testing::internal::CaptureStdout();
        EXPECT_EQ(eep_block_walk(walked, c.end, record_block, &w), c.result) << c.end;
        testing::internal::GetCapturedStdout();
        ASSERT_EQ(w.addresses.size(), c.blocks_tried) << c.end;
        for (size_t i = 0; i < w.addresses.size(); ++i)
            EXPECT_EQ(w.addresses[i], i * 64) << c.end;
    }
    Walk w;
    testing::internal::CaptureStdout();
    eep_block_walk(walked, 0x100, record_block, &w);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\r   0% completed\r  25% completed\r  50% completed\r  75% completed");
    EXPECT_EQ(eep_block_walk(EepImage{image, 2047, 32}, 0x7E1, record_block, &w), -1);
}

TEST(EepTextFile, FirstEntryWithThePrefixInAnyCase) {
    std::filesystem::path dir = testing::TempDir() + "eeptext." + std::to_string(getpid());
    std::filesystem::create_directories(dir);
    std::ofstream(dir / "tvm_data_b.txt") << "Version\n";
    std::ofstream(dir / "other.txt") << "";
    char path[kEepPathSize];
    EXPECT_EQ(find_eep_text_file(dir.c_str(), "TVM_DATA", path, sizeof path), EEP_FILE_FOUND);
    EXPECT_EQ(std::string(path), (dir / "tvm_data_b.txt").string());
    EXPECT_EQ(find_eep_text_file(dir.c_str(), "PELTO_DATA", path, sizeof path), EEP_FILE_NOT_FOUND);
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
