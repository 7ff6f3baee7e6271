// File status: board paths are resolved like every other path, and a board device node (by
// path, or by a descriptor it was opened as) reports itself as a character device with its
// device number, as the MTD tools check before they use a node.
#include "interpose/session.h"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using tvsim::interpose::Hook;
using tvsim::interpose::no_path;
using tvsim::interpose::or_io_error;

extern "C" {
#if defined(__arm__)
// The names of stat64 and fstat64 in C libraries before 2.33, which the board programs call.
int __xstat64(int version, const char *path, struct stat64 *buf);
int __fxstat64(int version, int fd, struct stat64 *buf);
#endif
}

namespace {

template <typename Stat> void describe_node(dev_t number, Stat *buf) {
    memset(buf, 0, sizeof *buf);
    buf->st_mode = S_IFCHR | 0660;
    buf->st_nlink = 1;
    buf->st_rdev = number;
    buf->st_blksize = 4096;
}

// The number of the board device node at a normal path: a node made with mknod (whether a
// driver answers for it or not), or a device the board has under /dev. False for any other path.
bool board_node_number(tvsim::Board &board, const std::string &normal, uint64_t *number) {
    if (board.node_at(normal, number))
        return true;
    if (!normal.starts_with("/dev/"))
        return false;
    int err = 0;
    std::unique_ptr<tvsim::Device> device = board.find_device(normal, O_RDONLY, &err);
    if (device != nullptr)
        *number = device->node_number();
    return device != nullptr;
}

// A board device node at a path: its description, or false when the path names none.
template <typename Stat> bool describe_board_node(Hook &hook, const char *path, Stat *buf) {
    std::string normal = tvsim::normal_path(path);
    uint64_t number = 0;
    if (!tvsim::Board::is_board_path(normal) || !board_node_number(hook.board(), normal, &number))
        return false;
    describe_node(static_cast<dev_t>(number), buf);
    return true;
}

template <typename Stat, typename RealStat>
int stat_on_board(RealStat real, const char *path, Stat *buf) {
    Hook hook;
    if (!hook.active() || no_path(path))
        return real(path, buf);
    return or_io_error([&] {
        if (describe_board_node(hook, path, buf))
            return 0;
        std::string host = tvsim::interpose::resolve_for_access(hook, path).path;
        hook.restore_errno();
        return real(host.c_str(), buf);
    });
}

template <typename Stat, typename RealFstat> int fstat_on_board(RealFstat real, int fd, Stat *buf) {
    if (tvsim::interpose::any_device_open()) {
        Hook hook;
        if (tvsim::Device *device = hook.active() ? tvsim::interpose::device_at(fd) : nullptr) {
            describe_node(device->node_number(), buf);
            return 0;
        }
        hook.restore_errno();
    }
    return real(fd, buf);
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

int stat(const char *path, struct stat *buf) {
    return stat_on_board(TVSIM_REAL(stat), path, buf);
}

int stat64(const char *path, struct stat64 *buf) {
    return stat_on_board(TVSIM_REAL(stat64), path, buf);
}

int fstat(int fd, struct stat *buf) {
    return fstat_on_board(TVSIM_REAL(fstat), fd, buf);
}

int fstat64(int fd, struct stat64 *buf) {
    return fstat_on_board(TVSIM_REAL(fstat64), fd, buf);
}

int access(const char *path, int mode) {
    return tvsim::interpose::with_resolved_path(
        path, [&](const char *p) { return TVSIM_REAL(access)(p, mode); });
}

#if defined(__arm__)
int __xstat64(int version, const char *path, struct stat64 *buf) {
    auto real = [version](const char *p, struct stat64 *b) {
        return TVSIM_REAL(__xstat64)(version, p, b);
    };
    return stat_on_board(real, path, buf);
}

int __fxstat64(int version, int fd, struct stat64 *buf) {
    auto real = [version](int f, struct stat64 *b) {
        return TVSIM_REAL(__fxstat64)(version, f, b);
    };
    return fstat_on_board(real, fd, buf);
}
#endif

} // extern "C"
#pragma GCC visibility pop
