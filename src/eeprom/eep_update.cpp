#include "eeprom/eep_update.h"

#include "common/holders.h"
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

bool ferund_allowed(const char *model) {
    for (const FerundModel &m : kFerundModels) {
        if (model != nullptr && strncmp(model, m.prefix, m.length) == 0)
            return true;
    }
    return false;
}

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
