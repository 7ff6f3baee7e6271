// Programming of the FPGA configuration ROMs (SPI flash behind the SPI control device, reached
// one at a time through three access lines) and the FPGA reset and configuration-done lines.
#pragma once

#include <cstdint>

struct fpga_info {
    uint32_t selected; // set by Update_FPGA, never cleared during the run
    const char *name;  // image file prefix, also printed when configuration is done
    uint32_t erase_poll_interval_s;
    uint32_t erase_poll_count;
    uint32_t done_poll_interval_ms;
    uint32_t done_poll_count;
};

constexpr int kFpgaCount = 3;
extern fpga_info fpga_info_table[kFpgaCount];

// The lines each FPGA uses, by fpga_type.
struct FpgaPins {
    int reset;
    int config_done;
    uint8_t access[3]; // levels of the ROM access pins 83, 63, 31 that grant its ROM
};
constexpr int kRomAccessPins[3] = {83, 63, 31};
constexpr uint8_t kRomAccessIdle[3] = {1, 0, 0};
constexpr FpgaPins kFpgaPins[kFpgaCount] = {
    {36, 16, {0, 0, 0}}, {40, 39, {1, 1, 0}}, {38, 37, {1, 0, 1}}};

constexpr uint32_t kRomPageSize = 256;

// Pin functions.
void set_pio_wren_default();
void set_pio_wren(int fpga_type);
void set_pio_reset(int fpga_type);
// 1 when the configuration-done line is high, 0 when it is low or cannot be read, -1 for a
// type other than 0-2.
int get_pio_config_done(int fpga_type);

// ROM commands: 0, or a negative value on failure.
int cmd_rom_write_enable(int fd);
int cmd_rom_write_disable(int fd);
int cmd_rom_bulk_erase(int fd);
int cmd_rom_page_program(int fd, uint32_t address, const uint8_t *data, uint32_t length);
int cmd_rom_read_status_register(int fd, uint8_t *status);

// Polls the status up to count times, calling wait after each poll that did not read 0x00.
// *status keeps the last value read. True when a poll read 0x00.
bool rom_wait_ready(int fd, uint32_t count, void (*wait)(uint32_t), uint32_t wait_arg,
                    uint8_t *status);

// Programs the ROMs selected by bits 26-28 of flags[1] from the files in dir; 0 when every one
// was programmed and its FPGA configured, -1 otherwise.
int Update_FPGA(const char *dir, const char *model, const uint32_t *flags);
// Pulses the reset line of FPGA 0, 1 and 2.
void SetFPGAHwReset();
// 1 when the FPGA reported configuration done in time, 0 otherwise.
int IsFPGAConfigDone(int fpga_type);
int IsFPGAConfigDoneALL();
