// Finding a partition's device by name in the kernel's partition table.
#include "nand/nand_raw_write.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <string>

namespace {

constexpr const char *kHeader = "dev:    size   erasesize  name\n";

// The device check_mtdname_in finds for wanted in table, or "-" when it finds none.
std::string found(const std::string &table, const char *wanted) {
    std::string text = kHeader + table;
    FILE *f = fmemopen(text.data(), text.size(), "r");
    char device[kMtdDeviceNameSize] = "?";
    int result = check_mtdname_in(f, wanted, device);
    fclose(f);
    EXPECT_TRUE(result == 0 || result == 1);
    return result == 1 ? std::string(device) : "-";
}

// A partition table line: device token, size, erase size, quoted name.
std::string line(const char *device, const std::string &name) {
    return std::string(device) + ": 00100000 00020000 \"" + name + "\"\n";
}

TEST(CheckMtdname, FindsTheFirstPartitionWhoseNameContainsTheText) {
    const std::string long_name(70, 'x');
    const struct {
        const char *why;
        std::string table;
        const char *wanted;
        const char *device;
    } cases[] = {
        {"exact name", line("mtd0", "kernel") + line("mtd1", "uboot-nor"), "uboot-nor", "mtd1"},
        {"part of a longer name", line("mtd3", "main-uboot-nor-a"), "uboot-nor", "mtd3"},
        {"first in table order", line("mtd2", "a-uboot-spi") + line("mtd1", "uboot-spi"),
         "uboot-spi", "mtd2"},
        {"numbers 10 and above whole", line("mtd12", "uboot-nor"), "uboot-nor", "mtd12"},
        {"largest number that fits", line("mtd9999", "uboot-nor"), "uboot-nor", "mtd9999"},
        {"number too long for the name buffer", line("mtd10000", "uboot-nor"), "uboot-nor", "-"},
        {"device token without a number", line("mtdx", "uboot-nor") + line("mtd4", "uboot-nor"),
         "uboot-nor", "mtd4"},
        {"name too long to read is skipped",
         line("mtd5", "uboot-nor" + long_name) + line("mtd6", "physmap-flash.0"), "uboot-nor", "-"},
        {"a long name does not disturb the next line",
         line("mtd5", long_name) + line("mtd6", "physmap-flash.0"), "physmap-flash.0", "mtd6"},
        {"absent", line("mtd0", "kernel"), "uboot-nor", "-"},
        {"line cut short", "mtd0: 00100000 00020000\n", "00020000", "-"},
        {"empty table", "", "uboot-nor", "-"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(found(c.table, c.wanted), c.device) << c.why;
}

} // namespace
