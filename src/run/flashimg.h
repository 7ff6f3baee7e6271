// Preparing an update run: finding and mounting the medium, copying the model's directory,
// reading the image list into the update selection, UBI volume and kernel module operations.
#pragma once

#include <cstdint>
#include <cstdio>

// Size of the path buffers the run hands around (mount point, write-data directory).
constexpr int kPathBufferSize = 256;

// Longest model name accepted: "/tmp/" and the name must stay within the 111 characters that
// the "/tmp/boot" link command leaves for the image directory.
constexpr int kMaxModelNameLength = 106;

// update_flags word 0.
constexpr uint32_t FLAG_PELTO_EEPROM = 0x00000001;
constexpr uint32_t FLAG_VORNEK_EEP = 0x00000040;
constexpr uint32_t FLAG_ZORAN_UPDATE = 0x00000080;
constexpr uint32_t FLAG_HDMI_HEX = 0x00000200;
constexpr uint32_t FLAG_FERUND_EEP = 0x00000400;
constexpr uint32_t FLAG_EDID_DATA = 0x00000800;
constexpr uint32_t FLAG_OTHER_ERASE = 0x00001000;
constexpr uint32_t FLAG_TVM_HEX = 0x00002000;
constexpr uint32_t FLAG_TVM_EEPROM = 0x00004000;
constexpr uint32_t FLAG_OTHER = 0x00008000;
constexpr uint32_t FLAG_BITMAP_ERASE = 0x00010000;
constexpr uint32_t FLAG_BITMAP = 0x00020000;
constexpr uint32_t FLAG_FACTORY_ERASE = 0x00040000;
constexpr uint32_t FLAG_FACTORY = 0x00080000;
constexpr uint32_t FLAG_JPEG_FACTORY_ERASE = 0x00100000;
constexpr uint32_t FLAG_JPEG_FACTORY = 0x00200000;
constexpr uint32_t FLAG_JPEG_USER_ERASE = 0x00400000;
constexpr uint32_t FLAG_JPEG_USER = 0x00800000;
constexpr uint32_t FLAG_MODEL_DATA_ERASE = 0x01000000;
constexpr uint32_t FLAG_MODEL_DATA = 0x02000000;
constexpr uint32_t FLAG_APP_DATA_ERASE = 0x04000000;
constexpr uint32_t FLAG_APP_DATA = 0x08000000;
constexpr uint32_t FLAG_UBOOT = 0x20000000;
constexpr uint32_t FLAG_QVXBIN = 0x40000000;
constexpr uint32_t FLAG_DATA_DIRS = 0x0AAA8000;

// update_flags word 1.
constexpr uint32_t FLAG1_FPGA_EEPROM = 0x02000000;
constexpr uint32_t FLAG1_FPGA_SAM_1 = 0x04000000;
constexpr uint32_t FLAG1_FPGA_SAM_2 = 0x08000000;
constexpr uint32_t FLAG1_FPGA_SAM_3 = 0x10000000;
constexpr uint32_t FLAG1_KOLMA_EEPROM = 0x20000000;
constexpr uint32_t FLAG1_FPGA_TR6_EEPROM = 0x40000000;

// Option letters after a data-directory keyword.
constexpr uint32_t OPTION_N = 0x00000002; // erase the directory first
constexpr uint32_t OPTION_F = 0x00000004; // remove and recreate the UBIFS volume now
constexpr uint32_t OPTION_5 = 0x00000008; // read, not acted on
constexpr uint32_t OPTION_R = 0x10000000; // factory data: do not refresh

// Checks that the model name can name a directory and stand in a shell command unquoted:
// 1 to 106 characters of letters, digits, '.', '_', '+' and '-', starting with a letter,
// digit or '_'. Prints why and returns -1 otherwise; 0 when it is usable.
int check_model_name(const char *model);
// The same rule without a message, for a name that is not empty.
bool model_name_usable(const char *model);

// Which media searches mounted something; the zoran keyword depends on it.
struct MediaFound {
    bool usb;
    bool sd;
};

// A UBIFS volume that option F removes and makes again.
struct UbiVolume {
    const char *name;
    const char *id;
    const char *size_option;
    const char *mount_source;
    const char *mount_point;
};

// What one line of the image list does: the bits it sets in update_flags[word], the volume it
// recreates at once, and whether it is a zoran line refused because the medium is an SD card.
// keyword is null for a line that no keyword begins (it does nothing).
struct ListLineEffect {
    const char *keyword;
    int word;
    uint32_t letters;
    uint32_t select_bit;
    uint32_t erase_bit;
    const UbiVolume *recreated_volume;
    bool zoran_refused;
};
ListLineEffect decode_list_line(const char *line, const MediaFound &media);

// The list is read in pieces of at most kListLineSize - 1 characters, each handed to visit
// (line end included); a piece that begins with '#' is a comment and does nothing. Returns 0,
// or -1 when the list could not be read to its end.
constexpr int kListLineSize = 256;
using ListLineVisitor = void (*)(void *context, const char *line);
int walk_update_list(FILE *list, ListLineVisitor visit, void *context);
bool list_piece_is_comment(const char *line);

// Reads an image list into the four words of flags (cleared first), recreating UBIFS volumes
// for the lines that ask for it; with dry set, such a volume is only named
// ("UBIFS volume [%s] would be removed and made again"). Returns 0, or -1 when the list could
// not be read to its end.
int read_update_list(FILE *list, const MediaFound &media, uint32_t *flags, bool dry = false);

// One line per list keyword whose selection or erase bit is set in flags, in the list's
// keyword order: the keyword, then "update" and/or "erase-first".
void print_update_selection(const uint32_t *flags);

int search_imglist_file(char *mount_point, char *write_dir, const char *model, uint32_t *flags);
uint32_t check_update_flag(const char *text);

// The sector count in the first line of a USB disk's "size" file; 0 when it has none.
int disk_sectors_in(FILE *size_file);
// True when one read of the SD card driver's control file begins with "insert".
bool sdcard_reports_insert(int ctrl);

int search_usb_media(const char **mount_point);
int search_sdcard(const char **mount_point);
int do_mount_media(char letter, int partition);

void remove_ubifs_volume(const char *device, const char *volume_id);
void make_ubifs_volume(const char *device, const char *volume_id, const char *size_option,
                       const char *volume_name);
void mount_test_ubifs_volume(const char *source, const char *mount_point);

void insmod_ubifs_drivers();
void rmmod_ubifs_drivers();
void insmod_mtd_nand_driver();
void rmmod_mtd_nand_driver();

// Mode for directories the run creates: the complement of the file-creation mask, within
// 0777, plus owner write and search. Reading the mask leaves it at 0.
unsigned int directory_mode_clearing_umask();
