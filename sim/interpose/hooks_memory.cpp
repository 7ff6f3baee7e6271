// Register windows: a program maps a board device's descriptor and then reaches the device's
// registers with plain loads and stores at the mapped addresses. The simulator has to see each
// of those accesses so that the models can react (a pin write, a status read).
//
// Two ways, chosen by what the processor under the program offers:
//
// - Observed (x86-64): the window is mapped without any access right. Each access faults
//   (SIGSEGV); the handler opens the window, supplies the register's current value for a
//   read, and sets the trap flag so that exactly the one faulting instruction runs. The
//   following SIGTRAP applies the value of a write, closes the window again and clears the
//   flag. Every read and write reaches the model in order, with its value.
// - Compared (elsewhere, such as armhf under qemu-user, which has no single-step): the window
//   is mapped readable and writable and filled with the registers' values when it is mapped
//   (traced as reads, "seen": "map"); when it is unmapped, every word that differs from what
//   was supplied is applied as a write ("seen": "unmap"). This suffices for a program that
//   maps a window around each access; a write of the value already there goes unseen.
//
// The kernel's rules come first: the board's register drivers map device memory shared only
// (a private mapping is refused with EINVAL), a descriptor not open for reading cannot be
// mapped and one open read-only cannot be mapped writable (EACCES). A window keeps the access
// the program asked for: a store to a window mapped without PROT_WRITE faults, as on the board.
//
// A window lands at the address the program asks for when that range is free. A program built
// with the address sanitizer keeps its shadow memory where the control device's windows live
// (0x80000000 is shadow of the otherwise unused addresses 0x40000-0x60000); there the window
// replaces that stretch of shadow while it is mapped and the shadow is put back afterwards.
#include "interpose/session.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <ucontext.h>

using tvsim::json;
using tvsim::interpose::Hook;

extern "C" {
void *mmap64(void *addr, size_t length, int prot, int flags, int fd, off64_t offset);
}

namespace {

#if defined(__x86_64__)
constexpr bool kObserved = true;
constexpr greg_t kTrapFlag = 0x100;
constexpr greg_t kWriteFault = 0x2; // page fault error code: the access was a write
#else
constexpr bool kObserved = false;
#endif

constexpr int kMaxWindows = 8;

// Plain data: hooks may run before constructors and after destructors.
struct Window {
    uintptr_t addr;
    size_t length;
    uint32_t phys_base;
    tvsim::RegisterSpace *registers;
    int prot;             // the access the program mapped it with
    uint32_t *supplied;   // compared windows: the words as mapped
    bool replaced_shadow; // placed over the address sanitizer's shadow
};

Window g_windows[kMaxWindows];
int g_window_count = 0;

Window *window_starting_at(uintptr_t address) {
    for (int i = 0; i < g_window_count; ++i) {
        if (g_windows[i].addr == address)
            return &g_windows[i];
    }
    return nullptr;
}

// Window memory is never instrumented: in a sanitized build its shadow is not addressable.
__attribute__((no_sanitize_address)) uint32_t peek(uintptr_t word) {
    return *reinterpret_cast<volatile uint32_t *>(word);
}

__attribute__((no_sanitize_address)) void poke(uintptr_t word, uint32_t value) {
    *reinterpret_cast<volatile uint32_t *>(word) = value;
}

// --- placing a window ---------------------------------------------------------------------

bool sanitizer_shadow_at(uintptr_t address, size_t length) {
#if defined(__x86_64__)
    // The address sanitizer's shadow of the low application memory on x86-64 Linux.
    constexpr uintptr_t kLowShadowBegin = 0x7fff8000;
    constexpr uintptr_t kLowShadowEnd = 0x8fff7000;
    static const bool sanitized = dlsym(RTLD_DEFAULT, "__asan_init") != nullptr;
    return sanitized && address >= kLowShadowBegin && address + length <= kLowShadowEnd;
#else
    (void)address;
    (void)length;
    return false;
#endif
}

void *anonymous_mapping(void *at, size_t length, int prot, int extra_flags) {
    return TVSIM_REAL(mmap)(at, length, prot, MAP_PRIVATE | MAP_ANONYMOUS | extra_flags, -1, 0);
}

// Maps length bytes for a window at hint when that is possible, else wherever the kernel puts
// them (the program sees the address and decides). MAP_FAILED with errno on failure.
void *place_window(void *hint, size_t length, int prot, bool elsewhere, bool *replaced_shadow) {
    *replaced_shadow = false;
    if (elsewhere || hint == nullptr)
        return anonymous_mapping(nullptr, length, prot, 0);
    void *at = anonymous_mapping(hint, length, prot, MAP_FIXED_NOREPLACE);
    if (at != MAP_FAILED)
        return at; // at the hint, or near it where the flag is not known (qemu-user)
    if (errno == EEXIST && sanitizer_shadow_at(reinterpret_cast<uintptr_t>(hint), length)) {
        *replaced_shadow = true;
        return anonymous_mapping(hint, length, prot, MAP_FIXED);
    }
    return anonymous_mapping(hint, length, prot, 0);
}

void release_window_memory(const Window &w) {
    void *at = reinterpret_cast<void *>(w.addr);
    if (w.replaced_shadow)
        anonymous_mapping(at, w.length, PROT_READ | PROT_WRITE, MAP_FIXED | MAP_NORESERVE);
    else
        TVSIM_REAL(munmap)(at, w.length);
}

// --- observed windows -----------------------------------------------------------------------

#if defined(__x86_64__)
// The access let through by the trap flag.
struct PendingAccess {
    Window *window;
    uintptr_t word;
    bool write;
};
PendingAccess g_pending = {nullptr, 0, false};

struct sigaction g_previous_segv;
struct sigaction g_previous_trap;
bool g_handlers_installed = false;

Window *window_at(uintptr_t address) {
    for (int i = 0; i < g_window_count; ++i) {
        if (address >= g_windows[i].addr && address - g_windows[i].addr < g_windows[i].length)
            return &g_windows[i];
    }
    return nullptr;
}

uint32_t phys_of(const Window &w, uintptr_t word) {
    return w.phys_base + static_cast<uint32_t>(word - w.addr);
}

void set_access(const Window &w, int prot) {
    mprotect(reinterpret_cast<void *>(w.addr), w.length, prot);
}

// A fault that is not a window access goes to whoever handled it before.
void pass_on(int sig, siginfo_t *info, void *context, const struct sigaction &previous) {
    if ((previous.sa_flags & SA_SIGINFO) != 0 && previous.sa_sigaction != nullptr) {
        previous.sa_sigaction(sig, info, context);
    } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
        previous.sa_handler(sig);
    } else {
        // Default action: returning repeats the fault, which now ends the process.
        sigaction(sig, &previous, nullptr);
    }
}

void on_window_fault(int sig, siginfo_t *info, void *context) {
    int saved_errno = errno;
    auto *uc = static_cast<ucontext_t *>(context);
    Window *w = window_at(reinterpret_cast<uintptr_t>(info->si_addr));
    if (w == nullptr || g_pending.window != nullptr) {
        pass_on(sig, info, context, g_previous_segv);
        errno = saved_errno;
        return;
    }
    uintptr_t word = reinterpret_cast<uintptr_t>(info->si_addr) & ~uintptr_t{3};
    bool write = (uc->uc_mcontext.gregs[REG_ERR] & kWriteFault) != 0;
    if ((w->prot & (write ? PROT_WRITE : PROT_READ)) == 0) {
        pass_on(sig, info, context, g_previous_segv); // the program's own fault
        errno = saved_errno;
        return;
    }
    set_access(*w, PROT_READ | PROT_WRITE);
    if (!write) {
        // The fault comes from a plain load in the program, never from inside the C library,
        // so the model may allocate and write its trace here.
        Hook hook;
        try {
            poke(word, hook.active() ? w->registers->read(phys_of(*w, word)) : 0);
        } catch (...) {
            poke(word, 0);
        }
    }
    g_pending = {w, word, write};
    uc->uc_mcontext.gregs[REG_EFL] |= kTrapFlag;
    errno = saved_errno;
}

void on_single_step(int sig, siginfo_t *info, void *context) {
    if (g_pending.window == nullptr) {
        pass_on(sig, info, context, g_previous_trap);
        return;
    }
    int saved_errno = errno;
    auto *uc = static_cast<ucontext_t *>(context);
    uc->uc_mcontext.gregs[REG_EFL] &= ~kTrapFlag;
    PendingAccess done = g_pending;
    g_pending = {nullptr, 0, false};
    if (done.write) {
        Hook hook;
        try {
            if (hook.active())
                done.window->registers->write(phys_of(*done.window, done.word), peek(done.word));
        } catch (...) {
        }
    }
    set_access(*done.window, PROT_NONE);
    errno = saved_errno;
}

bool install_handlers() {
    if (g_handlers_installed)
        return true;
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    action.sa_sigaction = on_window_fault;
    if (sigaction(SIGSEGV, &action, &g_previous_segv) != 0)
        return false;
    action.sa_sigaction = on_single_step;
    if (sigaction(SIGTRAP, &action, &g_previous_trap) != 0) {
        sigaction(SIGSEGV, &g_previous_segv, nullptr);
        return false;
    }
    g_handlers_installed = true;
    return true;
}
#else
bool install_handlers() {
    return false;
}
#endif

// --- compared windows ---------------------------------------------------------------------

// Fills the window with the registers' values and keeps a copy to compare with at unmap.
void supply_values(Window &w) {
    size_t words = w.length / 4;
    w.supplied = new uint32_t[words]();
    for (uint32_t address :
         w.registers->registers_in(w.phys_base, static_cast<uint32_t>(w.length))) {
        size_t index = (address - w.phys_base) / 4;
        w.supplied[index] = w.registers->read(address, "map");
    }
    for (size_t i = 0; i < words; ++i)
        poke(w.addr + i * 4, w.supplied[i]);
    mprotect(reinterpret_cast<void *>(w.addr), w.length, w.prot);
}

void apply_changed_words(const Window &w) {
    for (size_t i = 0; i < w.length / 4; ++i) {
        uint32_t now = peek(w.addr + i * 4);
        if (now != w.supplied[i])
            w.registers->write(w.phys_base + static_cast<uint32_t>(i * 4), now, "unmap");
    }
}

// --- the hooks ----------------------------------------------------------------------------

std::string hex(uint64_t value) {
    char text[24];
    snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

// errno the kernel gives a mapping of a device with these arguments, or 0.
int mapping_refusal(const tvsim::Device &device, int prot, int flags) {
    int type = flags & MAP_TYPE;
    if (type != MAP_SHARED && type != MAP_SHARED_VALIDATE)
        return EINVAL;
    int access = device.open_flags() & O_ACCMODE;
    if (access == O_WRONLY || (access == O_RDONLY && (prot & PROT_WRITE) != 0))
        return EACCES;
    return 0;
}

void *map_device(Hook &hook, tvsim::Device *device, void *hint, size_t length, int prot, int flags,
                 int fd, int64_t offset) {
    if (int err = mapping_refusal(*device, prot, flags)) {
        hook.board().trace("mmap", {{"fd", fd}, {"errno", err}});
        errno = err;
        return MAP_FAILED;
    }
    tvsim::DeviceMapping mapping = device->map(offset, length);
    if (!mapping.registers)
        return MAP_FAILED;
    if (g_window_count == kMaxWindows || length < 4) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    bool observed = kObserved && install_handlers();
    bool replaced_shadow = false;
    void *at = place_window(hint, length, observed ? PROT_NONE : PROT_READ | PROT_WRITE,
                            mapping.elsewhere, &replaced_shadow);
    hook.board().trace(
        "mmap", {{"fd", fd},
                 {"offset", hex(static_cast<uint64_t>(offset))},
                 {"length", length},
                 {"addr", at == MAP_FAILED ? json() : json(hex(reinterpret_cast<uintptr_t>(at)))}});
    if (at == MAP_FAILED)
        return MAP_FAILED;
    Window &w = g_windows[g_window_count++];
    w = {reinterpret_cast<uintptr_t>(at),
         length,
         mapping.phys_base,
         mapping.registers.release(),
         prot,
         nullptr,
         replaced_shadow};
    if (!observed)
        supply_values(w);
    return at;
}

template <typename RealMmap>
void *mmap_on_board(RealMmap real, void *addr, size_t length, int prot, int flags, int fd,
                    int64_t offset) {
    if (fd >= 0 && tvsim::interpose::any_device_open()) {
        Hook hook;
        tvsim::Device *device = hook.active() ? tvsim::interpose::device_at(fd) : nullptr;
        if (device != nullptr) {
            try {
                return map_device(hook, device, addr, length, prot, flags, fd, offset);
            } catch (...) {
                errno = ENOMEM;
                return MAP_FAILED;
            }
        }
        hook.restore_errno();
    }
    return real(addr, length, prot, flags, fd, offset);
}

int unmap_window(Window *w) {
    Hook hook;
    try {
        // Off the board (a test that detached first) the registers' board is gone.
        if (hook.active() && w->supplied != nullptr)
            apply_changed_words(*w);
        if (hook.active())
            hook.board().trace("munmap", {{"addr", hex(w->addr)}, {"length", w->length}});
    } catch (...) {
    }
    release_window_memory(*w);
    delete w->registers;
    delete[] w->supplied;
    *w = g_windows[--g_window_count];
    return 0;
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

void *mmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset) {
    return mmap_on_board(TVSIM_REAL(mmap), addr, length, prot, flags, fd, offset);
}

void *mmap64(void *addr, size_t length, int prot, int flags, int fd, off64_t offset) {
    return mmap_on_board(TVSIM_REAL(mmap64), addr, length, prot, flags, fd, offset);
}

int munmap(void *addr, size_t length) {
    if (g_window_count > 0) {
        if (Window *w = window_starting_at(reinterpret_cast<uintptr_t>(addr)))
            return unmap_window(w);
    }
    return TVSIM_REAL(munmap)(addr, length);
}

} // extern "C"
#pragma GCC visibility pop
