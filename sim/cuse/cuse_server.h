// A device node of a simulated board served to the programs of a real Linux system through
// CUSE: the kernel makes the character device /dev/NAME and passes each open, read, write,
// ioctl and close of it as a FUSE request on /dev/cuse; the board's model (Board::open_device)
// answers it as it answers the same call under tvsim. The VM rung serves the TV
// microcontroller's UART, /dev/uat_ucom, this way.
//
// Requests and replies are the kernel's (<linux/fuse.h>): CUSE_INIT names the device; OPEN
// opens the model's device with the program's flags; READ passes the descriptor's current
// flags (O_NONBLOCK); an ioctl reaches the model with its argument by value, or, for a request
// whose number encodes a size and direction, with a pointer to a buffer holding the program's
// data (the kernel copies it in and out); FLUSH succeeds; RELEASE closes the model's device and
// writes state.json; POLL and every other request are not supported (ENOSYS); INTERRUPT gets
// no reply (every request is answered at once).
#pragma once

#include "board/board.h"
#include "board/device.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace tvsim {

class CuseServer {
public:
    // The most data one read or write request carries, and the buffer a request must be read
    // into (the kernel refuses reads into a smaller one).
    static constexpr uint32_t kMaxTransfer = 4096;
    static constexpr size_t kRequestBufferSize = 16384;

    CuseServer(Board &board, std::string device_path);

    // Answers one request as read from /dev/cuse; the reply to write back, or nothing for a
    // request that takes none.
    std::vector<uint8_t> handle(const uint8_t *request, size_t length);

private:
    Device *device(uint64_t handle);

    Board &board_;
    std::string path_;
    std::map<uint64_t, std::unique_ptr<Device>> open_;
    uint64_t next_handle_ = 1;
};

} // namespace tvsim
