#include "service/service.h"
#include "common/report.h"

#include "common/holders.h"
#include "eeprom/eep_update.h"
#include "nand/nand_raw_write.h"
#include "nor/nvlock.h"
#include "run/flashimg.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace {

constexpr const char *kProgram = "tvservice";

constexpr const char *kUsage =
    "Usage: tvservice COMMAND [ARGUMENTS]\n"
    "\n"
    "  nand read PART OFFSET LENGTH FILE    copy LENGTH bytes at logical OFFSET into FILE\n"
    "  nand write PART OFFSET LENGTH FILE   write the first LENGTH bytes of FILE at OFFSET\n"
    "  nand erase PART OFFSET LENGTH        erase the blocks holding [OFFSET, OFFSET+LENGTH)\n"
    "  nor status OFFSET LENGTH             list the protection of the NOR sectors\n"
    "  nor lock OFFSET LENGTH               protect the NOR sectors holding the range\n"
    "  nor unlock OFFSET LENGTH             unprotect the NOR sectors holding the range\n"
    "  eeprom ferund DIR [MODEL]            rewrite the Ferund EEPROM from DIR's TVM_DATA file\n"
    "  eeprom vornek DIR                    rewrite the Vornek EEPROM from DIR's vornek_eep.txt\n"
    "  list FILE [--sd]                     show what an image list selects, changing nothing\n"
    "\n"
    "PART is a partition number (3, mtd3) or its exact name in /proc/mtd. Offsets of NAND\n"
    "operations are logical: bad blocks are skipped. Numbers are decimal or 0x hexadecimal.\n"
    "Exit status: 0 success, 1 the operation failed, 2 usage error.\n";

int __attribute__((format(printf, 1, 2))) usage_error(const char *fmt, ...) {
    char reason[512]; // what the operator typed is echoed, shortened only past this
    va_list args;
    va_start(args, fmt);
    vsnprintf(reason, sizeof reason, fmt, args);
    va_end(args);
    fprintf(stderr, "%s: %s\nTry '%s --help' for more information.\n", kProgram, reason, kProgram);
    return SERVICE_USAGE;
}

// --- NAND ----------------------------------------------------------------------------------

struct NandArgs {
    const char *op;
    char device[32];
    const char *offset_text; // as typed, for the messages
    const char *length_text;
    uint32_t offset;
    uint32_t length;
    const char *file;
};

int nand_usage_args(int argc, char **argv, bool with_file, NandArgs *a) {
    int wanted = with_file ? 4 : 3;
    if (argc != wanted)
        return usage_error("nand %s: wrong number of arguments", a->op);
    if (!partition_device(argv[0], a->device, sizeof a->device))
        return usage_error("no MTD partition '%s'", argv[0]);
    if (!parse_u32(argv[1], &a->offset))
        return usage_error("invalid offset '%s'", argv[1]);
    if (!parse_u32(argv[2], &a->length))
        return usage_error("invalid length '%s'", argv[2]);
    if (a->length == 0)
        return usage_error("length '%s' is zero: nothing to do", argv[2]);
    a->offset_text = argv[1];
    a->length_text = argv[2];
    a->file = with_file ? argv[3] : nullptr;
    return SERVICE_OK;
}

// An open NAND partition, closed with the holder.
class NandHolder {
public:
    explicit NandHolder(const char *device) : ctx_(nand_open(device, 0)) {}
    ~NandHolder() { nand_close(ctx_); }
    NandHolder(const NandHolder &) = delete;
    NandHolder &operator=(const NandHolder &) = delete;
    nand_dev *get() const { return ctx_; }
    bool open() const { return ctx_ != NAND_OPEN_FAILED; }

private:
    nand_dev *ctx_;
};

// What the partition can take, checked before anything is read, erased or written: a NAND
// partition, an offset on an erase block, and whole blocks up to the request's end among its
// good blocks (logical blocks are good blocks, so a bad block shortens the partition).
int check_nand_request(const NandArgs &a, nand_dev *nand) {
    const mtd_info_user &info = nand->info;
    if (info.type != MTD_NANDFLASH && info.type != MTD_MLCNANDFLASH) {
        printf("nand %s: %s is not a NAND partition (MTD type %u)\n", a.op, a.device, info.type);
        return SERVICE_FAILED;
    }
    const uint32_t E = info.erasesize;
    if (a.offset % E != 0) {
        printf("nand %s: offset %s is not a multiple of the erase block (0x%X bytes)\n", a.op,
               a.offset_text, E);
        return SERVICE_FAILED;
    }
    int good = nand_good_blocks(nand);
    if (good < 0) {
        printf("nand %s: failed at %s (result %d)\n", a.op, a.device, good);
        return SERVICE_FAILED;
    }
    uint64_t end = static_cast<uint64_t>(a.offset) + a.length;
    uint64_t capacity = static_cast<uint64_t>(good) * E;
    if ((end + E - 1) / E * E > capacity) {
        printf("nand %s: offset %s and length %s pass the end of the good blocks of %s: "
               "0x%llX bytes (%d good blocks of 0x%X bytes)\n",
               a.op, a.offset_text, a.length_text, a.device,
               static_cast<unsigned long long>(capacity), good, E);
        return SERVICE_FAILED;
    }
    return SERVICE_OK;
}

// The closing line: what was done, or where it stopped and how much was done before.
int report_nand(const NandArgs &a, uint32_t done, int result) {
    if (result < 0) {
        printf("nand %s: failed at %s after %u bytes (result %d)\n", a.op, a.device, done, result);
        return SERVICE_FAILED;
    }
    printf("nand %s: %u bytes at 0x%08X of %s\n", a.op, a.length, a.offset, a.device);
    return SERVICE_OK;
}

// False, with a message, when the transfer's block of memory could not be had.
bool have_block(const NandArgs &a, const HeapBuffer &block, uint32_t size) {
    if (block)
        return true;
    printf("nand %s: cannot allocate %u bytes\n", a.op, size);
    return false;
}

// Reads and writes go one erase block at a time through one block of memory, so a partition
// of any size is copied in bounded memory and a failure is reported to the byte.
int nand_read_cmd(const NandArgs &a, nand_dev *nand) {
    UniqueFile out(fopen(a.file, "wb"));
    if (!out) {
        report_error(a.file);
        return SERVICE_FAILED;
    }
    const uint32_t E = nand_get_blk_size(nand);
    HeapBuffer block(E);
    if (!have_block(a, block, E))
        return SERVICE_FAILED;
    for (uint32_t done = 0; done < a.length;) {
        uint32_t n = std::min(E, a.length - done);
        int r = nand_read(nand, block.get(), n, a.offset + done);
        if (r < 0)
            return report_nand(a, done, r);
        if (fwrite(block.get(), 1, n, out.get()) != n) {
            report_error(a.file);
            return report_nand(a, done, NAND_ERR_ARG);
        }
        done += n;
    }
    if (fflush(out.get()) != 0) {
        report_error(a.file);
        return SERVICE_FAILED;
    }
    return report_nand(a, a.length, 0);
}

int nand_write_cmd(const NandArgs &a, nand_dev *nand) {
    UniqueFile in(fopen(a.file, "rb"));
    if (!in) {
        report_error(a.file);
        return SERVICE_FAILED;
    }
    // The whole input is known to be there before the first block is erased.
    struct stat st {};
    if (fstat(fileno(in.get()), &st) != 0 || !S_ISREG(st.st_mode) ||
        static_cast<uint64_t>(st.st_size) < a.length) {
        printf("nand write: %s holds fewer than %u bytes\n", a.file, a.length);
        return SERVICE_FAILED;
    }
    const uint32_t E = nand_get_blk_size(nand);
    HeapBuffer block(E);
    if (!have_block(a, block, E))
        return SERVICE_FAILED;
    for (uint32_t done = 0; done < a.length;) {
        uint32_t n = std::min(E, a.length - done);
        if (fread(block.get(), 1, n, in.get()) != n) {
            printf("nand write: %s holds fewer than %u bytes\n", a.file, a.length);
            return report_nand(a, done, NAND_ERR_ARG);
        }
        int r = nand_write(nand, block.get(), n, a.offset + done);
        if (r < 0)
            return report_nand(a, done, r);
        done += n;
    }
    return report_nand(a, a.length, 0);
}

int nand_erase_cmd(const NandArgs &a, nand_dev *nand) {
    const uint32_t E = nand_get_blk_size(nand);
    for (uint32_t done = 0; done < a.length;) {
        int r = nand_erase(nand, a.offset + done);
        if (r < 0)
            return report_nand(a, done, r);
        done += std::min(E, a.length - done);
    }
    return report_nand(a, a.length, 0);
}

int nand_cmd(int argc, char **argv) {
    if (argc < 1)
        return usage_error("nand: missing operation");
    NandArgs a{};
    a.op = argv[0];
    bool with_file = strcmp(a.op, "erase") != 0;
    if (strcmp(a.op, "read") != 0 && strcmp(a.op, "write") != 0 && with_file)
        return usage_error("nand: unknown operation '%s'", a.op);
    if (int r = nand_usage_args(argc - 1, argv + 1, with_file, &a))
        return r;
    NandHolder nand(a.device);
    if (!nand.open()) {
        printf("nand %s: cannot open %s\n", a.op, a.device);
        return SERVICE_FAILED;
    }
    if (int r = check_nand_request(a, nand.get()))
        return r;
    if (strcmp(a.op, "read") == 0)
        return nand_read_cmd(a, nand.get());
    if (strcmp(a.op, "write") == 0)
        return nand_write_cmd(a, nand.get());
    return nand_erase_cmd(a, nand.get());
}

// --- NOR -----------------------------------------------------------------------------------

int nor_cmd(int argc, char **argv) {
    if (argc != 3)
        return usage_error("nor: expected status|lock|unlock OFFSET LENGTH");
    int mode = strcmp(argv[0], "lock") == 0     ? NVLOCK_PROTECT
               : strcmp(argv[0], "unlock") == 0 ? NVLOCK_UNPROTECT
               : strcmp(argv[0], "status") == 0 ? -1
                                                : -2;
    if (mode == -2)
        return usage_error("nor: unknown operation '%s'", argv[0]);
    uint32_t offset = 0;
    uint32_t length = 0;
    if (!parse_u32(argv[1], &offset))
        return usage_error("invalid offset '%s'", argv[1]);
    if (!parse_u32(argv[2], &length))
        return usage_error("invalid length '%s'", argv[2]);
    // nvLock takes a zero length, or one past the flash's end, as "up to the last sector".
    if (length == 0)
        return usage_error("length '%s' is zero: nothing to do", argv[2]);
    if (offset<NOR_FLASH_SIZE &&static_cast<uint64_t>(offset) + length> NOR_FLASH_SIZE) {
        return usage_error("offset %s and length %s pass the end of the NOR flash (0x%X bytes)",
                           argv[1], argv[2], NOR_FLASH_SIZE);
    }
    return nvLock(offset, length, mode) == 0 ? SERVICE_OK : SERVICE_FAILED;
}

// --- EEPROMs -------------------------------------------------------------------------------

// The EEPROM updaters the run never calls.
struct EepromUpdater {
    const char *name;
    int (*update)(const char *write_dir, const char *model);
};

int update_ferund(const char *write_dir, const char *model) {
    return Update_TVMEeprom(write_dir, model, 1);
}

int update_vornek(const char *write_dir, const char *) {
    return Update_VornekEeprom(write_dir);
}

constexpr EepromUpdater kEepromUpdaters[] = {
    {"ferund", update_ferund},
    {"vornek", update_vornek},
};

int eeprom_cmd(int argc, char **argv) {
    if (argc < 2 || argc > 3)
        return usage_error("eeprom: expected NAME DIR [MODEL]");
    for (const EepromUpdater &u : kEepromUpdaters) {
        if (strcmp(argv[0], u.name) == 0) {
            int r = u.update(argv[1], argc == 3 ? argv[2] : nullptr);
            printf("eeprom %s: %s\n", u.name, r == 0 ? "updated" : "FAILED");
            return r == 0 ? SERVICE_OK : SERVICE_FAILED;
        }
    }
    return usage_error("eeprom: unknown EEPROM '%s'", argv[0]);
}

// --- image list ----------------------------------------------------------------------------

int list_cmd(int argc, char **argv) {
    bool sd = argc == 2 && strcmp(argv[1], "--sd") == 0;
    if (argc < 1 || argc > 2 || (argc == 2 && !sd))
        return usage_error("list: expected FILE [--sd]");
    UniqueFile list(fopen(argv[0], "r"));
    if (!list) {
        report_error(argv[0]);
        return SERVICE_FAILED;
    }
    uint32_t flags[4];
    read_update_list(list.get(), MediaFound{!sd, sd}, flags, true);
    print_update_selection(flags);
    return SERVICE_OK;
}

struct Command {
    const char *name;
    int (*run)(int argc, char **argv);
};

constexpr Command kCommands[] = {
    {"nand", nand_cmd},
    {"nor", nor_cmd},
    {"eeprom", eeprom_cmd},
    {"list", list_cmd},
};

} // namespace

bool parse_u32(const char *text, uint32_t *value) {
    if (text == nullptr)
        return false;
    // A leading 0 is a decimal digit like any other (not octal): "010" is ten.
    bool hex = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char *digits = hex ? text + 2 : text;
    if (strspn(digits, hex ? "0123456789abcdefABCDEF" : "0123456789") != strlen(digits) ||
        digits[0] == '\0')
        return false;
    errno = 0;
    char *end = nullptr;
    unsigned long long v = strtoull(digits, &end, hex ? 16 : 10);
    if (errno != 0 || *end != '\0' || v > 0xFFFFFFFFull)
        return false;
    *value = static_cast<uint32_t>(v);
    return true;
}

bool partition_device(const char *part, char *path, unsigned path_size) {
    const char *digits = strncmp(part, "mtd", 3) == 0 ? part + 3 : part;
    size_t n = strspn(digits, "0123456789");
    if (n > 0 && n <= kMtdDeviceNameSize - 4 && digits[n] == '\0')
        return bounded_format(path, path_size, "/dev/mtd%s", digits);
    char device[kMtdDeviceNameSize];
    return find_mtd_partition(part, device) == 1 &&
           bounded_format(path, path_size, "/dev/%s", device);
}

int service_main(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            fputs(kUsage, stdout);
            return SERVICE_OK;
        }
    }
    if (argc < 2)
        return usage_error("missing command");
    for (const Command &c : kCommands) {
        if (strcmp(argv[1], c.name) == 0) {
            int r = c.run(argc - 2, argv + 2);
            fflush(stdout);
            return r;
        }
    }
    return usage_error("unknown command '%s'", argv[1]);
}
