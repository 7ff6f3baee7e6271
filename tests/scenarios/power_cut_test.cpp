// Power cuts during the firmware and boot loader updates of the sample medium: what the board
// keeps at the cut, whether it would start, and what running the update again leaves.
#include "scenarios/harness.h"

#include <filesystem>

namespace scenario {
namespace {

constexpr const char *kModel = "DEMO-TV";
constexpr const char *kBootLoader = "mtd/uboot-spi.bin";
constexpr size_t kPartition = 0x100000;
const std::string kOldBank1 = pattern(26000, 7) + std::string(98304 - 26000, '\xff');
const std::string kOldBootLoader = pattern(140000, 8) + std::string(kPartition - 140000, '\xff');

// The boot partition after a cut: the old boot loader, erased, half of the new one's first
// 64 KiB chunk (the rest erased), or the new boot loader.
enum BootLoader { Old, Erased, Half, New };

struct Cut {
    const char *name;
    const char *event; // the kind of the event the power goes after
    const char *what;  // its "cmd" or "mtd"
    int nth;           // which of those events (1 for the first)
    bool mid_write;
    int running_bank;       // the bank the microcontroller starts after the cut
    BootLoader boot_loader; // what the boot partition holds after the cut
};

class PowerCut : public Scenario {
protected:
    // The sample medium, cut down to the microcontroller's firmware and the boot loader, on a
    // board that runs an older firmware from bank 1 and starts an older boot loader.
    void make_board(const json &power_cut, const std::string &list = "tvm_hex\nuboot\n") {
        board.demo_medium(kModel);
        board.medium_list(kModel, list);
        std::filesystem::remove_all(board.dir());
        board.make();
        board.write("tvm/bank1.bin", kOldBank1);
        board.write(kBootLoader, kOldBootLoader);
        board.change_config([&](json &c) { c["power_cut"] = power_cut; });
    }

    // The memories a reboot keeps that these updates change.
    std::vector<std::string> memories() const {
        return {board.read("tvm/bank1.bin"), board.read("tvm/bank2.bin"), board.read(kBootLoader)};
    }
};

TEST_F(PowerCut, TheBoardKeepsWhatTheHardwareWouldAndARerunRepairsIt) {
    make_board({{"after_events", 1000000}});
    ASSERT_EQ(board.tvupdate({kModel}).exit_status, 0);
    board.reboot();
    const std::vector<std::string> one_run = memories();
    std::vector<json> events = board.trace();
    // A cut can fall only after an event that changes a device: a wait or a line printed is
    // no such point.
    for (const json &e : events) {
        const std::string kind = e["ev"];
        if (kind == "sleep" || kind == "output" || kind == "uart_frame") {
            EXPECT_EQ(e.contains("power_event"), kind == "uart_frame") << e.dump();
        }
    }
    const std::string boot_loaders[] = {
        kOldBootLoader, std::string(kPartition, '\xff'),
        one_run[2].substr(0, 0x8000) + std::string(kPartition - 0x8000, '\xff'), one_run[2]};

    const Cut cuts[] = {
        {"a firmware block", "uart_frame", "write_flash", 100, false, 1, Old},
        {"the close of writing mode, taken", "uart_frame", "close_write", 1, false, 1, Old},
        {"the boot loader's erase", "mtd_erase", "uboot-spi", 1, false, 2, Erased},
        {"the boot loader's first chunk", "mtd_write", "uboot-spi", 1, true, 2, Half},
        {"the boot loader's last chunk", "mtd_write", "uboot-spi", 3, false, 2, New},
    };
    for (const Cut &cut : cuts) {
        SCOPED_TRACE(cut.name);
        int seen = 0;
        json point;
        for (const json &e : events) {
            if (e.contains("power_event") && e["ev"] == cut.event &&
                e.value(e.contains("cmd") ? "cmd" : "mtd", "") == cut.what && ++seen == cut.nth)
                point = e["power_event"];
        }
        ASSERT_TRUE(point.is_number());
        make_board({{"after_events", point}, {"mid_write", cut.mid_write}});

        EXPECT_EQ(board.tvupdate({kModel}).exit_status, -1); // killed
        json state = board.state();
        EXPECT_EQ(state["power_cut"]["cut"]["power_event"], point);
        EXPECT_EQ(state["microcontroller"].value("running_bank", 1), cut.running_bank);
        std::vector<std::string> after_cut = memories();
        EXPECT_EQ(after_cut[0], kOldBank1) << "the running bank was touched";
        if (cut.running_bank == 2) {
            EXPECT_EQ(after_cut[1], one_run[1]) << "bank 2 started without its firmware";
        }
        EXPECT_EQ(after_cut[2], boot_loaders[cut.boot_loader]);
        EXPECT_EQ(board.trace("power_cut").size(), 1u);

        EXPECT_EQ(board.tvupdate({kModel}).exit_status, 0);
        board.reboot();
        // A cut after the firmware was installed leaves it running from bank 2 with its own
        // version, which the rerun finds up to date: the board ends as after one update.
        EXPECT_TRUE(memories() == one_run) << "the rerun did not restore the board";
    }
}

// An operator at a terminal has seen every line the tool printed before the power went. Through
// a pipe the tool's stream holds back what does not fill a block, and the cut loses it.
TEST_F(PowerCut, ATerminalShowsEveryLinePrintedBeforeTheCut) {
    make_board({{"after_events", 1000000}});
    ASSERT_EQ(board.tvupdate({kModel}).exit_status, 0);
    json point;
    for (const json &e : board.trace("mtd_erase")) {
        if (point.is_null() && e.value("mtd", "") == "uboot-spi")
            point = e["power_event"];
    }
    ASSERT_TRUE(point.is_number());
    std::map<Screen, std::string> shown;
    std::string printed;
    for (Screen screen : {Screen::pipe, Screen::terminal}) {
        make_board({{"after_events", point}});
        RunResult run = board.tvupdate({kModel}, screen);
        EXPECT_EQ(run.exit_status, -1); // killed
        shown[screen] = run.output;
        printed.clear();
        for (const json &e : board.trace("output"))
            printed += e["text"].get<std::string>() + (e["line_end"] ? "\n" : "");
    }
    // The last piece, without its line end yet, is held on a terminal too.
    std::string lines = printed.substr(0, printed.rfind('\n') + 1);
    EXPECT_TRUE(lines.ends_with("Start updating U-boot..........boot-DEMO-TV.bin\nmtd7 \n"));
    EXPECT_TRUE(shown[Screen::terminal] == lines)
        << shown[Screen::terminal].size() << " bytes of " << lines.size() << " on the terminal";
    EXPECT_LT(shown[Screen::pipe].size(), lines.size());
    EXPECT_TRUE(printed.starts_with(shown[Screen::pipe]));
    // What follows a piece's last line end is held until the line or the program ends.
    if (on_host()) {
        board.reboot();
        EXPECT_EQ(board.run({"/bin/echo", "-n", "one\ntwo"}, Screen::terminal).output, "one\ntwo");
        std::vector<json> pieces = board.trace("output"); // recorded line by line
        ASSERT_GE(pieces.size(), 2u);
        EXPECT_EQ(pieces[pieces.size() - 2]["text"], "one");
        EXPECT_EQ(pieces.back()["text"], "two");
        // A shell's own writes are recorded too, and a write that fails reaches the program.
        RunResult full = board.run({"/bin/sh", "-c", "/bin/echo x >/dev/full; echo $?"});
        EXPECT_TRUE(full.output.ends_with("No space left on device\n1\n")) << full.output;
        EXPECT_EQ(board.trace("output").back()["text"], "1");
    }
}

// The data volumes are written through: what a refresh copied is on the flash even when the
// power goes before the volume is unmounted.
TEST_F(PowerCut, ADataDirectoryKeepsWhatWasCopiedBeforeTheCut) {
    make_board({{"after_events", 1000000}}, "bitmap\n");
    ASSERT_EQ(board.tvupdate({kModel}).exit_status, 0);
    json point;
    for (const json &e : board.trace("shell")) {
        if (e.value("command", "").starts_with("cp -rf /tmp/DEMO-TV/writedata/bitmap/*"))
            point = e["power_event"];
    }
    ASSERT_TRUE(point.is_number());
    make_board({{"after_events", point}}, "bitmap\n");
    EXPECT_EQ(board.tvupdate({kModel}).exit_status, -1); // killed
    EXPECT_EQ(board.trace("umount").size(), 0u);
    EXPECT_EQ(board.listing("flash/ubi4_4"), "bitmap.dat logo.pbm");
}

} // namespace
} // namespace scenario
