// A memory of a device model (flash, EEPROM) kept in a plain file of the board directory and
// written through at once, so that a run that ends at any moment leaves what the device holds.
// A missing file, or one of another size, is an erased memory (every byte 0xFF).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tvsim {

class StoredCells {
public:
    StoredCells(std::string path, size_t size) : path_(std::move(path)), size_(size) {}

    size_t size() const { return size_; }
    const std::string &bytes();
    // A byte, 0xFF outside the memory.
    uint8_t get(size_t offset);
    // Replaces count bytes at offset (EEPROM cells); bytes beyond the end are dropped.
    void put(size_t offset, const uint8_t *data, size_t count);
    // Programs count bytes at offset: flash can only clear bits.
    void program(size_t offset, const uint8_t *data, size_t count);
    void erase();

private:
    void load();
    void persist(size_t offset, size_t count);

    std::string path_;
    size_t size_;
    std::string data_;
    bool loaded_ = false;
};

} // namespace tvsim
