// The FPGA EEPROMs (TR5, TR6) through the update run: written block by block through the
// register interface their FPGA offers on bus 2, and the interface's faults in the output, the
// result and the EEPROMs.
#include "scenarios/harness.h"

#include <filesystem>

namespace scenario {
namespace {

constexpr unsigned kBytes = 0x48; // three 32-byte blocks, the last one partly 0xFF

uint8_t value(unsigned address, int type) {
    return static_cast<uint8_t>(address * (type == 1 ? 7 : 11) + 3);
}

// What the EEPROM holds once the whole file was written.
std::string written_cells(int type) {
    std::string cells(2048, '\xff');
    for (unsigned a = 0; a < kBytes; ++a)
        cells[a] = static_cast<char>(value(a, type));
    return cells;
}

class FpgaEeproms : public Scenario {
protected:
    // The board with this fault (null: none); FPGAs 1 and 2 configured from their ROMs or not;
    // the TR5 file's text when not the usual one.
    void make_board(const json &fault, bool configured = true, const std::string &tr5_text = "") {
        board.medium_list("M1", "fpga_eeprom\nfpga_tr6_eeprom\n");
        for (int type : {1, 2}) {
            std::string text = type == 1 ? tr5_text : "";
            if (text.empty()) {
                for (unsigned a = 0; a < kBytes; ++a)
                    text += format("%04X %02X\n", a, value(a, type));
            }
            board.medium_file("M1/writedata/tr" + std::to_string(type + 4) + "_eep.txt", text);
        }
        std::filesystem::remove_all(board.dir());
        board.make();
        if (!fault.is_null())
            board.add_fault(fault);
        for (const char *rom : {"spi_rom1.bin", "spi_rom2.bin"})
            board.write(rom, std::string(16, '\xff') + (configured ? "\xaa\x99\x55\x66" : ""));
    }
};

TEST_F(FpgaEeproms, BothTypesHoldTheirFileAfterTheRun) {
    make_board(json());
    std::string steps;
    for (const char *fpga : {"5)...\nReading from file : /tmp/M1/writedata/tr5_eep.txt \n "
                             "fpga_config_sum_tr5 done.\n",
                             "6)...\nReading from file : /tmp/M1/writedata/tr6_eep.txt \n "
                             "fpga_config_lgd_tr6 done.\n"})
        steps += std::string("Start updating FPGA EEPROM data(TR") + fpga +
                 "Start writing to FPGA EEPROM, please wait... \n\r   0% completed\r  45% "
                 "completed\r  90% completed\r\r 100% completed\n"
                 "FPGA EEPROM data updating is finished.\n";
    expect_run(board.tvupdate({"M1"}), 0, run_prologue("M1") + steps + run_epilogue());
    EXPECT_TRUE(board.read("i2c/fpga_tr5.bin") == written_cells(1));
    EXPECT_TRUE(board.read("i2c/fpga_tr6.bin") == written_cells(2));
    // Every block went as the interfaces expect it.
    EXPECT_TRUE(board.trace("register_key_ignored").empty());
    EXPECT_TRUE(board.trace("register_block_refused").empty());
}

// The image holds 2047 bytes: a line at 7FF is refused before anything is written.
TEST_F(FpgaEeproms, AnAddressPastTheImageIsRefused) {
    make_board(json(), true, "0000 01\n07FF 02\n");
    RunResult r = board.tvupdate({"M1"});
    EXPECT_NE(r.output.find("**ERROR** EEP address 0x07FF is outside the image (0x07FF bytes)\n"),
              std::string::npos)
        << r.output;
    EXPECT_EQ(r.exit_status, 255);
    EXPECT_TRUE(board.read("i2c/fpga_tr5.bin") == std::string(2048, '\xff'));
    EXPECT_TRUE(board.read("i2c/fpga_tr6.bin") == written_cells(2));
}

TEST_F(FpgaEeproms, FaultsShowInOutputAndResult) {
    struct Case {
        json fault;
        std::string lines; // of the output, before the failed type's line
        bool tr5_ok, tr6_ok;
        bool configured = true;    // FPGAs 1 and 2 configured from their ROMs
        json pin_inputs = nullptr; // pins held from outside, whatever the tool drives
    };
    const std::string ten_timeouts = repeated("FPGA EEP Timeout ERROR!!\n", 10) + "\r";
    for (const Case &c : {
             Case{fault("pll_never_locks", "fpga_tr5"),
                  "FPGA EEP ERROR! on checking FPGA PLL lock status(0x001c).\n", false, true},
             Case{fault("calibration_not_done", "fpga_tr5"),
                  "FPGA EEP ERROR! on checking Calibration done status(0x0001).\n", false, true},
             Case{fault("register_status_missing", "fpga_tr5"), "FPGA EEP Timeout ERROR!!\n\r",
                  false, true},
             // The TR6 check asks only for the sum's bits: the first block sums to 0xB0, and
             // adding its lowest bit clears that bit.
             Case{fault("register_wrong_sum", "fpga_tr6", {{"delta", 0x10}}),
                  "FPGA EEP Checksum ERROR!\n\r", true, false},
             Case{json(), " Timeout Config Done!\n", false, false, false},
             // Each type's interface is its own FPGA's: FPGA 2 unconfigured leaves the TR5.
             Case{fault("config_done_never", "fpga2"), " Timeout Config Done!\n", true, false},
             // Pin 95 held low from outside: the TR5 stores no block, however the tool drives it.
             Case{json(), ten_timeouts, false, true, true, {{"95", 0}}},
         }) {
        const std::string expected = c.lines + "!!! Unable to update FPGA EEPROM data(TR" +
                                     (c.tr5_ok ? "6" : "5") + "). !!!\n";
        make_board(c.fault, c.configured);
        if (!c.pin_inputs.is_null())
            board.change_config([&](json &config) { config["soc"]["pin_inputs"] = c.pin_inputs; });
        RunResult r = board.tvupdate({"M1"});
        EXPECT_NE(r.output.find(expected), std::string::npos) << c.fault << "\n" << r.output;
        EXPECT_EQ(r.exit_status, 255) << c.fault;
        EXPECT_EQ(board.read("i2c/fpga_tr5.bin") == written_cells(1), c.tr5_ok) << c.fault;
        EXPECT_EQ(board.read("i2c/fpga_tr6.bin") == written_cells(2), c.tr6_ok) << c.fault;
        // Pin 95, the TR5 EEPROM's write enable, is left at 0 on every path (a board build
        // whose pins never changed has no latches in its state).
        EXPECT_EQ(board.state().value(json::json_pointer("/soc/gpio_out/2"), 0u) >> 31, 0u)
            << c.fault;
    }
}

} // namespace
} // namespace scenario
