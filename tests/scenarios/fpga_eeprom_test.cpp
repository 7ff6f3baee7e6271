// The FPGA EEPROMs (TR5, TR6) through the update run: written block by block through the
// register interface their FPGA offers on bus 2, and each fault of that interface in the
// output, the result and the EEPROM.
#include "scenarios/harness.h"

#include <fstream>

namespace scenario {
namespace {

constexpr unsigned kBytes = 0x48; // three 32-byte blocks, the last one partly 0xFF
constexpr size_t kEepromSize = 2048;

uint8_t value(unsigned address, unsigned type) {
    return static_cast<uint8_t>(address * (type == 1 ? 7 : 11) + 3);
}

std::string eep_file(unsigned type) {
    std::string text;
    for (unsigned a = 0; a < kBytes; ++a) {
        char line[16];
        snprintf(line, sizeof line, "%04X %02X\n", a, value(a, type));
        text += line;
    }
    return text;
}

// What the EEPROM holds after the whole file was written.
std::string written_cells(unsigned type) {
    std::string cells(kEepromSize, '\xff');
    for (unsigned a = 0; a < kBytes; ++a)
        cells[a] = static_cast<char>(value(a, type));
    return cells;
}

uint8_t first_block_sum(unsigned type) {
    uint8_t sum = 0;
    for (unsigned a = 0; a < 32; ++a)
        sum = static_cast<uint8_t>(sum + value(a, type));
    return sum;
}

std::string step_output(unsigned type, const std::string &body, bool ok) {
    const std::string name = type == 1 ? "TR5" : "TR6";
    return "Start updating FPGA EEPROM data(" + name + ")...\n" +
           "Reading from file : /tmp/M1/writedata/" + (type == 1 ? "tr5" : "tr6") + "_eep.txt \n" +
           (type == 1 ? " fpga_config_sum_tr5 done.\n" : " fpga_config_lgd_tr6 done.\n") + body +
           (ok ? "FPGA EEPROM data updating is finished.\n"
               : "!!! Unable to update FPGA EEPROM data(" + name + "). !!!\n");
}

const std::string kWritten =
    "Start writing to FPGA EEPROM, please wait... \n"
    "\r   0% completed\r  45% completed\r  90% completed\r\r 100% completed\n";

class FpgaEeproms : public Scenario {
protected:
    void SetUp() override {
        Scenario::SetUp();
        if (testing::Test::IsSkipped())
            return;
        board.medium_list("M1", "fpga_eeprom\nfpga_tr6_eeprom\n");
        board.medium_file("M1/writedata/tr5_eep.txt", eep_file(1));
        board.medium_file("M1/writedata/tr6_eep.txt", eep_file(2));
    }
    // The board, with these faults, and FPGAs 1 and 2 configured from their ROMs (unless not).
    void make_board(const json &faults, bool roms_valid = true) {
        board.remake({{"faults", faults}});
        for (const char *rom : {"spi_rom1.bin", "spi_rom2.bin"}) {
            std::ofstream out(board.path(rom), std::ios::binary);
            out << std::string(16, '\xff') << (roms_valid ? "\xaa\x99\x55\x66" : "");
        }
    }
    // Levels driven on pin 95, in order.
    std::vector<int> pin95() const {
        std::vector<int> levels;
        for (const json &e : board.trace("pin"))
            if (e["pin"] == 95)
                levels.push_back(e["level"]);
        return levels;
    }
};

TEST_F(FpgaEeproms, BothTypesHoldTheirFileAfterTheRun) {
    board.make();
    make_board(json::array());
    RunResult r = board.tvupdate({"M1"});
    EXPECT_EQ(r.output, run_prologue("M1") + step_output(1, kWritten, true) +
                            step_output(2, kWritten, true) + run_epilogue());
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_TRUE(board.read("i2c/fpga_tr5.bin") == written_cells(1));
    EXPECT_TRUE(board.read("i2c/fpga_tr6.bin") == written_cells(2));
    // Pin 95 enables the TR5 EEPROM's writes for its update only.
    EXPECT_EQ(pin95(), (std::vector<int>{1, 0}));
}

TEST_F(FpgaEeproms, FaultsShowInOutputAndResult) {
    board.make();
    const std::string tr5_failed = "\r!!! Unable to update FPGA EEPROM data(TR5). !!!\n";
    const std::string tr6_failed = "\r!!! Unable to update FPGA EEPROM data(TR6). !!!\n";
    std::string ten_timeouts;
    for (int i = 0; i < 10; ++i)
        ten_timeouts += "FPGA EEP Timeout ERROR!!\n";
    const int tr6_sum = first_block_sum(2);
    ASSERT_NE(tr6_sum, 0);
    const struct {
        const char *what;
        json faults;
        bool roms_valid;
        std::string expected; // part of the output
        bool tr5_ok, tr6_ok;
    } cases[] = {
        {"PLL never locks",
         {{{"fault", "pll_never_locks"}, {"target", "fpga_tr5"}}},
         true,
         "FPGA EEP ERROR! on checking FPGA PLL lock status(0x001c).\n" + tr5_failed.substr(1),
         false,
         true},
        {"calibration not done",
         {{{"fault", "calibration_not_done"}, {"target", "fpga_tr5"}}},
         true,
         "FPGA EEP ERROR! on checking Calibration done status(0x0001).\n" + tr5_failed.substr(1),
         false,
         true},
        {"TR5 lock never shown",
         {{{"fault", "register_status_missing"}, {"target", "fpga_tr5"}}},
         true,
         "please wait... \n" + ten_timeouts + tr5_failed,
         false,
         true},
        {"wrong TR5 sums are reported, the blocks still count",
         {{{"fault", "register_wrong_sum"}, {"target", "fpga_tr5"}}},
         true,
         "FPGA EEP Checksum ERROR!!\n\r   0% completed",
         true,
         true},
        {"TR6 sum without its lowest bit",
         // The sum check asks only for the sum's bits: adding its lowest bit clears that bit.
         {{{"fault", "register_wrong_sum"}, {"target", "fpga_tr6"}, {"delta", tr6_sum & -tr6_sum}}},
         true,
         "FPGA EEP Checksum ERROR!\n" + tr6_failed,
         true,
         false},
        {"TR6 lock never shown",
         {{{"fault", "register_status_missing"}, {"target", "fpga_tr6"}}},
         true,
         " 6000 \nFPGA EEP Timeout ERROR!!\n" + tr6_failed,
         true,
         false},
        {"FPGAs without a configuration", json::array(), false,
         " Timeout Config Done!\n" + tr5_failed.substr(1), false, false},
    };
    for (const auto &c : cases) {
        make_board(c.faults, c.roms_valid);
        RunResult r = board.tvupdate({"M1"});
        EXPECT_NE(r.output.find(c.expected), std::string::npos) << c.what << "\n" << r.output;
        EXPECT_EQ(r.exit_status, c.tr5_ok && c.tr6_ok ? 0 : 255) << c.what;
        EXPECT_EQ(r.output.find("FPGA EEPROM data updating is finished.\n" +
                                std::string("Start updating FPGA EEPROM data(TR6)")) !=
                      std::string::npos,
                  c.tr5_ok)
            << c.what;
        EXPECT_EQ(board.read("i2c/fpga_tr5.bin") == written_cells(1), c.tr5_ok) << c.what;
        EXPECT_EQ(board.read("i2c/fpga_tr6.bin") == written_cells(2), c.tr6_ok) << c.what;
        std::vector<int> levels = pin95();
        EXPECT_TRUE(levels.empty() || levels.back() == 0) << c.what; // always left at 0
    }
}

} // namespace
} // namespace scenario
