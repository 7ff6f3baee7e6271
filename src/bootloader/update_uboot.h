// The boot loader update: which flash the board boots from (read from the SoC's revision and
// boot configuration registers), that flash's driver, the matching image and the boot loader
// partition, handed to uboot_write.
#pragma once

#include <cstdint>

// The boot loader region at the start of the boot flash, and the image written into it: named
// after the model, with "_S1" for a board that boots from NOR flash.
constexpr uint32_t kBootRegionSize = 0xF0000;
constexpr const char *kBootImageSpi = "boot-%s.bin";
constexpr const char *kBootImageNor = "boot-%s_S1.bin";

// Brings the boot loader partition up to date from the write-data directory: 0 when it is up
// to date (written or already equal), -1 otherwise. Continues the line the caller began.
int Update_uboot(const char *write_dir, const char *model);

// The revision register, or 1 when window 0 cannot be mapped.
uint32_t Get_REVID();
// The boot configuration register's boot-source field (mask 0x300), or 1 when window 0 cannot
// be mapped.
uint32_t Get_CCFGid();

// Load the flash drivers through the shell; their status is not examined (a missing module
// shows as a missing partition).
void Insmod_NorDriver();
void Insmod_SpiDriver();
