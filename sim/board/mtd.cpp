#include "board/mtd.h"

#include "board/device.h"
#include "board/modules.h"
#include "board/nor_flash.h"
#include "board/stored_cells.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace tvsim {

namespace {

constexpr unsigned kMtdCharMajor = 90;
constexpr uint64_t kNsPerMs = 1000000;

struct Partition {
    std::string name;
    int number = 0;
    bool nand = false;
    uint64_t size = 0;
    uint32_t erasesize = 0;
    uint32_t writesize = 1;
    uint32_t oobsize = 0;
    uint64_t erase_ns = 0;
    uint64_t write_ns_per_byte = 0;
    std::string contents; // host path of the contents file
    json factory_bad;     // block numbers marked bad at the factory (NAND)
};

Partition partition_from(const Board &board, const json &entry, size_t index) {
    Partition p;
    p.name = entry.value("name", "mtd" + std::to_string(index));
    p.number = static_cast<int>(number_from(member(entry, "number"), index));
    p.nand = entry.value("type", "nor") == "nand";
    p.size = number_from(member(entry, "size"), 0x100000);
    p.erasesize = static_cast<uint32_t>(number_from(member(entry, "erasesize"), 0x10000));
    p.writesize = static_cast<uint32_t>(number_from(member(entry, "writesize"), p.nand ? 2048 : 1));
    p.oobsize = p.nand ? 64 : 0;
    p.erase_ns = number_from(member(entry, "erase_ms"), p.nand ? 2 : 500) * kNsPerMs;
    p.write_ns_per_byte = number_from(member(entry, "write_ns_per_byte"), p.nand ? 100 : 3000);
    p.contents = board.file("mtd/" + p.name + ".bin");
    p.factory_bad = member(entry, "bad_blocks");
    return p;
}

bool drivers_loaded(Board &board, const json &entry) {
    const json &drivers = member(entry, "drivers");
    for (size_t i = 0; drivers.is_array() && i < drivers.size(); ++i) {
        if (!module_loaded(board, drivers[i].get<std::string>()))
            return false;
    }
    return true;
}

// The partitions that exist now, by device number.
std::vector<Partition> present_partitions(Board &board) {
    std::vector<Partition> found;
    const json &entries = member(board.config(), "mtd");
    for (size_t i = 0; entries.is_array() && i < entries.size(); ++i) {
        if (drivers_loaded(board, entries[i]))
            found.push_back(partition_from(board, entries[i], i));
    }
    std::stable_sort(found.begin(), found.end(),
                     [](const Partition &a, const Partition &b) { return a.number < b.number; });
    return found;
}

int fail(int err) {
    errno = err;
    return -1;
}

// Requests the MTD character device allows on a descriptor opened read-only.
bool safe_request(uint32_t request) {
    switch (request) {
    case MEMGETINFO:
    case MEMGETREGIONCOUNT:
    case MEMGETREGIONINFO:
    case MEMGETBADBLOCK:
    case MEMISLOCKED:
    case MEMREADOOB:
    case MEMREADOOB64:
    case ECCGETLAYOUT:
    case ECCGETSTATS:
    case MTDFILEMODE:
        return true;
    default:
        return false;
    }
}

class MtdDevice : public Device {
public:
    MtdDevice(Board &board, Partition partition, int access)
        : Device(board), p_(std::move(partition)), cells_(board, p_.contents, p_.size),
          readable_(access != O_WRONLY), writable_(access != O_RDONLY) {}

    ssize_t read(void *buf, size_t count) override {
        if (!readable_)
            return fail(EBADF);
        if (pos_ >= p_.size)
            return 0;
        size_t n = static_cast<size_t>(std::min<uint64_t>(count, p_.size - pos_));
        if (!nor_read_through_chip(board_, p_.name, pos_, static_cast<uint8_t *>(buf), n))
            cells_.read(pos_, static_cast<uint8_t *>(buf), n);
        board_.trace("mtd_read", {{"mtd", p_.name}, {"offset", pos_}, {"length", n}});
        pos_ += n;
        return static_cast<ssize_t>(n);
    }

    ssize_t write(const void *buf, size_t count) override {
        if (!writable_)
            return fail(EBADF);
        if (pos_ >= p_.size)
            return fail(ENOSPC);
        size_t n = static_cast<size_t>(std::min<uint64_t>(count, p_.size - pos_));
        if (p_.nand && (pos_ % p_.writesize != 0 || n % p_.writesize != 0))
            return fail(EINVAL);
        json event{{"mtd", p_.name}, {"offset", pos_}, {"length", n}};
        // The drivers program page by page (a NOR chip word by word): what lies before the place
        // they stop at is written when the write fails there, as far as the power lasts.
        size_t writable = static_cast<size_t>(stop_of(false, pos_, pos_ + n) - pos_);
        if (writable < n) {
            program(static_cast<const uint8_t *>(buf), board_.done_before_power_cut(writable));
            board_.advance_ns(writable * p_.write_ns_per_byte);
            event["written"] = writable;
            return refuse("mtd_write", event, EIO);
        }
        if (const json *fault = board_.take_fault("mtd_write", p_.name)) {
            if (!fault->contains("bytes"))
                return refuse("mtd_write", event,
                              errno_from_name(fault->value("errno", json("EIO"))));
            n = std::min<size_t>(n, fault->value("bytes", size_t{0}));
            event["short"] = n;
        }
        program(static_cast<const uint8_t *>(buf), board_.done_before_power_cut(n));
        board_.advance_ns(n * p_.write_ns_per_byte);
        board_.trace("mtd_write", event);
        pos_ += n;
        return static_cast<ssize_t>(n);
    }

    int64_t lseek(int64_t offset, int whence) override {
        int64_t base = whence == SEEK_SET   ? 0
                       : whence == SEEK_CUR ? static_cast<int64_t>(pos_)
                       : whence == SEEK_END ? static_cast<int64_t>(p_.size)
                                            : -1;
        if (base < 0 || base + offset < 0 || static_cast<uint64_t>(base + offset) > p_.size)
            return fail(EINVAL);
        pos_ = static_cast<uint64_t>(base + offset);
        return static_cast<int64_t>(pos_);
    }

    int ioctl(unsigned long request, uintptr_t arg) override {
        if (!writable_ && !safe_request(static_cast<uint32_t>(request)))
            return fail(EPERM); // changing requests need a descriptor open for writing
        switch (static_cast<uint32_t>(request)) {
        case MEMGETINFO:
            *reinterpret_cast<mtd_info_user *>(arg) = info();
            return 0;
        case MEMERASE: {
            const auto *e = reinterpret_cast<const erase_info_user *>(arg);
            return erase(e->start, e->length);
        }
        case MEMERASE64: {
            const auto *e = reinterpret_cast<const erase_info_user64 *>(arg);
            return erase(e->start, e->length);
        }
        case MEMGETREGIONCOUNT:
            *reinterpret_cast<int *>(arg) = 0;
            return 0;
        case MEMGETBADBLOCK:
            return query_bad_block(*reinterpret_cast<const int64_t *>(arg));
        case MEMSETBADBLOCK:
            return mark_bad_block(*reinterpret_cast<const int64_t *>(arg));
        case ECCGETSTATS:
            return ecc_stats(reinterpret_cast<mtd_ecc_stats *>(arg));
        case MEMLOCK:
        case MEMUNLOCK:
            return p_.nand ? fail(EOPNOTSUPP) : 0;
        case ECCGETLAYOUT: // no out-of-band layout is described
            return fail(EOPNOTSUPP);
        default:
            return fail(ENOTTY);
        }
    }

    dev_t node_number() const override {
        return makedev(kMtdCharMajor, static_cast<unsigned>(2 * p_.number));
    }

private:
    mtd_info_user info() const {
        mtd_info_user i{};
        i.type = p_.nand ? MTD_NANDFLASH : MTD_NORFLASH;
        i.flags = p_.nand ? MTD_CAP_NANDFLASH : MTD_CAP_NORFLASH;
        i.size = static_cast<uint32_t>(p_.size);
        i.erasesize = p_.erasesize;
        i.writesize = p_.writesize;
        i.oobsize = p_.oobsize;
        return i;
    }

    // As the kernel's MTD layer: the range must lie inside the partition and on erase blocks
    // (EINVAL); an empty range at a valid start erases nothing and succeeds.
    int erase(uint64_t start, uint64_t length) {
        json event{{"mtd", p_.name}, {"start", start}, {"length", length}};
        if (p_.erasesize == 0 || start % p_.erasesize != 0 || length % p_.erasesize != 0 ||
            start >= p_.size || length > p_.size - start)
            return refuse("mtd_erase", event, EINVAL);
        if (const json *fault = board_.take_fault("mtd_erase", p_.name))
            return refuse("mtd_erase", event, errno_from_name(fault->value("errno", json("EIO"))));
        // The drivers erase block by block (a NOR chip sector by sector): what lies before the
        // place they stop at is erased when the request fails there, as far as the power lasts.
        uint64_t stop = stop_of(true, start, start + length);
        uint64_t blocks = (stop - start + p_.erasesize - 1) / p_.erasesize;
        cells_.erase(start, std::min<uint64_t>(stop - start, board_.done_before_power_cut(blocks) *
                                                                 p_.erasesize));
        board_.advance_ns(blocks * p_.erase_ns);
        if (stop < start + length)
            return refuse("mtd_erase", event, EIO);
        bad_program_ = board_.take_fault("mtd_program", p_.name) != nullptr;
        board_.trace("mtd_erase", event);
        return 0;
    }

    // A refused request: its trace event (kind) carries the errno it fails with.
    int refuse(const char *kind, json &event, int err) {
        event["errno"] = err;
        board_.trace(kind, event);
        return fail(err);
    }

    // --- NAND bad blocks -------------------------------------------------------------------
    // Bad blocks: the factory's (board.json "bad_blocks") and those marked since (state
    // "nand_bad_blocks"), by block number.
    bool block_is_bad(uint64_t block) {
        const json &marked = member(member(board_.state(), "nand_bad_blocks"), p_.name);
        for (const json *list : {static_cast<const json *>(&p_.factory_bad), &marked}) {
            for (size_t i = 0; list->is_array() && i < list->size(); ++i) {
                if (number_from((*list)[i], ~uint64_t{0}) == block)
                    return true;
            }
        }
        return false;
    }

    std::string block_target(uint64_t block) const { return p_.name + ":" + std::to_string(block); }

    int query_bad_block(int64_t offset) {
        if (offset < 0 || static_cast<uint64_t>(offset) >= p_.size)
            return fail(EINVAL);
        if (!p_.nand)
            return 0;
        return block_is_bad(static_cast<uint64_t>(offset) / p_.erasesize) ? 1 : 0;
    }

    int mark_bad_block(int64_t offset) {
        if (!p_.nand)
            return fail(EOPNOTSUPP);
        if (offset < 0 || static_cast<uint64_t>(offset) >= p_.size)
            return fail(EINVAL);
        uint64_t block = static_cast<uint64_t>(offset) / p_.erasesize;
        board_.trace("mtd_markbad", {{"mtd", p_.name}, {"block", block}});
        if (!block_is_bad(block)) {
            board_.state()["nand_bad_blocks"][p_.name].push_back(block);
            board_.save(); // the mark outlives the program
        }
        return 0;
    }

    int ecc_stats(mtd_ecc_stats *stats) {
        if (!p_.nand)
            return fail(ENOTTY);
        *stats = mtd_ecc_stats{};
        for (uint64_t b = 0; b < p_.size / p_.erasesize; ++b)
            stats->badblocks += block_is_bad(b) ? 1 : 0;
        return 0;
    }

    // Where the drivers stop an erase (erasing) or a write of [start, end): at the first
    // protected NOR sector, or the first NAND block with an injected "nand_erase_fail" or
    // "nand_write_fail" (an erase also at a bad block); end when nothing stops them.
    uint64_t stop_of(bool erasing, uint64_t start, uint64_t end) {
        if (!p_.nand || start == end)
            return nor_protected_from(board_, p_.name, start, end - start);
        const char *fails = erasing ? "nand_erase_fail" : "nand_write_fail";
        for (uint64_t b = start / p_.erasesize; b <= (end - 1) / p_.erasesize; ++b) {
            if ((erasing && block_is_bad(b)) ||
                board_.take_fault(fails, block_target(b)) != nullptr)
                return std::max(start, b * p_.erasesize);
        }
        return end;
    }

    // A write clears bits only; an injected bad program inverts the cycle's first byte.
    void program(const uint8_t *data, size_t n) {
        if (n == 0)
            return;
        cells_.program(pos_, data, n);
        if (bad_program_) {
            uint8_t inverted = static_cast<uint8_t>(~data[0]);
            cells_.put(pos_, &inverted, 1);
            bad_program_ = false;
        }
    }

    Partition p_;
    StoredCells cells_;
    bool readable_;
    bool writable_;
    uint64_t pos_ = 0;
    bool bad_program_ = false;
};

std::string hex8(uint64_t value) {
    char text[20];
    snprintf(text, sizeof text, "%08llx", static_cast<unsigned long long>(value));
    return text;
}

json partition(const char *name, const char *type, const char *size, const char *erasesize,
               json drivers, int erase_ms, int write_ns_per_byte) {
    return json{{"name", name},
                {"type", type},
                {"size", size},
                {"erasesize", erasesize},
                {"drivers", std::move(drivers)},
                {"erase_ms", erase_ms},
                {"write_ns_per_byte", write_ns_per_byte}};
}

} // namespace

void refresh_mtd_files(Board &board) {
    std::string text = "dev:    size   erasesize  name\n";
    for (const Partition &p : present_partitions(board))
        text += "mtd" + std::to_string(p.number) + ": " + hex8(p.size) + " " + hex8(p.erasesize) +
                " \"" + p.name + "\"\n";
    std::error_code ec;
    fs::create_directories(board.file("fs/proc"), ec);
    write_file(board.file("fs/proc/mtd"), text);
}

std::unique_ptr<Device> open_mtd_device(Board &board, std::string_view path, int flags, int *) {
    constexpr std::string_view kPrefix = "/dev/mtd";
    if (path.substr(0, kPrefix.size()) != kPrefix)
        return nullptr;
    std::string_view digits = path.substr(kPrefix.size());
    if (digits.empty() || digits.size() > 6 ||
        digits.find_first_not_of("0123456789") != std::string_view::npos)
        return nullptr;
    int number = std::stoi(std::string(digits));
    for (Partition &p : present_partitions(board)) {
        if (p.number == number)
            return std::make_unique<MtdDevice>(board, std::move(p), flags & O_ACCMODE);
    }
    return nullptr;
}

json default_mtd_config() {
    const char *kNandBlock = "0x20000";
    return json::array({
        partition("nand_boot", "nand", "0x00100000", kNandBlock, json::array(), 2, 100),
        partition("uboot_env", "nand", "0x00100000", kNandBlock, json::array(), 2, 100),
        partition("kernel", "nand", "0x00800000", kNandBlock, json::array(), 2, 100),
        partition("rootfs", "nand", "0x04000000", kNandBlock, json::array(), 2, 100),
        partition("backup", "nand", "0x02000000", kNandBlock, json::array(), 2, 100),
        partition("ubi_data", "nand", "0x19600000", kNandBlock, json::array(), 2, 100),
        partition("uboot-nor", "nor", "0x00100000", "0x10000", json::array({"physmap"}), 700, 5000),
        partition("uboot-spi", "nor", "0x00100000", "0x10000",
                  json::array({"vq71206_spi", "m25p80"}), 400, 3000),
    });
}

std::vector<std::string> mtd_driver_modules(const json &mtd_config) {
    std::vector<std::string> modules;
    for (size_t i = 0; mtd_config.is_array() && i < mtd_config.size(); ++i) {
        const json &drivers = member(mtd_config[i], "drivers");
        for (size_t j = 0; drivers.is_array() && j < drivers.size(); ++j) {
            std::string file = drivers[j].get<std::string>() + ".ko";
            if (std::find(modules.begin(), modules.end(), file) == modules.end())
                modules.push_back(file);
        }
    }
    return modules;
}

} // namespace tvsim
