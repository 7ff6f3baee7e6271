#include "board/control.h"

#include "board/device.h"
#include "board/registers.h"

#include <cerrno>
#include <cstring>

namespace tvsim {

namespace {

constexpr unsigned long kMapRequest = 0xCF30;

// The driver's map request record, byte for byte.
struct MapRequestRecord {
    char name[8];
    uint32_t phys_addr;
    uint32_t size;
    uint32_t flags;
    uint32_t offset;
};
static_assert(sizeof(MapRequestRecord) == 24);

const SocWindow *window_named(std::string_view name) {
    for (const SocWindow &w : kSocWindows) {
        if (name == w.name)
            return &w;
    }
    return nullptr;
}

class ControlDevice : public Device {
public:
    using Device::Device;

    int ioctl(unsigned long request, uintptr_t arg) override {
        if (static_cast<uint32_t>(request) != kMapRequest) {
            errno = ENOTTY;
            return -1;
        }
        auto *record = reinterpret_cast<MapRequestRecord *>(arg);
        std::string name(record->name, strnlen(record->name, sizeof record->name));
        json event{{"name", name},
                   {"phys_addr", record->phys_addr},
                   {"size", record->size},
                   {"flags", record->flags}};
        const SocWindow *window = window_named(name);
        int err = 0;
        if (window == nullptr || window->phys_base != record->phys_addr ||
            window->size != record->size)
            err = EINVAL;
        else if (const json *fault = board_.take_fault("map_request", name))
            err = errno_from_name(fault->value("errno", json("EIO")));
        if (err != 0) {
            event["errno"] = err;
            board_.trace("map_request", event);
            errno = err;
            return -1;
        }
        record->offset = window->phys_base;
        event["offset"] = record->offset;
        board_.trace("map_request", event);
        return 0;
    }

    DeviceMapping map(int64_t offset, size_t length) override {
        for (const SocWindow &w : kSocWindows) {
            if (offset != w.phys_base || length == 0 || length > w.size)
                continue;
            DeviceMapping mapping;
            if (const json *fault = board_.take_fault("mmap", w.name)) {
                if (!fault->value("elsewhere", false)) {
                    errno = errno_from_name(fault->value("errno", json("ENOMEM")));
                    return {};
                }
                mapping.elsewhere = true;
            }
            mapping.registers = soc_registers(board_, w);
            mapping.phys_base = w.phys_base;
            return mapping;
        }
        errno = EINVAL;
        return {};
    }
};

} // namespace

std::unique_ptr<Device> open_control_device(Board &board, std::string_view path, int, int *err) {
    if (path != "/dev/cn_user")
        return nullptr;
    *err = 0;
    return std::make_unique<ControlDevice>(board);
}

} // namespace tvsim
