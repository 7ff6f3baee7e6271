// Control interface of libtvsim.so for test programs that call the tool's functions in their
// own process: while attached, the process runs on the board in dir exactly as a program
// started by the tvsim launcher does.
#pragma once

extern "C" {
// Loads the board in dir; 0, or -1 when it cannot be loaded or a board is attached already.
int tvsim_attach(const char *dir);
// Saves the board's state and leaves it.
void tvsim_detach();
}
