#include "nor/nvlock.h"
#include "common/report.h"

#include "common/holders.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

mmap_request mmap_table[NOR_REGION_COUNT] = {
    {"PIO", 0x01880F00, 0x1000, 0, 0},
    {"NOR", 0x01FC0000, 0x100000, 0, 0},
};

volatile void *mmap_vaddr[NOR_REGION_COUNT] = {nullptr, nullptr};

const nor_sector en29lv800cb_sector_table[NOR_SECTOR_COUNT] = {
    {0x000000, 0x4000},  {0x004000, 0x2000},  {0x006000, 0x2000},  {0x008000, 0x8000},
    {0x010000, 0x10000}, {0x020000, 0x10000}, {0x030000, 0x10000}, {0x040000, 0x10000},
    {0x050000, 0x10000}, {0x060000, 0x10000}, {0x070000, 0x10000}, {0x080000, 0x10000},
    {0x090000, 0x10000}, {0x0A0000, 0x10000}, {0x0B0000, 0x10000}, {0x0C0000, 0x10000},
    {0x0D0000, 0x10000}, {0x0E0000, 0x10000}, {0x0F0000, 0x10000},
};

const nor_sector *sector_table = en29lv800cb_sector_table;

namespace {

constexpr unsigned kProtectAttempts = 25;
constexpr unsigned kUnprotectAttempts = 1000;
constexpr useconds_t kVidSettleUs = 1;
constexpr useconds_t kProtectPulseUs = 150;
constexpr useconds_t kVerifyUs = 1;
constexpr useconds_t kUnprotectPulseUs = 15000;

void nor_write(uint32_t offset, uint16_t value) {
    auto *base = static_cast<volatile uint8_t *>(mmap_vaddr[NOR_REGION_NOR]);
    *reinterpret_cast<volatile uint16_t *>(base + offset) = value;
}

uint16_t nor_read(uint32_t offset) {
    auto *base = static_cast<volatile uint8_t *>(mmap_vaddr[NOR_REGION_NOR]);
    return *reinterpret_cast<volatile uint16_t *>(base + offset);
}

void pio_write(uint32_t offset, uint32_t value) {
    auto *base = static_cast<volatile uint8_t *>(mmap_vaddr[NOR_REGION_PIO]);
    *reinterpret_cast<volatile uint32_t *>(base + offset) = value;
}

// One protect cycle on a sector; true when it verifies as protected.
bool protect_cycle(uint32_t sa) {
    nor_write(sa + 4, 0x60);
    usleep(kProtectPulseUs);
    nor_write(sa + 4, 0x40);
    usleep(kVerifyUs);
    return nor_read(sa + 4) == 1;
}

// The verify step of an unprotect attempt on one sector; true when it reads unprotected.
bool unprotect_verify(uint32_t sa) {
    nor_write(sa + 0x84, 0x40);
    usleep(kVerifyUs);
    return nor_read(sa + 0x84) == 0;
}

int protect_run(unsigned first, unsigned last, int mode) {
    enter_protect_mode();
    unsigned count = last - first + 1;
    int r = mode == NVLOCK_PROTECT ? lock_sectors(first, count) : unlock_sectors(first, count);
    exit_protect_mode();
    return r;
}

void list_sectors(unsigned first, unsigned last) {
    enter_autoselect_mode();
    for (unsigned s = first; s <= last; ++s)
        printf("sector %2d(%08lX) %s\n", static_cast<int>(s),
               static_cast<unsigned long>(sector_table[s].offset),
               is_sector_locked(s) != 0 ? "locked" : "unlocked");
    reset_mode();
}

} // namespace

bool nor_sector_range(uint32_t start, uint32_t length, unsigned *first, unsigned *last) {
    unsigned s = 0;
    while (s < NOR_SECTOR_COUNT && !(start >= sector_table[s].offset &&
                                     start - sector_table[s].offset < sector_table[s].size))
        ++s;
    if (s == NOR_SECTOR_COUNT) {
        printf("error: 0x%X exceeds device size\n", start);
        return false;
    }
    *first = s;
    *last = NOR_SECTOR_COUNT - 1;
    uint64_t end = static_cast<uint64_t>(start) + length;
    for (unsigned t = 0; t < NOR_SECTOR_COUNT; ++t) {
        if (sector_table[t].offset < end && end <= sector_table[t].offset + sector_table[t].size)
            *last = t;
    }
    // An empty range that ends on a sector boundary would end below its first sector.
    if (*last < *first)
        *last = *first;
    return true;
}

int map_regs() {
    UniqueFd fd(open(NOR_DIRECT_DEVICE, O_RDWR | O_CLOEXEC));
    if (!fd.valid()) {
        report_error("open");
        return 1;
    }
    for (unsigned i = 0; i < NOR_REGION_COUNT; ++i) {
        mmap_table[i].offset = 0;
        if (ioctl(fd.get(), NOR_MMAP_REQUEST, &mmap_table[i]) == -1) {
            report_error("ioctl");
            unmap_regs();
            return 1;
        }
        void *at = mmap(nullptr, mmap_table[i].size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(),
                        static_cast<off_t>(mmap_table[i].offset));
        if (at == MAP_FAILED) {
            report_error("mmap");
            unmap_regs();
            return 1;
        }
        mmap_vaddr[i] = at;
    }
    return 0;
}

void unmap_regs() {
    for (unsigned i = 0; i < NOR_REGION_COUNT; ++i) {
        if (mmap_vaddr[i] != nullptr)
            munmap(const_cast<void *>(mmap_vaddr[i]), mmap_table[i].size);
        mmap_vaddr[i] = nullptr;
    }
}

int set_vid(int on) {
    pio_write(on ? NOR_VID_ON_REG : NOR_VID_OFF_REG, 1);
    return 0;
}

int reset_mode() {
    nor_write(0, 0xF0);
    return 0;
}

int enter_autoselect_mode() {
    nor_write(0xAAA, 0xAA);
    nor_write(0x554, 0x55);
    nor_write(0xAAA, 0x90);
    return 0;
}

uint16_t is_sector_locked(unsigned sector) {
    return nor_read(sector_table[sector].offset + 4);
}

int enter_protect_mode() {
    set_vid(1);
    usleep(kVidSettleUs);
    nor_write(0, 0x60);
    return 0;
}

int exit_protect_mode() {
    set_vid(0);
    return reset_mode();
}

int lock_sectors(unsigned first, unsigned count) {
    for (unsigned s = first; s < first + count; ++s) {
        unsigned attempt = 0;
        while (attempt < kProtectAttempts && !protect_cycle(sector_table[s].offset))
            ++attempt;
        if (attempt == kProtectAttempts) {
            printf("FAILED\n");
            return -1;
        }
    }
    return 0;
}

int unlock_sectors(unsigned first, unsigned count) {
    for (unsigned attempt = 0; attempt < kUnprotectAttempts; ++attempt) {
        nor_write(sector_table[first].offset + 0x84, 0x60);
        usleep(kUnprotectPulseUs);
        unsigned s = first;
        while (s < first + count && unprotect_verify(sector_table[s].offset))
            ++s;
        if (s == first + count)
            return 0;
        printf("Retrying\n");
    }
    printf("FAILED\n");
    return -1;
}

int nvLock(uint32_t start, uint32_t length, int mode) {
    unsigned first = 0;
    unsigned last = 0;
    if (!nor_sector_range(start, length, &first, &last))
        return -1;
    if (map_regs() != 0)
        return 1;
    int result = 0;
    if (mode == NVLOCK_PROTECT || mode == NVLOCK_UNPROTECT)
        result = protect_run(first, last, mode);
    else
        list_sectors(first, last);
    unmap_regs();
    return result;
}
