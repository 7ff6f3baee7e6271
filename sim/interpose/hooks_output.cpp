// The C library writes a stream's buffer with its own internal write, which no hook sees.
// So that every write the program's standard output and error make is seen, with the
// program's own buffering kept, stdout and stderr become streams that write through
// record_output: same buffering mode (line-buffered on a terminal, fully buffered otherwise,
// stderr unbuffered) and the buffer size the C library would have chosen. Direct write()
// calls on 1 and 2 are recorded by the write hook.
#include "interpose/output.h"

#include "interpose/session.h"

#include <cstdint>
#include <cstdio>
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
            board.trace("output", {{"fd", fd},
                                   {"text", std::string(text + start, end - start)},
                                   {"line_end", complete}});
            start = end + (complete ? 1 : 0);
        }
    } catch (...) {
        // Bytes the trace cannot hold as text are left out; the program's output is not.
    }
}

namespace {

ssize_t write_recorded(void *cookie, const char *bytes, size_t count) {
    int fd = static_cast<int>(reinterpret_cast<intptr_t>(cookie));
    Hook hook;
    if (hook.active())
        record_output(hook.board(), fd, bytes, count);
    hook.restore_errno();
    return TVSIM_REAL(write)(fd, bytes, count);
}

// A stream on fd that records what it writes, buffered as the stream it replaces: line by
// line when that was set or fd is a terminal, not at all for standard error, else in blocks of
// the size the C library would have chosen.
FILE *recorded_stream(FILE *replaced, int fd) {
    cookie_io_functions_t io{nullptr, write_recorded, nullptr, nullptr};
    FILE *stream = fopencookie(reinterpret_cast<void *>(static_cast<intptr_t>(fd)), "w", io);
    if (stream == nullptr)
        return nullptr;
    stream->_fileno = fd; // fileno(stdout) stays 1 for programs that ask (writes use the cookie)
    struct stat st {};
    size_t size =
        fstat(fd, &st) == 0 && st.st_blksize > 0 ? static_cast<size_t>(st.st_blksize) : BUFSIZ;
    int mode = fd == STDERR_FILENO ? _IONBF : __flbf(replaced) != 0 || isatty(fd) ? _IOLBF : _IOFBF;
    setvbuf(stream, nullptr, mode, mode == _IONBF ? 0 : size);
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

} // namespace
} // namespace tvsim::interpose
