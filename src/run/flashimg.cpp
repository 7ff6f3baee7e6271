#include "run/flashimg.h"

#include "common/holders.h"
#include "common/shell.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace {

constexpr const char *kListFileName = "flashimg.lst";
constexpr const char *kUsbMountPoint = "/tmp/usb";
constexpr const char *kSdMountPoint = "/mnt/sdcard";
constexpr const char *kUbiDevice = "/dev/ubi1";
constexpr const char *kMediaFsType = "vfat";
constexpr const char *kMediaMountData = "shortname=winnt";
constexpr int kCopyCommandSize = 512;
constexpr int kLinkCommandSize = 128;
constexpr int kLineSize = 256;
constexpr int kScsiListings = 10;
constexpr int kUsbPasses = 5;
constexpr int kSdBlockDeviceChecks = 10;

constexpr UbiVolume kAppDataVolume{"app_data", "0", "-s 24MiB", "ubi4_0", "/mnt/flash/app_data"};
constexpr UbiVolume kModelDataVolume{"model_data", "1", "-s 12MiB", "ubi4_1",
                                     "/mnt/flash/model_data"};
constexpr UbiVolume kJpegUserVolume{"jpeg_user", "2", "-s 20MiB", "ubi4_2", "/mnt/flash/jpeg_user"};
constexpr UbiVolume kJpegFactoryVolume{"jpeg_factory", "3", "-s 2MiB", "ubi4_3",
                                       "/mnt/flash/jpeg_factory"};
constexpr UbiVolume kBitmapVolume{"bitmap", "4", "-s 14MiB", "ubi4_4", "/mnt/flash/bitmap"};

enum class LineKind {
    Plain,   // sets its selection bit
    DataDir, // selection bit, then letters: F recreates the volume, N sets the erase bit
    Factory, // like DataDir, but R withholds the selection bit
    Zoran,   // only from a USB stick
};

struct ListKeyword {
    const char *keyword;
    LineKind kind;
    int word;
    uint32_t select_bit;
    uint32_t erase_bit;
    const UbiVolume *volume;
};

// Tried in this order; the first keyword that begins the line decides.
constexpr ListKeyword kListKeywords[] = {
    {"qvxbin", LineKind::Plain, 0, FLAG_QVXBIN, 0, nullptr},
    {"app_data/factory", LineKind::Factory, 0, FLAG_FACTORY, FLAG_FACTORY_ERASE, &kAppDataVolume},
    {"app_data", LineKind::DataDir, 0, FLAG_APP_DATA, FLAG_APP_DATA_ERASE, &kAppDataVolume},
    {"model_data", LineKind::DataDir, 0, FLAG_MODEL_DATA, FLAG_MODEL_DATA_ERASE, &kModelDataVolume},
    {"jpeg_user", LineKind::DataDir, 0, FLAG_JPEG_USER, FLAG_JPEG_USER_ERASE, &kJpegUserVolume},
    {"jpeg_factory", LineKind::DataDir, 0, FLAG_JPEG_FACTORY, FLAG_JPEG_FACTORY_ERASE,
     &kJpegFactoryVolume},
    {"bitmap", LineKind::DataDir, 0, FLAG_BITMAP, FLAG_BITMAP_ERASE, &kBitmapVolume},
    {"other", LineKind::DataDir, 0, FLAG_OTHER, FLAG_OTHER_ERASE, nullptr},
    {"tvm_hex", LineKind::Plain, 0, FLAG_TVM_HEX, 0, nullptr},
    {"tvm_eeprom", LineKind::Plain, 0, FLAG_TVM_EEPROM, 0, nullptr},
    {"uboot", LineKind::Plain, 0, FLAG_UBOOT, 0, nullptr},
    {"edid_data", LineKind::Plain, 0, FLAG_EDID_DATA, 0, nullptr},
    {"ferund_eep", LineKind::Plain, 0, FLAG_FERUND_EEP, 0, nullptr},
    {"vornek_eep", LineKind::Plain, 0, FLAG_VORNEK_EEP, 0, nullptr},
    {"hdmi_hex", LineKind::Plain, 0, FLAG_HDMI_HEX, 0, nullptr},
    {"zoran_update", LineKind::Zoran, 0, FLAG_ZORAN_UPDATE, 0, nullptr},
    {"pelto_eeprom", LineKind::Plain, 0, FLAG_PELTO_EEPROM, 0, nullptr},
    {"fpga_sam_1", LineKind::Plain, 1, FLAG1_FPGA_SAM_1, 0, nullptr},
    {"fpga_sam_2", LineKind::Plain, 1, FLAG1_FPGA_SAM_2, 0, nullptr},
    {"fpga_sam_3", LineKind::Plain, 1, FLAG1_FPGA_SAM_3, 0, nullptr},
    {"fpga_tr6_eeprom", LineKind::Plain, 1, FLAG1_FPGA_TR6_EEPROM, 0, nullptr},
    {"fpga_eeprom", LineKind::Plain, 1, FLAG1_FPGA_EEPROM, 0, nullptr},
    {"kolma_eeprom", LineKind::Plain, 1, FLAG1_KOLMA_EEPROM, 0, nullptr},
};

void recreate_ubifs_volume(const UbiVolume &volume) {
    printf("Remove and Make UBIFS volume [%s]\n", volume.name);
    remove_ubifs_volume(kUbiDevice, volume.id);
    make_ubifs_volume(kUbiDevice, volume.id, volume.size_option, volume.name);
    mount_test_ubifs_volume(volume.mount_source, volume.mount_point);
}

void apply_list_line(const char *line, const MediaFound &media, uint32_t *flags, bool dry) {
    ListLineEffect effect = decode_list_line(line, media);
    if (effect.zoran_refused)
        puts("Cannot update zoran from SD card");
    flags[effect.word] |= effect.select_bit;
    if (effect.recreated_volume != nullptr && dry)
        printf("UBIFS volume [%s] would be removed and made again\n",
               effect.recreated_volume->name);
    else if (effect.recreated_volume != nullptr)
        recreate_ubifs_volume(*effect.recreated_volume);
    flags[effect.word] |= effect.erase_bit;
}

// For the commands whose outcome shows only later (a missing list, a missing link).
void run_unchecked(const char *command) {
    int status = run_shell(command);
    (void)status;
}

// Completes the line a label began with the shell command's verdict.
void print_verdict(int status) {
    puts(status == 0 ? "OK." : "NG.");
}

void run_module_command(const char *command) {
    printf("... %s: ", command);
    print_verdict(run_shell(command));
}

} // namespace

ListLineEffect decode_list_line(const char *line, const MediaFound &media) {
    ListLineEffect effect{};
    for (const ListKeyword &k : kListKeywords) {
        size_t len = strlen(k.keyword);
        if (strncmp(line, k.keyword, len) != 0)
            continue;
        effect.keyword = k.keyword;
        effect.word = k.word;
        effect.letters = check_update_flag(line + len);
        switch (k.kind) {
        case LineKind::Plain:
            effect.select_bit = k.select_bit;
            break;
        case LineKind::Zoran:
            if (media.usb)
                effect.select_bit = k.select_bit;
            else
                effect.zoran_refused = media.sd;
            break;
        case LineKind::Factory:
        case LineKind::DataDir:
            if (k.kind == LineKind::DataDir || (effect.letters & OPTION_R) == 0)
                effect.select_bit = k.select_bit;
            if ((effect.letters & OPTION_F) != 0 && k.volume != nullptr)
                effect.recreated_volume = k.volume;
            if ((effect.letters & OPTION_N) != 0)
                effect.erase_bit = k.erase_bit;
            break;
        }
        return effect;
    }
    return effect;
}

int walk_update_list(FILE *list, ListLineVisitor visit, void *context) {
    char line[kListLineSize];
    while (fgets(line, sizeof line, list) != nullptr)
        visit(context, line);
    return ferror(list) ? -1 : 0;
}

bool list_piece_is_comment(const char *line) {
    return line[0] == '#';
}

int read_update_list(FILE *list, const MediaFound &media, uint32_t *flags, bool dry) {
    flags[0] = flags[1] = flags[2] = flags[3] = 0;
    struct Reading {
        const MediaFound &media;
        uint32_t *flags;
        bool dry;
    } reading{media, flags, dry};
    return walk_update_list(
        list,
        [](void *context, const char *line) {
            auto *r = static_cast<Reading *>(context);
            if (!list_piece_is_comment(line))
                apply_list_line(line, r->media, r->flags, r->dry);
        },
        &reading);
}

void print_update_selection(const uint32_t *flags) {
    for (const ListKeyword &k : kListKeywords) {
        if ((flags[k.word] & k.select_bit) != 0 ||
            (k.erase_bit != 0 && (flags[k.word] & k.erase_bit) != 0))
            printf("%-16s%s%s\n", k.keyword, (flags[k.word] & k.select_bit) != 0 ? " update" : "",
                   k.erase_bit != 0 && (flags[k.word] & k.erase_bit) != 0 ? " erase-first" : "");
    }
}

unsigned int directory_mode_clearing_umask() {
    return (~umask(0) & 0777) | 0300;
}

bool model_name_usable(const char *model) {
    size_t len = strlen(model);
    bool usable = len <= kMaxModelNameLength &&
                  (isalnum(static_cast<unsigned char>(model[0])) || model[0] == '_');
    for (size_t i = 0; usable && i < len; ++i) {
        unsigned char c = static_cast<unsigned char>(model[i]);
        usable = isalnum(c) || strchr("._+-", c) != nullptr;
    }
    return usable;
}

int check_model_name(const char *model) {
    if (model == nullptr || model[0] == '\0') {
        puts("No model name given: usage: tvupdate MODEL");
        return -1;
    }
    if (!model_name_usable(model)) {
        printf("Invalid model name '%.*s': use at most %d letters, digits, '.', '_', '+' or '-', "
               "beginning with a letter, a digit or '_'.\n",
               kMaxModelNameLength, model, kMaxModelNameLength);
        return -1;
    }
    return 0;
}

uint32_t check_update_flag(const char *text) {
    uint32_t options = 0;
    for (const char *p = text; *p != '\0'; ++p) {
        switch (*p) {
        case 'N':
            options |= OPTION_N;
            break;
        case 'F':
            options |= OPTION_F;
            break;
        case '5':
            options |= OPTION_5;
            break;
        case 'R':
            options |= OPTION_R;
            break;
        default:
            break;
        }
    }
    return options;
}

int search_imglist_file(char *mount_point, char *write_dir, const char *model, uint32_t *flags) {
    if (check_model_name(model) != 0)
        return -1;

    const char *media_dir = nullptr;
    MediaFound media{search_usb_media(&media_dir) == 0, false};
    if (!media.usb)
        media.sd = search_sdcard(&media_dir) == 0;
    if (!media.usb && !media.sd) {
        puts("Unable mount media");
        media_dir = kUsbMountPoint;
    }

    unsigned int mode = directory_mode_clearing_umask();
    char image_dir[kPathBufferSize];
    char command[kCopyCommandSize];
    if (!bounded_format(image_dir, sizeof image_dir, "/tmp/%s", model) ||
        !bounded_format(command, sizeof command, "cp -rf %s/%s/* %s/", media_dir, model, image_dir))
        return -1; // cannot happen for a name check_model_name accepted
    errno = 0;
    if (mkdir(image_dir, mode) != 0 && errno != EEXIST) {
        printf("Error in mkdir '%s'.\n", image_dir);
        return -1;
    }
    run_unchecked(command); // a failed copy shows as a missing or stale list

    char list_path[kPathBufferSize];
    if (!bounded_format(list_path, sizeof list_path, "%s/%s", image_dir, kListFileName))
        return -1;
    {
        UniqueFile list(fopen(list_path, "r"));
        if (!list || read_update_list(list.get(), media, flags) != 0)
            return -1; // a list that cannot be read (a folder, say) is no list
    }

    char link_command[kLinkCommandSize];
    if (!bounded_format(link_command, sizeof link_command, "ln -s %s /tmp/boot", image_dir) ||
        !bounded_format(write_dir, kPathBufferSize, "%s/%s", image_dir, "writedata") ||
        !bounded_format(mount_point, kPathBufferSize, "%s", media_dir))
        return -1;
    puts(link_command);
    run_unchecked(link_command);
    return 0;
}

int do_mount_media(char letter, int partition) {
    unsigned int mode = directory_mode_clearing_umask();
    char device[32];
    if (!bounded_format(device, sizeof device, "/dev/sd%c%d", letter, partition))
        return -1;
    errno = 0;
    if (mkdir(kUsbMountPoint, mode) != 0 && errno != EEXIST)
        return -1;
    return mount(device, kUsbMountPoint, kMediaFsType, MS_RDONLY, kMediaMountData);
}

int disk_sectors_in(FILE *size_file) {
    char line[kLineSize];
    if (fgets(line, sizeof line, size_file) == nullptr)
        return 0;
    return atoi(line);
}

bool sdcard_reports_insert(int ctrl) {
    char state[256];
    ssize_t n = read(ctrl, state, sizeof state - 1);
    return n >= 6 && strncmp(state, "insert", 6) == 0;
}

namespace {

// Reads the sector count of USB disk sd<letter>; 0 when the disk is absent or has no medium.
int usb_disk_sectors(char letter) {
    char path[64];
    if (!bounded_format(path, sizeof path, "/sys/block/sd%c/size", letter))
        return 0;
    UniqueFile size_file(fopen(path, "r"));
    return size_file ? disk_sectors_in(size_file.get()) : 0;
}

bool mount_first_usb_disk() {
    for (char letter = 'a'; letter <= 'h'; ++letter) {
        if (usb_disk_sectors(letter) != 0 && do_mount_media(letter, 1) == 0)
            return true;
    }
    return false;
}

// The entries of the SCSI device folder that are devices: not "." or "..".
int is_scsi_device(const struct dirent *entry) {
    return strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0;
}

void rescan_scsi_devices(const DirListing &devices) {
    for (int i = 0; i < devices.size(); ++i) {
        char path[kPathBufferSize];
        if (!bounded_format(path, sizeof path, "/sys/class/scsi_device/%s/device/rescan",
                            devices.name(i)))
            continue;
        UniqueFd rescan(open(path, O_WRONLY));
        if (rescan.valid() && write(rescan.get(), "rescan", 6) < 0) {
            // A refused rescan is no different from a disk that stays away.
        }
    }
}

} // namespace

int search_usb_media(const char **mount_point) {
    *mount_point = kUsbMountPoint;
    DirListing devices;
    for (int listing = 1;; ++listing) {
        int n = devices.scan("/sys/class/scsi_device/", is_scsi_device);
        if (n < 0)
            return -1;
        if (n > 0)
            break;
        if (listing == kScsiListings)
            return -1;
        sleep(1);
    }
    for (int pass = 0; pass < kUsbPasses; ++pass) {
        if (mount_first_usb_disk())
            return 0;
        rescan_scsi_devices(devices);
    }
    return -1;
}

int search_sdcard(const char **mount_point) {
    *mount_point = kSdMountPoint;
    {
        UniqueFd ctrl(open("/proc/sdcard/ctrl", O_RDWR));
        if (ctrl.get() <= 0 || !sdcard_reports_insert(ctrl.get()))
            return -1;
    }
    for (int check = 0; check < kSdBlockDeviceChecks; ++check) {
        if (UniqueDir(opendir("/sys/block/sdcarda")))
            break;
        sleep(1);
    }
    return mount("/dev/sdcarda1", kSdMountPoint, kMediaFsType, MS_RDONLY, kMediaMountData);
}

void remove_ubifs_volume(const char *device, const char *volume_id) {
    char command[kPathBufferSize];
    int status = -1;
    if (bounded_format(command, sizeof command, "/update/ubirmvol %s -n %s", device, volume_id))
        status = run_shell(command);
    printf("... remove UBIFS volume [%s_%s] : ", device, volume_id);
    print_verdict(status);
}

void make_ubifs_volume(const char *device, const char *volume_id, const char *size_option,
                       const char *volume_name) {
    char command[kPathBufferSize];
    int status = -1;
    if (bounded_format(command, sizeof command, "/update/ubimkvol %s -n %s %s -N %s", device,
                       volume_id, size_option, volume_name))
        status = run_shell(command);
    printf("... make UBIFS volume [%s] : ", volume_name);
    print_verdict(status);
}

void mount_test_ubifs_volume(const char *source, const char *mount_point) {
    printf("mount test: UBIFS volume [%s] to [%s]: ", source, mount_point);
    if (mount(source, mount_point, "ubifs", MS_SYNCHRONOUS, nullptr) == 0) {
        puts("OK.");
        umount(mount_point);
    } else {
        printf("NG.(%d)\n", errno);
    }
}

void insmod_ubifs_drivers() {
    char command[kPathBufferSize];
    if (bounded_format(command, sizeof command, "/sbin/insmod /modules/ubi.ko %s", "mtd=5")) {
        printf("... %s : ", command);
        print_verdict(run_shell(command));
    }
    run_module_command("/sbin/insmod /modules/ubifs.ko");
}

void rmmod_ubifs_drivers() {
    run_module_command("/sbin/rmmod ubifs.ko");
    run_module_command("/sbin/rmmod ubi.ko");
}

void insmod_mtd_nand_driver() {
    run_module_command("/sbin/insmod /modules/zpl7ndfmc.ko");
}

void rmmod_mtd_nand_driver() {
    run_module_command("/sbin/rmmod zpl7ndfmc.ko");
}
