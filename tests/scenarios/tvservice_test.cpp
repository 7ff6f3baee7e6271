// The service tool on a simulated board: NAND raw I/O around factory and grown bad blocks,
// cross-checked with mtd-utils; its messages and exit statuses; the NOR and image list
// commands.
#include "scenarios/harness.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <set>
#include <sstream>

namespace scenario {
namespace {

using scenario::PrintTo; // found by argument lookup for the rows below

// The words of a command line, as the shell splits them.
std::vector<std::string> words(const std::string &line) {
    std::vector<std::string> args;
    std::istringstream in(line);
    for (std::string word; in >> word;)
        args.push_back(word);
    return args;
}

constexpr size_t E = 0x20000;                       // erase block of the NAND partitions
constexpr const char *kPart = "uboot_env";          // 8 blocks, /dev/mtd1
constexpr const char *kFlash = "mtd/uboot_env.bin"; // its contents
constexpr int kPartIndex = 1;

class NandService : public Scenario {
protected:
    void make_with_bad_blocks(const json &bad) {
        board.make("");
        board.change_config([&](json &c) { c["mtd"][kPartIndex]["bad_blocks"] = bad; });
    }
    std::string block(size_t physical) const { return board.read(kFlash).substr(physical * E, E); }
    RunResult write(size_t length, const std::string &image) {
        board.write("fs/tmp/in.bin", image);
        return board.tvservice(
            {"nand", "write", kPart, "0", std::to_string(length), "/tmp/in.bin"});
    }
    std::string read_back(size_t length) {
        RunResult r =
            board.tvservice({"nand", "read", "1", "0", std::to_string(length), "/tmp/out.bin"});
        EXPECT_EQ(r.exit_status, 0) << r.output;
        return board.read("fs/tmp/out.bin");
    }
};

const std::string kWritten = "nand write: 851968 bytes at 0x00000000 of /dev/mtd1\n";
const std::string kBeyondGoodBlocks = "nand write: offset 0 and length 851968 pass the end of "
                                      "the good blocks of /dev/mtd1: 0xA0000 bytes (5 good "
                                      "blocks of 0x20000 bytes)\n";

struct BadBlockCase {
    const char *name;
    std::vector<size_t> bad;       // factory-marked
    const char *fails;             // the operation that fails on each retired block, or nullptr
    std::vector<size_t> placement; // physical block of each logical block written
    std::vector<size_t> retired;   // blocks the write marked bad (grown bad blocks)
    std::string output;            // kWritten (exit status 0) or why the write failed (1)
    bool retired_erased = false;   // marking erased the retired blocks (else their erase failed)
};

class NandAroundBadBlocks : public NandService, public testing::WithParamInterface<BadBlockCase> {};

TEST_P(NandAroundBadBlocks, WritesSkipBadBlocksAndReadBackAtTheSameLogicalOffsets) {
    const BadBlockCase &c = GetParam();
    make_with_bad_blocks(c.bad);
    for (size_t b : c.retired)
        board.add_fault(fault(c.fails, ("uboot_env:" + std::to_string(b)).c_str()));
    const size_t length = 6 * E + E / 2; // a partial last block
    const std::string image = pattern(length, 11);
    const std::string old = pattern(8 * E, 5); // every block must be erased before it is written
    board.write(kFlash, old);

    expect_run(write(length, image), c.output == kWritten ? 0 : 1, c.output);
    for (size_t L = 0; L < c.placement.size(); ++L) {
        size_t n = std::min(E, length - L * E);
        EXPECT_EQ(block(c.placement[L]), image.substr(L * E, n) + std::string(E - n, '\xFF'))
            << "logical " << L;
    }
    for (size_t b : c.bad)
        EXPECT_EQ(block(b), old.substr(b * E, E)) << "bad block " << b << " was touched";
    if (c.placement.empty()) {
        EXPECT_EQ(board.read(kFlash), old);
        return;
    }
    std::vector<size_t> retired;
    for (const json &m : board.trace("mtd_markbad"))
        retired.push_back(m["block"]);
    EXPECT_EQ(retired, c.retired);
    for (size_t b : c.retired)
        EXPECT_EQ(block(b), c.retired_erased ? std::string(E, '\xFF') : old.substr(b * E, E)) << b;
    if (c.output == kWritten) {
        EXPECT_EQ(read_back(length), image); // a new process: found again after a reopen
    }
    // A later erase of logical block 2 empties the block that holds it now, and only that one.
    RunResult e = board.tvservice({"nand", "erase", "mtd1", "0x40000", "0x20000"});
    EXPECT_EQ(e.exit_status, 0) << e.output;
    EXPECT_EQ(block(c.placement[2]), std::string(E, '\xFF'));
    EXPECT_EQ(block(c.placement[3]), image.substr(3 * E, E));
}

INSTANTIATE_TEST_SUITE_P(
    Nand, NandAroundBadBlocks,
    testing::ValuesIn(std::vector<BadBlockCase>{
        {"AtTheStart", {0}, nullptr, {1, 2, 3, 4, 5, 6, 7}, {}, kWritten},
        {"InTheMiddle", {3}, nullptr, {0, 1, 2, 4, 5, 6, 7}, {}, kWritten},
        {"AtTheEnd", {6}, nullptr, {0, 1, 2, 3, 4, 5, 7}, {}, kWritten},
        {"None", {}, nullptr, {0, 1, 2, 3, 4, 5, 6}, {}, kWritten},
        {"WriteFailure", {}, "nand_write_fail", {0, 1, 3, 4, 5, 6, 7}, {2}, kWritten, true},
        {"EraseFailure", {}, "nand_erase_fail", {1, 2, 3, 4, 5, 6, 7}, {0}, kWritten},
        // Refused before the first erase: nothing is written.
        {"BeyondTheGoodBlocks", {5, 6, 7}, nullptr, {}, {}, kBeyondGoodBlocks}}),
    RowName());

// A block retired inside one run moves the logical blocks after it on to the next good block
// after the one before, as a later run finds them: each block of the range is reached once.
TEST_F(NandService, ARetiredBlockMovesTheBlocksAfterItWithinOneRun) {
    const struct {
        const char *name;
        size_t failing;             // the physical block whose erase fails
        const char *command;        // the tool's arguments, separated by spaces
        std::vector<size_t> placed; // physical block of each logical block of the range
    } cases[] = {
        {"erase, its first block retired", 0, "nand erase 1 0 0x40000", {1, 2}},
        {"erase, a middle block retired", 1, "nand erase 1 0 0x60000", {0, 2, 3}},
        {"write, its first block retired", 0, "nand write 1 0 0x40000 /tmp/in.bin", {1, 2}},
    };
    const std::string old = pattern(8 * E, 5), image = pattern(3 * E, 9);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove_all(board.dir());
        make_with_bad_blocks(json::array());
        board.add_fault(
            fault("nand_erase_fail", ("uboot_env:" + std::to_string(c.failing)).c_str()));
        board.write(kFlash, old);
        board.write("fs/tmp/in.bin", image);
        std::vector<std::string> args = words(c.command);
        const bool erase = args[1] == "erase";
        expect_run(board.tvservice(args), 0,
                   "nand " + args[1] + ": " + std::to_string(c.placed.size() * E) +
                       " bytes at 0x00000000 of /dev/mtd1\n");
        std::vector<std::string> expected(8); // the retired block too keeps what it held
        for (size_t b = 0; b < 8; ++b)
            expected[b] = old.substr(b * E, E);
        for (size_t L = 0; L < c.placed.size(); ++L)
            expected[c.placed[L]] = erase ? std::string(E, '\xFF') : image.substr(L * E, E);
        for (size_t b = 0; b < 8; ++b)
            EXPECT_TRUE(block(b) == expected[b]) << "physical block " << b;
        EXPECT_EQ(board.trace("mtd_markbad").size(), 1u);
    }
}

struct MessageCase {
    const char *name;
    const char *command;      // the tool's arguments, separated by spaces
    std::string output;       // a usage error ends with the hint and exits 2, any other failure 1
    json bad = json::array(); // factory-marked blocks of uboot_env
};

const std::string kTry = "Try 'tvservice --help' for more information.\n";

class ServiceMessages : public NandService, public testing::WithParamInterface<MessageCase> {};

TEST_P(ServiceMessages, EveryRefusalSaysWhyAndExitsWithItsStatus) {
    const MessageCase &c = GetParam();
    make_with_bad_blocks(c.bad);
    // The NOR boot partition is there from power-on (its driver built in), as mtd6.
    board.change_config([](json &config) { config["mtd"][6]["drivers"] = json::array(); });
    board.write("fs/tmp/in.bin", std::string(0x80000, 'x'));
    expect_run(board.tvservice(words(c.command)), c.output.ends_with(kTry) ? 2 : 1, c.output);
    EXPECT_TRUE(board.trace("mtd_erase").empty());
    EXPECT_TRUE(board.trace("mtd_write").empty());
    EXPECT_TRUE(board.trace("reg").empty()); // the NOR flash is not driven either
    EXPECT_FALSE(board.exists("fs/tmp/o")) << "a refused read made its file";
}

const std::string kOneBadBlock = "pass the end of the good blocks of /dev/mtd1: 0xE0000 bytes "
                                 "(7 good blocks of 0x20000 bytes)\n";

INSTANTIATE_TEST_SUITE_P(
    Service, ServiceMessages,
    testing::Values(
        // Every range is checked, as typed, before the first block is touched.
        MessageCase{"Misaligned", "nand write uboot_env 0x20001 16 /tmp/in.bin",
                    "nand write: offset 0x20001 is not a multiple of the erase block (0x20000 "
                    "bytes)\n"},
        MessageCase{"PastTheEnd", "nand read 1 0xE0000 0x40000 /tmp/o",
                    "nand read: offset 0xE0000 and length 0x40000 pass the end of the good "
                    "blocks of /dev/mtd1: 0x100000 bytes (8 good blocks of 0x20000 bytes)\n"},
        MessageCase{"ErasePastTheEnd", "nand erase 1 0xC0000 0x60000",
                    "nand erase: offset 0xC0000 and length 0x60000 pass the end of the good "
                    "blocks of /dev/mtd1: 0x100000 bytes (8 good blocks of 0x20000 bytes)\n"},
        MessageCase{"ErasePartOfABlockPastTheEnd", "nand erase 1 0xE0000 0x20001",
                    "nand erase: offset 0xE0000 and length 0x20001 pass the end of the good "
                    "blocks of /dev/mtd1: 0x100000 bytes (8 good blocks of 0x20000 bytes)\n"},
        // A bad block makes the partition one block shorter: a whole-partition request is
        // refused up front instead of failing at its last block.
        MessageCase{"WholeReadWithABadBlock",
                    "nand read 1 0 0x100000 /tmp/o",
                    "nand read: offset 0 and length 0x100000 " + kOneBadBlock,
                    {3}},
        MessageCase{"WholeWriteWithABadBlock",
                    "nand write 1 0 1048576 /tmp/in.bin",
                    "nand write: offset 0 and length 1048576 " + kOneBadBlock,
                    {3}},
        MessageCase{"WholeEraseWithABadBlock",
                    "nand erase uboot_env 0 0x100000",
                    "nand erase: offset 0 and length 0x100000 " + kOneBadBlock,
                    {7}},
        MessageCase{"NorPartition", "nand write 6 0 4096 /tmp/in.bin",
                    "nand write: /dev/mtd6 is not a NAND partition (MTD type 3)\n"},
        MessageCase{"NorPartitionByName", "nand erase uboot-nor 0 0x10000",
                    "nand erase: /dev/mtd6 is not a NAND partition (MTD type 3)\n"},
        MessageCase{"ZeroLength", "nand erase 1 0x20001 0",
                    "tvservice: length '0' is zero: nothing to do\n" + kTry},
        MessageCase{"ZeroLengthRead", "nand read 1 0 0x0 /tmp/o",
                    "tvservice: length '0x0' is zero: nothing to do\n" + kTry},
        MessageCase{"ShortInput", "nand write 1 0 0x80001 /tmp/in.bin",
                    "nand write: /tmp/in.bin holds fewer than 524289 bytes\n"},
        MessageCase{"InputNotAFile", "nand write 1 0 16 /tmp",
                    "nand write: /tmp holds fewer than 16 bytes\n"},
        MessageCase{"NoSuchDevice", "nand read 42 0 1 /tmp/o",
                    "open: No such file or directory\nnand read: cannot open /dev/mtd42\n"},
        MessageCase{"NameMustMatchWhole", "nand read uboot 0 1 /tmp/o",
                    "tvservice: no MTD partition 'uboot'\n" + kTry},
        MessageCase{"BadNumber", "nand erase 1 12k 1", "tvservice: invalid offset '12k'\n" + kTry},
        MessageCase{"BadLength", "nand read 1 0 1x /tmp/o",
                    "tvservice: invalid length '1x'\n" + kTry},
        MessageCase{"MissingFile", "nand read 1 0 1",
                    "tvservice: nand read: wrong number of arguments\n" + kTry},
        MessageCase{"NandOperationAlone", "nand erase",
                    "tvservice: nand erase: wrong number of arguments\n" + kTry},
        MessageCase{
            "NoGoodBlock",
            "nand read 1 0 1 /tmp/o",
            "nand read: offset 0 and length 1 pass the end of the good blocks of /dev/mtd1: "
            "0x0 bytes (0 good blocks of 0x20000 bytes)\n",
            {0, 1, 2, 3, 4, 5, 6, 7}},
        MessageCase{"UnknownNandOperation", "nand dump 1 0 1",
                    "tvservice: nand: unknown operation 'dump'\n" + kTry},
        MessageCase{"UnknownCommand", "flash", "tvservice: unknown command 'flash'\n" + kTry},
        MessageCase{"NoCommand", "", "tvservice: missing command\n" + kTry},
        MessageCase{"UnknownNorOperation", "nor wipe 0 1",
                    "tvservice: nor: unknown operation 'wipe'\n" + kTry},
        MessageCase{"UnknownEeprom", "eeprom pelto /tmp",
                    "tvservice: eeprom: unknown EEPROM 'pelto'\n" + kTry},
        MessageCase{"NorBadOffset", "nor lock 1x 4", "tvservice: invalid offset '1x'\n" + kTry},
        MessageCase{"NorBadLength", "nor status 0 1x", "tvservice: invalid length '1x'\n" + kTry},
        MessageCase{"EepromExtraArgument", "eeprom ferund /tmp M1 more",
                    "tvservice: eeprom: expected NAME DIR [MODEL]\n" + kTry},
        MessageCase{"NorStartBeyondTheFlash", "nor status 0x100000 4",
                    "error: 0x100000 exceeds device size\n"},
        // nvLock reads a zero length, or an end past the flash, as "to the last sector".
        MessageCase{"NorZeroLength", "nor lock 0 0",
                    "tvservice: length '0' is zero: nothing to do\n" + kTry},
        MessageCase{"NorPastTheEnd", "nor unlock 0x8000 0x200000",
                    "tvservice: offset 0x8000 and length 0x200000 pass the end of the NOR flash "
                    "(0x100000 bytes)\n" +
                        kTry},
        MessageCase{"MissingList", "list /tmp/none.lst",
                    "/tmp/none.lst: No such file or directory\n"}),
    RowName());

TEST_F(NandService, HelpListsEveryCommandAndSucceeds) {
    board.make("");
    RunResult r = board.tvservice({"nand", "--help"});
    EXPECT_EQ(r.exit_status, 0);
    for (const char *line :
         {"nand read PART", "nand write PART", "nand erase PART", "nor status", "nor lock",
          "nor unlock", "eeprom ferund", "eeprom vornek", "list FILE"})
        EXPECT_NE(r.output.find(line), std::string::npos) << line;
}

TEST_F(NandService, ImageListIsShownWithoutTouchingAnyVolume) {
    board.make("");
    board.write("fs/tmp/flashimg.lst",
                "# comment\ntvm_hex\napp_data F N\nbitmap N\nzoran_update\nfpga_sam_2\n"
                "app_data/factory RN\n");
    const std::string recreated = "UBIFS volume [app_data] would be removed and made again\n";
    const std::string selected = "app_data/factory erase-first\n"
                                 "app_data         update erase-first\n"
                                 "bitmap           update erase-first\n"
                                 "tvm_hex          update\n";
    expect_run(board.tvservice({"list", "/tmp/flashimg.lst"}), 0,
               recreated + selected + "zoran_update     update\nfpga_sam_2       update\n");
    RunResult sd = board.tvservice({"list", "/tmp/flashimg.lst", "--sd"});
    EXPECT_EQ(sd.output, recreated + "Cannot update zoran from SD card\n" + selected +
                             "fpga_sam_2       update\n");
    EXPECT_TRUE(board.trace("shell").empty());
    EXPECT_TRUE(board.trace("mount").empty());
}

// The updaters' own lines are pinned where they are called directly; here, what the tool adds.
TEST_F(NandService, EepromsAreRewrittenFromTheirTextFiles) {
    const struct {
        const char *what, *file, *text, *command;
        std::string output;
        const char *cells; // the image file, and its bytes 0, 1, 0x40, 0x41 and 0x50
        std::string bytes;
    } cases[] = {
        // The lower-case name is the one read.
        {"vornek", "vornek_eep.txt", "0000 01\n0041 02\n0050 03\n",
         "eeprom vornek /tmp/M1/writedata",
         "Start writing to Vornek EEPROM, please wait... \n"
         "\r   0% completed\r  80% completed\r\r 100% completed\neeprom vornek: updated\n",
         "i2c/vornek.bin", "\x01\xFF\xFF\x02\x03"},
        {"ferund", "TVM_DATA.txt", "Version 3\n0000 11\n0041 22\n",
         "eeprom ferund /tmp/M1/writedata PHQD2WK1",
         "EEP file Version 3\nStart writing to EEPROM, please wait... \n"
         "\r   0% completed\r  98% completed\reeprom ferund: updated\n",
         "tvm/ferund.bin", "\x11\xFF\xFF\x22\xFF"},
    };
    board.make("");
    board.write("fs/tmp/M1/writedata/VORNEK_EEP.TXT", "unused\n");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        board.write(std::string("fs/tmp/M1/writedata/") + c.file, c.text);
        expect_run(board.tvservice(words(c.command)), 0,
                   "Reading from file : /tmp/M1/writedata/" + std::string(c.file) + " \n" +
                       c.output);
        std::string image = board.read(c.cells);
        ASSERT_EQ(image.size(), 32768u);
        EXPECT_EQ(image.substr(0, 2) + image.substr(0x40, 2) + image.substr(0x50, 1), c.bytes);
    }
    // The television is switched on, its picture muted (a second after each mute) and switched
    // off again around the Ferund update; its blocks are not read back.
    EXPECT_EQ(board.uart_frames(), (std::map<std::string, int>{{"eeprom_write", 2},
                                                               {"guard_dog", 1},
                                                               {"picture_mute", 5},
                                                               {"power_off", 1},
                                                               {"power_on", 1}}));
    EXPECT_FALSE(board.state()["microcontroller"].value("power", true));
    EXPECT_GE(board.board_seconds(), 5.0);
    RunResult refused = board.tvservice({"eeprom", "ferund", "/tmp/M1/writedata", "ABC123"});
    EXPECT_THAT(refused.output, testing::EndsWith("FERUND EEP\neeprom ferund: FAILED\n"));
    EXPECT_EQ(refused.exit_status, 1);
}

// --- NOR sector protection through /dev/udirect -----------------------------------------------

class NorService : public Scenario {
protected:
    void make(const json &nor, const json &faults = json::array()) {
        board.make("");
        board.change_config([&](json &c) { c.update({{"nor", nor}, {"faults", faults}}); });
    }
    // The status lines of sectors first..last, with the locked ones marked.
    static std::string listing(unsigned first, unsigned last, std::set<unsigned> locked) {
        static constexpr uint32_t kBase[] = {0, 0x4000, 0x6000, 0x8000};
        std::string out;
        for (unsigned s = first; s <= last; ++s) {
            char line[48];
            snprintf(line, sizeof line, "sector %2u(%08X) %s\n", s,
                     s < 4 ? kBase[s] : 0x10000 * (s - 3), locked.count(s) ? "locked" : "unlocked");
            out += line;
        }
        return out;
    }
    json protected_sectors() const {
        return board.state().value("nor", json::object()).value("protected", json::array());
    }
};

TEST_F(NorService, StatusListsTheSectorsOfTheRangeAsTheFlashReportsThem) {
    make({{"protected", {0, 4, 18}}});
    expect_run(board.tvservice({"nor", "status", "0", "0x10001"}), 0, listing(0, 4, {0, 4}));
    EXPECT_EQ(board.tvservice({"nor", "status", "0xF0000", "1"}).output, listing(18, 18, {18}));
    // Every bus cycle is seen, 16 bits wide: the three autoselect cycles come first.
    std::vector<json> reg = board.trace("reg");
    ASSERT_GE(reg.size(), 4u);
    for (const auto &[i, addr, value] : {std::tuple{0, "0x01fc0aaa", "0x000000aa"},
                                         {1, "0x01fc0554", "0x00000055"},
                                         {2, "0x01fc0aaa", "0x00000090"}})
        EXPECT_EQ(json({reg[i]["addr"], reg[i]["value"], reg[i]["width"], reg[i]["op"]}),
                  json({addr, value, 2, "write"}));
}

struct NorCase {
    const char *name;
    json before; // the sectors protected before the command; null: the board has no /dev/udirect
    json fault;  // null: none
    const char *command; // the tool's arguments, separated by spaces
    std::string output;
    int exit_status;
    json after;          // the sectors protected when the command is done
    const char *counted; // a kind of trace record the row counts,
    size_t count;        // and how many the run left
};

class NorCommand : public NorService, public testing::WithParamInterface<NorCase> {};

TEST_P(NorCommand, LeavesTheSectorsAsItReportsWithVidOff) {
    const NorCase &c = GetParam();
    make(c.before.is_null() ? json{{"driver", false}} : json{{"protected", c.before}},
         c.fault.is_null() ? json::array() : json::array({c.fault}));
    expect_run(board.tvservice(words(c.command)), c.exit_status, c.output);
    EXPECT_EQ(protected_sectors(), c.after);
    EXPECT_EQ(board.trace(c.counted).size(), c.count) << c.counted;
    // VID switches on, then off again, each at the write of its register.
    std::vector<json> events = board.trace();
    size_t switches = 0;
    for (size_t i = 1; i < events.size(); ++i) {
        if (events[i]["ev"] != "vid")
            continue;
        bool on = ++switches % 2 == 1;
        EXPECT_EQ(events[i]["level"], on ? 1 : 0);
        EXPECT_EQ(events[i - 1].value("reg", ""), on ? "VID_ON" : "VID_OFF");
    }
    EXPECT_EQ(switches % 2, 0u) << "VID left switched on";
    for (const json &pulse : board.trace("nor_pulse"))
        EXPECT_EQ(pulse["us"], pulse["op"] == "unprotect" ? 15000 : 150) << pulse.dump();
    if (!c.before.is_null()) {
        // The flash was left reading array: the status lists it now, and after a reboot, as
        // the flash keeps its protection.
        const std::string status = listing(0, 3, c.after.get<std::set<unsigned>>());
        EXPECT_EQ(board.tvservice({"nor", "status", "0", "0x8001"}).output, status);
        board.reboot();
        EXPECT_EQ(board.tvservice({"nor", "status", "0", "0x8001"}).output, status);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Nor, NorCommand,
    testing::Values(NorCase{"LockProtectsTheRange", json::array(), nullptr,
                            "nor lock 0x4000 0x4000", "", 0, json({1, 2}), "vid", 2},
                    NorCase{"UnlockOfOneSectorUnprotectsTheChip", json({0, 5, 9}), nullptr,
                            "nor unlock 0x50000 0x10000", "", 0, json::array(), "nor_pulse", 1},
                    NorCase{"UnlockRetriesUntilTheSectorVerifies", json({5}),
                            fault("nor_verify", "5", {{"times", 2}}), "nor unlock 0x20000 1",
                            "Retrying\nRetrying\n", 0, json::array(), "fault", 2},
                    // Every selected sector is verified, not only the first.
                    NorCase{"UnlockVerifiesEverySector", json({1, 2, 3}),
                            fault("nor_verify", "2", {{"times", 2}}), "nor unlock 0x4000 0x8000",
                            "Retrying\nRetrying\n", 0, json::array(), "nor_pulse", 3},
                    // The fault hits every attempt on sector 2.
                    NorCase{"SectorNeverVerifies", json::array(), fault("nor_verify", "2"),
                            "nor lock 0x4000 0x6000", "FAILED\n", 1, json({1}), "fault", 25},
                    // An unlock gives up after its thousand pulses.
                    NorCase{"UnlockGivesUpAfterItsPulses", json({2}), fault("nor_verify", "2"),
                            "nor unlock 0x6000 1",
                            [] {
                                std::string retries;
                                for (int i = 0; i < 1000; ++i)
                                    retries += "Retrying\n";
                                return retries + "FAILED\n";
                            }(),
                            1, json({2}), "nor_pulse", 1000},
                    NorCase{"VidDoesNotSwitchOn", json::array(), fault("nor_vid", "on"),
                            "nor lock 0x4000 0x6000", "FAILED\n", 1, json::array(), "fault", 1},
                    NorCase{"WithoutTheDirectAccessDriverNothingIsTouched", nullptr, nullptr,
                            "nor lock 0 0x4000", "open: No such file or directory\n", 1,
                            json::array(), "mmap", 0}),
    RowName());

// --- mtd-utils against the same bad blocks --------------------------------------------------

TEST_F(NandService, MtdUtilsAndTheServiceToolAgreeOnBadBlocks) {
    if (!on_host())
        GTEST_SKIP() << "mtd-utils are host programs";
    make_with_bad_blocks({1, 4});
    const size_t length = 5 * E;
    const std::string image = pattern(length, 3);

    ASSERT_EQ(write(length, image).exit_status, 0);
    // A host program run on the board: its output, a failure reported.
    auto ran = [&](const std::vector<std::string> &args) {
        RunResult r = board.run(args);
        EXPECT_EQ(r.exit_status, 0) << r.output;
        return r.output;
    };
    const std::string l = std::to_string(length);
    ran({"nanddump", "-q", "--bb=skipbad", "-l", l, "-f", "/tmp/dump.bin", "/dev/mtd1"});
    EXPECT_EQ(board.read("fs/tmp/dump.bin"), image);

    const std::string erase = ran({"flash_erase", "/dev/mtd1", "0", "0"});
    EXPECT_THAT(erase, testing::HasSubstr("Skipping bad block at 00020000"));
    EXPECT_THAT(erase, testing::HasSubstr("Skipping bad block at 00080000"));
    // Its whole-chip attempt meets the bad blocks and is refused; then block by block, the bad
    // blocks are never erased.
    for (const json &e : board.trace("mtd_erase")) {
        if (e["length"] == E) {
            EXPECT_TRUE(e["start"] != E && e["start"] != 4 * E && !e.contains("errno")) << e;
        }
    }
    EXPECT_EQ(board.read(kFlash), std::string(8 * E, '\xFF'));

    const std::string other = pattern(length, 8);
    board.write("fs/tmp/nw.bin", other);
    ran({"nandwrite", "-q", "/dev/mtd1", "/tmp/nw.bin"});
    EXPECT_EQ(block(2), other.substr(E, E)); // logical 1 in physical 2
    EXPECT_EQ(read_back(length), other);

    // The out-of-band area: the bad-block marker of block 1, the ECC of a written page.
    ran({"nanddump", "-q", "--oob", "--bb=dumpbad", "-s", "0x20000", "-l", "2048", "-f",
         "/tmp/oob.bin", "/dev/mtd1"});
    EXPECT_EQ(board.read("fs/tmp/oob.bin"),
              std::string(2048, '\xFF') + std::string(2, '\0') + std::string(62, '\xFF'));
    ran({"nanddump", "-q", "--oob", "-l", "2048", "-f", "/tmp/oob.bin", "/dev/mtd1"});
    const std::string page = board.read("fs/tmp/oob.bin");
    EXPECT_EQ(page.substr(0, 2048 + 40), other.substr(0, 2048) + std::string(40, '\xFF'));
    for (size_t step = 0; step < 8; ++step) // three ECC bytes for each 256 bytes of the page
        EXPECT_NE(page.substr(2048 + 40 + 3 * step, 3), std::string(3, '\xFF')) << step;

    // Written again without an erase, a page holds both writes and ECC that fits neither: the
    // data comes back as it is, and the ECC counts report it.
    board.write("fs/tmp/nw.bin", image.substr(0, 2048));
    ran({"nandwrite", "-q", "/dev/mtd1", "/tmp/nw.bin"});
    EXPECT_THAT(ran({"nanddump", "-l", "2048", "-f", "/tmp/dump.bin", "/dev/mtd1"}),
                testing::HasSubstr("ECC: 1 uncorrectable bitflip(s) at offset 0x00000000"));
    std::string both = other.substr(0, 2048);
    for (size_t i = 0; i < both.size(); ++i)
        both[i] = static_cast<char>(both[i] & image[i]);
    EXPECT_EQ(board.read("fs/tmp/dump.bin"), both);
}

} // namespace
} // namespace scenario
