// Descriptor entry points: calls on a board device's descriptor reach its model; every other
// descriptor is the C library's.
#include "interpose/output.h"
#include "interpose/session.h"

#include <cstdarg>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

using tvsim::interpose::Hook;
using tvsim::interpose::or_io_error;

extern "C" {
ssize_t __read_chk(int fd, void *buf, size_t count, size_t buflen);
off64_t lseek64(int fd, off64_t offset, int whence);
}

namespace {

// The device behind fd when the call comes from the program itself, else null.
tvsim::Device *program_device(const Hook &hook, int fd) {
    return hook.active() ? tvsim::interpose::device_at(fd) : nullptr;
}

// A request on a board device reaches its model; any other goes to the C library.
template <typename RealIoctl>
int ioctl_on_board(RealIoctl real, int fd, unsigned long request, uintptr_t arg) {
    {
        Hook hook;
        if (tvsim::Device *device = program_device(hook, fd))
            return or_io_error([&] { return device->ioctl(request, arg); });
    }
    return real(fd, request, arg);
}

// As in the kernel, a descriptor opened without read (or write) access fails a read (or write)
// with EBADF before any driver sees the call.
bool opened_for(const tvsim::Device &device, int refused_mode) {
    if ((device.open_flags() & O_ACCMODE) != refused_mode)
        return true;
    errno = EBADF;
    return false;
}

uintptr_t third_argument(va_list ap) {
    return reinterpret_cast<uintptr_t>(va_arg(ap, void *));
}

template <typename RealLseek>
auto lseek_on_board(RealLseek real, int fd, int64_t offset, int whence) {
    using Result = decltype(real(fd, offset, whence));
    if (tvsim::interpose::any_device_open()) {
        Hook hook;
        if (tvsim::Device *device = program_device(hook, fd))
            return static_cast<Result>(or_io_error([&] { return device->lseek(offset, whence); }));
    }
    return real(fd, offset, whence);
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

ssize_t read(int fd, void *buf, size_t count) {
    if (tvsim::interpose::any_device_open()) {
        Hook hook;
        if (tvsim::Device *device = program_device(hook, fd))
            return opened_for(*device, O_WRONLY)
                       ? or_io_error([&] { return device->read(buf, count); })
                       : -1;
    }
    return TVSIM_REAL(read)(fd, buf, count);
}

ssize_t __read_chk(int fd, void *buf, size_t count, size_t buflen) {
    if (count > buflen)
        __builtin_trap(); // the C library aborts a read past the buffer
    return read(fd, buf, count);
}

ssize_t write(int fd, const void *buf, size_t count) {
    if (fd == STDOUT_FILENO || fd == STDERR_FILENO) {
        Hook hook;
        if (hook.active())
            tvsim::interpose::record_output(hook.board(), fd, buf, count);
    }
    if (tvsim::interpose::any_device_open()) {
        Hook hook;
        if (tvsim::Device *device = program_device(hook, fd))
            return opened_for(*device, O_RDONLY)
                       ? or_io_error([&] { return device->write(buf, count); })
                       : -1;
    }
    return TVSIM_REAL(write)(fd, buf, count);
}

int close(int fd) {
    std::unique_ptr<tvsim::Device> device;
    if (tvsim::interpose::any_device_open()) {
        Hook hook;
        if (program_device(hook, fd) != nullptr)
            device = tvsim::interpose::detach_device(fd);
    }
    // The descriptor is free before the driver releases the device, as in the kernel.
    int result = TVSIM_REAL(close)(fd);
    if (device != nullptr) {
        int saved = errno;
        Hook hook;
        try {
            device->close();
            hook.board().trace("close", {{"fd", fd}});
        } catch (...) {
        }
        device.reset();
        errno = saved;
    }
    return result;
}

int ioctl(int fd, unsigned long request, ...) {
    va_list ap;
    va_start(ap, request);
    uintptr_t arg = third_argument(ap);
    va_end(ap);
    return ioctl_on_board(TVSIM_REAL(ioctl), fd, request, arg);
}

off_t lseek(int fd, off_t offset, int whence) {
    return lseek_on_board(TVSIM_REAL(lseek), fd, offset, whence);
}

off64_t lseek64(int fd, off64_t offset, int whence) {
    return lseek_on_board(TVSIM_REAL(lseek64), fd, offset, whence);
}

} // extern "C"
#pragma GCC visibility pop
