// The simulator's board: how mounts fail, how shell commands are rewritten and checked,
// and how register accesses arrive.
#include "board/device.h"
#include "support/board_fixture.h"

#include <map>

namespace tvsim {
namespace {

class BoardTest : public testsupport::BoardFixture {
protected:
    void SetUp() override {
        BoardFixture::SetUp();
        board_ = load_board();
        ASSERT_TRUE(board_);
    }
    std::unique_ptr<Board> board_;
};

TEST_F(BoardTest, MountsFailAsTheKernelWould) {
    struct Case {
        const char *source;
        const char *target;
        const char *fstype;
        int err;
    } cases[] = {
        {"ubi4_9", "/mnt/flash/bitmap", "ubifs", ENODEV},
        {"ubi7_0", "/mnt/flash/bitmap", "ubifs", ENODEV},
        {"ubi5:other", "/mnt/flash/missing", "ubifs", ENOENT},
        {"/dev/sdb1", "/mnt/sdcard", "vfat", ENOENT}, // no stick in this board
        {"ubi5:other", "/etc", "ubifs", EPERM},
    };
    for (const Case &c : cases)
        EXPECT_EQ(board_->mount(c.source, c.target, c.fstype, 0), c.err) << c.source;
    EXPECT_EQ(board_->umount("/mnt/flash/bitmap"), EINVAL);
    EXPECT_EQ(board_->umount("/mnt/nowhere"), ENOENT);
}

TEST_F(BoardTest, ShellCommandsReachOnlyTheBoard) {
    // (The tool's own commands, cp and the application script, run in every update scenario.)
    EXPECT_EQ(board_->translate_command("ls /usr/bin >/dev/null;echo '/tmp/x'"),
              "ls /usr/bin >/dev/null;echo '" + dir_.string() + "/fs/tmp/x'");
    struct Case {
        const char *command;
        const char *foreign;
    } cases[] = {
        {"rm -rf /mnt/flash/other/*", ""},
        {"/sbin/insmod /modules/ubi.ko mtd=5", ""},
        {"rm -rf /", "/"},
        {"cp /tmp/a /etc/passwd", "/etc/passwd"},
        {"cat /tmp/../etc/shadow", "/etc/shadow"},
    };
    for (const Case &c : cases)
        EXPECT_EQ(board_->foreign_path_in(board_->translate_command(c.command)), c.foreign)
            << c.command;
}

// Device memory takes no unaligned access: the kernel's fix-up carries it out byte by byte,
// so an access across a word boundary reaches both words.
TEST_F(BoardTest, AnUnalignedRegisterAccessArrivesAsByteAccesses) {
    struct Words : RegisterSpace {
        explicit Words(Board &board) : RegisterSpace(board, "words") {}
        uint32_t load(uint32_t address) override { return word[address]; }
        void store(uint32_t address, uint32_t value) override { word[address] = value; }
        std::map<uint32_t, uint32_t> word{{0x1000, 0x44332211}, {0x1004, 0x88776655}};
    } space(*board_);
    EXPECT_EQ(space.read(0x1003, 2), 0x5544u);
    space.write(0x1003, 0xBEEF, 2);
    EXPECT_EQ(space.word[0x1000], 0xEF332211u);
    EXPECT_EQ(space.word[0x1004], 0x887766BEu);
}

} // namespace
} // namespace tvsim
