#include "bootloader/update_uboot.h"

#include "bootloader/uboot_write.h"
#include "common/holders.h"
#include "common/shell.h"
#include "hw/systool.h"
#include "nand/nand_raw_write.h"
#include "run/flashimg.h"

#include <cstdio>
#include <cstdlib>

namespace {

constexpr uint32_t kRevisionRegister = 0x80000404;
constexpr uint32_t kBootConfigRegister = 0x80000400;
constexpr uint32_t kBootSourceMask = 0x300;
constexpr uint32_t kBootFromSpi = 0x000;
constexpr uint32_t kBootFromNor = 0x100;
constexpr uint32_t kRevisionEs1 = 0x07120010;
constexpr uint32_t kRegisterUnreadable = 1;

// The boot loader region of the partition.
constexpr uint32_t kBootRegionOffset = 0;

// Sized so that every model name the run accepts fits the longer ("_S1") image name.
constexpr size_t kImageNameSize = kMaxModelNameLength + sizeof "boot-_S1.bin";
constexpr size_t kImagePathSize = 4096;
constexpr size_t kDevicePathSize = sizeof "/dev/" - 1 + kMtdDeviceNameSize;

struct BootSource {
    uint32_t field; // value of the boot-source field
    void (*load_driver)();
    const char *image_format;
    bool print_image_name;
    const char *partitions[3]; // tried in this order; unused places are null
};

constexpr BootSource kBootSources[] = {
    {kBootFromSpi, Insmod_SpiDriver, kBootImageSpi, true, {"uboot-spi", "spi_flash0", "VQ71206"}},
    {kBootFromNor,
     Insmod_NorDriver,
     kBootImageNor,
     false,
     {"uboot-nor", "physmap-flash.0", nullptr}},
};

// Reads one register of window 0; false when the window cannot be mapped, so that a register
// holding 1 is not mistaken for a failed read.
bool read_peri_register(uint32_t address, uint32_t *value) {
    MappedWindow window(SYS_WINDOW_PERI);
    if (!window.mapped())
        return false;
    *value = sys_reg_read(address);
    return true;
}

void run_driver_command(const char *command) {
    int status = run_shell(command);
    (void)status; // a driver that did not load shows as a missing partition
}

// The boot source of this board, or null after the message that refuses it.
const BootSource *boot_source() {
    uint32_t revision;
    if (!read_peri_register(kRevisionRegister, &revision)) {
        puts("** error ** REV ID read error");
        return nullptr;
    }
    uint32_t field;
    if (revision == kRevisionEs1) {
        field = Get_CCFGid();
        if (field == kRegisterUnreadable) {
            puts("** error ** CCFG read error");
            return nullptr;
        }
        if (field == kBootFromSpi) {
            puts("Not Support : This board is ES1 & SPI boot.");
            return nullptr;
        }
    } else if (revision == 0) {
        field = kBootFromSpi;
    } else {
        printf(" ** error ** revid= %x", revision);
        return nullptr;
    }
    for (const BootSource &source : kBootSources) {
        if (source.field == field)
            return &source;
    }
    printf("** error ** CCFG boot flag %lx \n", static_cast<unsigned long>(field));
    return nullptr;
}

// Looks up the source's partition names in order; false when none exists.
bool find_boot_partition(const BootSource &source, char *device) {
    for (const char *name : source.partitions) {
        if (name != nullptr && check_mtdname(name, device) == 1)
            return true;
    }
    return false;
}

} // namespace

uint32_t Get_REVID() {
    uint32_t value;
    return read_peri_register(kRevisionRegister, &value) ? value : kRegisterUnreadable;
}

uint32_t Get_CCFGid() {
    uint32_t value;
    return read_peri_register(kBootConfigRegister, &value) ? value & kBootSourceMask
                                                           : kRegisterUnreadable;
}

void Insmod_NorDriver() {
    run_driver_command("if [ -e /modules/physmap.ko ];then modprobe physmap;fi");
}

void Insmod_SpiDriver() {
    run_driver_command("if [ -e /modules/vq71206_spi.ko ];then insmod /modules/vq71206_spi.ko;"
                       "insmod /modules/m25p80.ko;fi");
}

int Update_uboot(const char *write_dir, const char *model) {
    if (write_dir == nullptr || model == nullptr)
        return -1;
    const BootSource *source = boot_source();
    if (source == nullptr)
        return -1;
    source->load_driver();
    char image_name[kImageNameSize];
    if (!bounded_format(image_name, sizeof image_name, source->image_format, model)) {
        printf("** error ** model name too long for the boot loader image: %.*s\n",
               kMaxModelNameLength, model);
        return -1;
    }
    if (source->print_image_name)
        puts(image_name);
    char image_path[kImagePathSize];
    if (!bounded_format(image_path, sizeof image_path, "%s/%s", write_dir, image_name)) {
        puts("** error ** boot loader image path too long");
        return -1;
    }
    char device[kMtdDeviceNameSize] = "";
    bool found = find_boot_partition(*source, device);
    printf("%s \n", device);
    if (!found) {
        puts("uboot partition nothing?");
        return -1;
    }
    char device_path[kDevicePathSize];
    if (!bounded_format(device_path, sizeof device_path, "/dev/%s", device))
        return -1; // cannot happen: the buffer holds every name check_mtdname gives
    return uboot_write(image_path, kBootRegionOffset, kBootRegionSize, device_path) ==
                   UBOOT_WRITE_OK
               ? 0
               : -1;
}
