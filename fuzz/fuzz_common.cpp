// Shared by every fuzz target: the input stream, the tool's output sent to /dev/null, and a
// guard that turns any call that would reach the host (a shell command, a mount, the clock)
// into a crash the fuzzer reports. The targets only parse; these calls must never come.
#include "fuzz_input.h"

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>

namespace {
bool in_target = false;
} // namespace

InputStream::InputStream(const uint8_t *data, size_t size)
    : copy_(static_cast<char *>(malloc(size + 1))), file_(nullptr) {
    if (copy_ == nullptr)
        abort();
    if (size > 0)
        memcpy(copy_, data, size);
    // fmemopen takes no empty buffer: an empty input is a stream already at its end.
    file_ = fmemopen(copy_, size > 0 ? size : 1, "r");
    if (file_ == nullptr)
        abort();
    if (size == 0)
        fgetc(file_);
}

InputStream::~InputStream() {
    fclose(file_);
    free(copy_);
}

FILE *InputStream::rewound() {
    rewind(file_);
    return file_;
}

HeadAndRest split_first_line(const uint8_t *data, size_t size) {
    HeadAndRest split{};
    const void *lf = memchr(data, '\n', size);
    size_t head =
        lf != nullptr ? static_cast<size_t>(static_cast<const uint8_t *>(lf) - data) : size;
    size_t kept = head < sizeof split.storage - 1 ? head : sizeof split.storage - 1;
    memcpy(split.storage, data, kept);
    split.head = split.storage;
    split.rest = data + (lf != nullptr ? head + 1 : head);
    split.rest_size = size - (lf != nullptr ? head + 1 : head);
    return split;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    in_target = true;
    fuzz_one(data, size);
    in_target = false;
    return 0;
}

// --- what a parser must never do ---------------------------------------------------------
// libFuzzer itself runs commands (merge, jobs) outside the inputs: those go through.
extern "C" {
int system(const char *command) {
    if (in_target)
        abort();
    auto real = reinterpret_cast<int (*)(const char *)>(dlsym(RTLD_NEXT, "system"));
    return real(command);
}
FILE *popen(const char *command, const char *mode) {
    if (in_target)
        abort();
    auto real = reinterpret_cast<FILE *(*)(const char *, const char *)>(dlsym(RTLD_NEXT, "popen"));
    return real(command, mode);
}
int mount(const char *, const char *, const char *, unsigned long, const void *) {
    abort();
}
int umount(const char *) {
    abort();
}
int umount2(const char *, int) {
    abort();
}
int settimeofday(const struct timeval *, const struct timezone *) {
    abort();
}
}
