#include "hw/utils.h"

#include "common/holders.h"
#include "hw/systool.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <strings.h>

// --- EEPROM data text files --------------------------------------------------------------

namespace {

// The longest line any EEPROM text file is read with.
constexpr int kEepMaxLine = 64;

// Reads the "Version" line that opens a microcontroller EEPROM file.
int read_eep_version_line(FILE *file, char *line, int size) {
    if (Get_Fgets(line, size, file) == 0) {
        puts("EEP file Error");
        return -1;
    }
    if (!eep_is_version_line(line)) {
        puts("Error. Version is not found on EEP file.");
        return -1;
    }
    printf("EEP file %s\n", line);
    return 0;
}

// Stores one data line's byte in the image. A line that yields no byte at all (empty, blanks,
// one character) carries nothing and is skipped; an address without its data byte, or an
// address outside the image, is refused.
int store_eep_data_line(const char *line, const EepImage &image, uint32_t *end_address) {
    uint32_t address = 0;
    uint8_t byte = 0;
    switch (decode_eep_data_line(line, &address, &byte)) {
    case EEP_LINE_EMPTY:
        return 0;
    case EEP_LINE_NO_DATA:
        printf("**ERROR** EEP data line without a data byte: %s\n", line);
        return -1;
    case EEP_LINE_DATA:
        break;
    }
    if (address >= image.size) {
        printf("**ERROR** EEP address 0x%04X is outside the image (0x%04X bytes)\n", address,
               static_cast<unsigned>(image.size));
        return -1;
    }
    image.bytes[address] = byte;
    *end_address = address;
    return 0;
}

} // namespace

bool eep_is_version_line(const char *line) {
    return strncasecmp(line, "Version", 7) == 0;
}

bool eep_is_checksum_line(const char *line) {
    return strncasecmp(line, "CheckSum ", 9) == 0;
}

EepLineKind decode_eep_data_line(const char *line, uint32_t *address, uint8_t *byte) {
    uint8_t bytes[kEepMaxLine];
    int count = Str2Hex(line, bytes, sizeof bytes, static_cast<uint8_t>(strlen(line) - 1));
    if (count == 0)
        return EEP_LINE_EMPTY;
    if (count < 3)
        return EEP_LINE_NO_DATA;
    *address = static_cast<uint32_t>(bytes[0]) << 8 | bytes[1];
    *byte = bytes[2];
    return EEP_LINE_DATA;
}

int Get_Fgets(char *buf, int size, FILE *stream) {
    // Below two bytes no character fits and the stream would never advance.
    if (buf == nullptr || stream == nullptr || size < 2)
        return 0;
    if (fgets(buf, size, stream) == nullptr)
        return 0;
    if (char *lf = strchr(buf, '\n'))
        *lf = '\0';
    if (char *cr = strchr(buf, '\r'))
        *cr = '\0';
    return 1;
}

uint8_t CharToHex(char c) {
    if (c >= '0' && c <= '9')
        return static_cast<uint8_t>(c - '0');
    if (c >= 'A' && c <= 'F')
        return static_cast<uint8_t>(c - 'A' + 10);
    if (c >= 'a' && c <= 'f')
        return static_cast<uint8_t>(c - 'a' + 10);
    return 0xFF;
}

int Str2Hex(const char *text, uint8_t *bytes, size_t bytes_size, uint8_t length) {
    if (text == nullptr || bytes == nullptr)
        return -1;
    size_t count = 0;
    size_t i = 0;
    while (i < length && text[i] != '\0' && count < bytes_size) {
        if (text[i] == ' ' || text[i] == '\t') {
            ++i;
            continue;
        }
        if (text[i + 1] == '\0')
            break;
        bytes[count++] = static_cast<uint8_t>(CharToHex(text[i]) << 4 | CharToHex(text[i + 1]));
        i += 2;
    }
    return static_cast<int>(count);
}

EepFileSearch find_eep_text_file(const char *dir, const char *prefix, char *path,
                                 size_t path_size) {
    DIR *listing = opendir(dir);
    if (listing == nullptr) {
        printf("**ERROR ** opendir failed on %s\n", dir);
        return EEP_FILE_NO_DIR;
    }
    UniqueDir holder(listing);
    size_t prefix_length = strlen(prefix);
    while (const struct dirent *entry = readdir(listing)) {
        if (strncasecmp(entry->d_name, prefix, prefix_length) != 0)
            continue;
        if (!bounded_format(path, path_size, "%s/%s", dir, entry->d_name)) {
            printf("**ERROR** path too long: %s/%s\n", dir, entry->d_name);
            return EEP_FILE_PATH_TOO_LONG;
        }
        return EEP_FILE_FOUND;
    }
    return EEP_FILE_NOT_FOUND;
}

FILE *open_eep_text_file(const char *path) {
    printf("Reading from file : %s \n", path);
    FILE *file = fopen(path, "r");
    if (file == nullptr)
        printf("**ERROR** fail to open file %s \n", path);
    return file;
}

int read_eep_image(FILE *file, int line_size, EepFileLayout layout, const EepImage &image,
                   uint32_t *end_address) {
    memset(image.bytes, 0xFF, image.size);
    *end_address = 0;
    char line[kEepMaxLine];
    int size = line_size < kEepMaxLine ? line_size : kEepMaxLine;
    if (layout == EEP_LAYOUT_VERSIONED && read_eep_version_line(file, line, size) != 0)
        return -1;
    while (Get_Fgets(line, size, file) != 0) {
        if (layout == EEP_LAYOUT_VERSIONED && eep_is_checksum_line(line))
            break; // the checksum after it is not used
        if (store_eep_data_line(line, image, end_address) != 0)
            return -1;
    }
    if (!eep_walk_fits(image, *end_address)) {
        printf("**ERROR** EEP end address 0x%04X: its last block would pass the image end\n",
               *end_address);
        return -1;
    }
    return 0;
}

bool eep_walk_fits(const EepImage &image, uint32_t end_address) {
    if (end_address == 0 || image.block_size == 0)
        return image.block_size != 0;
    size_t last_start = (end_address - 1) / image.block_size * image.block_size;
    return last_start + image.block_size <= image.size;
}

int eep_block_walk(const EepImage &image, uint32_t end_address, EepBlockWriter write_block,
                   void *context) {
    if (!eep_walk_fits(image, end_address))
        return -1;
    int blocks = 0;
    for (uint32_t start = 0; start < end_address; start += image.block_size) {
        if (write_block(context, start, image.bytes + start) != 0)
            return -1;
        ++blocks;
        printf("\r %3d%% completed", static_cast<int>(start * 100 / end_address));
        fflush(stdout);
    }
    return blocks;
}

// --- GPIO pins ---------------------------------------------------------------------------

namespace {

struct PioBank {
    int first_pin;
    uint32_t address;
};

// Bank registers in window 1; not evenly spaced.
constexpr PioBank kPioBanks[] = {{0, 0x80003000}, {32, 0x80003028}, {64, 0x80003038}};

// Messages on standard error follow what standard output has printed so far.
void report_bad_argument(const char *what, int value) {
    fflush(stdout);
    fprintf(stderr, "Invalid %s: %d", what, value);
}

void report_window_failure() {
    int err = errno;
    fflush(stdout);
    fprintf(stderr, "Error: Cannot mmap: (%d) %s\n", err, strerror(err));
}

} // namespace

bool pio_register_bit(int pin, PioRegisterBit *where) {
    if (pin < 0 || pin >= PIO_PIN_COUNT)
        return false;
    const PioBank &bank = kPioBanks[pin / 32];
    *where = {bank.address, static_cast<unsigned>(pin - bank.first_pin)};
    return true;
}

namespace {

// Reads the pin's bank register inside the mapped pin window and gives the pin's level, or with
// a new level writes the register back with the pin's bit changed. -1, with the message, for a
// pin that does not exist, a new level other than 0 and 1, or a window that cannot be mapped.
int access_pio(int pin, const uint8_t *new_level, uint32_t *level) {
    PioRegisterBit where;
    if (!pio_register_bit(pin, &where)) {
        report_bad_argument("pin", pin);
        return -1;
    }
    if (new_level != nullptr && *new_level > 1) {
        report_bad_argument("level", *new_level);
        return -1;
    }
    MappedWindow window(SYS_WINDOW_S5LP);
    if (!window.mapped()) {
        report_window_failure();
        return -1;
    }
    uint32_t value = sys_reg_read(where.address);
    if (new_level != nullptr) {
        value = (value & ~(1u << where.bit)) | (static_cast<uint32_t>(*new_level) << where.bit);
        sys_reg_write(where.address, value);
    } else if (level != nullptr) {
        *level = (value >> where.bit) & 1;
    }
    return 0;
}

} // namespace

int get_pio(int pin, uint32_t *level) {
    return access_pio(pin, nullptr, level);
}

int set_pio(int pin, uint8_t level) {
    return access_pio(pin, &level, nullptr);
}

int PIO_BitRead(int pin, uint8_t *level) {
    if (level == nullptr)
        return PIO_NULL_LEVEL;
    if (pin < 0 || pin >= PIO_PIN_COUNT)
        return PIO_BAD_PIN;
    uint32_t value;
    if (get_pio(pin, &value) != 0)
        return PIO_FAILED;
    *level = static_cast<uint8_t>(value);
    return PIO_OK;
}

int PIO_BitWrite(int pin, uint8_t level) {
    if ((level & ~1u) != 0)
        return PIO_BAD_LEVEL;
    if (pin < 0 || pin >= PIO_PIN_COUNT)
        return PIO_BAD_PIN;
    return set_pio(pin, level) != 0 ? PIO_FAILED : PIO_OK;
}

int PIO_OutputDataBitWrite2(uint8_t n, uint8_t level) {
    return set_pio(32 + n, level) != 0 ? PIO_FAILED : PIO_OK;
}
