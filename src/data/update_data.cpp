#include "data/update_data.h"

#include "common/holders.h"
#include "common/shell.h"
#include "run/flashimg.h"

#include <cstdio>
#include <cstdlib>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kCommandSize = 256;

// Erases the directory's contents (or, for the app_data subdirectories, the directory itself).
bool erase_target(const DataDir &d) {
    char command[kCommandSize];
    if (!bounded_format(command, sizeof command, d.is_app_data_subdir ? "rm -rf %s" : "rm -rf %s/*",
                        d.target))
        return false;
    printf("Erasing all of files on %s...\n", d.target);
    if (run_shell(command) != 0) {
        printf("!!! Unable to erase all of files from %s. !!!\n", d.target);
        return false;
    }
    sync();
    return true;
}

bool copy_source(const DataDir &d, const char *source, bool erased) {
    char command[kCommandSize];
    bool whole_dir = d.is_app_data_subdir && erased;
    bool built = whole_dir
                     ? bounded_format(command, sizeof command, "cp -rf %s %s", source, d.target)
                     : bounded_format(command, sizeof command, "cp -rf %s/* %s", source, d.target);
    printf("Copying %s to %s...\n", source, d.target);
    if (!built || run_shell(command) != 0) {
        printf("!!! Unable to copy %s to %s. !!!\n", source, d.target);
        return false;
    }
    return true;
}

} // namespace

int mount_flash_storage_dev(const char *mount_point, const char *source) {
    return mount(source, mount_point, "ubifs", MS_SYNCHRONOUS, nullptr);
}

int umount_flash_storage_dev(const char *mount_point) {
    return umount(mount_point);
}

int Update_DIR(const char *write_dir, const uint32_t *flags, int kind) {
    if (kind < 1 || kind > 7)
        return -1;
    umask(0); // copied files keep the permissions the copy gives them
    const DataDir &d = kDataDirs[kind - 1];
    char source[kPathBufferSize];
    if (!bounded_format(source, sizeof source, "%s/%s", write_dir, d.source_subdir)) {
        printf("!!! Path too long: %s/%s !!!\n", write_dir, d.source_subdir);
        return -1;
    }
    if (mount_flash_storage_dev(d.mount_point, d.volume_source) != 0) {
        printf("Unable to mount %s on %s.\n", d.volume_source, d.mount_point);
        return -1;
    }
    bool erase = (flags[0] & d.erase_bit) != 0;
    bool ok = (!erase || erase_target(d)) && copy_source(d, source, erase);
    umount_flash_storage_dev(d.mount_point);
    return ok ? 0 : -1;
}

int Update_APPDIR(const char *write_dir, const uint32_t *flags) {
    return Update_DIR(write_dir, flags, 1);
}
int Update_FactoryDIR(const char *write_dir, const uint32_t *flags) {
    return Update_DIR(write_dir, flags, 2);
}
int Update_ModelDIR(const char *write_dir, const uint32_t *flags) {
    return Update_DIR(write_dir, flags, 3);
}
int Update_JpgUserDIR(const char *write_dir, const uint32_t *flags) {
    return Update_DIR(write_dir, flags, 4);
}
int Update_JpgFactoryDIR(const char *write_dir, const uint32_t *flags) {
    return Update_DIR(write_dir, flags, 5);
}
int Update_BitmapDIR(const char *write_dir, const uint32_t *flags) {
    return Update_DIR(write_dir, flags, 6);
}
int Update_OtherDIR(const char *write_dir, const uint32_t *flags) {
    return Update_DIR(write_dir, flags, 7);
}
