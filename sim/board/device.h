// A device node of the simulated board. Opening a node gives the program a real descriptor;
// its read, write, ioctl, lseek and close calls reach the device's model through this
// interface. Each call answers as the kernel would: a result, or -1 with errno set.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace tvsim {

class Board;

class Device {
public:
    explicit Device(Board &board) : board_(board) {}
    virtual ~Device() = default;
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;

    virtual ssize_t read(void *buf, size_t count);
    virtual ssize_t write(const void *buf, size_t count);
    // arg is the call's third argument as one pointer-sized value.
    virtual int ioctl(unsigned long request, uintptr_t arg);
    virtual int64_t lseek(int64_t offset, int whence);
    // Called once when the program closes its descriptor.
    virtual void close() {}

protected:
    Board &board_;
};

} // namespace tvsim
