// The board control device "/dev/cn_user": the SoC's register windows are mapped through it.
// A map request (0xCF30, the 24-byte mmap_request record: name[8], phys_addr, size, flags,
// offset) names a window; the driver answers with the file offset at which the window can
// then be mapped (an offset of the driver's own, not the physical address), and a shared mmap
// of the same descriptor at that offset reaches the window's registers (see registers.h). A
// window that was not requested on the descriptor first cannot be mapped (EINVAL).
//
// Faults: "map_request" (target: the window name) refuses the request with "errno" (EIO);
// "mmap" (target: the window name) fails the mapping with "errno" (ENOMEM), or with
// "elsewhere": true places it away from the address the program asked for.
#pragma once

#include "board/board.h"

namespace tvsim {

std::unique_ptr<Device> open_control_device(Board &board, std::string_view path, int flags,
                                            int *err);

} // namespace tvsim
