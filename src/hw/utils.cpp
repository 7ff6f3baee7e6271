#include "hw/utils.h"

#include "common/holders.h"
#include "hw/systool.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <unistd.h>

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

// Stores one data line's byte in the image: 1, 0 for a line without a byte, -1 for an
// address outside the image.
int store_eep_data_line(const char *line, const EepImage &image, uint32_t *end_address) {
    uint32_t address = 0;
    uint8_t data = 0;
    int parsed = parse_eep_data_line(line, &address, &data);
    if (parsed <= 0)
        return parsed;
    if (address >= image.size) {
        printf("**ERROR** EEP address 0x%04X is outside the image (0x%04X bytes)\n", address,
               static_cast<unsigned>(image.size));
        return -1;
    }
    image.bytes[address] = data;
    *end_address = address;
    return 1;
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

int parse_eep_data_line(const char *line, uint32_t *address, uint8_t *data) {
    switch (decode_eep_data_line(line, address, data)) {
    case EEP_LINE_EMPTY:
        return 0;
    case EEP_LINE_NO_DATA:
        printf("**ERROR** EEP data line without a data byte: %s\n", line);
        return -1;
    case EEP_LINE_DATA:
        break;
    }
    return 1;
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
                   uint32_t *end_address, int *data_lines) {
    memset(image.bytes, 0xFF, image.size);
    *end_address = 0;
    int lines = 0;
    if (data_lines != nullptr)
        *data_lines = 0;
    char line[kEepMaxLine];
    int size = line_size < kEepMaxLine ? line_size : kEepMaxLine;
    if (layout == EEP_LAYOUT_VERSIONED && read_eep_version_line(file, line, size) != 0)
        return -1;
    while (Get_Fgets(line, size, file) != 0) {
        if (layout == EEP_LAYOUT_VERSIONED && eep_is_checksum_line(line))
            break; // the checksum after it is not used
        int stored = store_eep_data_line(line, image, end_address);
        if (stored < 0)
            return -1;
        lines += stored;
        if (data_lines != nullptr)
            *data_lines = lines;
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

// --- I2C buses ---------------------------------------------------------------------------

int fd_i2c[kI2cBusCount] = {-1, -1, -1};
int i2c_handle_initialized = 0;

const uint8_t fpga_eep_cfg[4] = {2, 0x1A, 2, 0x1E};
const uint8_t kolma_eep_cfg[4] = {2, 0x52, 2, 0x56};

namespace {

constexpr uint8_t kEepromAddressByte = 0xA2;
constexpr uint32_t kEepromPage = 32;
constexpr uint32_t kEepromReadChunk = 8192;
constexpr uint32_t kHdmiPage = 16;
constexpr uint32_t kHdmiReadChunk = 256;
constexpr uint32_t kHdmiAddressLimit = 32767;
constexpr uint8_t kVornekAddressByte = 0x14;
constexpr int kDeviceAttempts = 3;
constexpr uint16_t kRegisterMessageMax = 66;
constexpr useconds_t kFpgaWritePause = 20000;

bool valid_bus(int bus) {
    return bus >= 0 && bus < kI2cBusCount;
}

// One I2C_RDWR transfer: 0, or -1 with errno set.
int transfer(int bus, i2c_msg *messages, uint32_t count) {
    i2c_rdwr_ioctl_data data{messages, count};
    return ioctl(fd_i2c[bus], I2C_RDWR, &data) < 0 ? -1 : 0;
}

// Whether the bus driver reports its last transfer as one to repeat. A bus whose driver
// lacks the request reports no status: its failures are final.
bool bus_busy(int bus) {
    uint32_t status = 0;
    if (ioctl(fd_i2c[bus], I2C_BUSY_STATUS_REQUEST, &status) < 0)
        return false;
    return status == kI2cStatusBusy;
}

// A failed transfer: 1 when it is to be repeated, else 0 with the negated error number of the
// transfer itself (not of the status request) in *result.
int repeat_or_fail(int bus, int *result) {
    int err = errno;
    if (bus_busy(bus))
        return 1;
    *result = -err;
    return 0;
}

uint16_t smaller(uint32_t a, uint32_t b) {
    return static_cast<uint16_t>(a < b ? a : b);
}

// The buses are open for the duration of one device call.
class BusSession {
public:
    BusSession() { i2c_init(); }
    ~BusSession() { i2c_deinit(); }
    BusSession(const BusSession &) = delete;
    BusSession &operator=(const BusSession &) = delete;
};

// How a serial EEPROM is addressed: its page, its read chunk, and its message head.
struct EepromGeometry {
    uint32_t page;
    uint32_t read_chunk;
    bool one_byte_address; // address bits 0..7 only; bit 8 selects the device address
};
constexpr EepromGeometry kTwoByteEeprom = {kEepromPage, kEepromReadChunk, false};
constexpr EepromGeometry kHdmiEeprom = {kHdmiPage, kHdmiReadChunk, true};

uint8_t eeprom_address_byte(const EepromGeometry &geometry, uint32_t address) {
    if (!geometry.one_byte_address)
        return kEepromAddressByte;
    return static_cast<uint8_t>(0xA0 | ((address & 0x100) >> 7));
}

// Puts the word address in front of a message; the number of address bytes.
uint16_t eeprom_head(const EepromGeometry &geometry, uint32_t address, uint8_t *message) {
    if (geometry.one_byte_address) {
        message[0] = static_cast<uint8_t>(address);
        return 1;
    }
    message[0] = static_cast<uint8_t>(address >> 8);
    message[1] = static_cast<uint8_t>(address);
    return 2;
}

// One attempt of a paged write. The bus result of the first failing chunk, or with
// judge_last_chunk the result of the last chunk written.
int eeprom_write_attempt(int bus, const EepromGeometry &geometry, uint32_t address,
                         const uint8_t *source, uint16_t length, bool judge_last_chunk) {
    int result = 0;
    for (uint32_t done = 0; done < length;) {
        uint16_t chunk = i2c_page_chunk(address + done, length - done, geometry.page);
        uint8_t message[2 + kEepromPage];
        uint16_t head = eeprom_head(geometry, address + done, message);
        memcpy(message + head, source + done, chunk);
        result = i2c_write(bus, eeprom_address_byte(geometry, address + done),
                           static_cast<uint16_t>(head + chunk), message);
        if (result != 0 && !judge_last_chunk)
            return result;
        done += chunk;
    }
    return result;
}

// One chunk of a read, with its attempts; the last bus result.
int eeprom_read_chunk(int bus, const EepromGeometry &geometry, uint32_t address, uint16_t chunk,
                      uint8_t *destination) {
    int result = 0;
    for (int attempt = 0; attempt < kDeviceAttempts; ++attempt) {
        uint8_t head[2];
        uint16_t head_length = eeprom_head(geometry, address, head);
        result = i2c_read_write(bus, eeprom_address_byte(geometry, address), head_length, head,
                                chunk, destination);
        if (result == 0)
            break;
    }
    return result;
}

// Reads length bytes in chunks; *covered is the end of the last chunk attempted.
int eeprom_read(int bus, const EepromGeometry &geometry, uint32_t address, uint16_t length,
                uint8_t *error, uint8_t *destination, uint16_t *covered) {
    for (uint32_t done = 0; done < length;) {
        uint16_t chunk = smaller(length - done, geometry.read_chunk);
        int result = eeprom_read_chunk(bus, geometry, address + done, chunk, destination + done);
        done += chunk;
        if (covered != nullptr)
            *covered = static_cast<uint16_t>(done);
        if (result != 0) {
            if (error != nullptr)
                *error = i2c_error_byte(result);
            return IIC_FAILED;
        }
    }
    if (error != nullptr)
        *error = 0;
    return IIC_OK;
}

bool eeprom_arguments_valid(int bus, int16_t address, const void *bytes) {
    return address >= 0 && valid_bus(bus) && bytes != nullptr;
}

// A write of the caller's 1 to 66 bytes to a register interface, three attempts.
int register_write(int bus, uint8_t address_byte, uint16_t length, const uint8_t *bytes,
                   const char *failure) {
    if (bytes == nullptr || length == 0 || length > kRegisterMessageMax)
        return IIC_INVALID;
    uint8_t message[kRegisterMessageMax];
    memcpy(message, bytes, length);
    BusSession buses;
    for (int attempt = 0; attempt < kDeviceAttempts; ++attempt) {
        if (i2c_write(bus, address_byte, length, message) == 0)
            return IIC_OK;
    }
    puts(failure);
    return IIC_FAILED;
}

// A register read: the 2-byte register number written, 1 or 2 bytes read, three attempts.
// report_each prints every failed attempt's bus result.
int register_read(int bus, uint8_t address_byte, const uint8_t *write_bytes, uint16_t read_length,
                  uint8_t *read_buffer, const char *failure, bool report_each) {
    if (write_bytes == nullptr || read_buffer == nullptr || read_length == 0 || read_length > 2)
        return IIC_INVALID;
    BusSession buses;
    for (int attempt = 0; attempt < kDeviceAttempts; ++attempt) {
        int result = i2c_read_write(bus, address_byte, 2, write_bytes, read_length, read_buffer);
        if (result == 0)
            return IIC_OK;
        if (report_each)
            printf("error num = %d \n", result);
    }
    puts(failure);
    return IIC_FAILED;
}

bool fpga_type_valid(int type) {
    if (type == 1 || type == 2)
        return true;
    printf("IIC_FPGAEEP_Write() error ** fpga type fail. (%d) \n", type);
    return false;
}

} // namespace

void i2c_init() {
    if (i2c_handle_initialized != 0)
        return;
    for (int bus = 0; bus < kI2cBusCount; ++bus) {
        char path[16];
        snprintf(path, sizeof path, "/dev/i2c-%d", bus);
        fd_i2c[bus] = open(path, O_RDWR | O_DSYNC);
    }
    i2c_handle_initialized = 1;
}

void i2c_deinit() {
    if (i2c_handle_initialized == 0)
        return;
    for (int &fd : fd_i2c) {
        if (fd > 0)
            close(fd);
        fd = -1;
    }
    i2c_handle_initialized = 0;
}

void i2c_check_busy(int) {}

int i2c_write(int bus, uint8_t address, uint16_t length, const uint8_t *data) {
    if (length == 0 || data == nullptr || !valid_bus(bus))
        return -1;
    i2c_msg message{static_cast<uint16_t>((address >> 1) & 0x7F), 0, length,
                    const_cast<uint8_t *>(data)};
    for (int attempt = 0; attempt < kI2cBusyTries; ++attempt) {
        i2c_check_busy(bus);
        if (transfer(bus, &message, 1) == 0)
            return 0;
        int result = 0;
        if (repeat_or_fail(bus, &result) == 0)
            return result;
    }
    return -1;
}

int i2c_read_write(int bus, uint8_t address, uint16_t write_length, const uint8_t *write_bytes,
                   uint16_t read_length, uint8_t *read_buffer) {
    if (write_length == 0 || read_length == 0 || write_bytes == nullptr || read_buffer == nullptr ||
        !valid_bus(bus))
        return -1;
    uint16_t target = static_cast<uint16_t>((address >> 1) & 0x7F);
    i2c_msg messages[2] = {{target, 0, write_length, const_cast<uint8_t *>(write_bytes)},
                           {target, I2C_M_RD, read_length, read_buffer}};
    i2c_check_busy(bus);
    if (transfer(bus, messages, 2) == 0)
        return 0;
    int result = 0;
    if (repeat_or_fail(bus, &result) == 0)
        return result;
    for (int attempt = 0; attempt < kI2cBusyTries; ++attempt) {
        if (transfer(bus, messages, 2) == 0)
            return 0;
        if (repeat_or_fail(bus, &result) == 0)
            return result;
        usleep(1);
    }
    return -errno;
}

uint16_t i2c_page_chunk(uint32_t address, uint32_t left, uint32_t page_size) {
    return smaller(page_size - address % page_size, left);
}

uint8_t i2c_error_byte(int bus_result) {
    unsigned value = static_cast<unsigned>(bus_result);
    return static_cast<uint8_t>(((value & 0xF00) >> 4) | (value & 0x0F));
}

int IIC_EEPROM_Write(int bus, int16_t address, uint16_t length, const uint8_t *source,
                     uint16_t *count, uint8_t *error) {
    if (!eeprom_arguments_valid(bus, address, source))
        return IIC_INVALID;
    BusSession buses;
    for (int attempt = 0; attempt < kDeviceAttempts; ++attempt) {
        if (count != nullptr)
            *count = length;
        int result = eeprom_write_attempt(bus, kTwoByteEeprom, static_cast<uint32_t>(address),
                                          source, length, false);
        if (error != nullptr)
            *error = static_cast<uint8_t>(result);
        if (result == 0)
            return IIC_OK;
    }
    return IIC_FAILED;
}

int IIC_EEPROM_Read(int bus, int16_t address, uint16_t length, uint8_t *error,
                    uint8_t *destination) {
    if (!eeprom_arguments_valid(bus, address, destination))
        return IIC_INVALID;
    BusSession buses;
    return eeprom_read(bus, kTwoByteEeprom, static_cast<uint32_t>(address), length, error,
                       destination, nullptr);
}

int IIC_EEPROM_HDMI_Write(int bus, int16_t address, uint16_t length, const uint8_t *source,
                          uint16_t *count, uint8_t *error) {
    if (!eeprom_arguments_valid(bus, address, source) ||
        static_cast<uint32_t>(address) + length > kHdmiAddressLimit)
        return IIC_INVALID;
    BusSession buses;
    for (int attempt = 0; attempt < kDeviceAttempts; ++attempt) {
        if (count != nullptr)
            *count = length;
        int result = eeprom_write_attempt(bus, kHdmiEeprom, static_cast<uint32_t>(address), source,
                                          length, true);
        if (error != nullptr)
            *error = result == 0 ? 0 : i2c_error_byte(result);
        if (result == 0)
            return IIC_OK;
        printf("IIC_EEPROM_Write error %x\n", result);
    }
    return IIC_FAILED;
}

int IIC_EEPROM_HDMI_Read(int bus, int16_t address, uint16_t length, uint8_t *error,
                         uint8_t *destination, uint16_t *count) {
    if (!eeprom_arguments_valid(bus, address, destination))
        return IIC_INVALID;
    BusSession buses;
    return eeprom_read(bus, kHdmiEeprom, static_cast<uint32_t>(address), length, error, destination,
                       count);
}

int IIC_VornekEEP_Write(uint16_t length, const uint8_t *bytes) {
    return register_write(2, kVornekAddressByte, length, bytes, "IIC_VornekEEP_Write() ERROR!");
}

int IIC_VornekEEP_Read(const uint8_t *write_bytes, uint16_t read_length, uint8_t *read_buffer) {
    return register_read(2, kVornekAddressByte, write_bytes, read_length, read_buffer,
                         "IIC_VornekEEP_Read() ERROR!", false);
}

int IIC_FPGAEEP_Write(uint16_t length, const uint8_t *bytes, int type) {
    if (!fpga_type_valid(type))
        return IIC_INVALID;
    int result = register_write(2, fpga_eep_cfg[2 * (type - 1) + 1], length, bytes,
                                "IIC_FPGAEEP_Write() ERROR!");
    if (result != IIC_INVALID)
        usleep(kFpgaWritePause);
    return result;
}

int IIC_FPGAEEP_Read(const uint8_t *write_bytes, uint16_t read_length, uint8_t *read_buffer,
                     int type) {
    if (!fpga_type_valid(type))
        return IIC_INVALID;
    return register_read(2, fpga_eep_cfg[2 * (type - 1) + 1], write_bytes, read_length, read_buffer,
                         "IIC_FPGAEEP_Read() ERROR!", false);
}

int IIC_KOLMAEEP_Write(uint16_t length, const uint8_t *bytes, int index) {
    if (index != 0 && index != 1)
        return IIC_INVALID;
    return register_write(kolma_eep_cfg[2 * index], kolma_eep_cfg[2 * index + 1], length, bytes,
                          "IIC_KOLMAEEP_Write() ERROR!");
}

int IIC_KOLMAEEP_Read(const uint8_t *write_bytes, uint16_t read_length, uint8_t *read_buffer,
                      int index) {
    if (index != 0 && index != 1)
        return IIC_INVALID;
    return register_read(kolma_eep_cfg[2 * index], kolma_eep_cfg[2 * index + 1], write_bytes,
                         read_length, read_buffer, "IIC_KOLMAEEP_Read() ERROR!", true);
}
