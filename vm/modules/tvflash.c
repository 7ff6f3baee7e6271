// SPDX-License-Identifier: GPL-2.0
// A NOR/SPI flash chip in RAM for the VM rung: one MTD device with a chosen name, size and
// erase block size. Built as tvflash (the SPI flash behind tvspi, "uboot-spi") and as tvnor
// (the parallel NOR boot flash, "uboot-nor", with no controller module before it). It behaves as
// NOR flash does: erasing sets whole erase blocks to 0xFF (an erase not aligned to erase blocks is
// refused with EINVAL), programming can only clear bits.
#include <linux/math64.h>
#include <linux/module.h>
#include <linux/mtd/mtd.h>
#include <linux/string.h>
#include <linux/vmalloc.h>

#ifdef TVFLASH_NOR
static char *name = "uboot-nor";
static int controller_ready(void) {
    return 1;
}
#else
static char *name = "uboot-spi";
int tvspi_controller_ready(void);
#define controller_ready tvspi_controller_ready
#endif
module_param(name, charp, 0444);
MODULE_PARM_DESC(name, "MTD device name shown in /proc/mtd");
static uint size = 0x100000;
module_param(size, uint, 0444);
static uint erase_size = 0x10000;
module_param(erase_size, uint, 0444);

static struct mtd_info flash;
static u8 *cells;

static int flash_erase(struct mtd_info *mtd, struct erase_info *instr) {
    u32 addr_rem, len_rem;

    div_u64_rem(instr->addr, erase_size, &addr_rem);
    div_u64_rem(instr->len, erase_size, &len_rem);
    if (addr_rem || len_rem)
        return -EINVAL;
    memset(cells + instr->addr, 0xff, instr->len);
    return 0;
}

static int flash_read(struct mtd_info *mtd, loff_t from, size_t len, size_t *retlen, u_char *buf) {
    memcpy(buf, cells + from, len);
    *retlen = len;
    return 0;
}

static int flash_write(struct mtd_info *mtd, loff_t to, size_t len, size_t *retlen,
                       const u_char *buf) {
    size_t i;

    for (i = 0; i < len; i++)
        cells[to + i] &= buf[i];
    *retlen = len;
    return 0;
}

static int __init flash_init(void) {
    int err;

    if (!controller_ready() || !size || !erase_size || size % erase_size)
        return -EINVAL;
    cells = vmalloc(size);
    if (!cells)
        return -ENOMEM;
    memset(cells, 0xff, size);
    flash.name = name;
    flash.type = MTD_NORFLASH;
    flash.flags = MTD_CAP_NORFLASH;
    flash.size = size;
    flash.erasesize = erase_size;
    flash.writesize = 1;
    flash.writebufsize = 1;
    flash.owner = THIS_MODULE;
    flash._erase = flash_erase;
    flash._read = flash_read;
    flash._write = flash_write;
    err = mtd_device_register(&flash, NULL, 0);
    if (err)
        vfree(cells);
    return err;
}

static void __exit flash_exit(void) {
    mtd_device_unregister(&flash);
    vfree(cells);
}

module_init(flash_init);
module_exit(flash_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("NOR flash in RAM with a chosen MTD name, for the VM rung");
