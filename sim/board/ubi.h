// UBI devices and their volumes on the board's NAND flash. Each volume's contents are a
// directory flash/ubi<device>_<id> of the board.
//
// board.json "ubi" (copied into state.json, where volume tools change it):
//   [ { "number": 4, "node": "/dev/ubi1",
//       "volumes": [ { "id": 0, "name": "app_data", "size": "24MiB" } ] } ]
// "node" is the control node through which the volume tools reach that device.
#pragma once

#include "board/board.h"

#include <string>
#include <vector>

namespace tvsim {

// The host directory of the volume that a ubifs mount source names ("ubi4_0", "ubi5:other",
// optionally behind "/dev/"); 0 or an errno value.
int ubi_mount_source(Board &board, std::string_view source, std::string *host);

// The write cache of a ubifs mount (a record of the mount table). Without MS_SYNCHRONOUS the
// volume keeps what was written since it was mounted, or since the last sync, in RAM: a power
// cut loses it. The volume's contents as the flash holds them are kept beside it until a sync
// or the unmount writes the cache out.
void ubi_start_write_cache(Board &board, json &mount);
// A sync writes the cache out and the volume goes on caching; an unmount writes it out for good.
void ubi_write_back_cache(Board &board, json &mount, bool unmounting);
void ubi_lose_write_cache(Board &board, json &mount);

// Volume tools, as the board's ubimkvol and ubirmvol: each prints what the real tool prints
// and returns its exit status.
int ubi_make_volume(Board &board, const std::vector<std::string> &args);
int ubi_remove_volume(Board &board, const std::vector<std::string> &args);

} // namespace tvsim
