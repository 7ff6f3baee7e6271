// The memories of the device models (flash partitions, ROMs, EEPROMs, the microcontroller's
// banks) kept in plain files of the board directory.
//
// A process maps each file shared, once, for as long as it is on the board: a store is a store
// into the page cache, which every other process of the board sees at once and which a program
// killed at any instant leaves behind, with no system call per access. Bytes the file does not
// hold (a missing or shorter file) read as erased (0xFF); the first change makes the file the
// memory's full size, and a file found shorter is lengthened with erased bytes when it is
// mapped. A file is never shortened, so no process's mapping ever reaches past its end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tvsim {

class Board;

// One memory file, mapped by a process (Board::memory_file keeps one per path).
class MemoryFile {
public:
    explicit MemoryFile(std::string path) : path_(std::move(path)) {}
    ~MemoryFile();
    MemoryFile(const MemoryFile &) = delete;
    MemoryFile &operator=(const MemoryFile &) = delete;

    // The first size bytes of the file, mapped for reading and writing. A missing file is made
    // (erased) only when create is set; null when the file is missing or cannot be mapped.
    uint8_t *map(size_t size, bool create);

private:
    std::string path_;
    uint8_t *base_ = nullptr;
    size_t mapped_ = 0;
};

// A device memory of size bytes in the board file at path.
class StoredCells {
public:
    StoredCells(Board &board, const std::string &path, uint64_t size);

    uint64_t size() const { return size_; }
    // Makes the file now, erased, when it is missing (a memory whose file exists from its first
    // use rather than its first change).
    void make_file() { file_.map(static_cast<size_t>(size_), true); }
    // Copies count bytes from offset; bytes outside the memory read as erased.
    void read(uint64_t offset, uint8_t *out, size_t count) const;
    uint8_t get(uint64_t offset) const;
    // Replaces count bytes at offset (EEPROM cells); bytes beyond the end are dropped.
    void put(uint64_t offset, const uint8_t *data, size_t count);
    // Programs count bytes at offset: flash can only clear bits.
    void program(uint64_t offset, const uint8_t *data, size_t count);
    // Erases count bytes from offset (every byte 0xFF), the whole memory by default.
    void erase(uint64_t offset = 0, uint64_t count = UINT64_MAX);

private:
    // The cells for a change, or null when the file cannot be made.
    uint8_t *writable(uint64_t offset, size_t *count);

    MemoryFile &file_;
    uint64_t size_;
};

} // namespace tvsim
