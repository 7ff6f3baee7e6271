// SPDX-License-Identifier: GPL-2.0
// The SPI controller driver of the VM rung: it only has to be loaded before the flash chip
// driver (tvflash), which depends on it as the board's flash driver depends on its controller.
#include <linux/module.h>

int tvspi_controller_ready(void) {
    return 1;
}
EXPORT_SYMBOL_GPL(tvspi_controller_ready);

MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("SPI controller stand-in for the VM rung");
