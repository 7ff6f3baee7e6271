// The boot loader update on a simulated board: the boot source from the SoC's registers, the
// image and partition it selects, compare-first writing with its retries, and the one line
// the operator watches.
#include "scenarios/harness.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace scenario {
namespace {

using scenario::PrintTo; // found by argument lookup for the rows below

constexpr const char *kEs1 = "0x07120010";
constexpr size_t kRegion = 0xF0000;
constexpr size_t kPartition = 0x100000;
constexpr size_t kBlock = 0x10000; // erase block of both boot partitions of the default board
constexpr const char *kStart = "Start updating U-boot..........";
constexpr const char *kFailed = "!!! Unable to update uboot. !!!\n";
constexpr const char *kDone = "OK     \nuboot updating is finished.\n";

// The progress display while a length-byte image is written in block-sized chunks.
std::string progress(size_t length, size_t block) {
    std::string shown;
    for (size_t done = 0; done < length;) {
        done = std::min(length, done + block);
        char step[16];
        snprintf(step, sizeof step, " %3d %%", static_cast<int>(done * 100 / length));
        shown += std::string(step) + "\b\b\b\b\b\b";
    }
    return shown;
}

// What a terminal shows for text: each backspace moves back one column.
std::string on_screen(const std::string &text) {
    std::string screen;
    size_t column = 0;
    for (char c : text) {
        if (c == '\b') {
            column -= column > 0 ? 1 : 0;
            continue;
        }
        if (column < screen.size())
            screen[column] = c;
        else
            screen += c;
        ++column;
    }
    return screen;
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
    json c = board.config();
    c["soc"]["revision"] = revision;
    c["soc"]["boot_config"] = boot_config;
    board.set_config(c);
}

// A medium that selects only the boot loader, with image at writedata/name.
void boot_loader_medium(const SimBoard &board, const std::string &model, const std::string &name,
                        const std::string &image) {
    board.medium_list(model, "uboot\n");
    board.medium_file(model + "/writedata/" + name, image);
}

std::vector<std::string> register_reads(const SimBoard &board) {
    std::vector<std::string> reads;
    for (const json &e : board.trace("reg"))
        reads.push_back(e["reg"].get<std::string>());
    return reads;
}

// --- boot source: the image and partition the registers select ------------------------------

struct SourceCase {
    const char *name;
    const char *revision;
    const char *boot_config;
    std::string model;
    bool es1;          // the ES1 image ("_S1") on the NOR partition, else SPI
    bool reads_config; // the boot configuration register is read after the revision
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

    RunResult r = board.tvupdate({c.model});

    std::string printed_image = c.es1 ? "" : "boot-" + c.model + ".bin\n";
    std::string line = "Need to update... " + progress(length, kBlock);
    EXPECT_EQ(r.output, run_prologue(c.model) + kStart + printed_image + (c.es1 ? "mtd6" : "mtd7") +
                            " \n" + line + kDone + run_epilogue());
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(on_screen(line + "OK     "), "Need to update... OK     ");
    // The whole region is erased, the image written at its start, the rest left alone.
    std::string flash = board.read(partition);
    ASSERT_EQ(flash.size(), kPartition);
    EXPECT_EQ(differs_at(flash, 0, image), kSame);
    EXPECT_EQ(differs_at(flash, length, std::string(kRegion - length, '\xff')), kSame);
    EXPECT_EQ(differs_at(flash, kRegion, std::string(kPartition - kRegion, '\0')), kSame);
    EXPECT_FALSE(board.exists(c.es1 ? "mtd/uboot-spi.bin" : "mtd/uboot-nor.bin"));
    std::vector<std::string> reads = {"REVID"};
    if (c.reads_config)
        reads.push_back("CCFG");
    EXPECT_EQ(register_reads(board), reads);
}

INSTANTIATE_TEST_SUITE_P(
    Sources, UbootBootSource,
    testing::Values(
        // Revision 0 boots from SPI whatever the configuration says; it is not even read.
        SourceCase{"Revision0Spi", "0x00000000", "0x00000300", "M1", false, false},
        SourceCase{"Es1Nor", kEs1, "0xfffffdff", "M1", true, true},
        // Any model name the run accepts fits the image name.
        SourceCase{"LongModelName", kEs1, "0x00000100", std::string(106, 'm'), true, true}),
    RowName());

// --- boards the update refuses ---------------------------------------------------------------

struct RefusalCase {
    const char *name;
    const char *revision;
    const char *boot_config;
    json faults;
    const char *message; // between the start line and the failure line
};

class UbootRefused : public Scenario, public testing::WithParamInterface<RefusalCase> {};

TEST_P(UbootRefused, RefusesWithItsMessageBeforeLoadingAnyDriver) {
    const RefusalCase &c = GetParam();
    boot_loader_medium(board, "M1", "boot-M1.bin", "image");
    board.medium_file("M1/writedata/boot-M1_S1.bin", "image");
    board.make();
    set_soc(board, c.revision, c.boot_config);
    for (const json &fault : c.faults)
        board.add_fault(fault);

    RunResult r = board.tvupdate({"M1"});

    EXPECT_EQ(r.output, run_prologue("M1") + kStart + c.message + kFailed + run_epilogue());
    EXPECT_EQ(r.exit_status, 255);
    EXPECT_TRUE(board.trace("insmod").empty());
    EXPECT_EQ(board.listing("mtd"), "");
    // A window is never kept: whatever was mapped is unmapped again.
    EXPECT_EQ(board.trace("mmap").size(), board.trace("munmap").size());
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, UbootRefused,
    testing::Values(
        RefusalCase{"Es1SpiBoot", kEs1, "0x00000000", json::array(),
                    "Not Support : This board is ES1 & SPI boot.\n"},
        RefusalCase{"BootFlag200", kEs1, "0x00000200", json::array(),
                    "** error ** CCFG boot flag 200 \n"},
        RefusalCase{"UnknownRevision", "0x07120011", "0x00000100", json::array(),
                    " ** error ** revid= 7120011"},
        // A revision of exactly 1 is a revision, not a failed read.
        RefusalCase{"RevisionOne", "1", "0x00000100", json::array(), " ** error ** revid= 1"},
        RefusalCase{"RevisionUnreadable", kEs1, "0x00000100",
                    json::array({fault("map_request", "PERI")}), "** error ** REV ID read error\n"},
        RefusalCase{"BootConfigUnreadable", kEs1, "0x00000100",
                    json::array({fault("mmap", "PERI", {{"skip", 1}})}),
                    "** error ** CCFG read error\n"},
        // A window the kernel placed elsewhere is of no use (and released).
        RefusalCase{"WindowPlacedElsewhere", "0x00000000", "0x00000000",
                    json::array({fault("mmap", "PERI", {{"elsewhere", true}})}),
                    "** error ** REV ID read error\n"}),
    RowName());

// --- finding the boot partition -------------------------------------------------------------

struct PartitionCase {
    const char *name;
    const char *revision;
    json partitions; // board.json "mtd"
    const char *device;
    const char *written; // partition file written, or "" when none is found
};

class UbootPartition : public Scenario, public testing::WithParamInterface<PartitionCase> {};

json partition(const char *name, int number, json drivers) {
    return json{{"name", name},       {"number", number},    {"type", "nor"},
                {"size", kPartition}, {"erasesize", kBlock}, {"drivers", std::move(drivers)}};
}

TEST_P(UbootPartition, TakesTheFirstNameFoundInItsOrderOfNames) {
    const PartitionCase &c = GetParam();
    const std::string image = pattern(1000, 3);
    boot_loader_medium(board, "M1", "boot-M1.bin", image);
    board.medium_file("M1/writedata/boot-M1_S1.bin", image);
    board.make();
    set_soc(board, c.revision, "0x00000100");
    json config = board.config();
    config["mtd"] = c.partitions;
    board.set_config(config);

    RunResult r = board.tvupdate({"M1"});

    std::string image_line = std::string(c.revision) == "0" ? "boot-M1.bin\n" : "";
    std::string rest = c.written[0] != '\0' ? "Need to update... " + progress(1000, kBlock) + kDone
                                            : std::string("uboot partition nothing?\n") + kFailed;
    EXPECT_EQ(r.output,
              run_prologue("M1") + kStart + image_line + c.device + " \n" + rest + run_epilogue());
    EXPECT_EQ(board.listing("mtd"), c.written);
}

const json kSpiDrivers = json::array({"vq71206_spi", "m25p80"});
const json kNorDrivers = json::array({"physmap"});

INSTANTIATE_TEST_SUITE_P(
    Partitions, UbootPartition,
    testing::Values(PartitionCase{"PreferredNameWins", "0",
                                  json::array({partition("spi_flash0", 2, kSpiDrivers),
                                               partition("uboot-spi", 3, kSpiDrivers)}),
                                  "mtd3", "uboot-spi.bin"},
                    PartitionCase{"LastNameOfTheList", "0",
                                  json::array({partition("VQ71206", 4, kSpiDrivers)}), "mtd4",
                                  "VQ71206.bin"},
                    // Part of a longer name counts; numbers above 9 are used whole.
                    PartitionCase{"SubstringAndTwoDigits", kEs1,
                                  json::array({partition("physmap-flash.0", 1, kNorDrivers),
                                               partition("main.uboot-nor.a", 12, kNorDrivers)}),
                                  "mtd12", "main.uboot-nor.a.bin"},
                    // Only while its driver is loaded does a partition exist.
                    PartitionCase{"DriverOfTheOtherFlash", kEs1,
                                  json::array({partition("uboot-nor", 1, kSpiDrivers)}), "", ""}),
    RowName());

class UbootDriver : public Scenario {};

TEST_F(UbootDriver, AMissingModuleLeavesThePartitionMissing) {
    boot_loader_medium(board, "M1", "boot-M1_S1.bin", "image");
    board.make();
    set_soc(board, kEs1, "0x00000100");
    std::remove(board.path("fs/modules/physmap.ko").c_str());

    RunResult r = board.tvupdate({"M1"});

    EXPECT_EQ(r.output, run_prologue("M1") + kStart + " \nuboot partition nothing?\n" + kFailed +
                            run_epilogue());
    EXPECT_EQ(r.exit_status, 255);
    EXPECT_TRUE(board.trace("insmod").empty());
}

// --- compare first, then erase, write and verify --------------------------------------------

struct WriteCase {
    const char *name;
    std::string flash; // partition contents before the run
    std::string image; // the boot loader image
    json faults;       // on the NOR partition
    std::string line;  // after "mtd6 \n"
    int exit_status;
    size_t erases;           // erase requests, failed ones included
    std::string flash_after; // the start of the partition afterwards
};

class UbootWrite : public Scenario, public testing::WithParamInterface<WriteCase> {};

TEST_P(UbootWrite, WritesOnlyWhereTheFlashDiffersAndVerifies) {
    const WriteCase &c = GetParam();
    boot_loader_medium(board, "M1", "boot-M1_S1.bin", c.image);
    board.make();
    set_soc(board, kEs1, "0x00000100");
    board.write("mtd/uboot-nor.bin", c.flash);
    for (json fault : c.faults) {
        fault["target"] = "uboot-nor";
        board.add_fault(fault);
    }

    RunResult r = board.tvupdate({"M1"});

    EXPECT_EQ(r.output, run_prologue("M1") + kStart + "mtd6 \n" + c.line + run_epilogue());
    EXPECT_EQ(r.exit_status, c.exit_status);
    EXPECT_EQ(board.trace("mtd_erase").size(), c.erases);
    EXPECT_EQ(differs_at(board.read("mtd/uboot-nor.bin"), 0, c.flash_after), kSame);
    // Every retry waits three seconds of board time.
    size_t retries = c.erases > 0 ? c.erases - 1 : 0;
    EXPECT_EQ(board.trace("sleep").size(), retries);
}

const std::string kImage = pattern(150000, 11);
const std::string kWritten = progress(kImage.size(), kBlock);

std::string with_last_byte_changed(std::string bytes) {
    bytes.back() = static_cast<char>(bytes.back() ^ 0x01);
    return bytes;
}

std::string with_first_byte_inverted(std::string bytes) {
    bytes[0] = static_cast<char>(~bytes[0]);
    return bytes;
}

json program_faults(int cycles) {
    return json::array({{{"fault", "mtd_program"}, {"times", cycles}}});
}

INSTANTIATE_TEST_SUITE_P(
    Cycles, UbootWrite,
    testing::Values(
        WriteCase{"IdenticalImageIsNotWritten", kImage, kImage, json::array(),
                  std::string("No need to update.  Skipping... ") + kDone, 0, 0, kImage},
        // Only the image's length is compared: what follows it on the flash does not matter.
        WriteCase{"OnlyTheImageLengthIsCompared", kImage + "old tail", kImage, json::array(),
                  std::string("No need to update.  Skipping... ") + kDone, 0, 0,
                  kImage + "old tail"},
        WriteCase{"LastByteDiffers", with_last_byte_changed(kImage), kImage, json::array(),
                  "Need to update... " + kWritten + kDone, 0, 1, kImage + "\xff\xff"},
        WriteCase{"VerifyFailsOnce", "", kImage, program_faults(1),
                  "Need to update... " + kWritten + " Need to retry [1]..." + kWritten + kDone, 0,
                  2, kImage},
        WriteCase{"VerifyFailsThreeTimes", "", kImage, program_faults(3),
                  "Need to update... " + kWritten + " Need to retry [1]..." + kWritten +
                      " Need to retry [2]..." + kWritten + kFailed,
                  255, 3, with_first_byte_inverted(kImage)},
        WriteCase{"EraseFailsWithoutRetry", "", kImage, json::array({fault("mtd_erase")}),
                  std::string("Need to update... erase: Input/output error\n") + kFailed, 255, 1,
                  ""},
        WriteCase{"WriteFailsWithoutRetry", "", kImage,
                  json::array({fault("mtd_write", "", {{"skip", 1}})}),
                  "Need to update... " + kWritten.substr(0, 12) + // the first chunk's step
                      "write(fd_mtd,): Input/output error\n" + kFailed,
                  255, 1, kImage.substr(0, kBlock) + "\xff"},
        // A short write is followed by the rest of its chunk.
        WriteCase{"ShortWriteIsCompleted", "", kImage,
                  json::array({fault("mtd_write", "", {{"bytes", 100}, {"times", 1}})}),
                  "Need to update... " + kWritten + kDone, 0, 1, kImage},
        // An image longer than the region is refused before anything is erased.
        WriteCase{"ImageLargerThanTheRegion", "", pattern(kRegion + 1, 5), json::array(),
                  std::string("Error: image file is larger than the region (983041 > 983040 "
                              "bytes).\n") +
                      kFailed,
                  255, 0, ""}),
    RowName());

// A protected NOR sector takes no erase: the update fails until the sectors are unprotected.
TEST_F(UbootDriver, AProtectedSectorFailsTheUpdateUntilItIsUnlocked) {
    boot_loader_medium(board, "M1", "boot-M1_S1.bin", kImage);
    board.make();
    set_soc(board, kEs1, "0x00000100");
    json c = board.config();
    c["nor"]["protected"] = {1};
    board.set_config(c);
    const std::string failed = run_prologue("M1") + kStart + "mtd6 \n" +
                               "Need to update... erase: Input/output error\n" + kFailed +
                               run_epilogue();
    EXPECT_EQ(board.tvupdate({"M1"}).output, failed);
    EXPECT_TRUE(board.trace("mtd_write").empty());
    ASSERT_EQ(board.tvservice({"nor", "unlock", "0", "0x100000"}).exit_status, 0);
    RunResult r = board.tvupdate({"M1"});
    EXPECT_EQ(r.exit_status, 0) << r.output;
    EXPECT_EQ(differs_at(board.read("mtd/uboot-nor.bin"), 0, kImage), kSame);
}

// --- the kernel's own MTD tools work on the simulated partitions ---------------------------

class MtdTools : public Scenario {};

TEST_F(MtdTools, EraseCopyAndInfoBehaveAsOnTheBoard) {
    const char *kTools[] = {"/usr/sbin/mtd_debug", "/usr/sbin/flash_erase", "/usr/sbin/flashcp"};
    for (const char *tool : kTools) {
        if (!on_host() || !std::ifstream(tool))
            GTEST_SKIP() << "host tools of mtd-utils are needed";
    }
    board.make("");
    board.write("mtd/uboot-spi.bin", std::string(kPartition, '\0'));
    const std::string image = pattern(70000, 9);
    board.write("fs/tmp/image.bin", image);
    json config = board.config();
    for (json &p : config["mtd"])
        p["drivers"] = json::array(); // present without loading a driver first
    board.set_config(config);

    RunResult info = board.run({"/usr/sbin/mtd_debug", "info", "/dev/mtd7"});
    EXPECT_EQ(info.output, "mtd.type = MTD_NORFLASH\nmtd.flags = MTD_CAP_NORFLASH\n"
                           "mtd.size = 1048576 (1M)\nmtd.erasesize = 65536 (64K)\n"
                           "mtd.writesize = 1 \nmtd.oobsize = 0 \nregions = 0\n\n");
    RunResult missing = board.run({"/usr/sbin/mtd_debug", "info", "/dev/mtd99"});
    EXPECT_NE(missing.exit_status, 0);

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
}

} // namespace
} // namespace scenario
