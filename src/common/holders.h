// Small owners for what the tool acquires (descriptors, streams, directory listings) and
// bounded text formatting, so that every path of a function releases what it took and no
// path or command buffer is ever overrun.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <unistd.h>

// A file descriptor closed when the holder goes out of scope.
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    void reset(int fd = -1) {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

// A stdio stream closed when the holder goes out of scope.
class UniqueFile {
public:
    explicit UniqueFile(FILE *f = nullptr) : f_(f) {}
    ~UniqueFile() {
        if (f_ != nullptr)
            fclose(f_);
    }
    UniqueFile(const UniqueFile &) = delete;
    UniqueFile &operator=(const UniqueFile &) = delete;

    FILE *get() const { return f_; }
    explicit operator bool() const { return f_ != nullptr; }

private:
    FILE *f_;
};

// A directory stream closed when the holder goes out of scope.
class UniqueDir {
public:
    explicit UniqueDir(DIR *d = nullptr) : d_(d) {}
    ~UniqueDir() {
        if (d_ != nullptr)
            closedir(d_);
    }
    UniqueDir(const UniqueDir &) = delete;
    UniqueDir &operator=(const UniqueDir &) = delete;

    DIR *get() const { return d_; }
    explicit operator bool() const { return d_ != nullptr; }

private:
    DIR *d_;
};

// The entries of a scandir() listing, each and the array freed together.
class DirListing {
public:
    DirListing() = default;
    ~DirListing() { reset(); }
    DirListing(const DirListing &) = delete;
    DirListing &operator=(const DirListing &) = delete;

    // Lists dir (every entry, or those that filter accepts, sorted alphabetically); returns
    // the count, or -1 with errno.
    int scan(const char *dir, int (*filter)(const struct dirent *) = nullptr) {
        reset();
        int n = scandir(dir, &entries_, filter, alphasort);
        count_ = n > 0 ? n : 0;
        return n;
    }
    int size() const { return count_; }
    const char *name(int i) const { return entries_[i]->d_name; }
    void reset() {
        for (int i = 0; i < count_; ++i)
            free(entries_[i]);
        free(entries_);
        entries_ = nullptr;
        count_ = 0;
    }

private:
    struct dirent **entries_ = nullptr;
    int count_ = 0;
};

// A malloc'd buffer freed when the holder goes out of scope.
class HeapBuffer {
public:
    explicit HeapBuffer(size_t size) : p_(static_cast<unsigned char *>(malloc(size))) {}
    ~HeapBuffer() { free(p_); }
    HeapBuffer(const HeapBuffer &) = delete;
    HeapBuffer &operator=(const HeapBuffer &) = delete;

    unsigned char *get() const { return p_; }
    explicit operator bool() const { return p_ != nullptr; }

private:
    unsigned char *p_;
};

// printf into buf of size bytes. Returns false, leaving buf empty, when the text does not fit
// whole: a path or command is never used cut short.
[[nodiscard]] inline bool __attribute__((format(printf, 3, 4)))
bounded_format(char *buf, size_t size, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, size, fmt, ap);
    va_end(ap);
    if (n < 0 || static_cast<size_t>(n) >= size) {
        if (size > 0)
            buf[0] = '\0';
        return false;
    }
    return true;
}
