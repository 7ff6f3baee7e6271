// Kernel modules of the board: the stand-ins for insmod, rmmod and modprobe load and unload
// the module files under /modules; state.json "modules" lists what is loaded, and device
// models may appear only while their driver is loaded.
#pragma once

#include "board/board.h"

#include <string>
#include <vector>

namespace tvsim {

bool module_loaded(Board &board, std::string_view name);

// Each prints what the busybox tool would print on failure and returns its exit status.
int module_insmod(Board &board, const std::vector<std::string> &args);
int module_rmmod(Board &board, const std::vector<std::string> &args);
int module_modprobe(Board &board, const std::vector<std::string> &args);

} // namespace tvsim
