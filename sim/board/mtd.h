// MTD flash partitions: the character devices /dev/mtdN with the Linux MTD interface
// (MEMGETINFO, MEMERASE, MEMERASE64, MEMGETREGIONCOUNT, MEMGETBADBLOCK, MEMLOCK, MEMUNLOCK;
// read, write and lseek with flash semantics: an erase sets bytes to 0xFF, a write can only
// clear bits), and their listing in /proc/mtd.
//
// board.json "mtd": a list of partitions, each
//   { "name": "uboot-nor",          the name /proc/mtd shows
//     "number": 6,                  N of /dev/mtdN (default: the place in the list)
//     "type": "nor" | "nand",       ("nor" also for SPI NOR flash)
//     "size": "0x100000", "erasesize": "0x20000", "writesize": 1 (nand: 2048),
//     "drivers": ["physmap"],       modules that must be loaded for it to exist (default none)
//     "erase_ms": 700,              board time per erase block
//     "write_ns_per_byte": 5000 }   board time per byte written
// A partition's contents are the file mtd/<name>.bin of the board, made on its first change;
// bytes beyond the file's end read as erased (0xFF).
//
// NAND pages carry a 64-byte out-of-band area (mtd/<name>.oob): the bad-block marker and the
// ECC written with each page; a page written twice without an erase fails its ECC at every
// read, which, as the kernel's character device, still returns the data and only counts it
// (ECCGETSTATS). MEMSETBADBLOCK erases the block first; MEMREADOOB/MEMWRITEOOB reach the area.
//
// Faults (target: the partition name): "mtd_erase" fails an erase with "errno" (EIO);
// "mtd_write" fails a write with "errno" (EIO), or with "bytes": n stores only the first n
// bytes and returns n; "mtd_program" is taken at each erase and makes that cycle's first
// written byte come out inverted, so that reading back differs. Per NAND block (target
// "<name>:<block>"): "nand_read_fail" (EIO), "nand_bitflip" ("bits", "uncorrectable").
#pragma once

#include "board/board.h"

namespace tvsim {

// Writes /proc/mtd for the partitions that exist now.
void refresh_mtd_files(Board &board);

// /dev/mtdN of a partition that exists now; null otherwise.
std::unique_ptr<Device> open_mtd_device(Board &board, std::string_view path, int flags, int *err);

// board.json "mtd" of a new board, and the driver modules its partitions need.
json default_mtd_config();
std::vector<std::string> mtd_driver_modules(const json &mtd_config);

} // namespace tvsim
