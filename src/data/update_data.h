// Refreshing the UBIFS data directories from the medium's write-data directory.
#pragma once

#include <cstdint>

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
