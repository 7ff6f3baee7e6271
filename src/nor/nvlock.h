// Sector protection of the board's parallel NOR boot flash (an EN29LV800C bottom-boot part,
// 1 MiB on a 16-bit bus), driven through its command interface in a region mapped from the
// NOR direct-access driver, with the VID high-voltage line switched by two PIO registers.
#pragma once

#include "hw/systool.h"

#include <cstdint>

// The NOR direct-access driver and its map request.
constexpr const char *NOR_DIRECT_DEVICE = "/dev/udirect";
constexpr unsigned long NOR_MMAP_REQUEST = 0x30;

// Region indexes of mmap_table and mmap_vaddr.
constexpr unsigned NOR_REGION_PIO = 0;
constexpr unsigned NOR_REGION_NOR = 1;
constexpr unsigned NOR_REGION_COUNT = 2;

// The map requests; the driver writes each record's offset.
extern mmap_request mmap_table[NOR_REGION_COUNT];
// Where the regions are mapped (null when not mapped).
extern volatile void *mmap_vaddr[NOR_REGION_COUNT];

// PIO registers that switch VID on and off (byte offsets in the PIO region).
constexpr uint32_t NOR_VID_ON_REG = 0x590;
constexpr uint32_t NOR_VID_OFF_REG = 0x594;

struct nor_sector {
    uint32_t offset;
    uint32_t size;
};
constexpr unsigned NOR_SECTOR_COUNT = 19;
constexpr uint32_t NOR_FLASH_SIZE = 0x100000;
extern const nor_sector en29lv800cb_sector_table[NOR_SECTOR_COUNT];
extern const nor_sector *sector_table;

// Modes of nvLock.
constexpr int NVLOCK_UNPROTECT = 0;
constexpr int NVLOCK_PROTECT = 1;

// Protects (mode 1), unprotects (mode 0) or lists (any other mode) the sectors that hold
// [start, start + length). -1 when start lies beyond the flash, 1 when the regions cannot be
// mapped, -1 when a protect or unprotect run did not verify, else 0.
int nvLock(uint32_t start, uint32_t length, int mode);

// The sectors nvLock works on: false ("error: <start> exceeds device size") when start lies
// beyond the flash.
bool nor_sector_range(uint32_t start, uint32_t length, unsigned *first, unsigned *last);

// Maps both regions: 0, or 1 after perror with nothing left mapped.
int map_regs();
// Releases the regions map_regs mapped.
void unmap_regs();

int lock_sectors(unsigned first, unsigned count);
int unlock_sectors(unsigned first, unsigned count);
int set_vid(int on);
int reset_mode();
int enter_autoselect_mode();
uint16_t is_sector_locked(unsigned sector);
int enter_protect_mode();
int exit_protect_mode();
