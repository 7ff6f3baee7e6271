// The board programs ask the C library for nothing newer than GLIBC_2.4, the first C library of
// the ARM EABI: they start on boards whose C library is a decade older than this toolchain's,
// and a newer C library keeps those old versions for the programs built against them.
//
// This toolchain's headers and start file name entry points that came later:
// - stat64, fstat64 and mknod (2.33): older libraries had them as inline calls of __xstat64,
//   __fxstat64 and __xmknod, which take the version of the record they fill;
// - __isoc99_fscanf (2.7), the scanner in which "a" is a floating-point conversion rather than
//   the older scanner's allocation flag; the programs' formats use neither;
// - __libc_start_main (2.34), which runs the program's constructors itself. The old one leaves
//   that to the function it is given, as older start files gave it one.
// Defined here, these names are taken inside the program and call the old entry points. They
// are hidden: exported, they would stand in for the C library's own, and the dynamic linker
// would bind the program's call of the old __libc_start_main back to the definition here.
// Built into the board programs only (see cmake/board-toolchain.cmake).
#include <cstdarg>
#include <cstdio>
#include <sys/stat.h>

namespace {

// The record versions of 32-bit ARM: the kernel's stat64 record, and mknod's device number
// passed by address.
constexpr int kStatVersion = 3;
constexpr int kMknodVersion = 1;

using Main = int (*)(int, char **, char **);
using Constructor = void (*)(int, char **, char **);

} // namespace

extern "C" {

int old_xstat64(int version, const char *path, struct stat64 *buf);
int old_fxstat64(int version, int fd, struct stat64 *buf);
int old_xmknod(int version, const char *path, mode_t mode, dev_t *number);
int old_vfscanf(FILE *stream, const char *format, va_list args);
int old_libc_start_main(Main main, int argc, char **argv, Constructor init, void (*fini)(),
                        void (*rtld_fini)(), void *stack_end);
__asm__(".symver old_xstat64, __xstat64@GLIBC_2.4");
__asm__(".symver old_fxstat64, __fxstat64@GLIBC_2.4");
__asm__(".symver old_xmknod, __xmknod@GLIBC_2.4");
__asm__(".symver old_vfscanf, vfscanf@GLIBC_2.4");
__asm__(".symver old_libc_start_main, __libc_start_main@GLIBC_2.4");
}

#pragma GCC visibility push(hidden)
extern "C" {

// Bounds of the program's constructor table, from the linker; _init from the start files.
extern const Constructor __init_array_start[];
extern const Constructor __init_array_end[];
void _init();

int stat64(const char *path, struct stat64 *buf) noexcept {
    return old_xstat64(kStatVersion, path, buf);
}

int fstat64(int fd, struct stat64 *buf) noexcept {
    return old_fxstat64(kStatVersion, fd, buf);
}

int mknod(const char *path, mode_t mode, dev_t number) noexcept {
    return old_xmknod(kMknodVersion, path, mode, &number);
}

int __isoc99_fscanf(FILE *stream, const char *format, ...) {
    va_list args;
    va_start(args, format);
    int items = old_vfscanf(stream, format, args);
    va_end(args);
    return items;
}

// What the older start files passed as init: the program's own constructors, which the dynamic
// linker leaves to the program (its destructors it runs itself).
static void run_constructors(int argc, char **argv, char **envp) {
    _init();
    for (const Constructor *c = __init_array_start; c != __init_array_end; ++c)
        (*c)(argc, argv, envp);
}

int __libc_start_main(Main main, int argc, char **argv, Constructor, void (*)(),
                      void (*rtld_fini)(), void *stack_end) {
    return old_libc_start_main(main, argc, argv, run_constructors, nullptr, rtld_fini, stack_end);
}

} // extern "C"
#pragma GCC visibility pop
