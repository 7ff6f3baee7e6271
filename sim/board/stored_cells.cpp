#include "board/stored_cells.h"

#include "board/board.h"

#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace fs = std::filesystem;

namespace tvsim {

void StoredCells::load() {
    if (loaded_)
        return;
    loaded_ = true;
    if (read_file(path_, &data_) && data_.size() == size_)
        return;
    data_.assign(size_, '\xff');
    std::error_code ec;
    fs::create_directories(fs::path(path_).parent_path(), ec);
    write_file(path_, data_);
}

void StoredCells::persist(size_t offset, size_t count) {
    int fd = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    if (::pwrite(fd, data_.data() + offset, count, static_cast<off_t>(offset)) < 0) {
        // The file is the board's record; the device goes on as the hardware would.
    }
    ::close(fd);
}

const std::string &StoredCells::bytes() {
    load();
    return data_;
}

uint8_t StoredCells::get(size_t offset) {
    load();
    return offset < size_ ? static_cast<uint8_t>(data_[offset]) : 0xFF;
}

void StoredCells::put(size_t offset, const uint8_t *data, size_t count) {
    load();
    if (offset >= size_)
        return;
    count = std::min(count, size_ - offset);
    for (size_t i = 0; i < count; ++i)
        data_[offset + i] = static_cast<char>(data[i]);
    persist(offset, count);
}

void StoredCells::program(size_t offset, const uint8_t *data, size_t count) {
    load();
    if (offset >= size_)
        return;
    count = std::min(count, size_ - offset);
    for (size_t i = 0; i < count; ++i)
        data_[offset + i] = static_cast<char>(static_cast<uint8_t>(data_[offset + i]) & data[i]);
    persist(offset, count);
}

void StoredCells::erase() {
    load();
    data_.assign(size_, '\xff');
    persist(0, size_);
}

} // namespace tvsim
