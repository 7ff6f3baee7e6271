// The NAND module's refusals without a device, and the argument checks that run before any
// device access.
#include "nand/nand_raw_write.h"

#include <gtest/gtest.h>
#include <vector>

namespace {

constexpr uint32_t E = 0x20000;

TEST(NandNullContext, EveryOperationRefusesWithoutTouchingAnything) {
    unsigned char buf[16] = {};
    for (nand_dev *ctx : {static_cast<nand_dev *>(nullptr), NAND_OPEN_FAILED}) {
        EXPECT_EQ(nand_close(ctx), -1);
        EXPECT_EQ(nand_read(ctx, buf, sizeof buf, 0), -1);
        EXPECT_EQ(nand_write(ctx, buf, sizeof buf, 0), -1);
        EXPECT_EQ(nand_write_block(ctx, buf, sizeof buf, 0), -1);
        EXPECT_EQ(nand_erase(ctx, 0), -1);
        EXPECT_EQ(nand_get_blk_size(ctx), 0xFFFFFFFFu);
    }
}

TEST(NandChecks, RangeThenAlignmentThenBlockSizeBeforeAnyDeviceAccess) {
    struct Case {
        const char *name;
        int (*op)(nand_dev *, uint32_t, uint32_t);
        uint32_t size;
        uint32_t offset;
        const char *printed;
        int result = NAND_ERR_ARG;
    };
    static unsigned char data[2 * E];
    auto write = [](nand_dev *d, uint32_t s, uint32_t o) { return nand_write(d, data, s, o); };
    auto block = [](nand_dev *d, uint32_t s, uint32_t o) {
        return nand_write_block(d, data, s, o);
    };
    auto erase = [](nand_dev *d, uint32_t, uint32_t o) { return nand_erase(d, o); };
    // (A read or erase past the end and a misaligned write: rows of the service tool's refusals.)
    const Case cases[] = {
        {"wrapping u32 sum", write, 0xFFFFFFFFu, E,
         "Error: offset + size exceeds the device size!\n"
         "(offset=131072, size=-1, device size=1048576)\n"},
        {"block too large", block, E + 1, 0, "Error: size should be less than 131072 bytes.\n"},
        {"block too large, misaligned", block, E + 1, 1,
         "Error: offset should be aligned by 131072 bytes.\n"},
        // A whole block passes and reaches the device, which this context does not have.
        {"a whole block", block, E, 0, "", NAND_ERR_DEVICE},
        {"erase misaligned", erase, 0, 2048, "Error: offset should be aligned by 131072 bytes.\n"},
        // Past the end and misaligned: the range is what is reported.
        {"write past the end, misaligned", write, E, 7 * E + 1,
         "Error: offset + size exceeds the device size!\n"
         "(offset=917505, size=131072, device size=1048576)\n"},
        {"block past the end, misaligned", block, E, 7 * E + 1,
         "Error: offset + size exceeds the device size!\n"
         "(offset=917505, size=131072, device size=1048576)\n"},
        {"erase past the end, misaligned", erase, 0, 7 * E + 1,
         "Error: offset + erase size exceeds the device size!\n"
         "(offset=917505, erase size=131072, device size=1048576)\n"},
    };
    for (const Case &c : cases) {
        std::vector<uint64_t> map(8, 0);
        nand_dev ctx{-1, {}, map.data()}; // no device: any device access fails
        ctx.info.size = 8 * E;
        ctx.info.erasesize = E;
        ctx.info.writesize = 2048;
        testing::internal::CaptureStdout();
        EXPECT_EQ(c.op(&ctx, c.size, c.offset), c.result) << c.name;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed) << c.name;
    }
}
} // namespace
