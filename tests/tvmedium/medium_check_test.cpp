#include "medium_build.h"
#include "medium_check.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

using Files = std::map<std::string, std::string>;

// A medium for model M in a fresh folder beside the test program, in the build tree.
fs::path make_medium(const std::string &name, const Files &files) {
    fs::path dir = fs::read_symlink("/proc/self/exe").parent_path() / "tvmedium-cases" / name;
    fs::remove_all(dir);
    for (const auto &[path, text] : files) {
        fs::path p = dir / "M" / path;
        fs::create_directories(p.parent_path());
        if (path.back() == '/')
            continue;
        std::ofstream(p, std::ios::binary) << text;
    }
    return dir;
}

// A record of len data bytes at address (S2), with a right or a wrong checksum.
std::string s2(uint32_t address, int len, uint8_t fill, bool good = true) {
    std::string line = "S2";
    uint8_t sum = 0;
    auto put = [&](uint32_t value) {
        line += format("%02X", static_cast<uint8_t>(value));
        sum = static_cast<uint8_t>(sum + value);
    };
    for (uint32_t b : {static_cast<uint32_t>(len + 4), address >> 16, address >> 8, address})
        put(b);
    for (int i = 0; i < len; ++i)
        put(fill);
    line += format("%02X\n", static_cast<uint8_t>(good ? ~sum : sum));
    return line;
}

std::string section(int bank, const char *version, const std::string &records,
                    bool terminated = true) {
    return format("TVM_BANK%d\nVERSION %s\nMICRO ID 21\nbank\n", bank, version) + records +
           (terminated ? "S804010000FA\n" : "");
}

// Both banks' sections: bank 1 with these records and version, bank 2 with one record.
std::string firmware(const std::string &bank1, const char *version = "11", bool terminated = true) {
    return section(1, version, bank1) + section(2, "11", s2(0x30000, 16, 2), terminated);
}

std::string eeprom(const std::vector<const char *> &lines) {
    std::string text = "Version 1\r\n";
    for (const char *l : lines)
        text += std::string(l) + "\r\n";
    return text + "CheckSum 0000\r\n";
}

struct Expected {
    Severity severity;
    std::string where; // the end of file:line
    const char *text;
};

bool has(const CheckReport &r, const Expected &e) {
    for (const Finding &f : r.findings) {
        std::string at = format("%s:%d", f.file.c_str(), f.line);
        if (f.severity == e.severity && at.ends_with(e.where) &&
            f.message.find(e.text) != std::string::npos)
            return true;
    }
    return false;
}

std::string dump(const CheckReport &r) {
    std::string text;
    for (const Finding &f : r.findings)
        text += format("%s:%d [%s] %s\n", f.file.c_str(), f.line, f.component.c_str(),
                       f.message.c_str());
    return text;
}

const std::string kLongComment = "#" + std::string(254, 'x');
const std::string kSync = "\xAA\x99\x55\x66"; // begins a configuration stream

TEST(MediumCheck, EveryTrapIsReportedWithFileAndLine) {
    using enum Severity;
    struct Case {
        const char *name;
        std::string list;  // flashimg.lst
        Files files;       // in writedata ("../update_mode.conf": beside the list)
        Severity severity; // also the most severe finding's: status Note 0, Warning 1, Error 2
        const char *where; // the end of file:line
        const char *text;
    } cases[] = {
        {"mac_line_ends", "app_data\rjpeg_user\rother N\r", Files{{"app_data/dpdc/a", "x"}}, Error,
         "flashimg.lst:1", "reads lines 1 to 3 as one line; only 'app_data'"},
        {"mac_line_ends_after_a_comment", "# list\rqvxbin\r", Files(), Error, "flashimg.lst:1",
         "as one comment and selects nothing"},
        {"capital_factory", "app_data/Factory\n", Files{{"app_data/dpdc/a", "x"}}, Error,
         "flashimg.lst:1", "recreates UBIFS volume app_data"},
        {"long_comment_tail", kLongComment + "tvm_eeprom\nqvxbin\n",
         Files{{"../update_mode.conf", ""}, {"TVM_DATA.txt", eeprom({"0000 01"})}}, Error,
         "flashimg.lst:1", "selects 'tvm_eeprom'"},
        {"blank_before_hash", "qvxbin\n # app_data N\n", Files{{"../update_mode.conf", ""}},
         Warning, "flashimg.lst:2", "blank before '#'"},
        {"blank_before_keyword", " qvxbin\n", Files(), Error, "flashimg.lst:1",
         "ignores this 'qvxbin' line"},
        {"comment_after_keyword_adds_letters", "model_data # No copies\n",
         Files{{"model_data/a", "x"}}, Error, "flashimg.lst:1", "option letter (here 'N')"},
        {"factory_after_volume_recreated", "app_data NF\napp_data/factory\n",
         Files{{"app_data/dpdc/a", "x"}, {"app_data/factory/a", "x"}}, Error, "flashimg.lst:2",
         "volume is recreated (line 1)"},
        {"version_ff", "tvm_hex\n", Files{{"tvm.mot", firmware(s2(0x10000, 16, 1), "FF")}}, Warning,
         "tvm.mot:2", "version FF installs"},
        {"record_checksum", "tvm_hex\n",
         Files{{"tvm.mot", firmware(s2(0x10000, 16, 1) + s2(0x10010, 16, 1, false))}}, Error,
         "tvm.mot:6", "checksum wrong"},
        {"record_outside_image", "tvm_hex\n",
         Files{{"tvm.mot", firmware(s2(0x10000, 16, 1) + s2(0x28000, 16, 1))}}, Error, "tvm.mot:6",
         "outside the 0x18000-byte image"},
        {"missing_termination", "tvm_hex\n",
         Files{{"tvm.mot", firmware(s2(0x10000, 16, 1), "11", false)}}, Warning, "tvm.mot:11",
         "no termination record"},
        {"section_without_records", "tvm_hex\n", Files{{"tvm.mot", firmware("")}}, Error,
         "tvm.mot:2", "bank 1 section has no data record"},
        {"missing_bank", "tvm_hex\n", Files{{"tvm.mot", section(1, "11", "")}}, Error, "tvm.mot:0",
         "no TVM_BANK2 section"},
        {"eeprom_last_line_not_highest", "tvm_eeprom\n",
         Files{{"TVM_DATA_x.txt", eeprom({"0000 01", "0080 02", "0010 03"})}}, Error,
         "TVM_DATA_x.txt:4", "address 0x0080 (line 3)"},
        {"eeprom_end_on_block_start", "tvm_eeprom\n",
         Files{{"TVM_DATA_x.txt", eeprom({"0000 01", "0040 02"})}}, Error, "TVM_DATA_x.txt:3",
         "every byte from 0x0040 on is not"},
        {"eeprom_end_within_a_block", "tvm_eeprom\n",
         Files{{"TVM_DATA_x.txt", eeprom({"0000 01", "013F 02"})}}, Note, "TVM_DATA_x.txt:0",
         "5 blocks of 64 bytes written, 0x0000 to 0x013F"},
        {"eeprom_short_line", "tvm_eeprom\n",
         Files{{"TVM_DATA_x.txt", eeprom({"0000 01", "0012"})}}, Error, "TVM_DATA_x.txt:3",
         "fewer than three bytes"},
        {"eeprom_outside_device", "tvm_eeprom\n", Files{{"TVM_DATA_x.txt", eeprom({"7FFF 01"})}},
         Error, "TVM_DATA_x.txt:2", "outside the device"},
        {"eeprom_without_version", "tvm_eeprom\n", Files{{"TVM_DATA_x.txt", "0000 01\n"}}, Error,
         "TVM_DATA_x.txt:1", "not a \"Version\" line"},
        {"fpga_eeprom_walk_past_image", "fpga_eeprom\n", Files{{"tr5_eep.txt", "07F0 01\n"}}, Error,
         "tr5_eep.txt:1", "would pass the image end"},
        {"boot_image_too_large", "uboot\n", Files{{"boot-M.bin", std::string(0xF0001, 'u')}}, Error,
         "boot-M.bin:0", "larger than the 983040-byte"},
        {"fpga_rom_missing", "fpga_sam_2\n", Files{{"fpga_config_sum_tr1.bin", "rom"}}, Error,
         "writedata:0", "begins with fpga_config_sum_tr5"},
        {"fpga_rom_found_by_prefix_in_any_case", "fpga_sam_3\n",
         Files{{"FPGA_CONFIG_LGD_TR6_V2.BIN", std::string(252, '\xFF') + kSync}}, Note,
         "FPGA_CONFIG_LGD_TR6_V2.BIN:0", "256 bytes for the 8388608-byte"},
        {"fpga_rom_without_sync_word", "fpga_sam_3\n",
         Files{{"fpga_config_lgd_tr6.bin", std::string(253, '\xFF') + kSync}}, Error,
         "fpga_config_lgd_tr6.bin:0", "no sync word AA 99 55 66 in the first 256 bytes"},
        // A 16-Mbit ROM: 4 KiB more wraps round onto its first pages.
        {"fpga_rom_larger_than_the_rom", "fpga_sam_1\n",
         Files{{"fpga_config_sum_tr1.bin", kSync + std::string(0x201000 - 4, 'r')}}, Error,
         "fpga_config_sum_tr1.bin:0", "2101248 bytes: larger than the 2097152-byte"},
        {"fpga_rom_prefix_on_a_folder", "fpga_sam_2\n", Files{{"fpga_config_sum_tr5_old/", ""}},
         Error, "fpga_config_sum_tr5_old:0", "is not a file"},
        {"eeprom_prefix_on_a_folder", "kolma_eeprom\n", Files{{"kolma_eep/", ""}}, Error,
         "kolma_eep:0", "is not a file"},
        {"eeprom_mac_line_ends", "fpga_eeprom\n", Files{{"tr5_eep.txt", "0000 01\r0001 02\r"}},
         Error, "tr5_eep.txt:1", "CR alone"},
        {"selects_nothing", "# nothing yet\n", Files(), Error, "flashimg.lst:0",
         "the list selects nothing"},
        {"component_listed_twice", "model_data N\nmodel_data\n", Files{{"model_data/a", "x"}},
         Error, "flashimg.lst:2",
         "listed again (first on line 1): the board takes the option "
         "letters of both lines together ('N')"},
        {"component_listed_twice_alike", "bitmap\nbitmap\n", Files{{"bitmap/a", "x"}}, Warning,
         "flashimg.lst:2", "'bitmap' is listed again (first on line 1)"},
        {"missing_source_folder", "bitmap\n", Files(), Error, "writedata/bitmap:0",
         "source folder missing"},
        {"empty_source_folder", "jpeg_user\n", Files{{"jpeg_user/", ""}}, Error,
         "writedata/jpeg_user:0", "source folder empty"},
    };
    for (const Case &c : cases) {
        Files files{{"flashimg.lst", c.list}};
        for (const auto &[path, text] : c.files)
            files["writedata/" + path] = text;
        CheckReport report = check_medium(make_medium(c.name, files).string(), "M");
        SCOPED_TRACE(c.name + (":\n" + dump(report)));
        EXPECT_TRUE(has(report, {c.severity, c.where, c.text}));
        EXPECT_EQ(report.exit_status(), static_cast<int>(c.severity));
    }
}

TEST(MediumCheck, PlainSelectionsAreCleanAndSayWhatHappens) {
    Files files{{"flashimg.lst", "# all fine\napp_data N\napp_data/factory RN\n\ntvm_hex\n"},
                {"writedata/app_data/dpdc/a", "x"},
                {"writedata/tvm.mot", firmware(s2(0x10000, 16, 1))}};
    CheckReport report = check_medium(make_medium("clean", files).string(), "M");
    EXPECT_EQ(report.exit_status(), 0) << dump(report);
    EXPECT_TRUE(has(report, {Severity::Note, "flashimg.lst:2", "erases its folder first"}));
    EXPECT_TRUE(has(report, {Severity::Note, "flashimg.lst:3", "is not refreshed"}));
    EXPECT_TRUE(has(report, {Severity::Note, "tvm.mot:2", "checksum 0x"}));
}

TEST(MediumCheck, JsonCarriesStatusAndFindings) {
    CheckReport report =
        check_medium(make_medium("json", {{"flashimg.lst", " qvxbin\n"}}).string(), "M");
    testing::internal::CaptureStdout();
    print_report_json(report, stdout);
    nlohmann::json doc = nlohmann::json::parse(testing::internal::GetCapturedStdout());
    EXPECT_EQ(doc["status"], 2);
    EXPECT_EQ(doc["model"], "M");
    ASSERT_EQ(doc["findings"].size(), 2u); // the ignored line, and a list that selects nothing
    const nlohmann::json &f = doc["findings"][0];
    EXPECT_EQ(nlohmann::json({f["severity"], f["file"], f["line"]}),
              nlohmann::json({"error", "M/flashimg.lst", 1}));
}

TEST(MediumBuild, RefusesWhatCannotLoad) {
    fs::path dir = make_medium("build-refused", {{"unused", ""}});
    for (const char *description : {
             "list tvm_hex\n",                    // no model
             "model M\nfirmware-version FF\n",    // installs over everything
             "model M\nfirmware-id 100\n",        // not a byte
             "model M\nbank1 b.bin 0x10000\n",    // one bank only
             "model M\neeprom nothing eep.bin\n", // unknown EEPROM
             "model M\nwhatever 1\n",             // unknown key
         }) {
        std::ofstream(dir / "desc.txt") << description;
        EXPECT_EQ(build_medium((dir / "desc.txt").string(), (dir / "out").string()), -1)
            << description;
    }
}

// An EEPROM binary is built only when the board writes every byte of it: the block walk ends
// at the last line's address, so a size one more than a multiple of the block loses its last
// byte, and the FPGA EEPROM's walk must end inside its 2047-byte image.
TEST(MediumBuild, WritesOnlyWhatItsCheckAccepts) {
    const struct {
        const char *component;
        size_t size;
        bool built;
    } cases[] = {
        {"tvm_eeprom", 64, true},     {"tvm_eeprom", 65, false},    {"tvm_eeprom", 1, false},
        {"kolma_eeprom", 128, true},  {"kolma_eeprom", 129, false}, {"fpga_eeprom", 33, false},
        {"fpga_eeprom", 34, true},    {"fpga_eeprom", 2016, true},  {"fpga_eeprom", 2017, false},
        {"fpga_eeprom", 2018, false}, {"fpga_eeprom", 2047, false}, {"pelto_eeprom", 0x8000, true},
    };
    fs::path dir = make_medium("build-sizes", {{"unused", ""}});
    for (const auto &c : cases) {
        SCOPED_TRACE(format("%s, %zu bytes", c.component, c.size));
        std::ofstream(dir / "eep.bin", std::ios::binary) << std::string(c.size, '\x5A');
        std::ofstream(dir / "desc.txt")
            << format("model M\nlist %s\neeprom %s eep.bin 1\n", c.component, c.component);
        fs::remove_all(dir / "out");
        int built = build_medium((dir / "desc.txt").string(), (dir / "out").string());
        EXPECT_EQ(built == 0, c.built);
        if (built == 0) {
            CheckReport report = check_medium((dir / "out").string(), "M");
            EXPECT_LT(report.exit_status(), 2) << dump(report);
        }
    }
}

} // namespace
