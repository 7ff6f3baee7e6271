// Shell commands of the tool.
#pragma once

#include <cstdio>
#include <cstdlib>

// Runs a command through the shell and returns system()'s status. Standard output is flushed
// first, so that a label the tool printed before the command appears before anything the
// command itself prints, whatever the buffering of the output.
inline int run_shell(const char *command) {
    fflush(stdout);
    return system(command);
}
