// A test program attached to a board runs the tool's functions on it, in-process.
#include "board/create.h"
#include "interpose/control.h"
#include "run/flashimg.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

TEST(AttachedBoard, ToolFunctionsRunOnTheBoardAndNowhereElse) {
    fs::path dir = fs::temp_directory_path() / ("tvsim-attach-test." + std::to_string(getpid()));
    fs::path medium = dir.string() + ".medium";
    fs::remove_all(dir);
    fs::create_directories(medium / "M1");
    std::string error;
    ASSERT_TRUE(tvsim::create_board(dir.string(), {medium.string(), ""}, &error)) << error;

    // Off the board, the tool's mounts and shell commands are refused.
    EXPECT_EQ(do_mount_media('b', 1), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(system("true"), -1);

    ASSERT_EQ(tvsim_attach(dir.c_str()), 0);
    const char *mount_point = nullptr;
    EXPECT_EQ(search_usb_media(&mount_point), 0);
    EXPECT_STREQ(mount_point, "/tmp/usb");
    EXPECT_EQ(system("echo on-board > /tmp/marker"), 0);
    // The stick is mounted read-only: writes fail, an existing name is reported first.
    auto error_of = [](bool failed) { return failed ? errno : 0; };
    const int errors[] = {
        error_of(open("/tmp/usb/new.txt", O_WRONLY | O_CREAT, 0644) < 0),
        error_of(mkdir("/tmp/usb/newdir", 0755) != 0),
        error_of(mkdir("/tmp/usb/M1", 0755) != 0),
        error_of(fopen("/tmp/usb/M1/x", "a") == nullptr),
    };
    tvsim_detach();
    const int expected[] = {EROFS, EROFS, EEXIST, EROFS};
    for (size_t i = 0; i < std::size(expected); ++i)
        EXPECT_EQ(errors[i], expected[i]) << "write " << i;

    std::ifstream state_file(dir / "state.json");
    nlohmann::json state = nlohmann::json::parse(state_file);
    ASSERT_EQ(state["mounts"].size(), 1u);
    EXPECT_EQ(state["mounts"][0]["source"], "/dev/sdb1");
    std::ifstream marker(dir / "fs/tmp/marker");
    std::string text;
    std::getline(marker, text);
    EXPECT_EQ(text, "on-board");
    fs::remove_all(dir);
    fs::remove_all(medium);
}

} // namespace
