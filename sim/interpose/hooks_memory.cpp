// Register windows: a program maps a board device's descriptor and then reaches the device's
// registers with plain loads and stores at the mapped addresses. The simulator has to see each
// of those accesses so that the models can react (a pin write, a status read).
//
// The window is mapped without any access right, so each access faults (SIGSEGV) and the
// handler reads the faulting instruction to learn the access's width (1, 2 or 4 bytes):
//
// - x86-64: the handler opens the window, supplies the register's current value for a read,
//   and sets the trap flag so that exactly the one faulting instruction runs. The following
//   SIGTRAP applies the value of a write, closes the window again and clears the flag.
// - 32-bit ARM (the board build, also under qemu-user, which has no single-step): the handler
//   decodes the load or store (A32 or Thumb-2 LDR/STR/LDRH/STRH/LDRB/STRB/LDRSH/LDRSB,
//   immediate or register offset, with writeback), carries it out on the model, writes the
//   loaded register and the base register back and moves the program past the instruction.
//   Any other instruction touching a window ends the program with a message.
//
// Either way every read and write reaches the model in order, with its value and width.
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

#include "board/cpu_access.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <ucontext.h>

using tvsim::hex_text;
using tvsim::json;
using tvsim::interpose::Hook;

extern "C" {
void *mmap64(void *addr, size_t length, int prot, int flags, int fd, off64_t offset);
}

namespace {

#if defined(__x86_64__)
constexpr greg_t kTrapFlag = 0x100;
constexpr greg_t kWriteFault = 0x2; // page fault error code: the access was a write
#elif !defined(__arm__)
#error "register windows need the access decoding of this processor"
#endif

constexpr int kMaxWindows = 8;

// Plain data: hooks may run before constructors and after destructors.
struct Window {
    uintptr_t addr;
    size_t length;
    uint32_t phys_base;
    tvsim::RegisterSpace *registers;
    int prot;             // the access the program mapped it with
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

#if defined(__x86_64__)
// Window memory is never instrumented: in a sanitized build its shadow is not addressable.
__attribute__((no_sanitize_address)) uint32_t peek(uintptr_t at, unsigned width) {
    if (width == 1)
        return *reinterpret_cast<volatile uint8_t *>(at);
    if (width == 2)
        return *reinterpret_cast<volatile uint16_t *>(at);
    return *reinterpret_cast<volatile uint32_t *>(at);
}

__attribute__((no_sanitize_address)) void poke(uintptr_t at, uint32_t value, unsigned width) {
    if (width == 1)
        *reinterpret_cast<volatile uint8_t *>(at) = static_cast<uint8_t>(value);
    else if (width == 2)
        *reinterpret_cast<volatile uint16_t *>(at) = static_cast<uint16_t>(value);
    else
        *reinterpret_cast<volatile uint32_t *>(at) = value;
}
#endif

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

struct sigaction g_previous_segv;
bool g_handlers_installed = false;

Window *window_at(uintptr_t address) {
    for (int i = 0; i < g_window_count; ++i) {
        if (address >= g_windows[i].addr && address - g_windows[i].addr < g_windows[i].length)
            return &g_windows[i];
    }
    return nullptr;
}

uint32_t phys_of(const Window &w, uintptr_t at) {
    return w.phys_base + static_cast<uint32_t>(at - w.addr);
}

// A fault that is not a window access goes to whoever handled it before.
void pass_on(int sig, siginfo_t *info, void *context, const struct sigaction &previous) {
    if ((previous.sa_flags & SA_SIGINFO) != 0 && previous.sa_sigaction != nullptr) {
        previous.sa_sigaction(sig, info, context);
    } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
        previous.sa_handler(sig);
    } else {
        // The action from before, then the signal again: it is taken once this handler
        // returns, so a trap (which returning would not repeat) ends the process as a fault does.
        sigaction(sig, &previous, nullptr);
        raise(sig);
    }
}

[[noreturn]] void not_understood(uintptr_t pc, uintptr_t address) {
    fprintf(stderr,
            "tvsim: the instruction at 0x%lx accesses register window address 0x%lx in "
            "a way the simulator does not carry out\n",
            static_cast<unsigned long>(pc), static_cast<unsigned long>(address));
    abort();
}

// The access reaches the model. The fault comes from a plain load or store in the program,
// never from inside the C library, so the model may allocate and write its trace here.
uint32_t model_read(Window &w, uintptr_t at, unsigned width) {
    Hook hook;
    try {
        return hook.active() ? w.registers->read(phys_of(w, at), width) : 0;
    } catch (...) {
        return 0;
    }
}

void model_write(Window &w, uintptr_t at, uint32_t value, unsigned width) {
    Hook hook;
    try {
        if (hook.active())
            w.registers->write(phys_of(w, at), value, width);
    } catch (...) {
    }
}

#if defined(__x86_64__)
// The access let through by the trap flag.
struct PendingAccess {
    Window *window;
    uintptr_t at;
    unsigned width;
    bool write;
};
PendingAccess g_pending = {nullptr, 0, 0, false};
struct sigaction g_previous_trap;

void set_access(const Window &w, int prot) {
    mprotect(reinterpret_cast<void *>(w.addr), w.length, prot);
}

// Lets the one faulting instruction run with the window open; true when it was a window access.
bool window_access(siginfo_t *info, ucontext_t *uc) {
    auto at = reinterpret_cast<uintptr_t>(info->si_addr);
    Window *w = window_at(at);
    if (w == nullptr || g_pending.window != nullptr)
        return false;
    bool write = (uc->uc_mcontext.gregs[REG_ERR] & kWriteFault) != 0;
    if ((w->prot & (write ? PROT_WRITE : PROT_READ)) == 0)
        return false; // the program's own fault
    auto pc = static_cast<uintptr_t>(uc->uc_mcontext.gregs[REG_RIP]);
    unsigned width = tvsim::x86_access_width(reinterpret_cast<const uint8_t *>(pc));
    if (width == 0)
        not_understood(pc, at);
    set_access(*w, PROT_READ | PROT_WRITE);
    if (!write)
        poke(at, model_read(*w, at, width), width);
    g_pending = {w, at, width, write};
    uc->uc_mcontext.gregs[REG_EFL] |= kTrapFlag;
    return true;
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
    g_pending = {nullptr, 0, 0, false};
    if (done.write)
        model_write(*done.window, done.at, peek(done.at, done.width), done.width);
    set_access(*done.window, PROT_NONE);
    errno = saved_errno;
}

bool install_trap_handler(struct sigaction action) {
    action.sa_sigaction = on_single_step;
    return sigaction(SIGTRAP, &action, &g_previous_trap) == 0;
}
#else
// Carries out the faulting load or store on the model; true when it was a window access.
bool window_access(siginfo_t *info, ucontext_t *uc) {
    auto at = reinterpret_cast<uintptr_t>(info->si_addr);
    Window *w = window_at(at);
    if (w == nullptr)
        return false;
    mcontext_t &mc = uc->uc_mcontext;
    unsigned long *r = &mc.arm_r0; // r0-r15 follow one another
    static_assert(offsetof(mcontext_t, arm_pc) - offsetof(mcontext_t, arm_r0) == 15 * 4);
    uintptr_t pc = mc.arm_pc;
    bool thumb = (mc.arm_cpsr & 0x20) != 0;
    auto *code = reinterpret_cast<const uint16_t *>(pc);
    tvsim::ArmAccess a = thumb ? tvsim::decode_thumb(code[0], code[1])
                               : tvsim::decode_arm(*reinterpret_cast<const uint32_t *>(pc));
    if (a.length == 0)
        not_understood(pc, at);
    if ((w->prot & (a.load ? PROT_READ : PROT_WRITE)) == 0)
        return false; // the program's own fault
    uint32_t regs[16];
    for (int i = 0; i < 16; ++i)
        regs[i] = static_cast<uint32_t>(r[i]);
    uint32_t base_after = 0;
    if (tvsim::arm_access_address(a, regs, &base_after) != at)
        not_understood(pc, at);
    if (a.load) {
        uint32_t value = model_read(*w, at, a.width);
        if (a.sign_extend)
            value = a.width == 1 ? static_cast<uint32_t>(static_cast<int8_t>(value))
                                 : static_cast<uint32_t>(static_cast<int16_t>(value));
        r[a.rn] = base_after;
        r[a.rt] = value;
    } else {
        model_write(*w, at, regs[a.rt], a.width);
        r[a.rn] = base_after;
    }
    mc.arm_pc = pc + a.length;
    if (thumb)
        mc.arm_cpsr = tvsim::arm_it_advance(static_cast<uint32_t>(mc.arm_cpsr));
    return true;
}

bool install_trap_handler(struct sigaction) {
    return true;
}
#endif

void on_window_fault(int sig, siginfo_t *info, void *context) {
    int saved_errno = errno;
    if (!window_access(info, static_cast<ucontext_t *>(context)))
        pass_on(sig, info, context, g_previous_segv);
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
    if (!install_trap_handler(action)) {
        sigaction(SIGSEGV, &g_previous_segv, nullptr);
        return false;
    }
    g_handlers_installed = true;
    return true;
}

// --- the hooks ----------------------------------------------------------------------------

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
    if (!install_handlers()) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    bool replaced_shadow = false;
    void *at = place_window(hint, length, PROT_NONE, mapping.elsewhere, &replaced_shadow);
    hook.board().trace(
        "mmap",
        {{"fd", fd},
         {"offset", hex_text(static_cast<uint64_t>(offset))},
         {"length", length},
         {"addr", at == MAP_FAILED ? json() : json(hex_text(reinterpret_cast<uintptr_t>(at)))}});
    if (at == MAP_FAILED)
        return MAP_FAILED;
    Window &w = g_windows[g_window_count++];
    w = {reinterpret_cast<uintptr_t>(at), length, mapping.phys_base,
         mapping.registers.release(),     prot,   replaced_shadow};
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
        if (hook.active())
            hook.board().trace("munmap", {{"addr", hex_text(w->addr)}, {"length", w->length}});
    } catch (...) {
    }
    release_window_memory(*w);
    delete w->registers;
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
