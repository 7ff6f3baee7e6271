// Register windows: fixed stretches of the SoC's physical register space, mapped through the
// board control device (cn_user_fd) at a virtual address equal to their physical address, so
// that a register is then reached by using its physical address as a pointer.
#pragma once

#include <cstdint>

// One row of sys_mmap_table.
struct sys_mmap_entry {
    char name[8]; // NUL-padded
    uint32_t phys_addr;
    uint32_t virt_addr; // where the mapping must land
    uint32_t size;
    uint32_t flags; // handed to the control driver unchanged
};

// The control driver's map request record, byte for byte (24 bytes, little-endian).
struct mmap_request {
    char name[8];
    uint32_t phys_addr;
    uint32_t size;
    uint32_t flags;
    uint32_t offset; // 0 when sent; the driver leaves the file offset to map here
};
static_assert(sizeof(mmap_request) == 24, "the driver's record is 24 bytes");

// The map request on the board control device.
constexpr unsigned long SYS_MMAP_REQUEST = 0xCF30;

// Window indexes.
constexpr unsigned SYS_WINDOW_PERI = 0;
constexpr unsigned SYS_WINDOW_S5LP = 1;
constexpr unsigned SYS_WINDOW_COUNT = 2;

extern const sys_mmap_entry sys_mmap_table[SYS_WINDOW_COUNT];

// Maps a window at its virt_addr: 0 when mapped there, 1 when the control driver refused the
// request, 2 when the mapping failed or landed elsewhere (a misplaced mapping is released at
// once, errno EADDRNOTAVAIL), 3 for an index beyond the table.
int sys_mmap(unsigned window);
// Unmaps a window: munmap's result, or 0 for an index beyond the table.
int sys_munmap(unsigned window);

// A 32-bit register of a mapped window, reached at its physical address.
uint32_t sys_reg_read(uint32_t phys_addr);
void sys_reg_write(uint32_t phys_addr, uint32_t value);

// A window mapped for the holder's lifetime; unmapped only when the mapping succeeded.
class MappedWindow {
public:
    explicit MappedWindow(unsigned window) : window_(window), result_(sys_mmap(window)) {}
    ~MappedWindow() {
        if (result_ == 0)
            sys_munmap(window_);
    }
    MappedWindow(const MappedWindow &) = delete;
    MappedWindow &operator=(const MappedWindow &) = delete;

    bool mapped() const { return result_ == 0; }

private:
    unsigned window_;
    int result_;
};
