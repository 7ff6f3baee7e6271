// Raw access to MTD flash partitions: erase-block I/O on a NAND partition by logical offset,
// skipping and retiring bad blocks, offered as an operations record; and the lookup of a
// partition by name in /proc/mtd.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <mtd/mtd-user.h>

// Size of a buffer that holds any partition device name check_mtdname hands back: "mtd" and
// up to four digits (mtd0 to mtd9999).
constexpr size_t kMtdDeviceNameSize = 8;

// Looks in /proc/mtd for a partition whose name contains wanted. Returns 1 and writes the
// partition's device name (for example "mtd1") into device (kMtdDeviceNameSize bytes), or 0
// when there is none or /proc/mtd cannot be opened ("open /proc/mtd" through perror).
int check_mtdname(const char *wanted, char *device);

// Like check_mtdname, but the partition's name must be exactly name.
int find_mtd_partition(const char *name, char *device);

// The search of check_mtdname (or, with exact, of find_mtd_partition) over an open partition
// table.
int check_mtdname_in(FILE *proc_mtd, const char *wanted, char *device, bool exact = false);

// --- NAND raw block I/O --------------------------------------------------------------------

// An open NAND partition.
struct nand_dev {
    int fd;              // read-write descriptor of the MTD character device
    mtd_info_user info;  // geometry from MEMGETINFO
    uint64_t *block_map; // logical erase block -> physical byte offset; 0 means none recorded
};

// The context of the most recent successful nand_open (null after a failed one).
extern nand_dev *nand_drv_info;

// What nand_open hands back in place of a context when it fails. Every operation treats it as
// a null context.
#define NAND_OPEN_FAILED (reinterpret_cast<nand_dev *>(-1))

// Result codes.
constexpr int NAND_ERR_ARG = -1;
constexpr int NAND_ERR_OPEN = -2;    // -ENOENT
constexpr int NAND_ERR_WRITE = -4;   // -EINTR
constexpr int NAND_ERR_READ = -5;    // -EIO
constexpr int NAND_ERR_DEVICE = -7;  // -E2BIG: geometry, bad-block query or mark failed
constexpr int NAND_ERR_NO_GOOD = -8; // -ENOEXEC: no good block left before the end

// Opens the partition at path (flags ignored) and seeds the block map from the device's bad
// blocks: logical block L is the L-th good block. A block retired while the device is open
// moves its logical block, and every one after it, to the next good block after the one
// before, as a reopen would find them. The context, or NAND_OPEN_FAILED.
nand_dev *nand_open(const char *path, int flags);
// Closes the device and frees the context: 0, or -1 for a null context.
int nand_close(nand_dev *ctx);
// Reads or writes size bytes at logical offset (a multiple of the erase size), block by block
// around bad blocks; a write erases every block first and retires a block whose erase or
// page write fails. The number of bytes transferred, or a negative code.
int nand_read(nand_dev *ctx, void *buf, uint32_t size, uint32_t offset);
int nand_write(nand_dev *ctx, const void *buf, uint32_t size, uint32_t offset);
// Programs at most one erase block at offset without erasing and without skipping bad blocks:
// size, or a negative code (a failed page write retires the block).
int nand_write_block(nand_dev *ctx, const void *buf, uint32_t size, uint32_t offset);
// Erases the good block that holds logical offset, retiring blocks that fail: 0 or a code.
int nand_erase(nand_dev *ctx, uint32_t offset);
// The number of blocks MEMGETBADBLOCK reports good: the partition's logical blocks. -1 for a
// null context, -7 when a query fails.
int nand_good_blocks(nand_dev *ctx);
// The erase block size, or 0xFFFFFFFF for a null context.
uint32_t nand_get_blk_size(nand_dev *ctx);

// Physical byte offset of the start of the block that holds logical offset: the nearest
// recorded block at or below it, followed contiguously, else the offset itself.
uint64_t get_physical_page(const nand_dev *ctx, uint32_t offset);

// The operations record, in its fixed order.
struct flash_storage_dev {
    nand_dev *(*open)(const char *path, int flags);
    int (*close)(nand_dev *ctx);
    int (*read)(nand_dev *ctx, void *buf, uint32_t size, uint32_t offset);
    int (*write)(nand_dev *ctx, const void *buf, uint32_t size, uint32_t offset);
    int (*write_block)(nand_dev *ctx, const void *buf, uint32_t size, uint32_t offset);
    int (*erase)(nand_dev *ctx, uint32_t offset);
    uint32_t (*get_blk_size)(nand_dev *ctx);
};

// Fills the record with the NAND operations; returns 0.
int init_flash_storage_dev(flash_storage_dev *dev);
