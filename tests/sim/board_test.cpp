// The simulator's board: how mounts fail, how shell commands are rewritten and checked,
// how register accesses arrive and how output is traced.
#include "board/create.h"
#include "board/device.h"
#include "board/ubi.h"
#include "support/board_fixture.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <sys/mount.h>

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

// A board the simulator cannot read is not loaded, and the reason names the file.
TEST_F(BoardTest, ABoardItCannotReadIsNotLoaded) {
    const struct {
        const char *file;
        const char *text;
        const char *error;
    } damaged[] = {
        {.file = "board.json", .text = "[]", .error = "board.json in DIR is not a JSON object"},
        {.file = "board.json",
         .text = R"({"format": 2})",
         .error = "board.json in DIR is of format 2; this simulator reads format 1"},
        {.file = "board.json",
         .text = R"({"format": "1"})",
         .error = R"(board.json in DIR is of format "1"; this simulator reads format 1)"},
        {.file = "board.json",
         .text = "{}",
         .error = "board.json in DIR is of format null; this simulator reads format 1"},
        {.file = "state.json", .text = "{", .error = "state.json in DIR is not a JSON object"},
    };
    std::string board = read_file("board.json");
    for (const auto &d : damaged) {
        std::ofstream(dir_ / d.file) << d.text;
        std::string error;
        EXPECT_EQ(Board::load(dir_.string(), &error), nullptr) << d.text;
        std::string expected = d.error;
        expected.replace(expected.find("DIR"), 3, dir_.string());
        EXPECT_EQ(error, expected);
        std::ofstream(dir_ / "board.json") << board;
        std::filesystem::remove(dir_ / "state.json");
    }
    // A board whose trace cannot be written is not loaded either: a run would leave no record.
    std::filesystem::remove(dir_ / "trace.jsonl");
    std::filesystem::create_directory(dir_ / "trace.jsonl");
    std::string error;
    EXPECT_EQ(Board::load(dir_.string(), &error), nullptr);
    EXPECT_EQ(error, "trace.jsonl in " + dir_.string() + " cannot be written: Is a directory");
    std::filesystem::remove(dir_ / "trace.jsonl");
    EXPECT_NE(load_board(), nullptr); // the board as made loads
}

// A board is made whole or not at all: any folder, file or medium it cannot make fails it,
// and the first such failure is the one reported.
TEST_F(BoardTest, ABoardItCannotMakeWholeIsRefused) {
    const std::string made = dir_.string(), fresh = made + ".fresh", no_medium = made + ".none";
    const struct {
        const char *what;
        const char *file_in_the_way; // a file where the board needs a folder, or ""
        NewBoardOptions options;
        std::string error;
    } cases[] = {
        {"a folder it cannot make", "fs/mnt/flash/other", {}, "cannot write the board into "},
        {"a stick without its folder",
         "",
         {.usb_medium = no_medium, .sd_medium = made, .seed = {}},
         "cannot copy the medium: No such file or directory"},
        {"a board already there", "board.json", {}, " already holds a board"},
    };
    for (const auto &c : cases) {
        std::filesystem::remove_all(fresh);
        if (*c.file_in_the_way != '\0') {
            const std::filesystem::path in_the_way =
                std::filesystem::path(fresh) / c.file_in_the_way;
            std::filesystem::create_directories(in_the_way.parent_path());
            std::ofstream(in_the_way) << "in the way";
        }
        std::string error;
        EXPECT_FALSE(create_board(fresh, c.options, &error)) << c.what;
        EXPECT_NE(error.find(c.error), std::string::npos) << c.what << ": " << error;
    }
    std::filesystem::remove_all(fresh);
}

// A fault strikes the calls of its kind that its target names (or whose target holds its
// match), after skipping `skip` of them, `times` times; for ever without `times`.
TEST_F(BoardTest, AFaultStrikesTheCallsItsSettingsChoose) {
    using testsupport::fault;
    const struct {
        json fault;
        const char *target;
        const char *strikes; // one mark per call: x struck, . not
    } cases[] = {
        {.fault = fault("open"), .target = "/dev/mtd1", .strikes = "xxxxx"},
        {.fault = fault("read"), .target = "/dev/mtd1", .strikes = "....."},
        {.fault = fault("open", "/dev/mtd2"), .target = "/dev/mtd1", .strikes = "....."},
        {.fault = fault("open", "/dev/mtd1"), .target = "/dev/mtd1", .strikes = "xxxxx"},
        {.fault = fault("open", "", {{"match", "mtd"}}), .target = "/dev/mtd1", .strikes = "xxxxx"},
        {.fault = fault("open", "", {{"match", "i2c"}}), .target = "/dev/mtd1", .strikes = "....."},
        {.fault = fault("open", "", {{"skip", 2}}), .target = "/dev/mtd1", .strikes = "..xxx"},
        {.fault = fault("open", "", {{"times", 2}}), .target = "/dev/mtd1", .strikes = "xx..."},
        {.fault = fault("open", "", {{"skip", 1}, {"times", 3}}),
         .target = "/dev/mtd1",
         .strikes = ".xxx."},
        {.fault = fault("open", "", {{"times", 0}}), .target = "/dev/mtd1", .strikes = "....."},
    };
    for (const auto &c : cases) {
        change_config([&](json &config) { config["faults"] = json::array({c.fault}); });
        board_ = load_board();
        std::string strikes;
        for (int call = 0; call < 5; ++call)
            strikes += board_->take_fault("open", c.target) != nullptr ? 'x' : '.';
        EXPECT_EQ(strikes, c.strikes) << c.fault.dump();
    }
}

TEST_F(BoardTest, MountsFailAsTheKernelWould) {
    struct Case {
        const char *source;
        const char *target;
        const char *fstype;
        int err;
        const char *data = nullptr;
    } cases[] = {
        {"ubi4_9", "/mnt/flash/bitmap", "ubifs", ENODEV},
        {"ubi7_0", "/mnt/flash/bitmap", "ubifs", ENODEV},
        {"ubi5:other", "/mnt/flash/missing", "ubifs", ENOENT},
        {"/dev/sdc1", "/mnt/sdcard", "vfat", ENOENT}, // no stick at that letter
        {"ubi5:other", "/etc", "ubifs", EPERM},
        // Options each file system does not know, or values it does not take.
        {"ubi5:other", "/mnt/flash/other", "ubifs", EINVAL, "bogus_option"},
        {"ubi5:other", "/mnt/flash/other", "ubifs", EINVAL, "sync,compr=lz4"},
        {"ubi5:other", "/mnt/flash/other", "ubifs", EINVAL, "bulk_read=1"},
        {"ubi5:other", "/mnt/flash/other", "ubifs", EINVAL, "shortname=winnt"},
        {"/dev/sdb1", "/mnt/sdcard", "vfat", EINVAL, "shortnam=winnt"},
        {"/dev/sdb1", "/mnt/sdcard", "vfat", EINVAL, "shortname=bogus"},
        {"/dev/sdb1", "/mnt/sdcard", "vfat", EINVAL, "shortname"},
        {"/dev/sdb1", "/mnt/sdcard", "vfat", EINVAL, "umask=099"},
        {"/dev/sdb1", "/mnt/sdcard", "vfat", EINVAL, "uid=root"},
        {"/dev/sdb1", "/mnt/sdcard", "vfat", EINVAL, "uid="},
        {"/dev/sdb1", "/mnt/sdcard", "vfat", 0, "uid=0,gid=-1,umask=0777"}, // values it takes
        {"/dev/sdb1", "/mnt/sdcard", "vfat", EINVAL, "bulk_read"},
    };
    change_config([](json &c) {
        c["media"]["usb"] = json::array({{{"disk", "b"}, {"medium", "media/usb"}}});
    });
    board_ = load_board();
    for (const Case &c : cases) {
        EXPECT_EQ(board_->mount(c.source, c.target, c.fstype, 0, c.data), c.err)
            << c.source << " " << (c.data != nullptr ? c.data : "");
        int unmounted = board_->umount(c.target);
        EXPECT_TRUE(c.err != 0 || unmounted == 0) << c.target << " " << unmounted;
    }
    EXPECT_EQ(board_->umount("/mnt/flash/bitmap"), EINVAL);
    EXPECT_EQ(board_->umount("/mnt/nowhere"), ENOENT);
}

// The mount table shows each mount's flags and the options it was given; the flags' words among
// the options change the flags.
TEST_F(BoardTest, TheMountTableShowsFlagsAndOptions) {
    change_config([](json &c) {
        c["media"]["usb"] = json::array({{{"disk", "b"}, {"medium", "media/usb"}}});
    });
    board_ = load_board();
    ASSERT_EQ(board_->mount("/dev/sdb1", "/mnt/sdcard", "vfat", MS_RDONLY, "shortname=winnt"), 0);
    ASSERT_EQ(board_->mount("ubi4_1", "/mnt/flash/model_data", "ubifs", MS_SYNCHRONOUS), 0);
    ASSERT_EQ(
        board_->mount("ubi4_4", "/mnt/flash/bitmap", "ubifs", 0, "sync,,bulk_read,compr=zlib"), 0);
    ASSERT_EQ(board_->mount("ubi5:other", "/mnt/flash/other", "ubifs", MS_SYNCHRONOUS, "ro,async"),
              0);
    board_->refresh_kernel_files();
    EXPECT_EQ(read_file("fs/proc/mounts"),
              "/dev/sdb1 /mnt/sdcard vfat ro,shortname=winnt 0 0\n"
              "ubi4_1 /mnt/flash/model_data ubifs rw,sync 0 0\n"
              "ubi4_4 /mnt/flash/bitmap ubifs rw,sync,bulk_read,compr=zlib 0 0\n"
              "ubi5:other /mnt/flash/other ubifs ro 0 0\n");
    EXPECT_TRUE(board_->resolve("/mnt/flash/other/x").read_only);
    EXPECT_FALSE(board_->resolve("/mnt/flash/bitmap/x").read_only);
    // A source mounted again where it is mounted is busy; elsewhere it is a second mount.
    EXPECT_EQ(board_->mount("/dev/sdb1", "/mnt/sdcard", "vfat", MS_RDONLY, nullptr), EBUSY);
    EXPECT_EQ(board_->mount("/dev/sdb1", "/tmp", "vfat", MS_RDONLY, nullptr), 0);
}

// A ubifs volume mounted without sync keeps what was written since the mount, or since the last
// sync, in its cache: a power cut loses it. A sync or the unmount writes it to the flash.
TEST_F(BoardTest, AVolumeWithoutSyncLosesItsCachedWritesAtAPowerCut) {
    enum Then { kNothing, kSync, kUnmount };
    struct Case {
        const char *what;
        unsigned long flags;
        const char *data;
        Then then;
        bool kept;
    } cases[] = {
        {"mounted with MS_SYNCHRONOUS", MS_SYNCHRONOUS, nullptr, kNothing, true},
        {"mounted with the sync option", 0, "sync", kNothing, true},
        {"cached", 0, nullptr, kNothing, false},
        {"cached, then synced", 0, nullptr, kSync, true},
        {"cached, then unmounted", 0, nullptr, kUnmount, true},
    };
    const std::filesystem::path volume = dir_ / "flash/ubi4_4";
    std::ofstream(volume / "old.dat") << "old";
    for (const Case &c : cases) {
        ASSERT_EQ(board_->mount("ubi4_4", "/mnt/flash/bitmap", "ubifs", c.flags, c.data), 0);
        std::filesystem::remove(volume / "old.dat");
        std::ofstream(volume / "new.dat") << "new";
        if (c.then == kSync)
            board_->sync_file_systems();
        else if (c.then == kUnmount)
            board_->umount("/mnt/flash/bitmap");
        board_->reboot();
        EXPECT_EQ(std::filesystem::exists(volume / "new.dat"), c.kept) << c.what;
        EXPECT_EQ(std::filesystem::exists(volume / "old.dat"), !c.kept) << c.what;
        std::filesystem::remove(volume / "new.dat");
        std::ofstream(volume / "old.dat") << "old";
    }
    EXPECT_FALSE(std::filesystem::exists(dir_ / "ubifs-cache/ubi4_4"));
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

// ubimkvol without a volume number gets the lowest number the device has free, as from the
// kernel; a name another volume has is refused, and so is a second device node.
TEST_F(BoardTest, AVolumeGetsTheLowestFreeNumberAndANameOfItsOwn) {
    const std::string node = (dir_ / "fs/dev/ubi1").string(); // as the shell command names it
    auto make = [&](std::vector<std::string> args) {
        args.insert(args.begin(), node);
        int result = -1;
        testsupport::printed([&] { result = ubi_make_volume(*board_, args); });
        return result;
    };
    EXPECT_EQ(make({"-N", "first", "-s", "1MiB"}), 0);
    EXPECT_EQ(make({"-N", "second", "-s", "1MiB"}), 0);
    EXPECT_EQ(ubi_remove_volume(*board_, {node, "-n", "2"}), 0);
    EXPECT_EQ(make({"-n", "9", "-N", "first", "-s", "1MiB"}), 1); // a name taken, any number
    EXPECT_EQ(make({node, "-N", "fourth", "-s", "1MiB"}), 1);     // a second device node
    EXPECT_EQ(make({"-N", "third", "-s", "1MiB"}), 0);
    std::vector<int> ids;
    for (const json &made : trace("ubimkvol"))
        ids.push_back(made["id"].get<int>());
    EXPECT_EQ(ids, (std::vector<int>{5, 6, 2}));
    // A size, in bytes or with a binary unit, is taken up to whole LEBs of 126976 bytes.
    const struct {
        const char *size;
        const char *made;
    } sizes[] = {
        {"126977", "2 LEBs (253952 bytes, 248.0 KiB)"},
        {"200KiB", "2 LEBs (253952 bytes, 248.0 KiB)"},
        {"1MiB", "9 LEBs (1142784 bytes, 1.0 MiB)"},
    };
    for (const auto &[size, made] : sizes) {
        EXPECT_EQ(testsupport::printed([&] {
                      ubi_make_volume(*board_, {node, "-n", "7", "-N", "fifth", "-s", size});
                      ubi_remove_volume(*board_, {node, "-n", "7"});
                  }),
                  std::string("Volume ID 7, size ") + made +
                      ", LEB size 126976 bytes (124.0 KiB), dynamic, name \"fifth\", alignment 1\n")
            << size;
    }
}

// A piece of a line held back on one stream is traced on its own when the other stream prints:
// the trace keeps each stream's text apart, as the screen showed it in turn.
TEST_F(BoardTest, OutputOfTwoStreamsIsTracedApart) {
    board_->output(1, "Start writing", false);
    board_->output(1, ", please wait... ", false);
    board_->output(2, "failed", true);
    board_->output(1, "done", true);
    std::vector<json> printed;
    for (const json &e : trace("output"))
        printed.push_back({e["fd"], e["text"], e["line_end"]});
    EXPECT_EQ(printed, (std::vector<json>{{1, "Start writing, please wait... ", false},
                                          {2, "failed", true},
                                          {1, "done", true}}));
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
