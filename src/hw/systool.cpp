#include "hw/systool.h"

#include "run/main.h"

#include <cerrno>
#include <cstring>
#include <sys/ioctl.h>
#include <sys/mman.h>

const sys_mmap_entry sys_mmap_table[SYS_WINDOW_COUNT] = {
    {"PERI", 0x80000000, 0x80000000, 0x2000, 0},
    {"S5LP", 0x80003000, 0x80003000, 0x1000, 0},
};

namespace {

void *window_address(const sys_mmap_entry &entry) {
    return reinterpret_cast<void *>(static_cast<uintptr_t>(entry.virt_addr));
}

} // namespace

int sys_mmap(unsigned window) {
    if (window >= SYS_WINDOW_COUNT)
        return 3;
    const sys_mmap_entry &entry = sys_mmap_table[window];
    mmap_request request;
    memset(&request, 0, sizeof request);
    memcpy(request.name, entry.name, sizeof request.name); // NUL-padded, at most 8 characters
    request.phys_addr = entry.phys_addr;
    request.size = entry.size;
    request.flags = entry.flags;
    if (ioctl(cn_user_fd, SYS_MMAP_REQUEST, &request) == -1)
        return 1;
    void *at = mmap(window_address(entry), entry.size, PROT_READ | PROT_WRITE, MAP_SHARED,
                    cn_user_fd, static_cast<off_t>(request.offset));
    if (at == MAP_FAILED)
        return 2;
    if (at != window_address(entry)) {
        // Registers are reached at their physical addresses only: a mapping anywhere else
        // is of no use and is not kept.
        munmap(at, entry.size);
        errno = EADDRNOTAVAIL;
        return 2;
    }
    return 0;
}

int sys_munmap(unsigned window) {
    if (window >= SYS_WINDOW_COUNT)
        return 0;
    return munmap(window_address(sys_mmap_table[window]), sys_mmap_table[window].size);
}

// Windows are device memory outside anything the address sanitizer of a test build knows:
// register accesses are left uninstrumented.
__attribute__((no_sanitize_address)) uint32_t sys_reg_read(uint32_t phys_addr) {
    return *reinterpret_cast<volatile uint32_t *>(static_cast<uintptr_t>(phys_addr));
}

__attribute__((no_sanitize_address)) void sys_reg_write(uint32_t phys_addr, uint32_t value) {
    *reinterpret_cast<volatile uint32_t *>(static_cast<uintptr_t>(phys_addr)) = value;
}
