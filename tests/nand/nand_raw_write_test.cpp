// The NAND module's refusals without a device, the argument checks that run before any device
// access, and the single-block write on a board.
#include "nand/nand_raw_write.h"
#include "support/board_fixture.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
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

// Callers outside this program read the codes by their errno names.
TEST(NandResultCodes, AreTheNegatedErrnoValues) {
    EXPECT_EQ(NAND_ERR_OPEN, -ENOENT);
    EXPECT_EQ(NAND_ERR_WRITE, -EINTR);
    EXPECT_EQ(NAND_ERR_READ, -EIO);
    EXPECT_EQ(NAND_ERR_DEVICE, -E2BIG);
    EXPECT_EQ(NAND_ERR_NO_GOOD, -ENOEXEC);
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
    const char *past_end = "Error: offset + size exceeds the device size!\n"
                           "(offset=917505, size=131072, device size=1048576)\n";
    const Case cases[] = {
        {"wrapping u32 sum", write, 0xFFFFFFFFu, E,
         "Error: offset + size exceeds the device size!\n"
         "(offset=131072, size=-1, device size=1048576)\n"},
        {"block too large", block, E + 1, 0, "Error: size should be less than 131072 bytes.\n"},
        {"block too large, misaligned", block, E + 1, 1,
         "Error: offset should be aligned by 131072 bytes.\n"},
        // A whole block passes and reaches the device, which this context does not have.
        {"a whole block", block, E, 0, "", NAND_ERR_DEVICE},
        {"write the last block", write, E, 7 * E, "", NAND_ERR_DEVICE},
        {"erase the last block", erase, 0, 7 * E, "", NAND_ERR_DEVICE},
        {"erase misaligned", erase, 0, 2048, "Error: offset should be aligned by 131072 bytes.\n"},
        // Past the end and misaligned: the range is what is reported.
        {"write past the end, misaligned", write, E, 7 * E + 1, past_end},
        {"block past the end, misaligned", block, E, 7 * E + 1, past_end},
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

// The single-block write programs the physical block that holds the logical one, without an
// erase, and retires that block (not the logical number, not its neighbour) when a page fails.
class NandBlockOnBoard : public testsupport::BoardFixture {};

TEST_F(NandBlockOnBoard, WritesAndRetiresThePhysicalBlockOfTheOffset) {
    change_config([](testsupport::json &c) {
        c["mtd"][1]["bad_blocks"] = {1}; // uboot_env, /dev/mtd1: logical 2 is physical 3
        c["faults"] = {testsupport::fault("nand_write_fail", "uboot_env:3")};
    });
    const struct {
        const char *name;
        uint32_t offset;
        uint32_t size;
        int result;
        size_t physical;            // the block that shows the write
        std::vector<size_t> marked; // the blocks marked bad so far
    } cases[] = {
        {"a short block, padded", 0, E / 2, static_cast<int>(E / 2), 0, {}},
        {"a failed page", 2 * E, E, NAND_ERR_WRITE, 3, {3}},
    };
    const std::string data(E, 'd');
    attach();
    // Through the operations record, in a program without standard input: the device gets
    // descriptor 0 and is used there.
    flash_storage_dev dev{};
    ASSERT_EQ(init_flash_storage_dev(&dev), 0);
    testsupport::StandardInputClosed without_input;
    nand_dev *ctx = dev.open("/dev/mtd1", 0);
    ASSERT_NE(ctx, NAND_OPEN_FAILED);
    EXPECT_EQ(ctx->fd, 0);
    for (const auto &c : cases) {
        EXPECT_EQ(dev.write_block(ctx, data.data(), c.size, c.offset), c.result) << c.name;
        std::vector<size_t> marked;
        for (const testsupport::json &m : trace("mtd_markbad"))
            marked.push_back(m["block"]);
        EXPECT_EQ(marked, c.marked) << c.name;
        std::string block = read_file("mtd/uboot_env.bin").substr(c.physical * E, E);
        // A retired block holds nothing of the write.
        EXPECT_EQ(block, c.result < 0 ? std::string(E, '\xFF')
                                      : data.substr(0, c.size) + std::string(E - c.size, '\xFF'))
            << c.name;
    }
    EXPECT_EQ(dev.close(ctx), 0);
}

// A block retired inside one open moves its logical block and every one after it to the next
// good block after the one before: a write of logical block 1 in the same open lands in
// physical block 2, where a reopen finds it, not in block 1, which now holds logical block 0.
TEST_F(NandBlockOnBoard, RetirementMovesTheLaterBlocksWithinOneOpen) {
    const struct {
        const char *name;
        const char *fault;                             // fails on physical block 0
        int (*first)(nand_dev *, const std::string &); // on logical block 0
    } cases[] = {
        {"a write whose erase fails", "nand_erase_fail",
         [](nand_dev *d, const std::string &b) { return nand_write(d, b.data(), E, 0); }},
        {"an erase that fails", "nand_erase_fail",
         [](nand_dev *d, const std::string &) { return nand_erase(d, 0); }},
        {"a single-block write whose page fails", "nand_write_fail",
         [](nand_dev *d, const std::string &b) { return nand_write_block(d, b.data(), E, 0); }},
    };
    const std::string first(E, 'a'), second(E, 'b');
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        make_board();
        add_fault(testsupport::fault(c.fault, "uboot_env:0"));
        attach();
        nand_dev *ctx = nand_open("/dev/mtd1", 0);
        ASSERT_NE(ctx, NAND_OPEN_FAILED);
        c.first(ctx, first);
        EXPECT_EQ(nand_write(ctx, second.data(), E, E), static_cast<int>(E));
        nand_close(ctx);
        detach();
        const std::string flash = read_file("mtd/uboot_env.bin");
        EXPECT_EQ(flash.substr(2 * E, E), second);
        EXPECT_NE(flash.substr(E, E), second) << "logical block 0 overwritten";
    }
}

} // namespace
