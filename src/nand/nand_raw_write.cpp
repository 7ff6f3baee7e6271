#include "nand/nand_raw_write.h"
#include "common/report.h"

#include "common/holders.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

// Tokens of /proc/mtd are read into buffers of this size; a longer token is read whole but
// never taken as a device or a partition name.
constexpr size_t kTokenSize = 64;
constexpr size_t kMaxDeviceDigits = kMtdDeviceNameSize - 4; // "mtd" and the NUL

enum class Token { Fits, TooLong, End };

// Reads the next blank-separated token into buf.
Token next_token(FILE *file, char *buf, size_t size) {
    int c;
    do {
        c = getc(file);
    } while (c != EOF && isspace(c));
    if (c == EOF)
        return Token::End;
    size_t length = 0;
    bool fits = true;
    for (; c != EOF && !isspace(c); c = getc(file)) {
        if (length + 1 < size)
            buf[length++] = static_cast<char>(c);
        else
            fits = false;
    }
    buf[length] = '\0';
    return fits ? Token::Fits : Token::TooLong;
}

// "mtd12:" -> "mtd12". False unless the token is "mtd", one to four digits and an optional
// colon: a partition is never addressed by a shortened or malformed name.
bool device_name_of(const char *token, char *device) {
    size_t digits = strspn(token + 3, "0123456789");
    const char *rest = token + 3 + digits;
    if (digits == 0 || digits > kMaxDeviceDigits || !(rest[0] == '\0' || strcmp(rest, ":") == 0))
        return false;
    memcpy(device, token, 3 + digits);
    device[3 + digits] = '\0';
    return true;
}

} // namespace

namespace {

// The partition name token is the name in double quotes.
bool name_matches(const char *token, const char *wanted, bool exact) {
    if (!exact)
        return strstr(token, wanted) != nullptr;
    size_t n = strlen(wanted);
    return token[0] == '"' && strncmp(token + 1, wanted, n) == 0 &&
           strcmp(token + 1 + n, "\"") == 0;
}

int find_partition(FILE *proc_mtd, const char *wanted, char *device, bool exact) {
    char token[kTokenSize];
    Token read;
    while ((read = next_token(proc_mtd, token, sizeof token)) != Token::End) {
        if (strncmp(token, "mtd", 3) != 0)
            continue;
        char candidate[kMtdDeviceNameSize];
        bool usable = read == Token::Fits && device_name_of(token, candidate);
        // Size and erase size are not used; the third token is the name, in double quotes.
        for (int i = 0; i < 3; ++i) {
            read = next_token(proc_mtd, token, sizeof token);
            if (read == Token::End)
                return 0;
        }
        if (usable && read == Token::Fits && name_matches(token, wanted, exact)) {
            memcpy(device, candidate, sizeof candidate);
            return 1;
        }
    }
    return 0;
}

int search_proc_mtd(const char *wanted, char *device, bool exact) {
    UniqueFile proc_mtd(fopen("/proc/mtd", "r"));
    if (!proc_mtd) {
        report_error("open /proc/mtd");
        return 0;
    }
    return find_partition(proc_mtd.get(), wanted, device, exact);
}

} // namespace

int check_mtdname_in(FILE *proc_mtd, const char *wanted, char *device, bool exact) {
    return find_partition(proc_mtd, wanted, device, exact);
}

int check_mtdname(const char *wanted, char *device) {
    return search_proc_mtd(wanted, device, false);
}

int find_mtd_partition(const char *name, char *device) {
    return search_proc_mtd(name, device, true);
}

// --- NAND raw block I/O --------------------------------------------------------------------

nand_dev *nand_drv_info = nullptr;

namespace {

bool is_null(const nand_dev *ctx) {
    return ctx == nullptr || ctx == NAND_OPEN_FAILED;
}

// MEMGETBADBLOCK: 0 good, positive bad, negative when the query fails.
int query_bad(const nand_dev *ctx, uint64_t phys) {
    loff_t at = static_cast<loff_t>(phys);
    return ioctl(ctx->fd, MEMGETBADBLOCK, &at);
}

int mark_bad(const nand_dev *ctx, uint64_t phys) {
    loff_t at = static_cast<loff_t>(phys);
    return ioctl(ctx->fd, MEMSETBADBLOCK, &at);
}

int erase_block(const nand_dev *ctx, uint64_t phys) {
    erase_info_user e{static_cast<uint32_t>(phys), ctx->info.erasesize};
    return ioctl(ctx->fd, MEMERASE, &e);
}

// One page, lseek then one read or write of writesize bytes.
bool page_io(const nand_dev *ctx, uint64_t phys, uint8_t *page, bool write) {
    off_t at = static_cast<off_t>(phys);
    if (lseek(ctx->fd, at, SEEK_SET) != at)
        return false;
    ssize_t n = write ? ::write(ctx->fd, page, ctx->info.writesize)
                      : ::read(ctx->fd, page, ctx->info.writesize);
    return n == static_cast<ssize_t>(ctx->info.writesize);
}

// Every page of the block at phys, in order; false at the first that fails.
bool block_io(const nand_dev *ctx, uint64_t phys, uint8_t *data, bool write) {
    for (uint32_t at = 0; at < ctx->info.erasesize; at += ctx->info.writesize) {
        if (!page_io(ctx, phys + at, data + at, write))
            return false;
    }
    return true;
}

// Moves *phys forward to the first good block: 0, -7 when a query fails, -8 when no good
// block is left before the end of the partition.
int skip_bad(const nand_dev *ctx, uint64_t *phys) {
    for (;; *phys += ctx->info.erasesize) {
        if (*phys + ctx->info.erasesize > ctx->info.size)
            return NAND_ERR_NO_GOOD;
        int bad = query_bad(ctx, *phys);
        if (bad < 0)
            return NAND_ERR_DEVICE;
        if (bad == 0)
            return 0;
    }
}

// Finds the first good block from *phys whose erase succeeds, marking those that fail.
int erase_good_block(const nand_dev *ctx, uint64_t *phys) {
    for (;; *phys += ctx->info.erasesize) {
        if (int r = skip_bad(ctx, phys))
            return r;
        if (erase_block(ctx, *phys) == 0)
            return 0;
        mark_bad(ctx, *phys); // the next query skips it either way
    }
}

// Writes one block's data from *phys on, retiring a block whose page
// write fails and writing the data again from its first page on the next good block.
int write_logical_block(nand_dev *ctx, const uint8_t *data, uint64_t *phys) {
    if (int r = erase_good_block(ctx, phys))
        return r;
    while (!block_io(ctx, *phys, const_cast<uint8_t *>(data), true)) {
        if (mark_bad(ctx, *phys) < 0)
            return NAND_ERR_DEVICE;
        *phys += ctx->info.erasesize;
        if (int r = erase_good_block(ctx, phys))
            return r;
    }
    return 0;
}

int read_logical_block(nand_dev *ctx, uint8_t *data, uint64_t *phys) {
    if (int r = skip_bad(ctx, phys))
        return r;
    if (!block_io(ctx, *phys, data, false)) {
        printf("Error: nand_read_mtd!\n");
        return NAND_ERR_READ;
    }
    return 0;
}

// Logical blocks from first on follow one another over the good blocks from phys on: each is
// the next good block after the one before, as the seeding at open makes them, so that data
// written by skipping bad blocks (by this module or by nandwrite) is found again in this open
// and after a reopen. Entries past the last good block are cleared. False when a query fails.
bool map_good_blocks(nand_dev *ctx, uint32_t first, uint64_t phys) {
    const uint32_t blocks = ctx->info.size / ctx->info.erasesize;
    uint32_t logical = first;
    for (; phys < ctx->info.size && logical < blocks; phys += ctx->info.erasesize) {
        int bad = query_bad(ctx, phys);
        if (bad < 0) {
            report_error("MEMGETBADBLOCK");
            return false;
        }
        if (bad == 0)
            ctx->block_map[logical++] = phys;
    }
    for (; logical < blocks; ++logical)
        ctx->block_map[logical] = 0;
    return true;
}

// Records that logical block L now lives at phys. When it moved (a block was retired or
// skipped on the way), the blocks after it are placed again behind it: their seeded entries
// still name the blocks before the move, and one of them is now L's.
int place_block(nand_dev *ctx, uint32_t L, uint64_t planned, uint64_t phys) {
    ctx->block_map[L] = phys;
    if (phys == planned)
        return 0;
    return map_good_blocks(ctx, L + 1, phys + ctx->info.erasesize) ? 0 : NAND_ERR_DEVICE;
}

// The argument checks shared by the transfers, in their order.
int check_transfer(const nand_dev *ctx, uint32_t size, uint32_t offset) {
    if (is_null(ctx))
        return NAND_ERR_ARG;
    if (static_cast<uint64_t>(offset) + size > ctx->info.size) {
        printf("Error: offset + size exceeds the device size!\n");
        printf("(offset=%lu, size=%d, device size=%u)\n", static_cast<unsigned long>(offset),
               static_cast<int>(size), ctx->info.size);
        return NAND_ERR_ARG;
    }
    if (offset % ctx->info.erasesize != 0) {
        printf("Error: offset should be aligned by %d bytes.\n",
               static_cast<int>(ctx->info.erasesize));
        return NAND_ERR_ARG;
    }
    return 0;
}

// A staging block for a partial last block, erased (0xFF) and holding the first n bytes of
// data when data is given. Null, with a message, when it cannot be had.
uint8_t *stage(HeapBuffer &staging, uint32_t erasesize, const uint8_t *data, uint32_t n) {
    if (!staging) {
        printf("Error: cannot allocate %u bytes for a block!\n", erasesize);
        return nullptr;
    }
    memset(staging.get(), 0xFF, erasesize);
    if (data != nullptr)
        memcpy(staging.get(), data, n);
    return staging.get();
}

int transfer(nand_dev *ctx, uint8_t *buf, uint32_t size, uint32_t offset, bool write) {
    if (int r = check_transfer(ctx, size, offset))
        return r;
    const uint32_t E = ctx->info.erasesize;
    uint64_t phys = get_physical_page(ctx, offset);
    uint32_t done = 0;
    for (uint32_t L = offset / E; done < size; ++L, phys += E) {
        const uint32_t n = std::min(size - done, E);
        uint8_t *part = buf + done;
        HeapBuffer staging(n < E ? E : 0);
        uint8_t *data = part;
        if (n < E && (data = stage(staging, E, write ? part : nullptr, n)) == nullptr)
            return NAND_ERR_ARG;
        const uint64_t planned = phys;
        int r =
            write ? write_logical_block(ctx, data, &phys) : read_logical_block(ctx, data, &phys);
        if (r == 0)
            r = place_block(ctx, L, planned, phys);
        if (r != 0)
            return r;
        if (!write && n < E)
            memcpy(part, data, n);
        done += n;
    }
    return static_cast<int>(done);
}

// Opens the device and reads its geometry: 0, -2 when it cannot be opened, -7 when the
// geometry cannot be read or is unusable.
int init_mtd_driver(nand_dev *ctx, const char *path) {
    ctx->fd = open(path, O_RDWR | O_CLOEXEC);
    if (ctx->fd < 0) {
        report_error("open");
        return NAND_ERR_OPEN;
    }
    bool usable = ioctl(ctx->fd, MEMGETINFO, &ctx->info) == 0;
    if (!usable)
        report_error("MEMGETINFO");
    else if (ctx->info.erasesize == 0 || ctx->info.writesize == 0 ||
             ctx->info.erasesize % ctx->info.writesize != 0 ||
             ctx->info.size % ctx->info.erasesize != 0) {
        printf("Error: unusable flash geometry (size=%u, erase size=%u, page size=%u)\n",
               ctx->info.size, ctx->info.erasesize, ctx->info.writesize);
        usable = false;
    }
    if (!usable) {
        close(ctx->fd);
        return NAND_ERR_DEVICE;
    }
    return 0;
}

} // namespace

uint64_t get_physical_page(const nand_dev *ctx, uint32_t offset) {
    const uint32_t E = ctx->info.erasesize;
    uint32_t L = offset / E;
    for (uint32_t i = 0; i <= L; ++i) {
        if (ctx->block_map[L - i] != 0)
            return ctx->block_map[L - i] + static_cast<uint64_t>(i) * E;
    }
    return offset;
}

nand_dev *nand_open(const char *path, int /*flags*/) {
    nand_drv_info = nullptr;
    auto *ctx = static_cast<nand_dev *>(calloc(1, sizeof(nand_dev)));
    if (ctx == nullptr)
        return NAND_OPEN_FAILED;
    if (init_mtd_driver(ctx, path) != 0) {
        free(ctx);
        return NAND_OPEN_FAILED;
    }
    size_t blocks = ctx->info.size / ctx->info.erasesize;
    ctx->block_map = static_cast<uint64_t *>(calloc(blocks, sizeof(uint64_t)));
    if (ctx->block_map == nullptr || !map_good_blocks(ctx, 0, 0)) {
        close(ctx->fd);
        free(ctx->block_map);
        free(ctx);
        return NAND_OPEN_FAILED;
    }
    nand_drv_info = ctx;
    return ctx;
}

int nand_close(nand_dev *ctx) {
    if (is_null(ctx))
        return NAND_ERR_ARG;
    if (nand_drv_info == ctx)
        nand_drv_info = nullptr;
    close(ctx->fd);
    free(ctx->block_map);
    free(ctx);
    return 0;
}

int nand_read(nand_dev *ctx, void *buf, uint32_t size, uint32_t offset) {
    return transfer(ctx, static_cast<uint8_t *>(buf), size, offset, false);
}

int nand_write(nand_dev *ctx, const void *buf, uint32_t size, uint32_t offset) {
    // Write mode only reads from the caller's buffer.
    return transfer(ctx, static_cast<uint8_t *>(const_cast<void *>(buf)), size, offset, true);
}

int nand_write_block(nand_dev *ctx, const void *buf, uint32_t size, uint32_t offset) {
    if (int r = check_transfer(ctx, size, offset))
        return r;
    const uint32_t E = ctx->info.erasesize;
    if (size > E) {
        printf("Error: size should be less than %d bytes.\n", static_cast<int>(E));
        return NAND_ERR_ARG;
    }
    HeapBuffer staging(size < E ? E : 0);
    auto *data = static_cast<uint8_t *>(const_cast<void *>(buf));
    if (size < E && (data = stage(staging, E, data, size)) == nullptr)
        return NAND_ERR_ARG;
    uint64_t phys = get_physical_page(ctx, offset);
    if (block_io(ctx, phys, data, true))
        return static_cast<int>(size);
    // The retired block no longer holds the logical one: it and those after it move on.
    if (mark_bad(ctx, phys) < 0 || !map_good_blocks(ctx, offset / E, phys + E))
        return NAND_ERR_DEVICE;
    return NAND_ERR_WRITE;
}

int nand_erase(nand_dev *ctx, uint32_t offset) {
    if (is_null(ctx))
        return NAND_ERR_ARG;
    const uint32_t E = ctx->info.erasesize;
    if (static_cast<uint64_t>(offset) + E > ctx->info.size) {
        printf("Error: offset + erase size exceeds the device size!\n");
        printf("(offset=%lu, erase size=%u, device size=%u)\n", static_cast<unsigned long>(offset),
               E, ctx->info.size);
        return NAND_ERR_ARG;
    }
    if (offset % E != 0) {
        printf("Error: offset should be aligned by %d bytes.\n", static_cast<int>(E));
        return NAND_ERR_ARG;
    }
    const uint64_t planned = get_physical_page(ctx, offset);
    uint64_t phys = planned;
    if (int r = erase_good_block(ctx, &phys))
        return r;
    return place_block(ctx, offset / E, planned, phys);
}

int nand_good_blocks(nand_dev *ctx) {
    if (is_null(ctx))
        return NAND_ERR_ARG;
    int good = 0;
    for (uint64_t phys = 0; phys < ctx->info.size; phys += ctx->info.erasesize) {
        int bad = query_bad(ctx, phys);
        if (bad < 0)
            return NAND_ERR_DEVICE;
        good += bad == 0 ? 1 : 0;
    }
    return good;
}

uint32_t nand_get_blk_size(nand_dev *ctx) {
    return is_null(ctx) ? 0xFFFFFFFFu : ctx->info.erasesize;
}

int init_flash_storage_dev(flash_storage_dev *dev) {
    *dev = flash_storage_dev{nand_open,        nand_close, nand_read,        nand_write,
                             nand_write_block, nand_erase, nand_get_blk_size};
    return 0;
}
