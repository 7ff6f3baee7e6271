// The SoC's registers behind the control device's two windows: the identification registers
// (revision, boot configuration) and the three GPIO bank registers, each of which reports the
// pin levels when read and sets the levels driven on the bank's outputs when written.
//
// board.json "soc":
//   { "revision": "0x07120010",      the revision register (REVID, 0x80000404)
//     "boot_config": "0x00000100",   the boot configuration register (CCFG, 0x80000400)
//     "pin_inputs": { "16": 1 } }    pins driven from outside, with their level
// Numbers may be JSON numbers or text ("0x..."). Output levels are kept in state.json
// "soc" ("gpio_out": the three banks' output latches, at power-on 0 except the pins the wired
// models hold: the FPGA ROMs' access lines idle, the FPGA resets high); other registers of the
// windows read as written (state.json "soc" "registers"), 0 before the first write.
#pragma once

#include "board/board.h"
#include "board/device.h"

namespace tvsim {

// A register window of the control device.
struct SocWindow {
    const char *name;
    uint32_t phys_base;
    uint32_t size;
};
inline constexpr SocWindow kSocWindows[] = {{"PERI", 0x80000000, 0x2000},
                                            {"S5LP", 0x80003000, 0x1000}};

inline constexpr uint32_t kRevisionRegister = 0x80000404;
inline constexpr uint32_t kBootConfigRegister = 0x80000400;
inline constexpr uint32_t kGpioBankRegisters[] = {0x80003000, 0x80003028, 0x80003038};

// The registers seen through one window of the control device.
std::unique_ptr<RegisterSpace> soc_registers(Board &board, const SocWindow &window);

// The SoC's volatile state (state.json "soc"). A power cycle drops it; the first use after one
// makes it at its power-on values, before anything on the board can have changed since.
json &soc_state(Board &board);

// The level the board sees on a pin now: driven from outside, or the output latch.
int pin_level(Board &board, int pin);

// board.json "soc" of a new board: revision 0 (which boots from the SPI flash).
json default_soc_config();

} // namespace tvsim
