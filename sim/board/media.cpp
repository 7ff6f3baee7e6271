#include "board/media.h"

#include "board/device.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>

namespace fs = std::filesystem;

namespace tvsim {

namespace {

const json &usb_disks(const Board &board) {
    return member(member(board.config(), "media"), "usb");
}

const json &sd_slot(const Board &board) {
    return member(member(board.config(), "media"), "sd");
}

std::string scsi_host_name(size_t index) {
    return std::to_string(index) + ":0:0:0";
}

bool disk_visible(const Board &board, const json &disk) {
    return board.now_ns() >= disk.value("appears_after_seconds", uint64_t{0}) * kNsPerSecond;
}

// Sectors the disk reports now: none until it has been rescanned often enough.
uint64_t disk_sectors(Board &board, size_t index, const json &disk) {
    int64_t rescans = board.state()["rescans"].value(scsi_host_name(index), int64_t{0});
    if (rescans < disk.value("rescans_needed", int64_t{0}))
        return 0;
    return disk.value("sectors", kDefaultStickSectors);
}

bool sd_block_device_present(const Board &board) {
    const json &sd = sd_slot(board);
    if (!sd.is_object() || sd.value("slot", "insert") != "insert")
        return false;
    if (sd.contains("block_device_after_seconds") && sd["block_device_after_seconds"].is_null())
        return false;
    return board.now_ns() >= sd.value("block_device_after_seconds", uint64_t{0}) * kNsPerSecond;
}

void clear_directory(const fs::path &dir) {
    std::error_code ec;
    fs::remove_all(dir, ec);
    fs::create_directories(dir, ec);
}

// The SCSI layer's rescan attribute of one USB disk: every write counts as one rescan.
class RescanAttribute : public Device {
public:
    RescanAttribute(Board &board, std::string host) : Device(board), host_(std::move(host)) {}
    ssize_t write(const void *buf, size_t count) override {
        json &rescans = board_.state()["rescans"];
        rescans[host_] = rescans.value(host_, int64_t{0}) + 1;
        board_.trace("rescan", {{"host", host_},
                                {"data", std::string(static_cast<const char *>(buf), count)}});
        return static_cast<ssize_t>(count);
    }

private:
    std::string host_;
};

// The SD driver's control file: reports whether a card is in the slot.
class SdControl : public Device {
public:
    SdControl(Board &board, std::string text) : Device(board), text_(std::move(text)) {}
    ssize_t read(void *buf, size_t count) override {
        size_t n = std::min(count, text_.size() - offset_);
        memcpy(buf, text_.data() + offset_, n);
        offset_ += n;
        return static_cast<ssize_t>(n);
    }
    ssize_t write(const void *, size_t count) override { return static_cast<ssize_t>(count); }

private:
    std::string text_;
    size_t offset_ = 0;
};

} // namespace

void refresh_media_files(Board &board) {
    fs::path root = board.file("fs");
    fs::path scsi = root / "sys/class/scsi_device";
    fs::path block = root / "sys/block";
    clear_directory(block);
    std::error_code ec;
    const json &disks = usb_disks(board);
    if (disks.is_array()) {
        clear_directory(scsi);
        for (size_t i = 0; i < disks.size(); ++i) {
            if (!disk_visible(board, disks[i]))
                continue;
            fs::create_directories(scsi / scsi_host_name(i) / "device", ec);
            write_file(scsi / scsi_host_name(i) / "device/rescan", "");
            fs::path disk_dir = block / ("sd" + disks[i].value("disk", std::string("a")));
            fs::create_directories(disk_dir, ec);
            write_file(disk_dir / "size", std::to_string(disk_sectors(board, i, disks[i])) + "\n");
        }
    } else {
        fs::remove_all(scsi, ec);
    }
    if (sd_block_device_present(board))
        fs::create_directories(block / "sdcarda", ec);
    if (sd_slot(board).is_object()) {
        fs::create_directories(root / "proc/sdcard", ec);
        write_file(root / "proc/sdcard/ctrl", "");
    }
}

int medium_mount_source(Board &board, std::string_view source, std::string_view fstype,
                        std::string *host) {
    const json *medium = nullptr;
    if (source == "/dev/sdcarda1") {
        if (sd_block_device_present(board))
            medium = &sd_slot(board);
    } else if (source.size() == 9 && source.substr(0, 7) == "/dev/sd" && source[8] == '1') {
        const json &disks = usb_disks(board);
        for (size_t i = 0; disks.is_array() && i < disks.size(); ++i) {
            const json &disk = disks[i];
            if (disk.value("disk", "") == std::string(1, source[7]) && disk_visible(board, disk) &&
                disk_sectors(board, i, disk) > 0)
                medium = &disk;
        }
    }
    if (medium == nullptr)
        return ENOENT; // no such block device node
    if (medium->value("filesystem", "vfat") != fstype)
        return EINVAL; // no valid file system of that type on it
    *host = board.file(medium->value("medium", ""));
    return 0;
}

std::unique_ptr<Device> open_media_device(Board &board, std::string_view path, int flags,
                                          int *err) {
    constexpr std::string_view kScsi = "/sys/class/scsi_device/";
    constexpr std::string_view kRescan = "/device/rescan";
    if (path == "/proc/sdcard/ctrl") {
        const json &sd = sd_slot(board);
        if (!sd.is_object())
            return nullptr;
        *err = 0;
        return std::make_unique<SdControl>(board, sd.value("slot", "insert") + "\n");
    }
    if (!path.starts_with(kScsi))
        return nullptr;
    std::string_view rest = path.substr(kScsi.size()); // the host, then the attribute
    if (!rest.ends_with(kRescan))
        return nullptr;
    std::string host(rest.substr(0, rest.size() - kRescan.size()));
    const json &disks = usb_disks(board);
    for (size_t i = 0; disks.is_array() && i < disks.size(); ++i) {
        if (scsi_host_name(i) != host || !disk_visible(board, disks[i]))
            continue;
        // The attribute (mode 0200) can only be written: sysfs refuses to open it for
        // reading with EACCES, even to root.
        if ((flags & O_ACCMODE) != O_WRONLY) {
            *err = EACCES;
            return nullptr;
        }
        *err = 0;
        return std::make_unique<RescanAttribute>(board, host);
    }
    return nullptr;
}

} // namespace tvsim
