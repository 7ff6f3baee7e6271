#include "board/device.h"

#include "board/board.h"

#include <cerrno>
#include <cstdio>

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

DeviceMapping Device::map(int64_t, size_t) {
    errno = ENODEV;
    return {};
}

namespace {

std::string hex32(uint32_t value) {
    char text[11];
    snprintf(text, sizeof text, "0x%08x", value);
    return text;
}

json register_event(std::string_view space, std::string_view name, std::string_view op,
                    uint32_t address, uint32_t value, std::string_view seen) {
    json event{{"op", op}, {"window", space}, {"addr", hex32(address)}, {"value", hex32(value)}};
    if (!name.empty())
        event["reg"] = name;
    if (!seen.empty())
        event["seen"] = seen;
    return event;
}

} // namespace

uint32_t RegisterSpace::read(uint32_t address, std::string_view seen) {
    uint32_t value = load(address);
    board_.trace("reg",
                 register_event(name_, register_name(address), "read", address, value, seen));
    return value;
}

void RegisterSpace::write(uint32_t address, uint32_t value, std::string_view seen) {
    board_.trace("reg",
                 register_event(name_, register_name(address), "write", address, value, seen));
    store(address, value);
}

} // namespace tvsim
