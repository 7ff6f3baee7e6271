// Drivers that map register windows into a program: the board control device "/dev/cn_user"
// (the SoC's windows) and the NOR direct-access driver "/dev/udirect" (see nor_flash.h).
//
// A map request (the driver's request number with the 24-byte mmap_request record: name[8],
// phys_addr, size, flags, offset) names a window; the driver answers with the file offset at
// which the window can then be mapped (an offset of the driver's own, not the physical
// address), and a shared mmap of the same descriptor at that offset reaches the window's
// registers. A window that was not requested on the descriptor first cannot be mapped
// (EINVAL); a request whose name, address or size is not one of the driver's windows is
// refused (EINVAL), as is any other request number (ENOTTY).
//
// Faults: "map_request" (target: the window name) refuses the request with "errno" (EIO);
// "mmap" (target: the window name) fails the mapping with "errno" (ENOMEM), or with
// "elsewhere": true places it away from the address the program asked for.
#pragma once

#include "board/board.h"
#include "board/device.h"
#include "board/registers.h"

#include <span>
#include <vector>

namespace tvsim {

class WindowDriver : public Device {
public:
    using RegistersOf = std::unique_ptr<RegisterSpace> (*)(Board &, const SocWindow &);

    WindowDriver(Board &board, unsigned long request, std::span<const SocWindow> windows,
                 RegistersOf registers_of);

    int ioctl(unsigned long request, uintptr_t arg) override;
    DeviceMapping map(int64_t offset, size_t length) override;

private:
    size_t window_index(std::string_view name) const;

    unsigned long request_;
    std::span<const SocWindow> windows_;
    RegistersOf registers_of_;
    std::vector<bool> requested_; // windows this descriptor has asked for
};

std::unique_ptr<Device> open_control_device(Board &board, std::string_view path, int flags,
                                            int *err);

} // namespace tvsim
