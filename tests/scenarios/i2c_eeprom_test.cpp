// The EEPROMs on the I2C buses: the Pelto EEPROM and both KOLMA devices through the update
// run, the Vornek EEPROM through its updater, each with the bus and device faults; and the
// simulated buses cross-checked with i2c-tools.
#include "scenarios/harness.h"
#include "support/i2c_trace.h"

namespace scenario {
namespace {

constexpr size_t kEepromSize = 32768;
constexpr const char *kPeltoFile = "0011 A5\r\n00 10 5a\n0200 3C\n";

// The KOLMA file: bytes 0x00..0x8F, value 7 times the address; three blocks are written.
std::string kolma_file() {
    std::string text;
    for (unsigned a = 0; a < 0x90; ++a)
        text += format("%04X %02X\n", a, (a * 7) & 0xFF);
    return text;
}

// What an EEPROM holds when these cells were written and every other is erased.
std::string eeprom_with(size_t from, const std::string &bytes) {
    std::string cells(kEepromSize, '\xff');
    cells.replace(from, bytes.size(), bytes);
    return cells;
}

// What the Pelto EEPROM holds after kPeltoFile.
std::string pelto_cells() {
    std::string cells = eeprom_with(0x10, "\x5a\xa5");
    cells[0x200] = '\x3c';
    return cells;
}

std::string kolma_cells() {
    std::string bytes;
    for (unsigned a = 0; a < 0xC0; ++a)
        bytes += static_cast<char>(a < 0x90 ? (a * 7) & 0xFF : 0xFF);
    return eeprom_with(0, bytes);
}

// The lines of one KOLMA device's update that succeeds.
std::string kolma_device_lines(int number) {
    const std::string name = "KOLMA_" + std::to_string(number);
    return " --- updating  " + name + " EEPROM data\n test \n" +
           "\r   0% completed\r  44% completed\r  89% completed\r 100% completed\n--- " + name +
           " EEPROM data updating is finished.\n";
}

class I2cEeproms : public Scenario {
protected:
    void SetUp() override {
        Scenario::SetUp();
        if (testing::Test::IsSkipped())
            return;
        board.medium_list("M1", "pelto_eeprom\nkolma_eeprom\n");
        board.medium_file("M1/writedata/PELTO_DATA.txt", kPeltoFile);
        board.medium_file("M1/writedata/kolma_eep.txt", kolma_file());
        board.make();
    }

    std::string pelto_lines(const std::string &result_line) const {
        return "Start updating Pelto Eeprom...\n"
               "Reading from file : /tmp/M1/writedata/PELTO_DATA.txt \n"
               "Start writing to EEPROM, please wait... \n" +
               result_line + "\n";
    }
};

TEST_F(I2cEeproms, RunWritesPeltoAndBothKolmaDevices) {
    expect_run(board.tvupdate({"M1"}), 0,
               run_prologue("M1") + pelto_lines("Pelto Eeprom updating is finished.") +
                   "Start updating KOLMA EEPROM data...\n" + kolma_device_lines(1) +
                   kolma_device_lines(2) + "KOLMA all EEPROM data updating is finished.\n" +
                   run_epilogue());
    EXPECT_TRUE(board.read("i2c/pelto.bin") == pelto_cells());
    EXPECT_TRUE(board.read("i2c/kolma_1.bin") == kolma_cells());
    EXPECT_TRUE(board.read("i2c/kolma_2.bin") == kolma_cells());
    EXPECT_TRUE(board.read("i2c/vornek.bin") == std::string(kEepromSize, '\xff'));
    // Each Pelto line is one 3-byte write; the write cycle makes the read-back retry.
    int pelto_writes = 0;
    for (const json &e : board.trace("eeprom_write"))
        pelto_writes += e["device"] == "pelto" && e["count"] == 1;
    EXPECT_EQ(pelto_writes, 3);
    // Each KOLMA update first sets port 1 bit 4 of the microcontroller, which answers at once.
    EXPECT_EQ(board.state()["microcontroller"]["ports"]["1"], 4);
    EXPECT_EQ(board.trace("uart_reply").size(), 2u);
    // The Pelto update sets the board clock to the epoch before its first transfer.
    std::vector<json> events = board.trace();
    auto first_of = [&](const char *kind) {
        return std::ranges::find_if(events, [&](const json &e) { return e["ev"] == kind; });
    };
    const auto set = first_of("settimeofday");
    ASSERT_NE(set, events.end());
    EXPECT_EQ(json({(*set)["sec"], (*set)["usec"]}), json({0, 0}));
    EXPECT_LT(set, first_of("i2c"));
    // Every block went as the KOLMA interface expects it.
    EXPECT_TRUE(board.trace("register_key_ignored").empty());
    EXPECT_TRUE(board.trace("register_block_refused").empty());
    // 9 microseconds after a block's first data word, 4 after each other.
    std::vector<json> transfers = board.trace("i2c");
    std::vector<int64_t> pauses = testsupport::pauses_before(transfers), word_pauses;
    for (size_t i = 1; i < transfers.size(); ++i) {
        if (testsupport::register_of(transfers[i - 1]).starts_with("41") &&
            testsupport::register_of(transfers[i]).starts_with("41"))
            word_pauses.push_back(pauses[i - 1]);
    }
    std::vector<int64_t> expected(2 * 3 * 31, 4000); // three blocks on each device
    for (size_t block = 0; block < expected.size(); block += 31)
        expected[block] = 9000;
    EXPECT_EQ(word_pauses, expected);
    // Two 2 s pauses and 0.35 s of shorter ones per KOLMA device, and the transfers.
    EXPECT_GT(board.board_seconds(), 8.7);
    EXPECT_LT(board.board_seconds(), 9.5);
}

// A failing KOLMA device stops the KOLMA step: the devices after it are not updated.
TEST_F(I2cEeproms, FaultsShowInOutputAndResult) {
    const std::string pelto_failed = pelto_lines("!!! Unable to update Pelto Eeprom. !!!");
    const std::string kolma1_failed = "!!! Unable to update KOLMA_1 EEPROM data. !!!\n";
    const std::string no_data_byte = "**ERROR** EEP data line without a data byte: ";
    struct Case {
        const char *name;
        json fault;
        int kolma1_blocks; // stored on KOLMA_1; with all three the KOLMA step succeeds
        bool pelto_ok;
        std::string expected; // part of the output
        const char *pelto_file = kPeltoFile;
        std::string kolma_text = kolma_file();
    } cases[] = {
        // The fifth status read of a block is its sum check, which polls six times. The check
        // only asks for the sum's bits (0x20 here), so the sum is made to lose them.
        {"a wrong sum is reported, the block counts",
         fault("register_wrong_sum", "KOLMA_2", {{"skip", 4}, {"times", 6}, {"delta", 0x20}}), 3,
         true, "KOLMA EEP Checksum ERROR!\n"},
        // The block was stored (the sequence was followed); only its confirmation never came.
        {"KOLMA_1 never confirms the block",
         fault("register_status_missing", "KOLMA_1", {{"bits", 1}}), 1, true,
         " test \nKOLMA EEP Write ERROR! on 0x0100 detection(read 0x0020) \n"
         "KOLMA EEP Write ERROR! on xxx0xxx1 detection \nERROR: EEPROM Write Failure \n" +
             kolma1_failed},
        {"a byte reads back wrong", fault("i2c_read_differs", "pelto", {{"skip", 1}, {"times", 1}}),
         3, false, pelto_failed},
        // The second line's read-back fails three times: it stays unverified, the third is done.
        {"a read-back fails", fault("i2c_read_error", "pelto", {{"skip", 1}, {"times", 3}}), 3,
         true, pelto_lines("Pelto Eeprom updating is finished.")},
        {"busy for 30 tries", fault("i2c_busy", "pelto", {{"times", 30}}), 3, true,
         pelto_lines("Pelto Eeprom updating is finished.")},
        {"busy forever", fault("i2c_busy", "pelto"), 3, false, pelto_failed},
        // A failed transfer is one, whatever the bus says (a NAK: VornekUpdater.FaultsEndTheWalk).
        {"EIO on bus 2", fault("i2c_bus_error", "i2c-2"), 0, true,
         "IIC_KOLMAEEP_Write() ERROR!\nIIC_KOLMAEEP_Write Error\n" + kolma1_failed},
        {"a Pelto line without its data byte", json(), 3, false,
         no_data_byte + "0200\n!!! Unable to update Pelto Eeprom. !!!\n",
         "0011 A5\n0200\n0300 01\n"},
        {"a KOLMA line without its data byte", json(), 0, true,
         no_data_byte + "0001\n" + kolma1_failed, kPeltoFile, "0000 01\n0001\n"},
        // The image holds 32767 bytes: its last address is 7FFE.
        {"a KOLMA line past the image", json(), 0, true,
         "**ERROR** EEP address 0x7FFF is outside the image (0x7FFF bytes)\n" + kolma1_failed,
         kPeltoFile, "0000 01\n7FFF 02\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        board.medium_file("M1/writedata/PELTO_DATA.txt", c.pelto_file);
        board.medium_file("M1/writedata/kolma_eep.txt", c.kolma_text);
        board.remake({{"faults", c.fault.is_null() ? json::array() : json::array({c.fault})}});
        RunResult r = board.tvupdate({"M1"});
        const bool kolma_ok = c.kolma1_blocks == 3;
        EXPECT_NE(r.output.find(c.expected), std::string::npos) << r.output;
        EXPECT_EQ(r.exit_status, kolma_ok && c.pelto_ok ? 0 : 255);
        if (c.pelto_ok && c.pelto_file == kPeltoFile) { // every line written
            EXPECT_TRUE(board.read("i2c/pelto.bin") == pelto_cells());
        }
        EXPECT_EQ(r.output.find("KOLMA all EEPROM data updating is finished.") != std::string::npos,
                  kolma_ok);
        EXPECT_EQ(r.output.find("KOLMA_2") != std::string::npos, kolma_ok);
        EXPECT_TRUE(board.read("i2c/kolma_1.bin") ==
                    eeprom_with(0, kolma_cells().substr(0, 64 * c.kolma1_blocks)));
        EXPECT_TRUE(board.read("i2c/kolma_2.bin") ==
                    (kolma_ok ? kolma_cells() : std::string(kEepromSize, '\xff')));
    }
}

// i2c-tools, written by others, against the simulated buses (host programs: host build only).
TEST_F(I2cEeproms, I2cToolsSeeWhatTheToolWroteAndTheToolSeesWhatTheyWrote) {
    if (!on_host())
        GTEST_SKIP() << "i2c-tools are host programs";
    const std::string first_row = "00:                         -- -- 0a -- -- -- -- -- \n";
    const std::string kolma_row = "20: -- -- -- -- -- -- -- -- -- 29 -- 2b -- -- -- -- \n";
    // The KOLMA devices are held in reset until the tool releases them.
    RunResult before = board.run({"i2cdetect", "-y", "2"});
    EXPECT_NE(before.output.find(first_row), std::string::npos) << before.output;
    EXPECT_NE(before.output.find("20: -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- \n"),
              std::string::npos);
    ASSERT_EQ(board.tvupdate({"M1"}).exit_status, 0);
    RunResult detect = board.run({"i2cdetect", "-y", "2"});
    // Only the first rows differ: nothing else answers on bus 2.
    std::string expected = before.output;
    expected.replace(expected.find("20: "), kolma_row.size(), kolma_row);
    EXPECT_EQ(detect.output, expected);
    EXPECT_EQ(detect.exit_status, 0);

    RunResult read = board.run({"i2ctransfer", "-y", "0", "w2@0x51", "0x00", "0x10", "r2"});
    EXPECT_EQ(read.output, "0x5a 0xa5\n");
    RunResult current = board.run({"i2cget", "-y", "0", "0x51"}); // the address counter
    EXPECT_EQ(current.output, "0xff\n");

    EXPECT_EQ(board.run({"i2cset", "-y", "0", "0x51", "0x00", "0x0f", "0xc7", "i"}).exit_status, 0);
    board.run({"sleep", "0.01"}); // the write cycle
    // After a write the address counter stands at the next byte, which the tool wrote.
    EXPECT_EQ(board.run({"i2cget", "-y", "0", "0x51"}).output, "0x5a\n");
    RunResult tool = board.run({TVSIM_CALL_UPDATER, "pelto_read", "-", "-", "0x000f"});
    EXPECT_EQ(tool.output, "0xc7\nresult 0\n");
    EXPECT_EQ(board.read("i2c/pelto.bin")[0x0f], '\xc7');
    // An SMBus word write is the command byte and the word's low, then high byte: to this EEPROM
    // the address 0x0021 and one data byte.
    EXPECT_EQ(board.run({"i2cset", "-y", "0", "0x51", "0x00", "0x0e21", "w"}).exit_status, 0);
    board.run({"sleep", "0.01"});
    EXPECT_EQ(board.read("i2c/pelto.bin")[0x21], '\x0e');
}

class VornekUpdater : public Scenario {
protected:
    void SetUp() override {
        Scenario::SetUp();
        if (testing::Test::IsSkipped())
            return;
        if (!on_host())
            GTEST_SKIP() << "the updater caller is a host program";
        board.make("");
    }
    // The Vornek updater's output for a vornek_eep.txt of this text.
    std::string call(const std::string &text) const {
        board.write("fs/tmp/M1/writedata/vornek_eep.txt", text);
        return board.run({TVSIM_CALL_UPDATER, "vornek", "/tmp/M1/writedata", "-", "-"}).output;
    }
    // The lines before the blocks are written.
    const std::string head = "Reading from file : /tmp/M1/writedata/vornek_eep.txt \n"
                             "Start writing to Vornek EEPROM, please wait... \n";
};

TEST_F(VornekUpdater, FaultsEndTheWalk) {
    const struct {
        json fault;
        std::string lines; // before "result 1"
    } cases[] = {
        {fault("register_wrong_sum", "vornek"), "Checksum ERROR!!\n"},
        {fault("register_status_missing", "vornek", {{"bits", 0x10}}),
         "EEP Write ERROR! on xxx1xxx0 detection 0\n"},
        // Both bits at the unlock: the test of both refuses it before anything is sent.
        {fault("register_status_extra", "vornek", {{"times", 1}}),
         "EEP Write ERROR! on xxx1xxx0 detection 0\n"},
        {fault("i2c_nak", "vornek"),
         "IIC_VornekEEP_Write() ERROR!\nIIC_VornekEEP_Write() ERROR!\nIIC_VornekEEP_Read() ERROR!\n"
         "EEP Write ERROR! on xxx1xxx0 detection 0\n"},
    };
    for (const auto &c : cases) {
        board.remake({{"faults", json::array({c.fault})}});
        EXPECT_EQ(call("0000 01\n0041 02\n"), head + c.lines + "\rresult 1\n") << c.fault.dump();
        EXPECT_TRUE(board.read("i2c/vornek.bin") == std::string(kEepromSize, '\xff'));
    }
}

// A Vornek that settles a block in 3 ms shows bits 4 and 0 at the first read after the lock:
// the block waits for bit 0 alone before the next one unlocks (which a settling device ignores).
TEST_F(VornekUpdater, SettlingBlockIsWaitedForBeforeTheNext) {
    board.change_config([](json &c) { c["i2c"]["devices"][3]["write_us"] = 3000; });
    EXPECT_EQ(call("0000 01\n0041 02\n"), head + "Timeout ERROR!!\n\r   0% completed"
                                                 "Timeout ERROR!!\n\r  98% completed\r\r 100% "
                                                 "completed\nresult 0\n");
    std::string cells(kEepromSize, '\xff'); // both blocks written, unnamed bytes 0xFF
    cells[0x00] = '\x01';
    cells[0x41] = '\x02';
    EXPECT_TRUE(board.read("i2c/vornek.bin") == cells);
    EXPECT_TRUE(board.trace("register_key_ignored").empty());
}

TEST_F(VornekUpdater, LockConfirmedOnlyAtThe30thRead) {
    board.add_fault(fault("register_status_missing", "vornek", {{"skip", 3}, {"times", 29}}));
    std::string timeouts;
    for (int i = 0; i < 29; ++i)
        timeouts += "Timeout ERROR!!\n";
    EXPECT_EQ(call("0001 AA\n"),
              head + timeouts + "\r   0% completed\r\r 100% completed\nresult 0\n");
}

} // namespace
} // namespace scenario
