// A device node of the simulated board. Opening a node gives the program a real descriptor;
// its read, write, ioctl, lseek and close calls reach the device's model through this
// interface. Each call answers as the kernel would: a result, or -1 with errno set.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <sys/sysmacros.h>
#include <sys/types.h>
#include <vector>

namespace tvsim {

class Board;

// Registers that a program reaches through a mapping of a device (a register window): loads
// and stores of 1, 2 or 4 bytes at physical addresses, seen one by one and in order. Every
// access is traced ("reg" events) with its value.
class RegisterSpace {
public:
    RegisterSpace(Board &board, std::string name) : board_(board), name_(std::move(name)) {}
    virtual ~RegisterSpace() = default;
    RegisterSpace(const RegisterSpace &) = delete;
    RegisterSpace &operator=(const RegisterSpace &) = delete;

    // The program reads or writes width bytes at address (an unaligned access arrives as the
    // byte accesses the kernel makes of it).
    uint32_t read(uint32_t address, unsigned width = 4);
    void write(uint32_t address, uint32_t value, unsigned width = 4);

protected:
    // Aligned 32-bit accesses.
    virtual uint32_t load(uint32_t address) = 0;
    virtual void store(uint32_t address, uint32_t value) = 0;
    // Narrower accesses. By default they reach the byte lanes of the word that holds address:
    // a read takes them from the word, a write merges them into the word read.
    virtual uint32_t load_narrow(uint32_t address, unsigned width);
    virtual void store_narrow(uint32_t address, uint32_t value, unsigned width);
    // A register's name for the trace, or "".
    virtual std::string register_name(uint32_t) const { return ""; }

    Board &board_;

private:
    std::string name_;
};

// What a program's mmap of a device reaches.
struct DeviceMapping {
    std::unique_ptr<RegisterSpace> registers; // null, with errno set, when it cannot be mapped
    uint32_t phys_base = 0;                   // physical address of the mapping's first byte
    bool elsewhere = false;                   // an injected fault: not placed at the hint
};

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
    // Maps length bytes of the device at file offset offset (ENODEV by default).
    virtual DeviceMapping map(int64_t offset, size_t length);
    // The device number a stat of the node reports (a character device).
    virtual dev_t node_number() const { return makedev(10, 0); }
    // Called once when the program closes its descriptor.
    virtual void close() {}

    // The flags the node was opened with (O_RDWR, O_NONBLOCK, ...).
    int open_flags() const { return open_flags_; }
    void set_open_flags(int flags) { open_flags_ = flags; }

protected:
    Board &board_;

private:
    int open_flags_ = 0;
};

} // namespace tvsim
