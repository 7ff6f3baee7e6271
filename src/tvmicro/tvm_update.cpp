#include "tvmicro/tvm_update.h"

#include "common/holders.h"
#include "hw/utils.h"
#include "run/main.h"

#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

uint8_t rom_buf[MaxRomSize];

namespace {

// --- serial command link -------------------------------------------------------------------

constexpr int kSingleTries = 10;
constexpr int kWaitingTries = 10;
constexpr int kWaitingReads = 10;
constexpr int kBlockTries = 5;
constexpr uint8_t kBlockReads = 10;
constexpr int kValueTries = 10;

// Fixed frames carry their checksum already; this keeps them honest.
template <size_t N> constexpr bool sealed(const uint8_t (&frame)[N]) {
    uint8_t sum = 0;
    for (size_t i = 0; i + 1 < N; ++i)
        sum = static_cast<uint8_t>(sum + frame[i]);
    return frame[N - 1] == sum;
}

// Puts the checksum into the last byte of a frame built from a template.
void seal(uint8_t *frame, size_t length) {
    frame[length - 1] = uat_checksum(frame, length - 1);
}

bool accepted(const uint8_t *reply, int length, bool ack) {
    return !ack || (length > 3 && reply[3] == kUatAck);
}

// --- microcontroller commands --------------------------------------------------------------

constexpr uint8_t kStatusFrame[] = {0x3A, 0x02, 0x21, 0x5D};
constexpr uint8_t kVersionFrame[] = {0x3A, 0x02, 0x28, 0x64};
constexpr uint8_t kMicroIdFrame[] = {0x3A, 0x02, 0x83, 0xBF};
constexpr uint8_t kWritingModeFrame[] = {0x3A, 0x03, 0xC1, 0x01, 0xFF};
constexpr uint8_t kGuardDogMode1Frame[] = {0x3A, 0x04, 0x23, 0x01, 0x78, 0xDA};
constexpr uint8_t kGuardDogFrame[] = {0x3A, 0x04, 0x23, 0x00, 0x78, 0xD9};
constexpr uint8_t kCloseWriteFrame[] = {0x3A, 0x02, 0xC4, 0x00};
static_assert(sealed(kStatusFrame) && sealed(kVersionFrame) && sealed(kMicroIdFrame) &&
              sealed(kWritingModeFrame) && sealed(kGuardDogMode1Frame) && sealed(kGuardDogFrame) &&
              sealed(kCloseWriteFrame));

constexpr int kStatusReply = 22;
constexpr int kValueReply = 6;
constexpr int kAckReply = 5;
constexpr int kChecksumReply = 7;
constexpr int kWriteFrameSize = 71;

// Reply byte 4 of a query with no parameters, or -1.
int query_byte(int fd, const uint8_t (&frame)[4]) {
    uint8_t reply[kValueReply] = {};
    if (uat_exchange_single(fd, frame, sizeof frame, reply, sizeof reply, false) != 0)
        return -1;
    return reply[4];
}

int port_command(int fd, uint8_t code, uint8_t port, uint8_t bits) {
    uint8_t frame[] = {kUatStart, 0x04, code, port, bits, 0};
    seal(frame, sizeof frame);
    return uat_acknowledged_command(fd, frame, sizeof frame);
}

void erase_read_failed(const uint8_t *frame, int read_count) {
    printf("**ERROR** Uart Not Return Cmd = %.2x %.2x, retry = %x\n", frame[1], frame[2],
           read_count);
}

void close_write_read_failed(const uint8_t *frame, int read_count) {
    printf("Uart NG Cmd = %x,%x\n", frame[2], read_count);
}

// --- Motorola S-record reader --------------------------------------------------------------

constexpr int kExtractSize = 64;
char extract_buffer[kExtractSize];

struct SRecordType {
    const char *text;
    int width;
    int record_class;
};

// Searched in this order; the first text found in a line decides.
constexpr SRecordType kSRecordTypes[] = {
    {"S0", 0, kSRecordHeader},      {"S1", 2, kSRecordData},        {"S2", 3, kSRecordData},
    {"S3", 4, kSRecordData},        {"S5", 2, kSRecordHeader},      {"S7", 4, kSRecordTermination},
    {"S8", 3, kSRecordTermination}, {"S9", 2, kSRecordTermination},
};

// Adds each digit's CharToHex value at its weight; the end of the text counts as a non-digit,
// so nothing past it is read.
uint32_t hex_digits(const char *text, int digits) {
    uint32_t value = 0;
    bool ended = text == nullptr;
    for (int i = 0; i < digits; ++i) {
        ended = ended || text[i] == '\0';
        value += static_cast<uint32_t>(CharToHex(ended ? '\0' : text[i])) << (4 * (digits - 1 - i));
    }
    return value;
}

// The text from character position on, or the line's end when it is shorter.
const char *from_character(const char *line, size_t position) {
    return line + strnlen(line, position);
}

using HexConverter = uint32_t (*)(const char *);
// Address converters indexed by the address width.
constexpr HexConverter kAddressConverters[] = {nullptr, nullptr, ToHex2Byte, ToHex3Byte,
                                               ToHex4Byte};

// Where the load stands: the first data record fixes the image's base, whatever its address.
struct ImageBase {
    uint32_t address = 0;
    bool set = false;
    uint32_t stored = 0; // data bytes stored in the image
};

// Stores one data record's bytes in rom_buf; -1 when any of them falls outside the image.
int store_data_record(const char *line, int width, ImageBase *base, bool quiet) {
    uint32_t address = MotSRecordGetAddress(line);
    if (!base->set) {
        base->address = address;
        base->set = true;
    }
    int count = static_cast<int>(MotSRecordGetDataLen(line)) - width - 1;
    const char *data = line + 4 + 2 * width; // inside the line: its checksum was found
    int result = 0;
    for (int k = 0; k < count; ++k) {
        uint32_t index = address - base->address + static_cast<uint32_t>(k);
        if (index < MaxRomSize) {
            rom_buf[index] = static_cast<uint8_t>(ToHex1Byte(data + 2 * k));
            ++base->stored;
            continue;
        }
        if (!quiet) {
            printf("Array boundary exceeded !! Requested array index = %4X but maximum size is "
                   "%4X \n",
                   index, MaxRomSize);
            printf("buf = %s, ulAddr = 0x%4X, uStartAddr = 0x%4X\n", line, address, base->address);
        }
        result = -1;
    }
    return result;
}

// The loader's own messages, for a load nobody observes.
void print_srecord_event(SRecordEvent event, const char *line) {
    if (event == SREC_NOT_S_RECORD)
        puts("Starting character does not conform to Motorola S Record standard.");
    else if (event == SREC_BAD_CHECKSUM)
        printf("Invalid line checksum : %s \n", line);
}

// --- firmware programming ------------------------------------------------------------------

constexpr const char *kFirmwareName = "tvm.mot";
constexpr int kHeaderLineSize = kSectionHeaderLineSize;
constexpr int kLineSize = 256;
constexpr unsigned kChecksumWaitSeconds = 3;

// Finds "tvm.mot" (exact name) in dir and opens it; null, with its message, when it cannot.
FILE *open_firmware_file(const char *dir, char *path, size_t path_size) {
    if (!bounded_format(path, path_size, "%s/%s", dir, kFirmwareName)) {
        printf("**ERROR** path too long: %s/%s\n", dir, kFirmwareName);
        return nullptr;
    }
    DIR *listing = opendir(dir);
    if (listing == nullptr) {
        printf("**ERROR** opendir failed on %s", dir);
        return nullptr;
    }
    UniqueDir holder(listing);
    while (const struct dirent *entry = readdir(listing)) {
        if (strcmp(entry->d_name, kFirmwareName) != 0)
            continue;
        printf("Binary target name = %s \n", path);
        FILE *file = fopen(path, "r");
        if (file == nullptr)
            printf("**ERROR** fail to open file %s \n", path);
        return file;
    }
    puts("No binary files found");
    return nullptr;
}

} // namespace

bool find_section(FILE *file, uint8_t bank) {
    const char *header = bank == 1 ? "TVM_BANK1" : "TVM_BANK2";
    char line[kLineSize];
    while (Get_Fgets(line, sizeof line, file) != 0) {
        if (strcmp(line, header) == 0)
            return true;
    }
    return false;
}

uint8_t section_line_value(const char *line) {
    size_t length = strlen(line);
    return static_cast<uint8_t>(static_cast<uint8_t>(CharToHex(line[length - 2]) << 4) |
                                CharToHex(line[length - 1]));
}

namespace {

// The hexadecimal value in the last two characters of the next line. A line shorter than that
// (the end of the file included) is refused with a message naming what it should have held.
int read_line_value(FILE *file, const char *what, uint8_t *value) {
    char line[kHeaderLineSize] = {};
    Get_Fgets(line, sizeof line, file);
    size_t length = strlen(line);
    if (length < 2) {
        printf("**ERROR** %s line too short: [%s]\n", what, line);
        return -1;
    }
    *value = section_line_value(line);
    return 0;
}

} // namespace

VersionVerdict judge_version(uint8_t file_version, uint8_t running) {
    if (file_version == 0xFF)
        return VERSION_INSTALL;
    if (file_version == running)
        return VERSION_SAME;
    if (running <= 0xEF || file_version > running)
        return VERSION_INSTALL;
    return VERSION_REFUSED;
}

uint16_t image_checksum() {
    uint16_t sum = 0;
    for (uint8_t byte : rom_buf)
        sum = static_cast<uint16_t>(sum + byte);
    return sum;
}

namespace {

// Writes the whole image in 64-byte blocks from base on, with the percentage of the blocks
// before each one.
int write_image(int link, uint32_t base) {
    for (uint32_t offset = 0; offset < MaxRomSize; offset += kFlashBlockSize) {
        if (tvm_WriteFlash(link, base + offset, rom_buf + offset) == -1)
            return -1;
        double done = static_cast<double>(static_cast<float>(offset)) * 100.0 /
                      static_cast<double>(static_cast<float>(MaxRomSize));
        printf("\r %3d%% completed", static_cast<int>(static_cast<unsigned>(done)));
        fflush(stdout);
    }
    return 0;
}

} // namespace

int read_firmware_section(FILE *file, uint8_t bank, int running_version, int micro_id,
                          uint32_t *base) {
    if (!find_section(file, bank))
        return -1;
    uint8_t file_version = 0;
    if (read_line_value(file, "Version", &file_version) != 0)
        return -1;
    switch (judge_version(file_version, static_cast<uint8_t>(running_version))) {
    case VERSION_SAME:
        return 1;
    case VERSION_REFUSED:
        return -1;
    case VERSION_INSTALL:
        break;
    }
    uint8_t file_id = 0;
    if (read_line_value(file, "ID", &file_id) != 0 || file_id != static_cast<uint8_t>(micro_id))
        return -1;
    char ignored[kLineSize];
    Get_Fgets(ignored, sizeof ignored, file);
    return MotSRecordLoadImage(file, base) == 0 ? 0 : -1;
}

namespace {

// Erases the bank, writes the image and has the microcontroller confirm it.
int program_bank(int link, uint8_t bank, uint32_t base) {
    if (tvm_EraseFlash(link, bank) == -1)
        return -1;
    uint16_t calculated = image_checksum();
    puts("TVMicro software upgrade ...");
    if (write_image(link, base) != 0)
        return -1;
    putchar('\r');
    sleep(kChecksumWaitSeconds);
    uint16_t read_back = tvm_GetFlashCheckSum(link, bank);
    printf("Checksum information : Calculated = 0x%.4X , Read from TV micro = 0x%.4X\n", calculated,
           read_back);
    if (read_back == 0xFFFF || read_back != calculated)
        return -1;
    return tvm_CloseWriteFlash(link) == -1 ? -1 : 0;
}

} // namespace

// --- serial command link -------------------------------------------------------------------

int tvm_link_rate(const char *model) {
    return model != nullptr && strncmp(model, "DUNLY", 5) == 0 ? kUatRateDunly : kUatRateDefault;
}

int open_uat() {
    return open(kUatDevice, O_RDWR);
}

void set_uat_rate(int fd, int rate) {
    ioctl(fd, kUatSetRate, rate);
}

uint8_t uat_checksum(const uint8_t *bytes, size_t count) {
    uint8_t sum = 0;
    for (size_t i = 0; i < count; ++i)
        sum = static_cast<uint8_t>(sum + bytes[i]);
    return sum;
}

int out_uat(int fd, const uint8_t *frame, int length) {
    if (frame == nullptr)
        return -1;
    if (fd < 0 || length <= 0)
        return 0;
    if (write(fd, frame, static_cast<size_t>(length)) != length) {
        // A frame that did not go out shows up as a missing reply.
    }
    return 0;
}

int in_uat(int fd, uint8_t *reply, int length) {
    if (fd < 0 || reply == nullptr || length < 1 || length > kUatMaxReply)
        return -1;
    if (read(fd, reply, static_cast<size_t>(length)) != length)
        return -1;
    return uat_checksum(reply, static_cast<size_t>(length - 1)) == reply[length - 1] ? 0 : -1;
}

int uat_exchange_single(int fd, const uint8_t *frame, int frame_length, uint8_t *reply,
                        int reply_length, bool ack) {
    for (int t = 0; t < kSingleTries; ++t) {
        out_uat(fd, frame, frame_length);
        if (in_uat(fd, reply, reply_length) == 0 && accepted(reply, reply_length, ack))
            return 0;
    }
    return -1;
}

int uat_acknowledged_command(int fd, const uint8_t *frame, int frame_length) {
    uint8_t reply[kAckReply] = {};
    return uat_exchange_single(fd, frame, frame_length, reply, sizeof reply, true);
}

int uat_exchange_waiting(int fd, const uint8_t *frame, int frame_length, uint8_t *reply,
                         int reply_length, UatReadFailed read_failed) {
    for (int t = 0; t < kWaitingTries; ++t) {
        out_uat(fd, frame, frame_length);
        bool passed = false;
        for (int r = 0; r < kWaitingReads && !passed; ++r) {
            passed = in_uat(fd, reply, reply_length) == 0;
            if (!passed)
                read_failed(frame, r);
        }
        if (!passed) {
            printf("Uart Return Timeout Cmd = %.2x %.2x %.2x,%x\n", frame[0], frame[1], frame[2],
                   t);
            continue;
        }
        if (accepted(reply, reply_length, true))
            return 0;
        printf("Uart Ack **ERROR** Cmd = %.2x %.2x %.2x,%x\n", frame[0], frame[1], frame[2], t);
    }
    return -1;
}

int uat_exchange_block(int fd, const uint8_t *frame, int frame_length, uint8_t *reply,
                       int reply_length) {
    for (int t = 0; t < kBlockTries; ++t) {
        out_uat(fd, frame, frame_length);
        uint8_t r = 0;
        for (; r < kBlockReads; ++r) {
            memset(reply, 0, static_cast<size_t>(reply_length));
            if (in_uat(fd, reply, reply_length) == 0 && accepted(reply, reply_length, true))
                return 0;
            printf("Uart Ack **ERROR** Cmd = %.2x %.2x %.2x, resp try = %x\n", frame[0], frame[1],
                   frame[2], r);
        }
        printf("Uart Ack **ERROR** Cmd = %.2x %.2x %.2x, resp try = %x\n", frame[0], frame[1],
               frame[2], r);
    }
    return -1;
}

int uat_exchange_value(int fd, const uint8_t *frame, int frame_length, uint8_t *reply,
                       int reply_length) {
    for (int t = 0; t < kValueTries; ++t) {
        int sent = out_uat(fd, frame, frame_length);
        if (in_uat(fd, reply, reply_length) != 0) {
            printf("Uart Not Return Cmd = %.2x %.2x %.2x,%x\n", frame[0], frame[1], frame[2], t);
            continue;
        }
        if (accepted(reply, reply_length, true))
            return 0;
        printf("Uart Ack  ERROR: buf[3]=0x%X, buf[4]=0x%X ,ret= 0x%X  \n", reply[3], reply[4],
               sent);
    }
    return -1;
}

// --- microcontroller commands --------------------------------------------------------------

int tvm_GetStatus(int fd) {
    uint8_t reply[kStatusReply] = {};
    if (uat_exchange_single(fd, kStatusFrame, sizeof kStatusFrame, reply, sizeof reply, false) != 0)
        return -1;
    return (reply[12] & 0x10) != 0 ? 2 : 1;
}

int tvm_GetSoftwareVersion(int fd) {
    return query_byte(fd, kVersionFrame);
}

int tvm_GetMicroID(int fd) {
    return query_byte(fd, kMicroIdFrame);
}

int tvmuio_SetPort(int fd, uint8_t port, uint8_t bits) {
    return port_command(fd, 0x16, port, bits);
}

int tvmuio_ClearPort(int fd, uint8_t port, uint8_t bits) {
    return port_command(fd, 0x18, port, bits);
}

int tvm_SetFlashWritingMode(int fd) {
    return uat_acknowledged_command(fd, kWritingModeFrame, sizeof kWritingModeFrame);
}

int tvm_SetGuarddogTime(int fd, uint8_t mode) {
    if (mode == 1)
        return uat_acknowledged_command(fd, kGuardDogMode1Frame, sizeof kGuardDogMode1Frame);
    return uat_acknowledged_command(fd, kGuardDogFrame, sizeof kGuardDogFrame);
}

int tvm_EraseFlash(int fd, uint8_t bank) {
    if (bank != 1 && bank != 2)
        return -1;
    uint8_t frame[] = {kUatStart, 0x03, 0xC3, bank, 0};
    seal(frame, sizeof frame);
    uint8_t reply[kAckReply] = {};
    return uat_exchange_waiting(fd, frame, sizeof frame, reply, sizeof reply, erase_read_failed);
}

int tvm_WriteFlash(int fd, uint32_t address, const uint8_t *block) {
    if (block == nullptr)
        return -1;
    uint8_t frame[kWriteFrameSize] = {kUatStart,
                                      0x45,
                                      0xC0,
                                      static_cast<uint8_t>(address >> 16),
                                      static_cast<uint8_t>(address >> 8),
                                      static_cast<uint8_t>(address)};
    memcpy(frame + 6, block, kFlashBlockSize);
    seal(frame, sizeof frame);
    uint8_t reply[kAckReply] = {};
    return uat_exchange_block(fd, frame, sizeof frame, reply, sizeof reply);
}

uint16_t tvm_GetFlashCheckSum(int fd, uint8_t bank) {
    uint8_t frame[] = {kUatStart, 0x03, 0xC2, bank, 0};
    seal(frame, sizeof frame);
    uint8_t reply[kChecksumReply] = {};
    if (uat_exchange_value(fd, frame, sizeof frame, reply, sizeof reply) != 0)
        return 0xFFFF;
    return static_cast<uint16_t>(reply[4] << 8 | reply[5]);
}

int tvm_CloseWriteFlash(int fd) {
    uint8_t reply[kAckReply] = {};
    return uat_exchange_waiting(fd, kCloseWriteFrame, sizeof kCloseWriteFrame, reply, sizeof reply,
                                close_write_read_failed);
}

// --- Motorola S-record reader --------------------------------------------------------------

const char *ExtractString(const char *text, int n) {
    if (text == nullptr)
        return nullptr;
    memset(extract_buffer, 0, sizeof extract_buffer);
    if (n < 0 || n >= kExtractSize)
        return extract_buffer;
    strncpy(extract_buffer, text, static_cast<size_t>(n));
    return extract_buffer;
}

uint32_t ToHex1Byte(const char *text) {
    return hex_digits(text, 2);
}
uint32_t ToHex2Byte(const char *text) {
    return hex_digits(text, 4);
}
uint32_t ToHex3Byte(const char *text) {
    return hex_digits(text, 6);
}
uint32_t ToHex4Byte(const char *text) {
    return hex_digits(text, 8);
}

uint32_t MotSRecordGetDataLen(const char *line) {
    return line == nullptr ? 0 : ToHex1Byte(from_character(line, 2));
}

int MotSRecordGetType(const char *line, int *width) {
    if (line == nullptr) {
        if (width != nullptr)
            *width = 0;
        return kSRecordUnknown;
    }
    for (const SRecordType &type : kSRecordTypes) {
        if (strstr(line, type.text) == nullptr)
            continue;
        if (width != nullptr)
            *width = type.width;
        return type.record_class;
    }
    return kSRecordUnknown;
}

uint32_t MotSRecordGetAddress(const char *line) {
    int width = 0;
    if (MotSRecordGetType(line, &width) != kSRecordData || width < 2 || width > 4)
        return 0;
    return kAddressConverters[width](ExtractString(from_character(line, 4), 2 * width));
}

int MotSRecordCheckLineCheckSum(const char *line) {
    if (line == nullptr)
        return 0;
    uint32_t count = MotSRecordGetDataLen(line);
    if (strlen(line) < 4 + 2 * static_cast<size_t>(count))
        return 0; // the line ends before its checksum byte
    uint16_t sum = 0;
    for (uint32_t i = 1; i <= count; ++i)
        sum = static_cast<uint16_t>(sum + ToHex1Byte(line + 2 * i));
    return ToHex1Byte(line + 2 + 2 * count) == (~sum & 0xFFu) ? 1 : 0;
}

int MotSRecordLoadImage(FILE *file, uint32_t *start_address, SRecordObserver observe,
                        void *context) {
    memset(rom_buf, 0xFF, sizeof rom_buf);
    ImageBase base;
    *start_address = 0;
    auto report = [&](SRecordEvent event, const char *line) {
        if (observe != nullptr)
            observe(context, event, line);
        else
            print_srecord_event(event, line);
    };
    char line[kLineSize];
    while (Get_Fgets(line, sizeof line, file) != 0) {
        if (line[0] != 'S') {
            report(SREC_NOT_S_RECORD, line);
            continue;
        }
        if (MotSRecordCheckLineCheckSum(line) == 0) {
            report(SREC_BAD_CHECKSUM, line);
            continue;
        }
        int width = 0;
        int record_class = MotSRecordGetType(line, &width);
        if (record_class == kSRecordTermination) {
            report(SREC_TERMINATION, line);
            break;
        }
        if (record_class == kSRecordUnknown) {
            report(SREC_UNKNOWN_TYPE, line);
            return -1;
        }
        if (record_class == kSRecordData) {
            int stored = store_data_record(line, width, &base, observe != nullptr);
            *start_address = base.address;
            report(stored != 0 ? SREC_OUTSIDE_IMAGE : SREC_DATA, line);
            if (stored != 0)
                return -1;
        } else {
            report(SREC_HEADER, line);
        }
    }
    if (base.stored == 0) {
        // Nothing to program: an image of erased cells must never replace firmware.
        if (observe == nullptr)
            puts("**ERROR** no data record in the firmware section");
        return -1;
    }
    return 0;
}

// --- firmware programming ------------------------------------------------------------------

int Update_TVMHex(const char *write_dir, const char *model, int hdmi) {
    UniqueFd link(open_uat());
    if (!link.valid())
        return -1;
    int rate = tvm_link_rate(model);
    if (rate != kUatRateDunly && hdmi == 1) {
        printf("[%s.prg] does not support HDMI upgrade\n", model != nullptr ? model : "");
        return -1;
    }
    set_uat_rate(link.get(), rate);
    UniqueFd control(open(kControlDevice, O_RDWR));
    if (!control.valid())
        return -1;
    int bank = tvm_GetStatus(link.get());
    if (bank == -1)
        return -1;
    int running_version = tvm_GetSoftwareVersion(link.get());
    if (running_version == -1)
        return -1;
    char path[kEepPathSize] = {};
    UniqueFile file(open_firmware_file(write_dir, path, sizeof path));
    if (!file)
        return -1;
    int micro_id = tvm_GetMicroID(link.get());
    if (micro_id == -1 || tvm_SetFlashWritingMode(link.get()) == -1 ||
        tvm_SetGuarddogTime(link.get(), 0) == -1)
        return -1;
    uint8_t erase_bank = bank == 1 ? 2 : 1;
    printf("MaxRomSize = %.4X, EraseBank = %d\n", MaxRomSize, erase_bank);
    printf("Read data from %s...\n", write_dir);
    uint32_t base = 0;
    int section = read_firmware_section(file.get(), erase_bank, running_version, micro_id, &base);
    if (section != 0)
        return section == 1 ? 0 : -1;
    return program_bank(link.get(), erase_bank, base);
}
