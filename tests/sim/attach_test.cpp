// A test program attached to a board runs the tool's functions on it, in-process.
#include "run/flashimg.h"
#include "support/board_fixture.h"

#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

using AttachedBoard = testsupport::BoardFixture;

TEST_F(AttachedBoard, ToolFunctionsRunOnTheBoardAndNowhereElse) {
    std::filesystem::path medium = dir_.string() + ".medium";
    std::filesystem::create_directories(medium / "M1");
    make_board({medium.string(), "", {}});

    // Off the board, the tool's mounts and shell commands are refused.
    EXPECT_EQ(do_mount_media('b', 1), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(system("true"), -1);

    attach();
    const char *mount_point = nullptr;
    EXPECT_EQ(search_usb_media(&mount_point), 0);
    EXPECT_STREQ(mount_point, "/tmp/usb");
    EXPECT_EQ(system("echo on-board > /tmp/marker"), 0);
    // The stick is mounted read-only: writes fail, an existing name is reported first.
    auto error_of = [](bool failed) { return failed ? errno : 0; };
    const std::pair<int, int> writes[] = {
        {error_of(open("/tmp/usb/new.txt", O_WRONLY | O_CREAT, 0644) < 0), EROFS},
        {error_of(mkdir("/tmp/usb/newdir", 0755) != 0), EROFS},
        {error_of(mkdir("/tmp/usb/M1", 0755) != 0), EEXIST},
        {error_of(fopen("/tmp/usb/M1/x", "a") == nullptr), EROFS},
    };
    detach();
    for (const auto &write : writes)
        EXPECT_EQ(write.first, write.second) << "write " << &write - writes;

    nlohmann::json mounts = read_json("state.json")["mounts"];
    ASSERT_EQ(mounts.size(), 1u);
    EXPECT_EQ(mounts[0]["source"], "/dev/sdb1");
    EXPECT_EQ(read_file("fs/tmp/marker"), "on-board\n");
    std::filesystem::remove_all(medium);
}

} // namespace
