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

TEST(CheckMtdname, FindsTheFirstPartitionWhoseNameContainsTheText) {
    const std::string long_name(70, 'x');
    const struct {
        const char *why;
        std::string table;
        const char *wanted;
        const char *device;
    } cases[] = {
        {"exact name",
         "mtd0: 00100000 00020000 \"kernel\"\nmtd1: 00100000 00010000 \"uboot-nor\"\n", "uboot-nor",
         "mtd1"},
        {"part of a longer name", "mtd3: 00100000 00020000 \"main-uboot-nor-a\"\n", "uboot-nor",
         "mtd3"},
        {"first in table order", "mtd2: 1 1 \"a-uboot-spi\"\nmtd1: 1 1 \"uboot-spi\"\n",
         "uboot-spi", "mtd2"},
        {"numbers 10 and above whole", "mtd12: 00100000 00020000 \"uboot-nor\"\n", "uboot-nor",
         "mtd12"},
        {"largest number that fits", "mtd9999: 1 1 \"uboot-nor\"\n", "uboot-nor", "mtd9999"},
        {"number too long for the name buffer", "mtd10000: 1 1 \"uboot-nor\"\n", "uboot-nor", "-"},
        {"device token without a number", "mtdx: 1 1 \"uboot-nor\"\nmtd4: 1 1 \"uboot-nor\"\n",
         "uboot-nor", "mtd4"},
        {"name too long to read is skipped",
         "mtd5: 1 1 \"uboot-nor" + long_name + "\"\nmtd6: 1 1 \"physmap-flash.0\"\n", "uboot-nor",
         "-"},
        {"a long name does not disturb the next line",
         "mtd5: 1 1 \"" + long_name + "\"\nmtd6: 1 1 \"physmap-flash.0\"\n", "physmap-flash.0",
         "mtd6"},
        {"absent", "mtd0: 00100000 00020000 \"kernel\"\n", "uboot-nor", "-"},
        {"line cut short", "mtd0: 00100000 00020000\n", "00020000", "-"},
        {"empty table", "", "uboot-nor", "-"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(found(c.table, c.wanted), c.device) << c.why;
}

} // namespace
