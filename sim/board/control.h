// The board control device "/dev/cn_user": the SoC's register windows are mapped through it.
#pragma once

#include "board/board.h"

namespace tvsim {

std::unique_ptr<Device> open_control_device(Board &board, std::string_view path, int flags,
                                            int *err);

} // namespace tvsim
