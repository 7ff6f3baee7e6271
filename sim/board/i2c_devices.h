// Device models on the I2C buses.
//
// "serial_eeprom": a serial EEPROM with two-byte word addresses (high byte first; one byte with
//   "address_bytes": 1). A write
//   message sets the address and then fills the page buffer; the stop condition stores the
//   bytes, wrapping within the page ("page", default 32), and starts the write cycle
//   ("write_cycle_us", default 5000) during which the device does not acknowledge its address.
//   A read continues from the address counter (sequential read, wrapping at the end).
//   Keys: "size", "page", "address_bytes", "write_cycle_us", "file".
//
// Register interfaces ("kolma", "vornek"): an EEPROM behind 16-bit registers holding 16-bit
//   values, each model described by a RegisterMap. A register write is one 4-byte message
//   (register, value, high bytes first); a read writes the 2-byte register number and reads
//   the value with a repeated start. A register the map does not name, or one not open yet,
//   is refused with a NAK of its low byte. The sequence for one block, which the interface
//   follows step by step: the block start where the map has one (KOLMA: 0x4026 written; TR6:
//   0x4804 read), the first key, the second key (not before "key_settle_us" after the first;
//   the block registers open that long after the second), the EEPROM address, the data
//   (words, or one data message; refused before the address), then the first key cleared
//   and the second key cleared. A key out of this order is ignored (a
//   "register_key_ignored" event); a lock in the wrong order discards the block. The lock
//   stores a complete block; status high then shows bits 4 and 0 while the block settles
//   ("write_us", default 1000), during which the interface ignores keys and block starts,
//   and bit 0 alone after it. An incomplete block is not stored ("register_block_refused").
//   Status high bit 4 also shows while the block registers are open; status low is the sum
//   of the data bytes received since they opened.
//   Keys: "size", "file", "write_us", "reset_pin" (the device answers only while that pin is
//   1; while it is 0 the device forgets its registers).
//   Faults (target: the device's name): register_status_missing ("bits" of status high that
//   never show, default 0x01), register_status_extra ("bits" of status high that show as
//   well, default 0x01), register_wrong_sum (status low off by "delta", default 1).
//
// FPGA EEPROM interfaces ("fpga_tr5", "fpga_tr6"): register interfaces of 32-byte blocks that
//   the FPGA named by "fpga" (1 or 2) offers while it holds a configuration and its
//   "reset_pin" is 1; every reconfiguration (a reset pulse, the ROM's access returned) makes
//   them forget their registers and holds the PLL again. Writing 0 to register 0x0022 starts
//   the PLL, which reads locked (0x001E TR5, 0x000E TR6) at 0x0010 "pll_lock_us" (default
//   1000) later; the TR5 calibration (0x0012) reads 0x0003 "calibration_us" (default 2000)
//   after the lock, 0x0000 before. Enable (0x0020 written 0) is refused until then. With
//   "write_enable_pin", a block is stored only while that pin is 1.
//   Keys as above, and "fpga", "pll_lock_us", "calibration_us", "write_enable_pin".
//   Faults (target: the device's name): pll_never_locks (one PLL short of lock: 0x001C,
//   0x000C), calibration_not_done (0x0001), and the register faults above.
#pragma once

#include "board/i2c.h"

namespace tvsim {

// One register that reads a fixed value and accepts writes (0: unused entry).
struct FixedRegister {
    uint16_t reg;
    uint16_t value;
};

// An unlock key: the register and the value that unlocks it (0 locks it again).
struct UnlockKey {
    uint16_t reg;
    uint16_t value;
};

// Where a register interface keeps each role; 0 where the interface has no such register.
struct RegisterMap {
    const char *model;
    size_t block_size;
    uint16_t enable = 0;            // written enable_values in order to open the EEPROM registers
    uint16_t enable_values[2] = {}; // ... enable_count of them
    int enable_count = 0;           // 0: the EEPROM registers are open from power-on
    uint16_t block_start = 0;       // written at the start of a block, before its keys
    uint16_t block_start_read = 0;  // read at the start of a block, before its keys
    UnlockKey first_key = {};       // unlocked first and locked first
    UnlockKey second_key = {};      // unlocked and locked after the first
    uint64_t key_settle_us = 0;     // a key takes effect this long after it was written
    uint16_t address = 0;           // EEPROM address of the block
    uint16_t status = 0;            // write status: high bit 4 open, bit 0 stored; low the sum
    uint16_t data_words = 0;        // block bytes i, i+1 at data_words + i
    uint16_t data_message = 0;      // one message of the register and the whole block
    uint16_t read_command = 0;      // read interface: command, address, start, status, data
    uint16_t read_address = 0;
    uint16_t read_start = 0;
    uint16_t read_status = 0;    // low bits 0 and 3 clear: the data is ready
    uint16_t read_data = 0;      // bytes at read address + i at read_data + i, i < 16
    uint64_t read_fetch_us = 0;  // after a start, status low bit 0 this long,
    uint64_t read_load_us = 0;   // then bit 3 this long; then the data registers show the read
    FixedRegister fixed[6] = {}; // further registers of the device
    // FPGA interfaces: the PLL is held until pll_restart is written 0, then pll_status reads
    // pll_locked once it has locked; calibration (0: none) reads calibration_done after that.
    // The EEPROM interface takes its enable only then.
    uint16_t pll_restart = 0;
    uint16_t pll_status = 0;
    uint16_t pll_locked = 0;
    uint16_t calibration = 0;
    uint16_t calibration_done = 0;
};

// The register maps of the models; null for an unknown model.
const RegisterMap *register_map(std::string_view model);

} // namespace tvsim
