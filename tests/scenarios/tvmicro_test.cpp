// The TV microcontroller on a simulated board: its firmware from "tvm.mot" and its EEPROM from
// the "TVM_DATA" text file, over the serial link, with the link's faults.
#include "scenarios/harness.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

namespace scenario {
namespace {

constexpr size_t kBankSize = 98304;
constexpr uint32_t kBankBase[] = {0, 0x10000, 0x30000}; // the board's default bank addresses

class Microcontroller : public Scenario {
protected:
    // "tvm.mot" with a section per bank: its version and ID lines, a line that is not read, and
    // the S-records srec_cat makes of the bank's data, ending with a termination record. Lines
    // before the sections that only begin with a section header are not headers.
    std::string firmware_file(const std::string &version_line, const std::string &id_line) const {
        std::string file = "TVM firmware for M1\nTVM_BANK1 at 0x10000\nTVM_BANK2 at 0x30000\n",
                    bin = board.medium() + "/../bank.bin", mot = board.medium() + "/../bank.mot";
        for (int bank : {1, 2}) {
            std::ofstream(bin, std::ios::binary) << bank_data[bank];
            std::string base = std::to_string(kBankBase[bank]);
            std::string command = "srec_cat '" + bin + "' -binary -offset " + base + " -o '" + mot +
                                  "' -motorola -execution-start-address=" + base;
            EXPECT_EQ(std::system(command.c_str()), 0) << command;
            std::ostringstream srecords;
            srecords << std::ifstream(mot).rdbuf();
            file += "TVM_BANK" + std::to_string(bank) + "\n" + version_line + "\n" + id_line +
                    "\nbuilt for this bank\n" + srecords.str();
        }
        return file;
    }

    // A new board for M1 with this firmware on its medium and its microcontroller described with
    // these changes.
    void make_board(const std::string &version_line, const json &micro,
                    const std::string &id_line = "MICRO_ID=21") {
        board.medium_list("M1", "tvm_hex\n");
        board.medium_file("M1/writedata/tvm.mot", firmware_file(version_line, id_line));
        std::filesystem::remove_all(board.dir());
        board.make();
        board.change_config([&](json &c) { c["microcontroller"].update(micro); });
    }

    // How many frames of each of these commands the microcontroller took, as in "1 5".
    std::string frames(std::initializer_list<std::string> commands) const {
        std::map<std::string, int> taken = board.uart_frames();
        std::string counts;
        for (const std::string &command : commands)
            counts += (counts.empty() ? "" : " ") + std::to_string(taken[command]);
        return counts;
    }

    // What a bank holds once its data was programmed: the data, then erased cells.
    std::string programmed(int bank) const {
        return bank_data[bank] + std::string(kBankSize - bank_data[bank].size(), '\xff');
    }

    // The sum of a bank's bytes after its data was written.
    unsigned bank_sum(int bank) const {
        unsigned sum = 0;
        for (char c : programmed(bank))
            sum += static_cast<uint8_t>(c);
        return sum;
    }
    static std::string checksum_line(unsigned calculated, unsigned read) {
        return format("Checksum information : Calculated = 0x%.4X , Read from TV micro = 0x%.4X\n",
                      calculated & 0xFFFF, read & 0xFFFF);
    }
    // The checksum line after a bank's data was written, with the microcontroller's sum off by
    // delta.
    std::string checksums(int bank, unsigned delta = 0) const {
        return checksum_line(bank_sum(bank), bank_sum(bank) + delta);
    }

    // The firmware update's output on M1: these lines after "Read data from ...", then the
    // update's result.
    static std::string hex_run(int erase_bank, const std::string &lines, bool ok) {
        return run_prologue("M1") + "Start updating TVM Hex...\n" +
               "Binary target name = /tmp/M1/writedata/tvm.mot \n" +
               format("MaxRomSize = 18000, EraseBank = %d\n", erase_bank) +
               "Read data from /tmp/M1/writedata...\n" + lines +
               (ok ? "TVM Hex updating is finished.\n" : "!!! Unable to update TVM HEX. !!!\n") +
               run_epilogue();
    }

    // An EEPROM holding these cells, erased elsewhere.
    static std::string eeprom_with(const std::map<size_t, uint8_t> &cells) {
        std::string image(32768, '\xff');
        for (auto [address, value] : cells)
            image[address] = static_cast<char>(value);
        return image;
    }

    // The microcontroller EEPROM update's output; tail follows "Reading from file : ...".
    static std::string eeprom_run(const std::string &model, const std::string &file,
                                  const std::string &tail) {
        return run_prologue(model) + "Start updating TVM Eeprom...\nReading from file : /tmp/" +
               model + "/writedata/" + file + " \n" + tail + run_epilogue();
    }

    // The programming's first line and the block writes' progress (the share of blocks before
    // each one), ended by a carriage return.
    static std::string progress() {
        std::string out = "TVMicro software upgrade ...\n";
        for (unsigned offset = 0; offset < kBankSize; offset += 64)
            out += format("\r %3d%% completed", offset * 100 / kBankSize);
        return out + "\r";
    }

    // The firmware data of banks 1 and 2.
    std::string bank_data[3] = {"", pattern(5000, 1), pattern(70001, 2)};
};

TEST_F(Microcontroller, FirmwareGoesToTheBankThatIsNotRunningAndIsChecked) {
    make_board("VERSION=21", {{"running_bank", 2}, {"software_version", 0x20}});
    expect_run(board.tvupdate({"M1"}), 0, hex_run(1, progress() + checksums(1), true));
    EXPECT_TRUE(board.read("tvm/bank1.bin") == programmed(1));
    // After a power cycle it runs the new firmware, so the next update goes to the other bank.
    board.reboot();
    expect_run(board.tvupdate({"M1"}), 0, hex_run(2, progress() + checksums(2), true));
    EXPECT_TRUE(board.read("tvm/bank2.bin") == programmed(2));
}

// Only the microcontroller's own checksum of the bank, once the flash has settled, confirms the
// image; without it writing mode stays open.
TEST_F(Microcontroller, FirmwareThatIsNotConfirmedIsNotClosed) {
    // Ten queries refused while the flash settles; a sum of 0xFFFF follows them.
    const std::string refused_ten_times =
        repeated("Uart Ack  ERROR: buf[3]=0x31, buf[4]=0x0 ,ret= 0x0  \n", 10);
    struct Case {
        const char *what;
        std::string data;
        json faults;
        json micro;
        std::string lines; // after the progress
        const char *frames;
    } cases[] = {
        {"the sums differ",
         bank_data[2],
         {fault("checksum_differs", "", {{"delta", 2}})},
         json::object(),
         checksums(2, 2),
         "1 0"},
        // 98304 bytes adding up to 0xFFFF: the value a failed query gives
        {"both sums 0xFFFF", std::string(128, '\0') + "\x7E", json::array(), json::object(),
         checksum_line(0xFFFF, 0xFFFF), "1 0"},
        // A flash that settles 100 ms after the fixed wait answers none of the query's tries.
        {"still settling",
         bank_data[2],
         json::array(),
         {{"checksum_settle_ms", 3100}},
         refused_ten_times + checksum_line(bank_sum(2), 0xFFFF),
         "10 0"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        bank_data[2] = c.data;
        make_board("VERSION=21", c.micro);
        board.change_config([&](json &config) { config["faults"] = c.faults; });
        expect_run(board.tvupdate({"M1"}), 255, hex_run(2, progress() + c.lines, false));
        EXPECT_TRUE(board.state()["microcontroller"].value("writing_mode", false));
        EXPECT_EQ(frames({"checksum", "close_write"}), c.frames);
    }
}

// The microcontroller reports the version of the firmware it runs: board.json's for the one the
// board was made with, for a firmware written since the byte it keeps at version_offset of its
// bank (0x100 by default), and only once a restart runs it. An update finds it up to date then.
TEST_F(Microcontroller, ReportsTheVersionOfTheFirmwareItRuns) {
    auto byte_at = [&](size_t offset) { return static_cast<uint8_t>(bank_data[2][offset]); };
    uint8_t version = byte_at(0x100);
    size_t other = 0; // where bank 2 holds a version byte the file does not name
    while (byte_at(other) == version || byte_at(other) >= 0xF0)
        ++other;
    struct Case {
        json micro;
        bool restart;
        const char *erases_in_both_runs;
    } cases[] = {
        {json::object(), true, "1"},
        {json::object(), false, "2"}, // still running the old firmware
        {{{"version_offset", other}}, true, "2"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.micro.dump() + (c.restart ? " restarted" : ""));
        json micro = c.micro;
        micro["software_version"] = version == 0x20 ? 0x21 : 0x20;
        make_board(format("VERSION=%02X", version), micro);
        ASSERT_EQ(board.tvupdate({"M1"}).exit_status, 0);
        if (c.restart)
            board.reboot();
        EXPECT_EQ(board.tvupdate({"M1"}).exit_status, 0);
        EXPECT_EQ(frames({"erase"}), c.erases_in_both_runs);
    }
}

// Firmware written into each bank in turn, with a restart after each update, reports the
// version byte of the bank it runs from: a third update finds it up to date.
TEST_F(Microcontroller, EachBankWrittenInTurnReportsItsOwnVersion) {
    const uint8_t into_bank2 = static_cast<uint8_t>(bank_data[2][0x100]);
    const uint8_t into_bank1 = static_cast<uint8_t>(bank_data[1][0x100]);
    ASSERT_NE(into_bank1, into_bank2);
    ASSERT_LT(std::max(into_bank1, into_bank2), 0xF0); // any other version installs
    uint8_t made_with = 0x20;
    while (made_with == into_bank1 || made_with == into_bank2)
        ++made_with;
    make_board(format("VERSION=%02X", into_bank2), {{"software_version", made_with}});
    for (uint8_t version : {into_bank2, into_bank1, into_bank1}) {
        board.write("media/usb/M1/writedata/tvm.mot",
                    firmware_file(format("VERSION=%02X", version), "MICRO_ID=21"));
        EXPECT_EQ(board.tvupdate({"M1"}).exit_status, 0);
        board.reboot();
    }
    EXPECT_EQ(frames({"erase"}), "2");
    EXPECT_EQ(board.state()["microcontroller"]["running_bank"], 1);
}

// Each case leaves the flash as it was; the run's result and lines tell why.
TEST_F(Microcontroller, VersionAndIdDecideWhetherToProgram) {
    struct Case {
        int running_version;
        std::string version_line, id_line;
        bool ok;
        std::string lines = ""; // after "Read data from ..."
    } cases[] = {
        // the same version: nothing to do (the value is in the line's last two characters)
        {0x20, "VERSION=20", "ID=21", true},
        {0x20, "20", "ID=21", true},
        // from version F0 on only newer versions install
        {0xF2, "VERSION=F1", "ID=21", false},
        // firmware for another microcontroller
        {0x10, "VERSION=11", "ID=22", false},
        // a version line shorter than two characters
        {0x10, "V", "ID=21", false, "**ERROR** Version line too short: [V]\n"},
        // a longer line is split after 29 characters: the rest is the ID line
        {0x20, "FIRMWARE VERSION FOR M1 IS 20; ID=21", "ID=21", true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.version_line + " " + c.id_line);
        make_board(c.version_line, {{"software_version", c.running_version}}, c.id_line);
        expect_run(board.tvupdate({"M1"}), c.ok ? 0 : 255, hex_run(2, c.lines, c.ok));
        EXPECT_EQ(frames({"erase", "close_write"}), "0 0");
    }
}

// A microcontroller whose questions go unanswered is not put into writing mode. A reply split
// across the read time-out is no reply, and the link never catches up: each later read starts
// in the middle of the reply before it.
TEST_F(Microcontroller, UnansweredQuestionsProgramNothing) {
    struct Case {
        json fault;
        const char *frames; // status, ID, writing mode
    } cases[] = {
        {fault("uart_no_reply", "micro_id"), "1 10 0"},
        {fault("uart_split_reply", "status", {{"times", 1}}), "10 0 0"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.fault.dump());
        make_board("VERSION=21", json::object());
        board.change_config([&](json &config) { config["faults"] = {c.fault}; });
        RunResult r = board.tvupdate({"M1"});
        EXPECT_EQ(r.exit_status, 255);
        EXPECT_EQ(r.output.find("MaxRomSize"), std::string::npos) << r.output;
        EXPECT_EQ(frames({"status", "micro_id", "writing_mode"}), c.frames);
    }
}

TEST_F(Microcontroller, FirmwareSurvivesLinkFaults) {
    make_board("VERSION=FF", {{"software_version", 0xFF}}); // version FF installs over itself
    board.add_fault(fault("uart_short_reply", "status", {{"times", 1}}));
    board.add_fault(fault("uart_bad_checksum", "guard_dog", {{"times", 2}}));
    board.add_fault(fault("uart_nak", "erase", {{"times", 1}}));
    board.add_fault(fault("uart_late_reply", "write_flash", {{"skip", 100}, {"times", 1}}));
    board.add_fault(fault("uart_split_reply", "write_flash", {{"skip", 200}, {"times", 1}}));
    board.add_fault(fault("uart_no_reply", "checksum", {{"times", 1}}));
    RunResult r = board.tvupdate({"M1"});
    // The late reply comes while block 100 is written, after the display for block 99. Block
    // 200's split reply is no reply, nor is its rest on the next read: that block goes again.
    std::string lines = "Uart Ack **ERROR** Cmd = 3a 03 c3,0\n" + progress() +
                        "Uart Not Return Cmd = 3a 03 c2,0\n" + checksums(2);
    auto after_block = [&](size_t block, const std::string &text) {
        lines.insert(lines.find('\r') + block * format("\r %3d%% completed", 0).size(), text);
    };
    std::string split;
    for (unsigned read = 0; read <= 10; ++read)
        split += format("Uart Ack **ERROR** Cmd = 3a 45 c0, resp try = %x\n", read);
    after_block(200, split);
    after_block(100, "Uart Ack **ERROR** Cmd = 3a 45 c0, resp try = 0\n");
    expect_run(r, 0, hex_run(2, lines, true));
    EXPECT_TRUE(board.read("tvm/bank2.bin") == programmed(2));
    // The refused erase was sent again; the late reply was read, its block not sent again.
    EXPECT_EQ(frames({"erase", "write_flash"}), "2 1537");
}

// A DUNLY model talks at 208333; a microcontroller at 128906 hears only noise.
TEST_F(Microcontroller, WrongLinkRateGetsNoAnswer) {
    board.medium_list("DUNLY-55", "tvm_eeprom\ntvm_hex\n");
    board.medium_file("DUNLY-55/writedata/TVM_DATA.txt", "Version 7\n0000 01\n");
    board.medium_file("DUNLY-55/writedata/tvm.mot", "TVM_BANK2\n");
    board.make();
    expect_run(board.tvupdate({"DUNLY-55"}), 255,
               eeprom_run("DUNLY-55", "TVM_DATA.txt",
                          "!!! Unable to update TVM Eeprom. !!!\nStart updating TVM Hex...\n"
                          "!!! Unable to update TVM HEX. !!!\n"));
    EXPECT_EQ(board.trace("uart_garbled").size(), 20u);
    EXPECT_EQ(board.trace("uart_rate").at(0).value("rate", 0), 208333);
}

// The text file's data lines up to "CheckSum " (in any letter case), written in 64-byte blocks,
// each read back. A line of up to 63 characters is one line.
TEST_F(Microcontroller, EepromFromTheTextFile) {
    board.medium_list("M1", "tvm_eeprom\n");
    board.medium_file("M1/writedata/readme.txt", "not this one\n");
    board.medium_file("M1/writedata/tvm_data_v7.txt",
                      "version 7\r\n0000 5A\r\n00 41 a5" + std::string(24, ' ') +
                          "0080 99\r\n\r\n0100 77\r\n00C5 C3\r\nchecksum 1A2B\r\n0200 99\r\n");
    board.make();
    board.add_fault(fault("eeprom_write_status", "", {{"times", 1}}));
    board.add_fault(fault("eeprom_write_status", "", {{"replies", 2}, {"times", 1}}));
    board.add_fault(fault("uart_bad_checksum", "eeprom_read", {{"times", 1}}));
    // The busy EEPROM reports once, then twice when the block is sent again; the other reads
    // of each send get nothing.
    std::string busy;
    for (unsigned replies = 1; replies <= 2; ++replies) {
        for (unsigned read = 0; read < 10; ++read)
            busy += read < replies ? format("EEP_WriteData Data0 = 1 : retrying %u\n", read)
                                   : format("Uart Ack **ERROR** Cmd = b7, resp try = %x\n", read);
        busy += format("Uart Not Return **ERROR** Cmd = b7, write try = %u\n", replies - 1);
    }
    expect_run(board.tvupdate({"M1"}), 0,
               eeprom_run("M1", "tvm_data_v7.txt",
                          "EEP file version 7\nStart writing to EEPROM, please wait... \n" + busy +
                              "Uart Not Return Cmd = b8,0\n"
                              "\r   0% completed\r  32% completed\r  64% completed\r  97% completed"
                              "\rTVM Eeprom updating is finished.\n"));
    // 0x0100 is in the image but its block starts past the end address 0x00C5.
    EXPECT_TRUE(board.read("tvm/eeprom.bin") ==
                eeprom_with({{0, 0x5a}, {0x41, 0xa5}, {0xC5, 0xc3}}));
    EXPECT_EQ(frames({"eeprom_write", "eeprom_read"}), "6 5");
    EXPECT_EQ(board.state()["wall_clock"].value("set_to_s", -1), 0);
}

// Files that give no block to write, and a block whose read-back differs from what the
// microcontroller acknowledged: the EEPROM keeps what it held.
TEST_F(Microcontroller, EepromUpdatesThatFail) {
    const std::string started = "EEP file Version 7\nStart writing to EEPROM, please wait... \n\r";
    struct Case {
        const char *file;
        json faults;
        std::string lines;  // after "Reading from file : ..."
        const char *frames; // EEPROM writes and reads
    } cases[] = {
        {"Version 7\n0000 5A\n0041\n0042 01\n", json::array(),
         "EEP file Version 7\n**ERROR** EEP data line without a data byte: 0041\n", "0 0"},
        {"Version 7\n", json::array(), started, "0 0"},
        {"Version 7\n0041 A5\n0000 5A\n", json::array(), started, "0 0"}, // ends at address 0
        {"Version 7\n0000 5A\n0041 A5\n",
         {fault("eeprom_write_lost", "", {{"times", 1}})},
         started,
         "1 1"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.file);
        board.medium_list("M1", "tvm_eeprom\n");
        board.medium_file("M1/writedata/TVM_DATA.txt", c.file);
        std::filesystem::remove_all(board.dir());
        board.make();
        board.change_config([&](json &config) { config["faults"] = c.faults; });
        expect_run(
            board.tvupdate({"M1"}), 255,
            eeprom_run("M1", "TVM_DATA.txt", c.lines + "!!! Unable to update TVM Eeprom. !!!\n"));
        EXPECT_EQ(frames({"eeprom_write", "eeprom_read"}), c.frames);
        EXPECT_TRUE(board.read("tvm/eeprom.bin") == eeprom_with({}));
    }
}

// What the update run never asks: the Ferund EEPROM (target 1), the HDMI upgrade and paths that
// do not fit, through a program that calls an updater directly on the board (a host program:
// not under qemu-arm).
class MicrocontrollerUpdater : public Microcontroller {
protected:
    void SetUp() override {
        if (!on_host())
            GTEST_SKIP() << "the updater caller is a host program";
        // A board with no medium and a text file in the write-data directory.
        board.make("");
        board.write("fs/tmp/M1/writedata/TVM_DATA.txt", "Version 3\n0000 11\n0041 22\n");
    }
    // call_updater UPDATER DIR MODEL NUMBER
    RunResult call(std::vector<std::string> args) const {
        args.insert(args.begin(), TVSIM_CALL_UPDATER);
        return board.run(args);
    }
};

TEST_F(MicrocontrollerUpdater, RefusedBeforeWritingAnything) {
    const std::string dir = "/tmp/M1/writedata", long_dir = "/tmp/" + std::string(500, 'd');
    struct Case {
        std::vector<std::string> args;
        std::string output;
    } cases[] = {
        {{"tvm_eeprom", dir, "ABC123", "1"},
         "[ABC123.prg] does not support writing to FERUND EEP\n"},
        {{"tvm_eeprom", dir, "-", "1"}, "[.prg] does not support writing to FERUND EEP\n"},
        {{"tvm_hex", dir, "-", "1"}, "[.prg] does not support HDMI upgrade\n"},
        {{"tvm_eeprom", dir, "M1", "2"}, ""}, // no such target
        {{"tvm_hex", long_dir, "M1", "0"}, "**ERROR** path too long: " + long_dir + "/tvm.mot\n"},
    };
    for (const Case &c : cases)
        EXPECT_EQ(call(c.args).output, c.output + "result -1\n") << c.args[0] << " " << c.args[2];
    // Only the path that does not fit was found after questions: the status and the version.
    EXPECT_EQ(board.trace("uart_frame").size(), 2u);
    EXPECT_EQ(frames({"status", "version"}), "1 1");
    // The Ferund refusals come after the clock is set; the unknown target before.
    EXPECT_EQ(board.trace("settimeofday").size(), 2u);
}

// A power-on whose replies are lost fails the Ferund EEPROM update, though the television did
// come on, and nothing switches it off. (The update that succeeds: the service tool's test,
// NandService.EepromsAreRewrittenFromTheirTextFiles.)
TEST_F(MicrocontrollerUpdater, FerundEepromStopsWhenThePowerOnGoesUnanswered) {
    board.add_fault(fault("uart_no_reply", "power_on"));
    EXPECT_EQ(call({"tvm_eeprom", "/tmp/M1/writedata", "PHQD27K1", "1"}).output,
              "Reading from file : /tmp/M1/writedata/TVM_DATA.txt \n"
              "EEP file Version 3\nStart writing to EEPROM, please wait... \nresult -1\n");
    EXPECT_EQ(frames({"power_on", "picture_mute", "eeprom_write", "power_off"}), "10 0 0 0");
    EXPECT_TRUE(board.state()["microcontroller"].value("power", false));
    EXPECT_TRUE(board.read("tvm/ferund.bin") == eeprom_with({}));
}

} // namespace
} // namespace scenario
