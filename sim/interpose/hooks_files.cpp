// File system entry points: board paths are resolved inside the board directory (or in what
// is mounted there), device nodes open a board device, read-only mounts refuse writes.
#include "interpose/session.h"

#include <cstdarg>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

using tvsim::HostPath;
using tvsim::interpose::Hook;
using tvsim::interpose::is_kernel_file;
using tvsim::interpose::no_path;
using tvsim::interpose::or_io_error;
using tvsim::interpose::resolve_for_access;
using tvsim::interpose::with_resolved_path;

extern "C" {
int __open_2(const char *path, int flags);
int __open64_2(const char *path, int flags);
int scandir64(const char *dir, struct dirent64 ***list, int (*filter)(const struct dirent64 *),
              int (*compare)(const struct dirent64 **, const struct dirent64 **));
FILE *fopen64(const char *path, const char *mode);
int open64(const char *path, int flags, ...);
}

namespace {

bool writes(int flags) {
    return (flags & O_ACCMODE) != O_RDONLY || (flags & (O_CREAT | O_TRUNC));
}

// The board's /sys and /proc files that are no device (sizes, /proc/mtd, /proc/misc) can only be
// read: sysfs refuses to open them for writing with EACCES, whoever asks. The kernel looks the
// name up first: one that is not there, and that the call would not create, is ENOENT.
bool kernel_file_refuses(const std::string &normal, const std::string &host, bool for_writing,
                         bool creates) {
    if (!for_writing || !tvsim::Board::is_board_path(normal) || !is_kernel_file(normal))
        return false;
    errno = creates || TVSIM_REAL(access)(host.c_str(), F_OK) == 0 ? EACCES : ENOENT;
    return true;
}

// Gives a board device a real descriptor of its own. As in the kernel, the descriptor comes
// first: with none left the open fails with EMFILE before any driver is asked.
int open_board_device(Hook &hook, const std::string &normal, int flags, bool *handled) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int err = fd < 0 ? errno : 0;
    std::unique_ptr<tvsim::Device> device;
    if (fd >= 0)
        device = hook.board().open_device(normal, flags, &err);
    // A node made with mknod is a device whether or not a driver answers for its number.
    *handled = device != nullptr || normal.rfind("/dev/", 0) == 0 || (fd >= 0 && err != ENOENT);
    if (device != nullptr) {
        if (tvsim::interpose::attach_device(fd, std::move(device))) {
            hook.board().trace("open", {{"path", normal}, {"fd", fd}, {"flags", flags}});
            return fd;
        }
        err = EMFILE; // past the descriptors the simulator keeps devices for
    }
    if (fd >= 0)
        close(fd);
    if (*handled) {
        hook.board().trace("open", {{"path", normal}, {"errno", err}});
        errno = err;
    }
    return -1;
}

template <typename RealOpen>
int open_on_board(RealOpen real, const char *path, int flags, mode_t mode) {
    Hook hook;
    if (!hook.active() || no_path(path))
        return real(path, flags, mode);
    return or_io_error([&] {
        std::string normal = tvsim::normal_path(path);
        if (tvsim::Board::is_board_path(normal)) {
            if (is_kernel_file(normal))
                hook.board().refresh_kernel_files();
            bool handled = false;
            int fd = open_board_device(hook, normal, flags, &handled);
            if (handled)
                return fd;
        }
        HostPath host = hook.board().resolve(path);
        if (kernel_file_refuses(normal, host.path, writes(flags), (flags & O_CREAT) != 0))
            return -1;
        if (host.read_only && writes(flags)) {
            errno = EROFS;
            return -1;
        }
        hook.restore_errno();
        return real(host.path.c_str(), flags, mode);
    });
}

int real_open(const char *p, int f, mode_t m) {
    return TVSIM_REAL(open)(p, f, m);
}
int real_open64(const char *p, int f, mode_t m) {
    return TVSIM_REAL(open64)(p, f, m);
}

bool fopen_writes(const char *mode) {
    for (const char *m = mode; m != nullptr && *m != '\0'; ++m) {
        if (*m == 'w' || *m == 'a' || *m == '+')
            return true;
    }
    return false;
}

template <typename RealFopen>
FILE *fopen_on_board(RealFopen real, const char *path, const char *mode) {
    Hook hook;
    if (!hook.active() || no_path(path))
        return real(path, mode);
    return or_io_error([&]() -> FILE * {
        HostPath host = resolve_for_access(hook, path);
        if (kernel_file_refuses(tvsim::normal_path(path), host.path, fopen_writes(mode),
                                mode != nullptr && mode[0] != 'r'))
            return nullptr;
        if (host.read_only && fopen_writes(mode)) {
            errno = EROFS;
            return nullptr;
        }
        hook.restore_errno();
        return real(host.path.c_str(), mode);
    });
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

int open(const char *path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = tvsim::interpose::mode_argument(flags, ap);
    va_end(ap);
    return open_on_board(real_open, path, flags, mode);
}

int open64(const char *path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = tvsim::interpose::mode_argument(flags, ap);
    va_end(ap);
    return open_on_board(real_open64, path, flags, mode);
}

int __open_2(const char *path, int flags) {
    return open_on_board(real_open, path, flags, 0);
}
int __open64_2(const char *path, int flags) {
    return open_on_board(real_open64, path, flags, 0);
}

FILE *fopen(const char *path, const char *mode) {
    return fopen_on_board(TVSIM_REAL(fopen), path, mode);
}

FILE *fopen64(const char *path, const char *mode) {
    return fopen_on_board(TVSIM_REAL(fopen64), path, mode);
}

DIR *opendir(const char *path) {
    return with_resolved_path(path, [](const char *p) { return TVSIM_REAL(opendir)(p); });
}

int scandir(const char *dir, struct dirent ***list, int (*filter)(const struct dirent *),
            int (*compare)(const struct dirent **, const struct dirent **)) {
    return with_resolved_path(
        dir, [&](const char *p) { return TVSIM_REAL(scandir)(p, list, filter, compare); });
}

int scandir64(const char *dir, struct dirent64 ***list, int (*filter)(const struct dirent64 *),
              int (*compare)(const struct dirent64 **, const struct dirent64 **)) {
    return with_resolved_path(
        dir, [&](const char *p) { return TVSIM_REAL(scandir64)(p, list, filter, compare); });
}

// A character device node in the board's file tree is recorded with its number (the file
// stands in for it); anything else is made where the path lands, as the C library would.
int mknod(const char *path, mode_t mode, dev_t number) {
    Hook hook;
    if (!hook.active() || no_path(path))
        return TVSIM_REAL(mknod)(path, mode, number);
    return or_io_error([&] {
        std::string normal = tvsim::normal_path(path);
        HostPath host = hook.board().resolve(path);
        if (host.read_only) {
            errno = EROFS;
            return -1;
        }
        if (!S_ISCHR(mode) || !tvsim::Board::is_board_path(normal)) {
            hook.restore_errno();
            return TVSIM_REAL(mknod)(host.path.c_str(), mode, number);
        }
        int fd = TVSIM_REAL(open)(host.path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                                  mode & 07777);
        if (fd < 0)
            return -1; // EEXIST, ENOENT of the folder: as the kernel reports them
        TVSIM_REAL(close)(fd);
        hook.board().add_node(normal, number);
        hook.board().trace("mknod",
                           {{"path", normal}, {"major", major(number)}, {"minor", minor(number)}});
        hook.restore_errno();
        return 0;
    });
}

#if defined(__arm__)
// mknod of C libraries before 2.33, which the board programs call: the number by address, after
// the version of the call, which 32-bit ARM's C library requires to be 1.
int __xmknod(int version, const char *path, mode_t mode, dev_t *number) {
    if (version != 1) {
        errno = EINVAL;
        return -1;
    }
    return mknod(path, mode, *number);
}
#endif

int unlink(const char *path) {
    Hook hook;
    if (!hook.active() || no_path(path))
        return TVSIM_REAL(unlink)(path);
    return or_io_error([&] {
        std::string normal = tvsim::normal_path(path);
        HostPath host = hook.board().resolve(path);
        if (host.read_only) {
            errno = EROFS;
            return -1;
        }
        hook.restore_errno();
        int result = TVSIM_REAL(unlink)(host.path.c_str());
        if (result == 0 && tvsim::Board::is_board_path(normal))
            hook.board().remove_node(normal);
        return result;
    });
}

int mkdir(const char *path, mode_t mode) {
    Hook hook;
    if (!hook.active() || no_path(path))
        return TVSIM_REAL(mkdir)(path, mode);
    return or_io_error([&] {
        HostPath host = hook.board().resolve(path);
        if (host.read_only) {
            // The kernel reports an existing name before it looks at the mount's flags.
            struct stat st;
            errno = TVSIM_REAL(stat)(host.path.c_str(), &st) == 0 ? EEXIST : EROFS;
            return -1;
        }
        hook.restore_errno();
        return TVSIM_REAL(mkdir)(host.path.c_str(), mode);
    });
}

} // extern "C"
#pragma GCC visibility pop
