// The FPGA configuration ROMs on a simulated board: each selected ROM erased and written from
// its image over the SPI control device, its FPGA reconfigured, and every stop on the way.
#include "scenarios/harness.h"

#include <algorithm>
#include <bit>
#include <filesystem>
#include <gmock/gmock.h>

namespace scenario {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr size_t kRomSizes[] = {2 * 1024 * 1024, 8 * 1024 * 1024, 8 * 1024 * 1024};
const char *const kListLines[] = {"fpga_sam_1", "fpga_sam_2", "fpga_sam_3"};
const char *const kImageNames[] = {"fpga_config_sum_tr1.bin", "FPGA_CONFIG_SUM_TR5_V2.BIN",
                                   "fpga_config_lgd_tr6.bin"};

// A configuration image: padding, the sync word, then data.
std::string image(size_t size, unsigned seed) {
    std::string data = pattern(size, seed);
    const std::string head = std::string(16, '\xff') + "\xaa\x99\x55\x66";
    data.replace(0, std::min(size, head.size()), head.substr(0, std::min(size, head.size())));
    return data;
}

// ROM n holding this data, erased after it.
std::string rom_holding(int n, const std::string &data) {
    return data + std::string(kRomSizes[n] - data.size(), '\xff');
}

// What programming one ROM prints, from the file line to its end line.
std::string rom_output(const std::string &name, size_t size) {
    std::string out = "Reading from file : /tmp/M1/writedata/" + name +
                      " \nCheck tha status of SPI-ROM, please wait... \n"
                      "Start erasing SPI-ROM, please wait... \n"
                      "Start writing to SPI-ROM, please wait... ";
    for (size_t at = 0; at < size; at += 256)
        out += format(" %3d %%\b\b\b\b\b\b", static_cast<unsigned>(at * 100 / size));
    return out + format("OK     \nEOF on reading image %dbyte!\n", static_cast<unsigned>(size));
}

std::string done_line(int n) {
    static const char *const names[] = {"fpga_config_sum_tr1", "fpga_config_sum_tr5",
                                        "fpga_config_lgd_tr6"};
    return std::string(" ") + names[n] + " done.\n";
}

std::string fpga_run(const std::string &body, bool ok) {
    return run_prologue("M1") + "Start updating FPGA config data...\n" + body +
           (ok ? "FPGA config data updating is finished.\n"
               : "!!! Unable to update FPGA config data. !!!\n") +
           run_epilogue();
}

class ConfigRoms : public Scenario {
protected:
    // A new board whose medium selects these ROMs and holds only these images (by ROM number), with
    // this fault (null: none).
    void make_board(std::initializer_list<int> selected, const std::map<int, std::string> &images,
                    const json &fault = json(), const char *folder = nullptr) {
        std::string list;
        for (int n : selected)
            list += std::string(kListLines[n]) + "\n";
        std::filesystem::remove_all(board.medium());
        board.medium_list("M1", list);
        for (const auto &[n, data] : images)
            board.medium_file("M1/writedata/" + std::string(kImageNames[n]), data);
        if (folder != nullptr)
            board.medium_file("M1/writedata/" + std::string(folder) + "/image.bin", "x");
        std::filesystem::remove_all(board.dir());
        board.make();
        if (!fault.is_null())
            board.add_fault(fault);
    }

    std::string rom(int n) const { return board.read("spi_rom" + std::to_string(n) + ".bin"); }

    // The access lines at their idle levels: 83 high, 63 and 31 low.
    bool access_lines_idle() const {
        json latches = board.state()["soc"]["gpio_out"];
        uint32_t bank0 = latches[0], bank1 = latches[1], bank2 = latches[2];
        return (bank2 >> 19 & 1) == 1 && (bank1 >> 31 & 1) == 0 && (bank0 >> 31 & 1) == 0;
    }

    // Which ROMs each SPI command reached (bit n for ROM n), and the commands' first bytes.
    std::vector<std::string> commands() const {
        std::vector<std::string> seen;
        for (const json &e : board.trace("spi"))
            seen.push_back(std::to_string(e.value("roms", 0)) + ":" + e.value("tx", ""));
        return seen;
    }

    // The waits of ns nanoseconds the run made.
    long waits(long ns) const {
        return std::ranges::count_if(board.trace("sleep"),
                                     [&](const json &e) { return e.value("ns", 0L) == ns; });
    }
};

// Each selected ROM is erased and written from its image page by page, then its FPGA
// configured. A missing image stops the ROMs after it; an empty image leaves its ROM erased, and
// an erased ROM configures no FPGA. Every command reaches exactly one ROM, one with an image.
TEST_F(ConfigRoms, EverySelectedRomIsWrittenPageByPageAndItsFpgaConfigured) {
    const struct {
        const char *what;
        std::initializer_list<int> selected;
        std::map<int, std::string> images;
        std::string tail = ""; // after the lines of the ROMs with an image
        bool ok = true;
    } cases[] = {
        {"three ROMs", {0, 1, 2}, {{0, image(1000, 1)}, {1, image(700, 2)}, {2, image(257, 3)}}},
        {"a missing image", {1, 2}, {{1, image(600, 5)}}, "Config ROM file was not found.", false},
        {"an empty image", {0}, {{0, ""}}, "", false},
        {"a short image", {0}, {{0, image(300, 7)}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        make_board(c.selected, c.images);
        RunResult r = board.tvupdate({"M1"});
        std::string body, programs; // programs: "first bytes/length" of each page program
        unsigned with_image = 0;    // bit n for ROM n
        for (const auto &[n, data] : c.images) {
            body += rom_output(kImageNames[n], data.size()) +
                    (data.empty() ? " Timeout Config Done!\n" : done_line(n));
            for (size_t at = 0; at < data.size(); at += 256)
                programs += format("02%06X.../", static_cast<unsigned>(at)) +
                            std::to_string(4 + std::min<size_t>(256, data.size() - at)) + " ";
            EXPECT_TRUE(rom(n) == rom_holding(n, data)) << n;
            with_image |= 1u << n;
        }
        expect_run(r, c.ok ? 0 : 255, fpga_run(body + c.tail, c.ok));
        EXPECT_TRUE(access_lines_idle());
        std::string sent_programs;
        for (const json &e : board.trace("spi")) {
            const unsigned roms = e.value("roms", 0u);
            const std::string tx = e.value("tx", "");
            EXPECT_TRUE(std::has_single_bit(roms) && (roms & with_image) != 0) << e.dump();
            EXPECT_NE(tx, "04"); // no write disable needed
            if (tx.starts_with("02"))
                sent_programs += tx + "/" + std::to_string(e.value("len", 0)) + " ";
        }
        EXPECT_EQ(sent_programs, programs);
        // Every pin write is a read-modify-write of its bank, each access seen, also the writes
        // that leave the bank as it was.
        std::vector<json> gpio;
        for (const json &e : board.trace("reg"))
            if (e.value("reg", "").starts_with("GPIO"))
                gpio.push_back(e);
        size_t unchanged = 0;
        for (size_t i = 1; i < gpio.size(); ++i) {
            if (gpio[i]["op"] != "write")
                continue;
            EXPECT_EQ(gpio[i - 1]["op"], "read");
            EXPECT_EQ(gpio[i - 1]["addr"], gpio[i]["addr"]);
            unchanged += gpio[i - 1]["value"] == gpio[i]["value"];
        }
        EXPECT_GT(unchanged, 0u);
    }
}

// Each fault stops the run at its place, with its line, and leaves the lines idle; a failed
// erase or page program is followed by a write disable, and only then. A status read is tried
// eleven times before it fails; a page gets two status polls.
TEST_F(ConfigRoms, FaultsStopTheRunWithTheirMessage) {
    const std::string old_rom = rom_holding(0, image(4000, 11)), data = image(600, 12);
    enum Left { Untouched, Erased, Partly };
    const struct {
        const char *what;
        json rom_setting;
        json fault;
        std::string lines; // part of the output
        Left left;
        bool disables_writes = false;
        long erase_waits = -1;        // 1 s waits for the bulk erase, where counted
        long done_waits = -1;         // 100 ms waits for configuration done, where counted
        long page_waits = -1;         // 5 ms waits for page programs, where counted
        long failed_reads = 0;        // status requests that failed
        const char *folder = nullptr; // a folder named with ROM 0's prefix, in place of its image
    } cases[] = {
        // A folder opens like a file but fails its first read: refused before the erase.
        {"image is a folder", json(), json(),
         "Reading from file : /tmp/M1/writedata/fpga_config_sum_tr1_v2 \n"
         "**ERROR** fail to open file /tmp/M1/writedata/fpga_config_sum_tr1_v2 \n",
         Untouched, false, -1, -1, -1, 0, "fpga_config_sum_tr1_v2"},
        {"protection bits", {{"protect", "0x1C"}}, json(), " Timeout RDSR(0x1c)!\n", Untouched},
        {"stuck busy", json(), fault("spi_status", "rom0", {{"value", 1}}),
         " Timeout RDSR(0x01)!\n", Untouched},
        {"every status bit set, unless told", json(), fault("spi_status", "rom0"),
         " Timeout RDSR(0xff)!\n", Untouched},
        {"erase never ends", json(), fault("spi_erase_stuck"),
         "Start erasing SPI-ROM, please wait... \n Timeout RDSR(0x03)!\n", Erased, false, 10},
        {"every status read fails", json(), fault("spi_request", "write_then_read"),
         "SPIO_WRITE_THEN_READ: Input/output error\ncmd_rom_read_status_register : error sts=0xff, "
         "retry=10\n Timeout RDSR(0xff)!\n",
         Untouched, false, -1, -1, -1, 10 * 11},
        {"write enable fails", json(), fault("spi_request", "write", {{"times", 1}}),
         "SPIO_WRITE: Input/output error\ncmd_rom_write_enable : error -1.\n", Untouched},
        {"bulk erase fails", json(), fault("spi_request", "write", {{"skip", 1}, {"times", 1}}),
         "cmd_rom_bulk_erase : error -1.\n", Untouched, true},
        {"page program fails", json(), fault("spi_request", "write", {{"skip", 3}, {"times", 1}}),
         "cmd_rom_page_program : adr 0x00000000 error -1.\n", Erased, true},
        {"last page never ends", json(), fault("spi_program_stuck", "rom0", {{"skip", 2}}),
         " 85 %\b\b\b\b\b\b Timeout RDSR(0x03)!\n", Partly, false, -1, -1, 1 + 1 + 2},
        {"configuration never done", json(), fault("config_done_never", "fpga0"),
         "EOF on reading image 600byte!\n Timeout Config Done!\n", Partly, false, -1, 10},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        std::map<int, std::string> images{{1, image(300, 13)}};
        if (c.folder == nullptr)
            images[0] = data;
        make_board({0, 1}, images, c.fault, c.folder);
        if (c.rom_setting.is_object())
            board.change_config(
                [&](json &config) { config["spi"]["roms"][0].update(c.rom_setting); });
        board.write("spi_rom0.bin", old_rom);
        RunResult r = board.tvupdate({"M1"});
        EXPECT_THAT(r.output, HasSubstr(c.lines + "!!! Unable to update FPGA config data. !!!\n"));
        EXPECT_THAT(r.output, Not(HasSubstr("fpga_config_sum_tr5"))); // later ROMs not reached
        EXPECT_EQ(r.exit_status, 255);
        const std::string left[] = {old_rom, rom_holding(0, ""), rom_holding(0, data)};
        EXPECT_TRUE(rom(0) == left[c.left]);
        EXPECT_TRUE(access_lines_idle());
        const std::vector<std::string> sent = commands();
        EXPECT_EQ(std::count(sent.begin(), sent.end(), "1:04") > 0, c.disables_writes);
        if (c.disables_writes) { // and the chip took it
            EXPECT_EQ(board.state()["soc"]["spi_rom0"].value("wel", true), false);
        }
        for (auto [ns, expected] : {std::pair{1000000000L, c.erase_waits},
                                    {100000000L, c.done_waits},
                                    {5000000L, c.page_waits}}) {
            if (expected >= 0) {
                EXPECT_EQ(waits(ns), expected) << ns;
            }
        }
        EXPECT_EQ(std::ranges::count_if(board.trace("spi"),
                                        [](const json &e) {
                                            return e["op"] == "write_then_read" &&
                                                   e.contains("errno");
                                        }),
                  c.failed_reads);
    }
}

// Each row waits for the erase and for configuration done within its own budget: ROM 0 ten
// polls a second apart and FPGA 0 ten polls 100 ms apart, ROMs 1 and 2 sixteen polls ten
// seconds apart and FPGAs 1 and 2 sixty polls 100 ms apart. Slow parts pass after the waits
// they need; past a budget the run stops.
TEST_F(ConfigRoms, EachRowWaitsWithinItsOwnBudgets) {
    enum Stop { None, Erase, Done };
    const struct {
        const char *what;
        int rom;
        unsigned erase_ms, load_ms;
        long erase_waits, done_waits; // of the row's erase interval, of 100 ms
        Stop stop = None;
    } cases[] = {
        {"ROM 0 slow", 0, 8500, 850, 9, 9},
        {"ROM 0 erase past its budget", 0, 9500, 350, 10, 0, Erase},
        {"FPGA 0 past its budget", 0, 2500, 950, 3, 10, Done},
        {"ROM 1 erase past its budget", 1, 165000, 2000, 16, 0, Erase},
        {"FPGA 1 past its budget", 1, 16000, 6100, 2, 60, Done},
        {"ROM 2 slow", 2, 145000, 5850, 15, 59},
        {"ROM 2 erase past its budget", 2, 155000, 2000, 16, 0, Erase},
        {"FPGA 2 past its budget", 2, 20000, 6100, 2, 60, Done},
    };
    const std::string data = image(300, 41);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        make_board({c.rom}, {{c.rom, data}});
        board.change_config([&](json &config) {
            config["spi"]["roms"][c.rom].update(
                {{"bulk_erase_ms", c.erase_ms}, {"fpga_load_ms", c.load_ms}});
        });
        RunResult r = board.tvupdate({"M1"});
        const std::string written = rom_output(kImageNames[c.rom], data.size());
        const std::string steps[] = {written + done_line(c.rom),
                                     written.substr(0, written.find("Start writing")) +
                                         " Timeout RDSR(0x03)!\n",
                                     written + " Timeout Config Done!\n"};
        EXPECT_EQ(r.output, fpga_run(steps[c.stop], c.stop == None));
        EXPECT_EQ(waits(c.rom == 0 ? 1000000000L : 10000000000L), c.erase_waits);
        EXPECT_EQ(waits(100000000L), c.done_waits);
    }
}

// Without /dev/spioctl the tool makes its own node from the minor number /proc/misc lists; a
// board whose microcontroller never connects the bus (bit 0x04 of port 1; its other bits do not)
// hears no ROM at all.
TEST_F(ConfigRoms, TheDeviceNodeAndTheBusConnection) {
    const std::string data = image(300, 21);
    const std::string missing = "/dev/spioctl is not found : create new one for spioctl under "
                                "/tmp.\n";
    const struct {
        const char *what;
        json spi;
        json fault;
        std::string steps;       // the lines between the FPGA step's first and last line
        std::string nodes;       // made, as "path major,minor"
        int other_port_bits = 0; // of port 1, set before the run
    } cases[] = {
        {"node from /proc/misc, after names that begin like it",
         json{{"node", false},
              {"minor", 77},
              {"misc_before",
               {{{"minor", 62}, {"name", "spioctl2"}}, {{"minor", 63}, {"name", "spioctlx"}}}}},
         json(), missing + rom_output(kImageNames[0], 300) + done_line(0), "/tmp/spioctl 10,77"},
        {"no driver", json{{"node", false}, {"driver", false}}, json(),
         missing + "Cannot find spioctl driver\n", ""},
        {"bus not connected", json::object(), fault("uart_nak", "set_port"),
         "Reading from file : /tmp/M1/writedata/fpga_config_sum_tr1.bin \nCheck tha status of "
         "SPI-ROM, please wait... \n Timeout RDSR(0xff)!\n",
         "", 0xFB},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        make_board({0}, {{0, data}}, c.fault);
        board.change_config([&](json &config) { config["spi"].update(c.spi); });
        board.reboot(); // the board's first state, to set the port in
        json state = board.state();
        state["microcontroller"]["ports"]["1"] = c.other_port_bits;
        board.write("state.json", state.dump());
        const bool ok = !c.nodes.empty();
        expect_run(board.tvupdate({"M1"}), ok ? 0 : 255, fpga_run(c.steps, ok));
        std::string nodes;
        for (const json &e : board.trace("mknod"))
            nodes += e.value("path", "") + " " + e["major"].dump() + "," + e["minor"].dump();
        EXPECT_EQ(nodes, c.nodes);
        EXPECT_EQ(rom(0) == rom_holding(0, data), ok);
        EXPECT_TRUE(access_lines_idle());
        EXPECT_EQ(board.state()["microcontroller"]["ports"]["1"], c.other_port_bits | (ok ? 4 : 0));
    }
}

// flashrom, reading the chips through spidev, finds the chip by its JEDEC ID and reads back
// exactly what the update wrote.
TEST_F(ConfigRoms, FlashromReadsBackWhatTheUpdateWrote) {
    if (!on_host() || !std::filesystem::exists("/usr/sbin/flashrom"))
        GTEST_SKIP() << "flashrom is a host program";
    const std::string data = image(70000, 31);
    make_board({0}, {{0, data}});
    ASSERT_EQ(board.tvupdate({"M1"}).exit_status, 0);
    RunResult r = board.run(
        {"/usr/sbin/flashrom", "-p", "linux_spi:dev=/dev/spidev0.0", "-r", "/tmp/rom0.bin"});
    EXPECT_EQ(r.exit_status, 0) << r.output;
    EXPECT_THAT(r.output, HasSubstr("Found Winbond flash chip \"W25Q16.V\" (2048 kB, SPI)"));
    EXPECT_TRUE(board.read("fs/tmp/rom0.bin") == rom_holding(0, data));
}

} // namespace
} // namespace scenario
