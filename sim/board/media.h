// Update media: USB disks seen through the SCSI layer and the SD card slot, their /sys and
// /proc files, the rescan attributes and the SD driver's control file, and mounting them.
//
// board.json "media":
//   "usb": [ { "disk": "b", "medium": "media/usb", "filesystem": "vfat", "sectors": 7864320,
//              "appears_after_seconds": 0, "rescans_needed": 0 } ]   (absent: no USB storage)
//   "sd":  { "slot": "insert" | "remove", "medium": "media/sd", "filesystem": "vfat",
//            "block_device_after_seconds": 0 | null (never) }         (absent: no SD driver)
#pragma once

#include "board/board.h"

namespace tvsim {

// The size of a stick that board.json gives none: 3.75 GiB in 512-byte sectors.
inline constexpr uint64_t kDefaultStickSectors = 7864320;

void refresh_media_files(Board &board);

// The host directory that a vfat mount of source shows; 0 or an errno value.
int medium_mount_source(Board &board, std::string_view source, std::string_view fstype,
                        std::string *host);

// The rescan attributes and the SD control file; null when path is neither.
std::unique_ptr<Device> open_media_device(Board &board, std::string_view path, int flags, int *err);

} // namespace tvsim
