// SPDX-License-Identifier: GPL-2.0
// The board control device /dev/cn_user of the VM rung: its map request (0xCF30) hands out a
// file offset for a register window, and mmap at that offset maps the window's registers, kept
// in RAM. The revision and boot configuration registers hold the module's parameters.
#include <linux/fs.h>
#include <linux/miscdevice.h>
#include <linux/mm.h>
#include <linux/module.h>
#include <linux/uaccess.h>

static uint revision;
module_param(revision, uint, 0444);
MODULE_PARM_DESC(revision, "SoC revision register (0x80000404)");
static uint boot_config;
module_param(boot_config, uint, 0444);
MODULE_PARM_DESC(boot_config, "boot configuration register (0x80000400)");

#define MAP_REQUEST 0xCF30
#define WINDOW_ORDER 1 /* every window fits in two pages */

struct map_request {
    char name[8];
    u32 phys_addr;
    u32 size;
    u32 flags;
    u32 offset;
};

static const struct {
    u32 phys_addr;
    u32 size;
} windows[] = {{0x80000000, 0x2000}, {0x80003000, 0x1000}};
static struct page *window_pages[ARRAY_SIZE(windows)];

static long ctl_ioctl(struct file *file, unsigned int cmd, unsigned long arg) {
    struct map_request req;
    size_t i;

    if (cmd != MAP_REQUEST)
        return -ENOTTY;
    if (copy_from_user(&req, (void __user *)arg, sizeof(req)))
        return -EFAULT;
    for (i = 0; i < ARRAY_SIZE(windows); i++) {
        if (windows[i].phys_addr == req.phys_addr && windows[i].size == req.size) {
            req.offset = i << (PAGE_SHIFT + WINDOW_ORDER);
            return copy_to_user((void __user *)arg, &req, sizeof(req)) ? -EFAULT : 0;
        }
    }
    return -EINVAL;
}

static int ctl_mmap(struct file *file, struct vm_area_struct *vma) {
    unsigned long i = vma->vm_pgoff >> WINDOW_ORDER;
    unsigned long size = vma->vm_end - vma->vm_start;

    if ((vma->vm_pgoff & ((1 << WINDOW_ORDER) - 1)) || i >= ARRAY_SIZE(windows) ||
        size > windows[i].size)
        return -EINVAL;
    return remap_pfn_range(vma, vma->vm_start, page_to_pfn(window_pages[i]), size,
                           vma->vm_page_prot);
}

static const struct file_operations ctl_fops = {
    .owner = THIS_MODULE,
    .unlocked_ioctl = ctl_ioctl,
    .mmap = ctl_mmap,
};

static struct miscdevice ctl_device = {
    .minor = MISC_DYNAMIC_MINOR,
    .name = "cn_user",
    .fops = &ctl_fops,
};

static void free_windows(void) {
    size_t i;

    for (i = 0; i < ARRAY_SIZE(windows); i++)
        if (window_pages[i])
            __free_pages(window_pages[i], WINDOW_ORDER);
}

static int __init ctl_init(void) {
    size_t i;
    u32 *peri;
    int err;

    for (i = 0; i < ARRAY_SIZE(windows); i++) {
        window_pages[i] = alloc_pages(GFP_KERNEL | __GFP_ZERO, WINDOW_ORDER);
        if (!window_pages[i]) {
            free_windows();
            return -ENOMEM;
        }
    }
    peri = page_address(window_pages[0]);
    peri[0x400 / 4] = boot_config;
    peri[0x404 / 4] = revision;
    err = misc_register(&ctl_device);
    if (err)
        free_windows();
    return err;
}

static void __exit ctl_exit(void) {
    misc_deregister(&ctl_device);
    free_windows();
}

module_init(ctl_init);
module_exit(ctl_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Board control device with RAM register windows, for the VM rung");
