// The boot loader update on a simulated board: the boot source from the SoC's registers, the
// image and partition it selects, compare-first writing with its retries, and the one line
// the operator watches.
#include "scenarios/harness.h"

#include <cstdio>
#include <fstream>

namespace scenario {
namespace {

using scenario::PrintTo; // found by argument lookup for the rows below

constexpr const char *kEs1 = "0x07120010";
constexpr size_t kRegion = 0xF0000;
constexpr size_t kPartition = 0x100000;
constexpr size_t kBlock = 0x10000; // erase block of both boot partitions of the default board
const std::string kStart = "Start updating U-boot..........";
const std::string kFailed = "!!! Unable to update uboot. !!!\n";
const std::string kDone = "OK     \nuboot updating is finished.\n";

// The progress display while a length-byte image is written in block-sized chunks.
std::string progress(size_t length, size_t block) {
    std::string shown;
    for (size_t done = 0; done < length;) {
        done = std::min(length, done + block);
        shown += format(" %3d %%\b\b\b\b\b\b", static_cast<unsigned>(done * 100 / length));
    }
    return shown;
}

// Where flash differs from expected placed at offset (the first differing position, from
// offset), or kSame; a flash too short differs where it ends.
constexpr size_t kSame = static_cast<size_t>(-1);
size_t differs_at(const std::string &flash, size_t offset, const std::string &expected) {
    for (size_t i = 0; i < expected.size(); ++i) {
        if (offset + i >= flash.size() || flash[offset + i] != expected[i])
            return offset + i;
    }
    return kSame;
}

void set_soc(const SimBoard &board, const std::string &revision, const std::string &boot_config) {
    board.change_config([&](json &c) {
        c["soc"].update({{"revision", revision}, {"boot_config", boot_config}});
    });
}

// A medium that selects only the boot loader, with image at writedata/name.
void boot_loader_medium(const SimBoard &board, const std::string &model, const std::string &name,
                        const std::string &image) {
    board.medium_list(model, "uboot\n");
    board.medium_file(model + "/writedata/" + name, image);
}

// --- boot source: the image and partition the registers select ------------------------------

struct SourceCase {
    const char *name;
    const char *revision;
    const char *boot_config;
    std::string model;
    bool es1; // the ES1 image ("_S1") on the NOR partition, else SPI
};

class UbootBootSource : public Scenario, public testing::WithParamInterface<SourceCase> {};

TEST_P(UbootBootSource, WritesTheImageOfTheBootSourceIntoItsRegion) {
    const SourceCase &c = GetParam();
    const size_t length = 200000;
    const std::string image = pattern(length, 7);
    const char *partition = c.es1 ? "mtd/uboot-nor.bin" : "mtd/uboot-spi.bin";
    boot_loader_medium(board, c.model, "boot-" + c.model + (c.es1 ? "_S1" : "") + ".bin", image);
    board.make();
    set_soc(board, c.revision, c.boot_config);
    board.write(partition, std::string(kPartition, '\0')); // an old boot loader

    std::string printed_image = c.es1 ? "" : "boot-" + c.model + ".bin\n";
    expect_run(board.tvupdate({c.model}), 0,
               run_prologue(c.model) + kStart + printed_image + (c.es1 ? "mtd6" : "mtd7") +
                   " \nNeed to update... " + progress(length, kBlock) + kDone + run_epilogue());
    // The whole region is erased, the image written at its start, the rest left alone.
    std::string flash = board.read(partition);
    ASSERT_EQ(flash.size(), kPartition);
    EXPECT_EQ(differs_at(flash, 0, image), kSame);
    EXPECT_EQ(differs_at(flash, length, std::string(kRegion - length, '\xff')), kSame);
    EXPECT_EQ(differs_at(flash, kRegion, std::string(kPartition - kRegion, '\0')), kSame);
    EXPECT_FALSE(board.exists(c.es1 ? "mtd/uboot-spi.bin" : "mtd/uboot-nor.bin"));
    // Only on an ES1 is the boot configuration register read, after the revision.
    std::vector<json> reads = board.trace("reg");
    ASSERT_EQ(reads.size(), c.es1 ? 2u : 1u);
    EXPECT_EQ(reads[0]["reg"], "REVID");
    EXPECT_FALSE(reads[0].contains("width")) << "a 32-bit read names no width";
    EXPECT_EQ(reads.back()["reg"], c.es1 ? "CCFG" : "REVID");
}

INSTANTIATE_TEST_SUITE_P(
    Sources, UbootBootSource,
    testing::Values(
        // Revision 0 boots from SPI whatever the configuration says; it is not even read.
        SourceCase{"Revision0Spi", "0x00000000", "0x00000300", "M1", false},
        SourceCase{"Es1Nor", kEs1, "0xfffffdff", "M1", true},
        // Any model name the run accepts fits the image name.
        SourceCase{"LongModelName", kEs1, "0x00000100", std::string(106, 'm'), true}),
    RowName());

// --- boards the update refuses ---------------------------------------------------------------

struct RefusalCase {
    const char *name;
    const char *revision;
    const char *boot_config;
    const char *message; // between the start line and the failure line
    json fault = nullptr;
};

class UbootRefused : public Scenario, public testing::WithParamInterface<RefusalCase> {};

TEST_P(UbootRefused, RefusesWithItsMessageBeforeLoadingAnyDriver) {
    const RefusalCase &c = GetParam();
    boot_loader_medium(board, "M1", "boot-M1.bin", "image");
    board.medium_file("M1/writedata/boot-M1_S1.bin", "image");
    board.make();
    set_soc(board, c.revision, c.boot_config);
    if (!c.fault.is_null())
        board.add_fault(c.fault);

    expect_run(board.tvupdate({"M1"}), 255,
               run_prologue("M1") + kStart + c.message + kFailed + run_epilogue());
    EXPECT_TRUE(board.trace("insmod").empty());
    EXPECT_EQ(board.listing("mtd"), "");
    // A window is never kept: whatever was mapped is unmapped again.
    EXPECT_EQ(board.trace("mmap").size(), board.trace("munmap").size());
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, UbootRefused,
    testing::Values(
        RefusalCase{"Es1SpiBoot", kEs1, "0x00000000",
                    "Not Support : This board is ES1 & SPI boot.\n"},
        RefusalCase{"BootFlag200", kEs1, "0x00000200", "** error ** CCFG boot flag 200 \n"},
        RefusalCase{"UnknownRevision", "0x07120011", "0x00000100", " ** error ** revid= 7120011"},
        // A revision of exactly 1 is a revision, not a failed read.
        RefusalCase{"RevisionOne", "1", "0x00000100", " ** error ** revid= 1"},
        RefusalCase{"RevisionUnreadable", kEs1, "0x00000100", "** error ** REV ID read error\n",
                    fault("map_request", "PERI")},
        RefusalCase{"BootConfigUnreadable", kEs1, "0x00000100", "** error ** CCFG read error\n",
                    fault("mmap", "PERI", {{"skip", 1}})},
        // A window the kernel placed elsewhere is of no use (and released).
        RefusalCase{"WindowPlacedElsewhere", "0x00000000", "0x00000000",
                    "** error ** REV ID read error\n",
                    fault("mmap", "PERI", {{"elsewhere", true}})}),
    RowName());

// --- finding the boot partition -------------------------------------------------------------

struct PartitionCase {
    const char *name;
    const char *revision;
    json partitions; // board.json "mtd"
    const char *device;
    const char *written;             // partition file written, or "" when none is found
    const char *removed_module = ""; // missing from the board's modules
};

class UbootPartition : public Scenario, public testing::WithParamInterface<PartitionCase> {};

// A partition of the SPI flash or of the NOR flash: present while the flash's drivers are loaded.
json partition(const char *name, int number, json drivers) {
    return json{{"name", name},       {"number", number},    {"type", "nor"},
                {"size", kPartition}, {"erasesize", kBlock}, {"drivers", std::move(drivers)}};
}
json spi(const char *name, int number) {
    return partition(name, number, json::array({"vq71206_spi", "m25p80"}));
}
json nor(const char *name, int number) {
    return partition(name, number, json::array({"physmap"}));
}

TEST_P(UbootPartition, TakesTheFirstNameFoundInItsOrderOfNames) {
    const PartitionCase &c = GetParam();
    const std::string image = pattern(1000, 3);
    boot_loader_medium(board, "M1", "boot-M1.bin", image);
    board.medium_file("M1/writedata/boot-M1_S1.bin", image);
    board.make();
    set_soc(board, c.revision, "0x00000100");
    board.change_config([&](json &config) { config["mtd"] = c.partitions; });
    if (c.removed_module[0] != '\0')
        std::remove(board.path("fs/modules/" + std::string(c.removed_module)).c_str());
    std::string image_line = std::string(c.revision) == "0" ? "boot-M1.bin\n" : "";
    std::string rest = c.written[0] != '\0' ? "Need to update... " + progress(1000, kBlock) + kDone
                                            : "uboot partition nothing?\n" + kFailed;
    expect_run(board.tvupdate({"M1"}), c.written[0] != '\0' ? 0 : 255,
               run_prologue("M1") + kStart + image_line + c.device + " \n" + rest + run_epilogue());
    EXPECT_EQ(board.listing("mtd"), c.written);
    EXPECT_EQ(board.trace("insmod").empty(), c.removed_module[0] != '\0'); // it is not loaded
}

INSTANTIATE_TEST_SUITE_P(
    Partitions, UbootPartition,
    testing::Values(
        PartitionCase{"PreferredNameWins", "0",
                      json::array({spi("spi_flash0", 2), spi("uboot-spi", 3)}), "mtd3",
                      "uboot-spi.bin"},
        PartitionCase{"LastNameOfTheList", "0", json::array({spi("VQ71206", 4)}), "mtd4",
                      "VQ71206.bin"},
        // Part of a longer name counts; numbers above 9 are used whole.
        PartitionCase{"SubstringAndTwoDigits", kEs1,
                      json::array({nor("physmap-flash.0", 1), nor("main.uboot-nor.a", 12)}),
                      "mtd12", "main.uboot-nor.a.bin"},
        // Only while its driver is loaded does a partition exist.
        PartitionCase{"DriverOfTheOtherFlash", kEs1, json::array({spi("uboot-nor", 1)}), "", ""},
        PartitionCase{"AMissingModule", kEs1, json::array({nor("uboot-nor", 6)}), "", "",
                      "physmap.ko"}),
    RowName());

// --- compare first, then erase, write and verify --------------------------------------------

const std::string kImage = pattern(150000, 11);
const std::string kWritten = progress(kImage.size(), kBlock);
const std::string kSkipped = "No need to update.  Skipping... " + kDone;
const std::string kUpdating = "Need to update... " + kWritten; // each retry adds its own
const std::string kEraseFailed = "Need to update... erase: Input/output error\n" + kFailed;

struct WriteCase {
    const char *name;
    std::string flash;          // partition contents before the run
    json fault;                 // on the NOR partition, or null
    std::string line;           // after "mtd6 \n": the run fails when it ends with the failure line
    size_t erases;              // erase requests, failed ones included
    std::string flash_after;    // the start of the partition afterwards
    std::string image = kImage; // the boot loader image
};

class UbootWrite : public Scenario, public testing::WithParamInterface<WriteCase> {};

TEST_P(UbootWrite, WritesOnlyWhereTheFlashDiffersAndVerifies) {
    const WriteCase &c = GetParam();
    boot_loader_medium(board, "M1", "boot-M1_S1.bin", c.image);
    board.make();
    set_soc(board, kEs1, "0x00000100");
    board.write("mtd/uboot-nor.bin", c.flash);
    if (!c.fault.is_null()) {
        json fault = c.fault;
        fault["target"] = "uboot-nor";
        board.add_fault(fault);
    }

    expect_run(board.tvupdate({"M1"}), c.line.ends_with(kFailed) ? 255 : 0,
               run_prologue("M1") + kStart + "mtd6 \n" + c.line + run_epilogue());
    EXPECT_EQ(board.trace("mtd_erase").size(), c.erases);
    EXPECT_EQ(differs_at(board.read("mtd/uboot-nor.bin"), 0, c.flash_after), kSame);
    // Every retry waits three seconds of board time.
    std::vector<json> sleeps = board.trace("sleep");
    EXPECT_EQ(sleeps.size(), c.erases > 0 ? c.erases - 1 : 0);
    for (const json &sleep : sleeps)
        EXPECT_EQ(sleep["ns"], 3000000000u);
}

// bytes with the bits of mask flipped in the byte at position at.
std::string flipped(std::string bytes, size_t at, int mask) {
    bytes[at] = static_cast<char>(bytes[at] ^ mask);
    return bytes;
}

INSTANTIATE_TEST_SUITE_P(
    Cycles, UbootWrite,
    testing::Values(
        WriteCase{"IdenticalImageIsNotWritten", kImage, nullptr, kSkipped, 0, kImage},
        // Only the image's length is compared: what follows it on the flash does not matter.
        WriteCase{"OnlyTheImageLengthIsCompared", kImage + "old tail", nullptr, kSkipped, 0,
                  kImage + "old tail"},
        WriteCase{"LastByteDiffers", flipped(kImage, kImage.size() - 1, 0x01), nullptr,
                  kUpdating + kDone, 1, kImage + "\xff\xff"},
        WriteCase{"VerifyFailsOnce", "", fault("mtd_program", "", {{"times", 1}}),
                  kUpdating + " Need to retry [1]..." + kWritten + kDone, 2, kImage},
        WriteCase{"VerifyFailsThreeTimes", "", fault("mtd_program", "", {{"times", 3}}),
                  kUpdating + " Need to retry [1]..." + kWritten + " Need to retry [2]..." +
                      kWritten + kFailed,
                  3, flipped(kImage, 0, 0xff)},
        WriteCase{"EraseFailsWithoutRetry", "", fault("mtd_erase"), kEraseFailed, 1, ""},
        WriteCase{"WriteFailsWithoutRetry", "", fault("mtd_write", "", {{"skip", 1}}),
                  "Need to update... " + kWritten.substr(0, 12) + // the first chunk's step
                      "write(fd_mtd,): Input/output error\n" + kFailed,
                  1, kImage.substr(0, kBlock) + "\xff"},
        // A short write is followed by the rest of its chunk.
        WriteCase{"ShortWriteIsCompleted", "",
                  fault("mtd_write", "", {{"bytes", 100}, {"times", 1}}), kUpdating + kDone, 1,
                  kImage},
        // An image longer than the region is refused before anything is erased.
        WriteCase{"ImageLargerThanTheRegion", "", nullptr,
                  "Error: image file is larger than the region (983041 > 983040 bytes).\n" +
                      kFailed,
                  0, "", pattern(kRegion + 1, 5)}),
    RowName());

// --- the kernel's own MTD tools work on the simulated partitions ---------------------------

class MtdTools : public Scenario {};

TEST_F(MtdTools, EraseCopyAndInfoBehaveAsOnTheBoard) {
    for (const char *tool : {"/usr/sbin/mtd_debug", "/usr/sbin/flash_erase", "/usr/sbin/flashcp"}) {
        if (!on_host() || !std::ifstream(tool))
            GTEST_SKIP() << "host tools of mtd-utils are needed";
    }
    board.make("");
    board.write("mtd/uboot-spi.bin", std::string(kPartition, '\0'));
    const std::string image = pattern(70000, 9);
    board.write("fs/tmp/image.bin", image);
    board.change_config([](json &config) {
        for (json &p : config["mtd"])
            p["drivers"] = json::array();    // present without loading a driver first
        config["nor"]["protected"] = {5, 6}; // the NOR flash's sectors: nothing to the SPI flash
    });

    RunResult info = board.run({"/usr/sbin/mtd_debug", "info", "/dev/mtd7"});
    EXPECT_EQ(info.output, "mtd.type = MTD_NORFLASH\nmtd.flags = MTD_CAP_NORFLASH\n"
                           "mtd.size = 1048576 (1M)\nmtd.erasesize = 65536 (64K)\n"
                           "mtd.writesize = 1 \nmtd.oobsize = 0 \nregions = 0\n\n");
    EXPECT_NE(board.run({"/usr/sbin/mtd_debug", "info", "/dev/mtd99"}).exit_status, 0);

    RunResult erase = board.run({"/usr/sbin/flash_erase", "/dev/mtd7", "0x20000", "2"});
    EXPECT_EQ(erase.exit_status, 0) << erase.output;
    std::string flash = board.read("mtd/uboot-spi.bin");
    EXPECT_EQ(differs_at(flash, 0x20000, std::string(0x20000, '\xff')), kSame);
    EXPECT_EQ(differs_at(flash, 0, std::string(0x20000, '\0')), kSame);

    RunResult copy = board.run({"/usr/sbin/flashcp", "/tmp/image.bin", "/dev/mtd7"});
    EXPECT_EQ(copy.exit_status, 0) << copy.output;
    flash = board.read("mtd/uboot-spi.bin");
    EXPECT_EQ(differs_at(flash, 0, image), kSame);
    // flashcp erases the blocks the image covers, nothing more.
    EXPECT_EQ(differs_at(flash, image.size(), std::string(2 * kBlock - image.size(), '\xff')),
              kSame);
    EXPECT_EQ(differs_at(flash, 0x40000, std::string(0x10, '\0')), kSame);

    // mtd_debug makes its output file with creat: it lands in the board's /tmp.
    RunResult read = board.run(
        {"/usr/sbin/mtd_debug", "read", "/dev/mtd7", "0", "4096", "/tmp/tvsim-mtd-read.bin"});
    EXPECT_EQ(read.exit_status, 0) << read.output;
    EXPECT_EQ(board.read("fs/tmp/tvsim-mtd-read.bin"), image.substr(0, 4096));
    EXPECT_FALSE(std::filesystem::exists("/tmp/tvsim-mtd-read.bin"));
}

} // namespace
} // namespace scenario
