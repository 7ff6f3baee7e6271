#include "eeprom/eep_update.h"

#include "common/holders.h"
#include "fpga/update_fpga.h"
#include "hw/utils.h"
#include "run/main.h"
#include "tvmicro/tvm_update.h"

#include <cstring>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

uint8_t eep_rom_buf[kEepRomSize];

namespace {

constexpr const char *kTvmTextPrefix = "TVM_DATA";
constexpr int kTvmLineSize = 64;

constexpr uint8_t kEepromWriteCode = 0xB7;
constexpr uint8_t kEepromReadCode = 0xB8;
constexpr int kWriteFrameSize = 71;
constexpr int kWriteReply = 6;
constexpr int kReadFrameSize = 8;
constexpr int kReadReply = 70;
constexpr int kReadDataOffset = 5;
constexpr int kWriteSends = 5;
constexpr int kWriteReads = 10;
constexpr int kReadTries = 10;
constexpr int kPictureMutes = 5;

// The power commands are 4-byte frames followed by one 0x00.
constexpr uint8_t kPowerOnFrame[] = {0x3A, 0x02, 0x2B, 0x67, 0x00};
constexpr uint8_t kPowerOffFrame[] = {0x3A, 0x02, 0x2C, 0x68, 0x00};
constexpr uint8_t kPictureMuteFrame[] = {0x3A, 0x03, 0x06, 0x01, 0x44};

struct EepTextFileName {
    int model_id;
    const char *name;
};
constexpr EepTextFileName kEepTextFiles[] = {{0, "RESERVED"}};

// Models whose microcontroller reaches the Ferund EEPROM, and how many characters decide.
struct FerundModel {
    const char *prefix;
    size_t length;
};
constexpr FerundModel kFerundModels[] = {
    {"DUNLY", 5}, {"PHQD27K1", 8}, {"PHQD2WK1", 8}, {"LMQD2WJ1", 8}};

} // namespace

bool ferund_allowed(const char *model) {
    for (const FerundModel &m : kFerundModels) {
        if (model != nullptr && strncmp(model, m.prefix, m.length) == 0)
            return true;
    }
    return false;
}

namespace {

// Switches the television off again, on every way out, if this update switched it on.
class PowerGuard {
public:
    explicit PowerGuard(int link) : link_(link) {}
    ~PowerGuard() {
        if (on_)
            tvm_PowerOnOff(link_, 0);
    }
    PowerGuard(const PowerGuard &) = delete;
    PowerGuard &operator=(const PowerGuard &) = delete;

    // Switches on and mutes the picture five times, a second apart; 0 or -1.
    int switch_on_and_mute() {
        if (tvm_PowerOnOff(link_, 1) == -1)
            return -1;
        on_ = true;
        for (int i = 0; i < kPictureMutes; ++i) {
            if (tvm_setPictureMute(link_) == -1)
                return -1;
            sleep(1);
        }
        return 0;
    }

private:
    int link_;
    bool on_ = false;
};

struct BlockTarget {
    int link;
    uint8_t target;
};

// One block of the walk: written, and for the microcontroller's own EEPROM read back and
// compared.
int write_eeprom_block(void *context, uint32_t address, const uint8_t *block) {
    const BlockTarget &to = *static_cast<const BlockTarget *>(context);
    int result = WriteEeprom(to.link, address, block, kTvmEepromBlock, to.target);
    if (to.target == kTvmEepromFerund)
        return result != 0 ? -1 : 0;
    uint8_t read_back[kTvmEepromBlock] = {};
    result |= ReadEeprom(to.link, address, read_back, sizeof read_back);
    return result == 0 && memcmp(read_back, block, sizeof read_back) == 0 ? 0 : -1;
}

// Finds and opens the text file; null, with the messages, when there is none.
FILE *open_tvm_text_file(const char *write_dir, int target) {
    char path[kEepPathSize] = {};
    switch (find_eep_text_file(write_dir, kTvmTextPrefix, path, sizeof path)) {
    case EEP_FILE_FOUND:
        return open_eep_text_file(path);
    case EEP_FILE_NOT_FOUND:
        if (target == kTvmEepromFerund)
            puts("No Ferund EEP [frameb_data.txt] found");
        else
            printf("No EEP text file matching model ID = 0x%2X can be found in %s\n", 0, write_dir);
        return nullptr;
    case EEP_FILE_NO_DIR:
    case EEP_FILE_PATH_TOO_LONG:
        break;
    }
    return nullptr;
}

} // namespace

int WriteEeprom(int fd, uint32_t address, const uint8_t *data, int length, uint8_t target) {
    if (data == nullptr || length != kTvmEepromBlock)
        return -1; // a block is always 64 bytes: never read past a shorter buffer
    uint8_t frame[kWriteFrameSize] = {0x3A,
                                      0x45,
                                      kEepromWriteCode,
                                      target,
                                      static_cast<uint8_t>(address >> 8),
                                      static_cast<uint8_t>(address)};
    memcpy(frame + 6, data, kTvmEepromBlock);
    frame[kWriteFrameSize - 1] = uat_checksum(frame, kWriteFrameSize - 1);
    for (int send = 0; send < kWriteSends; ++send) {
        out_uat(fd, frame, sizeof frame);
        for (int r = 0; r < kWriteReads; ++r) {
            uint8_t reply[kWriteReply] = {};
            bool passed = in_uat(fd, reply, sizeof reply) == 0;
            if (passed && reply[3] == kUatAck && reply[4] == 0)
                return 0;
            if (passed && reply[3] == kUatAck)
                printf("EEP_WriteData Data0 = 1 : retrying %x\n", r);
            else
                printf("Uart Ack **ERROR** Cmd = %x, resp try = %x\n", kEepromWriteCode, r);
        }
        printf("Uart Not Return **ERROR** Cmd = %x, write try = %x\n", kEepromWriteCode, send);
    }
    return -1;
}

int ReadEeprom(int fd, uint32_t address, uint8_t *buffer, int length) {
    if (buffer == nullptr || length != kTvmEepromBlock)
        return -1; // a block is always 64 bytes: never write past a shorter buffer
    uint8_t frame[kReadFrameSize] = {0x3A,
                                     0x06,
                                     kEepromReadCode,
                                     0x00,
                                     kTvmEepromBlock,
                                     static_cast<uint8_t>(address >> 8),
                                     static_cast<uint8_t>(address),
                                     0};
    frame[kReadFrameSize - 1] = uat_checksum(frame, kReadFrameSize - 1);
    for (int t = 0; t < kReadTries; ++t) {
        uint8_t reply[kReadReply] = {};
        int sent = out_uat(fd, frame, sizeof frame);
        if (in_uat(fd, reply, sizeof reply) != 0) {
            printf("Uart Not Return Cmd = %x,%x\n", kEepromReadCode, t);
            continue;
        }
        memcpy(buffer, reply + kReadDataOffset, kTvmEepromBlock);
        if (reply[3] == kUatAck)
            return 0;
        printf("Uart Ack  ERROR: buf[3]=0x%X, buf[4]=0x%X ,ret= 0x%X  \n", reply[3], reply[4],
               sent);
    }
    return -1;
}

int tvm_PowerOnOff(int fd, int on) {
    if (on == 1)
        return uat_acknowledged_command(fd, kPowerOnFrame, sizeof kPowerOnFrame);
    return uat_acknowledged_command(fd, kPowerOffFrame, sizeof kPowerOffFrame);
}

int tvm_setPictureMute(int fd) {
    return uat_acknowledged_command(fd, kPictureMuteFrame, sizeof kPictureMuteFrame);
}

const char *GetEEPTextFile(int model_id) {
    for (const EepTextFileName &entry : kEepTextFiles) {
        if (entry.model_id == model_id)
            return entry.name;
    }
    return nullptr;
}

int Update_TVMEeprom(const char *write_dir, const char *model, int target) {
    if (target != kTvmEepromOwn && target != kTvmEepromFerund)
        return -1;
    struct timeval epoch = {0, 0};
    settimeofday(&epoch, nullptr);
    UniqueFd link(open_uat());
    if (!link.valid())
        return -1;
    if (target == kTvmEepromFerund && !ferund_allowed(model)) {
        printf("[%s.prg] does not support writing to FERUND EEP\n", model != nullptr ? model : "");
        return -1;
    }
    set_uat_rate(link.get(), tvm_link_rate(model));
    UniqueFd control(open(kControlDevice, O_RDWR));
    if (!control.valid())
        return -1;
    UniqueFile file(open_tvm_text_file(write_dir, target));
    if (!file)
        return -1;
    memset(eep_rom_buf, 0xFF, sizeof eep_rom_buf);
    if (tvm_SetGuarddogTime(link.get(), 0) == -1)
        return -1;
    EepImage image{eep_rom_buf, sizeof eep_rom_buf, kTvmEepromBlock};
    uint32_t end_address = 0;
    if (read_eep_image(file.get(), kTvmLineSize, EEP_LAYOUT_VERSIONED, image, &end_address) != 0)
        return -1;
    puts("Start writing to EEPROM, please wait... ");
    PowerGuard power(link.get());
    if (target == kTvmEepromFerund && power.switch_on_and_mute() != 0)
        return -1;
    BlockTarget to{link.get(), static_cast<uint8_t>(target)};
    int blocks = eep_block_walk(image, end_address, write_eeprom_block, &to);
    putchar('\r');
    return blocks > 0 ? 0 : -1;
}

// --- EEPROMs on the I2C buses ------------------------------------------------------------

uint8_t kolma_eeprom_buf[kKolmaEepromSize];
int eep_flags = 0;

namespace {

constexpr int kEepLineSize = 64;
constexpr int kPeltoBus = 0;
constexpr int kRegisterBlock = 64;
constexpr uint16_t kUnlockA = 0x5745;
constexpr uint16_t kUnlockB = 0x5043;
constexpr int kKolmaResetPin = 23;
constexpr int kKolmaStatusTimeoutUs = 5000;
constexpr int kKolmaReadLimit = 16;
constexpr int kUatPortRate = 128906;

// The KOLMA registers.
constexpr uint16_t kKolmaEnable = 0x0016;
constexpr uint16_t kKolmaBlockStart = 0x4026;
constexpr uint16_t kKolmaUnlockA = 0x40FA;
constexpr uint16_t kKolmaUnlockB = 0x40FC;
constexpr uint16_t kKolmaAddress = 0x40FE;
constexpr uint16_t kKolmaData = 0x4100;
constexpr uint16_t kKolmaStatus = 0x40F8;
constexpr uint16_t kKolmaReadCommand = 0x4000;
constexpr uint16_t kKolmaReadAddress = 0x400A;
constexpr uint16_t kKolmaReadStart = 0x401C;
constexpr uint16_t kKolmaReadStatus = 0x4002;
constexpr uint16_t kKolmaReadData = 0x400C;

// The Vornek registers.
constexpr uint16_t kVornekUnlockA = 0x70FA;
constexpr uint16_t kVornekUnlockB = 0x70FC;
constexpr uint16_t kVornekAddress = 0x70FE;
constexpr uint16_t kVornekStatus = 0x70F8;
constexpr uint8_t kVornekDataMessage[2] = {0xF1, 0x00};
constexpr useconds_t kVornekPause = 5000;
constexpr int kVornekLockReads = 100;

// A register write message: register and value, high bytes first.
void register_message(uint16_t reg, uint16_t value, uint8_t *message) {
    message[0] = static_cast<uint8_t>(reg >> 8);
    message[1] = static_cast<uint8_t>(reg);
    message[2] = static_cast<uint8_t>(value >> 8);
    message[3] = static_cast<uint8_t>(value);
}

int kolma_write(uint16_t reg, uint16_t value) {
    uint8_t message[4];
    register_message(reg, value, message);
    return IIC_KOLMAEEP_Write(sizeof message, message, eep_flags);
}

// Reads a register into status (high, low); status keeps its content when the read fails.
int kolma_read(uint16_t reg, uint8_t *status) {
    uint8_t number[2] = {static_cast<uint8_t>(reg >> 8), static_cast<uint8_t>(reg)};
    return IIC_KOLMAEEP_Read(number, 2, status, eep_flags);
}

int vornek_write(uint16_t reg, uint16_t value) {
    uint8_t message[4];
    register_message(reg, value, message);
    return IIC_VornekEEP_Write(sizeof message, message);
}

// Reads the Vornek write status, then pauses.
void vornek_status(uint8_t *status) {
    uint8_t number[2] = {static_cast<uint8_t>(kVornekStatus >> 8),
                         static_cast<uint8_t>(kVornekStatus)};
    IIC_VornekEEP_Read(number, 2, status);
    usleep(kVornekPause);
}

// Exactly bits 4 and 0 of status high.
bool status_shows(const uint8_t *status, uint8_t bits) {
    return (status[0] & 0x11) == bits;
}

// A block copied into a zero-filled block of the interface's size, and its sum.
uint8_t copy_block(const uint8_t *data, int length, uint8_t *block, int size) {
    memset(block, 0, static_cast<size_t>(size));
    if (data != nullptr && length > 0)
        memcpy(block, data, static_cast<size_t>(length < size ? length : size));
    uint8_t sum = 0;
    for (int i = 0; i < size; ++i)
        sum = static_cast<uint8_t>(sum + block[i]);
    return sum;
}

// Writes the block's words (bytes i and i + 1, the first as high byte) to first + i; a paced
// interface takes 9 microseconds after the first word and 4 after each other.
template <typename Write>
void write_block_words(const uint8_t *block, int size, uint16_t first, bool paced, Write write) {
    for (int i = 0; i < size; i += 2) {
        write(static_cast<uint16_t>(first + i),
              static_cast<uint16_t>(block[i] << 8 | block[i + 1]));
        if (paced)
            usleep(i == 0 ? 9 : 4);
    }
}

// Reads the status until the bits of pattern (high, low) are set in it: true; false once more
// than timeout_us of 1 ms pauses have passed. *elapsed_us is the time waited.
bool poll_status_bits(void (*read)(uint8_t *status), const uint8_t *pattern, int timeout_us,
                      uint8_t *status, int *elapsed_us) {
    read(status);
    for (*elapsed_us = 0;;) {
        if ((status[0] & pattern[0]) == pattern[0] && (status[1] & pattern[1]) == pattern[1])
            return true;
        usleep(1000);
        *elapsed_us += 1000;
        if (*elapsed_us > timeout_us)
            return false;
        read(status);
    }
}

// Hands length bytes (at most the 16 of a read block) of a read block to the caller.
void copy_read_block(const uint8_t *block, uint8_t *buffer, int length) {
    if (buffer != nullptr && length > 0) {
        memset(buffer, 0, static_cast<size_t>(length));
        memcpy(buffer, block, static_cast<size_t>(length));
    }
}

// A block writer of the walk that keeps the block's own result.
struct RegisterBlockWriter {
    int (*write)(uint32_t address, const uint8_t *data, int length);
    int block_size;
    int result;
};

int write_register_block(void *context, uint32_t address, const uint8_t *block) {
    RegisterBlockWriter &writer = *static_cast<RegisterBlockWriter *>(context);
    writer.result = writer.write(address, block, writer.block_size);
    return writer.result;
}

// Finds the file with prefix; prints missing_line when no entry matches.
bool find_text_file(const char *write_dir, const char *prefix, const char *missing_line,
                    char *path) {
    EepFileSearch found = find_eep_text_file(write_dir, prefix, path, kEepPathSize);
    if (found == EEP_FILE_NOT_FOUND)
        puts(missing_line);
    return found == EEP_FILE_FOUND;
}

// The port command the KOLMA and FPGA EEPROM updates send first; its outcome does not matter.
int send_port_command() {
    UniqueFd link(open(kUatDevice, O_RDWR));
    if (!link.valid())
        return -1;
    set_uat_rate(link.get(), kUatPortRate);
    tvmuio_SetPort(link.get(), 1, 4);
    return 0;
}

// One step of the KOLMA block sequence: false, after printing failure_line, on a time-out.
bool kolma_step(uint8_t high, uint8_t low, const char *failure_line) {
    const uint8_t pattern[2] = {high, low};
    if (CheckKOLMAWriteStatus(pattern, kKolmaStatusTimeoutUs) == 0)
        return true;
    puts(failure_line);
    return false;
}

// Unlock, address, data words and sum of one KOLMA block; a failed step is reported only.
void kolma_block_body(uint32_t address, const uint8_t *data, int length) {
    kolma_write(kKolmaBlockStart, 0x0000);
    kolma_write(kKolmaUnlockA, kUnlockA);
    kolma_write(kKolmaUnlockB, kUnlockB);
    if (!kolma_step(0x10, 0x00, "KOLMA EEP Write ERROR! on xxx1xxx0 detection"))
        return;
    kolma_write(kKolmaAddress, static_cast<uint16_t>(address));
    if (!kolma_step(0x10, 0x00, "KOLMA EEP Write ERROR! on xxx1xxxx detection"))
        return;
    uint8_t block[kRegisterBlock];
    uint8_t sum = copy_block(data, length, block, kRegisterBlock);
    write_block_words(block, kRegisterBlock, kKolmaData, true, kolma_write);
    if (!kolma_step(0x10, 0x00, "KOLMA EEP Write ERROR! on xxx1xxxx detection ") ||
        !kolma_step(0x10, 0x00, "KOLMA EEP Write ERROR! on xxx1xxxx detection "))
        return;
    kolma_step(0x00, sum, "KOLMA EEP Checksum ERROR!");
}

// Reads a KOLMA read-interface status until bit is clear in status low, at most six reads.
bool kolma_read_idle(uint8_t bit, uint8_t *status) {
    for (int read = 0; read < 6; ++read) {
        if (read > 0)
            usleep(1000);
        kolma_read(kKolmaReadStatus, status);
        if ((status[1] & bit) == 0)
            return true;
    }
    return false;
}

} // namespace

int Update_PeltoEeprom(const char *, const char *write_dir) {
    struct timeval epoch = {0, 0};
    settimeofday(&epoch, nullptr);
    char path[kEepPathSize] = {};
    if (!find_text_file(write_dir, "PELTO_DATA", "No EEP text file", path))
        return -1;
    UniqueFile file(open_eep_text_file(path));
    if (!file)
        return -1;
    puts("Start writing to EEPROM, please wait... ");
    int result = -1;
    char line[kEepLineSize];
    while (Get_Fgets(line, sizeof line, file.get()) != 0) {
        uint32_t address = 0;
        uint8_t written = 0;
        int parsed = parse_eep_data_line(line, &address, &written);
        if (parsed < 0)
            return -1;
        if (parsed == 0)
            continue;
        uint16_t count = 0;
        uint8_t error = 0;
        int16_t at = static_cast<int16_t>(address);
        if (IIC_EEPROM_Write(kPeltoBus, at, 1, &written, &count, &error) != 0)
            return -1;
        uint8_t read_back = 0;
        if (IIC_EEPROM_Read(kPeltoBus, at, 1, &error, &read_back) != 0)
            continue; // this byte stays unverified
        if (read_back != written)
            return -1;
        result = 0;
    }
    return result;
}

void SetKolmaHwReset() {
    usleep(100000);
    uint8_t level = 0;
    PIO_BitRead(kKolmaResetPin, &level);
    puts(" test ");
    if (level == 1)
        return;
    if (PIO_BitWrite(kKolmaResetPin, 1) != PIO_OK)
        printf("PIO_BitWrite ERROR(pio=%d)\n", kKolmaResetPin);
    usleep(50000);
}

int EnableKOLMAEeprom() {
    if (kolma_write(kKolmaEnable, 0x0001) != 0 || kolma_write(kKolmaEnable, 0x0000) != 0) {
        puts("IIC_KOLMAEEP_Write Error");
        return 1;
    }
    usleep(200000);
    return 0;
}

int CheckKOLMAWriteStatus(const uint8_t *pattern, int timeout_us) {
    uint8_t status[2] = {0, 0};
    int elapsed = 0;
    if (poll_status_bits([](uint8_t *s) { kolma_read(kKolmaStatus, s); }, pattern, timeout_us,
                         status, &elapsed))
        return 0;
    printf("KOLMA EEP Write ERROR! on 0x%02x%02x detection(read 0x%02x%02x) \n", pattern[0],
           pattern[1], status[0], status[1]);
    return 1;
}

int WriteKOLMAEeprom(uint32_t address, const uint8_t *data, int length) {
    if (length > kRegisterBlock)
        printf("KOLMA EEP Write ERROR! your specified size(%dbyte) exceed buffer(%dbyte).\n",
               length, kRegisterBlock);
    else
        kolma_block_body(address, data, length);
    // The interface is locked after every block, whatever happened in it.
    kolma_write(kKolmaUnlockA, 0x0000);
    kolma_write(kKolmaUnlockB, 0x0000);
    return kolma_step(0x01, 0x00, "KOLMA EEP Write ERROR! on xxx0xxx1 detection ") ? 0 : 2;
}

int ReadKOLMAEeprom(uint32_t address, uint8_t *buffer, int length) {
    if (length > kKolmaReadLimit) {
        printf("KOLMA EEP Read ERROR! your specified size(%dbyte) exceed buffer(%dbyte).\n", length,
               kKolmaReadLimit);
        return 1;
    }
    kolma_write(kKolmaReadCommand, 0x0007);
    kolma_write(kKolmaReadCommand, 0x0007);
    kolma_write(kKolmaReadAddress, static_cast<uint16_t>(address));
    kolma_write(kKolmaReadStart, 0x0000);
    uint8_t status[2] = {0, 0};
    if (!kolma_read_idle(0x01, status) || !kolma_read_idle(0x08, status)) {
        printf("KOLMA EEP Read ERROR! on xxxxxxx0 detection (0x%02x)\n", status[1]);
        return 1;
    }
    uint8_t block[kKolmaReadLimit] = {};
    for (int i = 0; i < kKolmaReadLimit; i += 2)
        kolma_read(static_cast<uint16_t>(kKolmaReadData + i), block + i);
    copy_read_block(block, buffer, length);
    return 0;
}

int Update_KOLMAEeprom(const char *write_dir, const char *, const int *index) {
    if (index != nullptr)
        eep_flags = *index;
    printf(" --- updating  KOLMA_%d EEPROM data\n", eep_flags + 1);
    char path[kEepPathSize] = {};
    if (!find_text_file(write_dir, "kolma_eep", "No KOLMA EEPROM found", path))
        return -1;
    UniqueFile file(fopen(path, "r"));
    if (!file) {
        printf("**ERROR** fail to open file %s \n", path);
        return -1;
    }
    EepImage image{kolma_eeprom_buf, sizeof kolma_eeprom_buf, kRegisterBlock};
    uint32_t end_address = 0;
    if (read_eep_image(file.get(), kEepLineSize, EEP_LAYOUT_DATA_ONLY, image, &end_address) != 0)
        return -1;
    if (send_port_command() != 0)
        return -1;
    SetKolmaHwReset();
    sleep(2);
    if (int enabled = EnableKOLMAEeprom(); enabled != 0)
        return enabled;
    sleep(2);
    RegisterBlockWriter writer{WriteKOLMAEeprom, kRegisterBlock, -1};
    eep_block_walk(image, end_address, write_register_block, &writer);
    if (writer.result != 0) {
        if (end_address != 0)
            puts("ERROR: EEPROM Write Failure ");
        return writer.result;
    }
    printf("\r 100%% completed\n");
    return 0;
}

int WriteVornekEeprom(uint32_t address, const uint8_t *data, int length) {
    if (data == nullptr || length <= 0 || length > kRegisterBlock)
        return 1;
    vornek_write(kVornekUnlockA, kUnlockA);
    usleep(kVornekPause);
    vornek_write(kVornekUnlockB, kUnlockB);
    usleep(kVornekPause);
    uint8_t status[2] = {0, 0};
    vornek_status(status);
    if (!status_shows(status, 0x10)) {
        puts("EEP Write ERROR! on xxx1xxx0 detection 0");
        return 1;
    }
    vornek_write(kVornekAddress, static_cast<uint16_t>(address));
    uint8_t message[2 + kRegisterBlock];
    memcpy(message, kVornekDataMessage, sizeof kVornekDataMessage);
    uint8_t sum = copy_block(data, length, message + 2, kRegisterBlock);
    IIC_VornekEEP_Write(sizeof message, message);
    usleep(kVornekPause);
    vornek_status(status);
    if (!status_shows(status, 0x10)) {
        puts("EEP Write ERROR! on xxx1xxx0 detection 0");
        return 1;
    }
    vornek_status(status);
    if (status[1] != sum) {
        puts("Checksum ERROR!!");
        return 1;
    }
    vornek_write(kVornekUnlockA, 0x0000);
    usleep(kVornekPause);
    vornek_write(kVornekUnlockB, 0x0000);
    for (int read = 0; read < kVornekLockReads; ++read) {
        uint8_t number[2] = {static_cast<uint8_t>(kVornekStatus >> 8),
                             static_cast<uint8_t>(kVornekStatus)};
        IIC_VornekEEP_Read(number, 2, status);
        if (status_shows(status, 0x01))
            return 0;
        usleep(kVornekPause);
        puts("Timeout ERROR!!");
    }
    return 2;
}

int Update_VornekEeprom(const char *write_dir) {
    char path[kEepPathSize] = {};
    if (!find_text_file(write_dir, "vornek_eep.txt", "No Vornek EEPROM [vornek_eep.txt] found",
                        path))
        return -1;
    // Whatever the letter case of the entry, the file opened is the lower-case name.
    if (!bounded_format(path, sizeof path, "%s/vornek_eep.txt", write_dir))
        return -1;
    UniqueFile file(open_eep_text_file(path));
    if (!file)
        return -1;
    EepImage image{eep_rom_buf, sizeof eep_rom_buf, kRegisterBlock};
    uint32_t end_address = 0;
    int data_lines = 0;
    if (read_eep_image(file.get(), kEepLineSize, EEP_LAYOUT_DATA_ONLY, image, &end_address,
                       &data_lines) != 0 ||
        data_lines == 0)
        return -1;
    puts("Start writing to Vornek EEPROM, please wait... ");
    RegisterBlockWriter writer{WriteVornekEeprom, kRegisterBlock, 0};
    eep_block_walk(image, end_address, write_register_block, &writer);
    putchar('\r');
    if (writer.result == 0)
        printf("\r 100%% completed\n");
    return writer.result;
}

// --- FPGA EEPROMs ----------------------------------------------------------------------------

uint8_t fpga_eeprom_buf[kFpgaEepromSize];

namespace {

constexpr int kFpgaTr5 = 1;
constexpr int kFpgaTr6 = 2;
constexpr int kFpgaBlock = 32;
constexpr int kFpgaLineSize = 32;
constexpr int kFpgaReadLimit = 16;

// Registers both types share, and the PLL's locked value per type.
constexpr uint16_t kFpgaPllRestart = 0x0022;
constexpr uint16_t kFpgaPllStatus = 0x0010;
constexpr uint16_t kFpgaCalibration = 0x0012;
constexpr uint16_t kFpgaEnable = 0x0020;
constexpr uint16_t kFpgaPllLocked[] = {0, 0x001E, 0x000E};
constexpr uint16_t kCalibrationDone = 0x0003;
constexpr int kPllReads = 10;
constexpr int kPllSameReads = 3;
constexpr useconds_t kPllRestartPause = 500;

// The TR5 block and read registers.
constexpr uint16_t kTr5UnlockA = 0x48FA;
constexpr uint16_t kTr5UnlockB = 0x48FC;
constexpr uint16_t kTr5Address = 0x48FE;
constexpr uint16_t kTr5Data = 0x4900;
constexpr uint16_t kTr5Status = 0x48F8;
constexpr uint16_t kTr5ReadCommand = 0x4800;
constexpr uint16_t kTr5ReadAddress = 0x480A;
constexpr uint16_t kTr5ReadStart = 0x4802;
constexpr uint16_t kTr5ReadData = 0x480C;
constexpr int kTr5LockReads = 10;

// The TR6 block registers.
constexpr uint16_t kTr6UnlockA = 0x4876;
constexpr uint16_t kTr6UnlockB = 0x4874;
constexpr uint16_t kTr6Address = 0x4878;
constexpr uint16_t kTr6Data = 0x487A;
constexpr uint16_t kTr6Status = 0x4872;
constexpr uint16_t kTr6BlockPrepare = 0x4804;
constexpr useconds_t kTr6UnlockPause = 5000;
constexpr int kTr6StatusTimeoutUs = 5000;

int fpga_write(int type, uint16_t reg, uint16_t value) {
    uint8_t message[4];
    register_message(reg, value, message);
    return IIC_FPGAEEP_Write(sizeof message, message, type);
}

// Reads a register into status (high, low); status keeps its content when the read fails.
int fpga_read(int type, uint16_t reg, uint8_t *status) {
    uint8_t number[2] = {static_cast<uint8_t>(reg >> 8), static_cast<uint8_t>(reg)};
    return IIC_FPGAEEP_Read(number, 2, status, type);
}

uint16_t status_value(const uint8_t *status) {
    return static_cast<uint16_t>(status[0] << 8 | status[1]);
}

void tr5_write(uint16_t reg, uint16_t value) {
    fpga_write(kFpgaTr5, reg, value);
}

void tr6_write(uint16_t reg, uint16_t value) {
    fpga_write(kFpgaTr6, reg, value);
}

void tr5_status(uint8_t *status) {
    fpga_read(kFpgaTr5, kTr5Status, status);
}

void report_block_size(int length) {
    printf("FPGA EEP Write ERROR! your specified size(%dbyte) exceed buffer(%dbyte).\n", length,
           kFpgaBlock);
}

// Unlock, address, data words and sum of one TR5 block; a failed step is reported only.
void tr5_block_body(uint32_t address, const uint8_t *data, int length) {
    tr5_write(kTr5UnlockA, kUnlockA);
    tr5_write(kTr5UnlockB, kUnlockB);
    uint8_t status[2] = {0, 0};
    tr5_status(status);
    if (!status_shows(status, 0x10)) {
        printf("FPGA EEP Write ERROR! on xxx1xxx0 detection (0x%02x)\n", status[0]);
        return;
    }
    tr5_write(kTr5Address, static_cast<uint16_t>(address));
    uint8_t block[kFpgaBlock];
    uint8_t sum = copy_block(data, length, block, kFpgaBlock);
    write_block_words(block, kFpgaBlock, kTr5Data, false, tr5_write);
    tr5_status(status);
    if ((status[0] & 0x10) == 0) {
        printf("FPGA EEP Write ERROR! on xxx1xxxx detection (0x%02x)\n", status[0]);
        return;
    }
    tr5_status(status);
    if (!status_shows(status, 0x10)) {
        printf("FPGA EEP Write ERROR! on xxx1xxx0 detection (0x%02x)\n", status[0]);
        return;
    }
    if (status[1] != sum)
        puts("FPGA EEP Checksum ERROR!!");
}

// One wait on the TR6 write status; the poll's result.
int tr6_wait(uint8_t high, uint8_t low) {
    const uint8_t pattern[2] = {high, low};
    return CheckFPGAWriteStatus(pattern, kTr6StatusTimeoutUs);
}

// Unlock, address, data words and sum of one TR6 block: 0 when the sum was confirmed, else 1.
int tr6_block_body(uint32_t address, const uint8_t *data, int length) {
    uint8_t unused[2] = {0, 0};
    fpga_read(kFpgaTr6, kTr6BlockPrepare, unused);
    tr6_write(kTr6UnlockB, kUnlockB);
    usleep(kTr6UnlockPause);
    tr6_write(kTr6UnlockA, kUnlockA);
    usleep(kTr6UnlockPause);
    if (int ret = tr6_wait(0x10, 0x00); ret != 0) {
        printf("FPGA EEP Write ERROR! on xxx1xxx0 detection ret=%d\n", ret);
        return 1;
    }
    tr6_write(kTr6Address, static_cast<uint16_t>(address));
    uint8_t block[kFpgaBlock];
    uint8_t sum = copy_block(data, length, block, kFpgaBlock);
    write_block_words(block, kFpgaBlock, kTr6Data, true, tr6_write);
    if (int ret = tr6_wait(0x10, 0x00); ret != 0) {
        printf("FPGA EEP Write ERROR! on xxx1xxx0 detection ret=%d\n", ret);
        return 1;
    }
    if (tr6_wait(0x00, sum) != 0) {
        puts("FPGA EEP Checksum ERROR!");
        return 1;
    }
    return 0;
}

// Everything of the update but the last line of pin 95; every holder is released on return.
int update_fpga_eeprom(const char *write_dir, int type) {
    const char *prefix = type == kFpgaTr5 ? "tr5_eep" : type == kFpgaTr6 ? "tr6_eep" : nullptr;
    if (prefix == nullptr) {
        if (UniqueDir dir(opendir(write_dir)); !dir)
            printf("**ERROR ** opendir failed on %s\n", write_dir);
        else
            puts("**ERROR ** fpga type fail");
        return -1;
    }
    char path[kEepPathSize] = {};
    if (!find_text_file(write_dir, prefix, "No FPGA EEPROM found", path))
        return -1;
    UniqueFile file(open_eep_text_file(path));
    if (!file)
        return -1;
    EepImage image{fpga_eeprom_buf, sizeof fpga_eeprom_buf, kFpgaBlock};
    uint32_t end_address = 0;
    if (read_eep_image(file.get(), kFpgaLineSize, EEP_LAYOUT_DATA_ONLY, image, &end_address) != 0)
        return -1;
    if (end_address == 0) {
        printf("**ERROR** no EEP block to write in %s\n", path);
        return -1;
    }
    if (send_port_command() != 0 || IsFPGAConfigDone(type) != 1)
        return -1;
    SetFPGAHwReset();
    if (type == kFpgaTr5)
        PIO_BitWrite(kFpgaEepromPin, 1);
    if (int enabled = EnableFPGAEeprom(type); enabled != 0)
        return enabled;
    puts("Start writing to FPGA EEPROM, please wait... ");
    RegisterBlockWriter writer{type == kFpgaTr5 ? WriteFPGAEeprom : WriteFPGAEeprom_TR6, kFpgaBlock,
                               -1};
    eep_block_walk(image, end_address, write_register_block, &writer);
    putchar('\r');
    if (writer.result == 0)
        printf("\r 100%% completed\n");
    return writer.result;
}

} // namespace

int Update_FPGAEeprom(const char *write_dir, const char *, const uint32_t *, int type) {
    int result = update_fpga_eeprom(write_dir, type);
    PIO_BitWrite(kFpgaEepromPin, 0);
    return result;
}

int EnableFPGAEeprom(int type) {
    if (type != kFpgaTr5 && type != kFpgaTr6)
        return 1;
    fpga_write(type, kFpgaPllRestart, 0x0000);
    usleep(kPllRestartPause);
    uint8_t status[2] = {0, 0};
    int same = 0;
    for (int read = 0; read < kPllReads && same < kPllSameReads; ++read) {
        fpga_read(type, kFpgaPllStatus, status);
        same = status_value(status) == kFpgaPllLocked[type] ? same + 1 : 0;
    }
    if (same < kPllSameReads) {
        printf("FPGA EEP ERROR! on checking FPGA PLL lock status(0x%04x).\n", status_value(status));
        return 1;
    }
    if (type == kFpgaTr5) {
        fpga_read(type, kFpgaCalibration, status);
        if (status_value(status) != kCalibrationDone) {
            printf("FPGA EEP ERROR! on checking Calibration done status(0x%04x).\n",
                   status_value(status));
            return 1;
        }
    }
    fpga_write(type, kFpgaEnable, 0x0000);
    return 0;
}

int WriteFPGAEeprom(uint32_t address, const uint8_t *data, int length) {
    if (length > kFpgaBlock)
        report_block_size(length);
    else
        tr5_block_body(address, data, length);
    // The interface is locked after every block, whatever happened in it.
    tr5_write(kTr5UnlockA, 0x0000);
    tr5_write(kTr5UnlockB, 0x0000);
    uint8_t status[2] = {0, 0};
    for (int read = 0; read < kTr5LockReads; ++read) {
        tr5_status(status);
        if (status_shows(status, 0x01))
            return 0;
        puts("FPGA EEP Timeout ERROR!!");
    }
    return 2;
}

int WriteFPGAEeprom_TR6(uint32_t address, const uint8_t *data, int length) {
    int result = 1;
    if (length > kFpgaBlock)
        report_block_size(length);
    else
        result = tr6_block_body(address, data, length);
    tr6_write(kTr6UnlockB, 0x0000);
    tr6_write(kTr6UnlockA, 0x0000);
    if (tr6_wait(0x01, 0x00) == 0)
        return result;
    puts("FPGA EEP Timeout ERROR!!");
    return 2;
}

int CheckFPGAWriteStatus(const uint8_t *pattern, int timeout_us) {
    uint8_t status[2] = {0, 0};
    int elapsed = 0;
    if (poll_status_bits([](uint8_t *s) { fpga_read(kFpgaTr6, kTr6Status, s); }, pattern,
                         timeout_us, status, &elapsed))
        return 0;
    printf("FPGA EEP Write Status check TIMEOUT! on 0x%02x%02x detection(read 0x%02x%02x) %d \n",
           pattern[0], pattern[1], status[0], status[1], elapsed);
    return 1;
}

int ReadFPGAEeprom(uint32_t address, uint8_t *buffer, int length) {
    if (length > kFpgaReadLimit) {
        printf("FPGA EEP Read ERROR! your specified size(%dbyte) exceed buffer(%dbyte).\n", length,
               kFpgaReadLimit);
        return 1;
    }
    tr5_write(kTr5ReadCommand, 0x0007);
    tr5_write(kTr5ReadAddress, static_cast<uint16_t>(address));
    tr5_write(kTr5ReadStart, 0x0001);
    uint8_t status[2] = {0, 0};
    fpga_read(kFpgaTr5, kTr5ReadStart, status);
    if ((status[1] & 0x01) != 0) {
        printf("FPGA EEP Read ERROR! on xxxxxxx0 detection (0x%02x)\n", status[1]);
        return 1;
    }
    uint8_t block[kFpgaReadLimit] = {};
    for (int i = 0; i < kFpgaReadLimit; i += 2)
        fpga_read(kFpgaTr5, static_cast<uint16_t>(kTr5ReadData + i), block + i);
    copy_read_block(block, buffer, length);
    return 0;
}
