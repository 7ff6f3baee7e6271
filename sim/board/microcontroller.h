// The TV microcontroller behind the UART "/dev/uat_ucom": the driver (its rate request, reads
// that return after a time-out with what has arrived, wire time at the link rate) and the
// microcontroller itself (request frames, its two flash banks, its own EEPROM and the Ferund
// EEPROM it reaches, power and picture mute).
//
// board.json "microcontroller" (absent: the board has no such UART):
//   { "rate": 128906, "driver_rate": 115200, "read_timeout_ms": 500,
//     "running_bank": 1, "software_version": 16, "version_offset": 256, "micro_id": 33,
//     "bank_base": [65536, 196608], "eeprom_size": 32768, "ferund_size": 32768,
//     "reply_delay_us": 200, "erase_ms": 300, "block_write_us": 1000, "eeprom_write_ms": 5,
//     "guard_dog_ms": 2000, "checksum_settle_ms": 3000 }  (a setting left out: this value)
// Contents: tvm/bank1.bin, tvm/bank2.bin (98304 bytes each), tvm/eeprom.bin, tvm/ferund.bin.
// Faults (target: the command's name, e.g. "write_flash"): uart_no_reply, uart_short_reply
// ("bytes"), uart_late_reply, uart_split_reply ("bytes" in time, the rest late),
// uart_bad_checksum, uart_nak ("ack"), eeprom_write_status ("status", "replies": busy replies
// to one frame), eeprom_write_lost (acknowledged, not written), checksum_differs ("delta").
#pragma once

#include "board/board.h"

namespace tvsim {

// The "microcontroller" section that a new board gets; a setting that a board.json leaves out
// has its value here.
json default_microcontroller_config();

// Writes the microcontroller's flash banks and EEPROMs, erased (0xFF), into a new board.
bool create_microcontroller_files(const std::string &board_dir, const json &config);

// A power cycle: writing mode, power, picture mute, ports and guard dog are gone, and the
// microcontroller starts from the bank it was last told to boot.
void power_cycle_microcontroller(Board &board);

std::unique_ptr<Device> open_microcontroller(Board &board, std::string_view path, int flags,
                                             int *err);

} // namespace tvsim
