// The microcontroller's replies: the input's first byte picks a command, the rest is what the
// microcontroller answers, queued on the far end of a link that never blocks (a read with
// nothing queued returns at once, like the driver after its time-out).
#include "eeprom/eep_update.h"
#include "fuzz_input.h"
#include "tvmicro/tvm_update.h"

#include <cstdlib>
#include <sys/socket.h>
#include <unistd.h>

namespace {

uint8_t block[kTvmEepromBlock];

using Command = int (*)(int fd);
constexpr Command kCommands[] = {
    tvm_GetStatus,
    tvm_GetSoftwareVersion,
    tvm_GetMicroID,
    [](int fd) { return tvmuio_SetPort(fd, 1, 4); },
    [](int fd) { return tvmuio_ClearPort(fd, 1, 4); },
    tvm_SetFlashWritingMode,
    [](int fd) { return tvm_SetGuarddogTime(fd, 0); },
    [](int fd) { return tvm_EraseFlash(fd, 2); },
    [](int fd) { return tvm_WriteFlash(fd, 0x010000, block); },
    [](int fd) { return static_cast<int>(tvm_GetFlashCheckSum(fd, 1)); },
    tvm_CloseWriteFlash,
    [](int fd) { return WriteEeprom(fd, 0x40, block, sizeof block, kTvmEepromOwn); },
    [](int fd) { return ReadEeprom(fd, 0x40, block, sizeof block); },
    [](int fd) { return tvm_PowerOnOff(fd, 1); },
    tvm_setPictureMute,
};
constexpr size_t kCommandCount = sizeof kCommands / sizeof kCommands[0];

} // namespace

void fuzz_one(const uint8_t *data, size_t size) {
    if (size == 0)
        return;
    int link[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, link) != 0)
        abort();
    if (size > 1 && write(link[1], data + 1, size - 1) < 0)
        abort();
    kCommands[data[0] % kCommandCount](link[0]);
    close(link[0]);
    close(link[1]);
}
