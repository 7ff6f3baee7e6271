// The NOR direct-access driver "/dev/udirect" and what it maps: the board's parallel NOR boot
// flash (an EN29LV800C bottom-boot part, 1 MiB on a 16-bit bus) and the PIO block whose two
// registers switch the flash's VID high-voltage line.
//
// The driver takes map request 0x30 (see control.h) for the windows "PIO" (0x01880F00, 0x1000
// bytes) and "NOR" (0x01FC0000, 0x100000 bytes). In the PIO window, a write with bit 0 set to
// the register at 0x590 switches VID on, one to 0x594 switches it off.
//
// The flash answers its command interface as the part does, on the 16-bit bus (command
// addresses 0x555 and 0x2AA are words: byte offsets 0xAAA and 0x554):
// - read array (the contents of the NOR boot partition's file), after power-up and 0xF0;
// - autoselect (0xAA, 0x55, 0x90): word 0 reads the manufacturer (0x1C), word 1 the device
//   (0x225B), word 2 of a sector whether it is protected (1) or not (0);
// - in-system sector protection, only while VID has been on for at least 1 us: 0x60 enters it;
//   then 0x60 at a sector's word 2 (A6 low) starts a protect pulse on that sector, 0x60 at
//   word 0x42 (A6 high) an unprotect pulse on every sector; the next 0x40 there ends the pulse
//   (it takes effect when it lasted 150 us, 15 ms to unprotect, with VID still on) and a read
//   of that sector's word at least 1 us later gives its state (1 protected, 0 not); any other
//   read in this mode gives 0xFFFF;
// - word program (0xAA, 0x55, 0xA0, then the word at its address) and sector or chip erase
//   (0xAA, 0x55, 0x80, 0xAA, 0x55, then 0x30 at the sector or 0x10 at 0x555): the change lands
//   at once, protected sectors are left as they are, and for the part's program or erase time
//   every read gives the status word (DQ7 data polling, DQ6 toggle, DQ3 and DQ2 while erasing)
//   and writes are ignored; then the chip reads array again.
// Any other write, or a sequence out of order, returns to read array ("nor" event "ignored").
// Switching VID off does not leave protection mode: only 0xF0 returns to read array. While the
// chip does not read array, the NOR boot partition's MTD reads get what the chip answers.
// Protection is kept in state.json "nor" ("protected") and survives a reboot; the mode and VID
// do not. Program and erase through the NOR boot partition fail on a protected sector, having
// done what lies before.
//
// board.json "nor": { "driver": true, "protected": [0], "partition": "uboot-nor" }
// Faults: "nor_verify" (target: a sector number) the sector is not changed by a pulse;
// "nor_vid" (target "on" or "off") VID does not switch.
#pragma once

#include "board/board.h"
#include "board/device.h"

namespace tvsim {

std::unique_ptr<Device> open_nor_direct(Board &board, std::string_view path, int flags, int *err);

// Where bytes [offset, offset + length) of an MTD partition first meet a protected sector of the
// flash (that sector's first byte, or offset when it starts inside one); offset + length when
// they meet none. The part ignores program and erase there, and its MTD driver, which goes
// sector by sector and word by word, reports EIO having done what lies before.
// When the flash does not read array (left in autoselect, protection mode or busy), fills out
// with what it answers at bytes [offset, offset + count) of the partition holding its array and
// returns true; false when it reads array, or for any other partition.
bool nor_read_through_chip(Board &board, std::string_view partition, uint64_t offset, uint8_t *out,
                           size_t count);

uint64_t nor_protected_from(Board &board, std::string_view partition, uint64_t offset,
                            uint64_t length);

} // namespace tvsim
