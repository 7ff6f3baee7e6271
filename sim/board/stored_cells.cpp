#include "board/stored_cells.h"

#include "board/board.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tvsim {

namespace {

constexpr uint8_t kErased = 0xFF;

// Fills the file from have to want bytes with erased cells.
bool lengthen(int fd, uint64_t have, uint64_t want) {
    static const std::string kChunk(64 * 1024, static_cast<char>(kErased));
    while (have < want) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(kChunk.size(), want - have));
        ssize_t put = ::pwrite(fd, kChunk.data(), n, static_cast<off_t>(have));
        if (put <= 0)
            return false;
        have += static_cast<uint64_t>(put);
    }
    return true;
}

int open_memory(const std::string &path, bool create) {
    int flags = O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0);
    int fd = ::open(path.c_str(), flags, 0644);
    if (fd < 0 && create && errno == ENOENT) {
        std::error_code ec;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
        fd = ::open(path.c_str(), flags, 0644);
    }
    return fd;
}

} // namespace

MemoryFile::~MemoryFile() {
    if (base_ != nullptr)
        ::munmap(base_, mapped_);
}

uint8_t *MemoryFile::map(size_t size, bool create) {
    if (base_ != nullptr && mapped_ >= size)
        return base_;
    if (size == 0)
        return nullptr;
    int fd = open_memory(path_, create);
    if (fd < 0)
        return nullptr;
    struct stat st;
    void *mapped = MAP_FAILED;
    if (::fstat(fd, &st) == 0 && lengthen(fd, static_cast<uint64_t>(st.st_size), size))
        mapped = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd); // the mapping keeps the file; the program's descriptors stay as they were
    if (mapped == MAP_FAILED)
        return nullptr;
    if (base_ != nullptr)
        ::munmap(base_, mapped_);
    base_ = static_cast<uint8_t *>(mapped);
    mapped_ = size;
    return base_;
}

StoredCells::StoredCells(Board &board, const std::string &path, uint64_t size)
    : file_(board.memory_file(path)), size_(size) {}

void StoredCells::read(uint64_t offset, uint8_t *out, size_t count) const {
    size_t inside =
        offset < size_ ? static_cast<size_t>(std::min<uint64_t>(count, size_ - offset)) : 0;
    const uint8_t *cells = inside > 0 ? file_.map(static_cast<size_t>(size_), false) : nullptr;
    if (cells != nullptr)
        memcpy(out, cells + offset, inside);
    else
        inside = 0;
    memset(out + inside, kErased, count - inside);
}

uint8_t StoredCells::get(uint64_t offset) const {
    uint8_t byte;
    read(offset, &byte, 1);
    return byte;
}

uint8_t *StoredCells::writable(uint64_t offset, size_t *count) {
    if (offset >= size_)
        return nullptr;
    *count = static_cast<size_t>(std::min<uint64_t>(*count, size_ - offset));
    uint8_t *cells = file_.map(static_cast<size_t>(size_), true);
    return cells != nullptr ? cells + offset : nullptr;
}

void StoredCells::put(uint64_t offset, const uint8_t *data, size_t count) {
    if (uint8_t *cells = writable(offset, &count))
        memcpy(cells, data, count);
}

void StoredCells::program(uint64_t offset, const uint8_t *data, size_t count) {
    if (uint8_t *cells = writable(offset, &count)) {
        for (size_t i = 0; i < count; ++i)
            cells[i] &= data[i];
    }
}

void StoredCells::erase(uint64_t offset, uint64_t count) {
    size_t n = static_cast<size_t>(std::min<uint64_t>(count, size_));
    if (uint8_t *cells = writable(offset, &n))
        memset(cells, kErased, n);
}

} // namespace tvsim
