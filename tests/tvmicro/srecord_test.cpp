#include "tvmicro/tvm_update.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <vector>

extern char **environ;

namespace {

TEST(SRecordLine, TypeAddressAndChecksum) {
    struct Case {
        const char *line;
        int record_class;
        int width; // -7: left untouched
        uint32_t address;
        int checksum_ok;
    } cases[] = {
        {"S1137AF00A0A0D0000000000000000000000000061", kSRecordData, 2, 0x7AF0, 1},
        {"S206012345abcd18", kSRecordData, 3, 0x012345, 1},
        {"S30812345678010203DD", kSRecordData, 4, 0x12345678, 1},
        {"S008000068656C6C6FE3", kSRecordHeader, 0, 0, 1},
        {"S5030003F9", kSRecordHeader, 2, 0, 1},
        {"S70500000000FA", kSRecordTermination, 4, 0, 1},
        {"S80401234592", kSRecordTermination, 3, 0, 1},
        {"S9030000FC", kSRecordTermination, 2, 0, 1},
        {"S404010001F9", kSRecordUnknown, -7, 0, 1},
        {"S1050100AABB95", kSRecordData, 2, 0x0100, 0}, // checksum off by one
        {"S1090100AABB94", kSRecordData, 2, 0x0100, 0}, // count longer than the line
        {"S1", kSRecordData, 2, 0, 0}, // its count is no number: the line is too short
        {"END", kSRecordUnknown, -7, 0, 0},
        {"", kSRecordUnknown, -7, 0, 0},
    };
    for (const Case &c : cases) {
        int width = -7;
        EXPECT_EQ(MotSRecordGetType(c.line, &width), c.record_class) << c.line;
        EXPECT_EQ(width, c.width) << c.line;
        EXPECT_EQ(MotSRecordCheckLineCheckSum(c.line), c.checksum_ok) << c.line;
        if (c.record_class == kSRecordData && c.checksum_ok == 1) {
            EXPECT_EQ(MotSRecordGetAddress(c.line), c.address) << c.line;
        }
    }
    int width = 5;
    EXPECT_EQ(MotSRecordGetType(nullptr, &width), kSRecordUnknown);
    EXPECT_EQ(width, 0);
    EXPECT_EQ(MotSRecordGetDataLen("S1137AF0"), 0x13u);
}

TEST(SRecordDigits, InvalidDigitsLeaveTheWidthsRange) {
    EXPECT_EQ(ToHex1Byte("aF"), 0xAFu);
    EXPECT_EQ(ToHex2Byte("7af0"), 0x7AF0u);
    EXPECT_EQ(ToHex3Byte("012345"), 0x012345u);
    EXPECT_EQ(ToHex4Byte("DEADBEEF"), 0xDEADBEEFu);
    EXPECT_EQ(ToHex1Byte("GG"), 0x10EFu);
    EXPECT_EQ(ToHex1Byte("1"), 0x10Fu); // the end of the text is no digit, and is not read past
    EXPECT_STREQ(ExtractString("S1137AF0", 4), "S113");
    EXPECT_STREQ(ExtractString("S1", 4), "S1");
    EXPECT_STREQ(ExtractString("S1137AF0", 64), "");
    EXPECT_EQ(ExtractString(nullptr, 2), nullptr);
}

struct Loaded {
    int result;
    uint32_t start;
    std::string output;
};

Loaded load(const std::string &text) {
    std::string copy = text;
    FILE *file = fmemopen(copy.data(), copy.size(), "r");
    Loaded l{};
    testing::internal::CaptureStdout();
    l.result = MotSRecordLoadImage(file, &l.start);
    l.output = testing::internal::GetCapturedStdout();
    fclose(file);
    return l;
}

TEST(SRecordLoad, SectionsLoadRelativeToTheirFirstDataRecord) {
    struct Case {
        const char *what;
        std::string text;
        int result;
        uint32_t start;
        std::vector<std::pair<uint32_t, uint8_t>> bytes;
        std::string output;
    } cases[] = {
        {"no termination record",
         "S1050100AABB94\n",
         0,
         0x100,
         {{0, 0xAA}, {1, 0xBB}, {2, 0xFF}},
         ""},
        {"empty line skipped",
         "\nS1050100AABB94\r\n",
         0,
         0x100,
         {{1, 0xBB}},
         "Starting character does not conform to Motorola S Record standard.\n"},
        {"lower-case s rejected",
         "s1050100AABB94\n",
         0,
         0,
         {{0, 0xFF}},
         "Starting character does not conform to Motorola S Record standard.\n"},
        {"bad checksum skipped",
         "S1050100AABB94\nS1040120CC0F\n",
         0,
         0x100,
         {{0x20, 0xFF}},
         "Invalid line checksum : S1040120CC0F \n"},
        {"headers change nothing",
         "S008000068656C6C6FE3\nS1050100AABB94\nS5030003F9\n",
         0,
         0x100,
         {{0, 0xAA}},
         ""},
        {"termination ends the section",
         "S1050100AABB94\nS9030000FC\nS1040120CC0E\n",
         0,
         0x100,
         {{0x20, 0xFF}},
         ""},
        {"later records in any order, the last one wins",
         "S1050100AABB94\nS1040120CC0E\nS104010011E9\n",
         0,
         0x100,
         {{0, 0x11}, {1, 0xBB}, {0x20, 0xCC}},
         ""},
        {"image at address 0", "S104000055A6\nS10400106685\n", 0, 0, {{0, 0x55}, {0x10, 0x66}}, ""},
        {"unknown type fails silently", "S1050100AABB94\nS404010001F9\n", -1, 0x100, {}, ""},
        {"below the first record",
         "S1050100AABB94\nS10400FF11EB\n",
         -1,
         0x100,
         {},
         "Array boundary exceeded !! Requested array index = FFFFFFFF but maximum size is 18000 \n"
         "buf = S10400FF11EB, ulAddr = 0x  FF, uStartAddr = 0x 100\n"},
        {"last byte of the image, and one further",
         "S30600000100995F\nS307000180FF778879\n",
         -1,
         0x100,
         {{0, 0x99}, {98303, 0x77}},
         "Array boundary exceeded !! Requested array index = 18000 but maximum size is 18000 \n"
         "buf = S307000180FF778879, ulAddr = 0x180FF, uStartAddr = 0x 100\n"},
    };
    for (const Case &c : cases) {
        Loaded l = load(c.text);
        EXPECT_EQ(l.result, c.result) << c.what;
        EXPECT_EQ(l.start, c.start) << c.what;
        EXPECT_EQ(l.output, c.output) << c.what;
        for (auto [index, value] : c.bytes)
            EXPECT_EQ(rom_buf[index], value) << c.what << " at " << index;
    }
}

// Runs srec_cat; true when it exited with 0.
bool run_srec_cat(const std::vector<std::string> &args) {
    std::vector<char *> argv;
    for (const std::string &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid;
    int status = 0;
    return posix_spawnp(&pid, "srec_cat", nullptr, nullptr, argv.data(), environ) == 0 &&
           waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Files made by a standard S-record tool, with 2-, 3- and 4-byte addresses, load to exactly
// the bytes they were made from.
TEST(SRecordLoad, FilesFromSrecCatLoadToTheirBytes) {
    std::filesystem::path dir = testing::TempDir() + "srec." + std::to_string(getpid());
    std::filesystem::create_directories(dir);
    std::mt19937 random(7);
    struct Case {
        int address_length;
        uint32_t base;
        size_t size;
    } cases[] = {{2, 0x1000, 3001}, {3, 0x12000, MaxRomSize}, {4, 0x123400, 70000}};
    for (const Case &c : cases) {
        std::string data(c.size, '\0');
        for (char &b : data)
            b = static_cast<char>(random());
        std::string bin = (dir / "image.bin").string(), mot = (dir / "image.mot").string();
        std::ofstream(bin, std::ios::binary) << data;
        ASSERT_TRUE(
            run_srec_cat({"srec_cat", bin, "-binary", "-offset", std::to_string(c.base), "-o", mot,
                          "-motorola", "-address-length=" + std::to_string(c.address_length),
                          "-execution-start-address=" + std::to_string(c.base)}));
        FILE *file = fopen(mot.c_str(), "r");
        ASSERT_NE(file, nullptr);
        uint32_t start = 0;
        EXPECT_EQ(MotSRecordLoadImage(file, &start), 0);
        fclose(file);
        EXPECT_EQ(start, c.base);
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(rom_buf), c.size), data);
        EXPECT_EQ(
            std::string(reinterpret_cast<const char *>(rom_buf) + c.size, MaxRomSize - c.size),
            std::string(MaxRomSize - c.size, '\xff'));
    }
    std::filesystem::remove_all(dir);
}

} // namespace
