// The update run: entry point, component order and the shared progress display.
#pragma once

#include <cstdint>

// The board control device, and its descriptor, open for the whole run.
inline constexpr const char kControlDevice[] = "/dev/cn_user";
extern int cn_user_fd;

// Prints " %3d %%" for done/total and six backspaces, so the next call overwrites it.
void show_progress(uint32_t total, uint32_t done);

// One whole update run with the process's arguments; returns 0 or -1.
int run_update(int argc, char **argv);
