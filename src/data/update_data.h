// Refreshing the UBIFS data directories from the medium's write-data directory.
#pragma once

#include "run/flashimg.h"

#include <cstdint>

// One data directory: the volume mounted for it, the folder refreshed and its source folder in
// the write-data directory.
struct DataDir {
    const char *volume_source;
    const char *mount_point;
    const char *target;
    const char *source_subdir;
    uint32_t erase_bit;
    bool is_app_data_subdir; // kinds 1 and 2 live inside the app_data volume
};

// Indexed by kind - 1.
constexpr DataDir kDataDirs[] = {
    {"ubi4_0", "/mnt/flash/app_data", "/mnt/flash/app_data/dpdc", "app_data/dpdc",
     FLAG_APP_DATA_ERASE, true},
    {"ubi4_0", "/mnt/flash/app_data", "/mnt/flash/app_data/factory", "app_data/factory",
     FLAG_FACTORY_ERASE, true},
    {"ubi4_1", "/mnt/flash/model_data", "/mnt/flash/model_data", "model_data",
     FLAG_MODEL_DATA_ERASE, false},
    {"ubi4_2", "/mnt/flash/jpeg_user", "/mnt/flash/jpeg_user", "jpeg_user", FLAG_JPEG_USER_ERASE,
     false},
    {"ubi4_3", "/mnt/flash/jpeg_factory", "/mnt/flash/jpeg_factory", "jpeg_factory",
     FLAG_JPEG_FACTORY_ERASE, false},
    {"ubi4_4", "/mnt/flash/bitmap", "/mnt/flash/bitmap", "bitmap", FLAG_BITMAP_ERASE, false},
    {"ubi5:other", "/mnt/flash/other", "/mnt/flash/other", "other", FLAG_OTHER_ERASE, false},
};

int Update_DIR(const char *write_dir, const uint32_t *flags, int kind);

int Update_APPDIR(const char *write_dir, const uint32_t *flags);
int Update_FactoryDIR(const char *write_dir, const uint32_t *flags);
int Update_ModelDIR(const char *write_dir, const uint32_t *flags);
int Update_JpgUserDIR(const char *write_dir, const uint32_t *flags);
int Update_JpgFactoryDIR(const char *write_dir, const uint32_t *flags);
int Update_BitmapDIR(const char *write_dir, const uint32_t *flags);
int Update_OtherDIR(const char *write_dir, const uint32_t *flags);

int mount_flash_storage_dev(const char *mount_point, const char *source);
int umount_flash_storage_dev(const char *mount_point);
