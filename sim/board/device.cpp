#include "board/device.h"

#include <cerrno>

namespace tvsim {

ssize_t Device::read(void *, size_t) {
    errno = EINVAL;
    return -1;
}

ssize_t Device::write(const void *, size_t) {
    errno = EINVAL;
    return -1;
}

int Device::ioctl(unsigned long, uintptr_t) {
    errno = ENOTTY;
    return -1;
}

int64_t Device::lseek(int64_t, int) {
    errno = ESPIPE;
    return -1;
}

} // namespace tvsim
