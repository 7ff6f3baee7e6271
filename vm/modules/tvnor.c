// SPDX-License-Identifier: GPL-2.0
// The parallel NOR boot flash of the VM rung: tvflash.c named "uboot-nor", needing no SPI
// controller. It takes the place of the board's physmap driver.
#define TVFLASH_NOR
#include "tvflash.c"
