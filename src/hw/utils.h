// Hardware helpers shared by the updaters: GPIO pins, I2C transfers, and the readers of the
// EEPROM data text files.
#pragma once

#include <cstdint>
#include <cstdio>

// --- EEPROM data text files --------------------------------------------------------------

// --- GPIO pins ---------------------------------------------------------------------------
