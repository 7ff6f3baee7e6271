// The ROM commands on an attached board, and the SPI flash model's rules that the update
// relies on (write enable, page wrap, bits only cleared).
#include "board/registers.h"
#include "fpga/spi_core.h"
#include "fpga/update_fpga.h"
#include "run/main.h"
#include "support/board_fixture.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <tuple>

namespace fs = std::filesystem;
using testsupport::json;

namespace {

// A board whose microcontroller has connected the ROM bus, with the access lines granting ROM 0
// (they come up idle); the SPI device open in spi_fd.
class UpdateFpgaOnBoard : public testsupport::BoardFixture {
protected:
    void SetUp() override {
        BoardFixture::SetUp();
        std::ofstream(dir_ / "state.json")
            << json{{"microcontroller", {{"ports", {{"1", 4}}}}}, {"fault_hits", json::object()}};
    }
    void attach() {
        BoardFixture::attach();
        cn_user_fd = open("/dev/cn_user", O_RDWR);
        set_pio_wren(0);
        spi_fd = spi_open();
        ASSERT_GE(spi_fd, 0);
    }
    void detach() {
        spi_close(spi_fd);
        close(cn_user_fd);
        cn_user_fd = -1;
        BoardFixture::detach();
    }
    std::string read_rom(uint32_t address, uint32_t count) const {
        const uint8_t command[4] = {0x03, static_cast<uint8_t>(address >> 16),
                                    static_cast<uint8_t>(address >> 8),
                                    static_cast<uint8_t>(address)};
        std::string out(count, '\0');
        EXPECT_EQ(
            spi_write_then_read(spi_fd, command, 4, reinterpret_cast<uint8_t *>(out.data()), count),
            0);
        return out;
    }

    int spi_fd = -1;
};

// What the update relies on from the chip: program only after write enable, within the page,
// clearing bits; the latch cleared by the end of each program.
TEST_F(UpdateFpgaOnBoard, PageProgramNeedsWriteEnableWrapsInItsPageAndClearsBits) {
    attach();
    EXPECT_EQ(spi_setup(spi_fd), 0); // clock mode 3, 8 bits per word: what the driver takes
    EXPECT_EQ(trace("spi").back()["mode"], 3);
    std::string data(32, '\0');
    for (int i = 0; i < 32; ++i)
        data[i] = static_cast<char>(i < 16 ? 0xE0 + i : i);
    auto *bytes = reinterpret_cast<const uint8_t *>(data.data());
    EXPECT_EQ(cmd_rom_page_program(spi_fd, 0xF0, bytes, 32), 0); // ignored: latch clear
    std::string untouched = read_rom(0, 256);
    EXPECT_EQ(cmd_rom_write_enable(spi_fd), 0);
    EXPECT_EQ(cmd_rom_page_program(spi_fd, 0xF0, bytes, 32), 0);
    // The 36 bytes of the program took their wire time at 10 MHz.
    std::vector<json> spi = trace("spi");
    EXPECT_EQ(spi.back()["t"].get<uint64_t>() - spi[spi.size() - 2]["t"].get<uint64_t>(),
              36 * 800u);
    uint8_t status = 0;
    EXPECT_EQ(cmd_rom_read_status_register(spi_fd, &status), 0);
    EXPECT_EQ(status, 0x03); // busy, latch still shown
    usleep(1050);            // the slowest page program a board draws
    EXPECT_EQ(cmd_rom_read_status_register(spi_fd, &status), 0);
    EXPECT_EQ(status, 0x00); // done, latch cleared
    std::string page = read_rom(0, 256);
    uint8_t over[1] = {0x0F};
    EXPECT_EQ(cmd_rom_page_program(spi_fd, 0xF0, over, 1), 0); // latch clear again: ignored
    EXPECT_EQ(cmd_rom_write_enable(spi_fd), 0);
    EXPECT_EQ(cmd_rom_page_program(spi_fd, 0xF0, over, 1), 0);
    usleep(1050);
    std::string after = read_rom(0xF0, 1);
    detach();
    EXPECT_EQ(untouched, std::string(256, '\xff'));
    // The second half wrapped to the page start.
    EXPECT_EQ(page, data.substr(16) + std::string(0xF0 - 16, '\xff') + data.substr(0, 16));
    EXPECT_EQ(static_cast<uint8_t>(after[0]), 0xE0 & 0x0F);
    std::vector<json> ignored = trace("spi_ignored");
    ASSERT_EQ(ignored.size(), 2u);
    EXPECT_EQ(ignored[0], (json{{"ev", "spi_ignored"},
                                {"t", ignored[0]["t"]},
                                {"rom", 0},
                                {"op", "02"},
                                {"why", "write enable latch clear"}}));
}

// The control driver takes at most 64 KiB each way in one request and answers a transfer with
// the number of bytes on the bus.
TEST_F(UpdateFpgaOnBoard, TransfersAreBoundedAndCountTheirBytes) {
    attach();
    std::vector<uint8_t> buffer(65537);
    const uint8_t read[4] = {0x03, 0, 0, 0};
    const struct {
        const char *what;
        unsigned long request;
        spio_transfer transfer;
        int result; // or -errno
    } cases[] = {
        {"a 64 KiB read",
         SPIO_WRITE_THEN_READ,
         {.tx_len = 4, .tx_buf = read, .rx_len = 65536, .rx_buf = buffer.data()},
         4 + 65536},
        {"a longer read",
         SPIO_WRITE_THEN_READ,
         {.tx_len = 4, .tx_buf = read, .rx_len = 65537, .rx_buf = buffer.data()},
         -EINVAL},
        {"a longer write",
         SPIO_WRITE,
         {.tx_len = 65537, .tx_buf = buffer.data(), .rx_len = 0, .rx_buf = nullptr},
         -EINVAL},
        {"an unknown request", 0x7799, {}, -ENOTTY},
    };
    for (auto c : cases) {
        int result = ioctl(spi_fd, c.request, &c.transfer);
        EXPECT_EQ(result == -1 ? -errno : result, c.result) << c.what;
    }
    detach();
}

// The board comes up with the access lines idle and the FPGA resets high. Configuration done
// then follows only a load: the one at power-on from what the ROM held then, or one begun when
// the ROM's access lines returned to idle or the reset rose, and never while the ROM is
// granted to the bus.
TEST_F(UpdateFpgaOnBoard, ConfigurationDoneFollowsALoadFromAValidImage) {
    const uint8_t kSync[] = {0xAA, 0x99, 0x55, 0x66};
    const struct {
        const char *what;
        int image_at;      // where the ROM holds the sync word at power-on; -1: erased
        bool write_image;  // programmed over the bus after power-on
        bool return_lines; // to idle, after the image
        bool pulse_reset;  // after that
        int done;
    } cases[] = {
        {"written, lines still granted", -1, true, false, false, 0},
        {"written, lines returned", -1, true, true, false, 1},
        {"valid at power-on, granted since", 0, false, false, false, 0},
        {"valid at power-on, lines returned", 0, false, true, false, 1},
        {"sync word ending at byte 256, lines returned", 252, false, true, false, 1},
        {"sync word ending past byte 256, lines returned", 253, false, true, false, 0},
        {"written, reset pulsed while granted", -1, true, false, true, 0},
        {"written, lines returned, reset pulsed", -1, true, true, true, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        SetUp(); // a new board
        if (c.image_at >= 0)
            std::ofstream(dir_ / "spi_rom0.bin")
                << std::string(static_cast<size_t>(c.image_at), '\xff') << "\xaa\x99\x55\x66";
        std::unique_ptr<tvsim::Board> board = load_board();
        for (const auto &[pin, level] :
             {std::pair{83, 1}, {63, 0}, {31, 0}, {36, 1}, {40, 1}, {38, 1}})
            EXPECT_EQ(tvsim::pin_level(*board, pin), level) << pin;
        board.reset();
        attach();
        if (c.write_image) {
            EXPECT_EQ(cmd_rom_write_enable(spi_fd), 0);
            EXPECT_EQ(cmd_rom_page_program(spi_fd, 0, kSync, sizeof kSync), 0);
            usleep(5000);
        }
        if (c.return_lines)
            set_pio_wren_default();
        if (c.pulse_reset)
            set_pio_reset(0);
        int done = -1;
        testsupport::printed([&] { done = IsFPGAConfigDone(0); });
        detach();
        EXPECT_EQ(done, c.done);
    }
}

// The check of all FPGAs asks only the selected ones: FPGA 1, never done, fails it only when it
// is selected.
TEST_F(UpdateFpgaOnBoard, TheCheckOfAllAsksOnlyTheSelectedFpgas) {
    change_config([](json &c) { c["soc"]["pin_inputs"] = {{"16", 1}, {"39", 0}}; });
    attach();
    const std::string first_done = " fpga_config_sum_tr1 done.\n";
    for (const auto &[second_selected, result, output] :
         std::vector<std::tuple<int, int, std::string>>{
             {0, 1, first_done},
             {1, 0,
              first_done + " Timeout Config Done!\nFailed to check config done(fpga_type=1)\n"}}) {
        const int selected[kFpgaCount] = {1, second_selected, 0};
        for (int n = 0; n < kFpgaCount; ++n)
            fpga_info_table[n].selected = selected[n];
        int all = -1;
        EXPECT_EQ(testsupport::printed([&] { all = IsFPGAConfigDoneALL(); }), output);
        EXPECT_EQ(all, result);
    }
    for (fpga_info &row : fpga_info_table)
        row.selected = 0;
    detach();
}

// Setting the access lines takes a 10 ms pause, and so does asking it for an FPGA number outside
// the board's three, which changes no line; that FPGA's done state reads -1.
TEST_F(UpdateFpgaOnBoard, AccessLinesTakeTenMillisecondsAndAnUnknownFpgaChangesNone) {
    attach();
    const size_t pins_driven = trace("pin").size();
    const size_t sleeps = trace("sleep").size();
    for (int type : {-1, kFpgaCount}) {
        EXPECT_EQ(get_pio_config_done(type), -1) << type;
        set_pio_reset(type);
        set_pio_wren(type);
    }
    EXPECT_EQ(trace("pin").size(), pins_driven);
    set_pio_wren_default();
    detach();
    std::vector<json> pauses = trace("sleep");
    pauses.erase(pauses.begin(), pauses.begin() + static_cast<std::ptrdiff_t>(sleeps));
    ASSERT_EQ(pauses.size(), 3u);
    for (const json &pause : pauses)
        EXPECT_EQ(pause["ns"], 10000000u);
}

// A new board draws its times from its seed and records them: the same seed, the same board.
// Every draw leaves ROMs 1 and 2 and their FPGAs slower than the first row's budgets allow (a
// chip erase past nine seconds, a load past one), and ROM 0 and FPGA 0 within them.
TEST_F(UpdateFpgaOnBoard, TimesAreDrawnPerBoardFromItsSeed) {
    json first;
    for (uint64_t seed : {7u, 7u, 8u, 9u}) {
        make_board({.usb_medium = "", .sd_medium = "", .seed = seed});
        const json spi = read_json("board.json")["spi"];
        if (first.is_null())
            first = spi;
        EXPECT_EQ(spi["roms"] == first["roms"], seed == 7) << seed;
        EXPECT_EQ(spi["seed"], seed);
        for (int n = 0; n < 3; ++n) {
            const json &rom = spi["roms"][n];
            EXPECT_EQ(rom["bulk_erase_ms"].get<unsigned>() > 9000, n != 0) << n;
            EXPECT_EQ(rom["fpga_load_ms"].get<unsigned>() > 900, n != 0) << n;
            EXPECT_LT(rom["page_program_us"].get<unsigned>(), 5000u) << n;
        }
    }
}

// A matching image whose path does not fit the 512-byte buffer is not opened. Only the three
// FPGA bits of the flags select FPGAs.
TEST_F(UpdateFpgaOnBoard, AnImagePathThatDoesNotFitIsNotOpened) {
    std::string dir = "/tmp/" + std::string(200, 'd') + "/" + std::string(200, 'e');
    std::string name = "fpga_config_sum_tr1" + std::string(120, 'x');
    fs::create_directories(dir_ / ("fs" + dir));
    std::ofstream(dir_ / ("fs" + dir + "/" + name)) << "image";
    attach();
    uint32_t flags[4] = {0, 1u << 26 | 1u << 29, 0, 0}; // bit 29 selects no FPGA
    int result = 0;
    std::string out =
        testsupport::printed([&] { result = Update_FPGA(dir.c_str(), nullptr, flags); });
    detach();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(out, "**ERROR** fail to open file " + name + " \n");
    EXPECT_EQ(fpga_info_table[0].selected, 1u);
    EXPECT_EQ(fpga_info_table[1].selected + fpga_info_table[2].selected, 0u);
    fpga_info_table[0].selected = 0;
}

} // namespace
