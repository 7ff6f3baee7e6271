// System-call failures as the operator reads them.
#pragma once

#include <cstdio>

// perror(label) after flushing standard output, so that the report follows the text of the
// line it interrupts instead of overtaking it.
inline void report_error(const char *label) {
    fflush(stdout);
    perror(label);
}
