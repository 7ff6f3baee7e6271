// What the program prints, recorded with its board time: one "output" trace event per line
// (or per piece of a line written without its line end), at the moment the bytes are written
// to standard output or standard error.
#pragma once

#include "board/board.h"

#include <cstddef>

namespace tvsim::interpose {

void record_output(Board &board, int fd, const void *bytes, size_t count);

} // namespace tvsim::interpose
