// Bringing a region of an MTD flash partition up to date from an image file: compare first,
// and only on a difference erase, write and verify, up to three times.
#pragma once

#include <cstdint>

// Results of uboot_write.
constexpr int UBOOT_WRITE_OK = 0;
constexpr int UBOOT_WRITE_FAILED = 1;

// Writes the image file at image_path into the region (offset, size bytes) of the MTD device
// mtd_path when the region differs from it. Prints on the current line: "Need to update... "
// and the progress display, or "No need to update.  Skipping... ", and " Need to retry [%u]..."
// before each further cycle. The region must start at 0 and end by 0xF0000, or start at
// 0xF0000 or later. Returns 0 when the region matched or was written and verified, else 1.
int uboot_write(const char *image_path, uint32_t offset, uint32_t size, const char *mtd_path);
