// Where uboot_write may write: the boot loader region from 0 up to 0xF0000, or anything from
// 0xF0000 on. A refused placement is reported before any file is opened; an accepted one is
// written where it lies.
#include "bootloader/uboot_write.h"
#include "support/board_fixture.h"

#include <gtest/gtest.h>
#include <string>

namespace {

TEST(UbootWrite, PlacementRule) {
    const struct {
        uint32_t offset;
        uint32_t size;
        bool refused;
    } cases[] = {
        {0, 0xF0000, false},        {0, 0xF0001, true},    {0x10, 1, true},
        {0xEFFFF, 0x10, true},      {0xF0000, 0x1, false}, {0xF0000, 0x7FFFFFFF, false},
        {0x100000, 0xF0000, false},
    };
    for (const auto &c : cases) {
        // An accepted placement goes on to open the device, which does not exist here.
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        EXPECT_EQ(uboot_write("/nonexistent/boot.bin", c.offset, c.size, "/nonexistent/mtd"),
                  UBOOT_WRITE_FAILED);
        std::string out = testing::internal::GetCapturedStdout();
        char refusal[160];
        snprintf(refusal, sizeof refusal,
                 "Error: Illegal bootloader address. file=/nonexistent/boot.bin, "
                 "offset=0x%x,size=%d(0x%x)\n",
                 c.offset, static_cast<int>(c.size), c.size);
        EXPECT_EQ(out, c.refused ? refusal : "") << std::hex << c.offset << " " << c.size;
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  c.refused ? "" : "/nonexistent/mtd: No such file or directory\n");
    }
}

class UbootWriteOnBoard : public testsupport::BoardFixture {};

// A region past the boot loader's is compared, erased, written and verified where it lies; what
// comes before it stays as it was.
TEST_F(UbootWriteOnBoard, WritesTheRegionAtItsOffset) {
    constexpr uint32_t kOffset = 0x100000, kSize = 0x20000; // the kernel partition's 9th block
    std::string image(kSize, '\0');
    for (size_t i = 0; i < image.size(); ++i)
        image[i] = static_cast<char>(i * 7 + i / 251);
    std::filesystem::create_directories(dir_ / "fs/tmp");
    std::ofstream(dir_ / "fs/tmp/region.bin", std::ios::binary) << image;
    attach();
    std::string out = testsupport::printed(
        [&] { EXPECT_EQ(uboot_write("/tmp/region.bin", kOffset, kSize, "/dev/mtd2"), 0); });
    detach();
    EXPECT_TRUE(out.starts_with("Need to update... ")) << out;
    std::string flash = read_file("mtd/kernel.bin");
    ASSERT_GE(flash.size(), kOffset + kSize);
    EXPECT_TRUE(flash.substr(kOffset, kSize) == image);
    EXPECT_EQ(flash.substr(0, kOffset), std::string(kOffset, '\xff'));
}

} // namespace
