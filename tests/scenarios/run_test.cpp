// The update run on a simulated board: media discovery, the image list and the steps it
// selects, UBIFS volume recreation, the data directories and the application script.
#include "scenarios/harness.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <memory>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace scenario {
namespace {

class UpdateRun : public Scenario {
protected:
    // A medium for model M1 with the given list and one file in every data source folder.
    void make_board_with_sources(const std::string &list) {
        board.medium_list("M1", list);
        for (const char *dir : kSources)
            board.medium_file(std::string("M1/writedata/") + dir + "/new.dat", dir);
        board.make();
    }
    // Puts a file into a flash volume, as a previous update would have left it.
    void old_file(const std::string &volume_path) const {
        std::string path = board.path("flash/" + volume_path);
        std::string command = "mkdir -p \"$(dirname '" + path + "')\" && echo old > '" + path + "'";
        ASSERT_EQ(system(command.c_str()), 0);
    }

    static constexpr const char *kSources[] = {"app_data/dpdc", "app_data/factory", "model_data",
                                               "jpeg_user",     "jpeg_factory",     "bitmap",
                                               "other"};

    // The lines of the data directory step titled title ("Start updating Bitmap directory..."):
    // body, then its verdict on the data it names ("Bitmap data", "App data").
    static std::string data_step(const std::string &title, const std::string &body,
                                 bool succeeds = true) {
        std::string data = title.ends_with(" data") ? title : title + " data";
        return "Start updating " + title + " directory...\n" + body +
               (succeeds ? "Updating " + data + " is finished.\n"
                         : "!!! Unable to update " + data + ". !!!\n");
    }
    static std::string copying(const std::string &folder) {
        return "Copying /tmp/M1/writedata/" + folder + " to /mnt/flash/" + folder + "...\n";
    }
    // The data directory step that copies writedata/folder into /mnt/flash/folder.
    static std::string copy_step(const std::string &title, const std::string &folder) {
        return data_step(title, copying(folder));
    }
};

TEST_F(UpdateRun, EmptyListUpdatesNothingAndSucceeds) {
    board.medium_list("M1", "# nothing this time\n");
    board.make();
    RunResult r = board.tvupdate({"M1", "extra", "arguments"});
    expect_run(r, 0, run_prologue("M1") + run_epilogue());
    EXPECT_EQ(board.read("fs/tmp/boot/flashimg.lst"), "# nothing this time\n");
    // Without a reboot the stick is still mounted and the kernel refuses to mount it there
    // again: the run finds no medium, yet reads the list through the mount that is left.
    expect_run(board.tvupdate({"M1"}), 0,
               "----- searching media cards -----\nUnable mount media\n" +
                   r.output.substr(r.output.find("ln -s")));
    auto busy = [](const json &mount) { return mount.value("errno", 0) == EBUSY; };
    EXPECT_EQ(std::ranges::count_if(board.trace("mount"), busy), 5); // once a pass
}

TEST_F(UpdateRun, AListThatCannotBeReadIsNoList) {
    board.medium_file("M1/flashimg.lst/qvxbin", "a folder named like the list\n");
    board.make();
    expect_run(
        board.tvupdate({"M1"}), 255,
        "----- searching media cards -----\nUnable to find flashimg.lst file on MediaCard.\n");
}

TEST_F(UpdateRun, MediumDiscovery) {
    // The media of board.json: the disks of the USB storage driver and the SD slot, each with
    // one setting at most.
    auto stick = [](const char *letter, const char *setting = "", json value = nullptr) {
        json disk = {{"disk", letter}, {"medium", "media/usb"}};
        if (*setting != '\0')
            disk[setting] = value;
        return disk;
    };
    auto usb = [](auto... disks) { return json::array({disks...}); };
    auto sd = [](const char *setting = "", json value = nullptr) {
        json slot = {{"slot", "insert"}, {"medium", "media/usb"}};
        if (*setting != '\0')
            slot[setting] = value;
        return slot;
    };
    struct Case {
        const char *what;
        json usb, sd;        // null: no USB storage driver, no SD card driver (as if left out)
        const char *mounted; // medium mount source, "" when none
        size_t rescans;
        double seconds;
    } cases[] = {
        {"one stick", usb(stick("b")), nullptr, "/dev/sdb1", 0, 0},
        {"a stick at the last letter searched", usb(stick("h")), nullptr, "/dev/sdh1", 0, 0},
        {"two sticks: lower letter", usb(stick("c"), stick("b")), nullptr, "/dev/sdb1", 0, 0},
        {"reader without card, then a stick", usb(stick("b", "sectors", 0), stick("c")), nullptr,
         "/dev/sdc1", 0, 0},
        {"stick ready after two rescans", usb(stick("b", "rescans_needed", 2)), nullptr,
         "/dev/sdb1", 2, 0},
        {"stick not FAT: SD card after five passes", usb(stick("b", "filesystem", "ext4")), sd(),
         "/dev/sdcarda1", 5, 0},
        {"no USB storage driver: SD card", nullptr, sd(), "/dev/sdcarda1", 0, 0},
        {"SD block device after 3 s", usb(), sd("block_device_after_seconds", 3), "/dev/sdcarda1",
         0, 9},
        {"stick appears after 2 s: found after two sleeps",
         usb(stick("b", "appears_after_seconds", 2)), nullptr, "/dev/sdb1", 0, 2},
        {"no SCSI device within ten listings: SD card",
         usb(stick("b", "appears_after_seconds", 10)), sd(), "/dev/sdcarda1", 0, 9},
        {"nothing inserted", usb(), sd("slot", "remove"), "", 0, 9},
        {"SD block device never appears", usb(), sd("block_device_after_seconds", nullptr), "", 0,
         19},
    };
    board.medium_list("M1", "");
    board.make();
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        board.remake({{"media", {{"usb", c.usb}, {"sd", c.sd}}}});
        RunResult r = board.tvupdate({"M1"});
        std::string mounted;
        for (const json &m : board.trace("mount")) {
            if (!m.contains("errno") && m["fstype"] == "vfat")
                mounted = m["source"];
        }
        EXPECT_EQ(mounted, c.mounted);
        // Read-only, short names shown as the medium holds them.
        const json state = board.state();
        EXPECT_EQ(state["mounts"].size(), *c.mounted != '\0' ? 1u : 0u);
        for (const json &m : state["mounts"])
            EXPECT_EQ(m["options"], "ro,shortname=winnt");
        EXPECT_EQ(board.trace("rescan").size(), c.rescans);
        EXPECT_DOUBLE_EQ(board.board_seconds(), c.seconds);
        if (*c.mounted != '\0')
            expect_run(r, 0, run_prologue("M1") + run_epilogue());
        else
            expect_run(r, 255,
                       "----- searching media cards -----\nUnable mount media\n"
                       "cp: cannot stat '/tmp/usb/M1/*': No such file or directory\n"
                       "Unable to find flashimg.lst file on MediaCard.\n");
    }
}

TEST_F(UpdateRun, StepsFollowTheFixedOrderAndKeepOldFiles) {
    make_board_with_sources("other\nbitmap\njpeg_factory\njpeg_user\nmodel_data\n"
                            "app_data/factory\napp_data\nqvxbin\n");
    old_file("ubi4_1/old.dat");
    expect_run(board.tvupdate({"M1"}), 0,
               run_prologue("M1") +
                   "Start updating Application binary...\n"
                   "update_tool: application installed\n"
                   "Binary image updating is finished.\n" +
                   copy_step("App data", "app_data/dpdc") +
                   copy_step("Factory data", "app_data/factory") +
                   copy_step("Model data", "model_data") + copy_step("Jpeg User", "jpeg_user") +
                   copy_step("Jpeg Factory", "jpeg_factory") + copy_step("Bitmap", "bitmap") +
                   copy_step("Other", "other") + run_epilogue());
    EXPECT_EQ(board.listing("flash/ubi4_0"), "dpdc factory");
    EXPECT_EQ(board.read("flash/ubi4_0/factory/new.dat"), "app_data/factory");
    EXPECT_EQ(board.listing("flash/ubi4_1"), "new.dat old.dat");
    EXPECT_EQ(board.read("flash/ubi5_0/new.dat"), "other");
    EXPECT_EQ(board.read("fs/update/last_update_mode.conf"), "mode=full\n");
    // Each refresh mounts its volume and leaves it unmounted; the "other" volume by name.
    EXPECT_EQ(board.trace("umount").size(), 7u);
    EXPECT_EQ(board.trace("mount").back()["source"], "ubi5:other");
}

// What a trace event shows of the step that made it: the device and what it was asked for;
// "" for events that other steps make too (sleeps, opens, register windows, the link's other
// commands, shell commands other than the application script).
std::string step_mark(const json &e) {
    std::string kind = e["ev"];
    if (kind == "i2c")
        return "i2c " + std::to_string(e.value("bus", -1)) + " " + e["msgs"][0].value("addr", "");
    if (kind == "uart_frame" && e.value("cmd", "").starts_with("eeprom_"))
        return "uart eeprom";
    if (kind == "uart_frame" && e.value("cmd", "") == "write_flash")
        return "uart firmware";
    if (kind == "mount" && !e.contains("errno") && e["fstype"] == "ubifs")
        return "mount " + e.value("source", "");
    if (kind == "mtd_erase")
        return "erase " + e.value("mtd", "");
    if (kind == "shell" && e.value("command", "").find("update_tool.sh") != std::string::npos)
        return "application script";
    return kind == "spi" ? "spi" : "";
}

// The component a run's output has come to: the one whose "Start updating" line was printed
// last ("-" before the first), "closing" after the run's closing line.
void follow_component(const json &e, std::string *component) {
    std::string text = e.value("text", "");
    if (e["ev"] != "output")
        return;
    if (text.starts_with("Start updating "))
        *component = text.substr(15, text.find('.') - 15);
    else if (text == "----- Updating is finished. -----")
        *component = "closing";
}

// The sample medium selects every step; two steps and more share the link, the I2C bus and the
// app_data volume. The trace shows each step's device work in its turn, none before or after,
// and within the lines its step printed at the moments the tool printed them. The board time
// report splits the run at those lines: its rows add up to the run, and on this good run all
// of it is the parts' and the defined waits' time. The trace's output is what the tool printed,
// in order (its commands print lines of their own in between), and nothing the tool wrote to
// its files and devices.
// Started without standard input, as a service may be, the tool gets descriptor 0 from its first
// open (the control device), as on the TV, and every step still does its work.
TEST_F(UpdateRun, EveryStepDoesItsWorkInItsTurn) {
    board.demo_medium("DEMO-TV");
    board.make();
    RunResult run = board.tvupdate({"DEMO-TV"}, Screen::no_input);
    ASSERT_EQ(run.exit_status, 0);
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_max > 1024) { // room above the board's
        EXPECT_EQ(board.trace("open").at(0)["fd"], 0);
    }
    std::vector<std::string> marks;
    std::string component = "-";
    std::string printed;
    size_t numbered = 0; // events counted towards a power cut, of which none is planned
    for (const json &e : board.trace()) {
        numbered += e.contains("power_event") ? 1 : 0;
        if (e["ev"] == "output")
            printed += e.value("text", "") + (e.value("line_end", false) ? "\n" : "");
        follow_component(e, &component);
        std::string mark = step_mark(e);
        if (!mark.empty())
            mark = component + ": " + mark;
        // Each mount is a refresh of its own; other marks repeat within a step.
        if (!mark.empty() &&
            (marks.empty() || marks.back() != mark || mark.find("mount") != std::string::npos))
            marks.push_back(mark);
    }
    EXPECT_THAT(marks,
                testing::ElementsAre(
                    "-: mount ubi4_0", // the volume test while the list is read
                    "Pelto Eeprom: i2c 0 0x51", "Application binary: application script",
                    "App data directory: mount ubi4_0", "Factory data directory: mount ubi4_0",
                    "Model data directory: mount ubi4_1", "Jpeg User directory: mount ubi4_2",
                    "Jpeg Factory directory: mount ubi4_3", "Bitmap directory: mount ubi4_4",
                    "Other directory: mount ubi5:other", "TVM Eeprom: uart eeprom",
                    "TVM Hex: uart firmware", "U-boot: erase uboot-spi", "FPGA config data: spi",
                    "FPGA EEPROM data(TR5): i2c 2 0x0d", "FPGA EEPROM data(TR6): i2c 2 0x0f",
                    "KOLMA EEPROM data: i2c 2 0x29", "KOLMA EEPROM data: i2c 2 0x2b"));
    EXPECT_EQ(numbered, 0u);
    std::istringstream lines(printed);
    size_t at = 0;
    for (std::string line; std::getline(lines, line);) {
        at = run.output.find(line + "\n", at);
        ASSERT_NE(at, std::string::npos) << line;
        at += line.size() + 1;
    }

    std::string command = std::string(TVSIM_CLI) + " --board " + board.dir() + " report";
    std::unique_ptr<FILE, int (*)(FILE *)> report(popen(command.c_str(), "r"), pclose);
    ASSERT_NE(report, nullptr);
    char line[256];
    ASSERT_NE(fgets(line, sizeof line, report.get()), nullptr); // the heading
    unsigned long long rows_ns = 0;
    std::map<std::string, unsigned long long> row_ns;
    while (fgets(line, sizeof line, report.get()) != nullptr) {
        std::string text = line;
        unsigned long long ns = 0;
        double board_s = 0;
        double unavoidable = 0;
        double own = -1;
        size_t numbers = text.find_first_of("0123456789", 24);
        ASSERT_EQ(
            sscanf(text.c_str() + numbers, "%llu %lf %lf %lf", &ns, &board_s, &unavoidable, &own),
            4)
            << text;
        std::string name = text.substr(0, text.find_last_not_of(' ', 23) + 1);
        EXPECT_EQ(own, 0.0) << text;
        if (name == "run") {
            EXPECT_EQ(rows_ns, ns);
        }
        rows_ns += ns;
        row_ns[name] = ns;
    }
    // The board time of each step on this test's board (its ROM and FPGA times drawn from the
    // test's name): the same on every build, since it moves only with the parts and the defined
    // waits. A change to a part's timing, a bus's cost per byte or a wait of the tool shows here;
    // where it is meant, these figures change with it.
    const std::map<std::string, unsigned long long> expected_ns = {
        {"preparation", 0},
        {"Pelto Eeprom", 23'612'000}, // four one-byte writes, each waiting out its write cycle
        {"Application binary", 0},
        {"App data directory", 0},
        {"Factory data directory", 0},
        {"Model data directory", 0},
        {"Jpeg User directory", 0},
        {"Jpeg Factory directory", 0},
        {"Bitmap directory", 0},
        {"Other directory", 0},
        {"TVM Eeprom", 70'749'825},
        {"TVM Hex", 14'208'197'550},
        {"U-boot", 6'417'849'000},
        {"FPGA config data", 75'328'835'725},
        {"FPGA EEPROM data(TR5)", 3'525'033'325},
        {"FPGA EEPROM data(TR6)", 3'609'995'325},
        {"KOLMA EEPROM data", 8'849'730'650},
        {"closing", 0},
        {"run", 112'034'003'400},
    };
    EXPECT_EQ(row_ns, expected_ns);
    EXPECT_NEAR(static_cast<double>(row_ns["run"]) / 1e9, board.board_seconds(),
                0.0005); // the run began at power-on
}

TEST_F(UpdateRun, EraseFirstEmptiesTheDirectoryBeforeCopying) {
    make_board_with_sources("app_data N\nmodel_data N\nbitmap N\nother N\n");
    old_file("ubi4_0/dpdc/old.dat");
    old_file("ubi4_0/factory/old.dat");
    old_file("ubi4_1/old.dat");
    old_file("ubi5_0/old.dat");
    RunResult r = board.tvupdate({"M1"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_THAT(r.output,
                testing::HasSubstr("Erasing all of files on /mnt/flash/app_data/dpdc...\n" +
                                   copying("app_data/dpdc")));
    // The app_data subfolder is removed and copied anew as a whole; its sibling stays.
    EXPECT_EQ(board.listing("flash/ubi4_0/dpdc"), "new.dat");
    EXPECT_EQ(board.listing("flash/ubi4_0/factory"), "old.dat");
    // A whole volume keeps its mount point and loses only its contents.
    EXPECT_EQ(board.listing("flash/ubi4_1"), "new.dat");
    EXPECT_EQ(board.listing("flash/ubi5_0"), "new.dat");
}

// R on the factory line withholds that one refresh (its N then erases nothing); on any other
// line it means nothing, and every other directory of the list is refreshed as ever.
TEST_F(UpdateRun, RWithholdsOnlyTheFactoryRefresh) {
    make_board_with_sources("app_data/factory RN\nbitmap R\napp_data Refresh\n");
    old_file("ubi4_0/factory/old.dat");
    expect_run(board.tvupdate({"M1"}), 0,
               run_prologue("M1") + copy_step("App data", "app_data/dpdc") +
                   copy_step("Bitmap", "bitmap") + run_epilogue());
    EXPECT_EQ(board.listing("flash/ubi4_0/factory"), "old.dat");
}

// The folders the run makes get what the caller's file-creation mask allows, and owner write
// and search whatever the mask; the mask is 0 from the first such folder on.
TEST_F(UpdateRun, FoldersAreMadeWithOwnerWriteAndSearch) {
    const struct {
        const char *slot;
        std::vector<std::pair<const char *, unsigned>> modes;
    } cases[] = {
        {"--usb", {{"fs/tmp/usb", 0700}, {"fs/tmp/M1", 0777}}},
        {"--sd", {{"fs/tmp/M1", 0700}}},
    };
    board.medium_list("M1", "");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.slot);
        std::filesystem::remove_all(board.dir());
        board.make(c.slot);
        mode_t callers_mask = umask(0277);
        RunResult r = board.tvupdate({"M1"});
        umask(callers_mask);
        expect_run(r, 0, run_prologue("M1") + run_epilogue());
        for (const auto &[folder, mode] : c.modes) {
            struct stat st {};
            ASSERT_EQ(stat(board.path(folder).c_str(), &st), 0) << folder;
            EXPECT_EQ(st.st_mode & 0777, mode) << folder;
        }
    }
}

TEST_F(UpdateRun, FailedStepsAreReportedAndTheRunGoesOn) {
    board.medium_list("M1", "model_data N\njpeg_user\nbitmap\nother\n");
    board.medium_file("M1/writedata/jpeg_user/.keep", ""); // no file the wildcard could match
    board.medium_file("M1/writedata/other/new.dat", "other");
    board.make();
    board.add_fault(fault("command", "", {{"match", "rm -rf /mnt/flash/model_data"}, {"exit", 1}}));
    board.add_fault(fault("mount", "", {{"match", "/mnt/flash/bitmap"}, {"errno", "EIO"}}));
    expect_run(board.tvupdate({"M1"}), 255,
               run_prologue("M1") +
                   data_step("Model data",
                             "Erasing all of files on /mnt/flash/model_data...\n"
                             "!!! Unable to erase all of files from /mnt/flash/model_data. !!!\n",
                             false) +
                   data_step("Jpeg User",
                             copying("jpeg_user") +
                                 "cp: cannot stat '/tmp/M1/writedata/jpeg_user/*': No such file "
                                 "or directory\n"
                                 "!!! Unable to copy /tmp/M1/writedata/jpeg_user to "
                                 "/mnt/flash/jpeg_user. !!!\n",
                             false) +
                   data_step("Bitmap", "Unable to mount ubi4_4 on /mnt/flash/bitmap.\n", false) +
                   copy_step("Other", "other") + run_epilogue());
    EXPECT_EQ(board.read("flash/ubi5_0/new.dat"), "other");
    // Volumes that were mounted are unmounted again on the failure paths.
    EXPECT_EQ(board.state()["mounts"].size(), 1u) << board.state()["mounts"]; // only the medium
}

TEST_F(UpdateRun, ApplicationScriptStatusDecidesTheStep) {
    struct Case {
        const char *what;
        json fault; // null: the board's own script runs
        const char *script_output;
        bool succeeds;
        int status; // as waitpid reports it
    } cases[] = {
        {"exits 0", nullptr, "update_tool: application installed\n", true, 0},
        {"exits 1 by default", fault("command", "", {{"match", "update_tool.sh"}}), "", false,
         1 << 8},
        {"killed", fault("command", "", {{"match", "update_tool.sh"}, {"signal", "KILL"}}), "",
         false, SIGKILL},
    };
    board.medium_list("M1", "qvxbin\n");
    board.make();
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        board.remake({{"faults", c.fault.is_null() ? json::array() : json::array({c.fault})}});
        expect_run(board.tvupdate({"M1"}), c.succeeds ? 0 : 255,
                   run_prologue("M1") + "Start updating Application binary...\n" + c.script_output +
                       (c.succeeds ? "Binary image updating is finished.\n"
                                   : "!!! Unable to update Binary Image. !!!\n") +
                       run_epilogue());
        std::vector<json> shells = board.trace("shell");
        ASSERT_FALSE(shells.empty());
        EXPECT_EQ(shells.back()["status"], c.status);
    }
}

TEST_F(UpdateRun, VolumeRecreationPrintsEachVerdict) {
    const std::string made = "Volume ID 0, size 199 LEBs (25268224 bytes, 24.0 MiB), LEB size "
                             "126976 bytes (124.0 KiB), dynamic, name \"app_data\", alignment 1\n";
    const std::string all_well =
        "... remove UBIFS volume [/dev/ubi1_0] : OK.\n" + made +
        "... make UBIFS volume [app_data] : OK.\n"
        "mount test: UBIFS volume [ubi4_0] to [/mnt/flash/app_data]: OK.\n";
    struct Case {
        const char *what;
        json fault;
        std::string lines;
        const char *list = "app_data F\n";
    } cases[] = {
        {"all well", nullptr, all_well},
        // The factory line recreates the volume it lives in, and refreshes nothing with R.
        {"factory line", nullptr, all_well, "app_data/factory RF\n"},
        {"removal fails", fault("command", "", {{"match", "/update/ubirmvol"}, {"exit", 1}}),
         "... remove UBIFS volume [/dev/ubi1_0] : NG.\n"
         "ubimkvol: error!: cannot UBI create volume\n"
         "           error 17 (File exists)\n"
         "... make UBIFS volume [app_data] : NG.\n"
         "mount test: UBIFS volume [ubi4_0] to [/mnt/flash/app_data]: OK.\n"},
        {"creation fails", fault("command", "", {{"match", "/update/ubimkvol"}, {"exit", 1}}),
         "... remove UBIFS volume [/dev/ubi1_0] : OK.\n"
         "... make UBIFS volume [app_data] : NG.\n"
         "mount test: UBIFS volume [ubi4_0] to [/mnt/flash/app_data]: NG.(19)\n"},
    };
    board.medium_file("M1/writedata/app_data/dpdc/new.dat", "new");
    board.make();
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        board.medium_list("M1", c.list);
        board.remake({{"faults", c.fault.is_null() ? json::array() : json::array({c.fault})}});
        old_file("ubi4_0/factory/old.dat");
        RunResult r = board.tvupdate({"M1"});
        EXPECT_EQ(r.output.substr(0, r.output.find("ln -s")),
                  "----- searching media cards -----\n"
                  "Remove and Make UBIFS volume [app_data]\n" +
                      c.lines);
        EXPECT_EQ(board.state()["mounts"].size(), 1u) << "a volume was left mounted";
    }
    // After a recreation the volume holds only what the update copied into it.
    EXPECT_FALSE(board.exists("flash/ubi4_0/factory/old.dat"));
}

TEST_F(UpdateRun, WithoutTheControlDriverNothingRuns) {
    board.medium_list("M1", "qvxbin\n");
    board.make();
    board.add_fault(fault("open", "/dev/cn_user"));
    expect_run(board.tvupdate({"M1"}), 255, "Cannot open /dev/cn_user, errno=19\n");
    EXPECT_TRUE(board.trace("mount").empty());
}

TEST_F(UpdateRun, UnusableModelNamesAreRefusedBeforeAnything) {
    const std::string no_name = "No model name given: usage: tvupdate MODEL\n";
    const std::string invalid = "Invalid model name '%s': use at most 106 letters, digits, '.', "
                                "'_', '+' or '-', beginning with a letter, a digit or '_'.\n";
    struct Case {
        std::vector<std::string> args;
        std::string output;
    };
    std::vector<Case> cases = {{{}, no_name}, {{""}, no_name}};
    const std::vector<std::string> unusable = {
        "../../etc", ".M1", "-M1", "M1; reboot", "a/b", "a'b", "$(reboot)", std::string(107, 'M')};
    for (const std::string &name : unusable) {
        std::string line = invalid;
        cases.push_back({{name}, line.replace(line.find("%s"), 2, name.substr(0, 106))});
    }
    // Names of letters, digits, '.', '_', '+' and '-' are used (the longest one, 106
    // characters, by UbootBootSource.WritesTheImageOfTheBootSourceIntoItsRegion/LongModelName).
    const char *usable[] = {"LT-42A1", "tv_2010.b+", "_x"};
    for (const char *name : usable)
        board.medium_list(name, "");
    board.medium_list("M1", "qvxbin\n");
    board.make();
    for (const Case &c : cases)
        expect_run(board.tvupdate(c.args), 255, c.output);
    EXPECT_TRUE(board.trace("mount").empty());
    EXPECT_TRUE(board.trace("shell").empty());
    EXPECT_EQ(board.listing("fs/tmp"), "");
    for (const char *name : usable) {
        board.reboot(); // the medium of the run before is mounted no longer
        expect_run(board.tvupdate({name}), 0, run_prologue(name) + run_epilogue());
    }
}

// `tvsim new` makes a board only from options it can read whole; anything else is a usage error
// (exit status 2) that makes nothing. A command on a board is held to its words the same way.
TEST(SimulatorCommandLine, TakesOnlyTheCommandsAndOptionsItCanRead) {
    namespace fs = std::filesystem;
    const fs::path made = fs::path(testing::TempDir()) / ("tvsim-new-" + std::to_string(getpid()));
    // tvsim's exit status with these words, or -1 when it did not exit.
    auto exit_status = [](const std::string &words) {
        int status = std::system((std::string(TVSIM_CLI) + " " + words + " 2>/dev/null").c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    const struct {
        const char *options;
        int status;
    } cases[] = {
        {"--seed", 2}, {"--seed -1", 2},    {"--seed 12x", 2}, {"--usb", 2},
        {"", 0},       {"--colour red", 2}, {"--seed 7", 0},
    };
    for (const auto &c : cases) {
        fs::remove_all(made);
        EXPECT_EQ(exit_status("new " + made.string() + " " + c.options), c.status) << c.options;
        EXPECT_EQ(fs::exists(made / "board.json"), c.status == 0) << c.options;
    }
    std::ifstream config(made / "board.json");
    EXPECT_EQ(json::parse(config)["spi"]["seed"], 7);
    // On that board, a command without the words it needs, or with more, is a usage error too.
    // A stand-in named alone runs and judges its own missing words; one that is not there is
    // a program not found.
    const struct {
        const char *command;
        int status;
    } commands[] = {
        {"", 2},
        {"standin", 2},
        {"reboot now", 2},
        {"--", 2},
        {"--preload", 2},
        {"restart", 2},
        {"standin rmmod", 1},
        {"standin lsmod", 127},
        {"report --svg", 2},
        {"report --pdf x", 2},
    };
    for (const auto &c : commands)
        EXPECT_EQ(exit_status("--board " + made.string() + " " + c.command), c.status) << c.command;
    // A board where none can be made, and a command on a folder that holds no board, fail (1)
    // without being usage errors (2).
    EXPECT_EQ(exit_status("new /proc/tvsim-board"), 1);
    EXPECT_EQ(exit_status("--board " + (made / "fs").string() + " reboot"), 1);
    fs::remove_all(made);
}

} // namespace
} // namespace scenario
