// The board time of the last run on a board, per component of the update run.
#pragma once

#include <cstdio>
#include <string>

// Reads the board's trace and prints, per component (the preparation before the first
// component, each "Start updating" section, the closing lines), its board time, its result and
// the part of it that the defined waits and the serial link's wire time make unavoidable. The
// components split the run without gap or overlap, so their times add up to the run's. 0, or
// 1 when the trace holds no run.
int board_time_report(const std::string &board_dir, FILE *out);
