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
#include <vector>

namespace fs = std::filesystem;

namespace tvsim {

namespace {

constexpr unsigned kMtdCharMajor = 90;

// The out-of-band area of a NAND page: the bad-block marker in bytes 0-1, ECC in 40-63 (as the
// kernel's large-page layout), the rest free for the user.
constexpr uint32_t kOobSize = 64;
constexpr uint32_t kEccPos = 40;
constexpr uint32_t kEccBytes = 24;
constexpr uint32_t kEccStep = 256; // three ECC bytes per step
static_assert(kEccPos + kEccBytes == kOobSize && kEccBytes % 3 == 0, "ECC ends the OOB area");
constexpr uint32_t kMaxOobRequest = 4096;

// Board time per erase block and per byte written, where board.json gives none.
struct FlashTiming {
    int erase_ms;
    int write_ns_per_byte;
};
constexpr FlashTiming kNandTiming{.erase_ms = 2, .write_ns_per_byte = 100};
constexpr FlashTiming kNorTiming{.erase_ms = 500, .write_ns_per_byte = 3000};

struct Partition {
    std::string name;
    int number = 0;
    bool nand = false;
    uint64_t size = 0;
    uint32_t erasesize = 0;
    uint32_t writesize = 0;
    uint32_t oobsize = 0;
    uint64_t erase_ns = 0;
    uint64_t write_ns_per_byte = 0;
    std::string contents; // host path of the contents file
    std::string oob;      // host path of the out-of-band file (NAND)
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
    p.oobsize = p.nand ? kOobSize : 0;
    const FlashTiming &timing = p.nand ? kNandTiming : kNorTiming;
    p.erase_ns = number_from(member(entry, "erase_ms"), timing.erase_ms) * kNsPerMs;
    p.write_ns_per_byte = number_from(member(entry, "write_ns_per_byte"), timing.write_ns_per_byte);
    p.contents = board.file("mtd/" + p.name + ".bin");
    p.oob = board.file("mtd/" + p.name + ".oob");
    p.factory_bad = member(entry, "bad_blocks");
    return p;
}

bool drivers_loaded(Board &board, const json &entry) {
    for (const json &driver : elements(member(entry, "drivers"))) {
        if (!module_loaded(board, driver.get<std::string>()))
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

// The ECC of one page: three bytes per step of the data. Erased data (all 0xFF) has an erased
// ECC, so a page programmed with 0xFF only stays erased, as with the kernel's software ECC.
void page_ecc(const uint8_t *data, uint32_t page_size, uint8_t *ecc) {
    memset(ecc, 0xFF, kEccBytes);
    for (uint32_t step = 0; step * kEccStep < page_size && step < kEccBytes / 3; ++step) {
        uint32_t h = 0;
        for (uint32_t i = step * kEccStep; i < std::min(page_size, (step + 1) * kEccStep); ++i)
            h = h * 0x01000193u + static_cast<uint8_t>(~data[i]) * (i + 1);
        h = ~(h ^ (h >> 24));
        for (int b = 0; b < 3; ++b)
            ecc[3 * step + b] = static_cast<uint8_t>(h >> (8 * b));
    }
}

bool all_erased(const uint8_t *bytes, size_t count) {
    return std::all_of(bytes, bytes + count, [](uint8_t b) { return b == 0xFF; });
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
          oob_(board, p_.oob, p_.nand ? p_.size / p_.writesize * kOobSize : 0),
          readable_(access != O_WRONLY), writable_(access != O_RDONLY) {}

    ssize_t read(void *buf, size_t count) override {
        if (!readable_)
            return fail(EBADF);
        size_t n = static_cast<size_t>(std::min<uint64_t>(count, p_.size - pos_));
        if (n == 0)
            return 0; // at the end, or nothing asked for: as the kernel, nothing is read
        json event{{"mtd", p_.name}, {"offset", pos_}, {"length", n}};
        if (p_.nand && read_fails(pos_, n))
            return refuse("mtd_read", event, EIO);
        if (!nor_read_through_chip(board_, p_.name, pos_, static_cast<uint8_t *>(buf), n))
            cells_.read(pos_, static_cast<uint8_t *>(buf), n);
        if (p_.nand)
            check_ecc(static_cast<uint8_t *>(buf), n, event);
        board_.trace("mtd_read", event);
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
        int64_t base = 0;
        switch (whence) {
        case SEEK_SET:
            break;
        case SEEK_CUR:
            base = static_cast<int64_t>(pos_);
            break;
        case SEEK_END:
            base = static_cast<int64_t>(p_.size);
            break;
        default:
            return fail(EINVAL);
        }
        int64_t to = base + offset;
        if (to < 0 || to > static_cast<int64_t>(p_.size))
            return fail(EINVAL);
        pos_ = static_cast<uint64_t>(to);
        return to;
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
        case MEMREADOOB: {
            auto *b = reinterpret_cast<mtd_oob_buf *>(arg);
            return oob_request(false, b->start, b->length, b->ptr, &b->start); // as the kernel
        }
        case MEMREADOOB64: {
            auto *b = reinterpret_cast<mtd_oob_buf64 *>(arg);
            return oob_request(false, b->start, b->length,
                               reinterpret_cast<uint8_t *>(static_cast<uintptr_t>(b->usr_ptr)),
                               &b->length);
        }
        case MEMWRITEOOB: {
            auto *b = reinterpret_cast<mtd_oob_buf *>(arg);
            return oob_request(true, b->start, b->length, b->ptr, &b->length);
        }
        case MEMWRITEOOB64: {
            auto *b = reinterpret_cast<mtd_oob_buf64 *>(arg);
            return oob_request(true, b->start, b->length,
                               reinterpret_cast<uint8_t *>(static_cast<uintptr_t>(b->usr_ptr)),
                               &b->length);
        }
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
        erase_cells(start, std::min<uint64_t>(stop - start,
                                              board_.done_before_power_cut(blocks) * p_.erasesize));
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
            for (const json &bad : elements(*list)) {
                if (number_from(bad, ~uint64_t{0}) == block)
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
        if (!block_is_bad(block)) {
            // As the kernel: the block is erased before its marker is written (a worn block
            // whose erase fails keeps its data), and a block already bad is left as it is.
            uint64_t start = block * p_.erasesize;
            if (stop_of(true, start, start + p_.erasesize) == start + p_.erasesize)
                erase_cells(start, p_.erasesize);
            board_.state()["nand_bad_blocks"][p_.name].push_back(block);
            board_.save(); // the mark outlives the program
        }
        board_.trace("mtd_markbad", {{"mtd", p_.name}, {"block", block}});
        return 0;
    }

    // The counts since power-on (state "mtd_ecc", lost at a reboot) and the bad blocks; zero
    // for a NOR partition, which has no ECC.
    int ecc_stats(mtd_ecc_stats *stats) {
        *stats = mtd_ecc_stats{};
        if (!p_.nand)
            return 0;
        const json &counts = member(member(board_.state(), "mtd_ecc"), p_.name);
        stats->corrected = static_cast<uint32_t>(number_from(member(counts, "corrected"), 0));
        stats->failed = static_cast<uint32_t>(number_from(member(counts, "failed"), 0));
        for (uint64_t b = 0; b < p_.size / p_.erasesize; ++b)
            stats->badblocks += block_is_bad(b) ? 1 : 0;
        return 0;
    }

    void count_ecc(const char *what, uint64_t n) {
        json &counts = board_.state()["mtd_ecc"][p_.name];
        counts[what] = number_from(member(counts, what), 0) + n;
    }

    // An injected read failure ("nand_read_fail") in a block of [offset, offset + n), n > 0.
    bool read_fails(uint64_t offset, size_t n) {
        for (uint64_t b = offset / p_.erasesize; b <= (offset + n - 1) / p_.erasesize; ++b) {
            if (board_.take_fault("nand_read_fail", block_target(b)) != nullptr)
                return true;
        }
        return false;
    }

    // What the ECC makes of the pages read into data (n > 0 bytes from pos_): a page whose stored
    // ECC does not match its data, or a block with an injected "nand_bitflip" that ECC cannot
    // correct, is counted as failed and delivered as read; bitflips it can correct are counted
    // and delivered corrected. The character device returns the data either way.
    void check_ecc(uint8_t *data, size_t n, json &event) {
        uint64_t failed = 0;
        uint64_t corrected = 0;
        uint64_t last_block = ~uint64_t{0};
        for (uint64_t page = pos_ / p_.writesize; page * p_.writesize < pos_ + n; ++page) {
            uint64_t at = page * p_.writesize;
            if (at / p_.erasesize != last_block) {
                last_block = at / p_.erasesize;
                if (const json *f = board_.take_fault("nand_bitflip", block_target(last_block))) {
                    if (f->value("uncorrectable", false)) {
                        ++failed;
                        data[std::max(at, pos_) - pos_] ^= 1;
                    } else {
                        corrected += f->value("bits", uint64_t{1});
                    }
                }
            }
            failed += page_ecc_fails(page) ? 1 : 0;
        }
        if (corrected != 0) {
            count_ecc("corrected", corrected);
            event["corrected"] = corrected;
        }
        if (failed != 0) {
            count_ecc("failed", failed);
            event["failed"] = failed;
        }
    }

    // True when the page's stored ECC is written and does not match its data (a page written
    // twice without an erase, or cut while it was programmed). Data placed in the contents file
    // by hand has no ECC and is taken as it is.
    bool page_ecc_fails(uint64_t page) {
        uint8_t stored[kEccBytes];
        oob_.read(page * kOobSize + kEccPos, stored, sizeof stored);
        if (all_erased(stored, sizeof stored))
            return false;
        std::vector<uint8_t> data(p_.writesize);
        cells_.read(page * p_.writesize, data.data(), data.size());
        uint8_t ecc[kEccBytes];
        page_ecc(data.data(), p_.writesize, ecc);
        return memcmp(ecc, stored, sizeof ecc) != 0;
    }

    // MEMREADOOB/MEMWRITEOOB in the kernel's place-OOB mode: at most 4096 bytes; a read runs on
    // into the following pages' areas, a write stays within one page's; the count done goes to
    // *done. A bad block's first page shows the marker in bytes 0-1.
    int oob_request(bool write, uint64_t start, uint32_t length, uint8_t *ptr, uint32_t *done) {
        if (!p_.nand)
            return fail(EOPNOTSUPP);
        if (write && !writable_)
            return fail(EPERM);
        uint64_t skip = start % p_.writesize;
        uint64_t page = start / p_.writesize;
        uint64_t pages = p_.size / p_.writesize;
        if (length > kMaxOobRequest || (skip != 0 && length > kOobSize - skip) || page >= pages ||
            length > (write ? kOobSize : (pages - page) * kOobSize))
            return fail(EINVAL);
        json event{{"mtd", p_.name}, {"offset", page * p_.writesize}, {"length", length}};
        if (write) {
            oob_.program(page * kOobSize + skip, ptr, length);
            board_.trace("mtd_writeoob", event);
        } else {
            oob_.read(page * kOobSize + skip, ptr, length);
            uint64_t first = page * kOobSize + skip; // in the OOB file's numbering
            for (uint64_t p = page; p * kOobSize < first + length; ++p) {
                if ((p * p_.writesize) % p_.erasesize != 0 ||
                    !block_is_bad(p * p_.writesize / p_.erasesize))
                    continue;
                for (uint64_t i = std::max(first, p * kOobSize);
                     i < std::min(first + length, p * kOobSize + 2); ++i)
                    ptr[i - first] = 0; // the bad-block marker
            }
            board_.trace("mtd_readoob", event);
        }
        *done = length;
        return 0;
    }

    void erase_cells(uint64_t start, uint64_t length) {
        cells_.erase(start, length);
        if (p_.nand)
            oob_.erase(start / p_.writesize * kOobSize, length / p_.writesize * kOobSize);
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

    // A write clears bits only; an injected bad program inverts the cycle's first byte. Of the
    // bytes at data (whole pages on NAND), n are programmed before the power goes. A NAND page
    // is programmed with the ECC of its data: a page programmed again without an erase, or cut
    // in its middle, keeps ECC that does not match what it holds, and reads report it.
    void program(const uint8_t *data, size_t n) {
        if (n == 0)
            return;
        cells_.program(pos_, data, n);
        for (size_t at = 0; p_.nand && at < n; at += p_.writesize) {
            uint8_t ecc[kEccBytes];
            page_ecc(data + at, p_.writesize, ecc);
            oob_.program((pos_ + at) / p_.writesize * kOobSize + kEccPos, ecc, sizeof ecc);
        }
        if (bad_program_) {
            uint8_t inverted = static_cast<uint8_t>(~data[0]);
            cells_.put(pos_, &inverted, 1);
            bad_program_ = false;
        }
    }

    Partition p_;
    StoredCells cells_;
    StoredCells oob_; // NAND: kOobSize bytes per page
    bool readable_;
    bool writable_;
    uint64_t pos_ = 0;
    bool bad_program_ = false;
};

json partition(const char *name, const char *type, const char *size, const char *erasesize,
               json drivers, FlashTiming timing) {
    return json{{"name", name},
                {"type", type},
                {"size", size},
                {"erasesize", erasesize},
                {"drivers", std::move(drivers)},
                {"erase_ms", timing.erase_ms},
                {"write_ns_per_byte", timing.write_ns_per_byte}};
}

// A NAND partition of the default board: 128 KiB erase blocks, no driver of its own.
json nand_partition(const char *name, const char *size) {
    return partition(name, "nand", size, "0x20000", json::array(), kNandTiming);
}

} // namespace

void refresh_mtd_files(Board &board) {
    std::string text = "dev:    size   erasesize  name\n";
    for (const Partition &p : present_partitions(board))
        text += "mtd" + std::to_string(p.number) + ": " + hex_digits(p.size, 8) + " " +
                hex_digits(p.erasesize, 8) + " \"" + p.name + "\"\n";
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
    return json::array({
        nand_partition("nand_boot", "0x00100000"),
        nand_partition("uboot_env", "0x00100000"),
        nand_partition("kernel", "0x00800000"),
        nand_partition("rootfs", "0x04000000"),
        nand_partition("backup", "0x02000000"),
        nand_partition("ubi_data", "0x19600000"),
        partition("uboot-nor", "nor", "0x00100000", "0x10000", json::array({"physmap"}),
                  {.erase_ms = 700, .write_ns_per_byte = 5000}),
        partition("uboot-spi", "nor", "0x00100000", "0x10000",
                  json::array({"vq71206_spi", "m25p80"}),
                  {.erase_ms = 400, .write_ns_per_byte = 3000}),
    });
}

std::vector<std::string> mtd_driver_modules(const json &mtd_config) {
    std::vector<std::string> modules;
    for (const json &partition : elements(mtd_config)) {
        for (const json &driver : elements(member(partition, "drivers"))) {
            std::string file = driver.get<std::string>() + ".ko";
            if (std::find(modules.begin(), modules.end(), file) == modules.end())
                modules.push_back(file);
        }
    }
    return modules;
}

} // namespace tvsim
