// The TV microcontroller on a simulated board: its firmware from "tvm.mot" and its EEPROM from
// the "TVM_DATA" text file, over the serial link, with the link's faults.
#include "scenarios/harness.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>

extern char **environ;

namespace scenario {
namespace {

constexpr size_t kBankSize = 98304;
constexpr uint32_t kBank1Base = 0x10000; // the board's default bank addresses
constexpr uint32_t kBank2Base = 0x30000;

std::string firmware_bytes(size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string data(size, '\0');
    for (char &b : data)
        b = static_cast<char>(random());
    return data;
}

// What a bank holds after data was programmed into it: the data, then erased cells.
std::string bank_with(const std::string &data) {
    return data + std::string(kBankSize - data.size(), '\xff');
}

unsigned bank_sum(const std::string &bank) {
    unsigned sum = 0;
    for (char c : bank)
        sum += static_cast<uint8_t>(c);
    return sum & 0xFFFF;
}

std::string format(const char *fmt, unsigned a, unsigned b = 0) {
    char text[128];
    snprintf(text, sizeof text, fmt, a, b);
    return text;
}

// The block writes' progress display: the share of blocks before each one.
std::string flash_progress() {
    std::string out;
    for (unsigned offset = 0; offset < kBankSize; offset += 64)
        out += format("\r %3d%% completed", offset * 100 / kBankSize);
    return out;
}

class Microcontroller : public Scenario {
protected:
    // S-records that srec_cat makes of data placed at base, ending with a termination record.
    std::string srecords(const std::string &data, uint32_t base) const {
        std::string bin = board.medium() + "/../firmware.bin";
        std::string mot = board.medium() + "/../firmware.mot";
        std::ofstream(bin, std::ios::binary) << data;
        std::string offset = std::to_string(base);
        std::vector<std::string> args = {
            "srec_cat", bin,         "-binary",
            "-offset",  offset,      "-o",
            mot,        "-motorola", "-execution-start-address=" + offset};
        std::vector<char *> argv;
        for (std::string &a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        pid_t pid;
        int status = -1;
        if (posix_spawnp(&pid, "srec_cat", nullptr, nullptr, argv.data(), environ) == 0)
            waitpid(pid, &status, 0);
        EXPECT_EQ(status, 0) << "srec_cat";
        std::ostringstream text;
        text << std::ifstream(mot).rdbuf();
        return text.str();
    }

    // "tvm.mot" with a section per bank, each with its version and ID lines.
    std::string firmware_file(const std::string &version_line, const std::string &id_line) const {
        return "TVM firmware for M1\nTVM_BANK1\n" + version_line + "\n" + id_line +
               "\nbuilt for bank 1\n" + srecords(bank1_data, kBank1Base) + "TVM_BANK2\n" +
               version_line + "\n" + id_line + "\nbuilt for bank 2\n" +
               srecords(bank2_data, kBank2Base);
    }

    // Changes the microcontroller's description in board.json.
    void describe(const json &changes) const {
        json c = board.config();
        c["microcontroller"].update(changes);
        board.set_config(c);
    }

    size_t frames(const std::string &command) const {
        size_t n = 0;
        for (const json &e : board.trace("uart_frame"))
            n += e.value("cmd", "") == command ? 1 : 0;
        return n;
    }

    const std::string bank1_data = firmware_bytes(5000, 1);
    const std::string bank2_data = firmware_bytes(70001, 2);
    const std::string erased = std::string(kBankSize, '\xff');
};

const char *const kHexStart = "Start updating TVM Hex...\n"
                              "Binary target name = /tmp/M1/writedata/tvm.mot \n";

TEST_F(Microcontroller, FirmwareGoesToTheBankThatIsNotRunning) {
    board.medium_list("M1", "tvm_hex\n");
    board.medium_file("M1/writedata/tvm.mot", firmware_file("VERSION=21", "MICRO_ID=21"));
    board.make();
    describe({{"running_bank", 2}, {"software_version", 0x20}, {"micro_id", 0x21}});
    RunResult r = board.tvupdate({"M1"});
    unsigned sum = bank_sum(bank_with(bank1_data));
    EXPECT_EQ(r.output, run_prologue("M1") + kHexStart +
                            "MaxRomSize = 18000, EraseBank = 1\n"
                            "Read data from /tmp/M1/writedata...\n"
                            "TVMicro software upgrade ...\n" +
                            flash_progress() + "\r" +
                            format("Checksum information : Calculated = 0x%.4X , Read from TV "
                                   "micro = 0x%.4X\n",
                                   sum, sum) +
                            "TVM Hex updating is finished.\n" + run_epilogue());
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_TRUE(board.read("tvm/bank1.bin") == bank_with(bank1_data));
    EXPECT_TRUE(board.read("tvm/bank2.bin") == erased);
    json micro = json::parse(board.read("state.json"))["microcontroller"];
    EXPECT_EQ(micro.value("boot_bank", 0), 1);
    EXPECT_FALSE(micro.value("writing_mode", true));
    EXPECT_EQ(frames("write_flash"), 1536u);
    EXPECT_EQ(frames("close_write"), 1u);

    // After a power cycle it runs the new firmware, so the next update goes to the other bank.
    board.reboot();
    EXPECT_EQ(json::parse(board.read("state.json"))["microcontroller"],
              json({{"running_bank", 1}}));
    EXPECT_EQ(board.tvupdate({"M1"}).exit_status, 0);
    EXPECT_TRUE(board.read("tvm/bank2.bin") == bank_with(bank2_data));
}

// Each case leaves the flash as it was; the run's result and lines tell why.
TEST_F(Microcontroller, VersionAndIdDecideWhetherToProgram) {
    board.medium_list("M1", "tvm_hex\n");
    board.medium_file("M1/writedata/tvm.mot", ""); // each case writes its own on the stick
    board.make();
    struct Case {
        const char *what;
        int running_version;
        std::string version_line;
        std::string id_line;
        std::string tail; // after "Read data from ..."
        int exit_status;
    } cases[] = {
        {"same version: nothing to do", 0x20, "VERSION=20", "ID=21",
         "TVM Hex updating is finished.\n", 0},
        {"older version while running F2", 0xF2, "VERSION=F1", "ID=21",
         "!!! Unable to update TVM HEX. !!!\n", 255},
        {"firmware for another microcontroller", 0x10, "VERSION=11", "ID=22",
         "!!! Unable to update TVM HEX. !!!\n", 255},
        {"version line too short", 0x10, "V", "ID=21",
         "**ERROR** Version line too short: [V]\n!!! Unable to update TVM HEX. !!!\n", 255},
    };
    for (const Case &c : cases) {
        board.reboot();
        describe({{"software_version", c.running_version}, {"micro_id", 0x21}});
        std::ofstream(board.path("media/usb/M1/writedata/tvm.mot"))
            << firmware_file(c.version_line, c.id_line);
        RunResult r = board.tvupdate({"M1"});
        EXPECT_EQ(r.output, run_prologue("M1") + kHexStart +
                                "MaxRomSize = 18000, EraseBank = 2\n"
                                "Read data from /tmp/M1/writedata...\n" +
                                c.tail + run_epilogue())
            << c.what;
        EXPECT_EQ(r.exit_status, c.exit_status) << c.what;
        EXPECT_EQ(frames("erase"), 0u) << c.what;
        EXPECT_TRUE(board.read("tvm/bank2.bin") == erased) << c.what;
    }
}

TEST_F(Microcontroller, FirmwareSurvivesLinkFaults) {
    board.medium_list("M1", "tvm_hex\n");
    board.medium_file("M1/writedata/tvm.mot", firmware_file("VERSION=FF", "MICRO_ID=21"));
    board.make();
    describe({{"software_version", 0xFF}, {"micro_id", 0x21}});
    board.add_fault({{"fault", "uart_short_reply"}, {"target", "status"}, {"times", 1}});
    board.add_fault({{"fault", "uart_bad_checksum"}, {"target", "guard_dog"}, {"times", 2}});
    board.add_fault({{"fault", "uart_nak"}, {"target", "erase"}, {"times", 1}});
    board.add_fault(
        {{"fault", "uart_late_reply"}, {"target", "write_flash"}, {"skip", 100}, {"times", 1}});
    board.add_fault({{"fault", "uart_no_reply"}, {"target", "checksum"}, {"times", 1}});
    RunResult r = board.tvupdate({"M1"});
    unsigned sum = bank_sum(bank_with(bank2_data));
    std::string progress = flash_progress();
    // The late reply comes while block 100 is written, after the display for block 99.
    size_t block_100 = 100 * format("\r %3d%% completed", 0).size();
    progress.insert(block_100, "Uart Ack **ERROR** Cmd = 3a 45 c0, resp try = 0\n");
    EXPECT_EQ(r.output, run_prologue("M1") + kHexStart +
                            "MaxRomSize = 18000, EraseBank = 2\n"
                            "Read data from /tmp/M1/writedata...\n"
                            "Uart Ack **ERROR** Cmd = 3a 03 c3,0\n"
                            "TVMicro software upgrade ...\n" +
                            progress + "\r" + "Uart Not Return Cmd = 3a 03 c2,0\n" +
                            format("Checksum information : Calculated = 0x%.4X , Read from TV "
                                   "micro = 0x%.4X\n",
                                   sum, sum) +
                            "TVM Hex updating is finished.\n" + run_epilogue());
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_TRUE(board.read("tvm/bank2.bin") == bank_with(bank2_data));
    EXPECT_EQ(frames("status"), 2u);
    EXPECT_EQ(frames("guard_dog"), 3u);
    EXPECT_EQ(frames("erase"), 2u);
    EXPECT_EQ(frames("write_flash"), 1536u); // the late reply was read, not resent
}

TEST_F(Microcontroller, DifferingChecksumLeavesWritingModeOpen) {
    board.medium_list("M1", "tvm_hex\n");
    board.medium_file("M1/writedata/tvm.mot", firmware_file("VERSION=30", "MICRO_ID=21"));
    board.make();
    board.add_fault({{"fault", "checksum_differs"}, {"delta", 2}});
    RunResult r = board.tvupdate({"M1"});
    unsigned sum = bank_sum(bank_with(bank2_data));
    EXPECT_NE(r.output.find(format("Checksum information : Calculated = 0x%.4X , Read from TV "
                                   "micro = 0x%.4X\n!!! Unable to update TVM HEX. !!!\n",
                                   sum, (sum + 2) & 0xFFFF)),
              std::string::npos)
        << r.output;
    EXPECT_EQ(r.exit_status, 255);
    EXPECT_EQ(frames("close_write"), 0u);
    EXPECT_TRUE(
        json::parse(board.read("state.json"))["microcontroller"].value("writing_mode", false));
}

// A DUNLY model talks at 208333; a microcontroller at 128906 hears only noise.
TEST_F(Microcontroller, WrongLinkRateGetsNoAnswer) {
    board.medium_list("DUNLY-55", "tvm_eeprom\ntvm_hex\n");
    board.medium_file("DUNLY-55/writedata/TVM_DATA.txt", "Version 7\n0000 01\n");
    board.medium_file("DUNLY-55/writedata/tvm.mot", "TVM_BANK2\n");
    board.make();
    RunResult r = board.tvupdate({"DUNLY-55"});
    EXPECT_EQ(r.output, run_prologue("DUNLY-55") +
                            "Start updating TVM Eeprom...\n"
                            "Reading from file : /tmp/DUNLY-55/writedata/TVM_DATA.txt \n"
                            "!!! Unable to update TVM Eeprom. !!!\n"
                            "Start updating TVM Hex...\n"
                            "!!! Unable to update TVM HEX. !!!\n" +
                            run_epilogue());
    EXPECT_EQ(r.exit_status, 255);
    EXPECT_EQ(board.trace("uart_garbled").size(), 20u);
    EXPECT_EQ(board.trace("uart_rate").at(0).value("rate", 0), 208333);
    EXPECT_TRUE(board.read("tvm/eeprom.bin") == std::string(32768, '\xff'));
}

// The text file's data lines up to "CheckSum ", written in 64-byte blocks, each read back.
TEST_F(Microcontroller, EepromFromTheTextFile) {
    board.medium_list("M1", "tvm_eeprom\n");
    board.medium_file("M1/writedata/readme.txt", "not this one\n");
    board.medium_file("M1/writedata/tvm_data_v7.txt", "version 7\r\n"
                                                      "0000 5A\r\n"
                                                      "00 41 a5\r\n"
                                                      "\r\n"
                                                      "0100 77\r\n"
                                                      "00C5 C3\r\n"
                                                      "CheckSum 1A2B\r\n"
                                                      "0200 99\r\n");
    board.make();
    board.add_fault({{"fault", "eeprom_write_status"}, {"replies", 2}, {"times", 1}});
    board.add_fault({{"fault", "uart_bad_checksum"}, {"target", "eeprom_read"}, {"times", 1}});
    RunResult r = board.tvupdate({"M1"});
    // The busy EEPROM reports twice; the other reads of that send get nothing.
    std::string busy_timeouts;
    for (unsigned read = 2; read < 10; ++read)
        busy_timeouts += format("Uart Ack **ERROR** Cmd = b7, resp try = %x\n", read);
    EXPECT_EQ(r.output, run_prologue("M1") +
                            "Start updating TVM Eeprom...\n"
                            "Reading from file : /tmp/M1/writedata/tvm_data_v7.txt \n"
                            "EEP file version 7\n"
                            "Start writing to EEPROM, please wait... \n"
                            "EEP_WriteData Data0 = 1 : retrying 0\n"
                            "EEP_WriteData Data0 = 1 : retrying 1\n" +
                            busy_timeouts +
                            "Uart Not Return **ERROR** Cmd = b7, write try = 0\n"
                            "Uart Not Return Cmd = b8,0\n"
                            "\r   0% completed\r  32% completed\r  64% completed\r  97% completed"
                            "\rTVM Eeprom updating is finished.\n" +
                            run_epilogue());
    EXPECT_EQ(r.exit_status, 0);
    // 0x0100 is in the image but its block starts past the end address 0x00C5.
    std::string expected(32768, '\xff');
    expected[0] = '\x5a';
    expected[0x41] = '\xa5';
    expected[0xC5] = '\xc3';
    EXPECT_TRUE(board.read("tvm/eeprom.bin") == expected);
    EXPECT_EQ(frames("eeprom_write"), 5u);
    EXPECT_EQ(frames("eeprom_read"), 5u);
    EXPECT_EQ(json::parse(board.read("state.json"))["wall_clock"].value("set_to_s", -1), 0);
}

TEST_F(Microcontroller, EepromFileWithAnIncompleteLineWritesNothing) {
    board.medium_list("M1", "tvm_eeprom\n");
    board.medium_file("M1/writedata/TVM_DATA.txt", "Version 7\n0000 5A\n0041\n0042 01\n");
    board.make();
    RunResult r = board.tvupdate({"M1"});
    EXPECT_EQ(r.output, run_prologue("M1") +
                            "Start updating TVM Eeprom...\n"
                            "Reading from file : /tmp/M1/writedata/TVM_DATA.txt \n"
                            "EEP file Version 7\n"
                            "**ERROR** EEP data line without a data byte: 0041\n"
                            "!!! Unable to update TVM Eeprom. !!!\n" +
                            run_epilogue());
    EXPECT_EQ(r.exit_status, 255);
    EXPECT_EQ(frames("eeprom_write"), 0u);
}

// What the update run never asks: the Ferund EEPROM (target 1) and the HDMI upgrade, through a
// program that calls the updater directly on the board (a host program: not under qemu-arm).
class MicrocontrollerUpdater : public Microcontroller {
protected:
    void SetUp() override {
        const char *variant = getenv("TVSIM_VARIANT");
        if (variant != nullptr && std::string(variant) == "armhf")
            GTEST_SKIP() << "the updater caller is a host program";
        board.make("");
        std::filesystem::create_directories(board.path("fs/tmp/M1/writedata"));
        std::ofstream(board.path("fs/tmp/M1/writedata/TVM_DATA.txt"))
            << "Version 3\n0000 11\n0041 22\n";
    }
    RunResult call(const std::string &updater, const std::string &model, int number) const {
        return board.run(
            {TVSIM_CALL_UPDATER, updater, "/tmp/M1/writedata", model, std::to_string(number)});
    }
};

TEST_F(MicrocontrollerUpdater, FerundEepromWithTheTelevisionOn) {
    RunResult r = call("tvm_eeprom", "PHQD2WK1", 1);
    EXPECT_EQ(r.output, "Reading from file : /tmp/M1/writedata/TVM_DATA.txt \n"
                        "EEP file Version 3\n"
                        "Start writing to EEPROM, please wait... \n"
                        "\r   0% completed\r  98% completed\r"
                        "result 0\n");
    std::string expected(32768, '\xff');
    expected[0] = '\x11';
    expected[0x41] = '\x22';
    EXPECT_TRUE(board.read("tvm/ferund.bin") == expected);
    EXPECT_TRUE(board.read("tvm/eeprom.bin") == std::string(32768, '\xff'));
    EXPECT_EQ(frames("power_on"), 1u);
    EXPECT_EQ(frames("picture_mute"), 5u);
    EXPECT_EQ(frames("eeprom_read"), 0u);
    EXPECT_EQ(frames("power_off"), 1u);
    EXPECT_GE(board.board_seconds(), 5.0); // a second after each picture mute
}

TEST_F(MicrocontrollerUpdater, RefusedBeforeAnythingIsSent) {
    struct Case {
        const char *updater;
        const char *model;
        int number;
        const char *output;
    } cases[] = {
        {"tvm_eeprom", "ABC123", 1, "[ABC123.prg] does not support writing to FERUND EEP\n"},
        {"tvm_eeprom", "-", 1, "[.prg] does not support writing to FERUND EEP\n"},
        {"tvm_hex", "M1", 1, "[M1.prg] does not support HDMI upgrade\n"},
        {"tvm_eeprom", "M1", 2, ""}, // no such target
    };
    for (const Case &c : cases) {
        RunResult r = call(c.updater, c.model, c.number);
        EXPECT_EQ(r.output, std::string(c.output) + "result -1\n") << c.model;
    }
    EXPECT_TRUE(board.trace("uart_frame").empty());
    // The two Ferund refusals come after the clock is set; the unknown target before.
    EXPECT_EQ(board.trace("settimeofday").size(), 2u);
}

TEST_F(MicrocontrollerUpdater, DirectoryTooLongForThePathIsRefused) {
    std::string dir = "/tmp/" + std::string(500, 'd');
    RunResult r = board.run({TVSIM_CALL_UPDATER, "tvm_hex", dir, "M1", "0"});
    EXPECT_EQ(r.output, "**ERROR** path too long: " + dir + "/tvm.mot\nresult -1\n");
    EXPECT_EQ(frames("writing_mode"), 0u);
}

} // namespace
} // namespace scenario
