// Power cuts: board.json "power_cut" ends a run as a power loss would, after a chosen number of
// the events that change a device (docs/board.md, "power_cut").
#pragma once

namespace tvsim {

// Called by the board's stand-in tools (programs a shell command of the board runs): a power
// cut while one of them runs also ends the program that ran it.
void power_cut_ends_caller();

} // namespace tvsim
