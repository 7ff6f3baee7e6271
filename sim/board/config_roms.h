// The FPGA configuration ROMs and their FPGAs: the SPI control device "spioctl" (a misc
// device, minor number from board.json), three SPI NOR flash chips behind it, the access lines
// that decide which chip hears the bus, and three FPGAs that load themselves from their chip.
//
// board.json "spi":
//   { "node": true,            /dev/spioctl exists (else the tool makes a node from /proc/misc)
//     "driver": true,          the driver is loaded: /proc/misc lists it, its nodes open
//     "minor": 61,             its misc minor number (major 10)
//     "misc_before": [ { "minor": 62, "name": "spioctl2" } ],  listed before it in /proc/misc
//     "seed": 12345,           the seed the times below were drawn with (a record only)
//     "clock_hz": 10000000,    bus clock: every byte on the bus costs 8 clocks of board time
//     "roms": [ { "file": "spi_rom0.bin", "size": 2097152, "jedec_id": "0xef4015",
//                 "page_size": 256, "page_program_us": 700, "bulk_erase_ms": 3000,
//                 "protect": "0x00", "fpga_load_ms": 350 }, x3 ] }
// ROM 0 is a 16 Mbit SPI NOR flash, ROMs 1 and 2 are 64 Mbit ones; a new board draws its
// page program, chip erase and FPGA load times around the parts' typical times.
// The chip's contents live in the named file; its write-enable latch and running operation in
// state.json "soc" (lost at a power cycle, like the FPGAs' configuration state).
#pragma once

#include "board/board.h"
#include "board/device.h"

#include <optional>

namespace tvsim {

inline constexpr int kConfigRomCount = 3;

std::unique_ptr<Device> open_spi_device(Board &board, std::string_view path, int flags, int *err);

// /proc/misc, listing "spioctl" while its driver is loaded, and spidev's buffer size.
void refresh_misc_file(Board &board);

// Pin wiring: the access, reset and configuration-done lines.
void config_rom_pin_changed(Board &board, int pin, int level);
// The level the FPGAs drive on a pin, or none when they drive none.
std::optional<int> config_rom_pin_input(Board &board, int pin);
// Whether pin comes up high at power-on: the access lines come up idle, the resets high.
bool config_rom_pin_powers_on_high(Board &board, int pin);
// At power-on each FPGA loads from what its ROM holds then (into soc, the SoC's new volatile
// state).
void config_rom_power_on(Board &board, json &soc);

// Whether FPGA n holds a configuration (out of reset, its ROM not granted to the bus, loading
// or loaded from a valid image), and since when: *since_ns is the start of its last load, 0
// for the power-on configuration.
bool fpga_configured(Board &board, int n, uint64_t *since_ns);

// The chip select of the ROMs a bus transfer reaches now (bit n for ROM n).
unsigned selected_roms(Board &board);

// One transaction with chip select held: every byte of mosi is clocked out to the ROMs in
// roms; what the bus carried back, byte for byte (0xFF where no chip drives it).
std::vector<uint8_t> spi_bus_clock(Board &board, const std::vector<uint8_t> &mosi, unsigned roms);
// One transfer with chip select held: tx is clocked out, then rx.size() bytes are read.
void spi_bus_transfer(Board &board, const std::vector<uint8_t> &tx, std::vector<uint8_t> &rx,
                      unsigned roms);
// Charges the board clock for bytes on the bus.
void spi_bus_time(Board &board, size_t bytes);

// board.json "spi" of a new board, its times drawn from seed.
json default_spi_config(uint64_t seed);

} // namespace tvsim
