// The C library's other entry points that make a name in the file tree (creat, the *at calls,
// freopen, temporary files and folders, links, fifos, renames): a board path lands in the board
// directory as with open and mkdir, and a read-only mount refuses with EROFS. Without them a
// program such as mtd_debug, which writes its output with creat, would write to the host.
// The interposer audit lists these names and fails when one of them is not taken over.
#include "interpose/session.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using tvsim::HostPath;
using tvsim::interpose::Hook;
using tvsim::interpose::no_path;
using tvsim::interpose::or_io_error;

extern "C" {
int open64(const char *path, int flags, ...);
int creat64(const char *path, mode_t mode);
int openat64(int dirfd, const char *path, int flags, ...);
int __openat_2(int dirfd, const char *path, int flags);
int __openat64_2(int dirfd, const char *path, int flags);
FILE *freopen64(const char *path, const char *mode, FILE *stream);
int mkstemp64(char *name);
int mkostemp64(char *name, int flags);
int mkstemps64(char *name, int suffix_length);
int mkostemps64(char *name, int suffix_length, int flags);
FILE *tmpfile64(void);
}

namespace {

// A path relative to a descriptor the program opened is already where the descriptor is.
bool names_by_itself(int dirfd, const char *path) {
    return dirfd == AT_FDCWD || (!no_path(path) && path[0] == '/');
}

// Where a new name lands, or false with errno set (EROFS inside a read-only mount).
bool land(const Hook &hook, const char *path, std::string *host) {
    return or_io_error([&] {
        HostPath where = hook.board().resolve(path);
        if (where.read_only) {
            errno = EROFS;
            return false;
        }
        *host = std::move(where.path);
        hook.restore_errno();
        return true;
    });
}

// Calls fn with the host paths of one or two new names; off the board, with the names given.
template <typename Fn> auto creating(Fn fn, const char *path) {
    Hook hook;
    if (!hook.active() || no_path(path))
        return fn(path);
    std::string host;
    if (!land(hook, path, &host))
        return tvsim::interpose::failed_result<decltype(fn(path))>();
    return fn(host.c_str());
}

template <typename Fn> int creating_both(Fn fn, const char *from, const char *to) {
    Hook hook;
    if (!hook.active() || no_path(from) || no_path(to))
        return fn(from, to);
    std::string host_from, host_to;
    if (!land(hook, from, &host_from) || !land(hook, to, &host_to))
        return -1;
    return fn(host_from.c_str(), host_to.c_str());
}

// One name of a *at call as the real call takes it: where it lands on the board when it names
// itself, else as it is, relative to its directory descriptor.
struct AtName {
    int dirfd;
    const char *path;
    std::string host;
};

bool land_at(const Hook &hook, AtName *name) {
    if (!names_by_itself(name->dirfd, name->path))
        return true;
    if (!land(hook, name->path, &name->host))
        return false;
    name->dirfd = AT_FDCWD;
    name->path = name->host.c_str();
    return true;
}

// A *at call with two names, each taken on its own.
template <typename Real, typename... Extra>
int two_names_at(Real real, int fromfd, const char *from, int tofd, const char *to,
                 Extra... extra) {
    Hook hook;
    AtName f{fromfd, from, {}}, t{tofd, to, {}};
    if (hook.active() && !no_path(from) && !no_path(to) &&
        (!land_at(hook, &f) || !land_at(hook, &t)))
        return -1;
    return real(f.dirfd, f.path, t.dirfd, t.path, extra...);
}

// mkstemp and its kin fill in the template's last X's (before a suffix) in place: they run on
// the template's host path and copy the chosen letters back.
template <typename Fn> int make_temporary(Fn fn, char *name, int suffix_length) {
    Hook hook;
    size_t length = no_path(name) ? 0 : strlen(name);
    if (!hook.active() || length < 6 + static_cast<size_t>(suffix_length) || suffix_length < 0)
        return fn(name);
    std::string host;
    if (!land(hook, name, &host))
        return -1;
    int result = fn(host.data());
    size_t tail = 6 + static_cast<size_t>(suffix_length);
    if (result >= 0)
        memcpy(name + length - tail, host.data() + host.size() - tail, 6);
    return result;
}

// An unnamed file in the board's /tmp, as the C library makes one in its own.
FILE *temporary_file(const Hook &hook) {
    std::string host;
    if (!land(hook, "/tmp", &host))
        return nullptr;
    int fd = TVSIM_REAL(open)(host.c_str(), O_TMPFILE | O_RDWR, 0600);
    if (fd < 0)
        return nullptr;
    FILE *file = fdopen(fd, "w+");
    if (file == nullptr)
        TVSIM_REAL(close)(fd);
    return file;
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

// The open hooks resolve board paths and board devices; these reach them through it.
int creat(const char *path, mode_t mode) {
    return open(path, O_CREAT | O_WRONLY | O_TRUNC, mode);
}
int creat64(const char *path, mode_t mode) {
    return open64(path, O_CREAT | O_WRONLY | O_TRUNC, mode);
}

int openat(int dirfd, const char *path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = tvsim::interpose::mode_argument(flags, ap);
    va_end(ap);
    return names_by_itself(dirfd, path) ? open(path, flags, mode)
                                        : TVSIM_REAL(openat)(dirfd, path, flags, mode);
}
int openat64(int dirfd, const char *path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = tvsim::interpose::mode_argument(flags, ap);
    va_end(ap);
    return names_by_itself(dirfd, path) ? open64(path, flags, mode)
                                        : TVSIM_REAL(openat64)(dirfd, path, flags, mode);
}
int __openat_2(int dirfd, const char *path, int flags) {
    return openat(dirfd, path, flags);
}
int __openat64_2(int dirfd, const char *path, int flags) {
    return openat64(dirfd, path, flags);
}

FILE *freopen(const char *path, const char *mode, FILE *stream) {
    return creating([&](const char *p) { return TVSIM_REAL(freopen)(p, mode, stream); }, path);
}
FILE *freopen64(const char *path, const char *mode, FILE *stream) {
    return creating([&](const char *p) { return TVSIM_REAL(freopen64)(p, mode, stream); }, path);
}

int mkdirat(int dirfd, const char *path, mode_t mode) {
    return names_by_itself(dirfd, path) ? mkdir(path, mode)
                                        : TVSIM_REAL(mkdirat)(dirfd, path, mode);
}
int mknodat(int dirfd, const char *path, mode_t mode, dev_t number) {
    return names_by_itself(dirfd, path) ? mknod(path, mode, number)
                                        : TVSIM_REAL(mknodat)(dirfd, path, mode, number);
}
int mkfifo(const char *path, mode_t mode) {
    return creating([&](const char *p) { return TVSIM_REAL(mkfifo)(p, mode); }, path);
}
int mkfifoat(int dirfd, const char *path, mode_t mode) {
    return names_by_itself(dirfd, path) ? mkfifo(path, mode)
                                        : TVSIM_REAL(mkfifoat)(dirfd, path, mode);
}

int mkstemp(char *name) {
    return make_temporary([](char *p) { return TVSIM_REAL(mkstemp)(p); }, name, 0);
}
int mkstemp64(char *name) {
    return make_temporary([](char *p) { return TVSIM_REAL(mkstemp64)(p); }, name, 0);
}
int mkostemp(char *name, int flags) {
    return make_temporary([=](char *p) { return TVSIM_REAL(mkostemp)(p, flags); }, name, 0);
}
int mkostemp64(char *name, int flags) {
    return make_temporary([=](char *p) { return TVSIM_REAL(mkostemp64)(p, flags); }, name, 0);
}
int mkstemps(char *name, int suffix_length) {
    return make_temporary([=](char *p) { return TVSIM_REAL(mkstemps)(p, suffix_length); }, name,
                          suffix_length);
}
int mkstemps64(char *name, int suffix_length) {
    return make_temporary([=](char *p) { return TVSIM_REAL(mkstemps64)(p, suffix_length); }, name,
                          suffix_length);
}
int mkostemps(char *name, int suffix_length, int flags) {
    return make_temporary([=](char *p) { return TVSIM_REAL(mkostemps)(p, suffix_length, flags); },
                          name, suffix_length);
}
int mkostemps64(char *name, int suffix_length, int flags) {
    return make_temporary([=](char *p) { return TVSIM_REAL(mkostemps64)(p, suffix_length, flags); },
                          name, suffix_length);
}
char *mkdtemp(char *name) {
    int made =
        make_temporary([](char *p) { return TVSIM_REAL(mkdtemp)(p) != nullptr ? 0 : -1; }, name, 0);
    return made == 0 ? name : nullptr;
}

FILE *tmpfile(void) {
    Hook hook;
    return hook.active() ? temporary_file(hook) : TVSIM_REAL(tmpfile)();
}
FILE *tmpfile64(void) {
    Hook hook;
    return hook.active() ? temporary_file(hook) : TVSIM_REAL(tmpfile64)();
}

int link(const char *from, const char *to) {
    return creating_both([](const char *f, const char *t) { return TVSIM_REAL(link)(f, t); }, from,
                         to);
}
int linkat(int fromfd, const char *from, int tofd, const char *to, int flags) {
    return two_names_at(TVSIM_REAL(linkat), fromfd, from, tofd, to, flags);
}
// A link to an absolute board path points where that path lands, as `ln -s` in a shell
// command does, so that following it stays on the board.
int symlink(const char *target, const char *path) {
    Hook hook;
    if (!hook.active() || no_path(target) || no_path(path))
        return TVSIM_REAL(symlink)(target, path);
    return or_io_error([&] {
        std::string host_target = target, host;
        if (target[0] == '/')
            host_target = hook.board().resolve(target).path;
        if (!land(hook, path, &host))
            return -1;
        return TVSIM_REAL(symlink)(host_target.c_str(), host.c_str());
    });
}
int symlinkat(const char *target, int dirfd, const char *path) {
    return names_by_itself(dirfd, path) ? symlink(target, path)
                                        : TVSIM_REAL(symlinkat)(target, dirfd, path);
}
int rename(const char *from, const char *to) {
    return creating_both([](const char *f, const char *t) { return TVSIM_REAL(rename)(f, t); },
                         from, to);
}
int renameat(int fromfd, const char *from, int tofd, const char *to) {
    return two_names_at(TVSIM_REAL(renameat), fromfd, from, tofd, to);
}
int renameat2(int fromfd, const char *from, int tofd, const char *to, unsigned flags) {
    return two_names_at(TVSIM_REAL(renameat2), fromfd, from, tofd, to, flags);
}

} // extern "C"
#pragma GCC visibility pop
