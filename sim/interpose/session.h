// The interposer's view of the process: which board it runs on, which descriptors are board
// devices, and a guard that lets the simulator's own C library calls pass straight through.
#pragma once

#include "board/board.h"
#include "board/device.h"

#include <cerrno>
#include <cstdarg>
#include <dlfcn.h>
#include <fcntl.h>
#include <type_traits>

namespace tvsim::interpose {

// The C library's own definition of a hooked name, looked up once.
#define TVSIM_REAL(name)                                                                           \
    ([] {                                                                                          \
        static auto fn = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name));               \
        return fn;                                                                                 \
    }())

// Entered at the top of every hook. Inside a hook (the simulator calling the C library
// itself), or with no board, active() is false and the hook passes the call on unchanged.
// The caller's errno is kept across the simulator's bookkeeping.
class Hook {
public:
    Hook();
    ~Hook();
    Hook(const Hook &) = delete;
    Hook &operator=(const Hook &) = delete;

    bool active() const { return board_ != nullptr; }
    Board &board() const { return *board_; }
    // Restores the caller's errno (call before handing over to the C library).
    void restore_errno() const { errno = saved_errno_; }

private:
    Board *board_ = nullptr;
    int saved_errno_;
};

// What a failed call returns: a null pointer, false, or -1.
template <typename R> R failed_result() {
    if constexpr (std::is_pointer_v<R>)
        return nullptr;
    else if constexpr (std::is_same_v<R, bool>)
        return false;
    else
        return static_cast<R>(-1);
}

// Runs a hook's work on the board. When the simulator itself fails there (a board record it
// cannot read, no memory left), the program's call fails with EIO, as on a failing disk, instead
// of the program ending on an exception thrown through the C library.
template <typename Fn> auto or_io_error(Fn fn) -> decltype(fn()) {
    try {
        return fn();
    } catch (...) {
        errno = EIO;
        return failed_result<decltype(fn())>();
    }
}

// True when a path argument is missing. It is out of line because the C library declares its
// path arguments non-null: the same test written inside a hook would be dropped by the compiler,
// and the hook would crash where the kernel answers EFAULT.
bool no_path(const char *path);

// A path of the kernel's own files, under /proc or /sys.
bool is_kernel_file(const std::string &normal);

// Where a path that a program names lands; refreshes the kernel files it may be about to read.
HostPath resolve_for_access(const Hook &hook, const char *path);

// For calls that only read a path: fn gets where it lands (off the board, the path as given).
template <typename Fn> auto with_resolved_path(const char *path, Fn fn) {
    Hook hook;
    if (!hook.active() || no_path(path))
        return fn(path);
    return or_io_error([&] {
        HostPath host = resolve_for_access(hook, path);
        hook.restore_errno();
        return fn(host.path.c_str());
    });
}

// open's mode argument, read only where the flags say one was passed.
inline mode_t mode_argument(int flags, va_list ap) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? static_cast<mode_t>(va_arg(ap, int)) : 0;
}

// Board devices behind descriptors.
Device *device_at(int fd);
// False when fd is past the descriptors a process of the board can have.
bool attach_device(int fd, std::unique_ptr<Device> device);
std::unique_ptr<Device> detach_device(int fd);
bool any_device_open();

} // namespace tvsim::interpose
