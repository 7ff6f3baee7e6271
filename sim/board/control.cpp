#include "board/control.h"

#include <cerrno>
#include <cstring>

namespace tvsim {

namespace {

constexpr unsigned long kControlMapRequest = 0xCF30;

// The drivers' map request record, byte for byte.
struct MapRequestRecord {
    char name[8];
    uint32_t phys_addr;
    uint32_t size;
    uint32_t flags;
    uint32_t offset;
};
static_assert(sizeof(MapRequestRecord) == 24);

// The file offset a driver hands out for window i: its own numbering, unrelated to the
// window's physical address, so a program must use what the request returned.
constexpr uint32_t driver_offset(size_t i) {
    return static_cast<uint32_t>((i + 1) << 20);
}

} // namespace

WindowDriver::WindowDriver(Board &board, unsigned long request, std::span<const SocWindow> windows,
                           RegistersOf registers_of)
    : Device(board), request_(request), windows_(windows), registers_of_(registers_of),
      requested_(windows.size(), false) {}

size_t WindowDriver::window_index(std::string_view name) const {
    for (size_t i = 0; i < windows_.size(); ++i) {
        if (name == windows_[i].name)
            return i;
    }
    return windows_.size();
}

int WindowDriver::ioctl(unsigned long request, uintptr_t arg) {
    if (static_cast<uint32_t>(request) != request_) {
        errno = ENOTTY;
        return -1;
    }
    auto *record = reinterpret_cast<MapRequestRecord *>(arg);
    std::string name(record->name, strnlen(record->name, sizeof record->name));
    json event{{"name", name},
               {"phys_addr", record->phys_addr},
               {"size", record->size},
               {"flags", record->flags}};
    size_t index = window_index(name);
    int err = 0;
    if (index == windows_.size() || windows_[index].phys_base != record->phys_addr ||
        windows_[index].size != record->size)
        err = EINVAL;
    else if (const json *fault = board_.take_fault("map_request", name))
        err = errno_from_name(fault->value("errno", json("EIO")));
    if (err != 0) {
        event["errno"] = err;
        board_.trace("map_request", event);
        errno = err;
        return -1;
    }
    record->offset = driver_offset(index);
    requested_[index] = true;
    event["offset"] = record->offset;
    board_.trace("map_request", event);
    return 0;
}

DeviceMapping WindowDriver::map(int64_t offset, size_t length) {
    for (size_t i = 0; i < windows_.size(); ++i) {
        const SocWindow &w = windows_[i];
        if (!requested_[i] || offset != driver_offset(i) || length == 0 || length > w.size)
            continue;
        DeviceMapping mapping;
        if (const json *fault = board_.take_fault("mmap", w.name)) {
            if (!fault->value("elsewhere", false)) {
                errno = errno_from_name(fault->value("errno", json("ENOMEM")));
                return {};
            }
            mapping.elsewhere = true;
        }
        mapping.registers = registers_of_(board_, w);
        mapping.phys_base = w.phys_base;
        return mapping;
    }
    errno = EINVAL;
    return {};
}

std::unique_ptr<Device> open_control_device(Board &board, std::string_view path, int, int *err) {
    if (path != "/dev/cn_user")
        return nullptr;
    *err = 0;
    return std::make_unique<WindowDriver>(board, kControlMapRequest, kSocWindows, soc_registers);
}

} // namespace tvsim
