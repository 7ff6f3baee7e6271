#include "board/device.h"

#include "board/board.h"

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

DeviceMapping Device::map(int64_t, size_t) {
    errno = ENODEV;
    return {};
}

namespace {

json register_event(std::string_view space, std::string_view name, std::string_view op,
                    uint32_t address, uint32_t value, unsigned width) {
    json event{{"op", op},
               {"window", space},
               {"addr", hex_text(address, 8)},
               {"value", hex_text(value, 8)}};
    if (!name.empty())
        event["reg"] = name;
    if (width != 4)
        event["width"] = width;
    return event;
}

uint32_t lane_mask(unsigned width) {
    return width >= 4 ? ~0u : (1u << (8 * width)) - 1;
}

} // namespace

uint32_t RegisterSpace::load_narrow(uint32_t address, unsigned width) {
    unsigned shift = 8 * (address & 3);
    return (load(address & ~3u) >> shift) & lane_mask(width);
}

void RegisterSpace::store_narrow(uint32_t address, uint32_t value, unsigned width) {
    unsigned shift = 8 * (address & 3);
    uint32_t mask = lane_mask(width) << shift;
    uint32_t word = load(address & ~3u);
    store(address & ~3u, (word & ~mask) | ((value << shift) & mask));
}

// Device memory takes no unaligned access: the alignment fault it raises is fixed up by the
// kernel, which carries the access out as byte accesses, lowest address first.
uint32_t RegisterSpace::read(uint32_t address, unsigned width) {
    if (address % width != 0) {
        uint32_t value = 0;
        for (unsigned i = 0; i < width; ++i)
            value |= read(address + i, 1) << (8 * i);
        return value;
    }
    uint32_t value = width == 4 ? load(address) : load_narrow(address, width);
    board_.trace("reg",
                 register_event(name_, register_name(address), "read", address, value, width));
    return value;
}

void RegisterSpace::write(uint32_t address, uint32_t value, unsigned width) {
    if (address % width != 0) {
        for (unsigned i = 0; i < width; ++i)
            write(address + i, value >> (8 * i), 1);
        return;
    }
    value &= lane_mask(width);
    board_.trace("reg",
                 register_event(name_, register_name(address), "write", address, value, width));
    if (width == 4)
        store(address, value);
    else
        store_narrow(address, value, width);
}

} // namespace tvsim
