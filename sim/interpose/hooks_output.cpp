// The C library writes a stream's buffer with its own internal write, which no hook sees, and
// only when the buffer is flushed: a line printed at the start of a long step would be recorded
// at its end. So stdout and stderr become unbuffered streams that hand every piece the program
// prints to print_piece at the moment of the C library call, which records it with that board
// time and then keeps it in a buffer of its own, as the program's stream would have: line by
// line on a terminal, not at all for standard error, else in blocks of the size the C library
// would have chosen. The bytes reach the descriptor when that buffer is full, at a line end when
// line-buffered, or when the program flushes or exits, as on the board. Direct write() calls
// on 1 and 2 are recorded by the write hook.
#include "interpose/output.h"

#include "interpose/session.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tvsim::interpose {

void record_output(Board &board, int fd, const void *bytes, size_t count) {
    const char *text = static_cast<const char *>(bytes);
    size_t start = 0;
    try {
        while (start < count) {
            size_t end = start;
            while (end < count && text[end] != '\n')
                ++end;
            bool complete = end < count;
            board.output(fd, std::string_view(text + start, end - start), complete);
            start = end + (complete ? 1 : 0);
        }
    } catch (...) {
        // Output the trace cannot hold is left out of it; the program's output is not.
    }
}

namespace {

// What the program's stream holds back from its descriptor. Plain memory, never freed: it
// must outlive every destructor that may still print.
struct StreamBuffer {
    int mode = _IONBF;
    size_t size = 0;
    size_t used = 0;
    char *bytes = nullptr;
};

StreamBuffer g_buffers[STDERR_FILENO + 1];

bool write_all(int fd, const char *bytes, size_t count) {
    while (count > 0) {
        ssize_t n = TVSIM_REAL(write)(fd, bytes, count);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        bytes += n;
        count -= static_cast<size_t>(n);
    }
    return true;
}

// Writes the first count bytes the buffer holds to fd and keeps the rest.
bool write_out(int fd, StreamBuffer &b, size_t count) {
    bool written = write_all(fd, b.bytes, count);
    memmove(b.bytes, b.bytes + count, b.used - count);
    b.used -= count;
    return written;
}

bool flush_buffer(int fd) {
    StreamBuffer &b = g_buffers[fd];
    return b.used == 0 || write_out(fd, b, b.used);
}

// Takes what the program printed into fd's buffer and writes what its stream would write now.
bool buffer_piece(int fd, const char *bytes, size_t count) {
    StreamBuffer &b = g_buffers[fd];
    if (b.bytes == nullptr)
        return write_all(fd, bytes, count);
    bool written = true;
    while (count > 0 && written) {
        size_t n = std::min(count, b.size - b.used);
        memcpy(b.bytes + b.used, bytes, n);
        b.used += n;
        bytes += n;
        count -= n;
        if (b.used == b.size)
            written = write_out(fd, b, b.used);
    }
    if (b.mode == _IOLBF && written) {
        const void *last_end = memrchr(b.bytes, '\n', b.used);
        if (last_end != nullptr)
            written = write_out(
                fd, b, static_cast<size_t>(static_cast<const char *>(last_end) - b.bytes + 1));
    }
    return written;
}

ssize_t print_piece(void *cookie, const char *bytes, size_t count) {
    int fd = static_cast<int>(reinterpret_cast<intptr_t>(cookie));
    Hook hook;
    if (hook.active())
        record_output(hook.board(), fd, bytes, count);
    hook.restore_errno();
    // The C library takes a failed write as 0 bytes written; it must never see a negative count.
    return buffer_piece(fd, bytes, count) ? static_cast<ssize_t>(count) : 0;
}

// An unbuffered stream on fd that hands every piece to print_piece, with fd's buffer set up as
// the replaced stream was buffered: line by line when that was set or fd is a terminal, not
// at all for standard error, else in blocks of the size the C library would have chosen.
FILE *recorded_stream(FILE *replaced, int fd) {
    cookie_io_functions_t io{nullptr, print_piece, nullptr, nullptr};
    FILE *stream = fopencookie(reinterpret_cast<void *>(static_cast<intptr_t>(fd)), "w", io);
    if (stream == nullptr)
        return nullptr;
    stream->_fileno = fd; // fileno(stdout) stays 1 for programs that ask (writes use the cookie)
    setvbuf(stream, nullptr, _IONBF, 0);
    struct stat st {};
    size_t size =
        fstat(fd, &st) == 0 && st.st_blksize > 0 ? static_cast<size_t>(st.st_blksize) : BUFSIZ;
    StreamBuffer &b = g_buffers[fd];
    b.mode = fd == STDERR_FILENO ? _IONBF : __flbf(replaced) != 0 || isatty(fd) ? _IOLBF : _IOFBF;
    if (b.mode != _IONBF) {
        b.bytes = static_cast<char *>(malloc(size));
        b.size = b.bytes != nullptr ? size : 0;
    }
    return stream;
}

__attribute__((constructor)) void record_output_on_board() {
    Hook hook;
    if (!hook.active())
        return;
    fflush(stdout);
    if (FILE *out = recorded_stream(stdout, STDOUT_FILENO))
        stdout = out;
    if (FILE *err = recorded_stream(stderr, STDERR_FILENO))
        stderr = err;
}

// exit writes what a stream still holds.
__attribute__((destructor)) void write_held_output() {
    flush_buffer(STDOUT_FILENO);
}

} // namespace
} // namespace tvsim::interpose

using tvsim::interpose::flush_buffer;

#pragma GCC visibility push(default)
// fflush(stdout), or of every stream, also writes what stdout's buffer holds.
extern "C" int fflush(FILE *stream) {
    int result = TVSIM_REAL(fflush)(stream);
    bool written = true;
    if (stream == nullptr || stream == stdout)
        written = flush_buffer(STDOUT_FILENO);
    return written ? result : EOF;
}
#pragma GCC visibility pop
