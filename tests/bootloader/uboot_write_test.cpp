// Where uboot_write may write: the boot loader region from 0 up to 0xF0000, or anything from
// 0xF0000 on. A refused placement is reported before any file is opened.
#include "bootloader/uboot_write.h"

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

} // namespace
