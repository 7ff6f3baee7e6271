// The board's device models refuse what the kernel and the hardware refuse, so that a tool that
// leaves out a step, or asks for the wrong thing, fails here as it would on the TV.
#include "hw/systool.h"
#include "support/board_fixture.h"
#include "tvmicro/tvm_update.h"

#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <vector>

// The C library's checked read, which fortified programs call.
extern "C" ssize_t __read_chk(int fd, void *buf, size_t count, size_t buflen);

namespace {

using testsupport::fault;
using testsupport::json;

class DeviceRules : public testsupport::BoardFixture {
protected:
    // errno of a failed call, 0 when it succeeded.
    static int error_of(bool failed) { return failed ? errno : 0; }
};

// The S5LP window's map request on fd: the driver's offset, or -1.
int64_t request_window(int fd) {
    const sys_mmap_entry &e = sys_mmap_table[SYS_WINDOW_S5LP];
    mmap_request r{};
    memcpy(r.name, e.name, sizeof r.name);
    r.phys_addr = e.phys_addr;
    r.size = e.size;
    return ioctl(fd, SYS_MMAP_REQUEST, &r) == 0 ? int64_t{r.offset} : -1;
}

// errno of a mapping of the S5LP window, 0 when it was mapped (and is released again).
int map_window(int fd, int prot, int flags, int64_t offset) {
    void *at = mmap(nullptr, 0x1000, prot, flags, fd, static_cast<off_t>(offset));
    if (at == MAP_FAILED)
        return errno;
    munmap(at, 0x1000);
    return 0;
}

TEST_F(DeviceRules, RegisterWindowsMapOnlyAsTheControlDriverAllows) {
    attach();
    const uint32_t phys = sys_mmap_table[SYS_WINDOW_S5LP].phys_addr;
    struct Case {
        const char *what;
        int open_flags;
        bool request;
        bool driver_offset; // else the physical address
        int prot;
        int map_flags;
        int err;
    } cases[] = {
        {"as the tool maps it", O_RDWR, true, true, PROT_READ | PROT_WRITE, MAP_SHARED, 0},
        {"without the map request", O_RDWR, false, true, PROT_READ | PROT_WRITE, MAP_SHARED,
         EINVAL},
        {"at the physical address", O_RDWR, true, false, PROT_READ | PROT_WRITE, MAP_SHARED,
         EINVAL},
        {"a private mapping", O_RDWR, true, true, PROT_READ | PROT_WRITE, MAP_PRIVATE, EINVAL},
        {"writable through a read-only descriptor", O_RDONLY, true, true, PROT_READ | PROT_WRITE,
         MAP_SHARED, EACCES},
        {"readable through a read-only descriptor", O_RDONLY, true, true, PROT_READ, MAP_SHARED, 0},
    };
    int64_t offset_seen = -1;
    for (const Case &c : cases) {
        int fd = open("/dev/cn_user", c.open_flags);
        ASSERT_GE(fd, 0) << c.what;
        // A request on another descriptor does not open the window on this one.
        int other = open("/dev/cn_user", O_RDWR);
        int64_t offset = request_window(c.request ? fd : other);
        close(other);
        ASSERT_GE(offset, 0) << c.what;
        offset_seen = offset;
        EXPECT_EQ(map_window(fd, c.prot, c.map_flags, c.driver_offset ? offset : phys), c.err)
            << c.what;
        close(fd);
    }
    EXPECT_NE(offset_seen, int64_t{phys}); // a tool that ignored the offset could not map
}

// The kernel refuses an open with EMFILE once the process holds as many descriptors as its
// limit allows, and a board gives a process 1024. Devices take descriptors from the lowest free
// one: descriptor 0 in a program started without standard input.
TEST_F(DeviceRules, DeviceOpensEndWithEmfileAtTheProcessLimit) {
    attach();
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_LE(limit.rlim_cur, 1024u);
    // Given back first: the sanitizer build checks a device's release through a pipe.
    int spare[2];
    ASSERT_EQ(pipe(spare), 0);
    testsupport::StandardInputClosed without_input;
    std::vector<int> opened;
    int fd = 0;
    while ((fd = open("/dev/i2c-0", O_RDWR)) >= 0)
        opened.push_back(fd);
    const int err = errno;
    const int highest = opened.empty() ? -1 : *std::max_element(opened.begin(), opened.end());
    ASSERT_FALSE(opened.empty());
    EXPECT_EQ(opened[0], 0);
    EXPECT_EQ(ioctl(opened[0], I2C_SLAVE, 0x50), 0); // the device answers at descriptor 0 too
    close(spare[0]);
    close(spare[1]);
    for (int each : opened)
        close(each);
    without_input.restore();
    EXPECT_EQ(err, EMFILE);
    EXPECT_EQ(static_cast<rlim_t>(highest) + 1, limit.rlim_cur); // every descriptor was used
    std::vector<json> opens = trace("open");
    ASSERT_FALSE(opens.empty());
    EXPECT_EQ(opens.back().value("errno", 0), EMFILE);
    int again = open("/dev/i2c-0", O_RDWR); // descriptors closed are free again
    EXPECT_GE(again, 0);
    close(again);
    // No device lies at or past the limit, where only the board's own descriptors are.
    EXPECT_EQ(ioctl(static_cast<int>(limit.rlim_cur), I2C_SLAVE, 0x50), -1);
}

TEST_F(DeviceRules, MtdDescriptorsDoOnlyWhatTheirOpenModeAllows) {
    add_fault(fault("mtd_write", "uboot_env", {{"bytes", 0}}));
    add_fault(fault("open", "/dev/mtd2", {{"times", 1}}));
    attach();
    int write_only = open("/dev/mtd1", O_WRONLY);
    int read_only = open("/dev/mtd1", O_RDONLY);
    int read_write = open("/dev/mtd1", O_RDWR);
    ASSERT_TRUE(write_only >= 0 && read_only >= 0 && read_write >= 0);
    struct stat node {};
    ASSERT_EQ(stat("/dev/mtd1", &node), 0); // the node as udev makes it
    EXPECT_TRUE(S_ISCHR(node.st_mode));
    EXPECT_EQ(node.st_rdev, makedev(90, 2));
    EXPECT_EQ(node.st_nlink, 1u);
    // A fault in a node's open leaves its stat alone, and a stat does not use the fault up.
    EXPECT_EQ(stat("/dev/mtd2", &node), 0);
    EXPECT_EQ(error_of(open("/dev/mtd2", O_RDONLY) < 0), ENODEV);
    mtd_info_user info{};
    ASSERT_EQ(ioctl(read_only, MEMGETINFO, &info), 0);
    uint8_t page[2048];
    memset(page, 0x5A, sizeof page);
    erase_info_user block{0, info.erasesize}, empty{0, 0}, past_end{info.size, 0};
    loff_t first_block = 0, before_start = -1, at_end = info.size;
    const struct {
        const char *what;
        std::function<bool()> fails;
        int err;
    } cases[] = {
        {"read, write-only", [&] { return read(write_only, page, 16) == -1; }, EBADF},
        {"write, read-only", [&] { return write(read_only, page, sizeof page) == -1; }, EBADF},
        {"erase, read-only", [&] { return ioctl(read_only, MEMERASE, &block) == -1; }, EPERM},
        {"bad block query, read-only",
         [&] { return ioctl(read_only, MEMGETBADBLOCK, &first_block) < 0; }, 0},
        {"bad block query before the start",
         [&] { return ioctl(read_only, MEMGETBADBLOCK, &before_start) == -1; }, EINVAL},
        {"bad block query at the end",
         [&] { return ioctl(read_only, MEMGETBADBLOCK, &at_end) == -1; }, EINVAL},
        {"erase of nothing", [&] { return ioctl(read_write, MEMERASE, &empty) != 0; }, 0},
        {"erase of nothing past the end",
         [&] { return ioctl(read_write, MEMERASE, &past_end) == -1; }, EINVAL},
        {"write that stores nothing", [&] { return write(read_write, page, sizeof page) != 0; }, 0},
        {"fortified read that fills its buffer",
         [&] { return __read_chk(read_only, page, sizeof page, sizeof page) < 0; }, 0},
        {"seek to the end", [&] { return lseek(read_only, 0, SEEK_END) != info.size; }, 0},
        {"seek past the end", [&] { return lseek(read_only, 1, SEEK_END) == -1; }, EINVAL},
        {"seek before the start", [&] { return lseek(read_only, -1, SEEK_SET) == -1; }, EINVAL},
        {"seek to a hole", [&] { return lseek(read_only, 0, SEEK_HOLE) == -1; }, EINVAL},
    };
    for (const auto &c : cases) {
        errno = 0; // each failure sets its own
        EXPECT_EQ(error_of(c.fails()), c.err) << c.what;
    }
    close(write_only);
    close(read_only);
    close(read_write);
}

// A partition written into board.json by hand with only its name and type takes the default
// geometry and times.
TEST_F(DeviceRules, APartitionWithoutGeometryOrTimesTakesTheDefaults) {
    change_config([](json &c) {
        c["mtd"] = {{{"name", "bare_nand"}, {"type", "nand"}}, {{"name", "bare_nor"}}};
    });
    attach();
    const struct {
        const char *node;
        uint32_t type, writesize;
        uint64_t erase_ns, write_ns_per_byte;
    } cases[] = {
        {"/dev/mtd0", MTD_NANDFLASH, 2048, 2000000, 100},
        {"/dev/mtd1", MTD_NORFLASH, 1, 500000000, 3000},
    };
    std::vector<uint8_t> page(2048, 0x5A);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.node);
        int fd = open(c.node, O_RDWR);
        ASSERT_GE(fd, 0);
        mtd_info_user info{};
        ASSERT_EQ(ioctl(fd, MEMGETINFO, &info), 0);
        EXPECT_EQ(info.type, c.type);
        EXPECT_EQ(info.size, 0x100000u);
        EXPECT_EQ(info.erasesize, 0x10000u);
        EXPECT_EQ(info.writesize, c.writesize);
        // Two erases, then a write: the trace's board times between them are what each took.
        erase_info_user block{0, info.erasesize};
        EXPECT_EQ(ioctl(fd, MEMERASE, &block), 0);
        EXPECT_EQ(ioctl(fd, MEMERASE, &block), 0);
        EXPECT_EQ(write(fd, page.data(), page.size()), static_cast<ssize_t>(page.size()));
        std::vector<json> erases = trace("mtd_erase"), writes = trace("mtd_write");
        ASSERT_GE(erases.size(), 2u);
        ASSERT_FALSE(writes.empty());
        auto t = [](const json &e) { return e["t"].get<uint64_t>(); };
        EXPECT_EQ(t(erases.back()) - t(erases[erases.size() - 2]), c.erase_ns);
        EXPECT_EQ(t(writes.back()) - t(erases.back()), page.size() * c.write_ns_per_byte);
        close(fd);
    }
}

// The kernel's files answer for the mode they were opened in: sysfs refuses to open an attribute
// for what it cannot do (EACCES, even to root), and a descriptor without read (or write) access
// fails a read (or write) with EBADF. A driver that has no read at all answers one with EINVAL.
TEST_F(DeviceRules, KernelFilesDoOnlyWhatTheirOpenModeAllows) {
    change_config([](json &c) {
        c["media"] = {{"usb", json::array({{{"disk", "b"}, {"medium", "media/usb"}},
                                           {{"disk", "c"}, {"medium", "media/usb"}}})},
                      {"sd", {{"slot", "insert"}, {"medium", "media/sd"}}}};
    });
    attach();
    const char *rescan = "/sys/class/scsi_device/0:0:0:0/device/rescan";
    const char *no_stick = "/sys/class/scsi_device/2:0:0:0/device/rescan";
    const char *sd = "/proc/sdcard/ctrl";
    char text[64] = {};
    // errno of one call on a descriptor opened with flags (or of the open), 0 when both worked.
    // A refused open answers -1, as the C library does; another negative value goes on to the
    // call and fails it with EBADF.
    auto on = [&](const char *path, int flags, const std::function<bool(int)> &call) {
        int fd = open(path, flags);
        if (fd == -1)
            return errno;
        int err = error_of(!call(fd));
        close(fd);
        return err;
    };
    auto reads = [&](int fd) { return read(fd, text, sizeof text - 1) >= 0; };
    auto writes = [&](int fd) { return write(fd, "rescan", 6) == 6; };
    auto fopens = [](const char *path, const char *mode) {
        FILE *f = fopen(path, mode);
        int err = error_of(f == nullptr);
        if (f != nullptr)
            fclose(f);
        return err;
    };
    const struct {
        const char *what;
        int err;
        int expected;
    } cases[] = {
        {"rescan, read-only", on(rescan, O_RDONLY, writes), EACCES},
        {"rescan, read-write", on(rescan, O_RDWR, writes), EACCES},
        {"rescan, write-only", on(rescan, O_WRONLY, writes), 0},
        {"rescan of the second stick",
         on("/sys/class/scsi_device/1:0:0:0/device/rescan", O_WRONLY, writes), 0},
        {"rescan of a host without a stick", on(no_stick, O_WRONLY, writes), ENOENT},
        {"rescan of a host without a stick, for update", fopens(no_stick, "r+"), ENOENT},
        {"rescan of a host without a stick, made anew", fopens(no_stick, "w"), EACCES},
        {"SD control, write-only, read", on(sd, O_WRONLY, reads), EBADF},
        {"SD control, read-only, write", on(sd, O_RDONLY, writes), EBADF},
        {"SD control, read-write, read", on(sd, O_RDWR, reads), 0},
        {"disk size, write-only", on("/sys/block/sdb/size", O_WRONLY, reads), EACCES},
        {"disk size, for update", fopens("/sys/block/sdb/size", "r+"), EACCES},
        {"disk size, for reading", fopens("/sys/block/sdb/size", "r"), 0},
        {"MTD table, read-write", on("/proc/mtd", O_RDWR, reads), EACCES},
        {"misc table, for writing", fopens("/proc/misc", "w"), EACCES},
        {"misc table, read-only", on("/proc/misc", O_RDONLY, reads), 0},
        {"SPI control, read", on("/dev/spioctl", O_RDWR, reads), EINVAL},
    };
    // Read in pieces, the SD control file goes on where the last read ended.
    std::string pieces;
    int control = open(sd, O_RDONLY);
    for (ssize_t n; (n = read(control, text, 3)) > 0;)
        pieces.append(text, static_cast<size_t>(n));
    close(control);
    // A stick whose size board.json leaves out has 7864320 sectors (3.75 GiB).
    memset(text, 0, sizeof text); // a failed read leaves it empty
    on("/sys/block/sdb/size", O_RDONLY, reads);
    const std::string disk_size = text;
    // A refused open gives its descriptor back: with standard input closed, the next open
    // gets descriptor 0.
    testsupport::StandardInputClosed without_input;
    int refused = open(rescan, O_RDONLY);
    int next = open("/proc/misc", O_RDONLY);
    close(next);
    without_input.restore();
    detach();
    for (const auto &c : cases)
        EXPECT_EQ(c.err, c.expected) << c.what;
    EXPECT_EQ(pieces, "insert\n");
    EXPECT_EQ(disk_size, "7864320\n");
    EXPECT_EQ(refused, -1);
    EXPECT_EQ(next, 0);
    EXPECT_EQ(trace("rescan").size(), 2u);
}

// The drivers go block by block and page by page (the NOR chip sector by sector, word by word):
// a request that meets a protected sector, a bad block or a failing block fails there with EIO,
// having done what lies before.
TEST_F(DeviceRules, AFailedEraseOrWriteHasDoneWhatLiesBeforeWhereItStopped) {
    change_config([](json &c) {
        c["mtd"][6]["drivers"] = json::array(); // uboot-nor, /dev/mtd6, present without its driver
        c["mtd"][1]["bad_blocks"] = {2};        // uboot_env, /dev/mtd1
        c["nor"]["protected"] = {5};            // 0x20000..0x2FFFF
        c["faults"] = {fault("nand_write_fail", "uboot_env:1")};
    });
    std::filesystem::create_directories(dir_ / "mtd");
    std::ofstream(dir_ / "mtd/uboot-nor.bin") << std::string(0x40000, '\0');
    std::ofstream(dir_ / "mtd/uboot_env.bin") << std::string(0x100000, '\0');
    attach();
    int nor = open("/dev/mtd6", O_RDWR);
    int nand = open("/dev/mtd1", O_RDWR);
    erase_info_user whole{0, 0x100000};
    EXPECT_EQ(error_of(ioctl(nor, MEMERASE, &whole) != 0), EIO);
    EXPECT_EQ(error_of(ioctl(nand, MEMERASE, &whole) != 0), EIO);
    const std::string data(17, 'w'); // its last byte is the protected sector's first
    ASSERT_EQ(lseek(nor, 0x1FFF0, SEEK_SET), 0x1FFF0);
    EXPECT_EQ(error_of(write(nor, data.data(), data.size()) < 0), EIO);
    const std::string pages(0x40000, 'n');
    EXPECT_EQ(error_of(write(nand, pages.data(), pages.size()) < 0), EIO);
    close(nor);
    close(nand);
    const std::string flash = read_file("mtd/uboot-nor.bin");
    const std::string blocks = read_file("mtd/uboot_env.bin");
    EXPECT_TRUE(flash.substr(0, 0x40000) ==
                std::string(0x1FFF0, '\xff') + data.substr(0, 16) + std::string(0x20000, '\0'));
    EXPECT_TRUE(blocks == std::string(0x20000, 'n') + std::string(0x20000, '\xff') +
                              std::string(0xC0000, '\0'));
}

// A NAND read as the kernel's character device gives it: a failed read is EIO, also where only
// its last byte lies in the failing block; bitflips ECC corrects or cannot correct still
// deliver the data (as corrected, or as read) and are only counted in ECCGETSTATS.
TEST_F(DeviceRules, NandReadsReportEccOnlyInTheCounts) {
    const struct {
        const char *what;
        json fault;
        int err;
        uint32_t corrected;
        uint32_t failed;
        bool intact;
        off_t offset = 0x20000;
    } cases[] = {
        {"a read that fails", fault("nand_read_fail", "uboot_env:1", {{"times", 1}}), EIO, 0, 0,
         true},
        {"corrected bitflips", fault("nand_bitflip", "uboot_env:1", {{"bits", 3}, {"times", 1}}), 0,
         3, 0, true},
        {"one bitflip unless told", fault("nand_bitflip", "uboot_env:1", {{"times", 1}}), 0, 4, 0,
         true},
        {"too many to correct",
         fault("nand_bitflip", "uboot_env:1", {{"uncorrectable", true}, {"times", 1}}), 0, 4, 1,
         false},
        {"a read ending on the failing block's first byte",
         fault("nand_read_fail", "uboot_env:1", {{"skip", 3}, {"times", 1}}), EIO, 4, 1, true,
         0x20000 - 2047},
        {"bitflips in the read's second block",
         fault("nand_bitflip", "uboot_env:1", {{"bits", 2}, {"times", 1}}), 0, 6, 1, true,
         0x20000 - 2047},
    };
    change_config([&](json &c) {
        for (const auto &row : cases)
            c["faults"].push_back(row.fault);
        c["mtd"][1]["bad_blocks"] = {5}; // counted too, away from the blocks read
    });
    std::filesystem::create_directories(dir_ / "mtd");
    std::ofstream(dir_ / "mtd/uboot_env.bin") << std::string(0x40000, 'p');
    attach();
    int nand = open("/dev/mtd1", O_RDONLY);
    for (const auto &c : cases) {
        char page[2048] = {};
        ASSERT_EQ(lseek(nand, c.offset, SEEK_SET), c.offset);
        EXPECT_EQ(error_of(read(nand, page, sizeof page) < 0), c.err) << c.what;
        mtd_ecc_stats stats{};
        ASSERT_EQ(ioctl(nand, ECCGETSTATS, &stats), 0);
        EXPECT_EQ(stats.corrected, c.corrected) << c.what;
        EXPECT_EQ(stats.failed, c.failed) << c.what;
        EXPECT_EQ(stats.badblocks, 1u) << c.what;
        if (c.err == 0) {
            EXPECT_EQ(std::string(page, sizeof page) == std::string(2048, 'p'), c.intact) << c.what;
        }
    }
    char byte = 0; // at the partition's end a read gives nothing, and no error
    ASSERT_EQ(lseek(nand, 0, SEEK_END), 0x100000);
    EXPECT_EQ(read(nand, &byte, 1), 0);
    close(nand);
}

// The out-of-band areas as the kernel's place-OOB requests reach them: a write stays within its
// page's area, a read runs on into the next pages' (where a bad block's first page shows its
// marker, 0x00 in bytes 0-1), and nothing reaches past the partition's end.
TEST_F(DeviceRules, OutOfBandRequestsStayWithinTheirAreas) {
    change_config([](json &c) { c["mtd"][1]["bad_blocks"] = {2}; }); // uboot_env, /dev/mtd1
    attach();
    int nand = open("/dev/mtd1", O_RDWR);
    mtd_info_user info{};
    ASSERT_EQ(ioctl(nand, MEMGETINFO, &info), 0);
    const uint32_t before_bad = 2 * info.erasesize - info.writesize; // the page before block 2
    std::vector<uint8_t> bytes(4097, 0);
    memcpy(bytes.data(), "tag!", 4);
    const struct {
        const char *what;
        unsigned long request;
        uint32_t start;
        uint32_t length;
        int err;
    } cases[] = {
        {"a write within its page's area", MEMWRITEOOB, before_bad + 2, 4, 0},
        {"a write past its page's area", MEMWRITEOOB, 62, 4, EINVAL},
        {"a write at the end", MEMWRITEOOB, info.size, 4, EINVAL},
        {"a read at the end", MEMREADOOB, info.size, 4, EINVAL},
        {"a read of more than 4096 bytes", MEMREADOOB, 0, 4097, EINVAL},
        {"a read of 4096 bytes", MEMREADOOB, 0, 4096, 0},
        {"a read into the next page's area", MEMREADOOB, before_bad, 128, 0},
    };
    for (const auto &c : cases) {
        mtd_oob_buf request{c.start, c.length, bytes.data()};
        errno = 0;
        EXPECT_EQ(error_of(ioctl(nand, c.request, &request) == -1), c.err) << c.what;
    }
    std::string areas = std::string(2, '\xff') + "tag!" + std::string(58, '\xff') +
                        std::string(2, '\0') + std::string(62, '\xff');
    EXPECT_TRUE(std::string(bytes.begin(), bytes.begin() + 128) == areas);
    // A write of pages 1 to 4 programs the ECC of each (bytes 40-63) into its own page's area.
    // Page 3 differs from pages 1 and 2 only in the last byte of each 256-byte step, and each
    // step's three ECC bytes tell it; page 4 only in a byte of step 3, which only step 3 tells.
    std::string pages(4 * info.writesize, 'e');
    for (size_t at = 3 * info.writesize - 1; at > 2 * info.writesize; at -= 256)
        pages[at] = 'f';
    pages[3 * info.writesize + 3 * 256 + 10] = 'f';
    ASSERT_EQ(lseek(nand, info.writesize, SEEK_SET), info.writesize);
    ASSERT_EQ(write(nand, pages.data(), pages.size()), ssize_t(pages.size()));
    mtd_oob_buf request{0, 5 * 64, bytes.data()};
    ASSERT_EQ(ioctl(nand, MEMREADOOB, &request), 0);
    auto ecc_of = [&](size_t page, size_t step) {
        return std::string(bytes.begin() + 64 * page + 40 + 3 * step,
                           bytes.begin() + 64 * page + 43 + 3 * step);
    };
    EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 64), std::string(64, '\xff')); // page 0
    for (size_t step = 0; step < 8; ++step) {
        EXPECT_NE(ecc_of(1, step), std::string(3, '\xff')) << step;
        EXPECT_EQ(ecc_of(2, step), ecc_of(1, step)) << step;
        EXPECT_NE(ecc_of(3, step), ecc_of(1, step)) << step;
        EXPECT_EQ(ecc_of(4, step) == ecc_of(1, step), step != 3) << step;
    }
    close(nand);
}

// The microcontroller's link on the board, at its rate, opened with these flags.
int open_link(int flags) {
    int fd = open("/dev/uat_ucom", flags);
    if (fd >= 0)
        set_uat_rate(fd, tvm_link_rate("M1"));
    return fd;
}

TEST_F(DeviceRules, TheMicrocontrollerAnswersOnlyWhatItIsSent) {
    testing::internal::CaptureStdout(); // the commands' retry messages (/tmp is the board's)
    add_fault(fault("eeprom_write_status", "eeprom_write", {{"replies", 2}}));
    attach();
    int fd = open_link(O_RDWR);
    uint8_t reply[70];
    // A read of another EEPROM than its own is refused; of its own, 64 bytes at most are
    // read. Each reply echoes the command's code.
    const uint8_t read_ferund[] = {0x3A, 0x06, 0xB8, 0x01, 0x40, 0x00, 0x00, 0x39};
    const uint8_t read_64[] = {0x3A, 0x06, 0xB8, 0x00, 0x40, 0x00, 0x00, 0x38};
    const uint8_t read_65[] = {0x3A, 0x06, 0xB8, 0x00, 0x41, 0x00, 0x00, 0x39};
    std::vector<int> reads;
    for (const uint8_t *frame : {read_ferund, read_64, read_65}) {
        out_uat(fd, frame, sizeof read_ferund);
        reads.insert(reads.end(), {in_uat(fd, reply, 70), reply[2], reply[3]});
    }
    EXPECT_EQ(reads, (std::vector<int>{0, 0xB8, 0x31, 0, 0xB8, 0x30, 0, 0xB8, 0x31}));
    // The picture is muted only with the power on, and only by a 1.
    auto picture_mute = [&](uint8_t on) {
        std::vector<uint8_t> frame = {0x3A, 0x03, 0x06, on};
        frame.push_back(uat_checksum(frame.data(), frame.size()));
        out_uat(fd, frame.data(), static_cast<int>(frame.size()));
        in_uat(fd, reply, 5);
        return static_cast<int>(reply[3]);
    };
    std::vector<int> mutes = {picture_mute(1)};
    const uint8_t power_on_padded[] = {0x3A, 0x02, 0x2B, 0x67, 0x00};
    out_uat(fd, power_on_padded, sizeof power_on_padded);
    in_uat(fd, reply, 5);
    mutes.insert(mutes.end(), {picture_mute(0), picture_mute(1)});
    EXPECT_EQ(mutes, (std::vector<int>{0x31, 0x31, 0x30}));
    // An EEPROM write (64 bytes of 0x11) to a memory it does not have is refused, with the
    // power on as well, and so is one that passes the end of its own 32 KiB.
    auto eeprom_write = [](uint8_t target, uint16_t address) {
        std::vector<uint8_t> frame = {0x3A,
                                      0x45,
                                      0xB7,
                                      target,
                                      static_cast<uint8_t>(address >> 8),
                                      static_cast<uint8_t>(address)};
        frame.resize(70, 0x11);
        frame.push_back(uat_checksum(frame.data(), frame.size()));
        return frame;
    };
    for (const auto &[target, address] : {std::pair{2, 0}, {0, 0x7FC1}}) {
        out_uat(fd, eeprom_write(target, address).data(), 71);
        EXPECT_EQ(in_uat(fd, reply, 6), 0);
        EXPECT_EQ(reply[3], 0x31) << target << " " << address;
    }
    // The port commands set and clear bits of a port; the rate request succeeds.
    EXPECT_EQ(tvmuio_SetPort(fd, 1, 0x14), 0);
    EXPECT_EQ(tvmuio_ClearPort(fd, 1, 0x04), 0);
    EXPECT_EQ(ioctl(fd, 2001, tvm_link_rate("M1")), 0);
    // A close-write outside writing mode, or of a writing mode that erased nothing, is refused,
    // unless it repeats the close that ended writing mode (whose reply may have been lost).
    int close_outside = tvm_CloseWriteFlash(fd);
    tvm_SetFlashWritingMode(fd);
    tvm_SetGuarddogTime(fd, 0);
    int close_unerased = tvm_CloseWriteFlash(fd);
    tvm_EraseFlash(fd, 2);
    int close_first = tvm_CloseWriteFlash(fd);
    int close_again = tvm_CloseWriteFlash(fd);
    // A stray byte is not skipped: the frame after it is spoilt, and so is what its length byte
    // (the start byte) takes in.
    const uint8_t stray[] = {0x00};
    out_uat(fd, stray, sizeof stray);
    int after_stray = tvm_GetMicroID(fd);
    // A power command without its pad byte is not complete: nothing comes back.
    close(fd);
    fd = open_link(O_RDWR);
    const uint8_t power_on[] = {0x3A, 0x02, 0x2B, 0x67};
    out_uat(fd, power_on, sizeof power_on);
    int unpadded = in_uat(fd, reply, 5);
    close(fd);
    // Without O_NONBLOCK a read waits for the reply; with it, it returns at once.
    int nonblocking = open_link(O_RDWR | O_NONBLOCK);
    const uint8_t status[] = {0x3A, 0x02, 0x21, 0x5D};
    ASSERT_EQ(write(nonblocking, status, sizeof status), 4);
    int early = error_of(read(nonblocking, reply, 22) < 0);
    usleep(100000);
    ASSERT_EQ(read(nonblocking, reply, 22), 22);
    // An EEPROM write (of the last block) answered twice (the fault): the second answer follows
    // the first after the write's 5 ms and the first answer's wire time, not at once.
    ASSERT_EQ(write(nonblocking, eeprom_write(0, 0x7FC0).data(), 71), 71);
    usleep(8000); // past the first answer (200 us, 5 ms, 6 bytes), before the second
    int first_answer = static_cast<int>(read(nonblocking, reply, 12));
    usleep(5000);
    int second_answer = static_cast<int>(read(nonblocking, reply, 12));
    close(nonblocking);
    // A reply comes after the reply delay (200 us) and its bytes' wire time, 10 bits a byte at
    // the link's rate: the ID query is taken 22 + 4 byte times after the status query.
    fd = open_link(O_RDWR);
    tvm_GetStatus(fd);
    tvm_GetMicroID(fd);
    close(fd);
    detach();
    testing::internal::GetCapturedStdout();
    // In the order of the calls above.
    EXPECT_EQ((std::vector<int>{close_outside, close_unerased, close_first, close_again,
                                after_stray, unpadded, early, first_answer, second_answer}),
              (std::vector<int>{-1, -1, 0, 0, -1, -1, EAGAIN, 6, 6}));
    EXPECT_EQ(read_json("state.json")["microcontroller"]["ports"]["1"], 0x10);
    std::vector<json> sent_twice; // the one reply sent twice says so
    std::ranges::copy_if(trace("uart_reply"), std::back_inserter(sent_twice),
                         [](const json &reply) { return reply.contains("copies"); });
    ASSERT_EQ(sent_twice.size(), 1u);
    EXPECT_EQ(sent_twice[0]["copies"], 2);
    std::vector<json> frames = trace("uart_frame");
    ASSERT_GE(frames.size(), 2u);
    const uint64_t byte_ns = 10'000'000'000 / tvm_link_rate("M1");
    EXPECT_EQ(frames.back()["t"].get<uint64_t>() - frames[frames.size() - 2]["t"].get<uint64_t>(),
              200'000 + (22 + 4) * byte_ns);
    // A read whose time-out runs out (after the frame behind the stray byte): the frame's wire
    // time is written out as the link's before the wait, and the wait is the 500 ms time-out.
    std::vector<json> busy = trace("busy"), timed_out = trace("uart_read");
    ASSERT_FALSE(busy.empty() || timed_out.empty());
    EXPECT_EQ(busy[0]["took_ns"], 4 * byte_ns);
    EXPECT_EQ(timed_out[0]["t"].get<uint64_t>() - busy[0]["t"].get<uint64_t>(), 500'000'000u);
}

TEST_F(DeviceRules, TheGuardDogEndsWritingModeUnlessItIsStopped) {
    testing::internal::CaptureStdout();
    attach();
    using Frame = std::vector<uint8_t>;
    const Frame twelve_seconds = {0x3A, 0x04, 0x23, 0x01, 0x78, 0xDA},
                stop = {0x3A, 0x04, 0x23, 0x00, 0x78, 0xD9},
                stop_without_its_time = {0x3A, 0x04, 0x23, 0x00, 0x00, 0x61};
    struct Case {
        const char *what;
        Frame guard_dog; // empty: no guard-dog command
        bool before;     // sent before writing mode is entered
        unsigned ms;     // between entering writing mode and the erase
        int erase;
    } cases[] = {
        // in this order: a reset brings back the power-up time, a stop lasts until a reset
        {"never set, erased in time", {}, false, 1900, 0},
        {"never set: its power-up time of 2 s", {}, false, 2000, -1},
        {"mode 1: 12 s", twelve_seconds, false, 12000, -1},
        {"mode 1, erased in time", twelve_seconds, false, 11000, 0},
        {"stopped", stop, false, 30000, 0},
        {"stopped before writing mode", stop, true, 3000, -1},
        {"a stop without the time byte 0x78 is refused", stop_without_its_time, false, 3000, -1},
    };
    int results[std::size(cases)];
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case &c = cases[i];
        int fd = open_link(O_RDWR);
        uint8_t idle_bank = tvm_GetStatus(fd) == 2 ? 1 : 2; // a reset may start the other bank
        auto guard_dog = [&] {
            if (!c.guard_dog.empty())
                uat_acknowledged_command(fd, c.guard_dog.data(),
                                         static_cast<int>(c.guard_dog.size()));
        };
        if (c.before)
            guard_dog();
        tvm_SetFlashWritingMode(fd);
        if (!c.before)
            guard_dog();
        usleep(c.ms * 1000);
        results[i] = tvm_EraseFlash(fd, idle_bank);
        tvm_CloseWriteFlash(fd);
        close(fd);
    }
    detach();
    testing::internal::GetCapturedStdout();
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(results[i], cases[i].erase) << cases[i].what;
}

} // namespace
