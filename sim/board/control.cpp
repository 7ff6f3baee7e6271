#include "board/control.h"

#include "board/device.h"

namespace tvsim {

namespace {

class ControlDevice : public Device {
public:
    using Device::Device;
};

} // namespace

std::unique_ptr<Device> open_control_device(Board &board, std::string_view path, int, int *err) {
    if (path != "/dev/cn_user")
        return nullptr;
    *err = 0;
    return std::make_unique<ControlDevice>(board);
}

} // namespace tvsim
